// The process entry table VarnMessage: the active count, allocation of rows,
// clearing, and the lookups by address and by server name.
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "varn.h"

namespace varn::core {
namespace {

constexpr const char* kHubAddress = "quon";

// Exact text equality where a null field never matches.
bool SameText(const char* field, const char* text) {
  return field != nullptr && text != nullptr && std::strcmp(field, text) == 0;
}

bool IsKnownPeer(const VarnEntry& row) {
  return row.state == ENTRY_ACTIVE || row.state == ENTRY_EXITED;
}

// Gives a row created for a new message source its name, from Quon's list
// of processes. Returns the handle, or -1 when the list cannot be had or
// does not know the address; the row stays in use either way.
int NameFromProcessList(int h, const char* address) {
  char* list = nullptr;
  if (varn_query_pg_process(&list) == 0) {
    VarnErrorNo = VARN_E_QUERY_REMOTE;
    return -1;
  }
  if (list == nullptr) return -1;
  // Every word of a record fits in a buffer as long as the whole list.
  std::size_t size = std::strlen(list) + 1;
  char* buffers = static_cast<char*>(std::malloc(3 * size));
  if (buffers == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    return -1;
  }
  char* name = buffers;
  char* peer_address = buffers + size;
  char* third = buffers + 2 * size;
  int number = 0;
  int found = -1;
  char* cursor = list;
  while (varn_get_query_result(&cursor, name, peer_address, third, &number) != 0) {
    if (std::strcmp(peer_address, address) == 0) {
      if (varn_util_strcpy(&VarnMessage[h].name, name) != 0) found = h;
      break;
    }
  }
  std::free(buffers);
  return found;
}

}  // namespace

int ActiveCount() {
  LibraryState& state = State();
  if (state.active_count == -1) state.active_count = VARN_DEFAULT_ENTRIES;
  return state.active_count;
}

bool ValidHandle(int h) { return h >= 0 && h < ActiveCount(); }

int FindDisabledEntry(int* h, const char* name) {
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state == ENTRY_DISABLED && SameText(row.name, name)) {
      *h = i;
      return 1;
    }
  }
  return 0;
}

int FindEnabledEntry(int* h, const char* name) {
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state == ENTRY_ACTIVE && row.enabled_by_address != 0 && SameText(row.name, name)) {
      *h = i;
      return 1;
    }
  }
  return 0;
}

}  // namespace varn::core

using varn::core::ActiveCount;
using varn::core::State;
using varn::core::ValidHandle;

int varnP_get_new_varnHandle(int* h) noexcept {
  VarnErrorNo = VARN_E_NONE;
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    if (VarnMessage[i].state == ENTRY_FREE) {
      *h = i;
      return 1;
    }
  }
  *h = -1;
  VarnErrorNo = VARN_E_TABLE_FULL;
  return 0;
}

int varnP_find_entry_exact(const char* address, int exact) noexcept {
  VarnErrorNo = VARN_E_NONE;
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    if (VarnMessage[i].state != ENTRY_FREE && varn::core::SameText(VarnMessage[i].address, address))
      return i;
  }
  if (exact != 0) {
    VarnErrorNo = VARN_E_NO_SOURCE;
    return -1;
  }

  int h = -1;
  if (varnP_get_new_varnHandle(&h) == 0) return -1;
  // The caller's message handling fills in the address.
  VarnEntry& row = VarnMessage[h];
  row.state = ENTRY_ACTIVE;
  row.last_category = VARN_NONE;
  row.send_stream = 1;
  row.recv_stream = 1;
  row.waiting = 0;

  if (VarnChanType == VARN_CHAN_STANDALONE) return h;
  if (address != nullptr && std::strcmp(address, varn::core::kHubAddress) == 0) {
    varn_util_strcpy(&row.name, varn::core::kHubAddress);
    return h;
  }
  return varn::core::NameFromProcessList(h, address != nullptr ? address : "");
}

void varnP_deinit_entry(varnHandle h) noexcept {
  // Callers pass rows they know; only the capacity is guarded.
  if (h < 0 || h >= VARN_MAX_ENTRIES) return;
  VarnEntry& row = VarnMessage[h];
  // Strings stay allocated; they are replaced when the row is used again.
  row.state = ENTRY_FREE;
  row.last_category = VARN_NONE;
  row.last_data_len = 0;
  row.keep_entry = 0;
  row.non_velor = 0;
  row.send_stream = 0;
  row.recv_stream = 0;
  row.owned = 0;
  row.nonvelor_kind = 0;
  row.immediate_intr_kill = 0;
}

int varn_deinit_entry(varnHandle h) noexcept {
  if (!ValidHandle(h)) return 0;
  varnP_deinit_entry(h);
  return 1;
}

int varn_num_chan(int n) noexcept {
  if (n == -1) return ActiveCount();
  if (n < VARN_DEFAULT_ENTRIES) n = VARN_DEFAULT_ENTRIES;
  if (n > VARN_MAX_ENTRIES) n = VARN_MAX_ENTRIES;
  State().active_count = n;
  return n;
}

int varn_query_varn_handle(int* h, const char* address) noexcept {
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    if (varn::core::IsKnownPeer(VarnMessage[i]) &&
        varn::core::SameText(VarnMessage[i].address, address)) {
      *h = i;
      return 1;
    }
  }
  return 0;
}

int varn_query_varn_handle_byname(int* h, const char* name) noexcept {
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    if (varn::core::IsKnownPeer(VarnMessage[i]) &&
        varn::core::SameText(VarnMessage[i].name, name)) {
      *h = i;
      return 1;
    }
  }
  return 0;
}

int varn_query_handle_address(varnHandle h, char** name, char** address) noexcept {
  if (!ValidHandle(h) || VarnMessage[h].state == ENTRY_FREE || VarnMessage[h].address == nullptr) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  *name = VarnMessage[h].name;
  *address = VarnMessage[h].address;
  return 1;
}

int varn_chan_type(void) noexcept { return VarnChanType; }

int varn_get_chan_mode(void) noexcept { return VarnChanMode; }

int varn_is_child_of_daemon(void) noexcept { return State().opt_parentname != nullptr ? 1 : 0; }

int varn_get_parent_info(char* name, char* id) noexcept {
  const varn::core::LibraryState& state = State();
  if (name != nullptr) std::strcpy(name, state.opt_parentname ? state.opt_parentname : "");
  if (id != nullptr) std::strcpy(id, state.opt_parentid ? state.opt_parentid : "");
  return 1;
}

// ASCII-only channels are accepted as an option but never used.
int varn_if_asciionly(void) noexcept { return 0; }
