// Who may touch the library's state.
//
// The library's state (the rows of VarnMessage, the remote file table, the
// queue, the stream buffer, the DATA batch, the receive side) has no lock.
// It belongs to the application's thread, which makes every public call;
// the input thread touches it only while it holds the application's thread
// still (transport/input_thread.cc), so the two never run library code at
// the same time.
//
// kLibrary stands for that ownership so that the compiler checks it: code
// that touches the state is marked REQUIRES(kLibrary) and internal data
// GUARDED_BY(kLibrary); a public call asserts, on entry, that it runs on the
// application's thread (OnApplicationThread), and the input thread acquires
// the capability for the time it holds the application's thread
// (HoldingApplication). The exported data globals are declared in the
// public C header and cannot carry the annotation; they follow the same
// rule.
#ifndef VARN_CORE_LIBRARY_LOCK_H_
#define VARN_CORE_LIBRARY_LOCK_H_

#include "platform/thread_annotations.h"

namespace varn::core {

class CAPABILITY("library state") LibraryCapability {};

// The one instance; it holds no data.
extern LibraryCapability kLibrary;

// Marks the start of code that runs on the application's thread with the
// library's state at its disposal: a public call, or a callback of the
// library's own threads that has the application's thread held.
inline void OnApplicationThread() ASSERT_CAPABILITY(kLibrary) {}

}  // namespace varn::core

#endif  // VARN_CORE_LIBRARY_LOCK_H_
