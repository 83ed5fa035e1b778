#include "transport/packet_channel.h"

#include <cstdlib>

namespace varn::transport {

PacketChannel::~PacketChannel() {
  for (PacketBody& p : packets_) std::free(p.data);
}

void PacketChannel::Append(PacketBody packet) {
  packets_.push_back(packet);
  bytes_ += packet.length;
}

void PacketChannel::Push(PacketBody packet) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    while (bytes_ > 0 && bytes_ + packet.length > capacity_) {
      producer_waits_ = true;
      room_.wait(lock);
    }
    Append(packet);
  }
  ready_.notify_one();
}

void PacketChannel::PushLast(PacketBody packet) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Append(packet);
  }
  ready_.notify_one();
}

void PacketChannel::Close() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  ready_.notify_all();
}

bool PacketChannel::Take(PacketBody* packet) {
  bool wake_producer = false;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [this] { return !packets_.empty() || closed_; });
    if (packets_.empty()) return false;
    *packet = packets_.front();
    packets_.pop_front();
    bytes_ -= packet->length;
    wake_producer = producer_waits_;
    producer_waits_ = false;
  }
  if (wake_producer) room_.notify_one();
  return true;
}

}  // namespace varn::transport
