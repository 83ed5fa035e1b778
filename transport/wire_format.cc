#include "transport/wire_format.h"

#include <cstring>

namespace varn::wire {
namespace {

constexpr const char* kWords[kCategoryCount] = {
    "NONE",      "STATUS?",       "STATUS",        "KILL",        "ACCEPT",        "REJECT",
    "INTR",      "CMD",           "DONE",          "BEGIN",       "END",           "DATA",
    "ERROR",     "SRVR_ERR",      "ACK",           "INVOKE",      "INVOKER",       "INVOKERE",
    "INVOKERN",  "NAK",           "QUERY?",        "QUERY",       "ENABLE",        "DISABLE",
    "NOTIFY",    "ASYNC_ENABLE",  "ASYNC_DISABLE", "PING",        "STDERR",        "FACK",
    "FNAK",      "FOPEN",         "FCLOSE",        "FREAD",       "FWRITE",        "FREWIND",
    "FUNLINK",   "QUERYP?",       "QUERYP",        "ATTACH",      "DETACH",        "AACK",
    "ANAK",      "DACK_OBSOLETE", "DNAK",          "EACK",        "ENAK",          "EDONE",
    "EERROR",    "BROADCAST",     "FSTAT",         "CMD_ACKSENT", "BEGIN_ACKSENT", "END_ACKSENT",
    "INVOKE_EX", "FEOF",          "FSEEK",         "FTELL",
};

bool IsBlank(char c) { return c == ' '; }

}  // namespace

const char* CategoryWord(int code) {
  if (code < 1 || code >= kCategoryCount) return nullptr;
  return kWords[code];
}

bool CategoryFromWord(std::string_view word, int* code) {
  for (int i = 1; i < kCategoryCount; ++i) {
    if (i == kDackObsolete) continue;  // has a code, but is never accepted as a word
    if (word == kWords[i]) {
      *code = i;
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
  char* p = buf;
  std::size_t n = body;
  for (int i = static_cast<int>(kLengthDigits) - 1; i >= 0; --i) {
    p[i] = static_cast<char>('0' + n % 10);
    n /= 10;
  }
  p += kLengthDigits;
  auto put = [&p](std::string_view s) {
    std::memcpy(p, s.data(), s.size());
    p += s.size();
  };
  put(destination);
  *p++ = ' ';
  put(source);
  *p++ = ' ';
  put(word);
  if (payload_len > 0) {
    *p++ = ' ';
    std::memcpy(p, payload, payload_len);
    p += payload_len;
  }
  std::memset(p, 0, static_cast<std::size_t>(buf + total - p));
  *size = total;
  return WireError::kOk;
}

WireError ParseLength(const char* digits, std::size_t* length) {
  std::size_t value = 0;
  for (std::size_t i = 0; i < kLengthDigits; ++i) {
    char c = digits[i];
    if (c < '0' || c > '9') return WireError::kBadLength;
    value = value * 10 + static_cast<std::size_t>(c - '0');
  }
  *length = value;
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
