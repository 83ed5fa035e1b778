// The varn_quon_f calls: each sends one request to the hub and reads and
// handles incoming messages until the answer has been filed into its row
// (the file's row, or the reply row for stat and unlink). Application's
// thread; one request is outstanding at a time.
#include "remote_file/requests.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "core/remote_file_table.h"
#include "transport/await.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

using varn::core::AwaitingAnswer;
using varn::core::FileRow;
using varn::core::FileRowState;
using varn::core::Fixed;
namespace core = varn::core;
namespace transport = varn::transport;
namespace wire = varn::wire;
namespace remote_file = varn::remote_file;

// A request's text (all but FWRITE) fits 512 bytes with its terminator.
constexpr std::size_t kRequestTextMax = 511;

// The byte the hub's position of each READ file stands at, as far as this
// process knows; -1 unknown. A read whose answer may carry padding needs
// it to learn how many bytes really came (see ReceivedCount).
std::int64_t g_position[core::kFileRows] GUARDED_BY(core::kLibrary);

// The signal calls the queue and the protocol make around their steps;
// they do nothing here (core/util.cc).
class HeldSignals {
 public:
  HeldSignals() { varn_util_hold_sigusr1(1); }
  ~HeldSignals() { varn_util_release_sigusr1(1); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;
};

enum class Answer { kNotSent, kNone, kAck, kNak };

// Sends one request and waits for its answer in the row awaiting it.
Answer Ask(AwaitingAnswer& row, int category, const char* payload, std::size_t length)
    REQUIRES(core::kLibrary) {
  if (!varn_send_packet(VARN_HUB_ADDRESS, Fixed().own_address, category, payload, length)) {
    return Answer::kNotSent;
  }
  if (!transport::AwaitAnswer(row, {VARN_FACK, VARN_FNAK})) return Answer::kNone;
  return row.category() == VARN_FACK ? Answer::kAck : Answer::kNak;
}

Answer Ask(AwaitingAnswer& row, int category, const std::string& text) REQUIRES(core::kLibrary) {
  return Ask(row, category, text.c_str(), 0);
}

// An answer's payload as text (a NUL follows it), "" when it has none.
const char* TextOf(const VarnFileEntry& row) {
  return row.last_data != nullptr ? row.last_data : "";
}
const char* AnswerText(const AwaitingAnswer& row) { return TextOf(row.row()); }

int Fail(int error) {
  VarnErrorNo = error;
  return 0;
}

// A handle names an open file row (0..29, in use); 48 otherwise.
bool OpenFile(int handle) REQUIRES(core::kLibrary) {
  if (handle < 0 || handle >= core::kFileRows || FileRow(handle).state == 0) {
    VarnErrorNo = VARN_E_FILE_HANDLE;
    return false;
  }
  return true;
}

// The hub's answer to FREAD carries the bytes read followed by the NUL
// padding of its packet (up to 3 bytes), so the payload's length alone does
// not tell how many bytes came. The request asks for a count whose answer,
// when complete, needs exactly 3 bytes of padding: a payload of count + 3
// bytes then proves a complete read, and any shorter read gives a shorter
// payload. That count is chosen here, as close below `want` as it can be.
std::size_t CountWithKnownPadding(std::size_t want) {
  std::size_t header = std::strlen(Fixed().own_address) + wire::kHubAddress.size() +
                       std::strlen(wire::CategoryWord(VARN_FACK)) + 3;
  // Padding 3 when header + count is 3 modulo 4.
  std::size_t excess = (header + want + 1) % 4;
  return want > excess ? want - excess : want;
}

// How many bytes an FACK to FREAD of `asked` bytes carries, its payload
// being `received` bytes long. When the payload alone cannot tell (a short
// read at the end of the file), the hub is asked for the position.
std::size_t ReceivedCount(int handle, std::size_t asked, std::size_t received, const char* data)
    REQUIRES(core::kLibrary) {
  std::size_t high = received < asked ? received : asked;
  std::size_t low = received > 3 ? received - 3 : 0;
  if (received >= asked + 3 || low >= high) return high;
  std::int64_t before = g_position[handle];
  int saved = VarnErrorNo;
  std::int64_t after = before >= 0 ? varn_quon_ftell(handle) : -1;
  if (VarnErrorNo != VARN_E_DAEMON_GONE) VarnErrorNo = saved;
  if (after >= 0 && after - before >= static_cast<std::int64_t>(low) &&
      after - before <= static_cast<std::int64_t>(high)) {
    return static_cast<std::size_t>(after - before);
  }
  // The position cannot be had: the padding is taken to be the trailing
  // NULs (exact unless the file itself ends in NUL bytes there).
  std::size_t n = high;
  while (n > low && data[n - 1] == '\0') --n;
  return n;
}

}  // namespace

