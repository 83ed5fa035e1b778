// The hub's channel to one protocol client: two pipes, or one stream socket.
//
// This is the only code that reads and writes a client's descriptors. It
// reads whenever the client has sent something and reading is not paused,
// cuts the input into packets (PacketFramer) and hands them to a listener;
// it queues outgoing packets and writes them as the client takes them, so
// that a slow client never blocks the hub.
//
// A packet reaches the listener only when its source is the client's own
// address, or that address behind a two-character prefix starting with "!"
// (the form a client answers from when a peer addressed it so). Anything
// else would let a client speak as the hub or as another client; it is
// reported as a bad packet like malformed input.
//
// Flow control: once more than `high_water` bytes wait for the client it is
// congested; when its queue falls to `low_water` the listener hears
// OnDrained. The listener pauses the senders that feed a congested client by
// returning false from OnPacket; their input then stays unread until Resume.
//
// The listener may call Close() from any callback. The object itself must
// not be destroyed inside its own callbacks (defer with EventLoop::Post).
#ifndef VARN_QUON_CONNECTION_H_
#define VARN_QUON_CONNECTION_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/event_loop.h"
#include "quon/output_buffer.h"
#include "quon/packet_framer.h"

namespace varn::quon {

struct QueueLimits {
  std::size_t high_water = 1u << 20;
  std::size_t low_water = 1u << 19;
};

class Connection final : private platform::RoundEnd {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // Returns false to stop taking packets from this connection.
    virtual bool OnPacket(const Packet& packet) = 0;
    // A bad packet was dropped; `count` bad packets have come in a row.
    virtual void OnBadPacket(const std::string& reason, int count) = 0;
    // End of input, or the client can no longer be written to. Called once.
    virtual void OnClosed() = 0;
    // The queue fell to the low-water mark after being congested.
    virtual void OnDrained() = 0;
  };

  // Takes ownership of the descriptors (equal for a socket). `address` is
  // the client's own address.
  Connection(platform::EventLoop& loop, int read_fd, int write_fd, std::string address,
             Listener* listener, QueueLimits limits);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool Start();

  // Queues a whole packet; what a round of the loop queued is written at
  // its end, in one write where the client takes it. Ignored once the
  // connection is closed.
  void Send(const char* data, std::size_t size);
  std::size_t queued() const { return output_.size(); }
  bool congested() const { return congested_; }

  void Pause();
  // Takes up buffered packets again (after the current round of events).
  void Resume();
  bool paused() const { return paused_; }

  // Reads and handles everything the client has sent so far, paused or not;
  // used once the client has died, so that its last packets still count.
  void DrainInput();

  // Stops reading and writing and closes the descriptors. No callback
  // follows. Unsent output is discarded.
  void Close();
  bool closed() const { return closed_; }

 private:
  void OnReadable();
  void OnWritable();
  void OnRoundEnd() override;
  // After output left: the write interest, and the end of congestion.
  void AfterFlush();
  // Reads at most `budget` bytes; false at end of input or on failure.
  bool ReadInput(std::size_t budget);
  void HandleBuffered(bool ignore_pause);
  void UpdateInterest();
  void ReportClosed();

  platform::EventLoop& loop_;
  int read_fd_;
  int write_fd_;
  std::string address_;
  Listener* listener_;
  QueueLimits limits_;
  PacketFramer framer_;
  OutputBuffer output_;
  std::size_t output_held_ = 0;  // output_'s largest capacity since its last flush
  int bad_in_row_ = 0;
  std::uint64_t bad_total_ = 0;  // bad packets dropped, in all
  bool sent_bad_input_ = false;  // in its last wake-up: read a little at a time
  bool paused_ = false;
  bool congested_ = false;
  bool input_ended_ = false;
  bool closed_ = false;
  bool close_reported_ = false;
  bool reading_ = true;  // interest registered with the loop
  bool writing_ = false;
  bool flush_queued_ = false;          // waits for the end of the round
  std::size_t read_chunk_ = 4 * 1024;  // bytes offered to the next read
  std::size_t last_read_ = 0;          // bytes the last ReadInput took
  bool read_pipe_grown_ = false;       // asked once for a larger pipe
  bool write_pipe_grown_ = false;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace varn::quon

#endif  // VARN_QUON_CONNECTION_H_
