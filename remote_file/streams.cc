// Remote streams: buffered streams over the remote file requests, numbered
// 1 to 30, that stand in for stdio streams when the file lives beside the
// hub. Reads fetch 16384 bytes at a time and serve everything byte by byte
// from the buffer; writes are collected up to 16384 bytes, which always fit
// one FWRITE. Application's thread.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "core/library_state.h"
#include "varn.h"

namespace {

namespace core = varn::core;

constexpr int kStreams = 30;
constexpr std::uint64_t kBufferSize = 16384;
constexpr int kRead = 1, kWrite = 2, kAppend = 3;  // the remote modes
constexpr char kCtrlZ = 26;

struct VarnRemoteStream {
  std::uint64_t number;  // slot index + 1: what varn_fileR_fopen hands out
  std::int32_t file;     // remote file handle; -1 while the slot is free
  std::int32_t mode;
  std::int32_t type;
  char* buffer;
  std::uint64_t limit;   // READ: valid bytes; WRITE, APPEND: the capacity
  std::uint64_t pos;     // READ: next unread byte; WRITE, APPEND: bytes collected
  std::uint64_t offset;  // the position as the caller sees it
  // A line that started with Ctrl-Z ended the input: the line readers find
  // nothing more until the stream is repositioned.
  bool ended;
};

VarnRemoteStream g_streams[kStreams] GUARDED_BY(core::kLibrary);
bool g_set_up GUARDED_BY(core::kLibrary) = false;

void SetUp() REQUIRES(core::kLibrary) {
  if (g_set_up) return;
  for (int i = 0; i < kStreams; ++i) {
    g_streams[i] = VarnRemoteStream{};
    g_streams[i].number = static_cast<std::uint64_t>(i) + 1;
    g_streams[i].file = -1;
  }
  g_set_up = true;
}

// The open slot of a stream number; null for a number out of 1..30 or a
// free slot.
VarnRemoteStream* Slot(std::uint64_t number) REQUIRES(core::kLibrary) {
  SetUp();
  if (number < 1 || number > kStreams) return nullptr;
  VarnRemoteStream& s = g_streams[number - 1];
  return s.file < 0 ? nullptr : &s;
}

void FreeSlot(VarnRemoteStream& s) {
  s.file = -1;
  s.mode = 0;
  s.type = 0;
  std::free(s.buffer);
  s.buffer = nullptr;
  s.limit = 0;
  s.pos = 0;
  s.offset = 0;
  s.ended = false;
}

bool Writes(const VarnRemoteStream& s) { return s.mode == kWrite || s.mode == kAppend; }

// Writes the collected bytes. False when a write fails.
bool Flush(VarnRemoteStream& s) {
  std::uint64_t done = 0;
  while (done < s.pos) {
    std::uint64_t n = varn_quon_fwrite(s.buffer + done, 1, s.pos - done, s.file);
    if (n == 0) return false;
    done += n;
  }
  s.pos = 0;
  return true;
}

// Reads the next block. False at the end of the data.
bool Refill(VarnRemoteStream& s) {
  std::uint64_t n = varn_quon_fread(s.buffer, 1, kBufferSize, s.file);
  if (n == 0) return false;
  s.limit = n;
  s.pos = 0;
  return true;
}

// The next byte, or -1 at the end of the data.
int NextByte(VarnRemoteStream& s) {
  if (s.pos >= s.limit && !Refill(s)) return -1;
  ++s.offset;
  return static_cast<unsigned char>(s.buffer[s.pos++]);
}

// Gives the last byte back, when it is still in the buffer.
void GiveBack(VarnRemoteStream& s) {
  if (s.pos > 0) {
    --s.pos;
    --s.offset;
  }
}

bool IsSpace(int c) { return c == ' ' || (c >= 9 && c <= 13); }

// Collects one token for a conversion: leading white space is skipped, then
// bytes are taken as `accept` allows. A byte that ends the token without
// being white space is given back. A token longer than 39 characters is cut
// there, and the rest of it is passed over, so that the next conversion
// starts at the next token.
template <typename Accept>
std::string Token(VarnRemoteStream& s, Accept accept) {
  int c;
  do {
    c = NextByte(s);
  } while (c >= 0 && IsSpace(c));
  std::string token;
  while (c >= 0 && !IsSpace(c)) {
    if (!accept(static_cast<char>(c))) {
      GiveBack(s);
      break;
    }
    if (token.size() < 39) token.push_back(static_cast<char>(c));
    c = NextByte(s);
  }
  return token;
}

// Reads one line into `out` as the line readers do: a line feed ends it and
// is not stored, carriage returns are dropped. `room` bytes at most are
// stored; a line feed right after them still belongs to the line. Returns 1
// when a line feed ended the line, 2 when the data ended after at least one
// byte, 3 when the line was cut, 0 at the end of the data (or of the input).
int ReadLine(VarnRemoteStream& s, std::string* out, std::size_t room) {
  out->clear();
  if (s.ended) return 0;
  bool first = true;
  for (;;) {
    int c = NextByte(s);
    if (c < 0) return out->empty() ? 0 : 2;
    if (first && c == kCtrlZ) {
      s.ended = true;
      return 0;
    }
    first = false;
    if (c == '\n') return 1;
    if (c == '\r') continue;
    out->push_back(static_cast<char>(c));
    if (out->size() == room) {
      // A line feed (after carriage returns) right after a full line ends
      // it; anything else starts the next piece.
      int d;
      do {
        d = NextByte(s);
      } while (d == '\r');
      if (d == '\n') return 1;
      if (d >= 0) GiveBack(s);
      return d < 0 ? 2 : 3;
    }
  }
}

}  // namespace

