// Starting and connecting servers.
#include "script/server_start.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "host/astr_string.h"
#include "host/lorn_path.h"
#include "host/mirl/mirl.h"
#include "host/settings.h"
#include "host/support.h"
#include "script/script_errors.h"
#include "script/server_table.h"
#include "varn.h"

namespace varn::script {
namespace {

// Who starts a program of the environment's own tools and services.
enum class Route { kDataset, kInstrument, kDftool, kDisplay, kStatus, kHelp, kPlain };

struct KnownServer {
  const char* name;
  Route route;
};

// Compared in this order, exactly; the first match decides.
constexpr KnownServer kKnownServers[] = {
    {"dataset", Route::kDataset},
    {"dravodss", Route::kDataset},
    {"dravodss.exe", Route::kDataset},
    {"kograph", Route::kDataset},
    {"instrument", Route::kInstrument},
    {"dravoinstrio", Route::kInstrument},
    {"dftool", Route::kDftool},
    {"velordftool", Route::kDftool},
    {"display", Route::kDisplay},
    {"dravodds", Route::kDisplay},
    {"status", Route::kStatus},
    {"dravosess", Route::kStatus},
    {"help", Route::kHelp},
    {"dravohelp", Route::kHelp},
};

Route RouteOf(const char* program) {
  for (const KnownServer& known : kKnownServers) {
    if (std::strcmp(known.name, program) == 0) return known.route;
  }
  return Route::kPlain;
}

void CopyText(char* error_text, const char* text) {
  std::snprintf(error_text, VARN_STATUS_TEXT_SIZE, "%s", text);
}

// A launcher that fails says nothing itself; the library's reason is
// handed on so that the script's error tells why.
void NoteLauncherFailure(char* error_text) {
  if (error_text[0] == '\0') CopyText(error_text, varn_get_error_message(varn_get_error_no()));
}

// Starts a program, routing the environment's tools to their launchers
// and the status and help servers to the one instance this process shares.
int LaunchProgram(int* handle, const char* program, const char* host, const char* arguments,
                  int keep_entry, char* error_text, const char* directory)
    REQUIRES(core::kLibrary) {
  error_text[0] = '\0';
  std::string workdir =
      directory != nullptr && directory[0] != '\0' ? directory : DefaultDirectory();
  ScriptState& s = Script();
  int h = -1;
  switch (RouteOf(program)) {
    case Route::kDataset:
      h = varn_dataset_invoke();
      break;
    case Route::kInstrument:
      h = varn_instrument_invoke();
      break;
    case Route::kDftool:
      h = varn_dftool_invoke();
      break;
    case Route::kDisplay:
      h = varn_dds_invoke_with_args(arguments);
      break;
    case Route::kStatus:
      if (s.aquon_status_started == 0) {
        if (varn_status_open_session() != 0) {
          s.aquon_status_handle = varn_status_get_varnhandle();
          s.aquon_status_started = 1;
        } else {
          CopyText(error_text, "Unable to start status server.");
        }
      }
      if (s.aquon_status_started != 0) *handle = s.aquon_status_handle;
      return 1;
    case Route::kHelp:
      if (s.aquon_help_started == 0) {
        if (varn_help_invoke() != 0) {
          s.aquon_help_handle = varn_help_get_handle();
          s.aquon_help_started = 1;
        } else {
          CopyText(error_text, "Unable to start help server.");
        }
      }
      if (s.aquon_help_started != 0) *handle = s.aquon_help_handle;
      return 1;
    case Route::kPlain:
      return varn_invoke(handle, program, host, arguments, static_cast<uint32_t>(keep_entry),
                         error_text, workdir.c_str());
  }
  if (h >= 0) {
    *handle = h;
  } else {
    NoteLauncherFailure(error_text);
  }
  return 1;
}

// Polls the started program until it reports itself idle. False when it
// reports DEAD, cannot be asked, or stays busy for every poll.
bool PollUntilIdle(int handle) REQUIRES(core::kLibrary) {
  int count = Script().aquon_poll_count;
  for (int i = 0; i < count; ++i) {
    uint32_t status = VARN_STATUS_DEAD;
    // The status text of a program may be as long as the library allows.
    char text[VARN_STATUS_TEXT_SIZE];
    if (!varn_query_status(handle, &status, text) || status == VARN_STATUS_DEAD) return false;
    if (status == VARN_STATUS_IDLE) return true;
    gsl_sleep(Script().aquon_poll_interval);
  }
  return false;
}

// The host a server is started on: the value of its host setting, the
// local host when it has none.
std::string HostOf(const std::string& host_variable) {
  if (host_variable.empty()) return "";
  char buffer[1024];
  int length = 0;
  if (gui_env_get_ko(host_variable.c_str(), buffer, &length, sizeof buffer, 0) < 0) return "";
  return buffer;
}

// The argument text after the script's argument function (when it has one
// and it gives a value) has had its say.
std::string ArgumentsOf(const std::string& arguments, const std::string& function) {
  MIRLValue* argument = aval_create_string(arguments.c_str());
  MIRLValue* result = nullptr;
  autil_call(AdbgVoc, function.c_str(), &result, 1, argument);
  aval_free_value(argument);
  std::string text = arguments;
  if (result != nullptr) {
    // A value that is not a text is taken as the text it converts to; one
    // that does not convert leaves the arguments as they are.
    MIRLValue* as_text = aval_copy_value(result, AvalString);
    if (as_text != nullptr && aval_value_data(as_text) != nullptr) text = aval_value_data(as_text);
    aval_free_value(as_text);
    aval_free_value(result);
  }
  return text;
}

// Servers whose start is under way, so that a server reached through
// itself (directly or round a circle) ends with an error instead of
// recursing for ever.
std::vector<int> g_ensuring GUARDED_BY(core::kLibrary);

int ConnectViaServer(int index, int via) REQUIRES(core::kLibrary);

int EnsureUnguarded(int index, int nonvelor_kind, const char* directory) REQUIRES(core::kLibrary) {
  // Copies: a script's argument function may add servers and move the
  // records.
  AquonServer server = Server(index);
  if (server.handle >= 0) return server.handle;
  if (index == 0) return -1;
  if (server.name.empty()) {
    RaiseScriptError(kNoServerName);
    return -1;
  }
  std::string workdir =
      directory != nullptr && directory[0] != '\0' ? directory : DefaultDirectory();
  if (server.via_server >= 0) return ConnectViaServer(index, server.via_server);
  std::string host = HostOf(server.host_variable);
  std::string arguments = ArgumentsOf(server.arguments, server.argument_function);
  // Start routines write at most this much error text.
  char error_text[VARN_STATUS_TEXT_SIZE] = "";
  int handle = -1;
  bool ok;
  if (server.non_velor != 0) {
    ok = varn_invoke_nonvelor_program(&handle, server.name.c_str(), host.c_str(), arguments.c_str(),
                                      server.keep_entry, error_text,
                                      static_cast<uint32_t>(nonvelor_kind), workdir.c_str()) != 0;
  } else {
    ok = LaunchProgram(&handle, server.name.c_str(), host.c_str(), arguments.c_str(),
                       static_cast<int>(server.keep_entry), error_text, workdir.c_str()) != 0;
    ok = PollUntilIdle(handle) && ok;
  }
  if (!ok) {
    RaiseScriptError(kCouldNotInvoke, "%s", error_text);
    return -1;
  }
  if (ValidServer(index)) {
    Server(index).handle = handle;
    Server(index).started_here = 1;
  }
  return handle;
}

int ConnectViaServer(int index, int via) {
  if (!ValidServer(index) || !ValidServer(via)) {
    RaiseScriptError(kNoServerSet);
    return -1;
  }
  int via_handle = Server(via).handle;
  if (via_handle < 0) via_handle = EnsureServer(via, 0, "");
  std::string name = Server(index).name;
  int handle = -1;
  if (!varn_connect_server(&handle, via_handle, name.c_str())) {
    RaiseVarnError();
    return -1;
  }
  if (ValidServer(index)) Server(index).handle = handle;
  return handle;
}

// One record of the hub's process list.
struct ListedProcess {
  std::string name;
  std::string address;
  std::string third;
};

// The hub's process list, copied out: connecting a process asks the hub
// again and reuses the buffer the list came in.
bool ReadProcessList(std::vector<ListedProcess>* records) REQUIRES(core::kLibrary) {
  char* list = nullptr;
  char* cursor = nullptr;
  if (!varn_query_pg_process(&list) || !varn_prep_query_result(list, &cursor)) return false;
  char name[VARN_QUERY_WORD_SIZE];
  char address[VARN_QUERY_WORD_SIZE];
  char third[VARN_QUERY_WORD_SIZE];
  int number = 0;
  while (varn_get_query_result(&cursor, name, address, third, &number)) {
    records->push_back({name, address, third});
  }
  return true;
}

bool ConnectByAddress(const char* address, int* handle) REQUIRES(core::kLibrary) {
  *handle = -1;
  std::vector<ListedProcess> records;
  if (address == nullptr || !ReadProcessList(&records)) return false;
  for (const ListedProcess& p : records) {
    if (p.address == address) {
      return varn_connect_process(handle, p.name.c_str(), p.address.c_str(), p.third.c_str()) != 0;
    }
  }
  return false;
}

// A listed name matches by itself or by its program name: the last
// component of the path without its extension.
bool NameMatches(const std::string& listed, const char* name) {
  if (listed == name) return true;
  char* copy = host::astr_new_string(listed.c_str());
  if (copy == nullptr) return false;
  char* leaf = host::astr_get_leaf_name(copy);
  host::astr_remove_extent(leaf);
  bool same = std::strcmp(leaf, name) == 0;
  host::astr_free_string(copy);
  return same;
}

bool ConnectByName(const char* name, int* handle) REQUIRES(core::kLibrary) {
  std::vector<ListedProcess> records;
  if (!ReadProcessList(&records)) return false;
  for (const ListedProcess& p : records) {
    if (!NameMatches(p.name, name)) continue;
    if (varn_connect_process(handle, p.name.c_str(), p.address.c_str(), p.third.c_str())) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::string DefaultDirectory() {
  std::string cwd = host::LORN::getcwd_utf8();
  if (cwd.find(' ') != std::string::npos && cwd.find('"') == std::string::npos) {
    return "\"" + cwd + "\"";
  }
  return cwd;
}

int EnsureServer(int index, int nonvelor_kind, const char* directory) {
  if (!ValidServer(index)) {
    RaiseScriptError(kNoServerSet);
    return -1;
  }
  if (Server(index).handle >= 0) return Server(index).handle;
  if (std::find(g_ensuring.begin(), g_ensuring.end(), index) != g_ensuring.end()) {
    RaiseScriptError(kCouldNotInvoke, "%s is reached through itself", Server(index).name.c_str());
    return -1;
  }
  g_ensuring.push_back(index);
  int handle = EnsureUnguarded(index, nonvelor_kind, directory);
  g_ensuring.pop_back();
  return handle;
}

}  // namespace varn::script

namespace script = varn::script;
using script::Script;
using script::Server;
using script::ValidServer;
using varn::core::OnApplicationThread;

extern "C" int aquon_start_server(int index, int nonvelor_kind, const char* directory) noexcept {
  OnApplicationThread();
  return script::EnsureServer(index, nonvelor_kind, directory) >= 0 ? 1 : 0;
}

extern "C" int aquon_server_running(int index, const char* directory) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) return 0;
  if (Server(index).handle >= 0) return 1;
  int via = Server(index).via_server;
  if (via < 0 || !ValidServer(via) || Server(via).handle < 0) return 0;
  // Reachable through a running server: connected on the spot.
  return script::EnsureServer(index, 0, directory) >= 0 ? 1 : 0;
}

extern "C" const char* aquon_query_server_address(int index) noexcept {
  OnApplicationThread();
  if (script::EnsureServer(index, 0, "") < 0) return nullptr;
  char* address = nullptr;
  std::string name = Server(index).name;
  if (!varn_query_server_address(name.c_str(), &address)) return nullptr;
  return address;
}

extern "C" int aquon_connect_server(const char* address) noexcept {
  OnApplicationThread();
  int handle = -1;
  if (!script::ConnectByAddress(address, &handle)) return -1;
  int index = script::ServerWithHandle(handle);
  if (index >= 0) return index;
  if (Script().aquon_initialized == 0) return -1;
  index = script::TakeEmptySlot();
  Script().aquon_last_connected = index;
  Server(index).handle = handle;
  Server(index).external = 1;
  return index;
}

extern "C" int aquon_server_connect_process(int index) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  if (Server(index).handle >= 0) return 1;
  std::string name = Server(index).name;
  if (name.empty()) {
    script::RaiseScriptError(script::kNoServerName);
    return 0;
  }
  int handle = -1;
  if (!script::ConnectByName(name.c_str(), &handle)) return 0;
  if (!ValidServer(index)) return 0;
  Server(index).handle = handle;
  return 1;
}

extern "C" int aquon_query_all_server_handles(int* handles, int* count) noexcept {
  OnApplicationThread();
  std::vector<script::ListedProcess> records;
  if (!script::ReadProcessList(&records)) return 0;
  int n = 0;
  for (const script::ListedProcess& p : records) {
    // The caller's array has room for one handle a row of the table.
    if (n >= VARN_MAX_ENTRIES) break;
    int handle = -1;
    if (varn_connect_process(&handle, p.name.c_str(), p.address.c_str(), p.third.c_str())) {
      handles[n++] = handle;
    }
  }
  *count = n;
  return 1;
}
