#include "transport/stream_buffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "transport/wire_format.h"
#include "varn.h"

namespace varn::transport::stream {
namespace {

constexpr std::size_t kMinCapacity = 32768;

using core::kLibrary;

char g_source[256] GUARDED_BY(kLibrary);
std::uint64_t g_source_changes GUARDED_BY(kLibrary) = 0;
char* g_buffer GUARDED_BY(kLibrary) = nullptr;
std::size_t g_capacity GUARDED_BY(kLibrary) = 0;
std::size_t g_offset GUARDED_BY(kLibrary) = 0;  // read offset
std::size_t g_unread GUARDED_BY(kLibrary) = 0;  // unread bytes from g_offset
char* g_end_text GUARDED_BY(kLibrary) = nullptr;
bool g_ended GUARDED_BY(kLibrary) = false;

void Empty() REQUIRES(kLibrary) {
  g_unread = 0;
  g_offset = 0;
}

// Skips the padding NULs before a record. Returns false when the data is
// not a record.
bool LocateRecord(std::size_t* skipped, std::size_t* length) REQUIRES(kLibrary) {
  std::size_t skip = 0;
  while (skip < 3 && skip < g_unread && g_buffer[g_offset + skip] == '\0') ++skip;
  if (g_unread - skip <= wire::kLengthDigits) {
    if (skip < g_unread && g_buffer[g_offset + skip] == '\0') return false;
    *skipped = skip;
    *length = 0;
    return true;
  }
  if (g_buffer[g_offset + skip] == '\0') return false;  // a fourth NUL
  std::size_t n = 0;
  if (wire::ParseLength(g_buffer + g_offset + skip, &n) != wire::WireError::kOk) return false;
  if (n > g_unread - skip - wire::kLengthDigits) return false;
  *skipped = skip;
  *length = n;
  return true;
}

}  // namespace

void Reset() {
  g_source[0] = '\0';
  ++g_source_changes;
  std::free(g_buffer);
  g_buffer = nullptr;
  g_capacity = 0;
  Empty();
  FreeEndText();
  g_ended = false;
}

bool Append(const char* source, const char* payload, std::size_t length) {
  SetSource(source);
  if (g_offset > 0 && g_unread > 0) std::memmove(g_buffer, g_buffer + g_offset, g_unread);
  g_offset = 0;
  std::size_t need = g_unread + length;
  if (need > g_capacity) {
    std::size_t grow = need + 256 > kMinCapacity ? need + 256 : kMinCapacity;
    char* p = static_cast<char*>(std::realloc(g_buffer, grow));
    if (p == nullptr) {
      VarnErrorNo = VARN_E_MALLOC;
      return false;
    }
    g_buffer = p;
    g_capacity = grow;
  }
  if (length > 0) std::memcpy(g_buffer + g_unread, payload, length);
  g_unread += length;
  return true;
}

std::size_t Unread() { return g_unread; }
const char* Source() { return g_source; }
void SetSource(const char* source) {
  if (source == nullptr) source = "";
  if (std::strncmp(g_source, source, sizeof g_source - 1) == 0) return;
  std::snprintf(g_source, sizeof g_source, "%s", source);
  ++g_source_changes;
}
std::uint64_t SourceChanges() { return g_source_changes; }

Taken Take(char* buffer, std::int64_t capacity, std::size_t* length) {
  std::size_t skipped = 0, n = 0;
  if (g_unread <= wire::kLengthDigits) {
    Empty();
  } else if (!LocateRecord(&skipped, &n)) {
    Empty();
    return Taken::kCorrupt;
  } else if (g_unread - skipped <= wire::kLengthDigits) {
    Empty();  // padding and fewer than seven bytes: no record
  }
  *length = n;
  if (capacity >= 0 && n >= static_cast<std::size_t>(capacity)) return Taken::kTooLong;
  if (g_unread == 0) {
    buffer[0] = '\0';
    return Taken::kRecord;
  }
  std::memcpy(buffer, g_buffer + g_offset + skipped + wire::kLengthDigits, n);
  buffer[n] = '\0';
  std::size_t used = skipped + wire::kLengthDigits + n;
  g_offset += used;
  g_unread -= used;
  if (g_unread < wire::kLengthDigits) Empty();
  return Taken::kRecord;
}

const char* EndText() { return g_end_text; }

bool SetEndText(const char* text) {
  char* copy = strdup(text);
  if (copy == nullptr) return false;
  std::free(g_end_text);
  g_end_text = copy;
  return true;
}

void FreeEndText() {
  std::free(g_end_text);
  g_end_text = nullptr;
}

bool Ended() { return g_ended; }
void SetEnded() { g_ended = true; }

}  // namespace varn::transport::stream
