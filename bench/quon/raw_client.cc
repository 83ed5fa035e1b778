#include "bench/quon/raw_client.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/event_loop.h"
#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::bench {

namespace wire = varn::wire;

void Channel::Send(const std::string& dest, int category, std::string_view payload) {
  std::size_t size = wire::PacketSize(dest, self_, category, payload.size());
  if (scratch_.size() < size) scratch_.resize(size);
  wire::BuildPacket(scratch_.data(), scratch_.size(), dest, self_, category,
                    payload.empty() ? nullptr : payload.data(), payload.size(), &size);
  if (!platform::WriteAll(out_, scratch_.data(), size)) Die("write failed");
}

Packet Channel::Receive() {
  for (;;) {
    std::size_t have = end_ - start_;
    std::size_t length = 0;
    if (have >= 6 && wire::ParseLength(buf_.data() + start_, &length) == wire::WireError::kOk &&
        have >= 6 + length) {
      wire::Header h;
      if (wire::SplitBody(buf_.data() + start_ + 6, length, &h) != wire::WireError::kOk) {
        Die("bad packet");
      }
      Packet p;
      p.source = h.source;
      wire::CategoryFromWord(h.word, &p.category);
      if (h.has_payload) {
        p.payload = wire::WithoutPadding(
            std::string_view(buf_.data() + start_ + 6 + h.payload_offset, h.payload_length));
      }
      start_ += 6 + length;
      return p;
    }
    if (start_ > 0) {
      std::memmove(buf_.data(), buf_.data() + start_, have);
      start_ = 0;
      end_ = have;
    }
    if (buf_.size() - end_ < 65536) buf_.resize(buf_.size() + 1048576);
    long n = platform::ReadSome(in_, buf_.data() + end_, buf_.size() - end_);
    if (n <= 0) std::exit(0);  // the other side is gone
    end_ += static_cast<std::size_t>(n);
  }
}

void Channel::Die(const char* why) {
  std::fprintf(stderr, "quon bench: %s\n", why);
  std::exit(3);
}

void Echo(Channel& ch) {
  long count = 0;
  for (;;) {
    Packet p = ch.Receive();
    if (p.category == VARN_CMD) {
      ch.Send(p.source, VARN_ACK, {});
    } else if (p.category == VARN_DATA && p.payload == "last") {
      ch.Send(p.source, VARN_DATA, "count " + std::to_string(count));
      count = 0;
    } else if (p.category == VARN_DATA) {
      ++count;
    } else if (p.category == VARN_KILL) {
      ch.Send("quon", VARN_SRVR_ERR, "bench done");
      while (ch.Receive().category != VARN_ACK) {
      }
      std::exit(0);
    }
  }
}

int RunHub(const char* quon, const std::vector<std::string>& argv) {
  platform::EventLoop loop;
  int code = -1;
  int pid = -1;
  loop.WatchChildExits([&](int p, platform::ChildStatus st) {
    if (p == pid) code = st.signaled ? 128 + st.value : st.value;
  });
  platform::SpawnRequest r;
  r.program = quon;
  r.argv = argv;
  platform::SpawnResult spawned = platform::Spawn(r);
  if (spawned.pid < 0) Channel::Die("cannot start quon");
  pid = spawned.pid;
  while (code < 0) loop.RunOnce(1000);
  return code;
}

std::string OwnAddress() {
  char host[256];
  if (!platform::HostName(host, sizeof host)) std::strcpy(host, "localhost");
  return std::to_string(platform::ProcessId()) + "@" + host;
}

void ChannelOptions(int argc, char** argv, int* in, int* out, std::vector<std::string>* rest) {
  *in = *out = -1;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : "0"; };
    if (a == "-quon_quonin") {
      *in = static_cast<int>(std::strtol(next(), nullptr, 16));
    } else if (a == "-quon_quonout") {
      *out = static_cast<int>(std::strtol(next(), nullptr, 16));
    } else if (a == "-quon_sockfd") {
      *in = *out = std::atoi(next());
    } else if (a == "-quon_parentid" || a == "-quon_parentname") {
      next();
    } else {
      rest->push_back(a);
    }
  }
}

}  // namespace varn::bench
