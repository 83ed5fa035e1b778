// Measures how well the hub keeps clients apart: an unrelated pair's
// CMD/ACK round trips (p50, p99) and its DATA throughput, alone and beside
// each kind of bad client, with the hub's RssAnon after each phase.
//
//   quon_isolation_bench [--rounds N] [--packets N]
//
// Bad clients, each this program again, started through the hub:
//   stall     reads nothing, ever (a flooder sends to it)
//   flood A   sends 4 KiB DATA packets to A as fast as the hub takes them
//   ask       sends process-list requests to the hub and reads no answer
//   garbage   sends four unknown-word packets for every valid one, so that
//             the hub keeps it connected and keeps parsing its input
// They are ended with SIGKILL between phases.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/quon/raw_client.h"
#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "transport/wire_requests.h"
#include "varn_codes.h"

namespace {

namespace platform = varn::platform;
namespace wire = varn::wire;
using varn::bench::Channel;
using varn::bench::Echo;
using varn::bench::Packet;

struct Settings {
  long rounds = 5000;
  long packets = 20000;
};

constexpr long kDataSize = 4096;

long RssAnonKib(int pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/status", pid);
  FILE* f = std::fopen(path, "r");
  if (f == nullptr) return -1;
  char line[256];
  long kib = -1;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "RssAnon:", 8) == 0) kib = std::atol(line + 8);
  }
  std::fclose(f);
  return kib;
}

double NowMicros() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

[[noreturn]] void Stall() {
  for (;;) platform::SleepMilliseconds(1000);
}

[[noreturn]] void Flood(Channel& ch, const std::string& target) {
  std::string payload(kDataSize, 'f');
  for (;;) ch.Send(target, VARN_DATA, payload);
}

[[noreturn]] void Ask(Channel& ch) {
  for (;;) ch.Send("quon", VARN_QUERYP_Q, std::string(wire::kProcessListRequest));
}

[[noreturn]] void Garbage(Channel& ch) {
  std::string body = "quon " + ch.self() + " BOGUS";
  while ((6 + body.size()) % 4 != 0) body.push_back('\0');
  char length[8];
  std::snprintf(length, sizeof length, "%06zu", body.size());
  std::string bad = length + body;
  for (;;) {
    for (int i = 0; i < 4; ++i) {
      if (!platform::WriteAll(ch.out(), bad.data(), bad.size())) std::exit(0);
    }
    // An answer to an address that is gone: dropped without a reply, and it
    // ends the run of bad packets that would disconnect this client.
    ch.Send("1@nowhere", VARN_STATUS, "IDLE");
  }
}

struct Figures {
  double p50_us = 0;
  double p99_us = 0;
  double megabytes_per_s = 0;
  long hub_anon_kib = 0;
};

// Reads until the packet from `peer` with this category; other packets
// (exit notices of bad clients) are passed over.
Packet ReceiveFrom(Channel& ch, const std::string& peer, int category) {
  for (;;) {
    Packet p = ch.Receive();
    if (p.source == peer && p.category == category) return p;
  }
}

Figures MeasurePair(Channel& ch, const std::string& peer, const Settings& s, int hub_pid) {
  Figures f;
  for (int i = 0; i < 100; ++i) {  // warm up
    ch.Send(peer, VARN_CMD, "ping");
    ReceiveFrom(ch, peer, VARN_ACK);
  }
  std::vector<double> times;
  times.reserve(static_cast<std::size_t>(s.rounds));
  for (long i = 0; i < s.rounds; ++i) {
    double t0 = NowMicros();
    ch.Send(peer, VARN_CMD, "ping");
    ReceiveFrom(ch, peer, VARN_ACK);
    times.push_back(NowMicros() - t0);
  }
  std::sort(times.begin(), times.end());
  f.p50_us = times[times.size() / 2];
  f.p99_us = times[times.size() * 99 / 100];

  std::string payload(kDataSize, 'd');
  double t0 = NowMicros();
  for (long i = 0; i < s.packets; ++i) ch.Send(peer, VARN_DATA, payload);
  ch.Send(peer, VARN_DATA, "last");
  Packet done = ReceiveFrom(ch, peer, VARN_DATA);
  double seconds = (NowMicros() - t0) / 1e6;
  if (done.payload != "count " + std::to_string(s.packets)) Channel::Die("packets were lost");
  f.megabytes_per_s = static_cast<double>(s.packets) * kDataSize / 1e6 / seconds;
  f.hub_anon_kib = RssAnonKib(hub_pid);
  return f;
}

