#include "bus_leg.h"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#if VARN_BENCH_SDBUS
#include <systemd/sd-bus.h>
#endif

namespace varn_bench {

#if VARN_BENCH_SDBUS

namespace {

constexpr const char* kName = "varn.bench.Server";
constexpr const char* kPath = "/varn/bench";
constexpr const char* kInterface = "varn.bench.Ping";
constexpr int kStartTimeoutMs = 10000;

// sd-bus is loaded when the leg starts, not linked: linked, libsystemd and
// the libraries it needs would be mapped into every process of this
// program, the idle servers and the plain process of the memory figures
// included, and add most of a MiB to their VmRSS. Only the headers are
// needed to build.
#define VARN_BENCH_SDBUS_CALLS(X)  \
  X(sd_bus_new)                    \
  X(sd_bus_set_address)            \
  X(sd_bus_set_bus_client)         \
  X(sd_bus_start)                  \
  X(sd_bus_unref)                  \
  X(sd_bus_flush_close_unref)      \
  X(sd_bus_call_method)            \
  X(sd_bus_message_read)           \
  X(sd_bus_message_unref)          \
  X(sd_bus_message_is_method_call) \
  X(sd_bus_reply_method_return)    \
  X(sd_bus_error_free)             \
  X(sd_bus_add_object)             \
  X(sd_bus_slot_unref)             \
  X(sd_bus_request_name)           \
  X(sd_bus_process)                \
  X(sd_bus_wait)

struct SdBus {
#define VARN_BENCH_MEMBER(name) decltype(&::name) name = nullptr;
  VARN_BENCH_SDBUS_CALLS(VARN_BENCH_MEMBER)
#undef VARN_BENCH_MEMBER
};

SdBus sd;

// Loads libsystemd and finds the calls above in it; false, with *why set,
// when it cannot.
bool LoadSdBus(std::string* why) {
  if (sd.sd_bus_wait != nullptr) return true;
  void* lib = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) {
    *why = std::string("cannot load libsystemd: ") + dlerror();
    return false;
  }
  SdBus loaded;
#define VARN_BENCH_RESOLVE(name)                                        \
  loaded.name = reinterpret_cast<decltype(&::name)>(dlsym(lib, #name)); \
  if (loaded.name == nullptr) {                                         \
    *why = "libsystemd.so.0 has no " #name;                             \
    return false;                                                       \
  }
  VARN_BENCH_SDBUS_CALLS(VARN_BENCH_RESOLVE)
#undef VARN_BENCH_RESOLVE
  sd = loaded;
  return true;
}

// The daemon's configuration: a session-type bus on one unix socket that
// lets every connection own names and call anything (the bus is private to
// this run, so there is nothing to protect).
std::string Config(const std::string& socket_path) {
  return "<busconfig>\n"
         "  <type>session</type>\n"
         "  <listen>unix:path=" +
         socket_path +
         "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "    <allow eavesdrop=\"true\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "</busconfig>\n";
}

bool WriteFile(const std::string& path, const std::string& text) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

bool OnPath(const char* program) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  for (;;) {
    std::size_t end = dirs.find(':', start);
    std::string dir = dirs.substr(start, end == std::string::npos ? end : end - start);
    if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    if (end == std::string::npos) return false;
    start = end + 1;
  }
}

// Starts `args` with `report_fd` as its descriptor 3 and nothing else open
// past the standard three, so that the child holds none of the driver's
// connections to the hub. The child is sent SIGTERM if the driver ends
// without stopping it (it exited on an error), so no daemon outlives a run.
pid_t Spawn(const std::vector<std::string>& args, int report_fd) {
  std::vector<char*> raw;
  for (const std::string& a : args) raw.push_back(const_cast<char*>(a.c_str()));
  raw.push_back(nullptr);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid != 0) return pid;
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(126);
  if (report_fd != 3 && dup2(report_fd, 3) < 0) _exit(126);
  close_range(4, ~0U, 0);
  execvp(raw[0], raw.data());
  _exit(127);
}

// Reads from `fd` up to and including the first newline, waiting at most
// timeout_ms in all. False on end of file, error or timeout.
bool ReadLine(int fd, std::string* line, int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  line->clear();
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p = {fd, POLLIN, 0};
    int r = poll(&p, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (c == '\n') return true;
    *line += c;
  }
}

void Stop(pid_t pid, int signal) {
  if (pid <= 0) return;
  kill(pid, signal);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Connects to the bus at `address` as an ordinary bus client.
int Connect(const char* address, sd_bus** bus) {
  int r = sd.sd_bus_new(bus);
  if (r < 0) return r;
  if ((r = sd.sd_bus_set_address(*bus, address)) < 0 ||
      (r = sd.sd_bus_set_bus_client(*bus, 1)) < 0 || (r = sd.sd_bus_start(*bus)) < 0) {
    *bus = sd.sd_bus_unref(*bus);
  }
  return r;
}

// The server's object: every message for its path comes here; Ping(s) is
// answered with "ok" at once, anything else is left to sd-bus, which
// answers that there is no such method.
int OnMessage(sd_bus_message* message, void*, sd_bus_error*) {
  if (sd.sd_bus_message_is_method_call(message, kInterface, "Ping") <= 0) return 0;
  const char* text = nullptr;
  int r = sd.sd_bus_message_read(message, "s", &text);
  if (r < 0) return r;
  return sd.sd_bus_reply_method_return(message, "s", "ok");
}

}  // namespace

struct BusLeg::Impl {
  std::string dir;
  pid_t daemon = -1;
  pid_t server = -1;
  sd_bus* bus = nullptr;

