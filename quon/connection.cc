#include "quon/connection.h"

#include <algorithm>

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/io.h"
#include "platform/system.h"
#include "quon/log.h"
#include "transport/wire_format.h"

namespace varn::quon {
namespace {

// Reads start small and double while they fill what was offered, up to
// kReadChunk; a client that goes quiet gives its buffer back.
constexpr std::size_t kFirstReadChunk = 4 * 1024;
constexpr std::size_t kReadChunk = 64 * 1024;
// Bytes taken from one client per wake-up, so that one busy client cannot
// starve the others.
constexpr std::size_t kReadBudget = 256 * 1024;
// The same for a client that sent bad packets in its last wake-up: the hub
// then spends little on its garbage per round, and the others are served
// between rounds as before. Valid input from it gets the full budget back.
constexpr std::size_t kBadInputBudget = 4 * 1024;
constexpr std::size_t kReadEverything = static_cast<std::size_t>(-1);
// A client's pipe that fills up (a stream) is grown to this once, so that
// more of the stream is in flight per wake-up of the hub and the client.
constexpr std::size_t kStreamingPipe = 1u << 20;

// Buffers let go after a burst go back to the system a little later, once
// for all of them: the allocator keeps freed memory resident otherwise. The
// hub's loop thread only.
constexpr std::int64_t kReturnDelayMs = 250;
platform::EventLoop* g_return_pending = nullptr;  // the loop whose timer is set

void ReturnMemorySoon(platform::EventLoop& loop) {
  if (g_return_pending == &loop) return;
  g_return_pending = &loop;
  loop.AddTimer(kReturnDelayMs, [] {
    g_return_pending = nullptr;
    platform::ReturnFreeMemory();
  });
}

// The client's address, with or without a route prefix.
bool IsOwnSource(std::string_view source, std::string_view address) {
  return source == address || wire::WithoutRoutePrefix(source) == address;
}

}  // namespace

Connection::Connection(platform::EventLoop& loop, int read_fd, int write_fd, std::string address,
                       Listener* listener, QueueLimits limits)
    : loop_(loop),
      read_fd_(read_fd),
      write_fd_(write_fd),
      address_(std::move(address)),
      listener_(listener),
      limits_(limits) {}

Connection::~Connection() {
  if (flush_queued_) loop_.CancelRoundEnd(this);
  Close();
}

bool Connection::Start() {
  if (!platform::SetNonBlocking(read_fd_, true) || !platform::SetNonBlocking(write_fd_, true)) {
    return false;
  }
  if (read_fd_ == write_fd_) {
    return loop_.Watch(read_fd_, true, false, [this](platform::IoEvents ev) {
      if (ev.writable) OnWritable();
      if (closed_) return;
      if (ev.readable || ev.hangup || ev.error) {
        if (paused_ && (ev.hangup || ev.error)) {
          ReportClosed();
        } else if (!paused_) {
          OnReadable();
        }
      }
    });
  }
  bool ok = loop_.Watch(read_fd_, true, false, [this](platform::IoEvents ev) {
    // A paused pipe still reports a hang-up; the writer is gone, so what it
    // left is taken at once instead of spinning on the event.
    if (paused_) {
      if (ev.hangup || ev.error) ReportClosed();
      return;
    }
    OnReadable();
  });
  return ok && loop_.Watch(write_fd_, false, false, [this](platform::IoEvents ev) {
    if (ev.writable) OnWritable();
    if (!closed_ && (ev.error || ev.hangup)) ReportClosed();  // the reader is gone
  });
}

void Connection::Send(const char* data, std::size_t size) {
  if (closed_) return;
  output_.Append(data, size);
  output_held_ = std::max(output_held_, output_.capacity());
  if (output_.size() > limits_.high_water) congested_ = true;
  // While the write interest is on, the loop writes when the client takes
  // more; otherwise the end of the round does.
  if (!flush_queued_ && !writing_) {
    flush_queued_ = true;
    loop_.AtRoundEnd(this);
  }
}

void Connection::OnRoundEnd() {
  flush_queued_ = false;
  if (closed_ || output_.empty()) return;
  if (output_.WriteTo(write_fd_) == OutputBuffer::Flush::kFailed) {
    // Reported outside the loop's round: the listener may end this client.
    std::weak_ptr<int> alive = alive_;
    loop_.Post([this, alive] {
      if (!alive.expired() && !closed_) ReportClosed();
    });
    return;
  }
  AfterFlush();
}

void Connection::AfterFlush() {
  if (output_held_ > OutputBuffer::kKeptBytes && output_.capacity() == 0) ReturnMemorySoon(loop_);
  output_held_ = output_.capacity();
  if (!output_.empty() && !write_pipe_grown_) {
    // The client does not keep up: a larger pipe takes more at once.
    write_pipe_grown_ = true;
    if (platform::GrowPipe(write_fd_, kStreamingPipe) &&
        output_.WriteTo(write_fd_) == OutputBuffer::Flush::kFailed) {
      std::weak_ptr<int> alive = alive_;
      loop_.Post([this, alive] {
        if (!alive.expired() && !closed_) ReportClosed();
      });
      return;
    }
  }
  UpdateInterest();
  if (congested_ && output_.size() <= limits_.low_water) {
    congested_ = false;
    listener_->OnDrained();
  }
}

void Connection::Pause() {
  if (paused_) return;
  paused_ = true;
  UpdateInterest();
}

void Connection::Resume() {
  if (!paused_ || closed_) return;
  paused_ = false;
  std::weak_ptr<int> alive = alive_;
  loop_.Post([this, alive] {
    if (alive.expired() || closed_ || paused_) return;
    HandleBuffered(false);
    if (closed_) return;
    UpdateInterest();
    if (input_ended_ && !paused_) ReportClosed();
  });
}

void Connection::DrainInput() {
  if (closed_) return;
  if (!input_ended_ && !ReadInput(kReadEverything)) input_ended_ = true;
  HandleBuffered(true);
}

void Connection::Close() {
  if (closed_) return;
  closed_ = true;
  loop_.Unwatch(read_fd_);
  platform::Close(read_fd_);
  if (write_fd_ != read_fd_) {
    loop_.Unwatch(write_fd_);
    platform::Close(write_fd_);
  }
  output_.Clear();
}

void Connection::OnReadable() {
  std::uint64_t bad_before = bad_total_;
  if (!ReadInput(sent_bad_input_ ? kBadInputBudget : kReadBudget)) input_ended_ = true;
  HandleBuffered(false);
  sent_bad_input_ = bad_total_ != bad_before;
  if (closed_) return;
  if (last_read_ < kFirstReadChunk && framer_.buffered() == 0 &&
      framer_.capacity() > kFirstReadChunk) {
    // Only a little came this time: the stream, if there was one, is over.
    framer_.ReleaseIfEmpty();
    read_chunk_ = kFirstReadChunk;
    ReturnMemorySoon(loop_);
  }
  if (input_ended_ && !paused_) {
    ReportClosed();
  } else {
    UpdateInterest();
  }
}

void Connection::OnWritable() {
  if (closed_) return;
  if (output_.WriteTo(write_fd_) == OutputBuffer::Flush::kFailed) {
    ReportClosed();
    return;
  }
  AfterFlush();
}

bool Connection::ReadInput(std::size_t budget) {
  std::size_t& total = last_read_;
  total = 0;
  while (total < budget) {
    std::size_t want = std::min(read_chunk_, budget - total);
    char* p = framer_.Reserve(want);
    long n = platform::ReadSome(read_fd_, p, want);
    if (n > 0) {
      std::size_t got = static_cast<std::size_t>(n);
      framer_.Commit(got);
      total += got;
      // A short read means the channel is empty for now; the loop reports
      // it again when more arrives, so asking once more would only fail.
      if (got < want && budget != kReadEverything) return true;
      if (got == read_chunk_) {
        if (read_chunk_ < kReadChunk) {
          read_chunk_ *= 2;
        } else if (!read_pipe_grown_) {
          read_pipe_grown_ = true;
          platform::GrowPipe(read_fd_, kStreamingPipe);
        }
      }
      continue;
    }
    if (n == 0) return false;
    int e = platform::LastError();
    return e == EAGAIN || e == EWOULDBLOCK;
  }
  return true;
}

void Connection::HandleBuffered(bool ignore_pause) {
  while (!closed_ && (ignore_pause || !paused_)) {
    Packet packet;
    std::string reason;
    PacketFramer::Result r = framer_.Next(&packet, &reason);
    if (r == PacketFramer::Result::kNeedMore) break;
    if (r == PacketFramer::Result::kPacket && !IsOwnSource(packet.header.source, address_)) {
      reason = "source \"" + Printable(packet.header.source, 64) + "\" is not the sender's address";
      r = PacketFramer::Result::kBad;
    }
    if (r == PacketFramer::Result::kBad) {
      ++bad_total_;
      listener_->OnBadPacket(reason, ++bad_in_row_);
      continue;
    }
    bad_in_row_ = 0;
    if (!listener_->OnPacket(packet)) paused_ = true;
  }
}

void Connection::UpdateInterest() {
  if (closed_) return;
  bool read = !paused_ && !input_ended_;
  bool write = !output_.empty();
  if (read == reading_ && write == writing_) return;
  reading_ = read;
  writing_ = write;
  if (read_fd_ == write_fd_) {
    loop_.Modify(read_fd_, read, write);
  } else {
    loop_.Modify(read_fd_, read, false);
    loop_.Modify(write_fd_, false, write);
  }
}

void Connection::ReportClosed() {
  if (closed_ || close_reported_) return;
  close_reported_ = true;
  // The client may have written its last packets just before going away.
  DrainInput();
  if (closed_) return;
  Close();
  listener_->OnClosed();
}

}  // namespace varn::quon
