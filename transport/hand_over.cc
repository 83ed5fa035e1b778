#include "transport/hand_over.h"

#include <cstdlib>

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
    while (bytes_ > 0 && bytes_ + packet.length > capacity_) {
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

}  // namespace varn::transport
