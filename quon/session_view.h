// The session as the control endpoint shows it: which clients wait on
// which (commands relayed and not yet answered), the cycles of waiting that
// form, and the lines of the process table.
//
// A client waits on another from the moment a CMD of its is relayed to
// that other until the other answers it with DONE, ERROR or NAK (or a
// SRVR_ERR to it), or until either of them ends. Answers are matched to
// commands by their two addresses only, oldest command first, as the
// protocol has no command numbers.
#ifndef VARN_QUON_SESSION_VIEW_H_
#define VARN_QUON_SESSION_VIEW_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quon/client.h"

namespace varn::quon {

using ClientMap = std::map<std::uint64_t, std::unique_ptr<Client>>;

// Clients that wait on each other: each on the next, the last on the first.
// Held rotated so that the smallest id comes first, which makes one cycle
// one value however it was found.
using WaitCycle = std::vector<std::uint64_t>;

class WaitTracker {
 public:
  explicit WaitTracker(const ClientMap& clients) : clients_(clients) {}
  WaitTracker(const WaitTracker&) = delete;
  WaitTracker& operator=(const WaitTracker&) = delete;

  // A CMD from `from` was relayed to `to` at now_ms. Returns a cycle of
  // waiting this command closes (one of them, when it closes several) when
  // it is the first command from `from` that `to` holds, else an empty
  // cycle.
  WaitCycle OnCommand(Client& from, Client& to, std::int64_t now_ms);
  // `from` answered `to` (DONE, ERROR, NAK, SRVR_ERR): the oldest command
  // of `to` that `from` holds is answered.
  void OnAnswer(Client& from, Client& to);
  // `client` ended: what it held is answered, what it sent awaited no more.
  void OnEnded(Client& client);

  // The cycles that stand now, each once, found when asked (commands and
  // answers change them all the time; `ps` asks now and then). In the order
  // of their smallest client id; at most kMaxShownCycles, and the search
  // stops after a bounded number of steps however the clients wait.
  static constexpr std::size_t kMaxShownCycles = 16;
  std::vector<WaitCycle> StandingCycles() const;

 private:
  Client* Find(std::uint64_t id) const;
  // A chain of waiting from `start` to `goal` (both included), by depth-first
  // search over the clients' `awaiting` lists.
  bool FindChain(std::uint64_t start, std::uint64_t goal, std::vector<std::uint64_t>* chain) const;
  // Takes one of `waiter`'s commands off its count for `holder`; true when
  // it waits on `holder` no more.
  static bool Release(Client& waiter, std::uint64_t holder);

  const ClientMap& clients_;
};

// Text for a line field: at most `limit` bytes of it (NUL padding dropped),
// with backslash, tab, line feed and carriage return written as \\ \t \n \r
// and every other byte below 0x20 or from 0x7f up as \xHH; "..." follows
// when it was cut.
void AppendEscaped(std::string_view text, std::size_t limit, std::string* out);

// The name of a view state: NEW, IDLE, BUSY, DEAD, PROG.
const char* ViewStateWord(ViewState state);

// Bytes the hub holds for the client that it has not been able to write.
std::size_t QueuedToward(const Client& client);

// The header and the rows of the process table, in start order, each line
// ending in a line feed (the control protocol's `ps` answer without its end).
void AppendProcessTable(const ClientMap& clients, std::int64_t now_ms, std::string* out);

// One "link" line: two clients whose packets go on a link of their own,
// past the hub.
void AppendLink(const ClientMap& clients, std::uint64_t a, std::uint64_t b, std::string* out);
// "warning\tcycle\tADDRESS..." with a line feed, for one cycle.
void AppendCycleWarning(const ClientMap& clients, const WaitCycle& cycle, std::string* out);

}  // namespace varn::quon

#endif  // VARN_QUON_SESSION_VIEW_H_
