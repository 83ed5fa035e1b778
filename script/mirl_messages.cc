// The vocabulary's functions that send to servers, wait for them, and
// manage their handlers.
#include <string>

#include "script/handlers.h"
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

// Replies are read into this much: at most 5799 characters and a NUL.
constexpr int kReplySize = 5800;

bool WaitWanted(int wait) REQUIRES(core::kLibrary) {
  return Script().aquon_command_wait != 0 || wait != 0;
}

MIRLValue* SendPlain(int category) REQUIRES(core::kLibrary) {
  std::string text, directory;
  if (!args::Text(0, &text)) return nullptr;
  int index = args::ServerIndex(1);
  if (args::OptionalText(2, &directory) == Read::kWrongType) return nullptr;
  int handle = EnsureServer(index, 0, directory.c_str());
  if (handle >= 0 && !varn_send_msg(handle, category, text.c_str(), text.size())) {
    RaiseVarnError();
  }
  return nullptr;
}

}  // namespace

MIRLValue* send_server_command() {
  OnApplicationThread();
  std::string command, directory;
  if (!args::Text(0, &command)) return nullptr;
  int index = args::ServerIndex(1);
  int wait = 0;
  if (args::OptionalInt(2, &wait) == Read::kWrongType) return aval_create_string("");
  if (args::OptionalText(3, &directory) == Read::kWrongType) return nullptr;
  char reply[kReplySize] = "";
  if (aquon_command_server(command.c_str(), index, directory.c_str()) && WaitWanted(wait)) {
    aquon_wait_for_done_msg(index, reply);
  }
  return aval_create_string(reply);
}

MIRLValue* send_server_error() {
  OnApplicationThread();
  return SendPlain(VARN_ERROR);
}

MIRLValue* send_server_data() {
  OnApplicationThread();
  return SendPlain(VARN_DATA);
}

MIRLValue* send_server_datablock() {
  OnApplicationThread();
  std::string title, end_text, directory;
  MIRLValue* items = nullptr;
  if (!args::Text(0, &title) || !arun_get_typed_parm(1, AvalList, &items)) return nullptr;
  int index = args::ServerIndex(2);
  int wait = 0;
  end_text = title;
  if (args::OptionalText(3, &end_text) == Read::kWrongType ||
      args::OptionalInt(4, &wait) == Read::kWrongType ||
      args::OptionalText(5, &directory) == Read::kWrongType) {
    aval_free_value(items);
    return nullptr;
  }
  bool sent = aquon_start_data_block_server(title.c_str(), index, directory.c_str()) != 0;
  if (sent) {
    int n = aval_list_length(items);
    for (int i = 0; i < n; ++i) {
      // Items that have no text (lists, functions) are passed over.
      MIRLValue* text = aval_copy_value(aval_nth_list(items, i), AvalString);
      if (text != nullptr) aquon_cont_data_block_server(aval_value_data(text));
      aval_free_value(text);
    }
    aquon_end_data_block_server(end_text.c_str());
  }
  aval_free_value(items);
  char reply[kReplySize] = "";
  bool ok = sent;
  if (WaitWanted(wait) && !aquon_wait_for_done_msg(index, reply)) ok = false;
  return ok ? aval_create_string(reply) : nullptr;
}

MIRLValue* send_server_done() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  std::string text;
  bool has_text = false;
  if (arun_num_parm() == 2) {
    Read read = args::OptionalText(1, &text);
    if (read == Read::kWrongType) return AvalFalse;
    has_text = read == Read::kRead;
  }
  if (!ValidServer(index)) return AvalFalse;
  int sent = varn_send_msg(Server(index).handle, VARN_DONE, has_text ? text.c_str() : nullptr, 0);
  return sent ? AvalTrue : AvalFalse;
}

MIRLValue* send_server_interrupt() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  std::string text;
  // A text of the wrong type counts as none.
  bool has_text = arun_num_parm() == 2 && args::OptionalText(1, &text) == Read::kRead;
  aquon_interrupt_server_msg(index, has_text ? text.c_str() : nullptr);
  return nullptr;
}

MIRLValue* send_server_kill() {
  OnApplicationThread();
  aquon_kill_server(args::ServerIndex(0));
  return nullptr;
}

MIRLValue* read_server_wait() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  char reply[kReplySize] = "";
  int length = kReplySize - 1;
  int kind = -1;
  if (!aquon_read_server_wait(index, reply, &length, &kind)) return nullptr;
  if (arun_peek_parm(1) != AvalNone) {
    int type = AvalNone;
    MIRLValue* variable = nullptr;
    arun_get_parm(1, &type, &variable);
    MIRLValue* value = aval_create_raw_integer(kind);
    arun_set_value(variable, value);
    aval_free_value(value);
    aval_free_value(variable);
  }
  return aval_create_string(reply);
}

MIRLValue* push_message_handler() {
  OnApplicationThread();
  MIRLValue* function = nullptr;
  if (!arun_get_typed_parm(0, AprgFunction, &function)) return nullptr;
  int index = args::ServerIndex(1);
  // The stack keeps the function value until it is popped.
  if (!aquon_push_handler(index, CallMirlHandler, function)) aval_free_value(function);
  return nullptr;
}

MIRLValue* pop_message_handler() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  if (!ValidServer(index) || Server(index).handlers.empty()) return nullptr;
  AquonHandler top = Server(index).handlers.back();
  aquon_pop_handler(index, nullptr);
  // Only the values of script handlers are the script's to release; a
  // handler the host's code pushed keeps its data.
  if (top.function == CallMirlHandler) aval_free_value(static_cast<MIRLValue*>(top.data));
  return nullptr;
}

MIRLValue* wait_for_done() {
  OnApplicationThread();
  int index = args::ServerIndex(0);
  char reply[kReplySize] = "";
  if (!aquon_wait_for_done_msg(index, reply)) return nullptr;
  return aval_create_string(reply);
}

MIRLValue* get_done_msg() {
  OnApplicationThread();
  return aval_create_string(Script().aquon_last_done_message.c_str());
}

}  // namespace varn::script::mirl_functions
