// The streams error lines and printed lines go to.
#ifndef VARN_HOST_MIRL_ERRORS_H_
#define VARN_HOST_MIRL_ERRORS_H_

#include <cstdio>
#include <string>

namespace mirl {

std::FILE* ReportStream();
std::FILE* PrintStream();
// Writes the line and a line feed, and flushes.
void WriteLine(std::FILE* stream, const std::string& line);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_ERRORS_H_
