// The bus leg of library_bench: the same command round trip as CMD .. DONE,
// done as a synchronous method call through a message bus daemon.
//
// BusLeg::Start starts a private dbus-daemon (its own configuration file
// and unix socket in a fresh directory under /tmp) and a server: this
// program started again as "bus-serve ADDRESS", which exports one object
// whose one method, Ping(s) -> s, answers at once. The driver then calls
// the method with sd-bus and waits for each answer. Everything it started
// is stopped, and the directory removed, when the BusLeg is destroyed.
//
// The leg is built only when CMake found libsystemd (sd-bus) through
// pkg-config, and loads libsystemd.so.0 only when it starts; without it,
// Start says why and returns nothing.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace varn_bench {

class BusLeg {
 public:
  // `self` is this program's path, started again as the server. On
  // failure returns nullptr and sets *why to one line saying what failed.
  static std::unique_ptr<BusLeg> Start(const char* self, std::string* why);
  ~BusLeg();
  BusLeg(const BusLeg&) = delete;
  BusLeg& operator=(const BusLeg&) = delete;

  // One call of the server's method, returning once its answer is read.
  // Exits the program when the call fails.
  void Call();

  pid_t daemon_pid() const;
  pid_t server_pid() const;

  struct Impl;

 private:
  explicit BusLeg(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// The server's side, for "bus-serve ADDRESS": connects to the bus, takes the
// server's name, writes one byte to `ready_fd` and answers calls until the
// bus goes away. Returns the exit status.
int ServeBus(const char* address, int ready_fd);

}  // namespace varn_bench
