// The server table and the operations that create, find, describe, free
// and stop servers.
#include "script/server_table.h"

#include <cstring>

#include "host/mirl/mirl.h"
#include "host/support.h"
#include "script/handlers.h"
#include "script/script_errors.h"
#include "varn.h"

namespace varn::script {

ScriptState& Script() {
  static ScriptState state;
  return state;
}

bool ValidServer(int index) {
  const std::vector<AquonServer>& servers = Script().servers;
  return index >= 0 && static_cast<std::size_t>(index) < servers.size() &&
         servers[static_cast<std::size_t>(index)].in_use != 0;
}

AquonServer& Server(int index) { return Script().servers[static_cast<std::size_t>(index)]; }

int TakeEmptySlot() {
  std::vector<AquonServer>& servers = Script().servers;
  std::size_t i = 0;
  while (i < servers.size() && servers[i].in_use != 0) ++i;
  if (i == servers.size()) servers.emplace_back();
  servers[i] = AquonServer{};
  servers[i].in_use = 1;
  return static_cast<int>(i);
}

void ResetServer(int index) {
  AquonServer& server = Server(index);
  if (server.external != 0) return;
  server.busy = 0;
  if (server.keep_entry == 0) server.handle = -1;
  // Servers reached through this one are cut off with it.
  for (std::size_t i = static_cast<std::size_t>(index) + 1; i < Script().servers.size(); ++i) {
    if (Script().servers[i].in_use != 0 && Script().servers[i].via_server == index) {
      ResetServer(static_cast<int>(i));
    }
  }
}

int ServerWithHandle(int handle) {
  const std::vector<AquonServer>& servers = Script().servers;
  for (std::size_t i = 0; i < servers.size(); ++i) {
    if (servers[i].in_use != 0 && servers[i].handle == handle) return static_cast<int>(i);
  }
  return -1;
}

void InitServers(int poll_interval, int timeout, int parent) {
  ScriptState& s = Script();
  char name[VARN_PARENT_INFO_SIZE];
  char id[VARN_PARENT_INFO_SIZE];
  if (parent >= 0 && varn_get_parent_info(name, id)) {
    int index = aquon_allocate_server(name, id, nullptr, nullptr, nullptr, -1, 0, 0);
    if (index == 0) {
      Server(0).handle = parent;
      Server(0).external = 1;
    }
  } else if (s.aquon_initialized != 0) {
    TakeEmptySlot();  // slot 0 in a fresh table: later servers start at 1
  }
  // A negative interval gives a count of 0 or less: starts then fail at
  // once instead of polling.
  if (poll_interval != 0) s.aquon_poll_interval = poll_interval;
  if (timeout != 0) {
    s.aquon_poll_count = timeout / s.aquon_poll_interval + 1;
  } else {
    s.aquon_poll_count = s.aquon_poll_count / s.aquon_poll_interval;
  }
}

}  // namespace varn::script

namespace script = varn::script;
using script::Script;
using script::Server;
using script::ValidServer;
using varn::core::OnApplicationThread;

