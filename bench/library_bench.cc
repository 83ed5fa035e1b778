// What an application sees of the library and the hub, each figure beside
// a floor measured in the same run:
//
//   - memory: VmRSS and RssAnon of an idle client and of the hub with 2 and
//     with 50 clients, against an idle process of this same program that
//     never called varn_init;
//   - hub scaling: the hub's CPU time per relayed packet, and its RssAnon,
//     while the driver does round trips with one server and 0, 8 or 48
//     more servers sit idle (2, 10 and 50 clients), against 2 clients;
//   - the command round trip: varn_send_msg(CMD) then varn_wait for the DONE
//     of a server that answers at once, against a one-byte ping-pong over a
//     pipe pair between two processes, and beside the same round trip as a
//     synchronous method call through a private message bus daemon
//     (bus_leg.h); latency, and CPU time per round trip of every process
//     taking part;
//   - stream throughput: 64-byte and 16 KiB DATA records in a BEGIN .. END
//     stream read back with varn_recv_data, against bulk bytes through one
//     pipe (64 KiB writes and reads).
//
//   build/bench/library_bench [--no-links] [--runs N] [--rounds N] [--small N] [--large N]
//
// By default the hub links the driver and its server (quon's default), so
// their packets do not cross it; --no-links starts the hub with that
// option, and every packet is relayed.
// --runs is the number of runs behind each median (7), --rounds the number
// of round trips in a run (3000: of the hub, of the bus and at each step of
// the scaling; the pipe does ten times as many), --small and --large the
// records in a 64-byte and a 16 KiB stream; the pipe carries 256 MiB a run.
//
// CPU time is the on-CPU time the kernel keeps per thread
// (/proc/PID/task/TID/schedstat, nanoseconds), summed over the threads of
// each process, read just before and just after the timed part; utime and
// stime in /proc/PID/stat count whole clock ticks (10 ms here), far too
// coarse for a part that lasts a tenth of a second.
//
// Run plainly, it starts quon with itself as the first client (the driver);
// the driver starts its servers through the hub ("serve"), and the bus
// daemon and the bus server itself ("bus-serve"). Results go to standard
// output, the hub's, the library's and the bus daemon's lines to standard
// error.
#include <dirent.h>
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
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "bus_leg.h"
#include "varn.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kSmallRecord = 64;
constexpr std::size_t kLargeRecord = 16384;
constexpr std::size_t kPipeChunk = 65536;

// Every timed figure is the median of `runs` runs, each run measuring the
// figure and its floor one after the other so that both see the same load.
struct Settings {
  bool links = false;  // the hub started this process with direct links
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

// ---- what the kernel says about a process -------------------------------

// Set when a process's CPU time had to come from whole clock ticks.
bool g_cpu_from_ticks = false;

// CPU time (user and system) that process `pid` has used so far, in
// nanoseconds: the on-CPU time of each of its threads, summed. Falls back
// on utime + stime from /proc/PID/stat when the kernel keeps no schedstat.
long long ProcessCpuNs(long pid) {
  char path[128];
  std::snprintf(path, sizeof path, "/proc/%ld/task", pid);
  long long ns = 0;
  if (DIR* tasks = opendir(path)) {
    while (dirent* task = readdir(tasks)) {
      if (task->d_name[0] == '.') continue;
      std::snprintf(path, sizeof path, "/proc/%ld/task/%s/schedstat", pid, task->d_name);
      if (FILE* f = std::fopen(path, "r")) {
        unsigned long long on_cpu = 0;
        if (std::fscanf(f, "%llu", &on_cpu) == 1) ns += static_cast<long long>(on_cpu);
        std::fclose(f);
      }
    }
    closedir(tasks);
  }
  if (ns > 0) return ns;
  g_cpu_from_ticks = true;
  std::snprintf(path, sizeof path, "/proc/%ld/stat", pid);
  FILE* f = std::fopen(path, "r");
  if (f == nullptr) return 0;
  char line[1024] = "";
  bool read = std::fgets(line, sizeof line, f) != nullptr;
  std::fclose(f);
  const char* fields = read ? std::strrchr(line, ')') : nullptr;  // after the command name
  unsigned long utime = 0, stime = 0;
  if (fields == nullptr ||
      std::sscanf(fields + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime,
                  &stime) != 2) {
    return 0;
  }
  return static_cast<long long>(utime + stime) * 1000000000LL / sysconf(_SC_CLK_TCK);
}

long long CpuNs(const std::vector<long>& pids) {
  long long ns = 0;
  for (long pid : pids) ns += ProcessCpuNs(pid);
  return ns;
}

// Resident memory from /proc/PID/status: all of it (VmRSS), and the part
// that no file backs (RssAnon: heap, stacks, buffers, and the pages of the
// binary and its libraries that were written to), which leaves out the
// program's and libraries' code and read-only data shared with others.
struct Memory {
  long rss_kib = -1;
  long anon_kib = -1;
};

Memory ReadMemory(long pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%ld/status", pid);
  Memory m;
  FILE* f = std::fopen(path, "r");
  if (f == nullptr) return m;
  char line[256];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "VmRSS:", 6) == 0) m.rss_kib = std::atol(line + 6);
    if (std::strncmp(line, "RssAnon:", 8) == 0) m.anon_kib = std::atol(line + 8);
  }
  std::fclose(f);
  return m;
}