extern "C" int varn_quon_fopen(int* handle, const char* name, int mode, int type) noexcept {
  HeldSignals held;
  if (!core::EnterCall()) return 0;
  if (wire::FileTypeWord(type) == nullptr) return Fail(VARN_E_FILE_TYPE);
  if (wire::FileModeWord(mode) == nullptr) return Fail(VARN_E_FILE_MODE);
  int index = -1;
  for (int i = 0; i < core::kFileRows; ++i) {
    if (FileRow(i).state == 0) {
      index = i;
      break;
    }
  }
  if (index < 0) return Fail(VARN_E_FILE_TABLE_FULL);
  std::string request = wire::BuildOpenRequest(name != nullptr ? name : "", mode, type);
  // A name that does not fit the request is refused, never cut: a cut name
  // would open another file.
  if (request.size() > kRequestTextMax) return Fail(VARN_E_FOPEN);
  VarnFileEntry& row = FileRow(index);
  std::free(row.name);
  std::free(row.last_data);
  row = VarnFileEntry{};
  row.remote_fd = -1;
  AwaitingAnswer answer(index, FileRowState::kFree);
  switch (Ask(answer, VARN_FOPEN, request)) {
    case Answer::kNotSent:
    case Answer::kNak:
      return Fail(VARN_E_FOPEN);
    case Answer::kNone:
      return 0;
    case Answer::kAck:
      break;
  }
  int number = std::atoi(AnswerText(answer));
  row.name = strdup(name != nullptr ? name : "");
  if (row.name == nullptr) {
    // The row is not usable without its name: the hub's file is closed
    // again and the row stays free.
    std::string close = wire::BuildNumberRequest(number);
    Ask(answer, VARN_FCLOSE, close);
    return Fail(VARN_E_MALLOC);
  }
  answer.set_after(FileRowState::kOpen);
  row.remote_fd = number;
  row.mode = mode;
  row.type = type;
  row.recv_stream = mode == 1 ? 1 : 0;
  row.send_stream = mode == 1 ? 0 : 1;
  g_position[index] = mode == 1 ? 0 : -1;
  *handle = index;
  return 1;
}

extern "C" int varn_quon_fclose(int handle) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return 0;
  VarnFileEntry& row = FileRow(handle);
  Answer result;
  {
    AwaitingAnswer answer(handle, FileRowState::kOpen);
    result = Ask(answer, VARN_FCLOSE, wire::BuildNumberRequest(row.remote_fd));
  }
  if (result == Answer::kNotSent || result == Answer::kNak) return Fail(VARN_E_FCLOSE);
  std::free(row.name);
  std::free(row.last_data);
  row = VarnFileEntry{};
  row.remote_fd = -1;
  g_position[handle] = -1;
  return 1;
}

extern "C" uint64_t varn_quon_fread(void* buffer, uint64_t size, uint64_t count,
                                    int handle) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return 0;
  VarnFileEntry& row = FileRow(handle);
  // A size of 0 reads nothing, whatever the type: it is refused like the
  // binary case, so that no count is divided by it.
  if (size == 0 || (row.type == 2 && count == 0)) return Fail(VARN_E_NEGATIVE_SIZE);
  if (row.mode != 1) return Fail(VARN_E_FILE_CONFLICT);
  VarnErrorNo = 0;
  std::size_t want = count > remote_file::kMaxReadRequest / size
                         ? remote_file::kMaxReadRequest
                         : static_cast<std::size_t>(size * count);
  if (want == 0) return 0;
  std::size_t asked = CountWithKnownPadding(want);
  std::string request = wire::BuildReadRequest(row.remote_fd, static_cast<long>(asked));
  Answer result;
  {
    AwaitingAnswer answer(handle, FileRowState::kOpen);
    result = Ask(answer, VARN_FREAD, request);
  }
  switch (result) {
    case Answer::kNotSent:
      return Fail(VARN_E_FREAD);
    case Answer::kNak:
      return Fail(wire::kEndOfFileRefusal == TextOf(row) ? VARN_E_EOF : VARN_E_FREAD);
    case Answer::kNone:
      return 0;
    case Answer::kAck:
      break;
  }
  // The bytes are kept before the count is settled: settling it may ask
  // the hub again, and the answer replaces the row's data.
  std::size_t received = static_cast<std::size_t>(row.last_data_len);
  std::string data(row.last_data != nullptr ? row.last_data : "", received);
  std::int64_t before = g_position[handle];
  std::size_t n = ReceivedCount(handle, asked, received, data.data());
  if (n > 0) std::memcpy(buffer, data.data(), n);
  g_position[handle] = before >= 0 ? before + static_cast<std::int64_t>(n) : -1;
  return n / size;
}

