// What the hub knows about one process it started.
#ifndef VARN_QUON_CLIENT_H_
#define VARN_QUON_CLIENT_H_

#include <cstdint>
#include <memory>
#include <set>
#include <string>
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
