// A scripted hub client for the tests. It finds its channel in the -quon_*
// options the hub appends, then runs the steps given as arguments:
//
//   send DEST WORD PAYLOAD   a packet ("-" payload: none; DEST may be
//                            "parent", "self" or "quon")
//   sendas SRC DEST WORD PAYLOAD
//                            the same with SRC as the source address
//   expect WORD SRC          the next packet must have this word and source
//                            ("-": any source); fails after 20 s
//   serve                    answer packets until KILL (see Serve)
//   args                     DATA to the parent with argv joined by '|'
//   fds                      DATA to the parent with the open descriptors
//   cwd                      DATA to the parent with the working directory
//   notice TEXT              exit notice to "quon", wait for its ACK, exit 0
//   exit N / crash           end without a notice / by SIGKILL
//   stderr TEXT              a line on the error output
//   stall                    DATA "stalled" to the parent, then read nothing
//                            until SIGUSR1
//   flood DEST N SIZE        N DATA packets of SIZE bytes, numbered
//   count N                  read N numbered DATA packets, check the order,
//                            then DATA "counted N" to the parent
//   garbage N                N framed packets with an unknown word
//   ask N                    N process-list requests to the hub, reading
//                            none of the answers
//   ignore                   read and ignore everything, KILL included
//
// Exit codes: 0 done, 3 a step failed, 4 channel ended, 5 hub gone.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "tests/support/packet_io.h"

namespace {

using varn::test_support::Packet;
using varn::test_support::PacketReader;

constexpr int kStepTimeoutMs = 20000;

struct Channel {
  int in = -1;
  int out = -1;
  std::string self;
  std::string parent;
};

[[noreturn]] void Fail(const std::string& why) {
  std::fprintf(stderr, "qclient %s: %s\n", varn::test_support::OwnAddress().c_str(), why.c_str());
  std::exit(3);
}

std::string Resolve(const Channel& ch, const std::string& who) {
  if (who == "parent") return ch.parent;
  if (who == "self") return ch.self;
  return who;
}

void SendAs(const Channel& ch, const std::string& source, const std::string& dest,
            const std::string& word, const std::string& payload) {
  if (!varn::test_support::WritePacket(ch.out, Resolve(ch, dest), source, word, payload)) {
    Fail("cannot send " + word);
  }
}

void Send(const Channel& ch, const std::string& dest, const std::string& word,
          const std::string& payload) {
  SendAs(ch, ch.self, dest, word, payload);
}

Packet Next(PacketReader& reader, int timeout_ms) {
  Packet p;
  switch (reader.Read(timeout_ms, &p)) {
    case PacketReader::Result::kOk:
      return p;
    case PacketReader::Result::kTimeout:
      Fail("timed out waiting for a packet");
    case PacketReader::Result::kEnd:
      std::exit(4);
    case PacketReader::Result::kBad:
      Fail("bad packet from the hub");
  }
  std::exit(3);
}

[[noreturn]] void Notice(const Channel& ch, PacketReader& reader, const std::string& text) {
  Send(ch, "quon", "SRVR_ERR", text);
  for (;;) {
    Packet p = Next(reader, kStepTimeoutMs);
    if (p.word == "ACK" && p.source == "quon") std::exit(0);
  }
}

[[noreturn]] void Serve(const Channel& ch, PacketReader& reader) {
  for (;;) {
    Packet p = Next(reader, 24 * 3600 * 1000);
    if (p.word == "CMD") {
      Send(ch, p.source, "ACK", "");
      Send(ch, p.source, "DONE", "echo:" + p.payload);
    } else if (p.word == "BEGIN" || p.word == "END") {
      Send(ch, p.source, "ACK", "");
    } else if (p.word == "DATA") {
      Send(ch, p.source, "DATA", p.payload);
    } else if (p.word == "STATUS?") {
      Send(ch, p.source, "STATUS", "IDLE");
    } else if (p.word == "SRVR_ERR" && p.source == "quon") {
      std::exit(5);
    } else if (p.word == "SRVR_ERR" || p.word == "NOTIFY") {
      std::string tag = p.word == "NOTIFY" ? "notify " : "srvr_err ";
      Send(ch, "parent", "DATA", tag + p.source + " " + p.payload);
    } else if (p.word == "KILL") {
      Notice(ch, reader, "killed");
    }
  }
}

std::string PayloadArg(const std::string& s) { return s == "-" ? std::string() : s; }

}  // namespace

