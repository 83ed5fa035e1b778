// The packet reader with a link beside the hub's channel, on real pipes:
// the link is read only after the peer's "link over", packets come out
// whole from either source, a packet to the linked peer goes on the link,
// and the hub's notice that the peer ended waits until the link was read
// to its end.
#include "transport/packet_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/library_state.h"
#include "platform/io.h"
#include "platform/system.h"
#include "transport/links.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace varn::transport {
namespace {

constexpr const char* kSelf = "1@h";
constexpr const char* kPeer = "2@h";

std::string Packet(const char* destination, const char* source, int category,
                   const std::string& payload) {
  std::string packet(payload.size() + 512, '\0');
  std::size_t size = 0;
  EXPECT_EQ(wire::BuildPacket(packet.data(), packet.size(), destination, source, category,
                              payload.empty() ? nullptr : payload.data(), payload.size(), &size),
            wire::WireError::kOk);
  packet.resize(size);
  return packet;
}

void Write(int fd, const std::string& bytes) {
  ASSERT_TRUE(platform::WriteAll(fd, bytes.data(), bytes.size()));
}

// The next packet's word and payload (without padding), "WORD payload".
std::string Next() {
  PacketBody body;
  ReadResult r = ReadHubPacket(&body, -1, platform::MonotonicMillis() + 5000);
  if (r != ReadResult::kPacket) return "result " + std::to_string(static_cast<int>(r));
  wire::Header header;
  EXPECT_EQ(wire::SplitBody(body.data, body.length, &header), wire::WireError::kOk);
  std::string text(header.word);
  if (header.has_payload) {
    std::string payload(body.data + header.payload_offset, header.payload_length);
    text += " " + std::string(payload.c_str());
  }
  std::free(body.data);
  return text;
}

TEST(PacketReaderTest, ReadsALinkAfterItsOverAndHoldsThePeersEndUntilTheLinkIsRead) {
  namespace fs = std::filesystem;
  std::string dir =
      (fs::temp_directory_path() / ("varn-reader-" + std::to_string(getpid()))).string();
  fs::create_directories(dir);
  std::string in = dir + "/in";    // the peer writes, this process reads
  std::string out = dir + "/out";  // this process writes, the peer reads
  ASSERT_TRUE(platform::CreateFifo(in.c_str()));
  ASSERT_TRUE(platform::CreateFifo(out.c_str()));
  // The peer's ends: its writer holds the pipe (and what is in it) until
  // this process has opened the read end; its reader lets this process open
  // the write end at once.
  int peer_writer = open(in.c_str(), O_RDWR | O_CLOEXEC);
  int peer_reader = open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(peer_writer, 0);
  ASSERT_GE(peer_reader, 0);
  Write(peer_writer, Packet(kSelf, kPeer, VARN_DONE, "on the link"));

  int to_self[2], from_self[2];
  ASSERT_TRUE(platform::CreatePipe(to_self));
  ASSERT_TRUE(platform::CreatePipe(from_self));
  core::Setup& setup = core::MutableSetup();
  core::Setup saved = setup;
  setup.quonin_fd = to_self[0];
  setup.quonout_fd = from_self[1];
  std::snprintf(setup.own_address, sizeof setup.own_address, "%s", kSelf);
  int saved_type = VarnChanType;
  VarnChanType = VARN_CHAN_PIPE;
  EnableLinks(true);

  const char* hub = VARN_HUB_ADDRESS;
  Write(to_self[1],
        Packet(kSelf, hub, VARN_PING, "link open " + std::string(kPeer) + " " + in + " " + out));
  Write(to_self[1], Packet(kSelf, hub, VARN_PING, "link go " + std::string(kPeer)));
  Write(to_self[1], Packet(kSelf, kPeer, VARN_DATA, "through the hub"));
  Write(to_self[1], Packet(kSelf, kPeer, VARN_PING, "link over"));
  Write(to_self[1], Packet(kSelf, kPeer, VARN_SRVR_ERR, "exit 0"));

  // The controls are carried out on the way; the peer's packet through the
  // hub comes first.
  EXPECT_EQ(Next(), "DATA through the hub");
  // This process told the hub it is ready and its peer that it switched,
  // and its packets to the peer now go on the link.
  std::string told(512, '\0');
  long n = platform::ReadSome(from_self[0], told.data(), told.size());
  told.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  EXPECT_EQ(told, Packet(hub, kSelf, VARN_PING, "link ready " + std::string(kPeer) + " ok") +
                      Packet(kPeer, kSelf, VARN_PING, "link over"));
  ASSERT_TRUE(varn_send_packet(kPeer, kSelf, VARN_ACK, nullptr, 0));
  std::string on_link(64, '\0');
  n = platform::ReadSome(peer_reader, on_link.data(), on_link.size());
  on_link.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  EXPECT_EQ(on_link, Packet(kPeer, kSelf, VARN_ACK, ""));

  // The peer has ended: the rest of its link comes before the hub's notice.
  platform::Close(peer_writer);
  EXPECT_EQ(Next(), "DONE on the link");
  EXPECT_EQ(Next(), "SRVR_ERR exit 0");

  CloseLinks();
  EnableLinks(false);
  for (int fd : {to_self[0], to_self[1], from_self[0], from_self[1], peer_reader}) {
    platform::Close(fd);
  }
  setup = saved;
  VarnChanType = saved_type;
  fs::remove_all(dir);
}

}  // namespace
}  // namespace varn::transport