extern "C" int varn_fileR_fopen(uint64_t* stream, const char* name, uint32_t mode,
                                uint32_t text) noexcept {
  core::OnApplicationThread();
  SetUp();
  VarnRemoteStream* s = nullptr;
  for (VarnRemoteStream& candidate : g_streams) {
    if (candidate.file == -1) {
      s = &candidate;
      break;
    }
  }
  if (s == nullptr) return 0;
  int remote_mode = mode == 0 ? kWrite : mode == 1 ? kRead : mode == 3 ? kAppend : 0;
  if (remote_mode == 0 || text > 1) return 0;
  *stream = 0;
  int file = -1;
  if (!varn_quon_fopen(&file, name, remote_mode, text == 1 ? 1 : 2)) {
    FreeSlot(*s);
    return 0;
  }
  s->buffer = static_cast<char*>(std::malloc(kBufferSize));
  if (s->buffer == nullptr) {
    FreeSlot(*s);
    return 0;
  }
  s->file = file;
  s->mode = remote_mode;
  s->type = text == 1 ? 1 : 2;
  s->limit = remote_mode == kRead ? 0 : kBufferSize;
  s->pos = 0;
  s->offset = 0;
  s->ended = false;
  *stream = s->number;
  return 1;
}

extern "C" int varn_fileR_fclose(uint32_t stream) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return 0;
  if (Writes(*s) && !Flush(*s)) return 0;
  if (!varn_quon_fclose(s->file)) return 0;
  FreeSlot(*s);
  return 1;
}

extern "C" uint64_t varn_fileR_fread(uint32_t stream, uint64_t size, uint64_t count,
                                     void* buffer) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr || size == 0 || count == 0) return 0;
  // A stream opened for writing has nothing to read.
  if (Writes(*s)) {
    VarnErrorNo = VARN_E_FILE_CONFLICT;
    return 0;
  }
  std::uint64_t total = size * count;
  char* out = static_cast<char*>(buffer);
  std::uint64_t done = 0;
  for (;;) {
    std::uint64_t available = s->limit - s->pos;
    std::uint64_t wanted = total - done;
    std::uint64_t take = available < wanted ? available : wanted;
    if (take > 0) std::memcpy(out + done, s->buffer + s->pos, take);
    s->pos += take;
    s->offset += take;
    done += take;
    if (done == total) return count;
    if (!Refill(*s)) return count - (total - done) / size;
  }
}

