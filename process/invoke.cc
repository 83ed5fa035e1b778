// Starting processes through the hub: synchronous and asynchronous starts,
// programs that do not speak the protocol, and restarting a peer that
// exited. Application's thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "platform/system.h"
#include "varn.h"

namespace {

using varn::core::State;

constexpr std::size_t kErrorTextSize = VARN_STATUS_TEXT_SIZE;

// Wraps text in double quotes when it holds a blank and no double quote.
std::string Wrap(const std::string& text) {
  if (text.find(' ') != std::string::npos && text.find('"') == std::string::npos) {
    return "\"" + text + "\"";
  }
  return text;
}

std::string CommandWord(const char* name, const char* host) {
  if (host != nullptr && host[0] != '\0') return std::string(host) + ":" + name;
  return name;
}

int RequestCategory(uint32_t non_velor, uint32_t kind, bool async) {
  if (!non_velor) return async ? VARN_INVOKE_EX : VARN_INVOKE;
  switch (kind) {
    case VARN_NONVELOR_INVOKER:
      return VARN_INVOKER;
    case VARN_NONVELOR_INVOKERE:
      return VARN_INVOKERE;
    case VARN_NONVELOR_INVOKERN:
      return VARN_INVOKERN;
    default:
      return 0;
  }
}

// Steps shared by both starts: own address, row fields, request payload.
bool PrepareStart(varnHandle h, const char* name, const char* host, const char* args,
                  const char* workdir, std::string* payload) {
  // The own address ("pid@host") is not rebuilt here: its parts cannot
  // change, and the error-forwarding thread reads it without a lock.
  VarnEntry& row = VarnMessage[h];
  std::string dir;
  if (workdir != nullptr && workdir[0] != '\0') {
    dir = workdir;
  } else {
    char cwd[4096];
    dir = varn::platform::CurrentDirectory(cwd, sizeof cwd) ? cwd : ".";
  }
  std::string wrapped_dir = Wrap(dir);
  if (!varn_util_strcpy(&row.name, name) || (host && !varn_util_strcpy(&row.host, host)) ||
      !varn_util_strcpy(&row.args, args) || !varn_util_strcpy(&row.workdir, wrapped_dir.c_str())) {
    return false;
  }
  *payload = wrapped_dir + " " + Wrap(CommandWord(name, host));
  if (args != nullptr && args[0] != '\0') *payload += std::string(" ") + args;
  return true;
}

// Copies the refusal text into the caller's buffer, cut to its size.
void CopyRefusal(char* error_text, const char* text) {
  if (error_text == nullptr) return;
  std::snprintf(error_text, kErrorTextSize, "%s", text ? text : "");
}

// Reads until the row's last_category is ACCEPT, REJECT or SRVR_ERR.
void WaitForAnswer(varnHandle h) {
  int* set = nullptr;
  varn_queue_set_waitcat(&set, VARN_ACCEPT, VARN_REJECT, VARN_SRVR_ERR, 0);
  varn_queue_set_outband(h, set);
  VarnEntry& row = VarnMessage[h];
  row.last_category = 0;
  while (row.last_category != VARN_ACCEPT && row.last_category != VARN_REJECT &&
         row.last_category != VARN_SRVR_ERR) {
    if (!varn_recv_read_and_parse_message(1)) break;
  }
  varn_queue_reset_outband();
  varn_queue_free_waitcat(&set);
}

bool HasText(const VarnEntry& row) { return row.last_data != nullptr && row.last_data[0] != '\0'; }

void FillStarted(VarnEntry& row, uint32_t keep, uint32_t non_velor, uint32_t kind) {
  row.last_data_len = 0;
  row.send_stream = 1;
  row.recv_stream = 1;
  row.keep_entry = keep;
  row.owned = 1;
  row.non_velor = non_velor;
  row.enabled_by_address = 0;
  row.nonvelor_kind = kind;
  row.immediate_intr_kill = 0;
}

// The first half of both starts: debug simulation, the request category,
// the row's fields, and the request itself. Returns 1 when the request went
// out, 2 when debug mode simulated the start, 0 on failure (row freed).
int SendStart(varnHandle h, const char* name, const char* host, const char* args, uint32_t keep,
              uint32_t non_velor, char* error_text, uint32_t kind, const char* workdir,
              bool async) {
  if (error_text != nullptr) error_text[0] = '\0';
  if (varn_debug_true()) {
    varn_debug_invoke_entry(h, name, host, args, keep, State().opt_outfile);
    return 2;
  }
  VarnEntry& row = VarnMessage[h];
  auto fail = [&row] {
    row.state = ENTRY_FREE;
    return 0;
  };
  // A non-protocol start of an unknown kind asks nothing, so it must not
  // wait for an answer: it fails at once.
  int category = RequestCategory(non_velor, kind, async);
  if (category == 0) {
    VarnErrorNo = VARN_E_INVOKE;
    return fail();
  }
  std::string payload;
  if (!PrepareStart(h, name, host, args, workdir, &payload)) return fail();
  // A synchronous start's answer comes from "quon"; an asynchronous one's
  // from the command word, which is what the row's address holds meanwhile.
  row.state = async ? ENTRY_STARTING : ENTRY_ACTIVE;
  std::string address = async ? CommandWord(name, host) : "quon";
  if (!varn_util_strcpy(&row.address, address.c_str()) ||
      !varn_util_strcpy(&row.local_address, State().own_address)) {
    return fail();
  }
  row.last_category = 0;
  if (!varn_send_packet("quon", State().own_address, category, payload.c_str(), 0)) {
    return fail();
  }
  return 1;
}

using Starter = int (*)(varnHandle, const char*, const char*, const char*, uint32_t, uint32_t,
                        char*, uint32_t, const char*);

int Invoke(varnHandle* h, const char* name, const char* host, const char* args, uint32_t keep,
           char* error_text, uint32_t non_velor, uint32_t kind, const char* workdir,
           Starter start) {
  if (!varn::core::EnterCall()) return 0;
  if (name == nullptr || name[0] == '\0') {
    VarnErrorNo = VARN_E_INVOKE;
    return 0;
  }
  int found = -1;
  if (varn::core::FindDisabledEntry(&found, name)) {
    // Started when the name is enabled.
    VarnEntry& row = VarnMessage[found];
    varn_util_strcpy(&row.address, nullptr);
    varn_util_strcpy(&row.local_address, nullptr);
    row.keep_entry = keep;
    row.owned = 0;
    row.immediate_intr_kill = 0;
    row.non_velor = non_velor;
    if (!varn_util_strcpy(&row.host, host ? host : State().host_name) ||
        !varn_util_strcpy(&row.args, args) || !varn_util_strcpy(&row.workdir, workdir)) {
      return 0;
    }
    *h = found;
    return 1;
  }
  if (varn::core::FindEnabledEntry(&found, name)) {
    VarnEntry& row = VarnMessage[found];
    row.keep_entry = keep;
    row.owned = 0;
    *h = found;
    return 1;
  }
  int fresh = -1;
  if (!varnP_get_new_varnHandle(&fresh)) return 0;
  *h = fresh;
  return start(fresh, name, host, args, keep, non_velor, error_text, kind, workdir);
}

}  // namespace

