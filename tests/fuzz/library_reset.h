// Puts the library's tables back as varn_init leaves them, freeing what the
// previous input stored, so that every input starts from the same state and
// nothing is left for the leak checker.
#ifndef VARN_TESTS_FUZZ_LIBRARY_RESET_H_
#define VARN_TESTS_FUZZ_LIBRARY_RESET_H_

#include <cstdlib>

#include "core/remote_file_table.h"
#include "core/status.h"
#include "varn.h"

namespace varn::fuzz {

// Every row of the process table and the remote file table, the reply row
// included, with the texts they own.
inline void FreeAllRows() {
  for (VarnEntry& e : VarnMessage) {
    for (char* text :
         {e.address, e.local_address, e.last_data, e.host, e.name, e.args, e.workdir}) {
      std::free(text);
    }
    e = VarnEntry{};
  }
  VarnFileEntry& reply = core::FileRow(core::kReplyRow);
  std::free(reply.name);
  std::free(reply.last_data);
  reply = VarnFileEntry{};
  core::ClearFileRows();
}

// The queue, the stream buffer, the rows, the own status and the error
// number.
inline void ResetLibraryState() {
  varn_queue_init();
  varn_recv_init();
  FreeAllRows();
  core::SetStatus(VARN_STATUS_IDLE, nullptr);
  VarnRecvedQuonStatusIdle = 0;
  VarnErrorNo = 0;
}

}  // namespace varn::fuzz

#endif  // VARN_TESTS_FUZZ_LIBRARY_RESET_H_
