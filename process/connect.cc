// Connections and queries: taking up contact with running processes, the
// hub's process list, status and address queries. Application's thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "host/paths.h"
#include "transport/receive.h"
#include "varn.h"

namespace {

using varn::core::State;

constexpr const char* kProcessListRequest = "NULL@NULL NULL NULL AllProcess ByName";

// The bare program name: drive and extension dropped, at most 511 characters.
std::string BareName(const char* name) {
  char buf[512];
  std::snprintf(buf, sizeof buf, "%s", name ? name : "");
  const char* start = buf;
  if (varn::host::gfile_hasdrv(buf)) start = buf + 2;
  // Directories go too: the name is the last path component.
  for (const char* p = start; *p; ++p) {
    if (*p == '/' || *p == '\\') start = p + 1;
  }
  std::string bare = start;
  if (varn::host::gfile_hasext(bare.c_str())) bare.erase(bare.rfind('.'));
  return bare;
}

bool WaitReplyRow(int a, int b) {
  VarnFileEntry& reply = varn::core::FileTable()[VARN_QUON_REPLY_ROW];
  while (reply.last_category != static_cast<int32_t>(a) &&
         reply.last_category != static_cast<int32_t>(b)) {
    if (!varn_recv_read_and_parse_message(1)) return false;
  }
  return true;
}

}  // namespace

extern "C" int varnP_is_connected(const char* name, const char* address) noexcept {
  if (name == nullptr || address == nullptr) return -1;
  std::string bare = BareName(name);
  int count = varn::core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state == ENTRY_FREE || row.address == nullptr || row.name == nullptr) continue;
    if (BareName(row.name) == bare && std::strcmp(row.address, address) == 0) return i;
  }
  return -1;
}

extern "C" int varn_connect_process(varnHandle* h, const char* name, const char* address,
                                    const char* where) noexcept {
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
  VarnEntry& row = VarnMessage[fresh];
  row.state = ENTRY_ACTIVE;
  bool own_host = host == nullptr || std::strcmp(host, State().host_name) == 0;
  if (!varn_util_strcpy(&row.address, address) ||
      !varn_util_strcpy(&row.local_address, State().own_address) ||
      !varn_util_strcpy(&row.last_data, nullptr) ||
      !varn_util_strcpy(&row.host, own_host ? nullptr : host) ||
      !varn_util_strcpy(&row.name, name)) {
    row.state = ENTRY_FREE;
    return 0;
  }
  row.last_category = 0;
  row.last_data_len = 0;
  row.keep_entry = 0;
  row.non_velor = 0;
  row.send_stream = 1;
  row.recv_stream = 1;
  row.owned = 1;
  row.immediate_intr_kill = 0;
  *h = fresh;
  return 1;
}

