// Starting clients: the first one, and those that clients ask for.
#include <cstdio>

#include "platform/io.h"
#include "platform/spawn.h"
#include "quon/hub.h"
#include "quon/start_request.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::quon {
namespace {

// Where a protocol client finds its channel.
constexpr int kChildQuonin = 3;
constexpr int kChildQuonout = 4;
constexpr int kChildSocket = 3;

class ClientChannel final : public Connection::Listener {
 public:
  ClientChannel(Hub& hub, Client& client) : hub_(hub), client_(client) {}
  bool OnPacket(const Packet& packet) override { return hub_.OnPacket(client_, packet); }
  void OnBadPacket(const std::string& reason, int count) override {
    hub_.OnBadPacket(client_, reason, count);
  }
  void OnClosed() override { hub_.OnChannelClosed(client_); }
  void OnDrained() override { hub_.OnDrained(client_); }

 private:
  Hub& hub_;
  Client& client_;
};

std::string Hex(int fd) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", fd);
  return buf;
}

void CloseAll(const std::vector<int>& fds) {
  for (int fd : fds) platform::Close(fd);
}

std::string SpawnFailure(const platform::SpawnResult& r, const std::string& program,
                         const std::string& directory) {
  switch (r.error) {
    case platform::SpawnError::kNotFound:
      return "program not found: " + program;
    case platform::SpawnError::kNoDirectory:
      return "cannot enter directory " + directory + ": " + platform::ErrorText(r.error_number);
    default:
      return "cannot start " + program + ": " + platform::ErrorText(r.error_number);
  }
}

}  // namespace

bool Hub::StartFirst(const std::vector<std::string>& argv, std::string* error) {
  std::vector<std::string> args(argv.begin() + 1, argv.end());
  Client* client = StartClient(ClientKind::kProtocol, argv[0], args, "", nullptr, error);
  if (client == nullptr) return false;
  first_id_ = client->id;
  started_ = true;
  return true;
}

bool Hub::StartProtocolChannel(Client& client, std::vector<std::string>* argv,
                               std::vector<platform::FdMapping>* fds, std::vector<int>* child_ends,
                               int* hub_read, int* hub_write) {
  (void)client;
  if (config_.sockets) {
    int sv[2];
    if (!platform::CreateSocketPair(sv)) return false;
    *hub_read = *hub_write = sv[0];
    child_ends->push_back(sv[1]);
    fds->push_back({sv[1], kChildSocket});
    argv->insert(argv->end(), {"-quon_sockfd", std::to_string(kChildSocket)});
    return true;
  }
  int to_child[2];
  int from_child[2];
  if (!platform::CreatePipe(to_child)) return false;
  if (!platform::CreatePipe(from_child)) {
    platform::Close(to_child[0]);
    platform::Close(to_child[1]);
    return false;
  }
  *hub_write = to_child[1];
  *hub_read = from_child[0];
  child_ends->push_back(to_child[0]);
  child_ends->push_back(from_child[1]);
  fds->push_back({to_child[0], kChildQuonin});
  fds->push_back({from_child[1], kChildQuonout});
  argv->insert(argv->end(),
               {"-quon_quonin", Hex(kChildQuonin), "-quon_quonout", Hex(kChildQuonout)});
  return true;
}

