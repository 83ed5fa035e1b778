#include "quon/session_view.h"

#include <algorithm>
#include <cstdio>
#include <span>

namespace varn::quon {
namespace {

WaitCycle Normalized(std::vector<std::uint64_t> cycle) {
  auto smallest = std::min_element(cycle.begin(), cycle.end());
  std::rotate(cycle.begin(), smallest, cycle.end());
  return cycle;
}

void AppendField(std::string_view text, std::string* out) {
  out->push_back('\t');
  AppendEscaped(text, 200, out);
}

}  // namespace

Client* WaitTracker::Find(std::uint64_t id) const {
  auto it = clients_.find(id);
  return it == clients_.end() ? nullptr : it->second.get();
}

WaitCycle WaitTracker::OnCommand(Client& from, Client& to, std::int64_t now_ms) {
  ClientActivity& held = to.activity;
  // Past the limit the oldest commands stay remembered, which keeps the
  // age of the oldest one right; a client that sends commands without ever
  // waiting for their answers costs no more than that.
  if (held.pending.size() >= kMaxPendingCommands) return {};
  held.pending.push_back({from.id, now_ms});
  auto& awaiting = from.activity.awaiting;
  auto it = std::find_if(awaiting.begin(), awaiting.end(),
                         [&](const auto& entry) { return entry.first == to.id; });
  if (it != awaiting.end()) {
    ++it->second;
    return {};  // the edge was there already: no new cycle can close
  }
  awaiting.emplace_back(to.id, 1);
  // A new edge from -> to closes a cycle when `to` already waits, directly
  // or through others, on `from`; one that waits on nobody cannot.
  if (to.activity.awaiting.empty() && to.id != from.id) return {};
  std::vector<std::uint64_t> chain;
  if (!FindChain(to.id, from.id, &chain)) return {};
  std::vector<std::uint64_t> cycle = {from.id};
  cycle.insert(cycle.end(), chain.begin(), chain.end() - 1);
  return Normalized(std::move(cycle));
}

std::vector<WaitCycle> WaitTracker::StandingCycles() const {
  // From each client, in id order, a depth-first search through clients of
  // larger ids only: a cycle is found once, from its smallest id, and comes
  // out already rotated.
  constexpr std::size_t kMaxSteps = 100000;
  std::vector<WaitCycle> found;
  std::size_t steps = 0;
  for (const auto& [start, client] : clients_) {
    if (client->activity.awaiting.empty()) continue;
    std::vector<std::uint64_t> chain{start};
    std::vector<std::size_t> next{0};
    while (!chain.empty()) {
      if (found.size() >= kMaxShownCycles || ++steps > kMaxSteps) return found;
      const Client* at = Find(chain.back());
      std::size_t& position = next.back();
      if (at == nullptr || position >= at->activity.awaiting.size()) {
        chain.pop_back();
        next.pop_back();
        continue;
      }
      std::uint64_t step = at->activity.awaiting[position++].first;
      if (step == start) {
        found.push_back(chain);
      } else if (step > start && std::find(chain.begin(), chain.end(), step) == chain.end()) {
        chain.push_back(step);
        next.push_back(0);
      }
    }
  }
  return found;
}

bool WaitTracker::FindChain(std::uint64_t start, std::uint64_t goal,
                            std::vector<std::uint64_t>* chain) const {
  // Iterative depth-first search; `chain` is the current path and `next`
  // the position reached in each of its members' awaiting lists.
  std::vector<std::uint64_t> visited;
  std::vector<std::size_t> next;
  chain->assign(1, start);
  next.assign(1, 0);
  visited.push_back(start);
  while (!chain->empty()) {
    std::uint64_t at = chain->back();
    if (at == goal) return true;
    const Client* client = Find(at);
    std::size_t& position = next.back();
    if (client == nullptr || position >= client->activity.awaiting.size()) {
      chain->pop_back();
      next.pop_back();
      continue;
    }
    std::uint64_t step = client->activity.awaiting[position++].first;
    if (std::find(visited.begin(), visited.end(), step) != visited.end()) continue;
    visited.push_back(step);
    chain->push_back(step);
    next.push_back(0);
  }
  return false;
}

bool WaitTracker::Release(Client& waiter, std::uint64_t holder) {
  auto& awaiting = waiter.activity.awaiting;
  auto it = std::find_if(awaiting.begin(), awaiting.end(),
                         [&](const auto& entry) { return entry.first == holder; });
  if (it == awaiting.end()) return false;
  if (--it->second > 0) return false;
  awaiting.erase(it);
  return true;
}

void WaitTracker::OnAnswer(Client& from, Client& to) {
  auto& pending = from.activity.pending;
  auto it = std::find_if(pending.begin(), pending.end(),
                         [&](const PendingCommand& c) { return c.from_id == to.id; });
  if (it == pending.end()) return;
  pending.erase(it);
  Release(to, from.id);
}

void WaitTracker::OnEnded(Client& client) {
  for (const PendingCommand& command : client.activity.pending) {
    if (Client* sender = Find(command.from_id)) Release(*sender, client.id);
  }
  client.activity.pending.clear();
  for (const auto& [holder_id, count] : client.activity.awaiting) {
    Client* holder = Find(holder_id);
    if (holder == nullptr) continue;
    std::erase_if(holder->activity.pending,
                  [&](const PendingCommand& c) { return c.from_id == client.id; });
  }
  client.activity.awaiting.clear();
}

namespace {

// A line of the table: its leading words, then the addresses of clients
// ("?" for one that is gone).
void AppendAddressLine(const ClientMap& clients, std::string_view words,
                       std::span<const std::uint64_t> ids, std::string* out) {
  out->append(words);
  for (std::uint64_t id : ids) {
    auto it = clients.find(id);
    out->push_back('\t');
    out->append(it != clients.end() ? it->second->address : std::string("?"));
  }
  out->push_back('\n');
}

}  // namespace

void AppendEscaped(std::string_view text, std::size_t limit, std::string* out) {
  while (!text.empty() && text.back() == '\0') text.remove_suffix(1);
  bool cut = text.size() > limit;
  if (cut) text = text.substr(0, limit);
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '\\':
        out->append("\\\\");
        break;
      case '\t':
        out->append("\\t");
        break;
      case '\n':
        out->append("\\n");
        break;
      case '\r':
        out->append("\\r");
        break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char hex[8];
          std::snprintf(hex, sizeof hex, "\\x%02x", c);
          out->append(hex);
        } else {
          out->push_back(ch);
        }
    }
  }
  if (cut) out->append("...");
}

