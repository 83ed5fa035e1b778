// The hand-over of whole packets (or, in debug mode, lines) from the input
// thread to the application's thread: one producer (the input thread), one
// consumer (the application's thread), guarded by one mutex.
//
// An in-process queue was chosen over an internal pipe after measuring both
// (bench/handover_bench.cc): it hands over the body block the input thread
// already read, without copying it through the kernel twice, and keeps
// packets whole and in order by construction.
//
// It is bounded: while it holds more than `capacity` bytes of bodies, Push
// waits for the consumer. The input thread then stops reading the hub's
// channel, so a peer that floods a process which does not read is held back
// by the hub's flow control instead of growing this process's memory. A
// single packet larger than the capacity is always taken.
#ifndef VARN_TRANSPORT_HAND_OVER_H_
#define VARN_TRANSPORT_HAND_OVER_H_

#include <cstddef>
#include <deque>

#include "platform/mutex.h"

namespace varn::transport {

// A packet body (the bytes after the six length digits) in a malloc'd block
// with a NUL after the body; whoever takes it frees it with free().
struct PacketBody {
  char* data = nullptr;
  std::size_t length = 0;
};

class HandOver {
 public:
  static constexpr std::size_t kDefaultCapacity = 4u << 20;

  explicit HandOver(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {}
  ~HandOver();
  HandOver(const HandOver&) = delete;
  HandOver& operator=(const HandOver&) = delete;

  // Producer: appends a packet, waiting while the hand-over is full; it
  // owns the packet from now on.
  void Push(PacketBody packet) EXCLUDES(mutex_);
  // Producer: appends a packet without regard to the bound (the last one).
  void PushLast(PacketBody packet) EXCLUDES(mutex_);
  // Producer: no more packets will come.
  void Close() EXCLUDES(mutex_);
  // Consumer: blocks until a packet is there. False when closed and drained.
  bool Take(PacketBody* packet) EXCLUDES(mutex_);

 private:
  void Append(PacketBody packet) REQUIRES(mutex_);

  const std::size_t capacity_;
  platform::Mutex mutex_;
  platform::CondVar ready_;  // a packet arrived, or the hand-over closed
  platform::CondVar room_;   // the consumer took a packet
  std::deque<PacketBody> packets_ GUARDED_BY(mutex_);
  std::size_t bytes_ GUARDED_BY(mutex_) = 0;  // body bytes in packets_
  bool producer_waits_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_HAND_OVER_H_
