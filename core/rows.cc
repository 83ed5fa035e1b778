#include "core/rows.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "varn.h"

namespace varn::core {
namespace {

// Holds the text of the last KILL, INTR or SRVR_ERR and a NUL.
char g_signal_buffer[kSignalTextMax + 1] GUARDED_BY(kLibrary);

SourceNamer g_namer GUARDED_BY(kLibrary) = nullptr;

// Exact text equality where a null field never matches.
bool SameText(const char* field, const char* text) {
  return field != nullptr && text != nullptr && std::strcmp(field, text) == 0;
}

bool IsKnownPeer(const VarnEntry& row) {
  return row.state == ENTRY_ACTIVE || row.state == ENTRY_EXITED;
}

bool IsSignal(int category) {
  return category == VARN_KILL || category == VARN_INTR || category == VARN_SRVR_ERR;
}

// Replaces last_data by a copy of payload with a NUL after it (null when
// length is 0). False (35) when the copy fails.
bool CopyPayload(VarnEntry& e, const char* payload, std::size_t length) {
  std::free(e.last_data);
  e.last_data = nullptr;
  if (length == 0 || payload == nullptr) return true;
  e.last_data = static_cast<char*>(std::malloc(length + 1));
  if (e.last_data == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    return false;
  }
  std::memcpy(e.last_data, payload, length);
  e.last_data[length] = '\0';
  return true;
}

}  // namespace

LibraryCapability kLibrary;

const char* Row::LastText() const {
  if (IsSignal(last_category())) return g_signal_buffer;
  return e_.last_data;
}

std::size_t Row::CopyLastText(char* buffer) const {
  const char* text = LastText();
  std::size_t length = LastLength();
  if (text == nullptr || length == 0) {
    buffer[0] = '\0';
    return 0;
  }
  std::memcpy(buffer, text, length + 1);
  return length;
}

bool Row::Store(const char* destination, const char* source, int category, const char* payload,
                std::size_t length) {
  if (!varn_util_strcpy(&e_.address, source) || !varn_util_strcpy(&e_.local_address, destination)) {
    return false;
  }
  set_last_category(category);
  e_.last_data_len = static_cast<int64_t>(length);
  return CopyPayload(e_, payload, length);
}

bool Row::StoreWithoutText(const char* destination, const char* source, int category,
                           std::size_t length) {
  if (!varn_util_strcpy(&e_.address, source) || !varn_util_strcpy(&e_.local_address, destination)) {
    return false;
  }
  set_last_category(category);
  e_.last_data_len = static_cast<int64_t>(length);
  // Readers must not take an older text for one of last_data_len bytes.
  std::free(e_.last_data);
  e_.last_data = nullptr;
  return true;
}

bool Row::StoreSignal(int category, const char* payload, std::size_t length, bool cut) {
  if (length > kSignalTextMax) {
    if (!cut) return false;
    length = kSignalTextMax;
  }
  if (payload == nullptr) length = 0;
  if (length > 0) std::memcpy(g_signal_buffer, payload, length);
  g_signal_buffer[length] = '\0';
  set_last_category(category);
  e_.last_data_len = static_cast<int64_t>(length);
  return true;
}

void Row::Reset() {
  set_state(RowState::kFree);
  e_.last_category = VARN_NONE;
  e_.last_data_len = 0;
  e_.keep_entry = 0;
  e_.non_velor = 0;
  set_streams(Stream::kClosed, Stream::kClosed);
  e_.owned = 0;
  e_.nonvelor_kind = 0;
  e_.immediate_intr_kill = 0;
}

void Row::ResetKeepingNotice() {
  int64_t length = e_.last_data_len;
  Reset();
  set_last_category(VARN_SRVR_ERR);
  e_.last_data_len = length;
}

bool Row::OpenTo(const char* address, const char* local_address) {
  set_state(RowState::kActive);
  if (!varn_util_strcpy(&e_.address, address) ||
      !varn_util_strcpy(&e_.local_address, local_address)) {
    return false;
  }
  ClearLast();
  e_.last_data_len = 0;
  set_streams(Stream::kReady, Stream::kReady);
  e_.immediate_intr_kill = 0;
  return true;
}

namespace {
bool g_any_disabled GUARDED_BY(kLibrary) = false;
}  // namespace

bool AnyRowDisabled() { return g_any_disabled; }

bool PeerDisabled(int h) {
  const char* name = VarnMessage[h].name;
  int d;
  return name != nullptr && g_any_disabled && FindDisabledEntry(&d, name);
}
void NoteDisabledRow() { g_any_disabled = true; }

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

void SetSourceNamer(SourceNamer namer) {
  OnApplicationThread();
  g_namer = namer;
}

}  // namespace varn::core