int main(int argc, char** argv) {
  Channel ch;
  std::vector<std::string> steps;
  std::vector<std::string> all;
  for (int i = 0; i < argc; ++i) all.emplace_back(argv[i]);
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    if (a == "-quon_quonin" && has_value) {
      ch.in = static_cast<int>(std::strtol(argv[++i], nullptr, 16));
    } else if (a == "-quon_quonout" && has_value) {
      ch.out = static_cast<int>(std::strtol(argv[++i], nullptr, 16));
    } else if (a == "-quon_sockfd" && has_value) {
      ch.in = ch.out = std::atoi(argv[++i]);
    } else if (a == "-quon_parentid" && has_value) {
      ch.parent = argv[++i];
    } else if (a == "-quon_parentname" && has_value) {
      ++i;
    } else if (a == "-quon_links") {
      // A raw client never asks for links, so the hub sets none up for it.
    } else {
      steps.push_back(a);
    }
  }
  if (ch.in < 0 || ch.out < 0) Fail("no channel options");
  ch.self = varn::test_support::OwnAddress();
  PacketReader reader(ch.in);

  auto arg = [&](std::size_t i) -> const std::string& {
    if (i >= steps.size()) Fail("missing step argument");
    return steps[i];
  };
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const std::string& step = steps[i];
    if (step == "send") {
      Send(ch, arg(i + 1), arg(i + 2), PayloadArg(arg(i + 3)));
      i += 3;
    } else if (step == "sendas") {
      SendAs(ch, arg(i + 1), arg(i + 2), arg(i + 3), PayloadArg(arg(i + 4)));
      i += 4;
    } else if (step == "expect") {
      Packet p = Next(reader, kStepTimeoutMs);
      std::string word = arg(i + 1);
      std::string src = arg(i + 2);
      i += 2;
      if (p.word != word) Fail("expected " + word + ", got " + p.word + " " + p.payload);
      if (src != "-" && p.source != Resolve(ch, src)) Fail("unexpected source " + p.source);
    } else if (step == "serve") {
      Serve(ch, reader);
    } else if (step == "args") {
      std::string joined;
      for (const auto& a : all) joined += (joined.empty() ? "" : "|") + a;
      Send(ch, "parent", "DATA", joined);
    } else if (step == "fds") {
      std::string list;
      for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        auto target = std::filesystem::read_symlink(e.path(), ec);
        if (!ec && target.string().find("/proc/") != std::string::npos) continue;
        list += (list.empty() ? "" : " ") + e.path().filename().string();
      }
      Send(ch, "parent", "DATA", "fds " + list);
    } else if (step == "cwd") {
      Send(ch, "parent", "DATA", "cwd " + std::filesystem::current_path().string());
    } else if (step == "notice") {
      Notice(ch, reader, arg(i + 1));
    } else if (step == "exit") {
      return std::atoi(arg(i + 1).c_str());
    } else if (step == "crash") {
      varn::platform::SignalProcess(static_cast<int>(varn::platform::ProcessId()), SIGKILL, false);
    } else if (step == "stderr") {
      std::fprintf(stderr, "%s\n", arg(i + 1).c_str());
      std::fflush(stderr);
      i += 1;
    } else if (step == "stall") {
      varn::platform::EventLoop loop;
      bool go = false;
      loop.WatchSignals({SIGUSR1}, [&go](int) { go = true; });
      Send(ch, "parent", "DATA", "stalled");
      std::int64_t deadline = varn::platform::MonotonicMillis() + 60000;
      while (!go && varn::platform::MonotonicMillis() < deadline) loop.RunOnce(1000);
      if (!go) Fail("never released");
    } else if (step == "flood") {
      std::string dest = Resolve(ch, arg(i + 1));
      long n = std::atol(arg(i + 2).c_str());
      std::size_t size = static_cast<std::size_t>(std::atol(arg(i + 3).c_str()));
      i += 3;
      for (long k = 0; k < n; ++k) {
        char seq[24];
        std::snprintf(seq, sizeof seq, "%08ld", k);
        std::string payload(seq);
        payload.resize(size < payload.size() ? payload.size() : size, 'x');
        Send(ch, dest, "DATA", payload);
      }
      Send(ch, "parent", "DATA", "flooded " + std::to_string(n));
    } else if (step == "count") {
      long n = std::atol(arg(i + 1).c_str());
      i += 1;
      long seen = 0;
      while (seen < n) {
        Packet p = Next(reader, kStepTimeoutMs);
        if (p.word != "DATA") continue;
        if (std::atol(p.payload.substr(0, 8).c_str()) != seen) {
          Fail("packet " + p.payload.substr(0, 8) + " where " + std::to_string(seen) + " was due");
        }
        ++seen;
      }
      Send(ch, "parent", "DATA", "counted " + std::to_string(n));
    } else if (step == "garbage") {
      long n = std::atol(arg(i + 1).c_str());
      i += 1;
      for (long k = 0; k < n; ++k) {
        // Framed correctly, but the word is unknown.
        std::string body = "quon " + ch.self + " BOGUS";
        while ((6 + body.size()) % 4 != 0) body.push_back('\0');
        char len[8];
        std::snprintf(len, sizeof len, "%06zu", body.size());
        std::string bytes = len + body;
        varn::platform::WriteAll(ch.out, bytes.data(), bytes.size());
      }
    } else if (step == "ask") {
      long n = std::atol(arg(i + 1).c_str());
      i += 1;
      for (long k = 0; k < n; ++k) {
        Send(ch, "quon", "QUERYP?", "NULL@NULL NULL NULL AllProcess ByName");
      }
    } else if (step == "ignore") {
      for (;;) Next(reader, 24 * 3600 * 1000);
    } else {
      Fail("unknown step " + step);
    }
  }
  return 0;
}
