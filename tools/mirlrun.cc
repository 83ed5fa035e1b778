// mirlrun: runs a Mirl script that drives servers through the hub.
//
//   quon --path DIR... mirlrun [-k] [-o FILE] [-p SECONDS] [-t SECONDS] SCRIPT
//
// Sets the library up for scripts (the servers' table, the message
// callback, the function vocabulary and the constants of the message kinds,
// the help server), runs the script, stops the servers it started and ends.
// What the script prints goes to the standard output, or to FILE with -o;
// script errors and warnings go to the standard error stream. With -k the script goes on
// after a statement that raised an error. Exit status: 0 when the script
// ran to its end without an error, 1 after a script error, 2 when the
// script could not be read or parsed or the library could not be set up.
// A server started by the script is polled every -p seconds (1) until it
// reports itself idle, for up to -t seconds (300).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/mirl/mirl.h"
#include "varn.h"

namespace {

int Usage() {
  std::fprintf(stderr, "usage: mirlrun [-k] [-o FILE] [-p SECONDS] [-t SECONDS] SCRIPT\n");
  return 2;
}

// A whole number of seconds from 1 to a day; 0 when the text is not one.
int Seconds(const char* text) {
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 1 || value > 86400) return 0;
  return static_cast<int>(value);
}

}  // namespace

int main(int argc, char** argv) {
  // The poll settings go to the set-up, before the rest is read.
  int poll_interval = 0, timeout = 0;
  for (int i = 1; i + 1 < argc; ++i) {
    int* setting = std::strcmp(argv[i], "-p") == 0   ? &poll_interval
                   : std::strcmp(argv[i], "-t") == 0 ? &timeout
                                                     : nullptr;
    if (setting == nullptr) continue;
    *setting = Seconds(argv[i + 1]);
    if (*setting == 0) return Usage();
    ++i;
  }
  // The library takes its own options (-quon_*) out of the command line.
  if (!aquon_initialize(poll_interval, timeout, &argc, argv)) {
    std::fprintf(stderr, "mirlrun: the library could not be set up for scripts\n");
    return 2;
  }
  if (!mirlquon_init_vocab()) {
    std::fprintf(stderr, "mirlrun: the constants of the message kinds could not be registered\n");
    return 2;
  }
  mirl::RunOptions options;
  const char* script = nullptr;
  std::FILE* output = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-k") == 0) {
      options.keep_going = true;
    } else if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc && output == nullptr) {
      output = std::fopen(argv[++i], "w");
      if (output == nullptr) {
        std::fprintf(stderr, "mirlrun: cannot write %s\n", argv[i]);
        return 2;
      }
      mirl::SetPrintStream(output);
    } else if (std::strcmp(argv[i], "-p") == 0 || std::strcmp(argv[i], "-t") == 0) {
      ++i;  // read above
    } else if (script == nullptr) {
      script = argv[i];
    } else {
      return Usage();
    }
  }
  if (script == nullptr) return Usage();
  int status = mirl::RunScriptFile(script, options);
  aerr_report();
  // Servers the script started end with it (the hub ends once its last
  // client has). Servers it registered or connected to are not ours to
  // stop: the errors that say so are dropped.
  std::FILE* dropped = std::tmpfile();
  if (dropped != nullptr) mirl::SetReportStream(dropped);
  aquon_shutdown_servers();
  aquon_reset_servers();  // frees the records and the handlers they hold
  aerr_report();
  mirl::SetReportStream(nullptr);
  if (dropped != nullptr) std::fclose(dropped);
  mirl::SetPrintStream(nullptr);
  if (output != nullptr) std::fclose(output);
  std::fflush(stdout);
  return status;
}
