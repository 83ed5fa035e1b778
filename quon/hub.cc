#include "quon/hub.h"

#include <csignal>

#include "platform/spawn.h"
#include "platform/system.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::quon {
namespace {

// Answers and notices: a packet of these kinds to an address that is gone
// is dropped silently, since nobody waits on its delivery.
bool IsAnswer(int category) {
  switch (category) {
    case VARN_ACK:
    case VARN_NAK:
    case VARN_SRVR_ERR:
    case VARN_STATUS:
    case VARN_QUERY:
    case VARN_ACCEPT:
    case VARN_REJECT:
    case VARN_DONE:
    case VARN_ERROR:
    case VARN_PING:
    case VARN_STDERR:
      return true;
    default:
      return wire::IsHubAnswer(category);
  }
}

bool IsPowerOfTen(std::uint64_t n) {
  while (n >= 10 && n % 10 == 0) n /= 10;
  return n == 1;
}

constexpr std::int64_t kChannelClosedGraceMs = 2000;
constexpr std::int64_t kProgramKillGraceMs = 3000;

}  // namespace

std::string ExitText(platform::ChildStatus status) {
  return (status.signaled ? "signal " : "exit ") + std::to_string(status.value);
}

Hub::Hub(platform::EventLoop& loop, Log& log, HubConfig config)
    : loop_(loop),
      log_(log),
      config_(std::move(config)),
      links_(config_.link_directory, platform::ProcessId()) {}

Hub::~Hub() = default;

bool Hub::Init(std::string* error) {
  char host[256];
  if (!platform::HostName(host, sizeof host) && !platform::ComputerName(host, sizeof host)) {
    *error = "cannot learn the host name";
    return false;
  }
  host_ = host;
  if (!loop_.WatchChildExits(
          [this](int pid, platform::ChildStatus status) { OnChildExit(pid, status); })) {
    *error = "cannot watch child processes";
    return false;
  }
  return true;
}

std::string Hub::Describe(const Client& client) const {
  return client.name + "[" + client.pid_text + "]";
}

Client* Hub::FindById(std::uint64_t id) {
  auto it = clients_.find(id);
  return it == clients_.end() ? nullptr : it->second.get();
}

Client* Hub::FindLive(std::string_view address) {
  auto it = live_by_address_.find(std::string(address));
  if (it == live_by_address_.end()) {
    std::string_view bare = wire::WithoutRoutePrefix(address);
    if (bare.size() != address.size()) it = live_by_address_.find(std::string(bare));
  }
  return it == live_by_address_.end() ? nullptr : FindById(it->second);
}

bool Hub::NoteCongestion(Client* from, Client& to) {
  bool congested = to.protocol() ? to.connection && to.connection->congested()
                                 : to.input && to.input->congested();
  if (!congested) return true;
  if (from != nullptr) to.waiting_senders.insert(from->id);
  return false;
}

bool Hub::Send(Client* from, Client& to, std::string_view destination, std::string_view source,
               int category, std::string_view payload) {
  if (!to.connection || to.connection->closed()) return true;
  std::size_t size = wire::PacketSize(destination, source, category, payload.size());
  if (size == 0) {
    log_.Note("answer to " + Describe(to) + " too long for one packet, dropped");
    return true;
  }
  if (scratch_.size() < size) scratch_.resize(size);
  wire::BuildPacket(scratch_.data(), scratch_.size(), destination, source, category,
                    payload.empty() ? nullptr : payload.data(), payload.size(), &size);
  Trace(source, destination, wire::CategoryWord(category), size, payload);
  ++to.activity.packets_out;
  to.connection->Send(scratch_.data(), size);
  return NoteCongestion(from, to);
}

bool Hub::Reply(Client& to, int category, std::string_view payload, std::string_view source) {
  return Send(&to, to, to.address, source, category, payload);
}

