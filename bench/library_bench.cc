// What an application sees of the library and the hub, each figure beside
// a floor measured in the same run:
//
//   - the command round trip: varn_send_msg(CMD) then varn_wait for the DONE
//     of a server that answers at once, against a one-byte ping-pong over a
//     pipe pair between two processes;
//   - stream throughput: 64-byte and 16 KiB DATA records in a BEGIN .. END
//     stream read back with varn_recv_data, against bulk bytes through one
//     pipe (64 KiB writes and reads);
//   - memory: VmRSS of an idle client and of the hub with 2 and with 50
//     clients, against an idle process of this same program that never
//     called varn_init.
//
//   build/bench/library_bench [--runs N] [--rounds N] [--small N] [--large N]
//
// --rounds is the number of round trips in a run (the pipe does ten times
// as many), --small and --large the records in a 64-byte and a 16 KiB
// stream; the pipe carries 256 MiB a run.
//
// Run plainly, it starts quon with itself as the first client (the driver);
// the driver starts its servers through the hub ("serve"). Results go to
// standard output, the hub's and the library's lines to standard error.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "varn.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kSmallRecord = 64;
constexpr std::size_t kLargeRecord = 16384;
constexpr std::size_t kPipeChunk = 65536;

// Every timed figure is the median of `runs` runs, each run measuring the
// figure and its floor one after the other so that both see the same load.
struct Settings {
  long runs = 7;
  long rounds = 3000;
  long small = 1000000;
  long large = 20000;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "library_bench: %s: %s\n", what,
               varn_get_error_message(varn_get_error_no()));
  std::exit(1);
}