extern "C" uint64_t varn_fileR_fwrite(uint32_t stream, uint64_t size, uint64_t count,
                                      const void* buffer) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr || s->mode == kRead) return 0;
  std::uint64_t total = size * count;
  if (total == 0) return 0;
  const char* in = static_cast<const char*>(buffer);
  std::uint64_t done = 0;
  for (;;) {
    std::uint64_t space = s->limit - s->pos;
    std::uint64_t left = total - done;
    if (space > left) {
      std::memcpy(s->buffer + s->pos, in + done, left);
      s->pos += left;
      s->offset += left;
      return count;
    }
    std::memcpy(s->buffer + s->pos, in + done, space);
    s->pos += space;
    s->offset += space;
    done += space;
    if (!Flush(*s)) return 0;
    if (done == total) return count;
  }
}

extern "C" int varn_fileR_fseek(uint32_t stream, int64_t offset, uint32_t whence) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return 1;
  s->ended = false;
  int64_t position = 0;
  if (s->mode == kRead) {
    if (whence > 2) return 1;
    if (whence != 2) {
      // A target inside the buffered range costs no message.
      std::uint64_t index = whence == 0 ? s->pos - s->offset + static_cast<std::uint64_t>(offset)
                                        : s->pos + static_cast<std::uint64_t>(offset);
      if (static_cast<std::uint32_t>(index) < s->limit && index < s->limit) {
        s->pos = index;
        s->offset = whence == 0 ? static_cast<std::uint64_t>(offset)
                                : s->offset + static_cast<std::uint64_t>(offset);
        return 0;
      }
    }
    // Outside the buffer. The hub's position stands at the end of the data
    // read ahead, not at the stream's: a relative target is made absolute
    // from the stream's position first.
    if (whence == 1) {
      offset += static_cast<int64_t>(s->offset);
      whence = 0;
    }
    if (varn_quon_fseek(s->file, static_cast<int>(offset), static_cast<int>(whence), &position) !=
        0) {
      return 1;
    }
    s->limit = 0;
    s->pos = 0;
    if (!Refill(*s)) return 1;
    s->offset = static_cast<std::uint64_t>(position);
    return 0;
  }
  if (!Flush(*s)) return 1;
  if (varn_quon_fseek(s->file, static_cast<int>(offset), static_cast<int>(whence), &position) !=
      0) {
    return 1;
  }
  s->offset = static_cast<std::uint64_t>(position);
  s->pos = 0;
  return 0;
}

extern "C" int64_t varn_fileR_ftell(uint32_t stream) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return -1;
  if (s->mode == kRead) return static_cast<int64_t>(s->offset);
  if (!Flush(*s)) return -1;
  int64_t t = varn_quon_ftell(s->file);
  s->pos = 0;
  s->offset = t < 0 ? 0 : static_cast<std::uint64_t>(t);
  return t;
}

extern "C" int varn_fileR_feof(uint32_t stream) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return 0;
  if (s->mode == kRead && s->pos < s->limit) return 0;
  return varn_quon_feof(s->file);
}

extern "C" int varn_fileR_rewind(uint32_t stream) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return 0;
  if (Writes(*s) && !Flush(*s)) return 0;
  if (!varn_quon_frewind(s->file)) return 0;
  s->offset = 0;
  s->pos = 0;
  if (s->mode == kRead) s->limit = 0;
  s->ended = false;
  return 1;
}

// The caller's buffer is the line buffer of varn_readline: 1025 bytes, so
// at most 1024 characters are stored; a longer line comes back in pieces.
extern "C" int varn_fileR_readline(uint32_t stream, char* line) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return 0;
  std::string text;
  int r = ReadLine(*s, &text, VARN_LINE_SIZE - 1);
  std::memcpy(line, text.data(), text.size());
  line[text.size()] = '\0';
  return r == 0 ? 0 : 1;
}