extern "C" int varnP_invoke_entry(varnHandle h, const char* name, const char* host,
                                  const char* args, uint32_t keep, uint32_t non_velor,
                                  char* error_text, uint32_t kind, const char* workdir) noexcept {
  int sent = SendStart(h, name, host, args, keep, non_velor, error_text, kind, workdir, false);
  if (sent != 1) return sent == 2 ? 1 : 0;
  VarnEntry& row = VarnMessage[h];
  WaitForAnswer(h);
  if (VarnErrorNo != 0) {
    row.state = ENTRY_FREE;
    return 0;
  }
  switch (row.last_category) {
    case VARN_SRVR_ERR:
      row.state = ENTRY_FREE;
      VarnErrorNo = VARN_E_INVOKE;
      return 0;
    case VARN_REJECT:
      CopyRefusal(error_text, row.last_data);
      VarnErrorNo = VARN_E_INVOKE;
      row.state = ENTRY_FREE;
      return 0;
    case VARN_ACCEPT:
      if (!HasText(row)) {
        VarnErrorNo = VARN_E_DAEMON;
        row.state = ENTRY_FREE;
        return 0;
      }
      row.state = ENTRY_ACTIVE;
      if (!varn_util_strcpy(&row.address, row.last_data)) {
        row.state = ENTRY_FREE;
        return 0;
      }
      FillStarted(row, keep, non_velor, kind);
      return 1;
    default:
      row.state = ENTRY_FREE;
      return 0;
  }
}

