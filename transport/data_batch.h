// DATA batching: inside a BEGIN..END stream, DATA records to one peer are
// collected into one DATA packet whose payload is a run of records, each its
// length as six digits followed by its bytes.
//
// The batch belongs to the application's thread.
#ifndef VARN_TRANSPORT_DATA_BATCH_H_
#define VARN_TRANSPORT_DATA_BATCH_H_

#include <cstddef>

#include "core/library_lock.h"

namespace varn::transport {

// Empties the batch destination and length (varn_send_init).
void ResetBatchForInit() REQUIRES(core::kLibrary);

// Adds a record for row h, whose stream is open, to the batch (through
// varnP_data_batch_add, to the row's address). 1, or 0 with VarnErrorNo.
int AddRecordFor(int h, const void* payload, std::size_t length) REQUIRES(core::kLibrary);

// The per-record fast path: appends the record when the open batch was
// last added to for row h, the row's address has not changed since, the
// row is active inside its stream, no row is disabled, and the record
// fits. False, with nothing done, otherwise (the caller goes the whole
// way). h must be a valid handle. A length of 0 with a payload means a
// NUL-terminated text.
bool AppendToOpenBatch(int h, const void* payload, std::size_t length) REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_DATA_BATCH_H_