namespace {

std::string Text(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

extern "C" int aquon_allocate_server(const char* name, const char* id, const char* host_variable,
                                     const char* arguments, const char* argument_function,
                                     int via_server, int non_velor, int keep_entry) noexcept {
  OnApplicationThread();
  if (Script().aquon_initialized == 0) return -1;
  int index = script::TakeEmptySlot();
  script::AquonServer& server = Server(index);
  server.name = Text(name);
  server.id = Text(id);
  server.host_variable = Text(host_variable);
  server.arguments = Text(arguments);
  server.argument_function = Text(argument_function);
  server.via_server = via_server;
  server.non_velor = static_cast<std::uint32_t>(non_velor);
  server.keep_entry = static_cast<std::uint32_t>(keep_entry);
  return index;
}

extern "C" int aquon_find_server(const char* name, int via_server) noexcept {
  OnApplicationThread();
  if (name == nullptr) return -1;
  // Where the display server also serves datasets it stands for the
  // dataset server.
  if ((std::strcmp(name, "dataset") == 0 || std::strcmp(name, "dravodss") == 0) &&
      varn_dataset_is_merged() != 0) {
    name = "dravodds";
  }
  const std::vector<script::AquonServer>& servers = Script().servers;
  for (std::size_t i = 0; i < servers.size(); ++i) {
    const script::AquonServer& s = servers[i];
    if (s.in_use != 0 && s.via_server == via_server && gsl_strcmp(s.name.c_str(), name) == 0) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

extern "C" int aquon_decode_server(int type, struct MIRLValue* value) noexcept {
  OnApplicationThread();
  int fallback = Script().aquon_default_server;
  switch (type) {
    case AvalInteger:
      return convertToInt(value);
    case AvalString: {
      const char* name = aval_value_data(value);
      int index = aquon_find_server(name, -1);
      if (index == -1 && fallback != -1) index = aquon_find_server(name, fallback);
      return index;
    }
    case AvalNone:
      return fallback;
    default:
      return -1;
  }
}

extern "C" void* aquon_get_server(int index, int field) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) return nullptr;
  script::AquonServer& s = Server(index);
  switch (field) {
    case script::kFieldName:
      return const_cast<char*>(s.name.c_str());
    case script::kFieldId:
      return const_cast<char*>(s.id.c_str());
    case script::kFieldHostVariable:
      return const_cast<char*>(s.host_variable.c_str());
    case script::kFieldArguments:
      return const_cast<char*>(s.arguments.c_str());
    case script::kFieldHandle:
      return &s.handle;
    case script::kFieldViaServer:
      return &s.via_server;
    case script::kFieldNonVelor:
      return &s.non_velor;
    case script::kFieldArgumentFunction:
      return const_cast<char*>(s.argument_function.c_str());
    case script::kFieldKeepEntry:
      return &s.keep_entry;
    default:
      return nullptr;
  }
}

extern "C" int aquon_register_server(const char* name, const char* id, int handle) noexcept {
  OnApplicationThread();
  if (Script().aquon_initialized == 0) return -1;
  uint32_t status = 0;
  char text[VARN_STATUS_TEXT_SIZE];
  if (!varn_query_status(handle, &status, text)) return -1;
  int index = aquon_allocate_server(name, id, nullptr, nullptr, nullptr, -1, 0, 0);
  Server(index).handle = handle;
  Server(index).external = 1;
  return index;
}

extern "C" int aquon_clear_server(int index) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  Server(index).busy = 0;
  return 1;
}

extern "C" void aquon_delete_server(int index, int kill) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) return;
  if (kill != 0 && Server(index).handle >= 0) {
    aquon_kill_server(index);
    Server(index).handle = -1;
  }
  script::AquonServer& s = Server(index);
  int handle = s.handle;
  bool started_here = s.started_here != 0;
  // The handler entries' data belongs to whoever pushed them: the script
  // functions that scripts pushed are ours to release, the rest is left.
  for (const script::AquonHandler& handler : s.handlers) {
    if (handler.function == script::CallMirlHandler) {
      aval_free_value(static_cast<MIRLValue*>(handler.data));
    }
  }
  s = script::AquonServer{};
  if (started_here && handle >= 0) varn_deinit_entry(handle);
}

extern "C" int aquon_kill_server(int index) noexcept {
  OnApplicationThread();
  if (index == 0 || !ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  if (index == Script().aquon_last_connected) {
    script::ResetServer(index);
    return 1;
  }
  script::AquonServer& s = Server(index);
  if (s.handle >= 0 && s.external == 0) {
    int handle = s.handle;
    if (!varn_send_msg(handle, VARN_KILL, nullptr, 0)) {
      script::RaiseVarnError();
      return 0;
    }
    script::ResetServer(index);
    // Records that share the process (the status and help servers, a
    // launcher's one instance) lose it too: a kill through them would go
    // to a row that no longer exists.
    for (std::size_t i = 1; i < Script().servers.size(); ++i) {
      const script::AquonServer& other = Script().servers[i];
      if (other.in_use != 0 && other.handle == handle && other.external == 0) {
        script::ResetServer(static_cast<int>(i));
      }
    }
    return 1;
  }
  script::RaiseScriptError(script::kServerNotRunning, "%s", s.name.c_str());
  return 0;
}

extern "C" void aquon_shutdown_servers(void) noexcept {
  OnApplicationThread();
  for (std::size_t i = 1; i < Script().servers.size(); ++i) {
    if (Script().servers[i].in_use != 0 && Script().servers[i].handle >= 0) {
      aquon_kill_server(static_cast<int>(i));
      Script().servers[i].handle = -1;
    }
  }
}

extern "C" void aquon_reset_servers(void) noexcept {
  OnApplicationThread();
  for (std::size_t i = 1; i < Script().servers.size(); ++i) {
    if (Script().servers[i].in_use != 0) aquon_delete_server(static_cast<int>(i), 1);
  }
}

extern "C" int aquon_set_server_parms(int index, const char* arguments) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) return 0;
  if (arguments != nullptr) Server(index).arguments = arguments;
  return 1;
}

extern "C" int aquon_set_default_server(int index) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) return 0;
  Script().aquon_default_server = index;
  return 1;
}

extern "C" int aquon_set_varn_error(void) noexcept {
  OnApplicationThread();
  return script::RaiseVarnError();
}

extern "C" void aquon_init_servers(int poll_interval, int timeout, int parent) noexcept {
  OnApplicationThread();
  script::InitServers(poll_interval, timeout, parent);
}
