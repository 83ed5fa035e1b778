// The message queue's calls for the layers above the transport, beside the
// exported varn_queue_ family.
#ifndef VARN_TRANSPORT_QUEUE_H_
#define VARN_TRANSPORT_QUEUE_H_

#include <cstddef>

#include "core/library_lock.h"

namespace varn::transport {

// Puts back a message the application took but does not handle now. It is
// taken by a later call, never by the wait that put it back: a plain wait's
// lane passes over it, the lane of varn_wait_for_any_from_handle takes it,
// and any read without a lane takes it in its turn.
int PutBack(const char* source, const char* destination, const char* payload, int category,
            std::size_t length) REQUIRES(core::kLibrary);

// Lets the lane now on also take messages that were put back (until the
// lane is reset).
void LaneTakesPutBack() REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_QUEUE_H_