void Hub::Trace(std::string_view source, std::string_view destination, std::string_view word,
                std::size_t size, std::string_view text) {
  log_.Trace(source, destination, word, size);
  if (control_ != nullptr && control_->tracing()) {
    control_->TracePacket(source, destination, word, size, text);
  }
}

void Hub::Trace(const Packet& packet) {
  Trace(packet.header.source, packet.header.destination, packet.header.word, packet.size,
        packet.text());
}

void Hub::AppendControlTable(std::string* out) const {
  AppendProcessTable(clients_, platform::MonotonicMillis(), out);
  for (const auto& [a, b] : links_.linked()) AppendLink(clients_, a, b, out);
  for (const WaitCycle& cycle : waits_.StandingCycles()) AppendCycleWarning(clients_, cycle, out);
}

bool Hub::OnPacket(Client& from, const Packet& packet) {
  ++from.activity.packets_in;
  std::string_view destination = packet.header.destination;
  if (destination == wire::kHubAddress) {
    Trace(packet);
    Observe(from, nullptr, packet);
    return HandleRequest(from, packet);
  }
  Client* to = FindLive(destination);
  if (to == nullptr) return AnswerDeadAddress(from, packet);
  from.peers.insert(to->id);
  to->peers.insert(from.id);
  bool go_on = to->protocol() ? Relay(from, *to, packet) : ToProgram(from, *to, packet);
  Observe(from, to, packet);
  return go_on;
}

bool Hub::Relay(Client& from, Client& to, const Packet& packet) {
  Trace(packet);
  if (!to.connection || to.connection->closed()) return true;
  ++to.activity.packets_out;
  to.connection->Send(packet.data, packet.size);
  return NoteCongestion(&from, to);
}

void Hub::Observe(Client& from, Client* to, const Packet& packet) {
  ClientActivity& activity = from.activity;
  switch (packet.category) {
    case VARN_STATUS: {
      int status = 0;
      std::string_view text;
      if (!wire::ParseStatusAnswer(packet.text(), &status, &text)) return;
      activity.state = status == VARN_STATUS_IDLE   ? ViewState::kIdle
                       : status == VARN_STATUS_BUSY ? ViewState::kBusy
                                                    : ViewState::kDead;
      activity.status_text.assign(text.substr(0, kMaxStatusText));
      return;
    }
    case VARN_NAK: {
      // "BUSY", perhaps with a text: it refused because it is busy. The
      // payload has the form of a status answer.
      int status = 0;
      std::string_view text;
      if (wire::ParseStatusAnswer(packet.text(), &status, &text) && status == VARN_STATUS_BUSY) {
        activity.state = ViewState::kBusy;
        activity.status_text.assign(text.substr(0, kMaxStatusText));
      }
      if (to != nullptr) waits_.OnAnswer(from, *to);
      return;
    }
    case VARN_DONE:
    case VARN_ERROR:
      activity.state = ViewState::kIdle;
      if (to != nullptr) waits_.OnAnswer(from, *to);
      return;
    case VARN_SRVR_ERR:
      if (to != nullptr) waits_.OnAnswer(from, *to);
      return;
    case VARN_CMD:
      // A program without the protocol was answered NAK by the hub itself.
      if (to == nullptr || !to->protocol()) return;
      to->activity.state = ViewState::kBusy;
      if (WaitCycle cycle = waits_.OnCommand(from, *to, platform::MonotonicMillis());
          !cycle.empty()) {
        NoteCycle(cycle);
      }
      return;
    case VARN_BEGIN:
      if (to != nullptr && to->protocol()) to->activity.state = ViewState::kBusy;
      return;
    default:
      return;
  }
}

void Hub::NoteCycle(const WaitCycle& cycle) {
  std::string text = "processes wait on each other in a cycle:";
  for (std::size_t i = 0; i <= cycle.size(); ++i) {
    const Client* c = FindById(cycle[i % cycle.size()]);
    if (c == nullptr) return;
    text += (i == 0 ? " " : " -> ") + Describe(*c) + " " + c->address;
  }
  log_.Note(text);
  if (control_ != nullptr && control_->tracing()) {
    std::string line;
    AppendCycleWarning(clients_, cycle, &line);
    control_->TraceNotice(line);
  }
}

