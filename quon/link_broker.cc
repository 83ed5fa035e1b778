#include "quon/link_broker.h"

#include "platform/files.h"
#include "platform/io.h"
#include "platform/spawn.h"

namespace varn::quon {

using wire::BuildLinkControl;
using wire::LinkVerb;

LinkBroker::LinkBroker(std::string directory, unsigned hub_pid)
    : directory_(std::move(directory)), hub_pid_(hub_pid) {
  if (directory_.find(' ') != std::string::npos) directory_.clear();
}

LinkBroker::~LinkBroker() {
  for (auto& [key, setup] : setups_) Release(&setup);
}

int LinkBroker::LinksOf(std::uint64_t client) const {
  int n = 0;
  for (const Pair& p : linked_) n += p.first == client || p.second == client;
  for (const auto& [p, setup] : setups_) n += p.first == client || p.second == client;
  return n;
}

bool LinkBroker::MakePipes(Setup* setup) {
  std::string stem =
      directory_ + "/quon-" + std::to_string(hub_pid_) + "-link-" + std::to_string(next_++);
  setup->path_ab = stem + "a";
  setup->path_ba = stem + "b";
  int error = 0;
  if (!platform::CreateFifo(setup->path_ab.c_str())) {
    error = platform::LastError();
    setup->path_ab.clear();
    setup->path_ba.clear();
  } else if (!platform::CreateFifo(setup->path_ba.c_str())) {
    error = platform::LastError();
    setup->path_ba.clear();
  } else {
    setup->held[0] = platform::OpenFifoEnd(setup->path_ab.c_str(), false);
    setup->held[1] = platform::OpenFifoEnd(setup->path_ba.c_str(), false);
    if (setup->held[0] >= 0 && setup->held[1] >= 0) return true;
    error = platform::LastError();
  }
  last_error_ =
      "cannot make the pipes of a link in " + directory_ + ": " + platform::ErrorText(error);
  Release(setup);
  return false;
}

void LinkBroker::Release(Setup* setup) {
  int ignored = 0;
  if (!setup->path_ab.empty()) platform::RemoveEntry(setup->path_ab, &ignored);
  if (!setup->path_ba.empty()) platform::RemoveEntry(setup->path_ba, &ignored);
  setup->path_ab.clear();
  setup->path_ba.clear();
  for (int& fd : setup->held) {
    if (fd >= 0) platform::Close(fd);
    fd = -1;
  }
}

void LinkBroker::Want(const Party& from, const Party& peer, std::vector<Out>* out) {
  last_error_.clear();
  Pair key = Key(from.id, peer.id);
  if (directory_.empty() || from.id == peer.id || linked_.count(key) || setups_.count(key)) return;
  if (!wants_.count({peer.id, from.id})) {
    wants_.insert({from.id, peer.id});
    return;
  }
  wants_.erase({peer.id, from.id});
  wants_.erase({from.id, peer.id});
  // A client with many links already stays on the hub for new peers: each
  // link costs it two descriptors.
  if (LinksOf(from.id) >= wire::kMaxLinksPerProcess ||
      LinksOf(peer.id) >= wire::kMaxLinksPerProcess)
    return;
  Setup setup;
  setup.a = from.id < peer.id ? from : peer;
  setup.b = from.id < peer.id ? peer : from;
  if (!MakePipes(&setup)) return;
  out->push_back({setup.a.id, BuildLinkControl(LinkVerb::kOpen, setup.b.address, setup.path_ba,
                                               setup.path_ab)});
  out->push_back({setup.b.id, BuildLinkControl(LinkVerb::kOpen, setup.a.address, setup.path_ab,
                                               setup.path_ba)});
  setups_.emplace(key, std::move(setup));
}

void LinkBroker::Ready(std::uint64_t from, std::uint64_t peer, bool ok, std::vector<Out>* out) {
  auto it = setups_.find(Key(from, peer));
  if (it == setups_.end()) return;
  Setup& setup = it->second;
  if (!ok) {
    // Nothing was written on the pipes yet: both sides close and go on
    // through the hub.
    out->push_back({setup.a.id, BuildLinkControl(LinkVerb::kDrop, setup.b.address)});
    out->push_back({setup.b.id, BuildLinkControl(LinkVerb::kDrop, setup.a.address)});
    Release(&setup);
    setups_.erase(it);
    return;
  }
  (from == setup.a.id ? setup.ready_a : setup.ready_b) = true;
  if (!setup.ready_a || !setup.ready_b) return;
  // Both hold their ends: the names and the broker's read ends can go, so
  // that a write to a side that ended fails instead of filling a pipe
  // nobody reads.
  out->push_back({setup.a.id, BuildLinkControl(LinkVerb::kGo, setup.b.address)});
  out->push_back({setup.b.id, BuildLinkControl(LinkVerb::kGo, setup.a.address)});
  Release(&setup);
  linked_.insert(it->first);
  setups_.erase(it);
}

void LinkBroker::Ended(std::uint64_t client, std::vector<Out>* out) {
  for (auto it = wants_.begin(); it != wants_.end();) {
    it = it->first == client || it->second == client ? wants_.erase(it) : std::next(it);
  }
  for (auto it = linked_.begin(); it != linked_.end();) {
    it = it->first == client || it->second == client ? linked_.erase(it) : std::next(it);
  }
  for (auto it = setups_.begin(); it != setups_.end();) {
    Setup& setup = it->second;
    if (setup.a.id != client && setup.b.id != client) {
      ++it;
      continue;
    }
    const Party& other = setup.a.id == client ? setup.b : setup.a;
    const Party& gone = setup.a.id == client ? setup.a : setup.b;
    out->push_back({other.id, BuildLinkControl(LinkVerb::kDrop, gone.address)});
    Release(&setup);
    it = setups_.erase(it);
  }
}

}  // namespace varn::quon
