#include "transport/hand_over.h"

#include <cstdlib>

#include "platform/io.h"
#include "platform/system.h"

namespace varn::transport {

HandOver::~HandOver() {
  platform::MutexLock lock(&mutex_);
  for (PacketBody& p : packets_) std::free(p.data);
}

void HandOver::Append(PacketBody packet) {
  packets_.push_back(packet);
  bytes_ += packet.length;
}

void HandOver::Push(PacketBody packet) {
  {
    platform::MutexLock lock(&mutex_);
    // A full hand-over still takes the packet when the application's thread
    // asks for the turn: it takes what was handed over first.
    while (bytes_ > 0 && bytes_ + packet.length > capacity_ && !app_asks_) {
      producer_waits_ = true;
      room_.Wait(&mutex_);
    }
    Append(packet);
  }
  ready_.Signal();
}

void HandOver::PushLast(PacketBody packet) {
  {
    platform::MutexLock lock(&mutex_);
    Append(packet);
  }
  ready_.Signal();
}

void HandOver::Close() {
  {
    platform::MutexLock lock(&mutex_);
    closed_ = true;
  }
  ready_.SignalAll();
  input_turn_.SignalAll();
}

bool HandOver::Take(PacketBody* packet) {
  bool wake_producer = false;
  {
    platform::MutexLock lock(&mutex_);
    while (packets_.empty() && !closed_) ready_.Wait(&mutex_);
    if (packets_.empty()) return false;
    *packet = packets_.front();
    packets_.pop_front();
    bytes_ -= packet->length;
    wake_producer = producer_waits_;
    producer_waits_ = false;
  }
  if (wake_producer) room_.Signal();
  return true;
}

void HandOver::EnableTurns(int wake_fd) {
  platform::MutexLock lock(&mutex_);
  wake_fd_ = wake_fd;
}

HandOver::Next HandOver::TakeOrRead(PacketBody* packet, void (*before_wait)(),
                                    std::int64_t deadline_ms) {
  bool wake_producer = false;
  Next next;
  {
    platform::MutexLock lock(&mutex_);
    bool before_wait_ran = before_wait == nullptr;
    for (;;) {
      if (!packets_.empty()) {
        *packet = packets_.front();
        packets_.pop_front();
        bytes_ -= packet->length;
        wake_producer = producer_waits_;
        producer_waits_ = false;
        // Served without the turn: the request, if any, is withdrawn.
        app_asks_ = false;
        if (app_reading_) {
          // The input thread yielded the turn to this take after it had
          // handed this packet over: no read follows, so no DoneReading
          // either. Counted as stopped reading now, so that the input thread
          // takes the turn back while the application is in its own code.
          app_reading_ = false;
          app_since_ms_ = platform::MonotonicMillis();
          if (input_waits_idle_) input_turn_.Signal();
        }
        next = Next::kPacket;
        break;
      }
      if (closed_) {
        next = Next::kClosed;
        break;
      }
      if (app_has_turn_) {
        if (!app_reading_) app_since_ms_ = platform::MonotonicMillis();
        app_reading_ = true;
        app_asks_ = false;
        next = Next::kRead;
        break;
      }
      if (!before_wait_ran) {
        before_wait_ran = true;
        mutex_.Unlock();
        before_wait();
        mutex_.Lock();
        continue;
      }
      if (wake_fd_ >= 0 && !app_asks_) {
        // The input thread's read wakes up; a Push waiting for room goes on.
        app_asks_ = true;
        platform::SignalWake(wake_fd_);
        room_.Signal();
      }
      if (deadline_ms < 0) {
        ready_.Wait(&mutex_);
        continue;
      }
      std::int64_t left = deadline_ms - platform::MonotonicMillis();
      if (left <= 0) {
        // Withdrawn: the input thread keeps the turn and goes on reading.
        app_asks_ = false;
        next = Next::kTimeout;
        break;
      }
      ready_.WaitFor(&mutex_, static_cast<int>(left));
    }
  }
  if (wake_producer) room_.Signal();
  return next;
}

void HandOver::DoneReading() {
  platform::MutexLock lock(&mutex_);
  if (!app_reading_) return;
  app_reading_ = false;
  app_since_ms_ = platform::MonotonicMillis();
  if (input_waits_idle_) input_turn_.Signal();
}

bool HandOver::AwaitTurn() {
  platform::MutexLock lock(&mutex_);
  for (;;) {
    if (closed_) return false;
    if (!app_has_turn_) return true;
    std::int64_t held = platform::MonotonicMillis() - app_since_ms_;
    if (!app_reading_ && held >= kReclaimMs) {
      app_has_turn_ = false;
      return true;
    }
    if (app_reading_ && held >= kIdleMs) {
      // A long wait of the application's thread: its end wakes this one.
      input_waits_idle_ = true;
      input_turn_.Wait(&mutex_);
      input_waits_idle_ = false;
    } else {
      input_turn_.WaitFor(&mutex_, app_reading_ ? kIdleMs : kReclaimMs);
    }
  }
}

bool HandOver::YieldIfAsked() {
  {
    platform::MutexLock lock(&mutex_);
    if (!app_asks_) return false;
    app_asks_ = false;
    app_has_turn_ = true;
    // The asker is inside its take: the turn counts as in use from now.
    app_reading_ = true;
    app_since_ms_ = platform::MonotonicMillis();
  }
  ready_.Signal();
  return true;
}

}  // namespace varn::transport
