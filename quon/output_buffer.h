// The bytes waiting to be written to one client descriptor.
//
// Bytes leave in the order they were added; a write that the descriptor
// cannot take completely leaves the rest at the front. The buffer never
// drops data: bounding it is the caller's job (see Connection::congested).
// Once drained, a buffer larger than kKeptBytes is given back: a burst
// does not pin its memory for the client's lifetime.
#ifndef VARN_QUON_OUTPUT_BUFFER_H_
#define VARN_QUON_OUTPUT_BUFFER_H_

#include <cstddef>
#include <memory>

namespace varn::quon {

class OutputBuffer {
 public:
  static constexpr std::size_t kKeptBytes = 64 * 1024;

  enum class Flush { kEmpty, kBlocked, kFailed };

  void Append(const char* data, std::size_t size);
  std::size_t size() const { return tail_ - head_; }
  bool empty() const { return head_ == tail_; }

  // Writes to the non-blocking descriptor until the buffer is empty, the
  // descriptor would block, or a write fails (the peer went away).
  Flush WriteTo(int fd);

  // Writes what it can of data straight to fd when nothing is queued, and
  // queues the rest. Returns false when the write failed.
  bool WriteOrAppend(int fd, const char* data, std::size_t size);

  void Clear();

  // Bytes held for the client, used or not.
  std::size_t capacity() const { return capacity_; }

 private:
  void Release();

  std::unique_ptr<char[]> bytes_;  // not zero-filled: only [head_, tail_) is read
  std::size_t capacity_ = 0;
  std::size_t head_ = 0;
  std::size_t tail_ = 0;
};

}  // namespace varn::quon

#endif  // VARN_QUON_OUTPUT_BUFFER_H_
