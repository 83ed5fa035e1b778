// The remote file table: rows 0..29 for files opened through the hub, row
// 30 (the reply row) collecting the hub's answers to requests that are not
// tied to an open file (the process list, hub commands, stat, unlink).
//
// An answer of the hub is filed into the first row that waits for one; only
// one request is outstanding at a time, so nothing in the answer needs to
// say which request it answers.
#ifndef VARN_CORE_REMOTE_FILE_TABLE_H_
#define VARN_CORE_REMOTE_FILE_TABLE_H_

#include <cstddef>
#include <cstdint>

#include "core/library_lock.h"
#include "varn.h"

namespace varn::core {

inline constexpr int kFileRows = VARN_QUON_REPLY_ROW;  // rows that belong to files
inline constexpr int kReplyRow = VARN_QUON_REPLY_ROW;

enum class FileRowState : std::uint32_t {
  kFree = 0,
  kOpen = 1,     // open, no request outstanding
  kWaiting = 2,  // a request waits for the hub's answer
};

VarnFileEntry& FileRow(int index) REQUIRES(kLibrary);
// Frees rows 0..29 as varn_init does (the reply row is left alone).
void ClearFileRows() REQUIRES(kLibrary);
// Files an answer into the first waiting row. False when no row waits (the
// answer is dropped). Sets VarnErrorNo 35 when the copy fails.
bool FileAnswer(int category, const char* payload, std::size_t length) REQUIRES(kLibrary);

// Marks a row as waiting for the hub's answer, with no answer yet, for the
// life of the object; then the row is put in the state `after`.
class AwaitingAnswer {
 public:
  AwaitingAnswer(int index, FileRowState after) REQUIRES(kLibrary);
  ~AwaitingAnswer();
  AwaitingAnswer(const AwaitingAnswer&) = delete;
  AwaitingAnswer& operator=(const AwaitingAnswer&) = delete;

  // The category of the answer filed so far (0: none yet).
  int category() const { return row_.last_category; }
  VarnFileEntry& row() { return row_; }
  const VarnFileEntry& row() const { return row_; }
  // The state the row takes when the object goes.
  void set_after(FileRowState after) { after_ = after; }

 private:
  VarnFileEntry& row_;
  FileRowState after_;
};

}  // namespace varn::core

#endif  // VARN_CORE_REMOTE_FILE_TABLE_H_
