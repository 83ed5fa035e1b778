// The library's low-memory handler, installed into the support library's
// allocator by varn_init.
#ifndef VARN_CORE_LOW_MEMORY_H_
#define VARN_CORE_LOW_MEMORY_H_

namespace varn::core {

// Puts the handler in force with a reserve of 100000 bytes, keeping an
// earlier handler in force when there was one.
void InstallLowMemoryHandler();

}  // namespace varn::core

#endif  // VARN_CORE_LOW_MEMORY_H_