bool Hub::AnswerDeadAddress(Client& from, const Packet& packet) {
  Trace(packet);
  if (IsAnswer(packet.category)) return true;
  return Send(&from, from, from.address, packet.header.destination, VARN_SRVR_ERR, "not running");
}

bool Hub::ToProgram(Client& from, Client& to, const Packet& packet) {
  Trace(packet);
  switch (packet.category) {
    case VARN_DATA: {
      if (!to.input) return true;
      std::string line(packet.text());
      if (line.empty() || line.back() != '\n') line.push_back('\n');
      ++to.activity.packets_out;
      to.input->Write(line);
      return NoteCongestion(&from, to);
    }
    case VARN_INTR:
      platform::SignalProcess(to.pid, SIGINT, true);
      return true;
    case VARN_KILL: {
      platform::SignalProcess(to.pid, SIGTERM, true);
      if (to.timer == 0) {
        std::uint64_t id = to.id;
        to.timer = loop_.AddTimer(kProgramKillGraceMs, [this, id] {
          Client* c = FindById(id);
          if (c == nullptr) return;
          c->timer = 0;
          if (!c->reaped) platform::SignalProcess(c->pid, SIGKILL, true);
        });
      }
      return true;
    }
    case VARN_STATUS_Q:
      return Send(&from, from, from.address, to.address, VARN_STATUS, "BUSY");
    case VARN_CMD:
    case VARN_BEGIN:
    case VARN_END:
      return Send(&from, from, from.address, to.address, VARN_NAK, "not a protocol program");
    default:
      log_.Note(Describe(from) + ": " + std::string(packet.header.word) + " to " + Describe(to) +
                ", which does not speak the protocol, dropped");
      return true;
  }
}

bool Hub::OnProgramLine(Client& program, std::string_view line) {
  ++program.activity.packets_in;
  Client* parent = program.parent_id != 0 ? FindById(program.parent_id) : nullptr;
  if (parent == nullptr || !parent->live || !parent->protocol()) {
    log_.ClientLine(program.name, program.pid_text, line);
    return true;
  }
  parent->peers.insert(program.id);
  program.peers.insert(parent->id);
  return Send(&program, *parent, parent->address, program.address, VARN_DATA, line);
}

void Hub::OnBadPacket(Client& from, const std::string& reason, int count) {
  // The first bad packets of a client are logged one by one; after them
  // only a count at each power of ten, so that a client that keeps sending
  // garbage between valid packets cannot fill the log or slow the hub down
  // with writes to it.
  constexpr std::uint64_t kLoggedOneByOne = 10;
  std::uint64_t total = ++from.bad_packets;
  if (total <= kLoggedOneByOne) {
    log_.Note(Describe(from) + ": bad packet dropped: " + reason);
  } else if (IsPowerOfTen(total)) {
    log_.Note(Describe(from) + ": " + std::to_string(total) +
              " bad packets dropped so far, the last: " + reason);
  }
  constexpr int kBadPacketsInARow = 10;
  if (count < kBadPacketsInARow) return;
  log_.Note(Describe(from) + ": disconnected after " + std::to_string(count) +
            " bad packets in a row");
  if (from.connection) from.connection->Close();
  Announce(from, "disconnected: bad input");
}

void Hub::OnChannelClosed(Client& client) {
  if (!client.live) return;
  if (client.reaped) {
    Announce(client, ExitText(client.exit_status));
    return;
  }
  // The exit status normally follows at once; wait for it a little so that
  // the notice can carry it.
  std::uint64_t id = client.id;
  if (client.timer != 0) loop_.CancelTimer(client.timer);
  client.timer = loop_.AddTimer(kChannelClosedGraceMs, [this, id] {
    Client* c = FindById(id);
    if (c == nullptr) return;
    c->timer = 0;
    if (c->live) Announce(*c, "channel closed");
  });
}

