// Requests addressed to "quon" itself.
#include <charconv>

#include "quon/hub.h"
#include "transport/wire_format.h"

namespace varn::quon {
namespace {

// The last path component without its extension: "/opt/bin/sim.exe" -> "sim".
std::string_view BareName(std::string_view name) {
  std::size_t slash = name.rfind('/');
  if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
  std::size_t dot = name.rfind('.');
  if (dot != std::string_view::npos && dot > 0) name = name.substr(0, dot);
  return name;
}

bool NameMatches(std::string_view name, std::string_view wanted) {
  return name == wanted || BareName(name) == wanted || BareName(name) == BareName(wanted);
}

}  // namespace

bool Hub::HandleRequest(Client& from, const Packet& packet) {
  std::string_view text = packet.text();
  switch (packet.category) {
    case wire::kSrvrErr:
      // The client's exit notice: acknowledge, then tell those concerned.
      {
        bool go_on = Reply(from, wire::kAck, {});
        Announce(from, text);
        return go_on;
      }
    case wire::kQueryPQuery:
      return Reply(from, wire::kQueryP, ProcessList());
    case wire::kQueryQuery:
      return Reply(from, wire::kQuery, FindServer(text));
    case wire::kCmd:
      // Answered with EDONE or EERROR only: a command to the hub gets no ACK.
      return HandleCommand(from, text);
    case wire::kStatus: {
      std::string_view word = text.substr(0, text.find(' '));
      if (word == "IDLE") {
        from.status = 0;
      } else if (word == "BUSY") {
        from.status = 1;
      } else if (word == "DEAD") {
        from.status = 2;
      } else {
        log_.Note(Describe(from) + ": unknown status \"" + Printable(word, 40) + "\" ignored");
      }
      return true;
    }
    case wire::kStderr:
      log_.ClientLine(from.name, from.pid_text, Printable(text, 4096));
      return true;
    case wire::kNotify: {
      bool go_on = true;
      for (auto& [id, c] : clients_) {
        if (c.get() == &from || !c->live || !c->protocol()) continue;
        go_on = Send(&from, *c, c->address, wire::kHubAddress, wire::kNotify, text) && go_on;
      }
      return go_on;
    }
    case wire::kAsyncDisable:
      from.async_disabled.emplace_back(text);
      return true;
    case wire::kInvoke:
    case wire::kInvokeEx:
    case wire::kInvokeR:
    case wire::kInvokeRE:
    case wire::kInvokeRN:
      return HandleStartRequest(from, packet);
    case wire::kFopen:
    case wire::kFclose:
    case wire::kFread:
    case wire::kFwrite:
    case wire::kFrewind:
    case wire::kFunlink:
    case wire::kFstat:
    case wire::kFeof:
    case wire::kFseek:
    case wire::kFtell: {
      FileReply reply = from.files->Handle(packet.category, packet.raw_payload());
      return Reply(from, reply.category, reply.payload);
    }
    case wire::kPing:
    case wire::kAck:
      return true;
    default:
      log_.Note(Describe(from) + ": " + std::string(packet.header.word) +
                " is not a request the hub serves, dropped");
      return true;
  }
}

bool Hub::HandleCommand(Client& from, std::string_view command) {
  while (!command.empty() && command.back() == ' ') command.remove_suffix(1);
  std::string_view verb = command.substr(0, command.find(' '));
  std::string_view rest =
      verb.size() < command.size() ? command.substr(verb.size() + 1) : std::string_view();
  if (verb == "set_chan_mode") {
    int mode = 0;
    auto r = std::from_chars(rest.data(), rest.data() + rest.size(), mode);
    if (rest.empty() || r.ec != std::errc() || r.ptr != rest.data() + rest.size()) {
      return Reply(from, wire::kEerror, "set_chan_mode needs a number");
    }
    from.chan_mode = mode;
    from.chan_mode_set = true;
    return Reply(from, wire::kEdone, {});
  }
  if (verb == "list" && rest.empty()) return Reply(from, wire::kEdone, ProcessList());
  if (verb == "queues" && rest.empty()) return Reply(from, wire::kEdone, QueueReport());
  return Reply(from, wire::kEerror, "unknown command");
}

std::string Hub::ProcessList() const {
  std::string list;
  for (const auto& [id, c] : clients_) {
    if (!c->live || !c->protocol()) continue;
    if (!list.empty()) list.push_back(' ');
    list += c->name;
    list.push_back(' ');
    list += c->address;
    list.push_back(' ');
    list += c->parent_id != 0 ? c->parent_address : std::string(wire::kHubAddress) + "@" + host_;
    list.push_back(' ');
    list += std::to_string(c->status);
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
  // "ADDRESS:SERVER"; a server name ends at a further colon.
  std::string_view owner;
  std::string_view server = query;
  std::size_t colon = query.find(':');
  if (colon != std::string_view::npos) {
    owner = query.substr(0, colon);
    server = query.substr(colon + 1);
    server = server.substr(0, server.find(':'));
  }
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
