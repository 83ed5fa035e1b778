// The hub's descriptors to a program that does not speak the protocol:
// LineReader takes its output line by line, LineWriter feeds its input.
//
// Like Connection, these never block: descriptors are non-blocking, reading
// can be paused while the line's receiver is congested, and input for the
// program waits in a queue that reports congestion and draining.
#ifndef VARN_QUON_LINE_CHANNEL_H_
#define VARN_QUON_LINE_CHANNEL_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/event_loop.h"
#include "quon/connection.h"
#include "quon/output_buffer.h"

namespace varn::quon {

class LineReader {
 public:
  // A line without its line feed (and carriage return). Lines longer than
  // the limit arrive in pieces. Returns false to pause.
  using LineCallback = std::function<bool(std::string_view)>;

  // Takes ownership of fd. `on_end` runs once, at end of input.
  LineReader(platform::EventLoop& loop, int fd, LineCallback on_line, std::function<void()> on_end);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  bool Start();
  void Pause();
  void Resume();
  // Takes everything written so far, paused or not, including a last line
  // without a line feed; then closes (on_end is not called).
  void DrainAndClose();
  void Close();
  bool closed() const { return closed_; }

  static constexpr std::size_t kMaxLine = 64 * 1024;

 private:
  void OnReadable();
  bool ReadInput();
  void HandleLines(bool ignore_pause, bool at_end);
  void SetReading(bool on);

  platform::EventLoop& loop_;
  int fd_;
  LineCallback on_line_;
  std::function<void()> on_end_;
  std::string buffer_;
  std::size_t head_ = 0;
  bool paused_ = false;
  bool reading_ = true;
  bool ended_ = false;
  bool closed_ = false;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

class LineWriter {
 public:
  // Takes ownership of fd. `on_drained` runs when the queue falls to the
  // low-water mark after being congested; `on_failed` once when the
  // program no longer reads (its input is closed).
  LineWriter(platform::EventLoop& loop, int fd, QueueLimits limits,
             std::function<void()> on_drained, std::function<void()> on_failed);
  ~LineWriter();
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  bool Start();
  void Write(std::string_view text);
  bool congested() const { return congested_; }
  std::size_t queued() const { return output_.size(); }
  void Close();

 private:
  void OnWritable();
  void Fail();

  platform::EventLoop& loop_;
  int fd_;
  QueueLimits limits_;
  std::function<void()> on_drained_;
  std::function<void()> on_failed_;
  OutputBuffer output_;
  bool congested_ = false;
  bool writing_ = false;
  bool closed_ = false;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace varn::quon

#endif  // VARN_QUON_LINE_CHANNEL_H_
