// The remote file table: rows 0..29 for remote files, row 30 collecting
// Quon's answers to requests that are not tied to an open file.
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "varn.h"

namespace varn::core {
namespace {

constexpr int kFileRows = VARN_QUON_REPLY_ROW;  // rows that belong to files
constexpr int kRowWaiting = 2;

VarnFileEntry g_file_table[VARN_FILE_ENTRIES] = {};

}  // namespace

VarnFileEntry* FileTable() { return g_file_table; }

void ClearFileRows() {
  for (int i = 0; i < kFileRows; ++i) {
    VarnFileEntry& row = g_file_table[i];
    std::free(row.name);
    std::free(row.last_data);
    row = VarnFileEntry{};
    row.remote_fd = -1;
  }
}

bool FileAnswer(int category, const char* payload, std::size_t length) {
  int index = varnP_find_file_entry();
  if (index < 0) return false;
  VarnFileEntry& row = g_file_table[index];
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

}  // namespace varn::core

int varnP_find_file_entry(void) noexcept {
  VarnErrorNo = VARN_E_NONE;
  const VarnFileEntry* table = varn::core::FileTable();
  for (int i = 0; i < VARN_FILE_ENTRIES; ++i) {
    if (table[i].state == varn::core::kRowWaiting) return i;
  }
  return -1;
}