extern "C" int varn_connect_server(varnHandle* h, varnHandle owner, const char* server) noexcept {
  if (varn_debug_true()) return 1;
  if (!varn::core::EnterCall(owner)) return 0;
  const VarnEntry& owner_row = VarnMessage[owner];
  int d;
  if (owner_row.name != nullptr && varn::core::FindDisabledEntry(&d, owner_row.name)) {
    VarnErrorNo = VARN_E_DISABLED;
    return 0;
  }
  if (owner_row.state == ENTRY_FREE) {
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  int fresh = -1;
  if (!varnP_get_new_varnHandle(&fresh)) return 0;
  char payload[VARN_STATUS_TEXT_SIZE];
  std::snprintf(payload, sizeof payload, "%s:%s", owner_row.address ? owner_row.address : "",
                server ? server : "");
  VarnEntry& row = VarnMessage[fresh];
  row.state = ENTRY_ACTIVE;
  if (!varn_util_strcpy(&row.address, "quon")) {
    row.state = ENTRY_FREE;
    return 0;
  }
  row.last_category = 0;
  if (!varn_send_packet("quon", State().own_address, VARN_QUERY_Q, payload, 0)) {
    row.state = ENTRY_FREE;
    return 0;
  }
  while (row.last_category != VARN_QUERY && row.last_category != VARN_SRVR_ERR) {
    if (!varn_recv_read_and_parse_message(1)) {
      row.state = ENTRY_FREE;
      return 0;
    }
  }
  if (row.last_category == VARN_SRVR_ERR) {
    row.state = ENTRY_FREE;
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  if (row.last_data == nullptr || row.last_data[0] == '\0') {
    VarnErrorNo = VARN_E_SERVER_NOT_FOUND;
    row.state = ENTRY_FREE;
    return 0;
  }
  std::string address = row.last_data;
  if (!varn_util_strcpy(&row.address, address.c_str()) ||
      !varn_util_strcpy(&row.local_address, State().own_address) ||
      !varn_util_strcpy(&row.name, server)) {
    row.state = ENTRY_FREE;
    return 0;
  }
  row.last_category = 0;
  row.last_data_len = 0;
  row.send_stream = 1;
  row.recv_stream = 1;
  row.owned = 0;
  row.keep_entry = 0;
  row.immediate_intr_kill = 0;
  *h = fresh;
  return 1;
}

extern "C" int varn_query_pg_process(char** list) noexcept {
  if (!varn::core::EnterCall()) return 0;
  if (VarnChanType == VARN_CHAN_STANDALONE) {
    VarnErrorNo = VARN_E_NOT_STANDALONE;
    return 0;
  }
  VarnFileEntry& reply = varn::core::FileTable()[VARN_QUON_REPLY_ROW];
  reply.state = 2;
  reply.last_category = 0;
  if (!varn_send_packet("quon", State().own_address, VARN_QUERYP_Q, kProcessListRequest, 0)) {
    reply.state = 0;
    VarnErrorNo = VARN_E_QUERY_REMOTE;
    return 0;
  }
  bool answered = WaitReplyRow(VARN_QUERYP, VARN_SRVR_ERR);
  reply.state = 0;
  // A read that failed means the hub is gone: no list can come.
  if (!answered || reply.last_category == VARN_SRVR_ERR) {
    if (VarnErrorNo != VARN_E_DAEMON_GONE) VarnErrorNo = VARN_E_QUERY_REMOTE;
    return 0;
  }
  *list = reply.last_data != nullptr ? reply.last_data : const_cast<char*>("");
  return 1;
}

extern "C" int varn_prep_query_result(char* list, char** cursor) noexcept {
  if (list == nullptr) return 0;
  *cursor = list;
  return 1;
}

extern "C" int varn_get_query_result(char** cursor, char* name, char* address, char* third,
                                     int* number) noexcept {
  if (cursor == nullptr || *cursor == nullptr || **cursor == '\0') return 0;
  const char* p = *cursor;
  const char* blanks[4] = {};
  int found = 0;
  for (const char* q = p; *q && found < 4; ++q) {
    if (*q == ' ') blanks[found++] = q;
  }
  if (found < 3) return 0;
  auto copy = [](char* out, const char* from, const char* to) {
    std::memcpy(out, from, static_cast<std::size_t>(to - from));
    out[to - from] = '\0';
  };
  copy(name, p, blanks[0]);
  copy(address, blanks[0] + 1, blanks[1]);
  copy(third, blanks[1] + 1, blanks[2]);
  *number = std::atoi(blanks[2] + 1);
  *cursor = found == 4 ? const_cast<char*>(blanks[3] + 1)
                       : const_cast<char*>(blanks[2] + 1 + std::strlen(blanks[2] + 1));
  return 1;
}

extern "C" int varn_query_server_address(const char* server, char** address) noexcept {
  if (!varn::core::EnterCall()) return 0;
  int count = varn::core::ActiveCount();
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
  if (!varn::core::EnterCall(h)) return 0;
  VarnEntry& row = VarnMessage[h];
  if (row.state == ENTRY_FREE) {
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  int d;
  if (row.name != nullptr && varn::core::FindDisabledEntry(&d, row.name)) {
    *status = VARN_STATUS_IDLE;
    return 1;
  }
  if (row.send_stream == 2) {
    *status = VARN_STATUS_BUSY;
    std::strcpy(text, "sending data");
    return 1;
  }
  if (varn_debug_query_status(h, status, text)) return 1;
  if (!varn_send_packet(row.address, row.local_address, VARN_STATUS_Q, nullptr, 0)) return 0;
  row.last_category = 0;
  row.last_data_len = 0;
  // Only the answer is taken: whatever else the peer sends meanwhile (a
  // stream, its DONE) waits in the queue for the call that expects it,
  // instead of being consumed by the status query.
  int* set = nullptr;
  varn_queue_set_waitcat(&set, VARN_STATUS, VARN_SRVR_ERR, 0);
  varn_queue_set_outband(h, set);
  while (row.last_category != VARN_STATUS && row.last_category != VARN_SRVR_ERR) {
    if (!varn_recv_read_and_parse_message(1)) break;
  }
  varn_queue_reset_outband();
  varn_queue_free_waitcat(&set);
  if (row.last_category == VARN_SRVR_ERR) {
    *status = VARN_STATUS_DEAD;
    if (row.last_data_len > 0) {
      std::memcpy(text, varn::transport::SignalBuffer(),
                  static_cast<std::size_t>(row.last_data_len) + 1);
    }
    return 1;
  }
  if (row.last_category != VARN_STATUS || row.last_data == nullptr || row.last_data_len == 0) {
    if (VarnErrorNo == 0) VarnErrorNo = VARN_E_DAEMON;
    return 0;
  }
  char* blank = std::strchr(row.last_data, ' ');
  if (blank != nullptr) {
    std::strcpy(text, blank + 1);
    *blank = '\0';
  }
  int code = 0;
  if (!varn_util_status_string_to_code(row.last_data, &code)) {
    VarnErrorNo = VARN_E_DAEMON;
    return 0;
  }
  *status = static_cast<uint32_t>(code);
  return 1;
}

extern "C" int varn_query_own_address(char* buffer) noexcept {
  std::sprintf(buffer, "%s@%s", State().pid_text, State().host_name);
  return 1;
}
