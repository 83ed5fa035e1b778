// Hand-over of whole packets from the input thread to the application's
// thread: the in-process channel the library uses, against an internal pipe
// carrying the same packets (six length digits, then the body, read back
// whole), measured in the same run. Prints packets/s and the ratio.
//
//   build/bench/handover_bench [packets]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/io.h"
#include "transport/hand_over.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace platform = varn::platform;
using varn::transport::HandOver;
using varn::transport::PacketBody;

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Producer reads nothing from a channel here: it has the body in hand, as
// the input thread has after reading it from the hub.
double ChannelRun(std::size_t body_size, int count) {
  HandOver channel;
  auto start = Clock::now();
  std::thread producer([&] {
    for (int i = 0; i < count; ++i) {
      PacketBody p{static_cast<char*>(std::malloc(body_size + 1)), body_size};
      std::memset(p.data, 'x', body_size);
      p.data[body_size] = '\0';
      channel.Push(p);
    }
    channel.Close();
  });
  PacketBody p;
  int taken = 0;
  while (channel.Take(&p)) {
    std::free(p.data);
    ++taken;
  }
  producer.join();
  double s = Seconds(start);
  if (taken != count) std::fprintf(stderr, "channel lost packets\n");
  return count / s;
}

double PipeRun(std::size_t body_size, int count) {
  int fds[2];
  if (!platform::CreatePipe(fds)) return 0;
  auto start = Clock::now();
  std::thread producer([&] {
    std::vector<char> packet(6 + body_size + 1);
    for (int i = 0; i < count; ++i) {
      // Same work as the channel's producer: a fresh block per packet.
      char* body = static_cast<char*>(std::malloc(body_size + 1));
      std::memset(body, 'x', body_size);
      std::snprintf(packet.data(), 7, "%06zu", body_size);
      std::memcpy(packet.data() + 6, body, body_size);
      std::free(body);
      platform::WriteAll(fds[1], packet.data(), 6 + body_size);
    }
    platform::Close(fds[1]);
  });
  int taken = 0;
  for (;;) {
    char digits[7] = {};
    bool failed = false;
    if (platform::ReadFull(fds[0], digits, 6, &failed) != 6) break;
    std::size_t n = std::strtoul(digits, nullptr, 10);
    char* body = static_cast<char*>(std::malloc(n + 1));
    platform::ReadFull(fds[0], body, n, &failed);
    body[n] = '\0';
    std::free(body);
    ++taken;
  }
  producer.join();
  platform::Close(fds[0]);
  double s = Seconds(start);
  if (taken != count) std::fprintf(stderr, "pipe lost packets\n");
  return count / s;
}

}  // namespace

int main(int argc, char** argv) {
  int count = argc > 1 ? std::atoi(argv[1]) : 200000;
  std::printf("%-28s %14s %14s %8s\n", "hand-over", "channel pkt/s", "pipe pkt/s", "ratio");
  for (std::size_t size : {64u, 1024u, 16384u}) {
    int n = size > 4096 ? count / 10 : count;
    double channel = ChannelRun(size, n);
    double pipe = PipeRun(size, n);
    std::printf("%-28s %14.0f %14.0f %7.2fx\n", (std::to_string(size) + "-byte bodies").c_str(),
                channel, pipe, channel / pipe);
  }
  return 0;
}
