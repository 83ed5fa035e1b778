// Child programs for the tests. A child is started on platform::Spawn,
// dies with the test (SIGKILL when the starting thread ends), and is
// killed and reaped when its Child goes away, so that a failed test leaves
// no process behind. Every wait has a deadline.
#ifndef VARN_TESTS_SUPPORT_LAUNCHER_H_
#define VARN_TESTS_SUPPORT_LAUNCHER_H_

#include <string>
#include <vector>

#include "platform/spawn.h"

namespace varn::test_support {

class Child {
 public:
  Child() = default;
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Starts the request's program, bound to die with the test. The
  // descriptors the request maps stay the caller's to close. False when
  // nothing started; error() tells why.
  bool Start(platform::SpawnRequest request);
  const std::string& error() const { return error_; }

  // Waits up to timeout_ms for the child to end. Its exit code, 128 + the
  // signal that ended it, or -1 while it still runs. Asking again after
  // the end gives the same code.
  int Wait(int timeout_ms);
  // Wait, and a child still running at the deadline is killed (-1 then).
  int WaitOrKill(int timeout_ms);
  bool Signal(int signo);

  int pid() const { return pid_; }

 private:
  int pid_ = -1;
  bool ended_ = false;
  int code_ = -1;
  std::string error_;
};

struct RunResult {
  int status = -1;  // exit code, 128 + signal, or -1 when the deadline passed
  std::string out;
  std::string err;
  std::string report;  // what the program wrote to the descriptor "{report}" names
};

// Runs a program to its end with standard input fed from `input` and its
// standard output, error output and report pipe collected. An argument
// "{report}" is replaced by the number of the report pipe's descriptor.
// argv[0] is the program's path.
RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input,
                     const std::string& workdir = "", int timeout_ms = 20000);

}  // namespace varn::test_support

#endif  // VARN_TESTS_SUPPORT_LAUNCHER_H_
