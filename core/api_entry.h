// The entry rule of the public calls.
#ifndef VARN_CORE_API_ENTRY_H_
#define VARN_CORE_API_ENTRY_H_

#include "core/library_lock.h"
#include "core/rows.h"
#include "varn.h"

namespace varn::core {

// Once the hub is gone the call refuses at once and 43 stays; otherwise the
// error number is cleared. A public call runs on the application's thread.
inline bool EnterCall() ASSERT_CAPABILITY(kLibrary) {
  OnApplicationThread();
  if (VarnErrorNo == VARN_E_DAEMON_GONE) return false;
  VarnErrorNo = 0;
  return true;
}

// The same, and the handle must be in range (31 otherwise).
inline bool EnterCall(int h) ASSERT_CAPABILITY(kLibrary) {
  if (!EnterCall()) return false;
  if (!ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return false;
  }
  return true;
}

}  // namespace varn::core

#endif  // VARN_CORE_API_ENTRY_H_
