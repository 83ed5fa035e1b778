// Runs a program with its standard input fed from a string and its standard
// output, error output and report pipe collected, within a deadline.
#ifndef VARN_TESTS_INTEGRATION_RUN_PROGRAM_H_
#define VARN_TESTS_INTEGRATION_RUN_PROGRAM_H_

#include <string>
#include <vector>

namespace varn::testing {

struct RunResult {
  int status = -1;  // exit status, 128 + signal, or -1 when the deadline passed
  std::string out;
  std::string err;
  std::string report;  // what the program wrote to the descriptor "{report}" stood for
};

// An argument "{report}" is replaced by the number of a pipe's write end.
RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input,
                     const std::string& workdir = "", int timeout_ms = 20000);

}  // namespace varn::testing

#endif  // VARN_TESTS_INTEGRATION_RUN_PROGRAM_H_
