// Messages to servers: commands, data, errors, interrupts and outgoing
// blocks. A command or a block makes its server busy until its DONE.
#include <cstring>
#include <string>

#include "script/script_errors.h"
#include "script/server_start.h"
#include "script/server_table.h"
#include "varn.h"

namespace script = varn::script;
using script::Script;
using script::Server;
using script::ValidServer;
using varn::core::OnApplicationThread;

namespace {

// In debug mode nothing answers, so nothing is awaited.
std::uint32_t BusyAfterSend() { return varn_debug_true() ? 0 : 1; }

bool Send(int handle, int category, const char* text) REQUIRES(varn::core::kLibrary) {
  if (varn_send_msg(handle, category, text, text != nullptr ? std::strlen(text) : 0)) return true;
  script::RaiseVarnError();
  return false;
}

int SendPlain(int category, const char* text, int index, const char* directory)
    REQUIRES(varn::core::kLibrary) {
  int handle = script::EnsureServer(index, 0, directory);
  if (handle < 0) return 0;
  return Send(handle, category, text) ? 1 : 0;
}

}  // namespace

extern "C" int aquon_command_server(const char* command, int index,
                                    const char* directory) noexcept {
  OnApplicationThread();
  int handle = script::EnsureServer(index, 0, directory);
  if (handle < 0 || !ValidServer(index)) return 0;
  if (Server(index).busy != 0) {
    script::RaiseScriptError(script::kServerBusy, "%s", Server(index).name.c_str());
    return 0;
  }
  if (!Send(handle, VARN_CMD, command)) return 0;
  if (ValidServer(index)) Server(index).busy = BusyAfterSend();
  return 1;
}

extern "C" int aquon_data_server(const char* text, int index, const char* directory) noexcept {
  OnApplicationThread();
  return SendPlain(VARN_DATA, text, index, directory);
}

extern "C" int aquon_error_server(const char* text, int index, const char* directory) noexcept {
  OnApplicationThread();
  return SendPlain(VARN_ERROR, text, index, directory);
}

extern "C" int aquon_start_data_block_server(const char* title, int index,
                                             const char* directory) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  int handle = script::EnsureServer(index, 0, directory);
  Script().aquon_block_handle = handle;
  if (handle < 0) return 0;
  Script().aquon_block_server = index;
  if (!ValidServer(index)) return 0;
  if (Server(index).busy != 0) {
    script::RaiseScriptError(script::kServerBusy, "%s", Server(index).name.c_str());
    return 0;
  }
  if (title == nullptr) {
    script::RaiseScriptError(script::kMissingBlockTitle);
    return 0;
  }
  return Send(handle, VARN_BEGIN, title) ? 1 : 0;
}

extern "C" int aquon_cont_data_block_server(const char* text) noexcept {
  OnApplicationThread();
  if (Script().aquon_block_handle < 0 || Script().aquon_block_server < 0) return 0;
  return Send(Script().aquon_block_handle, VARN_DATA, text) ? 1 : 0;
}

extern "C" int aquon_end_data_block_server(const char* text) noexcept {
  OnApplicationThread();
  script::ScriptState& s = Script();
  if (s.aquon_block_handle < 0 || s.aquon_block_server < 0) return 0;
  if (!Send(s.aquon_block_handle, VARN_END, text != nullptr ? text : "")) return 0;
  int index = s.aquon_block_server;
  s.aquon_block_handle = -1;
  s.aquon_block_server = -1;
  if (ValidServer(index)) Server(index).busy = BusyAfterSend();
  return 1;
}

int aquon_interrupt_server_msg(int index, const char* text) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  const script::AquonServer& server = Server(index);
  if (server.handle < 0 || server.external != 0) {
    script::RaiseScriptError(script::kServerNotRunning, "%s", server.name.c_str());
    return 0;
  }
  if (varn_send_msg(server.handle, VARN_INTR, text, 0)) return 1;
  script::RaiseVarnError();
  return 0;
}

extern "C" int aquon_interrupt_server(int index) noexcept {
  return aquon_interrupt_server_msg(index, nullptr);
}

extern "C" int aquon_set_data_done_args(int index, const char* text) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  Server(index).done_text = text != nullptr ? text : "";
  return 1;
}
