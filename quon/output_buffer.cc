#include "quon/output_buffer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/io.h"

namespace varn::quon {
namespace {

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

void OutputBuffer::Append(const char* data, std::size_t size) {
  if (size == 0) return;
  if (tail_ + size > capacity_) {
    // Reuse the consumed front before growing.
    if (head_ > 0) {
      std::memmove(bytes_.get(), bytes_.get() + head_, tail_ - head_);
      tail_ -= head_;
      head_ = 0;
    }
    if (tail_ + size > capacity_) {
      std::size_t grown = std::max(tail_ + size, capacity_ * 2);
      std::unique_ptr<char[]> bigger(new char[grown]);
      if (tail_ > 0) std::memcpy(bigger.get(), bytes_.get(), tail_);
      bytes_ = std::move(bigger);
      capacity_ = grown;
    }
  }
  std::memcpy(bytes_.get() + tail_, data, size);
  tail_ += size;
}

void OutputBuffer::Release() {
  bytes_.reset();
  capacity_ = 0;
}

OutputBuffer::Flush OutputBuffer::WriteTo(int fd) {
  while (head_ < tail_) {
    long n = platform::WriteSome(fd, bytes_.get() + head_, tail_ - head_);
    if (n < 0) return WouldBlock(platform::LastError()) ? Flush::kBlocked : Flush::kFailed;
    head_ += static_cast<std::size_t>(n);
  }
  head_ = tail_ = 0;
  if (capacity_ > kKeptBytes) Release();
  return Flush::kEmpty;
}

bool OutputBuffer::WriteOrAppend(int fd, const char* data, std::size_t size) {
  if (empty()) {
    while (size > 0) {
      long n = platform::WriteSome(fd, data, size);
      if (n < 0) {
        if (!WouldBlock(platform::LastError())) return false;
        break;
      }
      data += n;
      size -= static_cast<std::size_t>(n);
    }
  }
  Append(data, size);
  return true;
}

void OutputBuffer::Clear() {
  head_ = tail_ = 0;
  Release();
}

}  // namespace varn::quon