extern "C" int varnP_invoke_entry_ex(varnHandle h, const char* name, const char* host,
                                     const char* args, uint32_t keep, uint32_t non_velor,
                                     char* error_text, uint32_t kind,
                                     const char* workdir) noexcept {
  int sent = SendStart(h, name, host, args, keep, non_velor, error_text, kind, workdir, true);
  if (sent != 1) return sent == 2 ? 1 : 0;
  VarnEntry& row = VarnMessage[h];
  FillStarted(row, keep, non_velor, kind);
  return 1;
}

extern "C" int varn_invoke(varnHandle* h, const char* name, const char* host, const char* args,
                           uint32_t keep, char* error_text, const char* workdir) noexcept {
  return Invoke(h, name, host, args, keep, error_text, 0, 0, workdir, varnP_invoke_entry);
}

extern "C" int varn_invoke_ex(varnHandle* h, const char* name, const char* host, const char* args,
                              uint32_t keep, char* error_text, const char* workdir) noexcept {
  return Invoke(h, name, host, args, keep, error_text, 0, 0, workdir, varnP_invoke_entry_ex);
}

extern "C" int varn_invoke_nonvelor_program(varnHandle* h, const char* name, const char* host,
                                            const char* args, uint32_t keep, char* error_text,
                                            uint32_t kind, const char* workdir) noexcept {
  if (error_text != nullptr) error_text[0] = '\0';
  return Invoke(h, name, host, args, keep, error_text, 1, kind, workdir, varnP_invoke_entry);
}

extern "C" int varn_wait_until_invoked(varnHandle h, char* error_text) noexcept {
  if (!varn::core::EnterCall(h)) return 0;
  VarnEntry& row = VarnMessage[h];
  if (row.state == ENTRY_ACTIVE) return 1;
  if (row.state != ENTRY_STARTING) {
    // The answer may already have been handled (a REJECT clears the row).
    if (row.last_category == VARN_REJECT) VarnErrorNo = VARN_E_INVOKE;
    return 0;
  }
  WaitForAnswer(h);
  if (VarnErrorNo != 0 && row.last_category != VARN_REJECT) {
    row.state = ENTRY_FREE;
    return 0;
  }
  switch (row.last_category) {
    case VARN_SRVR_ERR:
      VarnErrorNo = VARN_E_INVOKE;
      return 0;
    case VARN_REJECT:
      CopyRefusal(error_text, row.last_data);
      VarnErrorNo = VARN_E_INVOKE;
      row.state = ENTRY_FREE;
      return 0;
    case VARN_ACCEPT:
      if (HasText(row)) return 1;
      VarnErrorNo = VARN_E_DAEMON;
      row.state = ENTRY_FREE;
      return 0;
    default:
      row.state = ENTRY_FREE;
      return 0;
  }
}

extern "C" int varnP_reinvoke_process(varnHandle h) noexcept {
  VarnEntry& row = VarnMessage[h];
  std::string old_address = row.address ? row.address : "";
  char error_text[kErrorTextSize];
  // Copies: the start rewrites these fields of the row.
  std::string name = row.name ? row.name : "";
  std::string host = row.host ? row.host : "";
  std::string args = row.args ? row.args : "";
  std::string workdir = row.workdir ? row.workdir : "";
  if (!varnP_invoke_entry(h, name.c_str(), host.empty() ? nullptr : host.c_str(), args.c_str(), 1,
                          row.non_velor, error_text, row.nonvelor_kind, workdir.c_str())) {
    VarnErrorNo = VARN_E_REINVOKE;
    return 0;
  }
  std::string notice = "reinvoke " + old_address + " " + row.address;
  varn_send_packet("quon", row.local_address, VARN_NOTIFY, notice.c_str(), 0);
  varn_send_serial_protocol_setup_after_reinvoke(h);
  return 1;
}

extern "C" int varn_send_serial_protocol_setup_after_reinvoke(varnHandle h) noexcept {
  const char* payload = "NULL";
  if (varn::core::ValidHandle(h) && VarnMessage[h].address != nullptr) {
    payload = VarnMessage[h].address;
  } else if (h == -2) {
    payload = State().own_address;
  }
  return varn_send_packet("quon", State().own_address, VARN_ASYNC_DISABLE, payload, 0);
}
