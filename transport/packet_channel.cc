#include "transport/packet_channel.h"

#include <cstdlib>

namespace varn::transport {

PacketChannel::~PacketChannel() {
  for (PacketBody& p : packets_) std::free(p.data);
}

void PacketChannel::Push(PacketBody packet) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    packets_.push_back(packet);
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
  std::unique_lock<std::mutex> lock(mutex_);
  ready_.wait(lock, [this] { return !packets_.empty() || closed_; });
  if (packets_.empty()) return false;
  *packet = packets_.front();
  packets_.pop_front();
  return true;
}

std::size_t PacketChannel::Size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return packets_.size();
}

}  // namespace varn::transport
