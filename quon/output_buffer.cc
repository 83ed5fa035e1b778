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
  if (tail_ + size > bytes_.size()) {
    // Reuse the consumed front before growing.
    if (head_ > 0) {
      std::memmove(bytes_.data(), bytes_.data() + head_, tail_ - head_);
      tail_ -= head_;
      head_ = 0;
    }
    if (tail_ + size > bytes_.size()) bytes_.resize(std::max(tail_ + size, bytes_.size() * 2));
  }
  std::memcpy(bytes_.data() + tail_, data, size);
  tail_ += size;
}

OutputBuffer::Flush OutputBuffer::WriteTo(int fd) {
  while (head_ < tail_) {
    long n = platform::WriteSome(fd, bytes_.data() + head_, tail_ - head_);
    if (n < 0) return WouldBlock(platform::LastError()) ? Flush::kBlocked : Flush::kFailed;
    head_ += static_cast<std::size_t>(n);
  }
  head_ = tail_ = 0;
  // A large burst should not pin its memory for the client's lifetime.
  if (bytes_.size() > (1u << 20)) std::vector<char>().swap(bytes_);
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
  std::vector<char>().swap(bytes_);
}

}  // namespace varn::quon
