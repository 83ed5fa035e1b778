// Requests addressed to the hub itself.
#include <charconv>

#include "quon/hub.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::quon {
namespace {

// A server name names a program by its full name or by its base name.
bool NameMatches(std::string_view name, std::string_view wanted) {
  return name == wanted || wire::ProgramBaseName(name) == wire::ProgramBaseName(wanted);
}

}  // namespace

bool Hub::HandleRequest(Client& from, const Packet& packet) {
  std::string_view text = packet.text();
  if (wire::IsFileRequest(packet.category)) {
    FileReply reply = from.files->Handle(packet.category, packet.raw_payload());
    return Reply(from, reply.category, reply.payload);
  }
  switch (packet.category) {
    case VARN_SRVR_ERR:
      // The client's exit notice: acknowledge, then tell those concerned.
      {
        bool go_on = Reply(from, VARN_ACK, {});
        Announce(from, text);
        return go_on;
      }
    case VARN_QUERYP_Q:
      return Reply(from, VARN_QUERYP, ProcessList());
    case VARN_QUERY_Q:
      return Reply(from, VARN_QUERY, FindServer(text));
    case VARN_CMD:
      // Answered with EDONE or EERROR only: a command to the hub gets no ACK.
      return HandleCommand(from, text);
    case VARN_STATUS: {
      int status = 0;
      std::string_view rest;
      if (wire::ParseStatusAnswer(text, &status, &rest)) {
        from.status = status;
      } else {
        std::string_view word = text.substr(0, text.find(' '));
        log_.Note(Describe(from) + ": unknown status \"" + Printable(word, 40) + "\" ignored");
      }
      return true;
    }
    case VARN_STDERR:
      log_.ClientLine(from.name, from.pid_text, Printable(text, 4096));
      return true;
    case VARN_NOTIFY: {
      bool go_on = true;
      for (auto& [id, c] : clients_) {
        if (c.get() == &from || !c->live || !c->protocol()) continue;
        go_on = Send(&from, *c, c->address, wire::kHubAddress, VARN_NOTIFY, text) && go_on;
      }
      return go_on;
    }
    case VARN_ASYNC_DISABLE:
      from.async_disabled.emplace_back(text);
      return true;
    case VARN_INVOKE:
    case VARN_INVOKE_EX:
    case VARN_INVOKER:
    case VARN_INVOKERE:
    case VARN_INVOKERN:
      return HandleStartRequest(from, packet);
    case VARN_PING: {
      wire::LinkControl control;
      if (wire::ParseLinkControl(packet.raw_payload(), &control)) {
        return HandleLinkControl(from, control);
      }
      return true;
    }
    case VARN_ACK:
      return true;
    default:
      log_.Note(Describe(from) + ": " + std::string(packet.header.word) +
                " is not a request the hub serves, dropped");
      return true;
  }
}

bool Hub::HandleLinkControl(Client& from, const wire::LinkControl& control) {
  Client* peer = FindLive(control.peer);
  if (peer == nullptr || !peer->protocol()) return true;
  std::vector<LinkBroker::Out> out;
  if (control.verb == wire::LinkVerb::kWant) {
    links_.Want({from.id, from.address}, {peer->id, peer->address}, &out);
    if (!links_.last_error().empty()) log_.Note(links_.last_error());
    return SendLinkControls(out);
  }
  if (control.verb != wire::LinkVerb::kReady) return true;  // not a request to the hub
  links_.Ready(from.id, peer->id, control.ok, &out);
  // Only an answer that concerned a link being set up is logged: a client
  // that repeats "ready" cannot fill the log.
  if (!out.empty() && control.ok) {
    log_.Note(Describe(from) + " " + from.address + " and " + Describe(*peer) + " " +
              peer->address + " linked");
  } else if (!out.empty()) {
    log_.Note(Describe(from) + " could not open its link with " + Describe(*peer));
  }
  return SendLinkControls(out);
}

bool Hub::SendLinkControls(const std::vector<LinkBroker::Out>& out) {
  bool go_on = true;
  for (const LinkBroker::Out& o : out) {
    Client* to = FindById(o.to);
    if (to == nullptr || !to->live) continue;
    go_on = Send(nullptr, *to, to->address, wire::kHubAddress, VARN_PING, o.payload) && go_on;
  }
  return go_on;
}

bool Hub::HandleCommand(Client& from, std::string_view text) {
  wire::HubCommand command = wire::ParseHubCommand(text);
  std::string_view verb = command.verb;
  std::string_view rest = command.argument;
  if (verb == wire::kSetChanModeVerb) {
    int mode = 0;
    auto r = std::from_chars(rest.data(), rest.data() + rest.size(), mode);
    if (rest.empty() || r.ec != std::errc() || r.ptr != rest.data() + rest.size()) {
      return Reply(from, VARN_EERROR, "set_chan_mode needs a number");
    }
    from.chan_mode = mode;
    from.chan_mode_set = true;
    return Reply(from, VARN_EDONE, {});
  }
  if (verb == wire::kListCommand && rest.empty()) return Reply(from, VARN_EDONE, ProcessList());
  if (verb == wire::kQueuesCommand && rest.empty()) return Reply(from, VARN_EDONE, QueueReport());
  return Reply(from, VARN_EERROR, "unknown command");
}

std::string Hub::ProcessList() const {
  std::string list;
  for (const auto& [id, c] : clients_) {
    if (!c->live || !c->protocol()) continue;
    std::string parent =
        c->parent_id != 0 ? c->parent_address : std::string(wire::kHubAddress) + "@" + host_;
    wire::AppendProcessRecord(&list, c->name, c->address, parent, c->status);
  }
  return list;
}

std::string Hub::QueueReport() const {
  std::string report;
  for (const auto& [id, c] : clients_) {
    if (!c->live || !c->protocol() || !c->connection) continue;
    if (!report.empty()) report.push_back(' ');
    report += c->address + " " + std::to_string(c->connection->queued()) + " " +
              (c->connection->paused() ? "paused" : "reading");
  }
  return report;
}

std::string Hub::FindServer(std::string_view query) const {
  std::string_view owner;
  std::string_view server;
  wire::ParseServerQuery(query, &owner, &server);
  if (server.empty()) return {};
  const Client* any = nullptr;
  for (const auto& [id, c] : clients_) {
    if (!c->live || !c->protocol() || !NameMatches(c->name, server)) continue;
    if (!owner.empty() && c->parent_address == owner) return c->address;
    if (any == nullptr) any = c.get();
  }
  return any != nullptr ? any->address : std::string();
}

}  // namespace varn::quon