std::string Start(Channel& hub, const std::string& self_path, const std::string& args) {
  char cwd[4096];
  if (!platform::CurrentDirectory(cwd, sizeof cwd)) Channel::Die("no working directory");
  hub.Send("quon", VARN_INVOKE, std::string(cwd) + " " + self_path + " " + args);
  for (;;) {
    Packet p = hub.Receive();
    if (p.source != "quon") continue;
    if (p.category != VARN_ACCEPT) Channel::Die("the hub refused to start a client");
    return p.payload;
  }
}

int PidOf(const std::string& address) { return std::atoi(address.c_str()); }

int RunMeasure(Channel& hub, const Settings& s, const std::string& self_path) {
  int hub_pid = static_cast<int>(platform::ParentProcessId());
  std::string peer = Start(hub, self_path, "echo");

  struct Phase {
    const char* name;
    std::vector<std::string> clients;  // start arguments; "flood" goes to the staller
  };
  const std::vector<Phase> phases = {
      {"alone", {}},
      {"reader that stalls + its flooder", {"stall", "flood"}},
      {"asks without reading", {"ask"}},
      {"garbage (4 of 5 packets)", {"garbage"}},
      {"all of them", {"stall", "flood", "ask", "garbage"}},
  };
  std::printf(
      "isolation: an unrelated pair (CMD/ACK x %ld, %ld DATA of %ld bytes) beside bad "
      "clients\n",
      s.rounds, s.packets, kDataSize);
  std::printf("  %-34s %9s %9s %9s   %9s  %s\n", "beside", "p50 us", "p99 us", "MB/s", "hub anon",
              "(ratios to alone: p99, MB/s)");
  Figures alone;
  long most_kib = 0;
  for (const Phase& phase : phases) {
    std::vector<std::string> started;
    std::string staller;
    for (const std::string& kind : phase.clients) {
      std::string args = kind == "flood" ? "flood " + staller : kind;
      std::string address = Start(hub, self_path, args);
      if (kind == "stall") staller = address;
      started.push_back(address);
    }
    // Lets the bad clients fill what they can fill before the pair runs.
    if (!started.empty()) platform::SleepMilliseconds(300);
    Figures f = MeasurePair(hub, peer, s, hub_pid);
    most_kib = std::max(most_kib, f.hub_anon_kib);
    if (phase.clients.empty()) alone = f;
    std::printf("  %-34s %9.1f %9.1f %9.0f   %6ld KiB  (%.2fx, %.2fx)\n", phase.name, f.p50_us,
                f.p99_us, f.megabytes_per_s, f.hub_anon_kib, f.p99_us / alone.p99_us,
                f.megabytes_per_s / alone.megabytes_per_s);
    std::fflush(stdout);
    for (const std::string& address : started) {
      platform::SignalProcess(PidOf(address), SIGKILL, false);
    }
  }
  std::printf("  the hub's RssAnon peaked at %ld KiB across the phases\n", most_kib);
  hub.Send(peer, VARN_KILL, {});
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings s;
  int in = -1;
  int out = -1;
  std::vector<std::string> args;
  varn::bench::ChannelOptions(argc, argv, &in, &out, &args);
  std::string mode = "drive";
  for (std::size_t i = 0; i < args.size(); ++i) {
    auto next = [&]() -> const char* { return i + 1 < args.size() ? args[++i].c_str() : "0"; };
    if (args[i] == "--rounds") {
      s.rounds = std::atol(next());
    } else if (args[i] == "--packets") {
      s.packets = std::atol(next());
    } else if (mode == "drive") {
      mode = args[i];
    }
  }
  if (s.rounds < 100 || s.packets < 1) {
    std::fprintf(stderr, "quon_isolation_bench: bad settings\n");
    return 2;
  }
  if (mode != "drive") {
    if (in < 0 || out < 0) Channel::Die("no channel options");
    Channel ch(in, out, varn::bench::OwnAddress());
    if (mode == "echo") Echo(ch);
    if (mode == "stall") Stall();
    if (mode == "flood") Flood(ch, args.back());
    if (mode == "ask") Ask(ch);
    if (mode == "garbage") Garbage(ch);
    if (mode != "measure") Channel::Die("unknown mode");
    int code = RunMeasure(ch, s, argv[0]);
    ch.Send("quon", VARN_SRVR_ERR, "");
    return code;
  }
  // Drive: the hub with this program as its first client.
  return varn::bench::RunHub(
      QUON_BINARY, {"quon", argv[0], "measure", "--rounds", std::to_string(s.rounds), "--packets",
                    std::to_string(s.packets)});
}
