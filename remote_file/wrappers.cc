// The stdio-like wrappers and the line calls. Each works on a remote stream
// when the process is connected to the hub by a socket (it runs on another
// host, its files live beside the hub) and the caller does not ask for a
// local file; otherwise on a local file through stdio. For a remote stream
// the FILE* argument carries the stream number.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "core/library_lock.h"
#include "core/library_state.h"
#include "host/file_info.h"
#include "host/lorn_path.h"
#include "varn.h"

namespace {

namespace core = varn::core;

constexpr char kCtrlZ = 26;

bool Remote(int local) { return VarnChanType == VARN_CHAN_SOCKET && local == 0; }

uint32_t Number(FILE* stream) {
  return static_cast<uint32_t>(reinterpret_cast<std::uintptr_t>(stream));
}
FILE* AsStream(std::uint64_t number) {
  return reinterpret_cast<FILE*>(static_cast<std::uintptr_t>(number));
}

// Local streams on which a line started with Ctrl-Z: their input has ended
// for the line calls until they are repositioned or closed through these
// wrappers. Each is kept with its position after that line: a stream closed
// with plain fclose may come back at the same address for another file, and
// it is not taken for ended unless it stands at that same position.
std::unordered_map<FILE*, long>& EndedStreams() REQUIRES(core::kLibrary) {
  static auto* ended = new std::unordered_map<FILE*, long>();  // never destroyed
  return *ended;
}

void Forget(FILE* stream) REQUIRES(core::kLibrary) { EndedStreams().erase(stream); }

void NoteEnded(FILE* stream) REQUIRES(core::kLibrary) {
  EndedStreams()[stream] = std::ftell(stream);
}

bool Ended(FILE* stream) REQUIRES(core::kLibrary) {
  auto it = EndedStreams().find(stream);
  if (it == EndedStreams().end()) return false;
  if (std::ftell(stream) == it->second) return true;
  EndedStreams().erase(it);  // another stream, or moved by its owner
  return false;
}

const char* LocalMode(int read_write_append, bool text) {
  switch (read_write_append) {
    case 1:
      return text ? "r" : "rb";
    case 0:
      return text ? "w" : "wb";
    case 3:
      return text ? "a" : "ab";
    default:
      return nullptr;
  }
}

// Cuts a line at its first line feed, carriage return or Ctrl-Z. False when
// it starts with Ctrl-Z: the end of the input.
bool CutLine(char* line) {
  if (line[0] == kCtrlZ) return false;
  line[std::strcspn(line, "\n\r\x1a")] = '\0';
  return true;
}

// After a piece of 1024 characters without its line feed: a line feed
// (with a carriage return before it) that follows at once belongs to the
// line and is taken, so that no empty line follows a line of exactly 1024
// characters.
void TakeLineEnd(FILE* stream) {
  int c = std::fgetc(stream);
  if (c == '\r') {
    int d = std::fgetc(stream);
    if (d != '\n' && d != EOF) std::ungetc(d, stream);
    return;
  }
  if (c != '\n' && c != EOF) std::ungetc(c, stream);
}

}  // namespace

// ---- Opening and closing ----------------------------------------------------

extern "C" int varn_fopen(FILE** stream, const char* name, int mode, int text, int local) noexcept {
  if (Remote(local)) {
    std::uint64_t number = 0;
    int r =
        varn_fileR_fopen(&number, name, static_cast<uint32_t>(mode), static_cast<uint32_t>(text));
    if (r) *stream = AsStream(number);
    return r;
  }
  const char* m = LocalMode(mode, text == 1);
  if (m == nullptr || name == nullptr) return 0;
  *stream = varn::host::LornPath(name).fopen(m);
  return *stream != nullptr ? 1 : 0;
}

// Update modes ("r+" and the like) are not offered: they give null.
extern "C" FILE* varn_file_fopen(const char* name, const char* mode, int local) noexcept {
  if (name == nullptr || mode == nullptr || mode[0] == '\0') return nullptr;
  std::size_t n = std::strlen(mode);
  if (mode[n - 1] == '+') return nullptr;
  bool binary = n == 2 && mode[1] == 'b';
  int code = mode[0] == 'r' ? 1 : mode[0] == 'w' ? 0 : 3;
  if (Remote(local)) {
    std::uint64_t number = 0;
    return varn_fileR_fopen(&number, name, static_cast<uint32_t>(code), binary ? 0 : 1)
               ? AsStream(number)
               : nullptr;
  }
  return varn::host::LornPath(name).fopen(LocalMode(code, !binary));
}

