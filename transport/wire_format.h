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
// link it without the library.
#ifndef VARN_TRANSPORT_WIRE_FORMAT_H_
#define VARN_TRANSPORT_WIRE_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace varn::wire {

// Category codes. 51..53 exist only inside a process (queued and already
// acknowledged messages).
enum Category : int {
  kNone = 0,
  kStatusQuery = 1,
  kStatus = 2,
  kKill = 3,
  kAccept = 4,
  kReject = 5,
  kIntr = 6,
  kCmd = 7,
  kDone = 8,
  kBegin = 9,
  kEnd = 10,
  kData = 11,
  kError = 12,
  kSrvrErr = 13,
  kAck = 14,
  kInvoke = 15,
  kInvokeR = 16,
  kInvokeRE = 17,
  kInvokeRN = 18,
  kNak = 19,
  kQueryQuery = 20,
  kQuery = 21,
  kEnable = 22,
  kDisable = 23,
  kNotify = 24,
  kAsyncEnable = 25,
  kAsyncDisable = 26,
  kPing = 27,
  kStderr = 28,
  kFack = 29,
  kFnak = 30,
  kFopen = 31,
  kFclose = 32,
  kFread = 33,
  kFwrite = 34,
  kFrewind = 35,
  kFunlink = 36,
  kQueryPQuery = 37,
  kQueryP = 38,
  kAttach = 39,
  kDetach = 40,
  kAack = 41,
  kAnak = 42,
  kDackObsolete = 43,
  kDnak = 44,
  kEack = 45,
  kEnak = 46,
  kEdone = 47,
  kEerror = 48,
  kBroadcast = 49,
  kFstat = 50,
  kCmdAckSent = 51,
  kBeginAckSent = 52,
  kEndAckSent = 53,
  kInvokeEx = 54,
  kFeof = 55,
  kFseek = 56,
  kFtell = 57,
};

inline constexpr int kCategoryCount = 58;
// The longest category word has 13 characters.
inline constexpr std::size_t kMaxWordLength = 13;
inline constexpr std::size_t kLengthDigits = 6;
// Every packet's total size (6 + L) must stay strictly below this.
inline constexpr std::size_t kPacketLimit = 999488;
// The hub's own address, in both directions.
inline constexpr std::string_view kHubAddress = "quon";

// Failures, numbered as the library's error table numbers them.
enum class WireError : int {
  kOk = 0,
  kParse = 3,      // fewer than three header tokens
  kCategory = 4,   // unknown category code or word
  kTooLong = 34,   // packet would reach kPacketLimit
  kBadLength = 2,  // length field is not six decimal digits
};

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

// Size a packet would need, or 0 when it breaks the limit or the code is bad.
std::size_t PacketSize(std::string_view destination, std::string_view source, int category,
                       std::size_t payload_len);

// Reads the six-digit length field strictly (six ASCII digits).
WireError ParseLength(const char* digits, std::size_t* length);

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
