// The hub's control endpoint: a Unix stream socket on which tools (quonctl)
// ask for the process table and follow the packets the hub relays. The
// protocol is text lines; docs/quon.md ("Control endpoint") describes it.
//
// It lives on the hub's event loop and never holds the hub up: sockets are
// non-blocking, what a control client has not read waits in a buffer of at
// most kOutputLimit bytes, and past that trace lines are dropped and
// counted while a client that does not read its answers is disconnected.
// Nothing is formatted for tracing while no client traces (tracing()).
#ifndef VARN_QUON_CONTROL_ENDPOINT_H_
#define VARN_QUON_CONTROL_ENDPOINT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event_loop.h"
#include "platform/unix_socket.h"
#include "quon/log.h"
#include "quon/output_buffer.h"

namespace varn::quon {

class ControlEndpoint final : private platform::RoundEnd {
 public:
  // Appends the lines of a `ps` answer, without its "end".
  using TableBuilder = std::function<void(std::string* out)>;

  static constexpr std::size_t kOutputLimit = 256 * 1024;
  static constexpr std::size_t kMaxRequestLine = 4096;
  static constexpr std::size_t kMaxClients = 64;
  static constexpr std::size_t kTraceTextLimit = 64;

  ControlEndpoint(platform::EventLoop& loop, Log& log, TableBuilder table);
  // Disconnects every listener and removes the socket file.
  ~ControlEndpoint();
  ControlEndpoint(const ControlEndpoint&) = delete;
  ControlEndpoint& operator=(const ControlEndpoint&) = delete;

  // Creates the socket at path and starts accepting. False with a reason.
  bool Open(const std::string& path, std::string* error);
  const std::string& path() const { return path_; }

  // True while at least one control client traces.
  bool tracing() const { return tracers_ > 0; }
  // One packet received or sent by the hub, for the tracers whose filters
  // it passes. `text` is its payload (padding may be included).
  void TracePacket(std::string_view source, std::string_view destination, std::string_view word,
                   std::size_t size, std::string_view text);
  // A whole line (with its line feed) for every tracer, whatever it filters.
  void TraceNotice(std::string_view line);

 private:
  struct Listener {
    std::uint64_t id = 0;
    int fd = -1;
    std::string input;      // the start of a request line
    bool skipping = false;  // the rest of an overlong line is being skipped
    bool tracing = false;
    std::vector<std::string> addresses;  // trace filter: source or destination
    std::vector<std::string> words;      // trace filter: category words
    std::uint64_t dropped = 0;           // trace lines dropped since the last report
    bool input_ended = false;            // it sends nothing more
    bool writing = false;                // write interest is on
    bool flush_queued = false;
    OutputBuffer output;
  };

  void OnAcceptable();
  void OnEvents(std::uint64_t id, platform::IoEvents events);
  // False when the client was dropped.
  bool ReadRequests(Listener& client);
  bool HandleLine(Listener& client, std::string_view line);
  bool StartTrace(Listener& client, const std::vector<std::string_view>& words);
  // Queues an answer; a client with no room for it is dropped (false).
  bool Answer(Listener& client, std::string_view text);
  // Queues a trace line, or counts it as dropped when there is no room.
  void Stream(Listener& client, std::string_view line);
  void QueueFlush(Listener& client);
  // Tells a tracer how many lines it missed, once it has room again.
  void ReportDropped(Listener& client);
  Listener* Find(std::uint64_t id);
  void OnRoundEnd() override;
  // Writes what it can; false when the client was dropped.
  bool Flush(Listener& client);
  void Drop(Listener& client, std::string_view why);
  bool Passes(const Listener& client, std::string_view source, std::string_view destination,
              std::string_view word) const;

  platform::EventLoop& loop_;
  Log& log_;
  TableBuilder table_;
  std::string path_;
  platform::SocketFileId file_id_;
  int listen_fd_ = -1;
  // Accepting stopped after a failure other than "nothing to accept"
  // (descriptors used up); this timer resumes it.
  platform::EventLoop::TimerId accept_timer_ = 0;
  std::map<std::uint64_t, std::unique_ptr<Listener>> clients_;
  std::vector<std::uint64_t> flush_list_;
  bool round_end_queued_ = false;
  std::uint64_t next_id_ = 1;
  std::size_t tracers_ = 0;
};

// Where the control socket goes when --control does not say:
// $XDG_RUNTIME_DIR/quon-PID.ctl, or /tmp/quon-PID.ctl without it.
std::string DefaultControlDirectory();
std::string DefaultControlPath(unsigned pid);

// Removes the control sockets that hubs which were killed (and so could not
// remove them) left in `directory`: files named quon-PID.ctl whose process
// is gone and on which nobody listens. Returns how many went.
int RemoveStaleControlSockets(const std::string& directory);

}  // namespace varn::quon

#endif  // VARN_QUON_CONTROL_ENDPOINT_H_