// The memory of this program started again in "plain" mode: the same
// binary and shared libraries, but varn_init never called.
Memory PlainProcessMemory(const char* self) {
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
  Memory m = started ? ReadMemory(pid) : Memory{};
  kill(pid, SIGKILL);
  Reap(pid);
  return m;
}

// ---- timing round trips -------------------------------------------------

// Per round trip: the wall time, and the CPU time of the processes taking
// part, all together.
struct RoundTrip {
  double seconds = 0;
  double cpu_ns = 0;
};

// `warm_up` untimed round trips, then `rounds` timed ones, with the CPU time
// of `pids` read just before and just after the timed ones.
template <typename OneRoundTrip>
RoundTrip TimeRoundTrips(const std::vector<long>& pids, long warm_up, long rounds,
                         OneRoundTrip one) {
  for (long i = 0; i < warm_up; ++i) one();
  long long cpu = CpuNs(pids);
  auto start = Clock::now();
  for (long i = 0; i < rounds; ++i) one();
  double seconds = Seconds(start);
  cpu = CpuNs(pids) - cpu;
  double n = static_cast<double>(rounds);
  return {seconds / n, static_cast<double>(cpu) / n};
}

std::vector<double> Seconds(const std::vector<RoundTrip>& runs) {
  std::vector<double> v;
  for (const RoundTrip& r : runs) v.push_back(r.seconds);
  return v;
}

std::vector<double> CpuNs(const std::vector<RoundTrip>& runs) {
  std::vector<double> v;
  for (const RoundTrip& r : runs) v.push_back(r.cpu_ns);
  return v;
}

// ---- the floors ---------------------------------------------------------

