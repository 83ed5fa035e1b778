// korbshell: the shell that a script's system() falls back to when a
// command line is not a program of its own (a command of the shell, say).
//
//   korbshell -system COMMAND LINE...
//
// runs the command line with /bin/sh and ends with its exit status (128 +
// the signal when it was killed). Its output goes where korbshell's goes.
// The words after -system are joined with single blanks: the hub hands the
// command line over split into words.
#include <cstdio>
#include <string>

#include "platform/event_loop.h"
#include "platform/spawn.h"

int main(int argc, char** argv) {
  int first = 1;
  if (argc > 1 && std::string(argv[1]) == "-system") first = 2;
  if (first >= argc) {
    std::fprintf(stderr, "usage: korbshell -system COMMAND LINE...\n");
    return 2;
  }
  std::string command;
  for (int i = first; i < argc; ++i) {
    if (!command.empty()) command.push_back(' ');
    command.append(argv[i]);
  }
  varn::platform::SpawnRequest request;
  request.program = "/bin/sh";
  request.argv = {"sh", "-c", command};
  request.new_process_group = false;
  request.die_with_parent = true;  // killing korbshell ends the command too
  varn::platform::SpawnResult started = varn::platform::Spawn(request);
  if (started.pid < 0) {
    std::fprintf(stderr, "korbshell: cannot start /bin/sh: %s\n",
                 varn::platform::ErrorText(started.error_number).c_str());
    return 127;
  }
  varn::platform::ChildStatus status;
  if (!varn::platform::WaitForChild(started.pid, -1, &status)) return 127;
  return status.signaled ? 128 + status.value : status.value;
}
