// Measures what the hub costs: a CMD/ACK round trip and a one-way stream of
// DATA packets, once through quon between two clients and once over a raw
// pipe pair between the same two kinds of process, in the same run, and
// prints both with their ratio.
//
//   quon_relay_bench [--rounds N] [--packets N] [--size BYTES] [--sockets]
//
// The program plays every part: run plainly it starts quon with itself as
// the first client ("measure"), which starts the echo peer through the hub
// ("echo") and another echo peer on plain pipes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/quon/raw_client.h"
#include "platform/event_loop.h"
#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "varn_codes.h"

namespace {

namespace platform = varn::platform;

struct Settings {
  long rounds = 20000;
  long packets = 50000;
  long size = 4096;
  bool sockets = false;
};

using varn::bench::Channel;
using varn::bench::Echo;
using varn::bench::OwnAddress;
using varn::bench::Packet;

struct Result {
  double round_trip_us;
  double megabytes_per_s;
};

Result Measure(Channel& ch, const std::string& peer, const Settings& s) {
  Result r{};
  for (int i = 0; i < 100; ++i) {  // warm up
    ch.Send(peer, VARN_CMD, "ping");
    ch.Receive();
  }
  std::int64_t t0 = platform::MonotonicMillis();
  for (long i = 0; i < s.rounds; ++i) {
    ch.Send(peer, VARN_CMD, "ping");
    if (ch.Receive().category != VARN_ACK) Channel::Die("expected ACK");
  }
  std::int64_t t1 = platform::MonotonicMillis();
  r.round_trip_us = 1000.0 * static_cast<double>(t1 - t0) / static_cast<double>(s.rounds);

  std::string payload(static_cast<std::size_t>(s.size), 'd');
  t0 = platform::MonotonicMillis();
  for (long i = 0; i < s.packets; ++i) ch.Send(peer, VARN_DATA, payload);
  ch.Send(peer, VARN_DATA, "last");
  Packet done = ch.Receive();
  t1 = platform::MonotonicMillis();
  if (done.payload != "count " + std::to_string(s.packets)) Channel::Die("packets were lost");
  double seconds = static_cast<double>(t1 - t0 > 0 ? t1 - t0 : 1) / 1000.0;
  r.megabytes_per_s = static_cast<double>(s.packets) * static_cast<double>(s.size) / 1e6 / seconds;
  return r;
}

std::vector<std::string> SettingArgs(const Settings& s) {
  return {"--rounds", std::to_string(s.rounds), "--packets", std::to_string(s.packets),
          "--size",   std::to_string(s.size)};
}

int RunMeasure(Channel& hub, const Settings& s, const char* self_path) {
  // The peer through the hub.
  char cwd[4096];
  if (!platform::CurrentDirectory(cwd, sizeof cwd)) Channel::Die("no working directory");
  hub.Send("quon", VARN_INVOKE, std::string(cwd) + " " + self_path + " echo");
  Packet accept = hub.Receive();
  if (accept.category != VARN_ACCEPT) Channel::Die("the hub refused to start the peer");
  Result via_hub = Measure(hub, accept.payload, s);
  hub.Send(accept.payload, VARN_KILL, {});

  // The same peer on a raw pipe pair.
  int to_peer[2];
  int from_peer[2];
  if (!platform::CreatePipe(to_peer) || !platform::CreatePipe(from_peer)) Channel::Die("pipes");
  platform::SpawnRequest r;
  r.program = self_path;
  r.argv = {self_path, "rawecho"};
  r.fds = {{to_peer[0], 0}, {from_peer[1], 1}};
  platform::SpawnResult spawned = platform::Spawn(r);
  platform::Close(to_peer[0]);
  platform::Close(from_peer[1]);
  if (spawned.pid < 0) Channel::Die("cannot start the raw peer");
  Channel raw(from_peer[0], to_peer[1], OwnAddress());
  Result direct = Measure(raw, "peer", s);
  platform::Close(to_peer[1]);
  platform::Close(from_peer[0]);
  platform::EventLoop loop;
  bool reaped = false;
  loop.WatchChildExits(
      [&](int pid, platform::ChildStatus) { reaped = reaped || pid == spawned.pid; });
  while (!reaped) loop.RunOnce(1000);

  std::printf("round trip (CMD/ACK, %ld rounds): hub %.1f us, raw pipe %.1f us, ratio %.2f\n",
              s.rounds, via_hub.round_trip_us, direct.round_trip_us,
              via_hub.round_trip_us / direct.round_trip_us);
  std::printf("throughput (%ld DATA of %ld bytes): hub %.0f MB/s, raw pipe %.0f MB/s, ratio %.2f\n",
              s.packets, s.size, via_hub.megabytes_per_s, direct.megabytes_per_s,
              via_hub.megabytes_per_s / direct.megabytes_per_s);
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings s;
  std::string mode = "drive";
  int in = -1;
  int out = -1;
  std::vector<std::string> args;
  varn::bench::ChannelOptions(argc, argv, &in, &out, &args);
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto next = [&]() -> const char* { return i + 1 < args.size() ? args[++i].c_str() : "0"; };
    if (a == "--rounds") {
      s.rounds = std::atol(next());
    } else if (a == "--packets") {
      s.packets = std::atol(next());
    } else if (a == "--size") {
      s.size = std::atol(next());
    } else if (a == "--sockets") {
      s.sockets = true;
    } else if (a == "measure" || a == "echo" || a == "rawecho") {
      mode = a;
    }
  }
  if (s.rounds < 1 || s.packets < 1 || s.size < 1 || s.size > 900000) {
    std::fprintf(stderr, "quon_relay_bench: bad settings\n");
    return 2;
  }
  if (mode == "rawecho") {
    Channel ch(platform::kStdin, platform::kStdout, "peer");
    Echo(ch);
  }
  if (mode == "echo" || mode == "measure") {
    if (in < 0 || out < 0) Channel::Die("no channel options");
    Channel ch(in, out, OwnAddress());
    if (mode == "echo") Echo(ch);
    int code = RunMeasure(ch, s, argv[0]);
    ch.Send("quon", VARN_SRVR_ERR, "");
    return code;
  }
  // Drive: the hub with this program as its first client.
  std::vector<std::string> hub_args = {"quon"};
  if (s.sockets) hub_args.push_back("--sockets");
  hub_args.push_back(argv[0]);
  hub_args.push_back("measure");
  for (auto& a : SettingArgs(s)) hub_args.push_back(a);
  return varn::bench::RunHub(QUON_BINARY, hub_args);
}
