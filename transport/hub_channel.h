// The channel to the hub: packets on two pipes or one socket. Its pieces
// live with the parts of the transport they belong to; this header names
// them for the channel object (hub_channel.cc).
#ifndef VARN_TRANSPORT_HUB_CHANNEL_H_
#define VARN_TRANSPORT_HUB_CHANNEL_H_

#include <cstddef>
#include <cstdint>

#include "core/library_lock.h"
#include "core/rows.h"
#include "transport/channel.h"

namespace varn::transport {

// output.cc: writes one whole packet to the hub; 0 or an error number.
int WriteToHub(char* packet, std::size_t size);

// receive.cc: stores a message in row h; a payload that belongs to an
// open stream goes to the stream buffer.
bool StoreMessage(int h, const char* destination, const char* source, int category,
                  const char* payload, std::size_t length, std::uint32_t recv_stream,
                  std::uint32_t send_stream) REQUIRES(core::kLibrary);
// receive.cc: the next piece of row h's data stream.
int ReadStreamRecord(int h, int* category, char* buffer, std::int64_t size, std::size_t* length,
                     Channel::StreamRead how) REQUIRES(core::kLibrary);

// protocol.cc: puts a message on the wire and waits as its category says.
int ProtocolStep(int h, int category, const char* payload, std::size_t length)
    REQUIRES(core::kLibrary);
// protocol.cc: what the answer to a CMD, BEGIN or END now in row h means
// for the send: 1 for ACK; 0 for NAK (VarnErrorNo 42 when the peer said it
// is busy) or for the peer's end (13).
int AcknowledgementOutcome(int h) REQUIRES(core::kLibrary);
// protocol.cc: whether row h's last message is the ACK or NAK of an earlier
// command whose wait gave up at its deadline (deadline.h); it is counted
// off then, and the wait for the next command's goes on.
bool IsLateAcknowledgement(core::Row& row) REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_HUB_CHANNEL_H_
