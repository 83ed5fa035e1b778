// The hub's list of processes, as the rows use it: a row created for a
// message from an unknown source takes the name the list gives that
// source's address. varn_init registers this with the rows.
#ifndef VARN_PROCESS_PROCESS_LIST_H_
#define VARN_PROCESS_PROCESS_LIST_H_

#include "core/library_lock.h"

namespace varn::process {

// Names row h after the record of `address` in the hub's list. Returns h,
// or -1 when the list cannot be had (VarnErrorNo 63) or does not know the
// address; the row stays in use either way.
int NameFromProcessList(int h, const char* address) REQUIRES(core::kLibrary);

}  // namespace varn::process

#endif  // VARN_PROCESS_PROCESS_LIST_H_
