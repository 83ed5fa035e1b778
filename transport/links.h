// Direct links to peers: a pair of named pipes per peer, set up through the
// hub when both sides sent each other packets (quon/link_broker.h has the
// hub's side, wire_requests.h the payloads). Once a link is up, every
// packet to that peer goes on the link and every packet from it comes on
// the link, so a busy pair's packets no longer cross the hub.
//
// Order: a side switches its writes to the link under the wire lock, right
// after a "link over" PING that goes through the hub; the other side starts
// reading the link only when that PING arrives, so it has read everything
// the peer sent through the hub first. The hub's notice that the peer ended
// is held back until the link has been read to its end (packet_reader.cc).
//
// Thread ownership: the table is guarded by its own mutex. Output consults
// it under the wire lock and writes on a write end under that lock; so a
// write end is closed only by a holder of the wire lock. The reader (the
// holder of the reading turn) handles the controls and owns the read ends
// once they are sources.
#ifndef VARN_TRANSPORT_LINKS_H_
#define VARN_TRANSPORT_LINKS_H_

#include <string>
#include <string_view>

namespace varn::transport {

// varn_init, before the input thread starts: whether this process asks for
// links (the hub started it with them).
void EnableLinks(bool on);
bool LinksEnabled();
// varn_deinit: ends every link and asks for no more (the write ends are
// closed under the wire lock, as for LinkEnded).
void CloseLinks();

// ---- Output side -------------------------------------------------------
// Under the wire lock: the write end of the link to `destination` while it
// carries packets, else -1 (the packet goes through the hub).
int LinkWriteFd(std::string_view destination);
// Under the wire lock: closes the write ends of links that ended since
// (the reader cannot: a writer may be using one). True when fd was one.
bool CloseEndedWriteEnds(int fd);
// Under the wire lock: a write on fd failed (the peer closed its end); the
// link carries nothing more.
void LinkWriteFailed(int fd);
// Under the wire lock: a packet of a stream's size is about to go on fd;
// the link's pipe grows, once.
void NoteLargeWrite(int fd);
// Under the wire lock, right after the "link over" PING to peer was
// written: packets to peer go on the link from now on.
void StartWritingLink(std::string_view peer);
// After a packet to `destination` went through the hub: asks the hub for a
// link with it, once. Not under the wire lock.
void MaybeAskForLink(std::string_view destination);

// ---- Reader side (the holder of the reading turn) ----------------------
// Handles the link control in a PING's payload from `source`. False when
// the payload is no link control. For "link over" from a linked peer,
// *read_fd is the link's read end, to be read from now on (else -1).
bool HandleLinkControl(std::string_view source, std::string_view payload, int* read_fd);
// The link with peer has ended: the reader met the end of its read end
// (closed here when not negative), or the hub's notice that the peer ended
// has passed. Packets to peer go through the hub again, no link with peer
// is asked for again, and its write end is closed under the wire lock (at
// once when it is free, else by the next write).
void LinkEnded(std::string_view peer, int read_fd);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_LINKS_H_
