// The enable and disable lists of server names, the "reinvoke" notice that
// tells everybody a peer moved, and disconnection. Application's thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "core/rows.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace {

using varn::core::Fixed;
using varn::core::Row;
using varn::core::RowState;
using varn::wire::WithoutRoutePrefix;
namespace core = varn::core;

int LowestFreeRow() REQUIRES(core::kLibrary) {
  int count = core::ActiveCount();
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
  if (WithoutRoutePrefix(word) != old_address) return true;
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
  core::OnApplicationThread();
  int count = varn::core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    VarnEntry& row = VarnMessage[i];
    if ((row.state == ENTRY_ACTIVE || row.state == ENTRY_DISABLED) && row.name != nullptr &&
        std::strcmp(row.name, name) == 0) {
      Row(i).set_state(RowState::kDisabled);
      return 1;
    }
  }
  int h = LowestFreeRow();
  if (h < 0) {
    VarnErrorNo = VARN_E_TABLE_FULL;
    return 0;
  }
  Row(h).set_state(RowState::kDisabled);
  if (!varn_util_strcpy(&VarnMessage[h].name, name)) return 0;
  return 1;
}

// An enable without an address for a name that is not disabled takes no
// row: there is nothing to enable and nowhere to send to.
extern "C" int varnP_enable_server_protocal(const char* name, const char* address) noexcept {
  core::OnApplicationThread();
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
  Row r(h);
  VarnEntry& row = r.entry();
  r.set_state(RowState::kActive);
  if (with_address) {
    if (!varn_util_strcpy(&row.local_address, Fixed().own_address) ||
        !varn_util_strcpy(&row.address, address) || !varn_util_strcpy(&row.name, name)) {
      return 0;
    }
    r.set_streams(core::Stream::kReady, core::Stream::kReady);
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
  core::OnApplicationThread();
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
    Row r(i);
    VarnEntry& row = r.entry();
    if (r.is(RowState::kFree) || row.address == nullptr) continue;
    std::string_view bare = WithoutRoutePrefix(row.address);
    if (old_address == bare) {
      // The route prefix, when there is one, stays in front of the new address.
      std::string updated =
          std::string(row.address, std::strlen(row.address) - bare.size()) + new_address;
      if (!varn_util_strcpy(&row.address, updated.c_str())) {
        VarnErrorNo = VARN_E_MALLOC;
        return 0;
      }
      r.set_state(RowState::kActive);
      row.last_data_len = 0;
      r.set_streams(core::Stream::kReady, core::Stream::kReady);
    }
    if (!RewriteEnableArgs(row, old_address, new_address)) {
      VarnErrorNo = VARN_E_MALLOC;
      return 0;
    }
  }
  return 1;
}

extern "C" int varnP_disconnect_process(varnHandle h) noexcept {
  if (!core::EnterCall(h)) return 0;
  Row row(h);
  row.set_state(RowState::kFree);
  row.set_last_category(VARN_DETACH);
  row.set_streams(core::Stream::kClosed, core::Stream::kClosed);
  return 1;
}
