// A hub client that speaks the packet protocol by hand, for the hub's
// benchmarks: no library between the benchmark and the hub's pipes.
#ifndef VARN_BENCH_QUON_RAW_CLIENT_H_
#define VARN_BENCH_QUON_RAW_CLIENT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace varn::bench {

struct Packet {
  std::string source;
  int category = 0;
  std::string payload;
};

class Channel {
 public:
  Channel(int in, int out, std::string self) : in_(in), out_(out), self_(std::move(self)) {}

  const std::string& self() const { return self_; }
  int in() const { return in_; }
  int out() const { return out_; }

  // Writes one whole packet (blocking); ends the program when that fails.
  void Send(const std::string& dest, int category, std::string_view payload);
  // The next packet; the program exits with 0 at the channel's end.
  Packet Receive();

  [[noreturn]] static void Die(const char* why);

 private:
  int in_;
  int out_;
  std::string self_;
  std::vector<char> scratch_;
  std::vector<char> buf_;
  std::size_t start_ = 0;
  std::size_t end_ = 0;
};

// The peer of the benchmarks' pairs: acknowledges CMD, counts DATA and
// reports the count (DATA "count N") at a DATA "last"; at KILL it sends its
// exit notice and exits.
[[noreturn]] void Echo(Channel& ch);

// Runs the hub binary with these arguments (argv[0] first) to its end; its
// exit code, or 128 + the signal that ended it.
int RunHub(const char* quon, const std::vector<std::string>& argv);

// pid@host, as the hub names this process.
std::string OwnAddress();

// The channel descriptors from the options the hub appends (-quon_quonin,
// -quon_quonout in hex, or -quon_sockfd); -1 when absent. Other arguments
// are left in `rest`.
void ChannelOptions(int argc, char** argv, int* in, int* out, std::vector<std::string>* rest);

}  // namespace varn::bench

#endif  // VARN_BENCH_QUON_RAW_CLIENT_H_
