// The vocabulary's functions for the status and help servers and the trace.
#include <string>

#include "host/memory.h"
#include "script/mirl_args.h"
#include "script/server_table.h"
#include "script/vocabulary.h"
#include "varn.h"

namespace varn::script::mirl_functions {
namespace {

using core::OnApplicationThread;

// A text argument that must not be empty; raises 343 when it is.
bool NonEmptyText(std::string* text) {
  if (!args::Text(0, text)) return false;
  if (text->empty()) {
    arun_parm_error(343, 0, "expecting non-null string");
    return false;
  }
  return true;
}

}  // namespace

MIRLValue* open_status_session() {
  OnApplicationThread();
  if (!ValidServer(0)) return nullptr;  // nothing has been set up yet
  int session = varn_status_open_session();
  return session != 0 ? aval_create_raw_integer(session) : nullptr;
}

MIRLValue* send_status_text() {
  OnApplicationThread();
  int number = 0, progress = 0;
  MIRLValue* text = nullptr;
  if (arun_num_parm() < 2 || !arun_get_int_parm(0, &number) || !arun_get_int_parm(1, &progress) ||
      !arun_get_typed_parm(2, AvalString, &text)) {
    return nullptr;
  }
  std::size_t size = static_cast<std::size_t>(aval_string_length(text)) + 1;
  char* copy = static_cast<char*>(host::gmem_ko_malloc(size));
  MIRLValue* result = nullptr;
  if (copy == nullptr) {
    aerr_memory_error();
  } else if (!aval_string_value(text, static_cast<int>(size), copy)) {
    arun_aerr_set("MIRL", 303, "Bad arguments", "Bad arguments");
  } else {
    // A set progress flag makes a warning line, a clear one a progress line.
    uint32_t kind = progress != 0 ? VARN_STATUS_WARNING : VARN_STATUS_PROGRESS;
    bool shown =
        varn_status_display_de(static_cast<uint32_t>(number), kind, copy, nullptr, nullptr) != 0;
    result = shown ? AvalTrue : AvalFalse;
  }
  host::gmem_ko_free(copy);
  aval_free_value(text);
  return result;
}

MIRLValue* mirl_open_url() {
  OnApplicationThread();
  std::string url;
  if (!NonEmptyText(&url)) return nullptr;
  if (varn_help_invoke()) varn_help_open_url(url.c_str());
  return nullptr;
}

MIRLValue* weblinked_error() {
  OnApplicationThread();
  std::string text;
  if (!NonEmptyText(&text)) return nullptr;
  if (!varn_help_invoke()) return nullptr;
  return varn_help_weblinked_error(text.c_str()) ? AvalTrue : AvalFalse;
}

MIRLValue* tracepoint() {
  OnApplicationThread();
  std::string text;
  if (!args::Text(0, &text)) return nullptr;
  return varn_send_trace_msg(text.c_str()) ? AvalTrue : nullptr;
}

}  // namespace varn::script::mirl_functions