extern "C" uint64_t varn_quon_fwrite(const void* buffer, uint64_t size, uint64_t count,
                                     int handle) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return 0;
  VarnFileEntry& row = FileRow(handle);
  if (row.mode == 1) return Fail(VARN_E_FILE_CONFLICT);
  if (count == 0) return 0;
  // Each packet carries whole items; an item that cannot fit one packet (or
  // an item of no size) cannot be written.
  std::size_t k = std::to_string(row.remote_fd).size() + 1;
  std::size_t per_packet = remote_file::kMaxWritePayload - 7 - k;
  if (size == 0) return Fail(VARN_E_NEGATIVE_SIZE);
  if (size > per_packet) return Fail(VARN_E_FWRITE);
  const char* bytes = static_cast<const char*>(buffer);
  std::uint64_t left = count;
  std::uint64_t total = 0;
  while (left > 0) {
    std::uint64_t items = per_packet / size < left ? per_packet / size : left;
    std::size_t length = static_cast<std::size_t>(items * size);
    std::string payload = wire::BuildWriteHeader(row.remote_fd, length);
    payload.append(bytes + total, length);
    Answer result;
    {
      AwaitingAnswer answer(handle, FileRowState::kOpen);
      result = Ask(answer, VARN_FWRITE, payload.data(), payload.size());
    }
    if (result == Answer::kNotSent) return Fail(VARN_E_FWRITE);
    if (result == Answer::kNak) {
      VarnErrorNo = VARN_E_FWRITE;
      return total;  // the bytes accepted before, not divided by the size
    }
    total += length;
    left -= items;
  }
  return total / size;
}

extern "C" int varn_quon_frewind(int handle) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return 0;
  Answer result;
  {
    AwaitingAnswer answer(handle, FileRowState::kOpen);
    result = Ask(answer, VARN_FREWIND, wire::BuildNumberRequest(FileRow(handle).remote_fd));
  }
  if (result == Answer::kNotSent || result == Answer::kNak) return Fail(VARN_E_FREWIND);
  g_position[handle] = 0;
  return 1;
}

namespace {

// FSTAT and FUNLINK name a path and are answered in the reply row.
Answer AskAboutPath(int category, const char* path) REQUIRES(core::kLibrary) {
  std::string text = path != nullptr ? path : "";
  if (text.size() > kRequestTextMax) return Answer::kNotSent;  // refused, never cut
  AwaitingAnswer answer(core::kReplyRow, FileRowState::kFree);
  return Ask(answer, category, text);
}

}  // namespace

extern "C" int varn_quon_funlink(const char* path) noexcept {
  HeldSignals held;
  if (!core::EnterCall()) return 0;
  Answer result = AskAboutPath(VARN_FUNLINK, path);
  if (result == Answer::kNotSent || result == Answer::kNak) return Fail(VARN_E_FUNLINK);
  return 1;
}

extern "C" int varn_quon_fstat(const char* path, int* kind) noexcept {
  HeldSignals held;
  if (!core::EnterCall()) return 0;
  switch (AskAboutPath(VARN_FSTAT, path)) {
    case Answer::kNotSent:
    case Answer::kNak:
      return Fail(VARN_E_FSTAT);
    case Answer::kNone:
      return 0;
    case Answer::kAck:
      *kind = std::atoi(TextOf(FileRow(core::kReplyRow)));
      return 1;
  }
  return 0;
}

extern "C" int varn_quon_feof(int handle) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return 0;
  AwaitingAnswer answer(handle, FileRowState::kOpen);
  switch (Ask(answer, VARN_FEOF, wire::BuildNumberRequest(FileRow(handle).remote_fd))) {
    case Answer::kNotSent:
    case Answer::kNak:
      return Fail(VARN_E_FEOF);
    case Answer::kNone:
      return 0;
    case Answer::kAck:
      return std::strcmp(AnswerText(answer), "1") == 0 ? 1 : 0;
  }
  return 0;
}

extern "C" int varn_quon_fseek(int handle, int offset, int whence, int64_t* position) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return 1;
  if (whence < 0 || whence > 2) whence = 0;
  AwaitingAnswer answer(handle, FileRowState::kOpen);
  switch (
      Ask(answer, VARN_FSEEK, wire::BuildSeekRequest(FileRow(handle).remote_fd, offset, whence))) {
    case Answer::kNotSent:
    case Answer::kNak:
      VarnErrorNo = VARN_E_FSEEK;
      return 1;
    case Answer::kNone:
      return 1;
    case Answer::kAck:
      break;
  }
  *position = std::atol(AnswerText(answer));
  g_position[handle] = *position;
  return 0;
}

extern "C" int64_t varn_quon_ftell(int handle) noexcept {
  HeldSignals held;
  if (!core::EnterCall() || !OpenFile(handle)) return -1;
  AwaitingAnswer answer(handle, FileRowState::kOpen);
  switch (Ask(answer, VARN_FTELL, wire::BuildNumberRequest(FileRow(handle).remote_fd))) {
    case Answer::kNotSent:
    case Answer::kNak:
      VarnErrorNo = VARN_E_FTELL;
      return -1;
    case Answer::kNone:
      return -1;
    case Answer::kAck:
      break;
  }
  int64_t position = std::atol(AnswerText(answer));
  g_position[handle] = position;
  return position;
}
