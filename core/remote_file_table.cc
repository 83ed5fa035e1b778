#include "core/remote_file_table.h"

#include <cstdlib>
#include <cstring>

#include "varn.h"

namespace varn::core {
namespace {

VarnFileEntry g_table[VARN_FILE_ENTRIES] GUARDED_BY(kLibrary) = {};

}  // namespace

VarnFileEntry& FileRow(int index) { return g_table[index]; }

void ClearFileRows() {
  for (int i = 0; i < kFileRows; ++i) {
    VarnFileEntry& row = g_table[i];
    std::free(row.name);
    std::free(row.last_data);
    row = VarnFileEntry{};
    row.remote_fd = -1;
  }
}

bool FileAnswer(int category, const char* payload, std::size_t length) {
  int index = varnP_find_file_entry();
  if (index < 0) return false;
  VarnFileEntry& row = g_table[index];
  row.last_category = category;
  std::free(row.last_data);
  row.last_data = nullptr;
  row.last_data_len = 0;
  if (payload == nullptr || length == 0) return true;
  // The copy carries a NUL after the payload so text answers can be read
  // as strings; the payload itself may hold NUL bytes.
  char* copy = static_cast<char*>(std::malloc(length + 1));
  if (copy == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    return true;
  }
  std::memcpy(copy, payload, length);
  copy[length] = '\0';
  row.last_data = copy;
  row.last_data_len = length;
  return true;
}

AwaitingAnswer::AwaitingAnswer(int index, FileRowState after)
    : row_(g_table[index]), after_(after) {
  row_.state = static_cast<std::uint32_t>(FileRowState::kWaiting);
  row_.last_category = VARN_NONE;
}

AwaitingAnswer::~AwaitingAnswer() { row_.state = static_cast<std::uint32_t>(after_); }

}  // namespace varn::core

int varnP_find_file_entry(void) noexcept {
  varn::core::OnApplicationThread();
  VarnErrorNo = VARN_E_NONE;
  for (int i = 0; i < VARN_FILE_ENTRIES; ++i) {
    if (varn::core::FileRow(i).state ==
        static_cast<std::uint32_t>(varn::core::FileRowState::kWaiting)) {
      return i;
    }
  }
  return -1;
}
