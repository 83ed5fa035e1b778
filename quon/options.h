// The hub's command line: quon [options] PROGRAM [ARGS...].
#ifndef VARN_QUON_OPTIONS_H_
#define VARN_QUON_OPTIONS_H_

#include <cstddef>
#include <string>
#include <vector>

namespace varn::quon {

struct Options {
  std::vector<std::string> path;       // --path DIR, repeatable
  std::string log;                     // --log FILE
  bool trace = false;                  // --trace
  bool sockets = false;                // --sockets
  std::string files_root;              // --files-root DIR
  std::size_t queue_limit = 1u << 20;  // --queue-limit BYTES
  int grace_ms = 3000;                 // --grace MS
  std::string control;                 // --control PATH ("": the default path)
  bool no_control = false;             // --no-control
  bool no_links = false;               // --no-links
  bool help = false;
  bool version = false;
  std::vector<std::string> program;  // PROGRAM and its arguments
};

// Options stop at the first word that is not one (or after "--"). False
// with a message for an unknown option, a missing value or no program.
bool ParseOptions(int argc, char** argv, Options* options, std::string* error);

extern const char kUsage[];

}  // namespace varn::quon

#endif  // VARN_QUON_OPTIONS_H_
