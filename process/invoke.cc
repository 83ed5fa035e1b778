// Starting processes through the hub: synchronous and asynchronous starts,
// programs that do not speak the protocol, and restarting a peer that
// exited. Application's thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "core/rows.h"
#include "platform/system.h"
#include "transport/await.h"
#include "transport/channel.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

using varn::core::Fixed;
using varn::core::Row;
using varn::core::RowState;
namespace core = varn::core;
namespace transport = varn::transport;
namespace wire = varn::wire;

constexpr std::size_t kErrorTextSize = VARN_STATUS_TEXT_SIZE;
constexpr transport::CategorySet kStartAnswer = {VARN_ACCEPT, VARN_REJECT, VARN_SRVR_ERR};

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

// The row's start fields and the request's payload.
bool PrepareStart(Row& row, const char* name, const char* host, const char* args,
                  const char* workdir, std::string* payload) {
  VarnEntry& e = row.entry();
  std::string dir;
  if (workdir != nullptr && workdir[0] != '\0') {
    dir = workdir;
  } else {
    char cwd[4096];
    dir = varn::platform::CurrentDirectory(cwd, sizeof cwd) ? cwd : ".";
  }
  std::string quoted_dir = wire::QuoteField(dir);
  if (!varn_util_strcpy(&e.name, name) || (host && !varn_util_strcpy(&e.host, host)) ||
      !varn_util_strcpy(&e.args, args) || !varn_util_strcpy(&e.workdir, quoted_dir.c_str())) {
    return false;
  }
  *payload = wire::BuildStartRequest(dir, wire::CommandWord(name, host ? host : ""),
                                     args != nullptr ? args : "");
  return true;
}

// Copies the refusal text into the caller's buffer, cut to its size.
void CopyRefusal(char* error_text, const char* text) {
  if (error_text == nullptr) return;
  std::snprintf(error_text, kErrorTextSize, "%s", text ? text : "");
}

bool HasText(const VarnEntry& row) { return row.last_data != nullptr && row.last_data[0] != '\0'; }

void FillStarted(Row& row, uint32_t keep, uint32_t non_velor, uint32_t kind) {
  VarnEntry& e = row.entry();
  e.last_data_len = 0;
  row.set_streams(core::Stream::kReady, core::Stream::kReady);
  e.keep_entry = keep;
  e.owned = 1;
  e.non_velor = non_velor;
  e.enabled_by_address = 0;
  e.nonvelor_kind = kind;
  e.immediate_intr_kill = 0;
}

