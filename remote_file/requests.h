// Remote file requests: file operations the hub carries out beside itself
// for this process, one request and one answer (FACK or FNAK) each, filed
// into a row of the remote file table (core/remote_file_table.h). The
// exported calls are the varn_quon_f family (varn.h); this header holds
// the limits the stream layer shares.
#ifndef VARN_REMOTE_FILE_REQUESTS_H_
#define VARN_REMOTE_FILE_REQUESTS_H_

#include <cstddef>

namespace varn::remote_file {

// The most bytes one FREAD asks for.
inline constexpr std::size_t kMaxReadRequest = 30208;
// Every FWRITE payload, its "NUMBER COUNT " text included, fits this.
inline constexpr std::size_t kMaxWritePayload = 30208;

}  // namespace varn::remote_file

#endif  // VARN_REMOTE_FILE_REQUESTS_H_
