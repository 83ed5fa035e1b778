// Stand-in for the support library's memory services: an allocator that
// calls a low-memory handler when an allocation fails, and the exchange of
// that handler.
#ifndef VARN_HOST_MEMORY_H_
#define VARN_HOST_MEMORY_H_

#include <cstddef>

namespace varn::host {

// A handler receives (reserve, request) and answers 1 when memory may be
// available again, 0 otherwise.
using MemRecoverHandler = int (*)(std::size_t reserve, std::size_t request);

// Puts *handler and *reserve in force and hands back the previous ones in
// the same two slots.
void dravo_mem_recover_func(MemRecoverHandler* handler, std::size_t* reserve);

// malloc that calls the handler in force once when the first attempt fails,
// then tries again if the handler answered 1.
void* gmem_ko_malloc(std::size_t size);
void gmem_ko_free(void* p);

}  // namespace varn::host

#endif  // VARN_HOST_MEMORY_H_
