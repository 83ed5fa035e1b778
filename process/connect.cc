// Connections and queries: taking up contact with running processes, the
// hub's process list, status and address queries. Application's thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "core/remote_file_table.h"
#include "core/rows.h"
#include "process/process_list.h"
#include "transport/await.h"
#include "transport/channel.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

using varn::core::Fixed;
using varn::core::Row;
using varn::core::RowState;
namespace core = varn::core;
namespace transport = varn::transport;
namespace wire = varn::wire;

bool NameDisabled(const char* name) REQUIRES(core::kLibrary) {
  int d;
  return name != nullptr && core::FindDisabledEntry(&d, name);
}

constexpr transport::CategorySet kStatusAnswer = {VARN_STATUS, VARN_SRVR_ERR};

}  // namespace

namespace varn::process {

int NameFromProcessList(int h, const char* address) {
  char* list = nullptr;
  if (varn_query_pg_process(&list) == 0) {
    VarnErrorNo = VARN_E_QUERY_REMOTE;
    return -1;
  }
  if (list == nullptr) return -1;
  std::string_view rest = list;
  wire::ProcessRecord record;
  while (wire::NextProcessRecord(&rest, &record)) {
    if (record.address == address) {
      std::string name(record.name);
      return varn_util_strcpy(&VarnMessage[h].name, name.c_str()) != 0 ? h : -1;
    }
  }
  return -1;
}

}  // namespace varn::process

extern "C" int varnP_is_connected(const char* name, const char* address) noexcept {
  core::OnApplicationThread();
  if (name == nullptr || address == nullptr) return -1;
  // Names are compared as the server names they stand for, at most 511
  // characters of them.
  std::string_view bare = wire::ProgramBaseName(std::string_view(name).substr(0, 511));
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state == ENTRY_FREE || row.address == nullptr || row.name == nullptr) continue;
    if (wire::ProgramBaseName(std::string_view(row.name).substr(0, 511)) == bare &&
        std::strcmp(row.address, address) == 0) {
      return i;
    }
  }
  return -1;
}

extern "C" int varn_connect_process(varnHandle* h, const char* name, const char* address,
                                    const char* where) noexcept {
  core::OnApplicationThread();
  int found = varnP_is_connected(name, address);
  if (found >= 0) {
    *h = found;
    return 1;
  }
  const char* host = nullptr;
  if (where != nullptr) {
    const char* at = std::strchr(where, '@');
    if (at == nullptr) return 0;
    host = at + 1;
  }
  int fresh = -1;
  if (!varnP_get_new_varnHandle(&fresh)) return 0;
  Row row(fresh);
  VarnEntry& e = row.entry();
  bool own_host = host == nullptr || std::strcmp(host, Fixed().host_name) == 0;
  if (!row.OpenTo(address, Fixed().own_address) || !varn_util_strcpy(&e.last_data, nullptr) ||
      !varn_util_strcpy(&e.host, own_host ? nullptr : host) || !varn_util_strcpy(&e.name, name)) {
    row.set_state(RowState::kFree);
    return 0;
  }
  e.keep_entry = 0;
  e.non_velor = 0;
  e.owned = 1;
  *h = fresh;
  return 1;
}