extern "C" int varn_fileR_readlineP(uint32_t stream) noexcept {
  core::OnApplicationThread();
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr || !varn_init_varn_line()) return 0;
  std::string text;
  ReadLine(*s, &text, static_cast<std::size_t>(-1));
  core::LibraryState& state = core::State();
  if (text.size() + 1 > state.line_capacity) {
    // The buffer grows by 1024 bytes at a time, as far as the line needs.
    std::size_t capacity = state.line_capacity;
    while (capacity < text.size() + 1) capacity += 1024;
    char* grown = static_cast<char*>(std::realloc(state.line_buffer, capacity));
    if (grown == nullptr) return 0;
    state.line_buffer = grown;
    state.line_capacity = capacity;
  }
  std::memcpy(state.line_buffer, text.data(), text.size());
  state.line_buffer[text.size()] = '\0';
  return text.empty() ? 0 : 1;
}

extern "C" int varn_fileR_writeline(uint32_t stream, uint32_t newline, const char* text) noexcept {
  core::OnApplicationThread();
  std::string block = text != nullptr ? text : "";
  if (newline != 0) block.push_back('\n');
  if (block.empty()) return 1;
  return varn_fileR_fwrite(stream, 1, block.size(), block.data()) == block.size() ? 1 : 0;
}

extern "C" int varn_fileR_fscanf(uint64_t stream, int local, const char* conversion,
                                 void** destination) noexcept {
  core::OnApplicationThread();
  if (conversion == nullptr || destination == nullptr) return -1;
  char letter = conversion[0];
  bool is_long = letter == 'l';
  if (is_long) letter = conversion[1];
  if (letter < 'c' || letter > 's' || (is_long && letter != 'e' && letter != 'f')) return -1;
  const char* format = nullptr;
  switch (letter) {
    case 'c':
      format = is_long ? nullptr : "%c";
      break;
    case 'd':
      format = is_long ? nullptr : "%d";
      break;
    case 'e':
      format = is_long ? "%le" : "%e";
      break;
    case 'f':
      format = is_long ? "%lf" : "%f";
      break;
    case 's':
      format = is_long ? nullptr : "%s";
      break;
    default:
      break;
  }
  if (format == nullptr) return -1;
  if (VarnChanType != VARN_CHAN_SOCKET || local != 0) {
    FILE* file = reinterpret_cast<FILE*>(stream);
    return std::fscanf(file, format, *destination) == 1 ? 1 : -1;
  }
  VarnRemoteStream* s = Slot(stream);
  if (s == nullptr) return -1;
  if (letter == 'c') {
    int c = NextByte(*s);
    if (c < 0) return -1;
    *static_cast<char*>(*destination) = static_cast<char>(c);
    return 1;
  }
  std::string token;
  if (letter == 's') {
    token = Token(*s, [](char) { return true; });
  } else {
    int signs = 0, points = 0, exponents = 0;
    bool number = letter != 'd';
    token = Token(*s, [&](char c) {
      if (c >= '0' && c <= '9') return true;
      if (c == '+' || c == '-') return ++signs <= 2;
      if (number && c == '.') return ++points <= 1;
      if (number && (c == 'e' || c == 'E')) return ++exponents <= 1;
      return false;
    });
  }
  if (token.empty()) return -1;
  return std::sscanf(token.c_str(), format, *destination) == 1 ? 1 : -1;
}

extern "C" int varn_fileR_stat(const char* path, int* kind) noexcept {
  return varn_quon_fstat(path, kind) != 0 ? 1 : 0;
}

extern "C" int varn_fileR_unlink(const char* path) noexcept {
  return varn_quon_funlink(path) != 0 ? 1 : 0;
}

extern "C" int varn_fileR_find_remote_file_entry_by_fp(uint32_t stream, int* index) noexcept {
  if (stream < 1 || stream > kStreams) {
    *index = -1;
    return 0;
  }
  *index = static_cast<int>(stream) - 1;
  return 1;
}
