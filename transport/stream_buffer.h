// The buffer of the DATA stream being received: the payloads of the stream's
// DATA packets, one after another, each with the padding it arrived with.
// Records are six length digits followed by that many bytes.
//
// Owned by the application's thread (core/library_lock.h); interrupts carry
// no stream data.
#ifndef VARN_TRANSPORT_STREAM_BUFFER_H_
#define VARN_TRANSPORT_STREAM_BUFFER_H_

#include <cstddef>

#include "core/library_lock.h"

namespace varn::transport::stream {

// Empties the stream: source, buffer, counts and the END text.
void Reset() REQUIRES(core::kLibrary);
// Appends a payload from source. False (VarnErrorNo 35) when out of memory.
bool Append(const char* source, const char* payload, std::size_t length) REQUIRES(core::kLibrary);
std::size_t Unread() REQUIRES(core::kLibrary);
const char* Source() REQUIRES(core::kLibrary);
void SetSource(const char* source) REQUIRES(core::kLibrary);

// The next record's length. False when the data is corrupt (a record that
// claims more bytes than there are, or a length that is not six digits); the
// stream is then emptied. With six or fewer unread bytes the length is 0 and
// the buffer is emptied.
bool PeekLength(std::size_t* length) REQUIRES(core::kLibrary);
// Copies the next record into buffer with a NUL after it.
bool TakeRecord(char* buffer, std::size_t* length) REQUIRES(core::kLibrary);

// The END text of the stream (null when none).
const char* EndText() REQUIRES(core::kLibrary);
bool SetEndText(const char* text) REQUIRES(core::kLibrary);  // false when the copy fails
void FreeEndText() REQUIRES(core::kLibrary);
// Whether the END of the stream from Source() has been parsed.
bool Ended() REQUIRES(core::kLibrary);
void SetEnded() REQUIRES(core::kLibrary);

}  // namespace varn::transport::stream

#endif  // VARN_TRANSPORT_STREAM_BUFFER_H_
