// Starting child processes.
//
// Contract:
// - The program is looked up before anything is forked: a name with a "/"
//   is taken as a path (relative to the working directory when relative);
//   a bare name is searched in the extra directories first, then in PATH.
//   The PATH searched is the caller's, whatever `environment` sets. A name
//   found nowhere fails with SpawnError::kNotFound.
// - The child gets exactly the descriptors of `fds` (parent descriptor
//   `from` becomes child descriptor `to`) plus the standard descriptors
//   0, 1 and 2 that no mapping replaces; every other descriptor is closed
//   before exec. A mapping whose `from` is -1 closes `to` in the child
//   (a program started without descriptor 2, say).
// - The child's environment is the caller's with the NAME=value entries of
//   `environment` added; an entry replaces a variable of the same name.
//   Everything the child needs is built before the fork: between fork and
//   exec the child makes only async-signal-safe calls.
// - The child starts with an empty signal mask and SIGPIPE at its default
//   action, in the requested working directory, optionally as the leader of
//   a new process group. With die_with_parent it gets SIGKILL when the
//   thread that started it ends (so also when the caller's process ends);
//   should the caller's process end before that is set up, the child exits
//   without running the program.
// - Spawn returns only after the child has either exec'd or failed: a
//   close-on-exec status pipe carries the failing step and errno back, so a
//   failed chdir or exec is reported synchronously and the failed child is
//   reaped here. A successful child is left for the caller to reap: either
//   EventLoop::WatchChildExits (which reaps every child of the process) or
//   WaitForChild for one child, never both for the same children.
#ifndef VARN_PLATFORM_SPAWN_H_
#define VARN_PLATFORM_SPAWN_H_

#include <string>
#include <vector>

namespace varn::platform {

struct ChildStatus;  // event_loop.h

struct FdMapping {
  int from;  // -1: close `to` in the child
  int to;
};

struct SpawnRequest {
  std::string program;                  // name or path
  std::vector<std::string> argv;        // argv[0] included
  std::string working_directory;        // empty: the caller's
  std::vector<std::string> extra_path;  // searched before PATH
  std::vector<FdMapping> fds;
  std::vector<std::string> environment;  // NAME=value entries added
  bool new_process_group = true;
  bool die_with_parent = false;  // SIGKILL when the starting thread ends
};

enum class SpawnError {
  kNone,
  kNotFound,     // no executable file of that name
  kNoDirectory,  // the working directory cannot be entered
  kExecFailed,   // exec itself failed (permissions, bad format)
  kSystem,       // fork, pipe or descriptor set-up failed
};

struct SpawnResult {
  int pid = -1;
  SpawnError error = SpawnError::kNone;
  int error_number = 0;  // errno of the failing step
};

SpawnResult Spawn(const SpawnRequest& request);

// Waits up to timeout_ms (negative: without limit) for the child pid to
// end, and reaps it. True once it has ended, *status telling how; false
// when the time ran out (the child runs on, unreaped) or pid is not a
// child of this process.
bool WaitForChild(int pid, int timeout_ms, ChildStatus* status);

// Sends signo to pid, or to its whole process group when group is true.
bool SignalProcess(int pid, int signo, bool group);

// Text of an errno value.
std::string ErrorText(int error_number);

}  // namespace varn::platform

#endif  // VARN_PLATFORM_SPAWN_H_
