// Whole packets from the channel to the hub, read in large pieces.
//
// One read takes whatever the channel holds, up to the buffer's size, so
// that packets that arrived together (an acknowledgement and the answer
// behind it, a run of stream records) cost one system call instead of two
// each. A body larger than what is buffered is read straight into its own
// block.
//
// Thread ownership: the reader belongs to whichever thread holds the
// reading turn (hand_over.h); the turn passes under the hand-over's mutex,
// which orders one holder's use of the buffer before the next one's.
#ifndef VARN_TRANSPORT_PACKET_READER_H_
#define VARN_TRANSPORT_PACKET_READER_H_

#include <cstddef>
#include <cstdint>

#include "transport/hand_over.h"

namespace varn::transport {

enum class ReadResult {
  kPacket,   // a whole packet body, in a malloc'd block
  kSkipped,  // a packet that could not be allocated was read and dropped
  kWake,     // the wake-up descriptor was signalled before a packet was whole
  kTimeout,  // the deadline passed before a packet was whole
  kEnd,      // the channel ended, failed, or went out of step
};

// Reads the next whole packet. Buffered packets are returned without
// waiting; otherwise the call blocks on the channel and, when wake_fd is
// not negative, returns kWake once it is signalled (the bytes read so far
// stay buffered for the next call, by whichever thread makes it). With a
// deadline (platform::MonotonicMillis time; negative for none) it returns
// kTimeout once that passed, the bytes read so far staying buffered too.
// before_block (may be null) runs each time before the call waits for
// bytes: after every packet it returns, and every link control it carried
// out itself, was taken from the buffers.
ReadResult ReadHubPacket(PacketBody* packet, int wake_fd, std::int64_t deadline_ms = -1,
                         void (*before_block)() = nullptr);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_PACKET_READER_H_
