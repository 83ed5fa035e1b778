// The channel a process's messages travel on.
//
// Normally that is the hub: packets on two pipes or one socket (the hub
// channel, transport/hub_channel.cc). In debug mode it is the terminal:
// text lines on standard input and output, with the peers simulated
// (services/debug_mode.cc). varn_init chooses one, once; the rest of the
// library asks the active channel and never tests which one it is.
#ifndef VARN_TRANSPORT_CHANNEL_H_
#define VARN_TRANSPORT_CHANNEL_H_

#include <cstddef>
#include <cstdint>

#include "core/library_lock.h"

namespace varn::transport {

// One incoming message, split. The parts point into `body` (or into the
// channel's own storage); the caller frees body with free().
struct Message {
  char* body = nullptr;
  char* destination = nullptr;
  char* source = nullptr;
  int category = 0;
  char* payload = nullptr;  // null when there is none
  std::size_t length = 0;
};

class Channel {
 public:
  virtual ~Channel() = default;

  // Input thread: reads the channel's input for as long as there is any,
  // handing what arrives to the application's thread (HandOver).
  virtual void RunInput() = 0;

  // Takes the next message body, blocking until there is one: a packet
  // body, or a line. False (VarnErrorNo set) when none can be had.
  virtual bool TakeBody(char** body, std::size_t* length) REQUIRES(core::kLibrary) = 0;
  // Splits a body taken with TakeBody into its parts, in place. False
  // (VarnErrorNo 3 or 4) for a body that is not a message.
  virtual bool Split(char* body, std::size_t length, Message* message) REQUIRES(core::kLibrary) = 0;

  // Whether the application's thread may read the input itself while it
  // waits, taking the reading turn from the input thread (hand_over.h).
  virtual bool ReadsByTurns() const { return false; }

  // Whether packets are written at all (debug mode writes lines instead).
  virtual bool WritesPackets() const { return true; }
  // Writes one whole built packet; 0 or an error number.
  virtual int WritePacket(char* packet, std::size_t size) = 0;

  // Stores a message accepted from the peer in row h, with the stream
  // states the receive side gives it. False when the store failed.
  virtual bool StoreInRow(int h, const char* destination, const char* source, int category,
                          const char* payload, std::size_t length, std::uint32_t recv_stream,
                          std::uint32_t send_stream) REQUIRES(core::kLibrary) = 0;

  // Reads the next piece of row h's data stream: a record (DATA) or its
  // end (END). How: reading further messages with the lane on h, without
  // touching the lane, or only from what has already arrived.
  enum class StreamRead { kLane, kNoLane, kArrived };
  virtual int ReadStream(int h, int* category, char* buffer, std::int64_t size, std::size_t* length,
                         StreamRead how) REQUIRES(core::kLibrary) = 0;

  // Sends a message to row h and carries out the protocol step its
  // category calls for (varn_send_send_msg after its checks).
  virtual int SendToRow(int h, int category, const char* payload, std::size_t length)
      REQUIRES(core::kLibrary) = 0;

  // ---- Peers this channel simulates instead of reaching them ----------
  // True when peers are not reached but simulated (debug mode): starts,
  // server connections and status queries are answered by the channel,
  // and an unforced wait returns at once.
  virtual bool SimulatesPeers() const { return false; }
  // A start of `program` in row h; 1 on success.
  virtual int SimulateStart(int /*h*/, const char* /*program*/) REQUIRES(core::kLibrary) {
    return 0;
  }
  // A status query of row h.
  virtual int SimulateStatus(int /*h*/, std::uint32_t* /*status*/, char* /*text*/) { return 0; }
};

// The channel in use; the hub channel until varn_init chooses.
Channel& ActiveChannel();
// varn_init: the hub channel, or the debug channel when debug is on.
void ChooseChannel(bool debug) REQUIRES(core::kLibrary);
// Debug mode registers its channel while the library loads.
void RegisterDebugChannel(Channel* channel);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_CHANNEL_H_