extern "C" int varn_fclose(FILE* stream, int local) noexcept {
  core::OnApplicationThread();
  if (Remote(local)) return varn_fileR_fclose(Number(stream));
  if (stream == nullptr) return 0;
  Forget(stream);
  return std::fclose(stream) == 0 ? 1 : 0;
}

extern "C" int varn_file_fclose(FILE* stream, int local) noexcept {
  core::OnApplicationThread();
  if (Remote(local)) return varn_fileR_fclose(Number(stream)) == 1 ? 0 : -1;
  if (stream == nullptr) return 0;
  Forget(stream);
  return std::fclose(stream);
}

// ---- Reading, writing, positioning -----------------------------------------

extern "C" uint64_t varn_fread(FILE* stream, uint64_t size, uint64_t count, void* buffer,
                               int local) noexcept {
  if (Remote(local)) return varn_fileR_fread(Number(stream), size, count, buffer);
  return std::fread(buffer, size, count, stream);
}

extern "C" uint64_t varn_fwrite(FILE* stream, uint64_t size, uint64_t count, const void* buffer,
                                int local) noexcept {
  if (Remote(local)) return varn_fileR_fwrite(Number(stream), size, count, buffer);
  return std::fwrite(buffer, size, count, stream);
}

extern "C" int varn_fseek(FILE* stream, int32_t offset, int whence, int local) noexcept {
  core::OnApplicationThread();
  if (Remote(local)) {
    return varn_fileR_fseek(Number(stream), offset, static_cast<uint32_t>(whence));
  }
  if (stream == nullptr) return 0;
  Forget(stream);
  return std::fseek(stream, offset, whence);
}

extern "C" int64_t varn_ftell(FILE* stream, int local) noexcept {
  if (Remote(local)) return varn_fileR_ftell(Number(stream));
  if (stream == nullptr) return 0;
  return std::ftell(stream);
}

extern "C" int varn_feof(FILE* stream, int local) noexcept {
  if (Remote(local)) return varn_fileR_feof(Number(stream));
  if (stream == nullptr) return 0;
  return std::feof(stream) != 0 ? 1 : 0;
}

extern "C" int varn_rewind(FILE* stream, int local) noexcept {
  core::OnApplicationThread();
  if (Remote(local)) return varn_fileR_rewind(Number(stream));
  if (stream == nullptr) return 0;
  Forget(stream);
  return std::fseek(stream, 0, SEEK_SET) == 0 ? 1 : 0;
}

extern "C" char* varn_fgets(FILE* stream, char* buffer, uint32_t n, int local) noexcept {
  if (!Remote(local)) return std::fgets(buffer, static_cast<int>(n), stream);
  if (n <= 1) {
    if (n == 1) buffer[0] = '\0';
    return buffer;
  }
  uint32_t stored = 0;
  while (stored < n - 1) {
    char c;
    if (varn_fileR_fread(Number(stream), 1, 1, &c) != 1) return nullptr;
    if (c == '\r') continue;
    buffer[stored++] = c;
    if (c == '\n') break;
  }
  buffer[stored] = '\0';
  return buffer;
}

extern "C" int varn_fputs(FILE* stream, const char* text, int local) noexcept {
  if (!Remote(local)) return std::fputs(text, stream);
  std::size_t n = text != nullptr ? std::strlen(text) : 0;
  if (n == 0) return 0;
  return varn_fileR_fwrite(Number(stream), 1, n, text) == 0 ? -1 : static_cast<int>(n);
}

// The text is formatted whole, however long (it is not cut to a buffer).
extern "C" int varn_fprintf(FILE* stream, int local, const char* format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  va_list again;
  va_copy(again, ap);
  int length = std::vsnprintf(nullptr, 0, format, ap);
  va_end(ap);
  if (length < 0) {
    va_end(again);
    return -1;
  }
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  text.resize(static_cast<std::size_t>(length));
  if (!Remote(local)) {
    // Written as it is: the formatted text is not used as a format again.
    return std::fputs(text.c_str(), stream) < 0 ? -1 : length;
  }
  if (length == 0) return 0;
  std::uint64_t written = varn_fileR_fwrite(Number(stream), 1, text.size(), text.data());
  return written == text.size() ? length : -1;
}

