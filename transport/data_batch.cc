#include "transport/data_batch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace {

namespace wire = varn::wire;

// A batch goes out when it holds this much: one write (and one wake-up of
// the reader) per 128 KiB of records. Measured against 32 and 60 KiB on a
// link, it took 16 KiB records from about half the pipe's rate to nine
// tenths of it; the reader's buffer holds two such packets.
constexpr std::size_t kStartCapacity = 128 * 1024;

char g_destination[1024] GUARDED_BY(varn::core::kLibrary);  // empty: no batch open
char* g_buffer GUARDED_BY(varn::core::kLibrary) = nullptr;
std::size_t g_capacity GUARDED_BY(varn::core::kLibrary) = 0;
// Bytes of the packet under construction, header space included.
std::size_t g_length GUARDED_BY(varn::core::kLibrary) = 0;
// The header's size for g_destination, worked out when the batch opened.
std::size_t g_header_size GUARDED_BY(varn::core::kLibrary) = 0;

std::size_t HeaderSize(const char* destination) {
  return wire::HeaderSize(destination, varn::core::Fixed().own_address,
                          wire::CategoryWord(VARN_DATA));
}

// Size of the batch packet once `used` bytes (header space included) are
// written and padded: the limit applies to the packet as it goes out.
std::size_t PaddedSize(std::size_t used) {
  return used + wire::PaddingFor(used - wire::kLengthDigits);
}

}  // namespace

namespace varn::transport {

void ResetBatchForInit() {
  g_destination[0] = '\0';
  g_length = 0;
}

}  // namespace varn::transport

extern "C" int varnP_data_batch_add(const char* destination, const void* payload,
                                    size_t length) noexcept {
  varn::core::OnApplicationThread();
  if (length == 0 && payload != nullptr) length = std::strlen(static_cast<const char*>(payload));
  bool same = g_destination[0] != '\0' && std::strcmp(g_destination, destination) == 0;
  std::size_t header = same ? g_header_size : HeaderSize(destination);
  if (PaddedSize(header + wire::kLengthDigits + length) >= wire::kPacketLimit) {
    VarnErrorNo = VARN_E_TOO_LONG;
    return 0;
  }
  if (!same) {
    if (!varnP_data_batch_flush() || !varnP_data_batch_open(destination)) return 0;
  }
  // A full batch goes out first; a batch that holds no record yet is not
  // flushed (it would be an empty DATA packet), it grows instead.
  bool has_records = g_length > g_header_size;
  if (g_buffer != nullptr && has_records &&
      (PaddedSize(g_length + wire::kLengthDigits + length) >= wire::kPacketLimit ||
       g_length + wire::kLengthDigits + length >= g_capacity)) {
    if (!varnP_data_batch_flush() || !varnP_data_batch_open(destination)) return 0;
  }
  // Records, up to three bytes of padding and a terminator.
  std::size_t need = g_length + wire::kLengthDigits + length + 4;
  if (g_buffer == nullptr || g_capacity < need) {
    std::size_t grow = g_length + length + 7 + 256;
    if (grow < kStartCapacity) grow = kStartCapacity;
    char* p = static_cast<char*>(std::realloc(g_buffer, grow));
    if (p == nullptr) {
      VarnErrorNo = VARN_E_MALLOC;
      return 0;
    }
    g_buffer = p;
    g_capacity = grow;
  }
  wire::WriteLength(g_buffer + g_length, length);
  g_length += wire::kLengthDigits;
  if (length > 0) std::memcpy(g_buffer + g_length, payload, length);
  g_length += length;
  return 1;
}

extern "C" int varnP_data_batch_open(const char* destination) noexcept {
  varn::core::OnApplicationThread();
  std::snprintf(g_destination, sizeof g_destination, "%s", destination);
  g_header_size = HeaderSize(g_destination);
  g_length = g_header_size;
  return 1;
}

extern "C" int varnP_data_batch_flush(void) noexcept {
  varn::core::OnApplicationThread();
  if (g_length == 0 || g_buffer == nullptr || g_destination[0] == '\0') return 1;
  std::size_t c = g_length - wire::kLengthDigits;
  std::size_t p = wire::PaddingFor(c);
  std::size_t body = c + p;
  std::memset(g_buffer + g_length, 0, p);
  // The header goes into the space kept for it in front of the records.
  char* end = wire::WriteHeader(g_buffer, body, g_destination, varn::core::Fixed().own_address,
                                wire::CategoryWord(VARN_DATA));
  *end = ' ';
  if (!varnP_write_packet(g_buffer, wire::kLengthDigits + body)) return 0;
  g_length = 0;
  g_buffer[0] = '\0';
  g_destination[0] = '\0';
  return 1;
}

extern "C" int varnP_data_batch_reset(void) noexcept {
  varn::core::OnApplicationThread();
  std::free(g_buffer);
  g_buffer = static_cast<char*>(std::malloc(kStartCapacity));
  if (g_buffer == nullptr) {
    g_capacity = 0;
    VarnErrorNo = VARN_E_MALLOC;
    return 0;
  }
  g_capacity = kStartCapacity;
  return 1;
}