[[noreturn]] void DieErrno(const char* what) {
  std::fprintf(stderr, "library_bench: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

bool ReadFull(int fd, char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = read(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool WriteFull(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

void Reap(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// ---- the server ---------------------------------------------------------

std::vector<std::string> Words(const char* text) {
  std::vector<std::string> words;
  std::string word;
  for (const char* p = text;; ++p) {
    if (*p == ' ' || *p == '\0') {
      if (!word.empty()) words.push_back(word);
      word.clear();
      if (*p == '\0') break;
    } else {
      word += *p;
    }
  }
  return words;
}

// "ping": DONE at once. "stream SIZE COUNT": BEGIN, COUNT DATA records of
// SIZE bytes, END, DONE.
void OnCommand(int h) {
  if (h < 0) return;
  static char command[4096];
  uint32_t category = 0;
  uint32_t length = 0;
  if (!varn_recv_msg_len(h, &category, command, &length) || category != VARN_CMD) return;
  std::vector<std::string> w = Words(command);
  if (w.size() == 1 && w[0] == "ping") {
    varn_send_msg(h, VARN_DONE, "ok", 0);
    return;
  }
  if (w.size() != 3 || w[0] != "stream") {
    varn_send_msg(h, VARN_ERROR, "commands: ping | stream SIZE COUNT", 0);
    return;
  }
  long size = std::atol(w[1].c_str());
  long count = std::atol(w[2].c_str());
  if (size < 1 || size > 1 << 20 || count < 1) {
    varn_send_msg(h, VARN_ERROR, "stream: bad SIZE or COUNT", 0);
    return;
  }
  std::vector<char> record(static_cast<std::size_t>(size), 'x');
  if (!varn_send_msg(h, VARN_BEGIN, "records", 0)) return;
  for (long i = 0; i < count; ++i) {
    if (!varn_send_msg(h, VARN_DATA, record.data(), size)) return;
  }
  varn_send_msg(h, VARN_END, "end", 0);
  varn_send_msg(h, VARN_DONE, "ok", 0);
}

// ---- the floors ---------------------------------------------------------

// One byte each way between this process and a forked child.
double PipePingPongSeconds(long rounds) {
  int there[2], back[2];
  if (pipe(there) != 0 || pipe(back) != 0) DieErrno("pipe");
  pid_t pid = fork();
  if (pid < 0) DieErrno("fork");
  if (pid == 0) {
    close(there[1]);
    close(back[0]);
    char c;
    while (ReadFull(there[0], &c, 1) && WriteFull(back[1], &c, 1)) {
    }
    _exit(0);
  }
  close(there[0]);
  close(back[1]);
  char c = 'p';
  for (int i = 0; i < 1000; ++i) {
    if (!WriteFull(there[1], &c, 1) || !ReadFull(back[0], &c, 1)) DieErrno("ping-pong");
  }
  auto start = Clock::now();
  for (long i = 0; i < rounds; ++i) {
    if (!WriteFull(there[1], &c, 1) || !ReadFull(back[0], &c, 1)) DieErrno("ping-pong");
  }
  double s = Seconds(start);
  close(there[1]);
  close(back[0]);
  Reap(pid);
  return s / static_cast<double>(rounds);
}

// Bytes per second from a forked child through one pipe.
double PipeBulkBytesPerSecond(std::size_t total) {
  int fds[2];
  if (pipe(fds) != 0) DieErrno("pipe");
  pid_t pid = fork();
  if (pid < 0) DieErrno("fork");
  if (pid == 0) {
    close(fds[0]);
    static char chunk[kPipeChunk];
    std::memset(chunk, 'x', sizeof chunk);
    for (std::size_t sent = 0; sent < total; sent += kPipeChunk) {
      if (!WriteFull(fds[1], chunk, std::min(kPipeChunk, total - sent))) _exit(1);
    }
    _exit(0);
  }
  close(fds[1]);
  std::vector<char> chunk(kPipeChunk);
  std::size_t got = 0;
  auto start = Clock::now();
  for (;;) {
    ssize_t n = read(fds[0], chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  double s = Seconds(start);
  close(fds[0]);
  Reap(pid);
  if (got != total) DieErrno("bulk pipe lost bytes");
  return static_cast<double>(total) / s;
}

// ---- memory -------------------------------------------------------------

long RssKiB(long pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%ld/status", pid);
  FILE* f = std::fopen(path, "r");
  if (f == nullptr) return -1;
  char line[256];
  long kib = -1;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "VmRSS:", 6) == 0) {
      kib = std::atol(line + 6);
      break;
    }
  }
  std::fclose(f);
  return kib;
}

// VmRSS of this program started again in "plain" mode: the same binary and
// shared libraries, but varn_init never called.
long PlainProcessRssKiB(const char* self) {
  int ready[2];
  if (pipe(ready) != 0) DieErrno("pipe");
  pid_t pid = fork();
  if (pid < 0) DieErrno("fork");
  if (pid == 0) {
    if (dup2(ready[1], 0) < 0) _exit(1);
    for (int fd = 3; fd < 256; ++fd) close(fd);
    execl(self, "library_bench", "plain", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ready[1]);
  char c;
  bool started = ReadFull(ready[0], &c, 1);
  close(ready[0]);
  usleep(100000);
  long kib = started ? RssKiB(pid) : -1;
  kill(pid, SIGKILL);
  Reap(pid);
  return kib;
}

// ---- the driver ---------------------------------------------------------

varnHandle StartServer() {
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle h = -1;
  if (!varn_invoke(&h, "library_bench", nullptr, "serve", 0, refusal, nullptr)) {
    std::fprintf(stderr, "library_bench: the hub refused to start a server: %s\n", refusal);
    Die("invoke");
  }
  return h;
}

long ServerPid(varnHandle h) {
  char* name = nullptr;
  char* address = nullptr;
  if (!varn_query_handle_address(h, &name, &address) || address == nullptr) return -1;
  return std::atol(address);  // pid@host
}

// The results go to the standard output the program was started with; the
// library sends what is written to descriptor 1 after varn_init to the
// standard error, where the hub's own lines go.
FILE* g_out = stdout;

std::vector<char> g_buffer(kLargeRecord + 4096);

void Expect(varnHandle h, uint32_t wanted) {
  uint32_t category = 0;
  uint32_t length = 0;
  if (!varn_wait(h, &category, g_buffer.data(), &length, 0, 1)) Die("wait");
  if (category != wanted) {
    std::fprintf(stderr, "library_bench: got category %u, wanted %u: %s\n", category, wanted,
                 g_buffer.data());
    std::exit(1);
  }
}

double RoundTripSeconds(varnHandle h, long rounds) {
  for (int i = 0; i < 200; ++i) {
    if (!varn_send_msg(h, VARN_CMD, "ping", 0)) Die("send");
    Expect(h, VARN_DONE);
  }
  auto start = Clock::now();
  for (long i = 0; i < rounds; ++i) {
    if (!varn_send_msg(h, VARN_CMD, "ping", 0)) Die("send");
    Expect(h, VARN_DONE);
  }
  return Seconds(start) / static_cast<double>(rounds);
}

// Seconds from the CMD to the DONE after the stream's END.
double StreamSeconds(varnHandle h, std::size_t size, long count) {
  char command[64];
  std::snprintf(command, sizeof command, "stream %zu %ld", size, count);
  auto start = Clock::now();
  if (!varn_send_msg(h, VARN_CMD, command, 0)) Die("send");
  Expect(h, VARN_BEGIN);
  long records = 0;
  for (;;) {
    uint32_t category = 0;
    uint32_t length = 0;
    if (!varn_recv_data(h, &category, g_buffer.data(), static_cast<int64_t>(g_buffer.size()),
                        &length)) {
      Die("recv_data");
    }
    if (category == VARN_END) break;
    if (category != VARN_DATA || length != size) {
      std::fprintf(stderr, "library_bench: record %ld: category %u, %u bytes\n", records, category,
                   length);
      std::exit(1);
    }
    ++records;
  }
  Expect(h, VARN_DONE);
  double s = Seconds(start);
  if (records != count) {
    std::fprintf(stderr, "library_bench: %ld records of %ld\n", records, count);
    std::exit(1);
  }
  return s;
}

void PrintStream(const char* label, std::size_t size, long count, double seconds,
                 double pipe_bytes_per_s) {
  double records_per_s = static_cast<double>(count) / seconds;
  double mb_per_s = records_per_s * static_cast<double>(size) / 1e6;
  double pipe_mb_per_s = pipe_bytes_per_s / 1e6;
  std::fprintf(g_out, "  %-14s %11.0f records/s %9.1f MB/s   pipe %8.1f MB/s   %6.3fx\n", label,
               records_per_s, mb_per_s, pipe_mb_per_s, mb_per_s / pipe_mb_per_s);
}

// The spread behind a median: "lowest .. highest" of values times scale.
std::string Spread(std::vector<double> v, double scale, const char* format) {
  std::sort(v.begin(), v.end());
  char text[96];
  std::string f = std::string(format) + " .. " + format;
  std::snprintf(text, sizeof text, f.c_str(), v.front() * scale, v.back() * scale);
  return text;
}

void PrintMemory(const char* label, long kib, long floor_kib) {
  std::fprintf(g_out, "  %-26s %8.1f MiB   plain process %6.1f MiB   %6.2fx\n", label, kib / 1024.0,
               floor_kib / 1024.0, floor_kib > 0 ? static_cast<double>(kib) / floor_kib : 0.0);
}

void Drive(const Settings& s, const char* self) {
  long hub = static_cast<long>(getppid());
  varnHandle server = StartServer();
  if (!varn_send_msg(server, VARN_CMD, "ping", 0)) Die("send");
  Expect(server, VARN_DONE);
  usleep(200000);

  std::fprintf(g_out, "memory (VmRSS; the driver counts as a client)\n");
  long plain = PlainProcessRssKiB(self);
  PrintMemory("idle client", RssKiB(ServerPid(server)), plain);
  long hub2 = RssKiB(hub);
  PrintMemory("hub, 2 clients", hub2, plain);
  std::vector<varnHandle> idle;
  for (int i = 0; i < 48; ++i) idle.push_back(StartServer());
  usleep(200000);
  long hub50 = RssKiB(hub);
  PrintMemory("hub, 50 clients", hub50, plain);
  std::fprintf(g_out, "  (the hub grows by %.0f KiB per client)\n", (hub50 - hub2) / 48.0);
  for (varnHandle h : idle) {
    if (!varn_kill(h)) Die("kill");
  }
  usleep(300000);

  std::fprintf(g_out, "command round trip (CMD, its ACK, DONE), median of %ld runs\n", s.runs);
  std::vector<double> hub_rt, pipe_rt;
  for (long run = 0; run < s.runs; ++run) {
    pipe_rt.push_back(PipePingPongSeconds(s.rounds * 10));
    hub_rt.push_back(RoundTripSeconds(server, s.rounds));
  }
  double hub_us = Median(hub_rt) * 1e6, pipe_us = Median(pipe_rt) * 1e6;
  std::fprintf(g_out, "  through the hub %8.1f us   pipe ping-pong %6.2f us   %6.1fx\n", hub_us,
               pipe_us, hub_us / pipe_us);
  std::fprintf(g_out, "  (runs: hub %s us, pipe %s us)\n", Spread(hub_rt, 1e6, "%.1f").c_str(),
               Spread(pipe_rt, 1e6, "%.2f").c_str());

  std::fprintf(g_out, "stream throughput (BEGIN .. DATA .. END, DONE), median of %ld runs\n",
               s.runs);
  StreamSeconds(server, kSmallRecord, 1000);  // warm-up
  std::vector<double> pipe_bulk, small_s, large_s;
  for (long run = 0; run < s.runs; ++run) {
    pipe_bulk.push_back(PipeBulkBytesPerSecond(std::size_t{256} << 20));
    small_s.push_back(StreamSeconds(server, kSmallRecord, s.small));
    large_s.push_back(StreamSeconds(server, kLargeRecord, s.large));
  }
  PrintStream("64 B records", kSmallRecord, s.small, Median(small_s), Median(pipe_bulk));
  PrintStream("16 KiB records", kLargeRecord, s.large, Median(large_s), Median(pipe_bulk));
  auto mb_per_s = [](std::vector<double> seconds, double bytes) {
    for (double& x : seconds) x = bytes / x / 1e6;
    return seconds;
  };
  std::fprintf(
      g_out, "  (runs in MB/s: 64 B %s, 16 KiB %s, pipe %s)\n",
      Spread(mb_per_s(small_s, kSmallRecord * static_cast<double>(s.small)), 1, "%.0f").c_str(),
      Spread(mb_per_s(large_s, kLargeRecord * static_cast<double>(s.large)), 1, "%.0f").c_str(),
      Spread(pipe_bulk, 1e-6, "%.0f").c_str());

  usleep(100000);
  PrintMemory("hub after the streams", RssKiB(hub), plain);
  if (!varn_kill(server)) Die("kill");
}

// Not under a hub yet: start quon with this program as its first client,
// finding the servers in this program's own directory.
int StartUnderHub(int argc, char** argv) {
  std::string self = "/proc/self/exe";
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n > 0) {
    path[n] = '\0';
    self = path;
  }
  std::string dir = self.substr(0, self.rfind('/'));
  std::vector<std::string> args = {"quon", "--path", dir, self};
  for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
  std::vector<char*> raw;
  for (auto& a : args) raw.push_back(a.data());
  raw.push_back(nullptr);
  execv(QUON_BINARY, raw.data());
  DieErrno("cannot start " QUON_BINARY);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "plain") == 0) {
    // The memory floor: tell the parent through descriptor 0, then idle.
    char c = 'r';
    if (!WriteFull(0, &c, 1)) return 1;
    for (;;) pause();
  }
  bool under_hub = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-quon_parentid") == 0) under_hub = true;
  }
  if (!under_hub) return StartUnderHub(argc, argv);

  int results = dup(1);
  if (results < 0 || (g_out = fdopen(results, "w")) == nullptr) DieErrno("dup");
  std::setvbuf(g_out, nullptr, _IOLBF, 0);
  varn_num_chan(128);  // 50 clients need more rows than the default
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) Die("varn_init");
  if (argc > 1 && std::strcmp(argv[1], "serve") == 0) {
    varn_set_callback(OnCommand);
    KOMainLoop();
    return 0;
  }
  Settings s;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    long* target = a == "--rounds"  ? &s.rounds
                   : a == "--small" ? &s.small
                   : a == "--large" ? &s.large
                                    : nullptr;
    if (target == nullptr || i + 1 >= argc) {
      std::fprintf(stderr,
                   "usage: library_bench [--runs N] [--rounds N] [--small N] [--large N]\n");
      std::exit(2);
    }
    *target = std::atol(argv[++i]);
    if (*target < 1) {
      std::fprintf(stderr, "library_bench: %s must be at least 1\n", a.c_str());
      std::exit(2);
    }
  }
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) DieErrno("readlink");
  self[n] = '\0';
  Drive(s, self);
  varn_deinit();
  return 0;
}
