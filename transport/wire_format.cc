#include "transport/wire_format.h"

#include <cstring>

namespace varn::wire {
namespace {

#define VARN_WORD_(code, name, word) word,
constexpr const char* kWords[] = {VARN_CATEGORY_LIST(VARN_WORD_)};
#undef VARN_WORD_
#define VARN_CODE_(code, name, word) code,
constexpr int kCodes[] = {VARN_CATEGORY_LIST(VARN_CODE_)};
#undef VARN_CODE_

// The table is indexed by code, so the list must run 0, 1, 2, ...
constexpr bool CodesAreIndexes() {
  for (int i = 0; i < kCategoryCount; ++i) {
    if (kCodes[i] != i) return false;
  }
  return true;
}
static_assert(sizeof(kWords) / sizeof(kWords[0]) == kCategoryCount);
static_assert(CodesAreIndexes());

constexpr const char* kStatusWords[] = {"IDLE", "BUSY", "DEAD"};
static_assert(VARN_STATUS_IDLE == 0 && VARN_STATUS_BUSY == 1 && VARN_STATUS_DEAD == 2);

bool IsBlank(char c) { return c == ' '; }

}  // namespace

const char* CategoryWord(int code) {
  if (code < 1 || code >= kCategoryCount) return nullptr;
  return kWords[code];
}

bool CategoryFromWord(std::string_view word, int* code) {
  for (int i = 1; i < kCategoryCount; ++i) {
    if (i == VARN_DACK_OBSOLETE) continue;  // has a code, but is never accepted as a word
    if (word == kWords[i]) {
      *code = i;
      return true;
    }
  }
  return false;
}

bool IsHubAnswer(int category) {
  switch (category) {
    case VARN_FACK:
    case VARN_FNAK:
    case VARN_QUERYP:
    case VARN_AACK:
    case VARN_ANAK:
    case VARN_DNAK:
    case VARN_EACK:
    case VARN_ENAK:
    case VARN_EDONE:
    case VARN_EERROR:
      return true;
    default:
      return false;
  }
}

const char* StatusWord(int status) {
  if (status < VARN_STATUS_IDLE || status > VARN_STATUS_DEAD) return nullptr;
  return kStatusWords[status];
}

bool StatusFromWord(std::string_view word, int* status) {
  for (int i = VARN_STATUS_IDLE; i <= VARN_STATUS_DEAD; ++i) {
    if (word == kStatusWords[i]) {
      *status = i;
      return true;
    }
  }
  return false;
}

std::size_t BodyLength(std::string_view destination, std::string_view source, std::string_view word,
                       std::size_t payload_len) {
  std::size_t c =
      destination.size() + source.size() + word.size() + (payload_len > 0 ? 3 + payload_len : 2);
  return c + PaddingFor(c);
}

std::size_t PacketSize(std::string_view destination, std::string_view source, int category,
                       std::size_t payload_len) {
  const char* word = CategoryWord(category);
  if (word == nullptr) return 0;
  std::size_t total = kLengthDigits + BodyLength(destination, source, word, payload_len);
  return total >= kPacketLimit ? 0 : total;
}

std::size_t HeaderSize(std::string_view destination, std::string_view source,
                       std::string_view word) {
  return kLengthDigits + destination.size() + source.size() + word.size() + 3;
}

char* WriteHeader(char* buf, std::size_t body_length, std::string_view destination,
                  std::string_view source, std::string_view word) {
  char* p = buf;
  WriteLength(p, body_length);
  p += kLengthDigits;
  auto put = [&p](std::string_view part) {
    std::memcpy(p, part.data(), part.size());
    p += part.size();
  };
  put(destination);
  *p++ = ' ';
  put(source);
  *p++ = ' ';
  put(word);
  return p;
}

WireError BuildPacket(char* buf, std::size_t capacity, std::string_view destination,
                      std::string_view source, int category, const void* payload,
                      std::size_t payload_len, std::size_t* size) {
  const char* word = CategoryWord(category);
  if (word == nullptr) return WireError::kCategory;
  if (payload == nullptr) payload_len = 0;
  std::size_t body = BodyLength(destination, source, word, payload_len);
  std::size_t total = kLengthDigits + body;
  if (total >= kPacketLimit || total > capacity) return WireError::kTooLong;

  // Six digits, always: body < kPacketLimit < 1000000.
  char* p = WriteHeader(buf, body, destination, source, word);
  if (payload_len > 0) {
    *p++ = ' ';
    std::memcpy(p, payload, payload_len);
    p += payload_len;
  }
  std::memset(p, 0, static_cast<std::size_t>(buf + total - p));
  *size = total;
  return WireError::kOk;
}

WireError SplitBody(const char* body, std::size_t length, Header* header) {
  std::string_view tokens[3];
  std::size_t pos = 0;
  for (auto& token : tokens) {
    while (pos < length && IsBlank(body[pos])) ++pos;
    std::size_t start = pos;
    while (pos < length && body[pos] != '\0' && !IsBlank(body[pos])) ++pos;
    if (pos == start) return WireError::kParse;  // end of text before the token
    token = std::string_view(body + start, pos - start);
    if (pos < length && body[pos] == '\0') {
      // A NUL ends the text as strtok sees it; later tokens cannot exist.
      if (&token != &tokens[2]) return WireError::kParse;
    }
  }
  header->destination = tokens[0];
  header->source = tokens[1];
  header->word = tokens[2];
  std::size_t h = tokens[0].size() + tokens[1].size() + tokens[2].size() + 2;
  if (length > h) {
    header->has_payload = true;
    header->payload_offset = h + 1;
    header->payload_length = length - h - 1;
  } else {
    header->has_payload = false;
    header->payload_offset = 0;
    header->payload_length = 0;
  }
  return WireError::kOk;
}

}  // namespace varn::wire
