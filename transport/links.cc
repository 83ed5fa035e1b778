#include "transport/links.h"

#include <atomic>
#include <string>
#include <vector>

#include "core/library_state.h"
#include "platform/io.h"
#include "platform/mutex.h"
#include "transport/output.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace varn::transport {
namespace {

struct Link {
  std::string peer;
  int read_fd = -1;   // until "link over" hands it to the reader
  int write_fd = -1;  // kept while the link is up
  bool writing = false;
  bool grown = false;  // its pipe was made larger for a stream
};

// Peers remembered as asked for: past this many the oldest is forgotten
// (it is asked again if packets go to it again; the hub keeps one request
// per pair).
constexpr std::size_t kMaxAsked = 64;
// The pipe of a link that carries a stream: the writer then fills this much
// before the reader has to run, a quarter as many switches as with the
// default 64 KiB. Pages are taken only as the data needs them.
constexpr std::size_t kStreamingPipe = 256 * 1024;

std::atomic<bool> g_enabled{false};
platform::Mutex g_mutex;
// Never destroyed: other threads may still send while the process exits.
std::vector<Link>& g_links GUARDED_BY(g_mutex) = *new std::vector<Link>;
std::vector<std::string>& g_asked GUARDED_BY(g_mutex) = *new std::vector<std::string>;
// Links that carry packets: output looks no further while there are none.
std::atomic<int> g_writing{0};
// Write ends of links that ended while they carried packets. Output writes
// on a link's write end under the wire lock, after reading its number
// here; so only a holder of the wire lock closes one (CloseEndedWriteEnds),
// and a number is never closed, and perhaps reused, under a writer.
std::vector<int>& g_ended GUARDED_BY(g_mutex) = *new std::vector<int>;

Link* Find(std::string_view peer) REQUIRES(g_mutex) {
  for (Link& link : g_links) {
    if (link.peer == peer) return &link;
  }
  return nullptr;
}

// Packets to the link's peer go through the hub from now on. A write end
// that output may be using is left for the wire lock's holder to close;
// one that never carried packets output never saw.
void StopWriting(Link* link, bool under_wire_lock) REQUIRES(g_mutex) {
  if (link->write_fd >= 0) {
    if (link->writing && !under_wire_lock) {
      g_ended.push_back(link->write_fd);
    } else {
      platform::Close(link->write_fd);
    }
  }
  if (link->writing) g_writing.fetch_sub(1, std::memory_order_relaxed);
  link->write_fd = -1;
  link->writing = false;
}

// Called with g_mutex held for a link in the table, or for one not yet in
// it (a failed open).
void CloseEnds(Link* link) REQUIRES(g_mutex) {
  if (link->read_fd >= 0) platform::Close(link->read_fd);
  link->read_fd = -1;
  StopWriting(link, false);
}

// Adds peer to those asked for; false when it was there already.
bool NoteAsked(std::string_view peer) REQUIRES(g_mutex) {
  for (const std::string& asked : g_asked) {
    if (asked == peer) return false;
  }
  if (g_asked.size() >= kMaxAsked) g_asked.erase(g_asked.begin());
  g_asked.emplace_back(peer);
  return true;
}

void Forget(std::string_view peer) REQUIRES(g_mutex) {
  for (auto it = g_links.begin(); it != g_links.end(); ++it) {
    if (it->peer != peer) continue;
    CloseEnds(&*it);
    g_links.erase(it);
    // The peer counts as asked for: a link that failed is not asked for
    // again and again. (Every notice of an end comes here; one for a peer
    // without a link leaves the list of those asked for as it was.)
    NoteAsked(peer);
    return;
  }
}

// A control from this process to the hub, sent by the reader outside any
// exchange.
void SendToHub(const std::string& payload) {
  WireOnlyScope wire_only;
  SendSmallPacketQuiet(wire::kHubAddress.data(), core::Fixed().own_address, VARN_PING,
                       payload.c_str(), payload.size());
}

// "link open": opens both ends and tells the hub whether that worked.
void Open(const wire::LinkControl& c) {
  bool ok = false;
  {
    platform::MutexLock lock(&g_mutex);
    if (Find(c.peer) == nullptr) {
      std::string in(c.in_path), out(c.out_path);
      Link link;
      link.peer = std::string(c.peer);
      link.read_fd = platform::OpenFifoEnd(in.c_str(), false);
      // The hub holds a read end of it until both sides are ready, so the
      // open does not wait.
      if (link.read_fd >= 0) link.write_fd = platform::OpenFifoEnd(out.c_str(), true);
      ok = link.read_fd >= 0 && link.write_fd >= 0;
      if (ok) {
        g_links.push_back(std::move(link));
      } else {
        CloseEnds(&link);
      }
    }
  }
  SendToHub(wire::BuildLinkControl(wire::LinkVerb::kReady, c.peer, {}, {}, ok));
}

void Drop(std::string_view peer) {
  platform::MutexLock lock(&g_mutex);
  // Only a link still being set up is dropped; one that carries packets
  // ends with its peer.
  if (Link* link = Find(peer); link != nullptr && !link->writing) Forget(peer);
}

}  // namespace

