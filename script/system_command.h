// How system() reads a command line.
#ifndef VARN_SCRIPT_SYSTEM_COMMAND_H_
#define VARN_SCRIPT_SYSTEM_COMMAND_H_

#include <string>

namespace varn::script {

struct SplitCommand {
  std::string program;
  std::string arguments;
};

// The program is the first word: leading blanks (space, tab, carriage
// return) skipped, double quotes toggling quoting and dropped, blanks
// inside quotes kept. The first blank outside quotes ends it; everything
// after that blank, as written, is the argument text.
SplitCommand SplitCommandLine(const std::string& command);

// Whether the command asks for a redirection or a pipe ("<", ">", "|").
bool HasRedirection(const std::string& command);

}  // namespace varn::script

#endif  // VARN_SCRIPT_SYSTEM_COMMAND_H_