const char* ViewStateWord(ViewState state) {
  switch (state) {
    case ViewState::kNew:
      return "NEW";
    case ViewState::kIdle:
      return "IDLE";
    case ViewState::kBusy:
      return "BUSY";
    case ViewState::kDead:
      return "DEAD";
    case ViewState::kProgram:
      return "PROG";
  }
  return "?";
}

std::size_t QueuedToward(const Client& client) {
  if (client.connection) return client.connection->queued();
  if (client.input) return client.input->queued();
  return 0;
}

void AppendProcessTable(const ClientMap& clients, std::int64_t now_ms, std::string* out) {
  out->append("ps\taddress\tprogram\tparent\tstate\tin\tout\tqueued\twait_ms\tstatus\n");
  for (const auto& [id, c] : clients) {
    const ClientActivity& a = c->activity;
    out->append("process");
    AppendField(c->address, out);
    AppendField(c->name, out);
    AppendField(c->parent_address, out);
    out->push_back('\t');
    out->append(ViewStateWord(a.state));
    out->push_back('\t');
    out->append(std::to_string(a.packets_in));
    out->push_back('\t');
    out->append(std::to_string(a.packets_out));
    out->push_back('\t');
    out->append(std::to_string(QueuedToward(*c)));
    out->push_back('\t');
    if (a.pending.empty()) {
      out->push_back('-');
    } else {
      out->append(std::to_string(std::max<std::int64_t>(0, now_ms - a.pending.front().since_ms)));
    }
    AppendField(a.status_text, out);
    out->push_back('\n');
  }
}

void AppendLink(const ClientMap& clients, std::uint64_t a, std::uint64_t b, std::string* out) {
  const std::uint64_t ids[] = {a, b};
  AppendAddressLine(clients, "link", ids, out);
}

void AppendCycleWarning(const ClientMap& clients, const WaitCycle& cycle, std::string* out) {
  AppendAddressLine(clients, "warning\tcycle", cycle, out);
}

}  // namespace varn::quon