void EnableLinks(bool on) { g_enabled.store(on, std::memory_order_relaxed); }
bool LinksEnabled() { return g_enabled.load(std::memory_order_relaxed); }

void CloseLinks() {
  g_enabled.store(false, std::memory_order_relaxed);
  {
    platform::MutexLock lock(&g_mutex);
    for (Link& link : g_links) CloseEnds(&link);
    g_links.clear();
    g_asked.clear();
  }
  CloseEndedLinks(true);
}

bool CloseEndedWriteEnds(int fd) {
  platform::MutexLock lock(&g_mutex);
  bool found = false;
  for (int ended : g_ended) {
    found = found || ended == fd;
    platform::Close(ended);
  }
  g_ended.clear();
  return found;
}

int LinkWriteFd(std::string_view destination) {
  if (g_writing.load(std::memory_order_relaxed) == 0) return -1;
  platform::MutexLock lock(&g_mutex);
  Link* link = Find(destination);
  return link != nullptr && link->writing ? link->write_fd : -1;
}

void LinkWriteFailed(int fd) {
  platform::MutexLock lock(&g_mutex);
  for (Link& link : g_links) {
    // The read end stays with the reader until it meets the link's end;
    // no new link with the peer is asked for.
    if (link.write_fd != fd) continue;
    StopWriting(&link, true);
    NoteAsked(link.peer);
  }
}

void NoteLargeWrite(int fd) {
  platform::MutexLock lock(&g_mutex);
  for (Link& link : g_links) {
    if (link.write_fd != fd || link.grown) continue;
    link.grown = true;
    platform::GrowPipe(fd, kStreamingPipe);  // where refused, the pipe stays as it is
  }
}

void StartWritingLink(std::string_view peer) {
  platform::MutexLock lock(&g_mutex);
  Link* link = Find(peer);
  if (link == nullptr || link->writing || link->write_fd < 0) return;
  link->writing = true;
  g_writing.fetch_add(1, std::memory_order_relaxed);
}

void MaybeAskForLink(std::string_view destination) {
  if (!LinksEnabled() || destination == wire::kHubAddress ||
      wire::WithoutRoutePrefix(destination).size() != destination.size()) {
    return;
  }
  {
    platform::MutexLock lock(&g_mutex);
    if (!NoteAsked(destination)) return;
  }
  SendToHub(wire::BuildLinkControl(wire::LinkVerb::kWant, destination));
}

bool HandleLinkControl(std::string_view source, std::string_view payload, int* read_fd) {
  *read_fd = -1;
  wire::LinkControl c;
  if (!wire::ParseLinkControl(payload, &c)) return false;
  if (!LinksEnabled()) return true;
  bool from_hub = source == wire::kHubAddress;
  switch (c.verb) {
    case wire::LinkVerb::kOpen:
      if (from_hub) Open(c);
      break;
    case wire::LinkVerb::kGo: {
      bool opened = false;
      if (from_hub) {
        platform::MutexLock lock(&g_mutex);
        Link* link = Find(c.peer);
        opened = link != nullptr && link->write_fd >= 0 && !link->writing;
      }
      // Only a link this side opened is switched to.
      std::string peer(c.peer);
      if (opened) SendLinkOver(peer.c_str());
      break;
    }
    case wire::LinkVerb::kDrop:
      if (from_hub) Drop(c.peer);
      break;
    case wire::LinkVerb::kOver: {
      platform::MutexLock lock(&g_mutex);
      if (Link* link = Find(source); link != nullptr) {
        *read_fd = link->read_fd;
        link->read_fd = -1;
      }
      break;
    }
    default:
      break;  // requests to the hub; never sent to a process
  }
  return true;
}

void LinkEnded(std::string_view peer, int read_fd) {
  if (read_fd >= 0) platform::Close(read_fd);
  {
    platform::MutexLock lock(&g_mutex);
    Forget(peer);
  }
  CloseEndedLinks(false);
}

}  // namespace varn::transport
