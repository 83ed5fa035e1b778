// Building and splitting packets.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "transport/wire_format.h"

namespace {

using namespace std::string_literals;
using varn::wire::BuildPacket;
using varn::wire::Header;
using varn::wire::SplitBody;
using varn::wire::WireError;

// Builds a packet into a fresh buffer; fails the test when building fails.
std::string Build(std::string_view destination, std::string_view source, int category,
                  std::string_view payload) {
  std::vector<char> buf(varn::wire::kPacketLimit);
  std::size_t size = 0;
  WireError error = BuildPacket(buf.data(), buf.size(), destination, source, category,
                                payload.data(), payload.size(), &size);
  EXPECT_EQ(error, WireError::kOk);
  return error == WireError::kOk ? std::string(buf.data(), size) : std::string();
}

// Reads the length field and splits the body that follows.
Header Split(const std::string& packet) {
  std::size_t length = 0;
  EXPECT_EQ(varn::wire::ParseLength(packet.data(), &length), WireError::kOk);
  EXPECT_EQ(length + 6, packet.size());
  Header header;
  EXPECT_EQ(SplitBody(packet.data() + 6, length, &header), WireError::kOk);
  return header;
}

std::string_view Payload(const std::string& packet, const Header& header) {
  return std::string_view(packet).substr(6 + header.payload_offset, header.payload_length);
}

TEST(WireFormatTest, CommandPacketBytesAndSplit) {
  std::string packet = Build("5120@lab7", "4312@lab7", VARN_CMD, "run 1");
  EXPECT_EQ(packet, "0000305120@lab7 4312@lab7 CMD run 1\0"s);
  EXPECT_EQ(packet.size(), 36u);

  Header header = Split(packet);
  EXPECT_EQ(header.destination, "5120@lab7");
  EXPECT_EQ(header.source, "4312@lab7");
  EXPECT_EQ(header.word, "CMD");
  ASSERT_TRUE(header.has_payload);
  EXPECT_EQ(Payload(packet, header), "run 1\0"s);  // the padding arrives with the payload
}

TEST(WireFormatTest, AckWithoutPayloadNeedsNoPadding) {
  std::string packet = Build("quon", "4312@lab7", VARN_ACK, "");
  EXPECT_EQ(packet, "000018quon 4312@lab7 ACK");
  Header header = Split(packet);
  EXPECT_EQ(header.word, "ACK");
  EXPECT_FALSE(header.has_payload);
  EXPECT_EQ(header.payload_length, 0u);
}

TEST(WireFormatTest, SizeLimitBoundary) {
  const std::size_t fits = 999453;
  std::string payload(fits, 'x');
  std::string packet = Build("5120@lab7", "4312@lab7", VARN_DATA, payload);
  EXPECT_EQ(packet.size(), 999484u);
  EXPECT_EQ(packet.substr(0, 6), "999478");
  EXPECT_EQ(varn::wire::PacketSize("5120@lab7", "4312@lab7", VARN_DATA, fits), 999484u);

  // One more byte needs three bytes of padding and reaches the limit.
  payload.push_back('x');
  std::vector<char> buf(varn::wire::kPacketLimit + 16);
  std::size_t size = 7;
  EXPECT_EQ(BuildPacket(buf.data(), buf.size(), "5120@lab7", "4312@lab7", VARN_DATA, payload.data(),
                        payload.size(), &size),
            WireError::kTooLong);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(varn::wire::PacketSize("5120@lab7", "4312@lab7", VARN_DATA, fits + 1), 0u);
}

TEST(WireFormatTest, BuildRefusesBadCategoryAndSmallBuffer) {
  char buf[64];
  std::size_t size = 0;
  for (int code : {0, 58, -1}) {
    EXPECT_EQ(BuildPacket(buf, sizeof buf, "a", "b", code, nullptr, 0, &size), WireError::kCategory)
        << code;
    EXPECT_EQ(varn::wire::PacketSize("a", "b", code, 0), 0u) << code;
  }
  // "000018quon 4312@lab7 ACK" needs 24 bytes.
  EXPECT_EQ(BuildPacket(buf, 23, "quon", "4312@lab7", VARN_ACK, nullptr, 0, &size),
            WireError::kTooLong);
  EXPECT_EQ(BuildPacket(buf, 24, "quon", "4312@lab7", VARN_ACK, nullptr, 0, &size), WireError::kOk);
  EXPECT_EQ(size, 24u);
  // A null payload is no payload, whatever length comes with it.
  EXPECT_EQ(BuildPacket(buf, 24, "quon", "4312@lab7", VARN_ACK, nullptr, 5, &size), WireError::kOk);
  EXPECT_EQ(size, 24u);
}

TEST(WireFormatTest, PaddingOnReceiptWithoutPayload) {
  // From 4312@lab7 to quon: ACK, STATUS, BEGIN and DONE need 0..3 NUL bytes.
  struct Case {
    int category;
    std::size_t padding;
  };
  for (Case c :
       {Case{VARN_ACK, 0}, Case{VARN_STATUS, 1}, Case{VARN_BEGIN, 2}, Case{VARN_DONE, 3}}) {
    std::string packet = Build("quon", "4312@lab7", c.category, "");
    ASSERT_EQ(packet.size() % 4, 0u);
    Header header = Split(packet);
    SCOPED_TRACE(std::string(header.word));
    if (c.padding == 0) {
      EXPECT_FALSE(header.has_payload);
      continue;
    }
    // The payload is the padding less the separator position: p - 1 NULs.
    ASSERT_TRUE(header.has_payload);
    EXPECT_EQ(header.payload_length, c.padding - 1);
    EXPECT_EQ(header.payload_offset + header.payload_length, packet.size() - 6);
    EXPECT_EQ(Payload(packet, header), std::string(c.padding - 1, '\0'));
  }
}

TEST(WireFormatTest, PayloadWithBlanksAndNulBytesArrivesUnchanged) {
  const std::string payload = "  two  blanks\0and NUL \0"s;
  std::string packet = Build("5120@lab7", "quon", VARN_DATA, payload);
  Header header = Split(packet);
  EXPECT_EQ(header.destination, "5120@lab7");
  EXPECT_EQ(header.source, "quon");
  EXPECT_EQ(header.word, "DATA");
  std::string_view received = Payload(packet, header);
  ASSERT_GE(received.size(), payload.size());
  EXPECT_EQ(received.substr(0, payload.size()), payload);
  EXPECT_EQ(received.substr(payload.size()), std::string(received.size() - payload.size(), '\0'));
}

TEST(WireFormatTest, SplitFollowsTokenRules) {
  Header header;
  std::string body = "  dst   src WORD";  // leading blanks and runs of blanks
  ASSERT_EQ(SplitBody(body.data(), body.size(), &header), WireError::kOk);
  EXPECT_EQ(header.destination, "dst");
  EXPECT_EQ(header.source, "src");
  EXPECT_EQ(header.word, "WORD");

  for (std::string bad : {""s, "dst src"s, "dst src "s, "dst\0src WORD"s, "dst \0 WORD"s, "   "s}) {
    EXPECT_EQ(SplitBody(bad.data(), bad.size(), &header), WireError::kParse) << bad;
  }
  // The scan stops at the given length even when more text follows.
  body = "dst src WORD";
  EXPECT_EQ(SplitBody(body.data(), 7, &header), WireError::kParse);
}

TEST(WireFormatTest, LengthFieldIsStrict) {
  std::size_t length = 0;
  EXPECT_EQ(varn::wire::ParseLength("000030", &length), WireError::kOk);
  EXPECT_EQ(length, 30u);
  EXPECT_EQ(varn::wire::ParseLength("999999", &length), WireError::kOk);
  EXPECT_EQ(length, 999999u);
  for (const char* bad : {"00003a", " 00030", "-00030", "+00030", "0000 3", "00003"}) {
    EXPECT_EQ(varn::wire::ParseLength(bad, &length), WireError::kBadLength) << bad;
  }
}

}  // namespace
