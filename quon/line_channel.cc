#include "quon/line_channel.h"

#include <cerrno>

#include "platform/io.h"

namespace varn::quon {

LineReader::LineReader(platform::EventLoop& loop, int fd, LineCallback on_line,
                       std::function<void()> on_end)
    : loop_(loop), fd_(fd), on_line_(std::move(on_line)), on_end_(std::move(on_end)) {}

LineReader::~LineReader() { Close(); }

bool LineReader::Start() {
  if (!platform::SetNonBlocking(fd_, true)) return false;
  return loop_.Watch(fd_, true, false, [this](platform::IoEvents ev) {
    if (paused_) {
      // The writer is gone while the receiver is congested: take the rest
      // now rather than spin on the hang-up.
      if (ev.hangup || ev.error) {
        DrainAndClose();
        if (on_end_) on_end_();
      }
      return;
    }
    OnReadable();
  });
}

void LineReader::Pause() {
  paused_ = true;
  SetReading(false);
}

void LineReader::Resume() {
  if (!paused_ || closed_) return;
  paused_ = false;
  std::weak_ptr<int> alive = alive_;
  loop_.Post([this, alive] {
    if (alive.expired() || closed_ || paused_) return;
    HandleLines(false, ended_);
    if (closed_ || paused_) return;
    if (ended_) {
      Close();
      if (on_end_) on_end_();
    } else {
      SetReading(true);
    }
  });
}

void LineReader::DrainAndClose() {
  if (closed_) return;
  if (!ended_) ReadInput();
  HandleLines(true, true);
  Close();
}

void LineReader::Close() {
  if (closed_) return;
  closed_ = true;
  loop_.Unwatch(fd_);
  platform::Close(fd_);
}

void LineReader::OnReadable() {
  if (!ReadInput()) ended_ = true;
  HandleLines(false, ended_);
  if (closed_ || paused_) {
    SetReading(false);
    return;
  }
  if (ended_) {
    Close();
    if (on_end_) on_end_();
  }
}

bool LineReader::ReadInput() {
  char chunk[16 * 1024];
  for (int i = 0; i < 16; ++i) {
    long n = platform::ReadSome(fd_, chunk, sizeof chunk);
    if (n > 0) {
      buffer_.append(chunk, static_cast<std::size_t>(n));
      continue;
    }
    if (n == 0) return false;
    int e = platform::LastError();
    return e == EAGAIN || e == EWOULDBLOCK;
  }
  return true;
}

void LineReader::HandleLines(bool ignore_pause, bool at_end) {
  while (!closed_ && (ignore_pause || !paused_) && head_ < buffer_.size()) {
    std::size_t nl = buffer_.find('\n', head_);
    std::size_t end;
    std::size_t next;
    if (nl != std::string::npos && nl - head_ <= kMaxLine) {
      end = nl;
      next = nl + 1;
    } else if (buffer_.size() - head_ >= kMaxLine) {
      end = next = head_ + kMaxLine;
    } else if (at_end) {
      end = next = buffer_.size();
    } else {
      break;
    }
    std::string_view line(buffer_.data() + head_, end - head_);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    head_ = next;
    if (!on_line_(line)) paused_ = true;
  }
  if (head_ > 0 && (head_ == buffer_.size() || head_ > 64 * 1024)) {
    buffer_.erase(0, head_);
    head_ = 0;
  }
}

void LineReader::SetReading(bool on) {
  if (closed_ || reading_ == on) return;
  reading_ = on;
  loop_.Modify(fd_, on, false);
}

LineWriter::LineWriter(platform::EventLoop& loop, int fd, QueueLimits limits,
                       std::function<void()> on_drained, std::function<void()> on_failed)
    : loop_(loop),
      fd_(fd),
      limits_(limits),
      on_drained_(std::move(on_drained)),
      on_failed_(std::move(on_failed)) {}

LineWriter::~LineWriter() { Close(); }

bool LineWriter::Start() {
  if (!platform::SetNonBlocking(fd_, true)) return false;
  return loop_.Watch(fd_, false, false, [this](platform::IoEvents ev) {
    if (ev.writable) OnWritable();
    if (!closed_ && (ev.error || ev.hangup)) Fail();
  });
}

void LineWriter::Write(std::string_view text) {
  if (closed_) return;
  bool was_empty = output_.empty();
  if (!output_.WriteOrAppend(fd_, text.data(), text.size())) {
    std::weak_ptr<int> alive = alive_;
    loop_.Post([this, alive] {
      if (!alive.expired()) Fail();
    });
    return;
  }
  if (output_.size() > limits_.high_water) congested_ = true;
  if (was_empty && !output_.empty() && !writing_) {
    writing_ = true;
    loop_.Modify(fd_, false, true);
  }
}

void LineWriter::OnWritable() {
  if (closed_) return;
  if (output_.WriteTo(fd_) == OutputBuffer::Flush::kFailed) {
    Fail();
    return;
  }
  if (output_.empty() && writing_) {
    writing_ = false;
    loop_.Modify(fd_, false, false);
  }
  if (congested_ && output_.size() <= limits_.low_water) {
    congested_ = false;
    if (on_drained_) on_drained_();
  }
}

void LineWriter::Fail() {
  if (closed_) return;
  bool was_congested = congested_;
  Close();
  if (was_congested && on_drained_) on_drained_();  // nobody waits on a dead input
  if (on_failed_) on_failed_();
}

void LineWriter::Close() {
  if (closed_) return;
  closed_ = true;
  congested_ = false;
  loop_.Unwatch(fd_);
  platform::Close(fd_);
  output_.Clear();
}

}  // namespace varn::quon