void Hub::OnDrained(Client& client) { ResumeWaitingSenders(client); }

void Hub::ResumeWaitingSenders(Client& client) {
  std::set<std::uint64_t> waiting;
  waiting.swap(client.waiting_senders);
  for (std::uint64_t id : waiting) {
    Client* sender = FindById(id);
    if (sender == nullptr) continue;
    if (sender->connection) sender->connection->Resume();
    if (sender->output) sender->output->Resume();
    if (sender->errors) sender->errors->Resume();
  }
}

void Hub::Announce(Client& client, std::string_view text) {
  if (!client.live) return;
  client.live = false;
  client.status = VARN_STATUS_DEAD;
  client.activity.state = ViewState::kDead;
  waits_.OnEnded(client);
  live_by_address_.erase(client.address);
  log_.Note(Describe(client) + " " + client.address + " ended: " + std::string(text));
  std::set<std::uint64_t> told;
  auto tell = [&](std::uint64_t id) {
    Client* c = FindById(id);
    if (c == nullptr || c == &client || !c->live || !c->protocol() || !told.insert(id).second) {
      return;
    }
    Send(nullptr, *c, c->address, client.address, VARN_SRVR_ERR, text);
  };
  if (client.parent_id != 0) tell(client.parent_id);
  for (std::uint64_t id : client.peers) tell(id);
  std::vector<LinkBroker::Out> out;
  links_.Ended(client.id, &out);
  SendLinkControls(out);
}

void Hub::OnChildExit(int pid, platform::ChildStatus status) {
  auto it = by_pid_.find(pid);
  if (it == by_pid_.end()) return;  // a child the hub does not track
  Client* client = FindById(it->second);
  by_pid_.erase(it);
  if (client == nullptr) return;
  client->reaped = true;
  client->exit_status = status;
  if (client->id == first_id_) {
    exit_code_ = status.signaled ? 128 + status.value : status.value;
  }
  // What it wrote before it ended still counts, in order, before the notice.
  if (client->connection) client->connection->DrainInput();
  if (client->output) client->output->DrainAndClose();
  if (client->errors) client->errors->DrainAndClose();
  // Everything of it is closed before anyone hears that it ended.
  Remove(*client);
  Announce(*client, ExitText(status));
}

void Hub::Remove(Client& client) {
  if (client.timer != 0) loop_.CancelTimer(client.timer);
  client.timer = 0;
  if (client.connection) client.connection->Close();
  if (client.input) client.input->Close();
  if (client.output) client.output->Close();
  if (client.errors) client.errors->Close();
  if (client.files) client.files->CloseAll();
  ResumeWaitingSenders(client);
  // Destroyed after this round: one of its callbacks may be on the stack.
  std::uint64_t id = client.id;
  loop_.Post([this, id] { clients_.erase(id); });
}

void Hub::Shutdown(int signo) {
  if (shutting_down_) {
    log_.Note("signal " + std::to_string(signo) + " again, killing every client");
    for (auto& [id, c] : clients_) {
      if (!c->reaped) platform::SignalProcess(c->pid, SIGKILL, true);
    }
    return;
  }
  shutting_down_ = true;
  log_.Note("signal " + std::to_string(signo) + ", ending every client");
  for (auto& [id, c] : clients_) {
    if (c->reaped) continue;
    if (c->protocol()) {
      if (c->live) Send(nullptr, *c, c->address, wire::kHubAddress, VARN_KILL, {});
    } else {
      platform::SignalProcess(c->pid, SIGTERM, true);
    }
  }
  loop_.AddTimer(config_.grace_ms, [this] {
    for (auto& [id, c] : clients_) {
      if (c->reaped) continue;
      log_.Note(Describe(*c) + " did not end in time, killed");
      platform::SignalProcess(c->pid, SIGKILL, true);
    }
  });
}

}  // namespace varn::quon
