#include "transport/data_batch.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "core/rows.h"
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
// The row whose record was last added to the open batch (-1: none), and
// core::TextChanges() then: while both hold, g_destination is that row's
// address without comparing the two.
int g_row GUARDED_BY(varn::core::kLibrary) = -1;
std::uint64_t g_row_texts GUARDED_BY(varn::core::kLibrary) = 0;

std::size_t HeaderSize(const char* destination) {
  return wire::HeaderSize(destination, varn::core::Fixed().own_address,
                          wire::CategoryWord(VARN_DATA));
}

// Size of the batch packet once `used` bytes (header space included) are
// written and padded: the limit applies to the packet as it goes out.
std::size_t PaddedSize(std::size_t used) {
  return used + wire::PaddingFor(used - wire::kLengthDigits);
}

// Whether a record of `length` bytes goes into the open batch as it is:
// within the packet limit and the buffer (records, up to three bytes of
// padding and a terminator).
bool Fits(std::size_t length) REQUIRES(varn::core::kLibrary) {
  std::size_t used = g_length + wire::kLengthDigits + length;
  return g_buffer != nullptr && PaddedSize(used) < wire::kPacketLimit && used + 4 <= g_capacity;
}

// The length field of the last record appended: a stream's records are
// mostly of one size, and the field is then copied instead of written.
std::size_t g_last_length GUARDED_BY(varn::core::kLibrary) = 0;
char g_last_digits[wire::kLengthDigits] GUARDED_BY(varn::core::kLibrary) = {'0', '0', '0',
                                                                            '0', '0', '0'};

void Append(const void* payload, std::size_t length) REQUIRES(varn::core::kLibrary) {
  if (length != g_last_length) {
    wire::WriteLength(g_last_digits, length);
    g_last_length = length;
  }
  std::memcpy(g_buffer + g_length, g_last_digits, wire::kLengthDigits);
  g_length += wire::kLengthDigits;
  if (length > 0) std::memcpy(g_buffer + g_length, payload, length);
  g_length += length;
}

}  // namespace

namespace varn::transport {

void ResetBatchForInit() {
  g_destination[0] = '\0';
  g_length = 0;
  g_row = -1;
}

int AddRecordFor(int h, const void* payload, std::size_t length) {
  if (!varnP_data_batch_add(VarnMessage[h].address, payload, length)) return 0;
  g_row = h;
  g_row_texts = core::TextChanges();
  return 1;
}

bool AppendToOpenBatch(int h, const void* payload, std::size_t length) {
  if (h != g_row || g_row_texts != core::TextChanges() || g_destination[0] == '\0') return false;
  // What varn_send_msg would check on its way to the batch: the row still
  // takes records in its stream, and no row is disabled (a disabled peer's
  // records are dropped, which the whole path decides).
  const VarnEntry& row = VarnMessage[h];
  if (row.state != ENTRY_ACTIVE ||
      row.send_stream != static_cast<std::uint32_t>(core::Stream::kStreaming) ||
      core::AnyRowDisabled()) {
    return false;
  }
  if (length == 0 && payload != nullptr) length = std::strlen(static_cast<const char*>(payload));
  if (!Fits(length)) return false;
  Append(payload, length);
  return true;
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
  if (has_records && !Fits(length)) {
    if (!varnP_data_batch_flush() || !varnP_data_batch_open(destination)) return 0;
  }
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
  Append(payload, length);
  return 1;
}

extern "C" int varnP_data_batch_open(const char* destination) noexcept {
  varn::core::OnApplicationThread();
  g_row = -1;
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
  g_row = -1;
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
