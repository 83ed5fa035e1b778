// Reading a start request and the argument text it carries.
//
// A start request payload is: the working directory, one blank, the command
// word, and optionally one blank and the argument text. The directory and
// the command word are wrapped in double quotes when they contain a blank.
// The command word is either a program name or host:name.
#ifndef VARN_QUON_START_REQUEST_H_
#define VARN_QUON_START_REQUEST_H_

#include <string>
#include <string_view>
#include <vector>

namespace varn::quon {

struct StartRequest {
  std::string directory;
  std::string command;  // the command word, unwrapped, as sent
  std::string host;     // empty when the word names no host
  std::string program;
  std::string arguments;  // the argument text, not yet split
};

// False with a one-line reason when the payload is not a start request.
bool ParseStartRequest(std::string_view payload, StartRequest* request, std::string* error);

// Splits text into words as a POSIX shell does, without any expansion:
// blanks, tabs and line feeds separate words; single quotes keep everything
// literally; inside double quotes a backslash escapes only \ " $ ` and a
// line feed; elsewhere a backslash escapes any character. False with a
// reason for an unterminated quote.
bool SplitWords(std::string_view text, std::vector<std::string>* words, std::string* error);

}  // namespace varn::quon

#endif  // VARN_QUON_START_REQUEST_H_