  ~Impl() {
    if (bus != nullptr) sd.sd_bus_flush_close_unref(bus);
    Stop(server, SIGKILL);
    Stop(daemon, SIGTERM);  // lets the daemon remove its socket
    if (!dir.empty()) {
      unlink((dir + "/bus.socket").c_str());
      unlink((dir + "/bus.conf").c_str());
      rmdir(dir.c_str());
    }
  }
};

std::unique_ptr<BusLeg> BusLeg::Start(const char* self, std::string* why) {
  if (!OnPath("dbus-daemon")) {
    *why = "no dbus-daemon on PATH (apt-get install dbus-daemon)";
    return nullptr;
  }
  if (!LoadSdBus(why)) return nullptr;
  auto impl = std::make_unique<Impl>();
  char dir[] = "/tmp/varn-bench-bus-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    *why = std::string("cannot make a directory under /tmp: ") + std::strerror(errno);
    return nullptr;
  }
  impl->dir = dir;
  std::string config = impl->dir + "/bus.conf";
  if (!WriteFile(config, Config(impl->dir + "/bus.socket"))) {
    *why = "cannot write " + config;
    return nullptr;
  }

  // The daemon prints its address on descriptor 3 once it listens.
  int report[2];
  if (pipe(report) != 0) {
    *why = std::string("pipe: ") + std::strerror(errno);
    return nullptr;
  }
  impl->daemon = Spawn({"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                        "--config-file=" + config, "--print-address=3"},
                       report[1]);
  close(report[1]);
  std::string address;
  bool listening = impl->daemon > 0 && ReadLine(report[0], &address, kStartTimeoutMs);
  close(report[0]);
  if (!listening || address.empty()) {
    *why = "dbus-daemon did not start (its messages are on standard error)";
    return nullptr;
  }

  // The server says it owns its name with one line on descriptor 3.
  int ready[2];
  if (pipe(ready) != 0) {
    *why = std::string("pipe: ") + std::strerror(errno);
    return nullptr;
  }
  impl->server = Spawn({self, "bus-serve", address}, ready[1]);
  close(ready[1]);
  std::string line;
  bool serving = impl->server > 0 && ReadLine(ready[0], &line, kStartTimeoutMs);
  close(ready[0]);
  if (!serving) {
    *why = "the bus server did not start (its messages are on standard error)";
    return nullptr;
  }

  int r = Connect(address.c_str(), &impl->bus);
  if (r < 0) {
    *why = std::string("cannot connect to the bus: ") + std::strerror(-r);
    return nullptr;
  }
  return std::unique_ptr<BusLeg>(new BusLeg(std::move(impl)));
}

void BusLeg::Call() {
  sd_bus_error error{};
  sd_bus_message* reply = nullptr;
  int r = sd.sd_bus_call_method(impl_->bus, kName, kPath, kInterface, "Ping", &error, &reply, "s",
                                "ping");
  const char* answer = nullptr;
  if (r >= 0) r = sd.sd_bus_message_read(reply, "s", &answer);
  if (r < 0 || answer == nullptr || std::strcmp(answer, "ok") != 0) {
    std::fprintf(stderr, "library_bench: bus call: %s\n",
                 error.message != nullptr ? error.message
                 : r < 0                  ? std::strerror(-r)
                                          : "unexpected answer");
    std::exit(1);
  }
  sd.sd_bus_message_unref(reply);
  sd.sd_bus_error_free(&error);
}

int ServeBus(const char* address, int ready_fd) {
  std::string why;
  if (!LoadSdBus(&why)) {
    std::fprintf(stderr, "library_bench bus-serve: %s\n", why.c_str());
    return 1;
  }
  sd_bus* bus = nullptr;
  sd_bus_slot* slot = nullptr;
  int r = Connect(address, &bus);
  if (r >= 0) r = sd.sd_bus_add_object(bus, &slot, kPath, OnMessage, nullptr);
  if (r >= 0) r = sd.sd_bus_request_name(bus, kName, 0);
  if (r < 0) {
    std::fprintf(stderr, "library_bench bus-serve: %s\n", std::strerror(-r));
    return 1;
  }
  if (write(ready_fd, "\n", 1) != 1) return 1;
  close(ready_fd);
  for (;;) {
    r = sd.sd_bus_process(bus, nullptr);
    if (r > 0) continue;
    if (r == 0) r = sd.sd_bus_wait(bus, UINT64_MAX);
    if (r < 0 && r != -EINTR) break;
  }
  // The bus went away: the driver is done.
  sd.sd_bus_slot_unref(slot);
  sd.sd_bus_flush_close_unref(bus);
  return 0;
}

#else  // built without sd-bus

struct BusLeg::Impl {};

std::unique_ptr<BusLeg> BusLeg::Start(const char*, std::string* why) {
  *why =
      "built without sd-bus's headers (pkg-config found no libsystemd; apt-get install "
      "libsystemd-dev)";
  return nullptr;
}

void BusLeg::Call() {}

int ServeBus(const char*, int) {
  std::fprintf(stderr, "library_bench: built without sd-bus\n");
  return 1;
}

#endif

BusLeg::BusLeg(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
BusLeg::~BusLeg() = default;

pid_t BusLeg::daemon_pid() const {
#if VARN_BENCH_SDBUS
  return impl_->daemon;
#else
  return -1;
#endif
}

pid_t BusLeg::server_pid() const {
#if VARN_BENCH_SDBUS
  return impl_->server;
#else
  return -1;
#endif
}

}  // namespace varn_bench
