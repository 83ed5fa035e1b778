// DATA batching: inside a BEGIN..END stream, DATA records to one peer are
// collected into one DATA packet whose payload is a run of records, each its
// length as six digits followed by its bytes.
//
// The batch belongs to the application's thread.
#ifndef VARN_TRANSPORT_DATA_BATCH_H_
#define VARN_TRANSPORT_DATA_BATCH_H_

#include "core/library_lock.h"

namespace varn::transport {

// Empties the batch destination and length (varn_send_init).
void ResetBatchForInit() REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_DATA_BATCH_H_
