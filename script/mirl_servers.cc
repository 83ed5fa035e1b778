// The vocabulary's functions that create, find, start, connect, describe
// and free servers.
#include <string>

#include "script/mirl_args.h"
#include "script/script_errors.h"
#include "script/server_start.h"
#include "script/server_table.h"
#include "script/vocabulary.h"
#include "varn.h"

namespace varn::script::mirl_functions {
namespace {

using args::Read;
using core::OnApplicationThread;

MIRLValue* Integer(int value) { return aval_create_raw_integer(value); }
MIRLValue* Truth(bool value) { return value ? AvalTrue : AvalFalse; }

}  // namespace

MIRLValue* create_server() {
  OnApplicationThread();
  std::string name, id;
  if (!args::Text(0, &name) || !args::Text(1, &id)) return nullptr;
  // Argument 2 says where: a text names the host setting, an integer the
  // server it is reached through.
  std::string host_variable;
  int via_server = -1;
  int type = AvalNone;
  MIRLValue* where = nullptr;
  arun_get_parm(2, &type, &where);
  if (type == AvalString) {
    host_variable = aval_value_data(where);
  } else if (type == AvalInteger) {
    via_server = convertToInt(where);
  } else {
    arun_parm_error(304, 2, "wrong parameter type");
  }
  aval_free_value(where);
  std::string arguments, argument_function;
  int non_velor = 0, keep_entry = 0;
  bool is_new = false;
  int n = arun_num_parm();
  if (n > 3 && args::OptionalText(3, &arguments) == Read::kWrongType) return nullptr;
  if (n > 4 && args::OptionalInt(4, &non_velor) == Read::kWrongType) return nullptr;
  if (n > 5 && args::OptionalText(5, &argument_function) == Read::kWrongType) return nullptr;
  if (n > 6 && args::OptionalBool(6, &is_new) == Read::kWrongType) return nullptr;
  if (n > 7 && args::OptionalInt(7, &keep_entry) == Read::kWrongType) return nullptr;
  int index = aquon_find_server(name.c_str(), via_server);
  if (index == -1 || is_new) {
    index =
        aquon_allocate_server(name.c_str(), id.c_str(), host_variable.c_str(), arguments.c_str(),
                              argument_function.c_str(), via_server, non_velor, keep_entry);
  }
  return Integer(index);
}

MIRLValue* delete_server() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  bool kill = false;
  if (arun_num_parm() == 2 && args::OptionalBool(1, &kill) == Read::kWrongType) return AvalFalse;
  if (!ValidServer(index)) {
    RaiseScriptError(kNoServerSet);
    return AvalFalse;
  }
  aquon_delete_server(index, kill ? 1 : 0);
  return AvalTrue;
}

MIRLValue* register_server() {
  OnApplicationThread();
  std::string name, id;
  int handle = -1;
  if (!args::Text(0, &name) || !args::Text(1, &id) || !arun_get_int_parm(2, &handle)) {
    return nullptr;
  }
  int index = aquon_find_server(name.c_str(), -1);
  if (index == -1) index = aquon_register_server(name.c_str(), id.c_str(), handle);
  return Integer(index);
}

MIRLValue* clear_server() {
  OnApplicationThread();
  aquon_clear_server(args::ServerIndex(0));
  return nullptr;
}

MIRLValue* start_server() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  int kind = VARN_NONVELOR_INVOKER;
  if (arun_peek_parm(1) == AvalBoolean) {
    int variant = 0;
    if (arun_get_int_parm(1, &variant) && variant > 0) kind = VARN_NONVELOR_INVOKERE;
  }
  // A directory of the wrong type counts as none.
  std::string directory;
  args::OptionalText(2, &directory);
  EnsureServer(index, kind, directory.c_str());
  return nullptr;
}

MIRLValue* server_running() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  std::string directory;
  if (args::OptionalText(1, &directory) == Read::kWrongType) return nullptr;
  return aquon_server_running(index, directory.c_str()) ? Integer(1) : nullptr;
}

MIRLValue* query_server_address() {
  OnApplicationThread();
  const char* address = aquon_query_server_address(args::ServerIndex(0));
  return address != nullptr ? aval_create_string(address) : nullptr;
}

MIRLValue* set_server_parms() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  std::string arguments;
  if (!args::Text(1, &arguments)) return AvalFalse;
  return Truth(aquon_set_server_parms(index, arguments.c_str()) != 0);
}

MIRLValue* query_server_info() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  if (!ValidServer(index)) return nullptr;
  char* name = nullptr;
  char* address = nullptr;
  if (!varn_query_handle_address(Server(index).handle, &name, &address)) return nullptr;
  MIRLValue* list = aval_create_list(2);
  aval_put_list_item(list, 0, aval_create_string(address));
  aval_put_list_item(list, 1, aval_create_string(name));
  return list;
}

MIRLValue* connect_server() {
  OnApplicationThread();
  std::string address;
  if (!args::Text(0, &address)) return nullptr;
  return Integer(aquon_connect_server(address.c_str()));
}

MIRLValue* connect_server_by_name() {
  OnApplicationThread();
  aquon_server_connect_process(args::ServerIndex(0));
  return nullptr;
}

MIRLValue* query_server_status() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  if (!ValidServer(index)) return nullptr;
  int handle = Server(index).handle;
  if (handle < 0) {
    int via = Server(index).via_server;
    if (via < 0 || !ValidServer(via) || Server(via).handle < 0) return nullptr;
    handle = EnsureServer(index, 0, "");
    if (handle < 0) return nullptr;
  }
  uint32_t status = VARN_STATUS_DEAD;
  char text[VARN_STATUS_TEXT_SIZE];
  if (!varn_query_status(handle, &status, text) || status == VARN_STATUS_DEAD) return nullptr;
  return Integer(1);
}

MIRLValue* query_all_server_handles() {
  OnApplicationThread();
  int handles[VARN_MAX_ENTRIES];
  int count = 0;
  if (!aquon_query_all_server_handles(handles, &count)) return nullptr;
  MIRLValue* list = nullptr;
  for (int i = 0; i < count; ++i) {
    int index = ServerWithHandle(handles[i]);
    if (index < 0) continue;  // a process without a server record
    if (list == nullptr) {
      list = aval_insert_list_item(nullptr, Integer(index));
    } else {
      aval_append_list_item(list, Integer(index));
    }
  }
  return list;
}

}  // namespace varn::script::mirl_functions
