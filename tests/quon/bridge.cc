// Lets a test act as a hub client: started by the hub (as its first
// client), it prints "ADDR pid@host" on standard output, then copies its
// standard input to its channel and its channel to standard output, byte
// for byte. It ends when either side ends: 0 for the end of standard input,
// 4 for the end of the channel.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/event_loop.h"
#include "platform/io.h"
#include "tests/support/packet_io.h"

int main(int argc, char** argv) {
  namespace platform = varn::platform;
  int in = -1;
  int out = -1;
  for (int i = 1; i + 1 < argc; ++i) {
    std::string a = argv[i];
    if (a == "-quon_quonin") in = static_cast<int>(std::strtol(argv[i + 1], nullptr, 16));
    if (a == "-quon_quonout") out = static_cast<int>(std::strtol(argv[i + 1], nullptr, 16));
    if (a == "-quon_sockfd") in = out = std::atoi(argv[i + 1]);
  }
  if (in < 0 || out < 0) {
    std::fprintf(stderr, "bridge: no channel options\n");
    return 3;
  }
  std::string hello = "ADDR " + varn::test_support::OwnAddress() + "\n";
  platform::WriteAll(platform::kStdout, hello.data(), hello.size());

  platform::EventLoop loop;
  int result = -1;
  auto copy = [&result](int from, int to, int code_at_end) {
    char buf[65536];
    long n = platform::ReadSome(from, buf, sizeof buf);
    if (n <= 0 || !platform::WriteAll(to, buf, static_cast<std::size_t>(n))) result = code_at_end;
  };
  loop.Watch(platform::kStdin, true, false,
             [&](platform::IoEvents) { copy(platform::kStdin, out, 0); });
  loop.Watch(in, true, false, [&](platform::IoEvents) { copy(in, platform::kStdout, 4); });
  while (result < 0) loop.RunOnce(-1);
  return result;
}