// The first half of both starts: simulation by the channel, the request
// category, the row's fields, and the request itself. Returns 1 when the
// request went out, 2 when the channel simulated the start, 0 on failure
// (row freed).
int SendStart(varnHandle h, const char* name, const char* host, const char* args,
              uint32_t non_velor, char* error_text, uint32_t kind, const char* workdir, bool async)
    REQUIRES(core::kLibrary) {
  if (error_text != nullptr) error_text[0] = '\0';
  transport::Channel& channel = transport::ActiveChannel();
  if (channel.SimulatesPeers()) {
    channel.SimulateStart(h, name);
    return 2;
  }
  Row row(h);
  auto fail = [&row] {
    row.set_state(RowState::kFree);
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
  if (!PrepareStart(row, name, host, args, workdir, &payload)) return fail();
  // A synchronous start's answer comes from the hub; an asynchronous one's
  // from the command word, which is what the row's address holds meanwhile.
  row.set_state(async ? RowState::kStarting : RowState::kActive);
  std::string address = async ? wire::CommandWord(name, host ? host : "") : VARN_HUB_ADDRESS;
  if (!varn_util_strcpy(&row.entry().address, address.c_str()) ||
      !varn_util_strcpy(&row.entry().local_address, Fixed().own_address)) {
    return fail();
  }
  row.ClearLast();
  if (!varn_send_packet(VARN_HUB_ADDRESS, Fixed().own_address, category, payload.c_str(), 0)) {
    return fail();
  }
  return 1;
}

using Starter = int (*)(varnHandle, const char*, const char*, const char*, uint32_t, uint32_t,
                        char*, uint32_t, const char*);

int Invoke(varnHandle* h, const char* name, const char* host, const char* args, uint32_t keep,
           char* error_text, uint32_t non_velor, uint32_t kind, const char* workdir,
           Starter start) {
  if (!core::EnterCall()) return 0;
  if (name == nullptr || name[0] == '\0') {
    VarnErrorNo = VARN_E_INVOKE;
    return 0;
  }
  int found = -1;
  if (core::FindDisabledEntry(&found, name)) {
    // Started when the name is enabled.
    VarnEntry& row = VarnMessage[found];
    varn_util_strcpy(&row.address, nullptr);
    varn_util_strcpy(&row.local_address, nullptr);
    row.keep_entry = keep;
    row.owned = 0;
    row.immediate_intr_kill = 0;
    row.non_velor = non_velor;
    if (!varn_util_strcpy(&row.host, host ? host : Fixed().host_name) ||
        !varn_util_strcpy(&row.args, args) || !varn_util_strcpy(&row.workdir, workdir)) {
      return 0;
    }
    *h = found;
    return 1;
  }
  if (core::FindEnabledEntry(&found, name)) {
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

// How a start ends once its answer came (or reading failed): the row is
// active with the started process's address, or free with the error.
int FinishStart(Row& row, char* error_text, bool free_on_exit_notice) REQUIRES(core::kLibrary) {
  switch (row.last_category()) {
    case VARN_SRVR_ERR:
      if (free_on_exit_notice) row.set_state(RowState::kFree);
      VarnErrorNo = VARN_E_INVOKE;
      return 0;
    case VARN_REJECT:
      CopyRefusal(error_text, row.entry().last_data);
      VarnErrorNo = VARN_E_INVOKE;
      row.set_state(RowState::kFree);
      return 0;
    case VARN_ACCEPT:
      if (!HasText(row.entry())) {
        VarnErrorNo = VARN_E_DAEMON;
        row.set_state(RowState::kFree);
        return 0;
      }
      return 1;
    default:
      row.set_state(RowState::kFree);
      return 0;
  }
}

}  // namespace

extern "C" int varnP_invoke_entry(varnHandle h, const char* name, const char* host,
                                  const char* args, uint32_t keep, uint32_t non_velor,
                                  char* error_text, uint32_t kind, const char* workdir) noexcept {
  core::OnApplicationThread();
  int sent = SendStart(h, name, host, args, non_velor, error_text, kind, workdir, false);
  if (sent != 1) return sent == 2 ? 1 : 0;
  Row row(h);
  transport::AwaitRow(h, kStartAnswer, true);
  if (VarnErrorNo != 0) {
    row.set_state(RowState::kFree);
    return 0;
  }
  if (!FinishStart(row, error_text, true)) return 0;
  row.set_state(RowState::kActive);
  if (!varn_util_strcpy(&row.entry().address, row.entry().last_data)) {
    row.set_state(RowState::kFree);
    return 0;
  }
  FillStarted(row, keep, non_velor, kind);
  return 1;
}

extern "C" int varnP_invoke_entry_ex(varnHandle h, const char* name, const char* host,
                                     const char* args, uint32_t keep, uint32_t non_velor,
                                     char* error_text, uint32_t kind,
                                     const char* workdir) noexcept {
  core::OnApplicationThread();
  int sent = SendStart(h, name, host, args, non_velor, error_text, kind, workdir, true);
  if (sent != 1) return sent == 2 ? 1 : 0;
  Row row(h);
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
  if (!core::EnterCall(h)) return 0;
  Row row(h);
  if (row.is(RowState::kActive)) return 1;
  if (!row.is(RowState::kStarting)) {
    // The answer may already have been handled (a REJECT clears the row).
    if (row.last_category() == VARN_REJECT) VarnErrorNo = VARN_E_INVOKE;
    return 0;
  }
  transport::AwaitRow(h, kStartAnswer, true);
  if (VarnErrorNo != 0 && row.last_category() != VARN_REJECT) {
    row.set_state(RowState::kFree);
    return 0;
  }
  return FinishStart(row, error_text, false);
}

extern "C" int varnP_reinvoke_process(varnHandle h) noexcept {
  core::OnApplicationThread();
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
  varn_send_packet(VARN_HUB_ADDRESS, row.local_address, VARN_NOTIFY, notice.c_str(), 0);
  varn_send_serial_protocol_setup_after_reinvoke(h);
  return 1;
}

extern "C" int varn_send_serial_protocol_setup_after_reinvoke(varnHandle h) noexcept {
  core::OnApplicationThread();
  const char* payload = "NULL";
  if (core::ValidHandle(h) && VarnMessage[h].address != nullptr) {
    payload = VarnMessage[h].address;
  } else if (h == -2) {
    payload = Fixed().own_address;
  }
  return varn_send_packet(VARN_HUB_ADDRESS, Fixed().own_address, VARN_ASYNC_DISABLE, payload, 0);
}
