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

class PacketChannel {
 public:
  PacketChannel() = default;
  ~PacketChannel();
  PacketChannel(const PacketChannel&) = delete;
  PacketChannel& operator=(const PacketChannel&) = delete;

  // Producer: appends a packet; the channel owns it from now on.
  void Push(PacketBody packet);
  // Producer: no more packets will come.
  void Close();
  // Consumer: blocks until a packet is there. False when the channel is
  // closed and drained.
  bool Take(PacketBody* packet);
  std::size_t Size();

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<PacketBody> packets_;  // guarded by mutex_
  bool closed_ = false;             // guarded by mutex_
};

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_PACKET_CHANNEL_H_