using varn::core::ActiveCount;
using varn::core::State;
using varn::core::ValidHandle;

int varnP_get_new_varnHandle(int* h) noexcept {
  varn::core::OnApplicationThread();
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
  varn::core::OnApplicationThread();
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
  varn::core::Row row(h);
  row.set_state(varn::core::RowState::kActive);
  row.ClearLast();
  row.set_streams(varn::core::Stream::kReady, varn::core::Stream::kReady);
  row.set_waiting(false);

  if (VarnChanType == VARN_CHAN_STANDALONE) return h;
  if (address != nullptr && std::strcmp(address, VARN_HUB_ADDRESS) == 0) {
    varn_util_strcpy(&row.entry().name, VARN_HUB_ADDRESS);
    return h;
  }
  if (varn::core::g_namer == nullptr) return -1;
  return varn::core::g_namer(h, address != nullptr ? address : "");
}

void varnP_deinit_entry(varnHandle h) noexcept {
  varn::core::OnApplicationThread();
  // Callers pass rows they know; only the capacity is guarded.
  if (h < 0 || h >= VARN_MAX_ENTRIES) return;
  varn::core::Row(h).Reset();
}

int varn_deinit_entry(varnHandle h) noexcept {
  varn::core::OnApplicationThread();
  if (!ValidHandle(h)) return 0;
  varnP_deinit_entry(h);
  return 1;
}

int varn_num_chan(int n) noexcept {
  varn::core::OnApplicationThread();
  if (n == -1) return ActiveCount();
  if (n < VARN_DEFAULT_ENTRIES) n = VARN_DEFAULT_ENTRIES;
  if (n > VARN_MAX_ENTRIES) n = VARN_MAX_ENTRIES;
  State().active_count = n;
  return n;
}

namespace {

int FindKnownPeer(int* h, char* VarnEntry::*field, const char* text) {
  varn::core::OnApplicationThread();
  int count = ActiveCount();
  for (int i = 0; i < count; ++i) {
    if (varn::core::IsKnownPeer(VarnMessage[i]) &&
        varn::core::SameText(VarnMessage[i].*field, text)) {
      *h = i;
      return 1;
    }
  }
  return 0;
}

}  // namespace

int varn_query_varn_handle(int* h, const char* address) noexcept {
  return FindKnownPeer(h, &VarnEntry::address, address);
}

int varn_query_varn_handle_byname(int* h, const char* name) noexcept {
  return FindKnownPeer(h, &VarnEntry::name, name);
}

int varn_query_handle_address(varnHandle h, char** name, char** address) noexcept {
  varn::core::OnApplicationThread();
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

int varn_is_child_of_daemon(void) noexcept {
  varn::core::OnApplicationThread();
  return State().opt_parentname != nullptr ? 1 : 0;
}

int varn_get_parent_info(char* name, char* id) noexcept {
  varn::core::OnApplicationThread();
  const varn::core::LibraryState& state = State();
  // The options come from the command line and may be of any length; the
  // caller's buffers hold VARN_PARENT_INFO_SIZE bytes.
  if (name != nullptr) {
    std::snprintf(name, VARN_PARENT_INFO_SIZE, "%s",
                  state.opt_parentname ? state.opt_parentname : "");
  }
  if (id != nullptr) {
    std::snprintf(id, VARN_PARENT_INFO_SIZE, "%s", state.opt_parentid ? state.opt_parentid : "");
  }
  return 1;
}

// ASCII-only channels are accepted as an option but never used.
int varn_if_asciionly(void) noexcept { return 0; }