// One byte each way between this process and a forked child.
RoundTrip PipePingPong(long rounds) {
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
  RoundTrip r =
      TimeRoundTrips({static_cast<long>(getpid()), static_cast<long>(pid)}, 1000, rounds, [&] {
        if (!WriteFull(there[1], &c, 1) || !ReadFull(back[0], &c, 1)) {
          DieErrno("ping-pong");
        }
      });
  close(there[1]);
  close(back[0]);
  Reap(pid);
  return r;
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

// CMD "ping" to the server, its ACK (varn_send_msg returns after it), and
// its DONE; CPU time counted for `pids`.
RoundTrip HubRoundTrips(varnHandle h, const std::vector<long>& pids, long rounds) {
  return TimeRoundTrips(pids, 200, rounds, [h] {
    if (!varn_send_msg(h, VARN_CMD, "ping", 0)) Die("send");
    Expect(h, VARN_DONE);
  });
}

// The same round trip as one varn_call_deadline, with a deadline far off:
// what the deadline path costs when it does not expire.
RoundTrip DeadlineRoundTrips(varnHandle h, const std::vector<long>& pids, long rounds) {
  return TimeRoundTrips(pids, 200, rounds, [h] {
    uint32_t category = 0;
    uint32_t length = 0;
    if (!varn_call_deadline(h, "ping", 60000, &category, g_buffer.data(),
                            static_cast<uint32_t>(g_buffer.size()), &length, nullptr) ||
        category != VARN_DONE) {
      Die("call with a deadline");
    }
  });
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

double Ratio(double value, double floor) { return floor > 0 ? value / floor : 0.0; }

void PrintMemory(const char* label, const Memory& m, const Memory& floor) {
  std::fprintf(g_out,
               "  %-24s VmRSS %5.1f MiB  plain %5.1f MiB %5.2fx   RssAnon %5.2f MiB  plain %5.2f "
               "MiB %5.2fx\n",
               label, m.rss_kib / 1024.0, floor.rss_kib / 1024.0,
               Ratio(static_cast<double>(m.rss_kib), static_cast<double>(floor.rss_kib)),
               m.anon_kib / 1024.0, floor.anon_kib / 1024.0,
               Ratio(static_cast<double>(m.anon_kib), static_cast<double>(floor.anon_kib)));
}

// The hub's cost as clients are added: for 2, 10 and 50 clients (the
// driver, its server and idle servers), the hub's CPU time per packet it
// relays while the driver does round trips with its server (three packets
// each: CMD, ACK, DONE), and the hub's RssAnon after them. Also takes the
// memory figures of idle processes (an idle client, the hub with 2 and
// with 50 clients) on the way, and prints them first.
void MemoryAndScaling(const Settings& s, const char* self, long hub, varnHandle server) {
  struct Step {
    int clients;
    std::vector<RoundTrip> runs;
    Memory hub;
  };
  Memory plain = PlainProcessMemory(self);
  Memory client = ReadMemory(ServerPid(server));
  Memory hub2 = ReadMemory(hub);
  Memory hub50;
  std::vector<Step> steps;
  std::vector<varnHandle> idle;
  for (int clients : {2, 10, 50}) {
    while (static_cast<int>(idle.size()) + 2 < clients) idle.push_back(StartServer());
    usleep(200000);
    if (clients == 50) hub50 = ReadMemory(hub);
    Step step{clients, {}, {}};
    for (long run = 0; run < s.runs; ++run) {
      step.runs.push_back(HubRoundTrips(server, {hub}, s.rounds));
    }
    step.hub = ReadMemory(hub);
    steps.push_back(step);
  }
  for (varnHandle h : idle) {
    if (!varn_kill(h)) Die("kill");
  }
  usleep(300000);

  std::fprintf(g_out, "memory of idle processes (the driver counts as a client)\n");
  PrintMemory("idle client", client, plain);
  PrintMemory("hub, 2 clients", hub2, plain);
  PrintMemory("hub, 50 clients", hub50, plain);
  std::fprintf(g_out, "  (the hub grows by %.0f KiB VmRSS, %.0f KiB RssAnon per client)\n",
               (hub50.rss_kib - hub2.rss_kib) / 48.0, (hub50.anon_kib - hub2.anon_kib) / 48.0);

  std::fprintf(g_out,
               "hub scaling: N clients = the driver, its server, N-2 idle servers; %ld round trips "
               "a run, median of %ld runs\n",
               s.rounds, s.runs);
  std::fprintf(g_out,
               "  clients  hub CPU/packet  / 2 clients   round trip   hub RssAnon  / 2 clients"
               "  (RssAnon after the runs)\n");
  double cpu2 = Median(CpuNs(steps[0].runs)) / 3;
  double anon2 = static_cast<double>(steps[0].hub.anon_kib);
  std::string spreads;
  for (const Step& step : steps) {
    double cpu = Median(CpuNs(step.runs)) / 3;
    double anon = static_cast<double>(step.hub.anon_kib);
    std::fprintf(g_out, "  %7d  %11.2f us  %10.2fx   %7.1f us  %8.2f MiB  %10.2fx\n", step.clients,
                 cpu / 1e3, Ratio(cpu, cpu2), Median(Seconds(step.runs)) * 1e6, anon / 1024,
                 Ratio(anon, anon2));
    spreads += (spreads.empty() ? "" : ", ") + std::to_string(step.clients) + ": " +
               Spread(CpuNs(step.runs), 1e-3 / 3, "%.2f");
  }
  std::fprintf(g_out, "  (runs, hub CPU/packet in us: %s)\n", spreads.c_str());
  if (s.links) {
    std::fprintf(g_out,
                 "  (the driver and its server are linked: their packets do not cross the hub;"
                 " run with --no-links for the relay)\n");
  }
}

// One row of the round-trip table: latency and CPU time, each beside its
// ratio to the pipe's and to the bus's (left blank when `pipe` or `bus` is
// null).
void PrintRoundTrip(const char* label, const RoundTrip& r, const RoundTrip* pipe,
                    const RoundTrip* bus) {
  // `field` of r shown times `scale`, then its ratio to the pipe's and the bus's.
  auto cells = [&](double RoundTrip::*field, double scale) {
    char text[64];
    int n = std::snprintf(text, sizeof text, "%9.2f us", r.*field * scale);
    for (const RoundTrip* floor : {pipe, bus}) {
      if (floor != nullptr) {
        n += std::snprintf(text + n, sizeof text - n, " %7.2fx", Ratio(r.*field, floor->*field));
      } else {
        n += std::snprintf(text + n, sizeof text - n, "%9s", "");
      }
    }
    return std::string(text);
  };
  std::string line = "  " + std::string(label);
  line.resize(44, ' ');
  line += cells(&RoundTrip::seconds, 1e6) + "  " + cells(&RoundTrip::cpu_ns, 1e-3);
  while (!line.empty() && line.back() == ' ') line.pop_back();
  std::fprintf(g_out, "%s\n", line.c_str());
}

// The bus leg while it runs; a global so that exiting on an error (Die,
// std::exit) still stops its daemon and removes its directory.
std::unique_ptr<varn_bench::BusLeg> g_bus;

// The hub's round trip, the pipe's and the bus's, interleaved in each run.
void RoundTrips(const Settings& s, const char* self, long hub, varnHandle server) {
  std::string why;
  g_bus = varn_bench::BusLeg::Start(self, &why);
  varn_bench::BusLeg* bus = g_bus.get();
  long me = static_cast<long>(getpid());
  std::vector<long> hub_pids = {me, hub, ServerPid(server)};
  std::vector<long> bus_pids;
  if (bus != nullptr) {
    bus_pids = {me, static_cast<long>(bus->daemon_pid()), static_cast<long>(bus->server_pid())};
  }

  std::vector<RoundTrip> pipe_runs, hub_runs, deadline_runs, bus_runs;
  for (long run = 0; run < s.runs; ++run) {
    pipe_runs.push_back(PipePingPong(s.rounds * 10));
    hub_runs.push_back(HubRoundTrips(server, hub_pids, s.rounds));
    deadline_runs.push_back(DeadlineRoundTrips(server, hub_pids, s.rounds));
    if (bus != nullptr)
      bus_runs.push_back(TimeRoundTrips(bus_pids, 200, s.rounds, [&] { bus->Call(); }));
  }
  g_bus.reset();  // stops the bus daemon and the bus server

  std::fprintf(g_out,
               "command round trip, median of %ld runs; CPU = user+system time of every process "
               "taking part, per round trip\n",
               s.runs);
  const char* by_bus = bus_runs.empty() ? "" : "/ bus";
  char header[160];
  std::snprintf(header, sizeof header, "%-44s%12s%9s%9s%14s%9s%9s", "", "latency", "/ pipe", by_bus,
                "CPU", "/ pipe", by_bus);
  std::string trimmed = header;
  trimmed.erase(trimmed.find_last_not_of(' ') + 1);
  std::fprintf(g_out, "%s\n", trimmed.c_str());
  RoundTrip pipe = {Median(Seconds(pipe_runs)), Median(CpuNs(pipe_runs))};
  PrintRoundTrip("pipe ping-pong (driver, child)", pipe, nullptr, nullptr);
  RoundTrip bus_median;
  if (!bus_runs.empty()) {
    bus_median = {Median(Seconds(bus_runs)), Median(CpuNs(bus_runs))};
    PrintRoundTrip("bus method call (driver, daemon, server)", bus_median, &pipe, nullptr);
  }
  RoundTrip through_hub = {Median(Seconds(hub_runs)), Median(CpuNs(hub_runs))};
  PrintRoundTrip(
      s.links ? "varn, on a link (driver, server)" : "through the hub (driver, hub, server)",
      through_hub, &pipe, bus_runs.empty() ? nullptr : &bus_median);
  RoundTrip with_deadline = {Median(Seconds(deadline_runs)), Median(CpuNs(deadline_runs))};
  PrintRoundTrip("with a deadline (varn_call_deadline)", with_deadline, &pipe,
                 bus_runs.empty() ? nullptr : &bus_median);
  std::fprintf(g_out, "  (with a deadline / without: latency %.2fx, CPU %.2fx)\n",
               with_deadline.seconds / through_hub.seconds,
               with_deadline.cpu_ns / through_hub.cpu_ns);
  if (bus_runs.empty()) std::fprintf(g_out, "  bus leg skipped: %s\n", why.c_str());
  auto spreads = [&](std::vector<double> (*field)(const std::vector<RoundTrip>&), double scale) {
    std::string text = "hub " + Spread(field(hub_runs), scale, "%.1f") + ", pipe " +
                       Spread(field(pipe_runs), scale, "%.2f");
    if (!bus_runs.empty()) text += ", bus " + Spread(field(bus_runs), scale, "%.1f");
    return text;
  };
  std::fprintf(g_out, "  (runs in us: latency %s; CPU %s)\n", spreads(Seconds, 1e6).c_str(),
               spreads(CpuNs, 1e-3).c_str());
  if (g_cpu_from_ticks) {
    std::fprintf(g_out, "  (CPU from whole clock ticks: the kernel keeps no schedstat)\n");
  }
}

void Drive(const Settings& s, const char* self) {
  long hub = static_cast<long>(getppid());
  std::fprintf(g_out, "%s\n",
               s.links
                   ? "packets between the driver and its server: on their own link (the default)"
                   : "packets between the driver and its server: through the hub (--no-links)");
  varnHandle server = StartServer();
  if (!varn_send_msg(server, VARN_CMD, "ping", 0)) Die("send");
  Expect(server, VARN_DONE);
  usleep(200000);

  MemoryAndScaling(s, self, hub, server);
  RoundTrips(s, self, hub, server);

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
  PrintMemory("hub after the streams", ReadMemory(hub), PlainProcessMemory(self));
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
  std::vector<std::string> args = {"quon", "--path", dir};
  std::vector<std::string> own;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-links") == 0) {
      args.emplace_back(argv[i]);  // the hub's option: every packet crosses it
    } else {
      own.emplace_back(argv[i]);
    }
  }
  args.push_back(self);
  args.insert(args.end(), own.begin(), own.end());
  std::vector<char*> raw;
  for (auto& a : args) raw.push_back(a.data());
  raw.push_back(nullptr);
  execv(QUON_BINARY, raw.data());
  DieErrno("cannot start " QUON_BINARY);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::strcmp(argv[1], "bus-serve") == 0) {
    // The bus leg's server: answers on the bus at argv[2] until it goes away.
    return varn_bench::ServeBus(argv[2], 3);
  }
  if (argc > 1 && std::strcmp(argv[1], "plain") == 0) {
    // The memory floor: tell the parent through descriptor 0, then idle.
    char c = 'r';
    if (!WriteFull(0, &c, 1)) return 1;
    for (;;) pause();
  }
  bool under_hub = false;
  bool links = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-quon_parentid") == 0) under_hub = true;
    if (std::strcmp(argv[i], "-quon_links") == 0) links = true;
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
  s.links = links;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    long* target = a == "--runs"     ? &s.runs
                   : a == "--rounds" ? &s.rounds
                   : a == "--small"  ? &s.small
                   : a == "--large"  ? &s.large
                                     : nullptr;
    if (target == nullptr || i + 1 >= argc) {
      std::fprintf(stderr,
                   "usage: library_bench [--no-links] [--runs N] [--rounds N] [--small N] "
                   "[--large N]\n");
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
