// The packet format shared by the library and the hub.
//
// A packet is six decimal digits L ("%06d"), then L bytes: destination, a
// blank, source, a blank, the category word, and when there is a payload a
// blank and the payload bytes; NUL padding makes 6 + L a multiple of 4, so L
// is always 2 mod 4. docs/wire-format.md describes the format in prose.
//
// This module holds no state and touches no library global: every function
// reports failure through its return value (a WireError whose numeric value
// is the library's error number for the same failure), so that the hub can
// link it without the library. The category codes, their words and the error
// numbers come from varn_codes.h, the one list both sides compile.
#ifndef VARN_TRANSPORT_WIRE_FORMAT_H_
#define VARN_TRANSPORT_WIRE_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "varn_codes.h"

namespace varn::wire {

inline constexpr int kCategoryCount = VARN_CATEGORY_COUNT;
// The longest category word has 13 characters.
inline constexpr std::size_t kMaxWordLength = 13;
inline constexpr std::size_t kLengthDigits = 6;
// Every packet's total size (6 + L) must stay strictly below this.
inline constexpr std::size_t kPacketLimit = 999488;
// The hub's own address, in both directions.
inline constexpr std::string_view kHubAddress = VARN_HUB_ADDRESS;

// Failures, with the library's error numbers for the same failures.
enum class WireError : int {
  kOk = VARN_E_NONE,
  kParse = VARN_E_PARSE,          // fewer than three header tokens
  kCategory = VARN_E_CATEGORY,    // unknown category code or word
  kTooLong = VARN_E_TOO_LONG,     // packet would reach kPacketLimit
  kBadLength = VARN_E_READ_SIZE,  // length field is not six decimal digits
};

// An address may carry a two-character route prefix whose first character
// is "!"; the process it names is the address without it. A prefix counts
// only when an address follows it.
constexpr std::string_view WithoutRoutePrefix(std::string_view address) {
  return address.size() > 2 && address[0] == '!' ? address.substr(2) : address;
}

// The hub's answers to a process's requests (FACK, FNAK, QUERYP, AACK,
// ANAK, DNAK, EACK, ENAK, EDONE, EERROR): a process files them into the row
// that waits for an answer, never into a peer's row.
bool IsHubAnswer(int category);

// Status words "IDLE", "BUSY", "DEAD" by code VARN_STATUS_IDLE..DEAD;
// nullptr for any other code.
const char* StatusWord(int status);
// The code of a status word (exact, upper case). False when unknown.
bool StatusFromWord(std::string_view word, int* status);

// The word of a code from 1 to 57, or nullptr for any other code (0 too).
const char* CategoryWord(int code);

// The code of a word. Every word of codes 1..57 is recognised except
// "DACK_OBSOLETE"; "NONE" is not recognised. Returns false when unknown.
bool CategoryFromWord(std::string_view word, int* code);

// Padding that makes a body of c bytes end on the 2-mod-4 boundary.
inline constexpr std::size_t PaddingFor(std::size_t c) {
  return c % 4 == 2 ? 0 : 4 - ((c - 2) % 4);
}

// Length field value L for a packet with these parts (payload_len 0 means no
// payload). Total packet size is kLengthDigits + L.
std::size_t BodyLength(std::string_view destination, std::string_view source, std::string_view word,
                       std::size_t payload_len);

// Builds a whole packet into buf. Fails with kCategory for an unknown code,
// kTooLong when 6 + L reaches kPacketLimit, and kTooLong as well when buf is
// smaller than the packet (capacity must be at least the packet size).
// On success *size is the packet size (6 + L).
WireError BuildPacket(char* buf, std::size_t capacity, std::string_view destination,
                      std::string_view source, int category, const void* payload,
                      std::size_t payload_len, std::size_t* size);

// The header of a packet with a payload: the six length digits, then the
// destination, source and word, each followed by a blank. HeaderSize is
// its size. WriteHeader writes it for a body of body_length bytes (the
// field L) without the blank after the word, which only a packet with a
// payload has, and returns where that blank goes.
std::size_t HeaderSize(std::string_view destination, std::string_view source,
                       std::string_view word);
char* WriteHeader(char* buf, std::size_t body_length, std::string_view destination,
                  std::string_view source, std::string_view word);

// Size a packet would need, or 0 when it breaks the limit or the code is bad.
std::size_t PacketSize(std::string_view destination, std::string_view source, int category,
                       std::size_t payload_len);

// Writes n (below 10^6) as the six-digit length field, without a NUL.
// Two digits a step: every DATA record has one of these.
inline void WriteLength(char* p, std::size_t n) {
  static constexpr char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  for (int i = static_cast<int>(kLengthDigits) - 2; i >= 0; i -= 2) {
    const char* pair = kPairs + 2 * (n % 100);
    p[i] = pair[0];
    p[i + 1] = pair[1];
    n /= 100;
  }
}

// Reads the six-digit length field strictly (six ASCII digits).
inline WireError ParseLength(const char* digits, std::size_t* length) {
  std::size_t value = 0;
  for (std::size_t i = 0; i < kLengthDigits; ++i) {
    unsigned digit = static_cast<unsigned char>(digits[i]) - static_cast<unsigned>('0');
    if (digit > 9) return WireError::kBadLength;
    value = value * 10 + digit;
  }
  *length = value;
  return WireError::kOk;
}

// The split of a packet body. Views point into the body; the body itself is
// not modified. The three tokens are found as strtok(" ") would find them
// (leading blanks skipped, a NUL ends the scan); the payload starts at
// offset h + 1 with h = |destination| + |source| + |word| + 2, so it includes
// the sender's padding, and exists only when L > h.
struct Header {
  std::string_view destination;
  std::string_view source;
  std::string_view word;
  std::size_t payload_offset = 0;  // meaningful when has_payload
  std::size_t payload_length = 0;
  bool has_payload = false;
};

// Splits body[0..length). Returns kParse when fewer than three tokens.
// The category word is not converted here.
WireError SplitBody(const char* body, std::size_t length, Header* header);

}  // namespace varn::wire

#endif  // VARN_TRANSPORT_WIRE_FORMAT_H_
