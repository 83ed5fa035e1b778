// Helpers shared by the fuzz targets: a failed check that the fuzzer
// reports as a crash, a packet splitter for targets whose input is a run of
// packets, and a byte source that reads like a channel.
#ifndef VARN_TESTS_FUZZ_FUZZ_SUPPORT_H_
#define VARN_TESTS_FUZZ_FUZZ_SUPPORT_H_

#include <sanitizer/common_interface_defs.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "transport/wire_format.h"

// A broken invariant: reported, then the process aborts so that the fuzzer
// keeps the input as a crash. The report goes through the sanitizer, whose
// output stays visible when the fuzzer silences the library's error stream
// (-close_fd_mask=2).
#define FUZZ_CHECK(cond)                                             \
  do {                                                               \
    if (!(cond)) varn::fuzz::CheckFailed(__FILE__, __LINE__, #cond); \
  } while (0)

namespace varn::fuzz {

[[noreturn]] inline void CheckFailed(const char* file, int line, const char* condition) {
  char text[512];
  std::snprintf(text, sizeof text, "check failed at %s:%d: %s", file, line, condition);
  __sanitizer_report_error_summary(text);
  std::abort();
}

}  // namespace varn::fuzz

namespace varn::fuzz {

// One packet cut from the input by the wire format's own functions.
struct WirePacket {
  std::string_view whole;  // length digits included
  wire::Header header;
  int category = 0;  // 0 when the word is not a category
  std::string_view payload() const {
    if (!header.has_payload) return {};
    return whole.substr(wire::kLengthDigits + header.payload_offset, header.payload_length);
  }
};

// Calls fn(const WirePacket&) for each packet at the front of the input, in
// order, and stops at the first bytes that do not frame as a packet (a bad
// length field, a short tail, fewer than three header tokens). Packets whose
// word is not a category are handed on with category 0.
template <typename Fn>
void ForEachPacket(const std::uint8_t* data, std::size_t size, Fn fn) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (rest.size() >= wire::kLengthDigits) {
    std::size_t length = 0;
    if (wire::ParseLength(rest.data(), &length) != wire::WireError::kOk) return;
    if (rest.size() - wire::kLengthDigits < length) return;
    WirePacket p;
    p.whole = rest.substr(0, wire::kLengthDigits + length);
    if (wire::SplitBody(p.whole.data() + wire::kLengthDigits, length, &p.header) !=
        wire::WireError::kOk) {
      return;
    }
    if (!wire::CategoryFromWord(p.header.word, &p.category)) p.category = 0;
    fn(p);
    rest.remove_prefix(p.whole.size());
  }
}

// An in-memory file that the library reads as its channel: reads return
// the bytes written since the last Reset, then the end of the input.
class MemoryInput {
 public:
  MemoryInput() : fd_(memfd_create("varn-fuzz-input", MFD_CLOEXEC)) { FUZZ_CHECK(fd_ >= 0); }
  ~MemoryInput() { close(fd_); }
  MemoryInput(const MemoryInput&) = delete;
  MemoryInput& operator=(const MemoryInput&) = delete;

  int fd() const { return fd_; }

  // Replaces the content and reads it again from its start.
  void Reset(const void* data, std::size_t size) {
    FUZZ_CHECK(ftruncate(fd_, 0) == 0);
    std::size_t done = 0;
    while (done < size) {
      ssize_t n =
          pwrite(fd_, static_cast<const char*>(data) + done, size - done, static_cast<off_t>(done));
      FUZZ_CHECK(n > 0);
      done += static_cast<std::size_t>(n);
    }
    FUZZ_CHECK(lseek(fd_, 0, SEEK_SET) == 0);
  }

 private:
  int fd_;
};

}  // namespace varn::fuzz

#endif  // VARN_TESTS_FUZZ_FUZZ_SUPPORT_H_