extern "C" int varn_connect_server(varnHandle* h, varnHandle owner, const char* server) noexcept {
  core::OnApplicationThread();
  if (transport::ActiveChannel().SimulatesPeers()) return 1;
  if (!core::EnterCall(owner)) return 0;
  const VarnEntry& owner_row = VarnMessage[owner];
  if (NameDisabled(owner_row.name)) {
    VarnErrorNo = VARN_E_DISABLED;
    return 0;
  }
  if (owner_row.state == ENTRY_FREE) {
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  int fresh = -1;
  if (!varnP_get_new_varnHandle(&fresh)) return 0;
  std::string query =
      wire::BuildServerQuery(owner_row.address ? owner_row.address : "", server ? server : "");
  if (query.size() >= VARN_STATUS_TEXT_SIZE) query.resize(VARN_STATUS_TEXT_SIZE - 1);
  // The answer comes from the hub; until then the row stands for it.
  Row row(fresh);
  row.set_state(RowState::kActive);
  if (!varn_util_strcpy(&row.entry().address, VARN_HUB_ADDRESS)) {
    row.set_state(RowState::kFree);
    return 0;
  }
  row.ClearLast();
  if (!varn_send_packet(VARN_HUB_ADDRESS, Fixed().own_address, VARN_QUERY_Q, query.c_str(), 0) ||
      !transport::AwaitRow(fresh, {VARN_QUERY, VARN_SRVR_ERR}, false)) {
    row.set_state(RowState::kFree);
    return 0;
  }
  if (row.last_category() == VARN_SRVR_ERR) {
    row.set_state(RowState::kFree);
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  if (row.entry().last_data == nullptr || row.entry().last_data[0] == '\0') {
    VarnErrorNo = VARN_E_SERVER_NOT_FOUND;
    row.set_state(RowState::kFree);
    return 0;
  }
  std::string address = row.entry().last_data;
  // One row a peer: what a process sends reaches the first row that has its
  // address, so a second row for it would wait for ever. A server this
  // process already reaches is handed back as it is.
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& other = VarnMessage[i];
    if (i != fresh && other.state != ENTRY_FREE && other.address != nullptr &&
        address == other.address) {
      row.set_state(RowState::kFree);
      *h = i;
      return 1;
    }
  }
  if (!row.OpenTo(address.c_str(), Fixed().own_address) ||
      !varn_util_strcpy(&row.entry().name, server)) {
    row.set_state(RowState::kFree);
    return 0;
  }
  row.entry().owned = 0;
  row.entry().keep_entry = 0;
  *h = fresh;
  return 1;
}

extern "C" int varn_query_pg_process(char** list) noexcept {
  if (!core::EnterCall()) return 0;
  if (VarnChanType == VARN_CHAN_STANDALONE) {
    VarnErrorNo = VARN_E_NOT_STANDALONE;
    return 0;
  }
  core::AwaitingAnswer reply(core::kReplyRow, core::FileRowState::kFree);
  std::string request(wire::kProcessListRequest);
  if (!varn_send_packet(VARN_HUB_ADDRESS, Fixed().own_address, VARN_QUERYP_Q, request.c_str(), 0)) {
    VarnErrorNo = VARN_E_QUERY_REMOTE;
    return 0;
  }
  bool answered = transport::AwaitAnswer(reply, {VARN_QUERYP, VARN_SRVR_ERR});
  // A read that failed means the hub is gone: no list can come.
  if (!answered || reply.category() == VARN_SRVR_ERR) {
    if (VarnErrorNo != VARN_E_DAEMON_GONE) VarnErrorNo = VARN_E_QUERY_REMOTE;
    return 0;
  }
  *list = reply.row().last_data != nullptr ? reply.row().last_data : const_cast<char*>("");
  return 1;
}

extern "C" int varn_prep_query_result(char* list, char** cursor) noexcept {
  if (list == nullptr) return 0;
  *cursor = list;
  return 1;
}

extern "C" int varn_get_query_result(char** cursor, char* name, char* address, char* third,
                                     int* number) noexcept {
  if (cursor == nullptr || *cursor == nullptr) return 0;
  std::string_view rest = *cursor;
  wire::ProcessRecord record;
  if (!wire::NextProcessRecord(&rest, &record)) return 0;
  // The list comes from the hub and its words may be long (paths); each is
  // cut to the caller's buffer.
  auto copy = [](char* out, std::string_view word) {
    word = word.substr(0, VARN_QUERY_WORD_SIZE - 1);
    std::memcpy(out, word.data(), word.size());
    out[word.size()] = '\0';
  };
  copy(name, record.name);
  copy(address, record.address);
  copy(third, record.parent);
  *number = record.status;
  *cursor = const_cast<char*>(rest.data());
  return 1;
}

extern "C" int varn_query_server_address(const char* server, char** address) noexcept {
  if (!core::EnterCall()) return 0;
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    VarnEntry& row = VarnMessage[i];
    if ((row.state != ENTRY_ACTIVE && row.state != ENTRY_EXITED) || row.name == nullptr ||
        server == nullptr || std::strcmp(row.name, server) != 0) {
      continue;
    }
    if (row.state == ENTRY_EXITED && !varnP_reinvoke_process(i)) break;
    *address = row.address;
    return 1;
  }
  VarnErrorNo = VARN_E_SERVER_NOT_FOUND;
  return 0;
}

extern "C" int varn_query_status(varnHandle h, uint32_t* status, char* text) noexcept {
  *status = VARN_STATUS_DEAD;
  text[0] = '\0';
  if (!core::EnterCall(h)) return 0;
  Row row(h);
  if (row.is(RowState::kFree)) {
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  if (NameDisabled(row.entry().name)) {
    *status = VARN_STATUS_IDLE;
    return 1;
  }
  if (row.send_stream() == core::Stream::kStreaming) {
    *status = VARN_STATUS_BUSY;
    std::strcpy(text, "sending data");
    return 1;
  }
  transport::Channel& channel = transport::ActiveChannel();
  if (channel.SimulatesPeers()) return channel.SimulateStatus(h, status, text);
  if (!varn_send_packet(row.entry().address, row.entry().local_address, VARN_STATUS_Q, nullptr,
                        0)) {
    return 0;
  }
  row.entry().last_data_len = 0;
  // Only the answer is taken: whatever else the peer sends meanwhile (a
  // stream, its DONE) waits in the queue for the call that expects it,
  // instead of being consumed by the status query.
  transport::AwaitRow(h, kStatusAnswer, true);
  if (row.last_category() == VARN_SRVR_ERR) {
    *status = VARN_STATUS_DEAD;
    row.CopyLastText(text);
    return 1;
  }
  if (row.last_category() != VARN_STATUS || row.entry().last_data == nullptr ||
      row.LastLength() == 0) {
    if (VarnErrorNo == 0) VarnErrorNo = VARN_E_DAEMON;
    return 0;
  }
  int code = 0;
  std::string_view rest;
  std::string payload = row.entry().last_data;
  bool known = wire::ParseStatusAnswer(payload, &code, &rest);
  text[rest.copy(text, rest.size())] = '\0';
  // The row keeps the status word alone, as a cut at the blank leaves it.
  char* blank = std::strchr(row.entry().last_data, ' ');
  if (blank != nullptr) *blank = '\0';
  if (!known) {
    VarnErrorNo = VARN_E_DAEMON;
    return 0;
  }
  *status = static_cast<uint32_t>(code);
  return 1;
}

extern "C" int varn_query_own_address(char* buffer) noexcept {
  std::sprintf(buffer, "%s@%s", Fixed().pid_text, Fixed().host_name);
  return 1;
}