Client* Hub::StartClient(ClientKind kind, const std::string& program,
                         const std::vector<std::string>& args, const std::string& directory,
                         Client* parent, std::string* error) {
  auto client = std::make_unique<Client>();
  client->kind = kind;
  client->name = program;
  client->parent_id = parent != nullptr ? parent->id : 0;
  client->parent_address = parent != nullptr ? parent->address : std::string(wire::kHubAddress);

  platform::SpawnRequest request;
  request.program = program;
  request.working_directory = directory;
  request.extra_path = config_.extra_path;
  request.argv.push_back(program);
  request.argv.insert(request.argv.end(), args.begin(), args.end());

  std::vector<int> child_ends;  // closed in the hub once the child has them
  int hub_read = -1;
  int hub_write = -1;
  int hub_errors = -1;
  if (kind == ClientKind::kProtocol) {
    request.argv.insert(request.argv.end(), {"-quon_parentid", client->parent_address});
    if (parent != nullptr)
      request.argv.insert(request.argv.end(), {"-quon_parentname", parent->name});
    if (!config_.link_directory.empty()) request.argv.push_back("-quon_links");
    if (!StartProtocolChannel(*client, &request.argv, &request.fds, &child_ends, &hub_read,
                              &hub_write)) {
      *error = "cannot create a channel: " + platform::ErrorText(platform::LastError());
      return nullptr;
    }
    if (config_.child_stderr != 2) request.fds.push_back({config_.child_stderr, 2});
  } else {
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    bool ok = platform::CreatePipe(in);
    if (ok && kind != ClientKind::kSilent) ok = platform::CreatePipe(out);
    if (ok && kind == ClientKind::kLinesAndErr) ok = platform::CreatePipe(err);
    if (!ok) {
      *error = "cannot create pipes: " + platform::ErrorText(platform::LastError());
      CloseAll({in[0], in[1], out[0], out[1], err[0], err[1]});
      return nullptr;
    }
    hub_write = in[1];
    hub_read = out[0];
    hub_errors = err[0];
    child_ends = {in[0]};
    request.fds.push_back({in[0], 0});
    if (out[1] >= 0) {
      child_ends.push_back(out[1]);
      request.fds.push_back({out[1], 1});
    } else {
      request.fds.push_back({config_.child_stderr, 1});
    }
    if (err[1] >= 0) {
      child_ends.push_back(err[1]);
      request.fds.push_back({err[1], 2});
    } else if (config_.child_stderr != 2) {
      request.fds.push_back({config_.child_stderr, 2});
    }
  }

  platform::SpawnResult spawned = platform::Spawn(request);
  CloseAll(child_ends);
  if (spawned.pid < 0) {
    *error = SpawnFailure(spawned, program, directory);
    CloseAll({hub_read, hub_errors});
    if (hub_write != hub_read) platform::Close(hub_write);
    return nullptr;
  }

  client->id = next_id_++;
  client->pid = spawned.pid;
  client->pid_text = std::to_string(spawned.pid);
  client->address = client->pid_text + "@" + host_;
  Client& c = *client;
  if (kind == ClientKind::kProtocol) {
    c.listener = std::make_unique<ClientChannel>(*this, c);
    c.connection = std::make_unique<Connection>(loop_, hub_read, hub_write, c.address,
                                                c.listener.get(), config_.limits);
    c.files = std::make_unique<OpenFiles>(config_.files_root);
    c.connection->Start();
  } else {
    c.activity.state = ViewState::kProgram;
    std::uint64_t id = c.id;
    c.input = std::make_unique<LineWriter>(
        loop_, hub_write, config_.limits,
        [this, id] {
          if (Client* p = FindById(id)) ResumeWaitingSenders(*p);
        },
        nullptr);
    c.input->Start();
    auto on_line = [this, id](std::string_view line) {
      Client* p = FindById(id);
      return p == nullptr || OnProgramLine(*p, line);
    };
    if (hub_read >= 0) {
      c.output = std::make_unique<LineReader>(loop_, hub_read, on_line, nullptr);
      c.output->Start();
    }
    if (hub_errors >= 0) {
      c.errors = std::make_unique<LineReader>(loop_, hub_errors, on_line, nullptr);
      c.errors->Start();
    }
  }
  live_by_address_[c.address] = c.id;
  by_pid_[c.pid] = c.id;
  log_.Note("started " + Describe(c) + " " + c.address +
            (parent != nullptr ? " for " + Describe(*parent) : std::string()));
  clients_[c.id] = std::move(client);
  return &c;
}

bool Hub::HandleStartRequest(Client& from, const Packet& packet) {
  wire::StartRequest request;
  std::string error;
  bool parsed = wire::ParseStartRequest(packet.text(), &request, &error);
  // The asynchronous start is answered from the command word, which is how
  // the caller's pending row is found.
  std::string source = packet.category == VARN_INVOKE_EX && parsed ? request.command
                                                                   : std::string(wire::kHubAddress);
  std::vector<std::string> args;
  if (parsed && !request.host.empty() && request.host != host_ && request.host != "localhost") {
    error = "unknown host " + request.host;
    parsed = false;
  }
  if (parsed && !SplitWords(request.arguments, &args, &error)) parsed = false;
  Client* started = nullptr;
  if (parsed && shutting_down_) {
    error = "the hub is shutting down";
  } else if (parsed) {
    ClientKind kind = packet.category == VARN_INVOKER    ? ClientKind::kLines
                      : packet.category == VARN_INVOKERE ? ClientKind::kLinesAndErr
                      : packet.category == VARN_INVOKERN ? ClientKind::kSilent
                                                         : ClientKind::kProtocol;
    started = StartClient(kind, request.program, args, request.directory, &from, &error);
  }
  if (started == nullptr) {
    log_.Note(Describe(from) + ": start refused: " + error);
    return Reply(from, VARN_REJECT, error, source);
  }
  return Reply(from, VARN_ACCEPT, started->address, source);
}

}  // namespace varn::quon
