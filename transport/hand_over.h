// The hand-over of whole packets (or, in debug mode, lines) from the input
// thread to the application's thread: one producer (the input thread), one
// consumer (the application's thread), guarded by one mutex.
//
// An in-process queue was chosen over an internal pipe after measuring both
// (bench/handover_bench.cc): it hands over the body block the input thread
// already read, without copying it through the kernel twice, and keeps
// packets whole and in order by construction.
//
// It also decides who reads the channel: the reading turn. The input thread
// holds it while the application's thread is busy in its own code, so that
// interrupts and status queries are answered then. When the application's
// thread waits for a message and nothing was handed over, it takes the turn
// and reads the channel itself, which saves a thread wake-up per message;
// it keeps the turn after its wait, and the input thread takes it back once
// the application has not read for kReclaimMs. A turn that the input
// thread holds is asked for through a wake-up descriptor that its read
// waits on beside the channel.
//
// It is bounded: while it holds more than `capacity` bytes of bodies, Push
// waits for the consumer. The input thread then stops reading the hub's
// channel, so a peer that floods a process which does not read is held back
// by the hub's flow control instead of growing this process's memory. A
// single packet larger than the capacity is always taken.
#ifndef VARN_TRANSPORT_HAND_OVER_H_
#define VARN_TRANSPORT_HAND_OVER_H_

#include <cstddef>
#include <cstdint>
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

  // ---- The reading turn (only after EnableTurns) ----
  // How long the application's thread keeps the turn after it stopped
  // reading, and after how long of reading the input thread stops looking.
  static constexpr int kReclaimMs = 2;
  static constexpr int kIdleMs = 50;

  // Makes the application's waits take the turn; wake_fd is the wake-up
  // descriptor the input thread's read waits on. Before the input thread
  // starts.
  void EnableTurns(int wake_fd) EXCLUDES(mutex_);
  int wake_fd() const { return wake_fd_; }

  // Consumer: a handed-over packet when there is one (kPacket); otherwise
  // the turn (kRead: the caller reads the channel, then calls DoneReading),
  // waiting for the input thread to yield it; kClosed when the input ended
  // and everything was taken.
  // With a deadline (platform::MonotonicMillis time; negative for none),
  // kTimeout once it passed with neither a packet nor the turn.
  enum class Next { kPacket, kRead, kClosed, kTimeout };
  // before_wait (may be null) runs, without the lock, before it blocks.
  Next TakeOrRead(PacketBody* packet, void (*before_wait)(), std::int64_t deadline_ms = -1)
      EXCLUDES(mutex_);
  // Consumer: stopped reading; keeps the turn for now.
  void DoneReading() EXCLUDES(mutex_);

  // Producer: blocks until the input thread holds the turn. False once the
  // hand-over is closed (the application's thread met the channel's end).
  bool AwaitTurn() EXCLUDES(mutex_);
  // Producer: gives the turn to the application's thread if it asked for
  // it; true when it did.
  bool YieldIfAsked() EXCLUDES(mutex_);

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

  int wake_fd_ = -1;              // set before the input thread starts; -1: no turns
  platform::CondVar input_turn_;  // the turn may have come back to the input thread
  bool app_has_turn_ GUARDED_BY(mutex_) = false;
  bool app_reading_ GUARDED_BY(mutex_) = false;       // the holder is inside a take
  bool app_asks_ GUARDED_BY(mutex_) = false;          // waits for the input thread to yield
  bool input_waits_idle_ GUARDED_BY(mutex_) = false;  // without a deadline
  std::int64_t app_since_ms_ GUARDED_BY(mutex_) = 0;  // when it began or stopped reading
};

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_HAND_OVER_H_
