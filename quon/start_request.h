// Splitting the argument text of a start request into the words of the
// program's argument vector (the request itself: transport/wire_requests.h).
#ifndef VARN_QUON_START_REQUEST_H_
#define VARN_QUON_START_REQUEST_H_

#include <string>
#include <string_view>
#include <vector>

namespace varn::quon {

// Splits text into words as a POSIX shell does, without any expansion:
// blanks, tabs and line feeds separate words; single quotes keep everything
// literally; inside double quotes a backslash escapes only \ " $ ` and a
// line feed; elsewhere a backslash escapes any character. False with a
// reason for an unterminated quote.
bool SplitWords(std::string_view text, std::vector<std::string>* words, std::string* error);

}  // namespace varn::quon

#endif  // VARN_QUON_START_REQUEST_H_