// Every "%" takes the next destination and converts the text after it; the
// other characters of the format (white space and literals alike) are
// passed over without being matched.
extern "C" int varn_fscanf(FILE* stream, int local, const char* format, ...) noexcept {
  if (format == nullptr || format[0] == '\0') return 0;
  va_list ap;
  va_start(ap, format);
  int converted = 0;
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') continue;
    void* destination = va_arg(ap, void*);
    if (varn_fileR_fscanf(reinterpret_cast<std::uintptr_t>(stream), local, p + 1, &destination) !=
        1) {
      va_end(ap);
      return -1;
    }
    ++converted;
  }
  va_end(ap);
  return converted;
}

// ---- Files by path -----------------------------------------------------------

extern "C" int varn_stat(const char* path, uint32_t* kind, int local) noexcept {
  if (Remote(local)) {
    int k = 0;
    int r = varn_fileR_stat(path, &k);
    *kind = static_cast<uint32_t>(k);
    return r;
  }
  *kind = 0;
  unsigned mode = 0;
  if (varn::host::gsl_stat(path, &mode) != 0) return 0;
  if ((mode & 0xF000) == 0x4000) *kind = 1;
  if ((mode & 0xF000) == 0x8000) *kind = 2;
  return 1;
}

extern "C" int varn_unlink(const char* path, int local) noexcept {
  if (Remote(local)) return varn_fileR_unlink(path);
  return varn::host::LORN::unlink_utf8(varn::host::LornString(path)) == 0 ? 1 : 0;
}

extern "C" int varn_file_unlink(const char* path, int local) noexcept {
  if (Remote(local)) return varn_fileR_unlink(path) > 0 ? 0 : -1;
  return varn::host::LORN::unlink_utf8(varn::host::LornString(path));
}

// ---- Lines ------------------------------------------------------------------

// Reads at most 1024 characters. A longer line is handed back in pieces of
// 1024 characters, one per call, so the caller's 1025-byte buffer is never
// overrun and nothing is lost.
extern "C" int varn_readline(FILE* stream, char* buffer, int local) noexcept {
  core::OnApplicationThread();
  if (Remote(local)) return varn_fileR_readline(Number(stream), buffer);
  if (stream == nullptr || buffer == nullptr) return 0;
  if (Ended(stream)) return 0;
  if (std::fgets(buffer, VARN_LINE_SIZE, stream) == nullptr) return 0;
  std::size_t n = std::strlen(buffer);
  if (n == VARN_LINE_SIZE - 1 && buffer[n - 1] != '\n') TakeLineEnd(stream);
  if (!CutLine(buffer)) {
    NoteEnded(stream);
    return 0;
  }
  return 1;
}

extern "C" int varn_readlineP(FILE* stream, char** line, int local) noexcept {
  core::OnApplicationThread();
  auto& s = core::State();
  if (Remote(local)) {
    int r = varn_fileR_readlineP(Number(stream));
    if (s.line_buffer != nullptr) *line = s.line_buffer;
    return r;
  }
  if (stream == nullptr || !varn_init_varn_line()) return 0;
  if (Ended(stream)) return 0;
  std::size_t used = 0;
  s.line_buffer[0] = '\0';
  for (;;) {
    if (std::fgets(s.line_buffer + used, static_cast<int>(s.line_capacity - used), stream) ==
        nullptr) {
      if (used == 0) return 0;
      break;
    }
    used += std::strlen(s.line_buffer + used);
    if (used > 0 && s.line_buffer[used - 1] == '\n') break;
    if (used + 1 < s.line_capacity) break;  // end of input without a line feed
    char* grown = static_cast<char*>(std::realloc(s.line_buffer, s.line_capacity + 1024));
    if (grown == nullptr) {
      VarnErrorNo = VARN_E_MALLOC;
      break;
    }
    s.line_buffer = grown;
    s.line_capacity += 1024;
  }
  *line = s.line_buffer;
  if (!CutLine(s.line_buffer)) {
    NoteEnded(stream);
    return 0;
  }
  return 1;
}

extern "C" int varn_writeline(FILE* stream, uint32_t newline, const char* text,
                              int local) noexcept {
  if (Remote(local)) return varn_fileR_writeline(Number(stream), newline, text);
  if (stream == nullptr || text == nullptr) return 0;
  if (std::fputs(text, stream) < 0) return 0;
  if (newline && std::fputc('\n', stream) == EOF) return 0;
  return 1;
}
