// Small helpers shared by the service programs: texts as they are logged,
// and the line output every program writes.
#ifndef VARN_TOOLS_TOOL_TEXT_H_
#define VARN_TOOLS_TOOL_TEXT_H_

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace varn::tools {

// A payload as one line of printable text that gives back every byte:
// printable ASCII stays as it is, a backslash and a double quote get a
// backslash before them, every other byte becomes a backslash and three
// octal digits (the separator of code 15 is "\017").
inline std::string Escape(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (unsigned char c : bytes) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char octal[5];
      std::snprintf(octal, sizeof octal, "\\%03o", c);
      out += octal;
    }
  }
  return out;
}

// The length of a text payload as varn_recv_msg_len hands it over: the
// count it gives includes the NUL after the text and the packet's NUL
// padding, so the text ends at its first NUL.
inline std::size_t PayloadLength(const char* buffer, std::uint32_t length) {
  return strnlen(buffer, length);
}

// Where a program writes its lines: a file named by an option or an
// environment variable (appended to, so that a restarted program goes on
// in the same file), else standard output. Under the hub, standard output
// goes to the hub's log. Every line is flushed at once.
class LineOutput {
 public:
  // option_value: the file named on the command line, or null; variable:
  // the environment variable that names a file when no option does.
  bool Open(const char* option_value, const char* variable) {
    const char* path = option_value;
    if (path == nullptr || path[0] == '\0') path = std::getenv(variable);
    if (path == nullptr || path[0] == '\0') {
      file_ = stdout;
      return true;
    }
    file_ = std::fopen(path, "a");
    return file_ != nullptr;
  }
  void Line(const std::string& text) {
    if (file_ == nullptr) return;
    std::fprintf(file_, "%s\n", text.c_str());
    std::fflush(file_);
  }

 private:
  std::FILE* file_ = nullptr;
};

}  // namespace varn::tools

#endif  // VARN_TOOLS_TOOL_TEXT_H_
