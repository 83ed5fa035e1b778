// The hand-over of whole packets from the input thread to the application's
// thread: one producer (the input thread), one consumer (the application's
// thread), guarded by one mutex.
//
// An in-process queue was chosen over an internal pipe after measuring both
// (bench/handover_bench.cc): it hands over the body block the input thread
// already read, without copying it through the kernel twice, and keeps
// packets whole and in order by construction. Its blocking take is a
// condition-variable wait, which a hold of the application's thread
// interrupts and resumes like a pipe read.
#ifndef VARN_TRANSPORT_PACKET_CHANNEL_H_
#define VARN_TRANSPORT_PACKET_CHANNEL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace varn::transport {

// A packet body (the bytes after the six length digits) in a malloc'd block
// with a NUL after the body; whoever takes it frees it with free().
struct PacketBody {
  char* data = nullptr;
  std::size_t length = 0;
};

// The channel is bounded: while it holds more than `capacity` bytes of
// bodies, Push waits for the consumer. The input thread then stops reading
// the hub's channel, so a peer that floods a process which does not read
// is held back by the hub's flow control instead of growing this process's
// memory. A single packet larger than the capacity is always taken.
class PacketChannel {
 public:
  static constexpr std::size_t kDefaultCapacity = 4u << 20;

  explicit PacketChannel(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {}
  ~PacketChannel();
  PacketChannel(const PacketChannel&) = delete;
  PacketChannel& operator=(const PacketChannel&) = delete;

  // Producer: appends a packet, waiting while the channel is full; the
  // channel owns it from now on.
  void Push(PacketBody packet);
  // Producer: appends a packet without regard to the bound (the last one).
  void PushLast(PacketBody packet);
  // Producer: no more packets will come.
  void Close();
  // Consumer: blocks until a packet is there. False when the channel is
  // closed and drained.
  bool Take(PacketBody* packet);

 private:
  void Append(PacketBody packet);

  const std::size_t capacity_;
  std::mutex mutex_;
  std::condition_variable ready_;   // a packet arrived, or the channel closed
  std::condition_variable room_;    // the consumer took a packet
  std::deque<PacketBody> packets_;  // guarded by mutex_
  std::size_t bytes_ = 0;           // guarded by mutex_: body bytes in packets_
  bool producer_waits_ = false;     // guarded by mutex_
  bool closed_ = false;             // guarded by mutex_
};

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_PACKET_CHANNEL_H_
