// Direct links between pairs of clients: a named pipe each way, so that
// the packets of a busy pair stop crossing the hub (two wake-ups and four
// copies fewer per packet).
//
// A link is set up when both clients of a pair asked for it ("link want",
// sent by the library on its first packet to a peer), and only for clients
// started with links on. The broker makes the two pipes, holds a read end
// of each while the clients open theirs (so that a client's open of its
// write end never waits), tells both when both are ready, and removes the
// pipes' names then: from that moment the pipes belong to the pair. The
// payloads are the wire module's (wire_requests.h, "Direct links").
//
// Everything runs on the hub's event loop thread.
#ifndef VARN_QUON_LINK_BROKER_H_
#define VARN_QUON_LINK_BROKER_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "transport/wire_requests.h"

namespace varn::quon {

class LinkBroker {
 public:
  // A control to send: the payload of a PING from the hub to client `to`.
  struct Out {
    std::uint64_t to;
    std::string payload;
  };
  // What the broker knows of a client.
  struct Party {
    std::uint64_t id;
    std::string address;
  };

  // Pipes are made in `directory` (empty, or a name with a blank: no links
  // are set up), named after the hub's pid.
  LinkBroker(std::string directory, unsigned hub_pid);
  ~LinkBroker();
  LinkBroker(const LinkBroker&) = delete;
  LinkBroker& operator=(const LinkBroker&) = delete;

  // "link want": `from` asks for a link with `peer` (both live clients
  // started with links on). Sets one up once both asked.
  void Want(const Party& from, const Party& peer, std::vector<Out>* out);
  // "link ready": `from` opened its ends (ok) or could not.
  void Ready(std::uint64_t from, std::uint64_t peer, bool ok, std::vector<Out>* out);
  // The client ended: what concerned it is forgotten; a link being set up
  // with it is dropped on the other side.
  void Ended(std::uint64_t client, std::vector<Out>* out);

  // Links set up and not yet ended, each by the ids of its two clients,
  // the lower first.
  std::size_t links() const { return linked_.size(); }
  const std::set<std::pair<std::uint64_t, std::uint64_t>>& linked() const { return linked_; }
  // A note for the log when the last Want could not make its pipes.
  const std::string& last_error() const { return last_error_; }

 private:
  using Pair = std::pair<std::uint64_t, std::uint64_t>;  // lower id first
  struct Setup {
    Party a, b;              // a has the lower id
    std::string path_ab;     // a writes, b reads
    std::string path_ba;     // b writes, a reads
    int held[2] = {-1, -1};  // the broker's read ends of path_ab, path_ba
    bool ready_a = false;
    bool ready_b = false;
  };
  static Pair Key(std::uint64_t x, std::uint64_t y) { return x < y ? Pair(x, y) : Pair(y, x); }
  int LinksOf(std::uint64_t client) const;
  bool MakePipes(Setup* setup);
  // Removes the pipes' names and closes the held ends.
  void Release(Setup* setup);

  std::string directory_;
  unsigned hub_pid_;
  std::uint64_t next_ = 1;
  std::set<Pair> wants_;  // (who, with whom), in that order
  std::map<Pair, Setup> setups_;
  std::set<Pair> linked_;
  std::string last_error_;
};

}  // namespace varn::quon

#endif  // VARN_QUON_LINK_BROKER_H_
