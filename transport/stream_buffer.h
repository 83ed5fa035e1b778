// The buffer of the DATA stream being received: the payloads of the stream's
// DATA packets, one after another, each with the padding it arrived with.
// Records are six length digits followed by that many bytes.
//
// Owned by the application's thread (the input thread never touches it:
// interrupts carry no stream data).
#ifndef VARN_TRANSPORT_STREAM_BUFFER_H_
#define VARN_TRANSPORT_STREAM_BUFFER_H_

#include <cstddef>

namespace varn::transport::stream {

// Empties the stream: source, buffer, counts and the END text.
void Reset();
// Appends a payload from source. False (VarnErrorNo 35) when out of memory.
bool Append(const char* source, const char* payload, std::size_t length);
std::size_t Unread();
const char* Source();
void SetSource(const char* source);

// The next record's length. False when the data is corrupt (a record that
// claims more bytes than there are, or a length that is not six digits); the
// stream is then emptied. With six or fewer unread bytes the length is 0 and
// the buffer is emptied.
bool PeekLength(std::size_t* length);
// Copies the next record into buffer with a NUL after it.
bool TakeRecord(char* buffer, std::size_t* length);

// The END text of the stream (null when none).
const char* EndText();
bool SetEndText(const char* text);  // false when the copy fails
void FreeEndText();
// Whether the END of the stream from Source() has been parsed.
bool Ended();
void SetEnded();

}  // namespace varn::transport::stream

#endif  // VARN_TRANSPORT_STREAM_BUFFER_H_
