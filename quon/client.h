// What the hub knows about one process it started.
#ifndef VARN_QUON_CLIENT_H_
#define VARN_QUON_CLIENT_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/event_loop.h"
#include "quon/connection.h"
#include "quon/file_service.h"
#include "quon/line_channel.h"
#include "varn_codes.h"

namespace varn::quon {

enum class ClientKind {
  kProtocol,     // speaks the packet protocol on its channel
  kLines,        // INVOKER: standard output read as lines
  kLinesAndErr,  // INVOKERE: standard output and error output read as lines
  kSilent,       // INVOKERN: nothing collected
};

// What a client is doing, as far as the hub can tell from the packets it
// relays; shown by the control endpoint (session_view.h). The counters are
// plain increments on the relay path; the rest changes only for the few
// categories that carry a state (CMD, BEGIN, DONE, ERROR, NAK, STATUS).
enum class ViewState {
  kNew,      // a protocol client that has shown no state yet
  kIdle,     // reported IDLE, or answered its last command
  kBusy,     // reported BUSY, or was handed a command or stream
  kDead,     // reported DEAD, or ended
  kProgram,  // a program without the protocol, still running
};

// A CMD relayed to the client and not yet answered.
struct PendingCommand {
  std::uint64_t from_id = 0;  // the client that sent it
  std::int64_t since_ms = 0;  // monotonic time it was relayed
};

struct ClientActivity {
  std::uint64_t packets_in = 0;   // packets (or lines) the hub took from it
  std::uint64_t packets_out = 0;  // packets (or lines) the hub queued for it
  ViewState state = ViewState::kNew;
  std::string status_text;  // text of its last STATUS, or of a NAK "BUSY ..."
  // Commands it has been handed and not answered, oldest first; at most
  // kMaxPendingCommands are remembered (the oldest ones).
  std::deque<PendingCommand> pending;
  // The clients it waits on: each with how many of its commands they hold
  // in `pending`.
  std::vector<std::pair<std::uint64_t, int>> awaiting;
};

inline constexpr std::size_t kMaxPendingCommands = 1024;
// Status texts are kept up to this many bytes (the table shows fewer).
inline constexpr std::size_t kMaxStatusText = 1024;

struct Client {
  std::uint64_t id = 0;
  ClientKind kind = ClientKind::kProtocol;
  int pid = -1;
  std::string pid_text;
  std::string address;            // pid@host
  std::string name;               // program name as it was asked for (argv[0])
  std::uint64_t parent_id = 0;    // 0: started by the hub itself
  std::string parent_address;     // the parent's address, or "quon"
  int status = VARN_STATUS_BUSY;  // last reported (VARN_STATUS_*)
  bool chan_mode_set = false;
  int chan_mode = 0;
  std::vector<std::string> async_disabled;  // addresses named by ASYNC_DISABLE
  std::uint64_t bad_packets = 0;            // dropped as bad input, in all

  std::set<std::uint64_t> peers;            // clients it exchanged packets with
  std::set<std::uint64_t> waiting_senders;  // paused until this client drains

  bool live = true;  // false once its exit has been announced
  bool reaped = false;
  platform::ChildStatus exit_status;
  platform::EventLoop::TimerId timer = 0;
  ClientActivity activity;

  // Protocol clients.
  std::unique_ptr<Connection::Listener> listener;
  std::unique_ptr<Connection> connection;
  std::unique_ptr<OpenFiles> files;
  // Other programs.
  std::unique_ptr<LineReader> output;
  std::unique_ptr<LineReader> errors;
  std::unique_ptr<LineWriter> input;

  bool protocol() const { return kind == ClientKind::kProtocol; }
};

}  // namespace varn::quon

#endif  // VARN_QUON_CLIENT_H_
