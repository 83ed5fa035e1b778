// Buffers shared by the service clients: the buffer a wait copies an
// answer into, and cutting a text that did not fit its buffer.
#ifndef VARN_SERVICES_TEXT_BUFFER_H_
#define VARN_SERVICES_TEXT_BUFFER_H_

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "transport/wire_format.h"

namespace varn::services {

// A wait copies the whole text of the message it returns, so its buffer
// holds the largest payload a packet can carry and a NUL, whatever the peer
// sends. On the heap: it is large.
class AnswerBuffer {
 public:
  AnswerBuffer() : data_(new (std::nothrow) char[wire::kPacketLimit + 1]) {
    if (data_) data_[0] = '\0';
  }
  bool ok() const { return data_ != nullptr; }
  char* data() { return data_.get(); }

 private:
  std::unique_ptr<char[]> data_;
};

// A text cut at the end of its buffer may end inside a UTF-8 character;
// that character's first bytes are dropped, so the text stays whole
// characters.
inline void CutAtCharacter(char* text) {
  std::size_t n = std::strlen(text);
  std::size_t i = n;
  int continuation = 0;
  while (i > 0 && continuation < 3 && (static_cast<unsigned char>(text[i - 1]) & 0xC0) == 0x80) {
    --i;
    ++continuation;
  }
  if (i == 0) return;
  unsigned char lead = static_cast<unsigned char>(text[i - 1]);
  std::size_t need = (lead & 0xE0) == 0xC0   ? 2
                     : (lead & 0xF0) == 0xE0 ? 3
                     : (lead & 0xF8) == 0xF0 ? 4
                                             : 1;
  if (need > 1 && (i - 1) + need > n) text[i - 1] = '\0';
}

// Copies text into a buffer of size bytes, cut to whole characters.
inline void CopyCut(char* out, std::size_t size, const char* text) {
  if (out == nullptr || size == 0) return;
  int n = std::snprintf(out, size, "%s", text != nullptr ? text : "");
  if (n > 0 && static_cast<std::size_t>(n) >= size) CutAtCharacter(out);
}

}  // namespace varn::services

#endif  // VARN_SERVICES_TEXT_BUFFER_H_
