// The enable and disable lists of server names, the "reinvoke" notice that
// tells everybody a peer moved, and disconnection. Application's thread.
#include "process/enable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "varn.h"

namespace {

using varn::core::State;

// An address without a two-character prefix that starts with "!".
const char* Bare(const char* address) {
  if (address != nullptr && address[0] == '!' && address[1] != '\0') return address + 2;
  return address;
}

int LowestFreeRow() {
  int count = varn::core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    if (VarnMessage[i].state == ENTRY_FREE) return i;
  }
  return -1;
}

// Rewrites "-quon_enable NAME OLD" in args to name NEW instead. Returns
// false on allocation failure.
bool RewriteEnableArgs(VarnEntry& row, const std::string& old_address,
                       const std::string& new_address) {
  if (row.args == nullptr) return true;
  std::string args = row.args;
  std::size_t at = args.find("-quon_enable");
  if (at == std::string::npos) return true;
  std::size_t p = at + std::strlen("-quon_enable");
  auto skip_blanks = [&] {
    while (p < args.size() && args[p] == ' ') ++p;
  };
  auto skip_word = [&] {
    while (p < args.size() && args[p] != ' ') ++p;
  };
  skip_blanks();
  if (p >= args.size()) return true;
  skip_word();  // the server name
  skip_blanks();
  if (p >= args.size()) return true;
  std::size_t start = p;
  skip_word();
  std::string word = args.substr(start, p - start);
  if (std::string(Bare(word.c_str())) != old_address) return true;
  std::string before = args.substr(0, start);
  while (!before.empty() && before.back() == ' ') before.pop_back();
  std::size_t rest_at = p;
  while (rest_at < args.size() && args[rest_at] == ' ') ++rest_at;
  std::string rebuilt = before + " " + new_address;
  if (rest_at < args.size()) rebuilt += " " + args.substr(rest_at);
  return varn_util_strcpy(&row.args, rebuilt.c_str()) != 0;
}

}  // namespace

extern "C" int varnP_disable_server_protocal(const char* name) noexcept {
  int count = varn::core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    VarnEntry& row = VarnMessage[i];
    if ((row.state == ENTRY_ACTIVE || row.state == ENTRY_DISABLED) && row.name != nullptr &&
        std::strcmp(row.name, name) == 0) {
      row.state = ENTRY_DISABLED;
      return 1;
    }
  }
  int h = LowestFreeRow();
  if (h < 0) {
    VarnErrorNo = VARN_E_TABLE_FULL;
    return 0;
  }
  VarnMessage[h].state = ENTRY_DISABLED;
  if (!varn_util_strcpy(&VarnMessage[h].name, name)) return 0;
  return 1;
}

// An enable without an address for a name that is not disabled takes no
// row: there is nothing to enable and nowhere to send to.
extern "C" int varnP_enable_server_protocal(const char* name, const char* address) noexcept {
  int h = -1;
  bool was_disabled = varn::core::FindDisabledEntry(&h, name) != 0;
  bool with_address = address != nullptr && std::strcmp(address, "default") != 0;
  if (!was_disabled && !with_address) return 1;
  if (!was_disabled) {
    h = LowestFreeRow();
    if (h < 0) {
      VarnErrorNo = VARN_E_TABLE_FULL;
      return 0;
    }
  }
  VarnEntry& row = VarnMessage[h];
  row.state = ENTRY_ACTIVE;
  if (with_address) {
    if (!varn_util_strcpy(&row.local_address, State().own_address) ||
        !varn_util_strcpy(&row.address, address) || !varn_util_strcpy(&row.name, name)) {
      return 0;
    }
    row.send_stream = 1;
    row.recv_stream = 1;
    row.enabled_by_address = 1;
    return 1;
  }
  if (row.address == nullptr) {
    char error_text[VARN_STATUS_TEXT_SIZE];
    return varnP_invoke_entry(h, name, row.host, row.args, row.keep_entry, row.non_velor,
                              error_text, 0, row.workdir);
  }
  return 1;
}

extern "C" int varnP_notify(const char* text) noexcept {
  if (text == nullptr) return 1;
  const char* b1 = std::strchr(text, ' ');
  if (b1 == nullptr) return 1;
  const char* b2 = std::strchr(b1 + 1, ' ');
  if (b2 == nullptr) return 1;
  std::string verb(text, b1);
  std::string old_address(b1 + 1, b2);
  std::string new_address(b2 + 1);
  if (verb != "reinvoke" || old_address.empty() || new_address.empty()) return 1;
  int count = varn::core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    VarnEntry& row = VarnMessage[i];
    if (row.state == ENTRY_FREE || row.address == nullptr) continue;
    if (old_address == Bare(row.address)) {
      std::string updated = new_address;
      if (row.address[0] == '!' && row.address[1] != '\0') {
        updated = std::string(row.address, 2) + new_address;
      }
      if (!varn_util_strcpy(&row.address, updated.c_str())) {
        VarnErrorNo = VARN_E_MALLOC;
        return 0;
      }
      row.state = ENTRY_ACTIVE;
      row.last_data_len = 0;
      row.send_stream = 1;
      row.recv_stream = 1;
    }
    if (!RewriteEnableArgs(row, old_address, new_address)) {
      VarnErrorNo = VARN_E_MALLOC;
      return 0;
    }
  }
  return 1;
}

extern "C" int varnP_disconnect_process(varnHandle h) noexcept {
  if (!varn::core::EnterCall(h)) return 0;
  VarnEntry& row = VarnMessage[h];
  row.state = ENTRY_FREE;
  row.last_category = VARN_DETACH;
  row.send_stream = 0;
  row.recv_stream = 0;
  return 1;
}
