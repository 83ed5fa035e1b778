// The buffer of the DATA stream being received: the payloads of the stream's
// DATA packets, one after another, each with the padding it arrived with.
// Records are six length digits followed by that many bytes.
//
// Owned by the application's thread (core/library_lock.h); interrupts carry
// no stream data.
#ifndef VARN_TRANSPORT_STREAM_BUFFER_H_
#define VARN_TRANSPORT_STREAM_BUFFER_H_

#include <cstddef>
#include <cstdint>

#include "core/library_lock.h"

namespace varn::transport::stream {

// Empties the stream: source, buffer, counts and the END text.
void Reset() REQUIRES(core::kLibrary);
// Appends a payload from source. False (VarnErrorNo 35) when out of memory.
bool Append(const char* source, const char* payload, std::size_t length) REQUIRES(core::kLibrary);
std::size_t Unread() REQUIRES(core::kLibrary);
const char* Source() REQUIRES(core::kLibrary);
void SetSource(const char* source) REQUIRES(core::kLibrary);
// Counts the changes of Source(): a comparison with it holds while the
// count stays the same.
std::uint64_t SourceChanges() REQUIRES(core::kLibrary);

// What Take did with the next record.
enum class Taken {
  kRecord,   // copied into the buffer, with a NUL after it
  kTooLong,  // it needs `capacity` or more bytes: left where it is
  kCorrupt,  // a length that is not six digits, or more bytes than there
             // are: the stream is emptied
};
// Takes the next record into buffer (capacity bytes; negative: large
// enough), *length its size. With six or fewer unread bytes (after the
// padding) there is no record: the length is 0 and the buffer is emptied.
// The record's length is parsed once: this runs for every record read.
Taken Take(char* buffer, std::int64_t capacity, std::size_t* length) REQUIRES(core::kLibrary);

// The END text of the stream (null when none).
const char* EndText() REQUIRES(core::kLibrary);
bool SetEndText(const char* text) REQUIRES(core::kLibrary);  // false when the copy fails
void FreeEndText() REQUIRES(core::kLibrary);
// Whether the END of the stream from Source() has been parsed.
bool Ended() REQUIRES(core::kLibrary);
void SetEnded() REQUIRES(core::kLibrary);

}  // namespace varn::transport::stream

#endif  // VARN_TRANSPORT_STREAM_BUFFER_H_
