// Where the hub writes its diagnostics, the error lines of its clients and,
// with tracing on, one line per packet.
//
// Every line is written whole with one write, so lines from the hub and
// from clients that share the descriptor do not interleave within a line.
#ifndef VARN_QUON_LOG_H_
#define VARN_QUON_LOG_H_

#include <string>
#include <string_view>

namespace varn::quon {

class Log {
 public:
  // Writes to fd; owns it (closes it) when `owned`.
  Log(int fd, bool owned) : fd_(fd), owned_(owned) {}
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  int fd() const { return fd_; }
  void set_trace(bool on) { trace_ = on; }
  bool trace() const { return trace_; }

  // "quon: " and the text.
  void Note(std::string_view text);
  // A line a client wrote on its error output: "NAME[PID]: text".
  void ClientLine(std::string_view name, std::string_view pid, std::string_view text);
  // With tracing on: "HH:MM:SS.mmm SOURCE -> DESTINATION WORD LENGTH".
  void Trace(std::string_view source, std::string_view destination, std::string_view word,
             std::size_t length);

 private:
  void Write(std::string line);

  int fd_;
  bool owned_;
  bool trace_ = false;
};

// The wall-clock time of day, "HH:MM:SS.mmm" (local time).
void AppendTimeOfDay(std::string* out);

// Shows a payload in a log line: at most `limit` bytes, control bytes as
// '.', NUL padding dropped.
std::string Printable(std::string_view text, std::size_t limit = 200);

}  // namespace varn::quon

#endif  // VARN_QUON_LOG_H_
