// The hub: starts clients, relays their packets, answers their requests to
// "quon", serves their files and tells everyone concerned when one ends.
//
// Routing: a packet whose destination is a live client's address is
// forwarded unchanged (a destination with a two-character "!" prefix is
// looked up without it); one for "quon" is a request to the hub; one for
// any other address is answered with SRVR_ERR from that address, unless it
// is itself an answer. Only packets that carry their sender's own address
// as source get this far: the channel drops the rest as bad input
// (Connection), so no client can speak as the hub or as another client.
// Everything runs on the event loop's thread.
#ifndef VARN_QUON_HUB_H_
#define VARN_QUON_HUB_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/spawn.h"
#include "quon/client.h"
#include "quon/control_endpoint.h"
#include "quon/link_broker.h"
#include "quon/log.h"
#include "quon/packet_framer.h"
#include "quon/session_view.h"
#include "transport/wire_format.h"

namespace varn::quon {

struct HubConfig {
  std::vector<std::string> extra_path;  // searched before PATH
  bool sockets = false;                 // socketpair instead of two pipes
  platform::FilesRoot files_root;       // open once, shared by every client's OpenFiles
  QueueLimits limits;
  int grace_ms = 3000;   // wait for exit notices after KILL before SIGKILL
  int child_stderr = 2;  // descriptor that becomes the clients' fd 2
  // Direct links between pairs of clients (link_broker.h): the directory
  // their pipes are made in; empty for none.
  std::string link_directory;
};

class Hub {
 public:
  Hub(platform::EventLoop& loop, Log& log, HubConfig config);
  ~Hub();
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  // Learns the host name and starts reaping children.
  bool Init(std::string* error);
  // Starts the first client with its argument vector as given.
  bool StartFirst(const std::vector<std::string>& argv, std::string* error);
  // SIGINT/SIGTERM: KILL to every client, SIGKILL after the grace period;
  // a second signal kills at once.
  void Shutdown(int signo);

  bool finished() const { return started_ && clients_.empty(); }
  // The first client's exit code, or 128 + its signal number.
  int exit_code() const { return exit_code_; }

  // Shows the session on `control` (nullptr: on nothing) from now on; the
  // endpoint must outlive its use here.
  void set_control(ControlEndpoint* control) { control_ = control; }
  // The process table and the standing cycles of waiting, as `ps` answers.
  void AppendControlTable(std::string* out) const;

  // Called by the client channels.
  bool OnPacket(Client& from, const Packet& packet);
  void OnBadPacket(Client& from, const std::string& reason, int count);
  void OnChannelClosed(Client& client);
  void OnDrained(Client& client);

 private:
  // Starting (hub_start.cc).
  Client* StartClient(ClientKind kind, const std::string& program,
                      const std::vector<std::string>& args, const std::string& directory,
                      Client* parent, std::string* error);
  bool StartProtocolChannel(Client& client, std::vector<std::string>* argv,
                            std::vector<platform::FdMapping>* fds, std::vector<int>* child_ends,
                            int* hub_read, int* hub_write);
  bool HandleStartRequest(Client& from, const Packet& packet);

  // Requests to "quon" (hub_requests.cc).
  bool HandleRequest(Client& from, const Packet& packet);
  bool HandleCommand(Client& from, std::string_view command);
  std::string ProcessList() const;
  std::string QueueReport() const;
  std::string FindServer(std::string_view query) const;
  // A "link ..." PING from a client (link_broker.h).
  bool HandleLinkControl(Client& from, const wire::LinkControl& control);
  bool SendLinkControls(const std::vector<LinkBroker::Out>& out);

  // Relaying and programs without the protocol (hub.cc).
  bool Relay(Client& from, Client& to, const Packet& packet);
  bool ToProgram(Client& from, Client& to, const Packet& packet);
  bool OnProgramLine(Client& program, std::string_view line);
  bool AnswerDeadAddress(Client& from, const Packet& packet);
  // What a packet from `from` (to the live client `to`, or to nobody that
  // lives) says about their states and the commands they wait on.
  void Observe(Client& from, Client* to, const Packet& packet);
  void NoteCycle(const WaitCycle& cycle);
  // To the log with --trace, and to the control endpoint's tracers.
  void Trace(const Packet& packet);
  void Trace(std::string_view source, std::string_view destination, std::string_view word,
             std::size_t size, std::string_view text);

  // Exits.
  void OnChildExit(int pid, platform::ChildStatus status);
  void Announce(Client& client, std::string_view text);
  void Remove(Client& client);
  void ResumeWaitingSenders(Client& client);

  // Output. Both return false when `to` is congested, after noting `from`
  // (when given) as a sender that waits for it.
  bool Send(Client* from, Client& to, std::string_view destination, std::string_view source,
            int category, std::string_view payload);
  bool Reply(Client& to, int category, std::string_view payload,
             std::string_view source = wire::kHubAddress);
  bool NoteCongestion(Client* from, Client& to);

  Client* FindLive(std::string_view address);
  Client* FindById(std::uint64_t id);
  std::string Describe(const Client& client) const;

  platform::EventLoop& loop_;
  Log& log_;
  HubConfig config_;
  std::string host_;
  std::map<std::uint64_t, std::unique_ptr<Client>> clients_;  // in start order
  std::unordered_map<std::string, std::uint64_t> live_by_address_;
  std::unordered_map<int, std::uint64_t> by_pid_;
  WaitTracker waits_{clients_};
  LinkBroker links_;
  ControlEndpoint* control_ = nullptr;
  std::uint64_t next_id_ = 1;
  std::uint64_t first_id_ = 0;
  bool started_ = false;
  bool shutting_down_ = false;
  int exit_code_ = 0;
  std::vector<char> scratch_;
};

// "exit N" or "signal N".
std::string ExitText(platform::ChildStatus status);

}  // namespace varn::quon

#endif  // VARN_QUON_HUB_H_
