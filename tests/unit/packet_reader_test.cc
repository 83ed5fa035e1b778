// The packet reader with a link beside the hub's channel, on real pipes:
// the link is read only after the peer's "link over", packets come out
// whole from either source, a packet to the linked peer goes on the link,
// and the hub's notice that the peer ended waits until the link was read
// to its end.
#include "transport/packet_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
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
std::string Next(int within_ms = 5000) {
  PacketBody body;
  ReadResult r = ReadHubPacket(&body, -1, platform::MonotonicMillis() + within_ms);
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

std::string ReadAll(int fd) {
  std::string bytes(4096, '\0');
  long n = platform::ReadSome(fd, bytes.data(), bytes.size());
  bytes.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return bytes;
}

// This process ("1@h") on two pipes in place of the hub's channel, and a
// link with its peer ("2@h") whose setting-up the hub has started: this
// process was told to open it and that both sides are ready.
class PacketReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    namespace fs = std::filesystem;
    dir_ = (fs::temp_directory_path() / ("varn-reader-" + std::to_string(getpid()))).string();
    fs::create_directories(dir_);
    std::string in = dir_ + "/in";    // the peer writes, this process reads
    std::string out = dir_ + "/out";  // this process writes, the peer reads
    ASSERT_TRUE(platform::CreateFifo(in.c_str()));
    ASSERT_TRUE(platform::CreateFifo(out.c_str()));
    // The peer's ends: its writer holds the pipe (and what is in it) until
    // this process has opened the read end; its reader lets this process
    // open the write end at once.
    peer_writer_ = open(in.c_str(), O_RDWR | O_CLOEXEC);
    peer_reader_ = open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(peer_writer_, 0);
    ASSERT_GE(peer_reader_, 0);
    ASSERT_TRUE(platform::CreatePipe(to_self_));
    ASSERT_TRUE(platform::CreatePipe(from_self_));
    core::Setup& setup = core::MutableSetup();
    saved_ = setup;
    setup.quonin_fd = to_self_[0];
    setup.quonout_fd = from_self_[1];
    std::snprintf(setup.own_address, sizeof setup.own_address, "%s", kSelf);
    saved_type_ = VarnChanType;
    VarnChanType = VARN_CHAN_PIPE;
    // As varn_init leaves it: a write to a pipe nobody reads fails instead
    // of ending the process.
    saved_sigpipe_ = std::signal(SIGPIPE, SIG_IGN);
    EnableLinks(true);
    FromHub(VARN_PING, "link open " + std::string(kPeer) + " " + in + " " + out);
    FromHub(VARN_PING, "link go " + std::string(kPeer));
  }

  void TearDown() override {
    CloseLinks();
    EnableLinks(false);
    for (int fd :
         {to_self_[0], to_self_[1], from_self_[0], from_self_[1], peer_reader_, peer_writer_}) {
      if (fd >= 0) platform::Close(fd);
    }
    core::MutableSetup() = saved_;
    VarnChanType = saved_type_;
    std::signal(SIGPIPE, saved_sigpipe_);
    std::filesystem::remove_all(dir_);
  }

  void FromHub(int category, const std::string& payload) {
    Write(to_self_[1], Packet(kSelf, VARN_HUB_ADDRESS, category, payload));
  }
  void FromPeerThroughHub(int category, const std::string& payload) {
    Write(to_self_[1], Packet(kSelf, kPeer, category, payload));
  }
  // What this process wrote to the hub since last asked.
  std::string ToHub() { return ReadAll(from_self_[0]); }
  // The first packet through the hub: the link's controls are carried out
  // on the way; this process tells the hub it is ready and its peer that
  // it switched.
  void TakeFirst(const std::string& expected) {
    EXPECT_EQ(Next(), expected);
    EXPECT_EQ(ToHub(), Packet(VARN_HUB_ADDRESS, kSelf, VARN_PING,
                              "link ready " + std::string(kPeer) + " ok") +
                           Packet(kPeer, kSelf, VARN_PING, "link over"));
  }

  std::string dir_;
  int peer_writer_ = -1;
  int peer_reader_ = -1;
  int to_self_[2] = {-1, -1};
  int from_self_[2] = {-1, -1};
  core::Setup saved_;
  int saved_type_ = 0;
  void (*saved_sigpipe_)(int) = SIG_DFL;
};

TEST_F(PacketReaderTest, ReadsALinkAfterItsOverAndHoldsThePeersEndUntilTheLinkIsRead) {
  Write(peer_writer_, Packet(kSelf, kPeer, VARN_DONE, "on the link"));
  FromPeerThroughHub(VARN_DATA, "through the hub");
  FromPeerThroughHub(VARN_PING, "link over");
  FromPeerThroughHub(VARN_SRVR_ERR, "exit 0");

  TakeFirst("DATA through the hub");
  // Packets to the peer go on the link now.
  ASSERT_TRUE(varn_send_packet(kPeer, kSelf, VARN_ACK, nullptr, 0));
  EXPECT_EQ(ReadAll(peer_reader_), Packet(kPeer, kSelf, VARN_ACK, ""));

  // The peer has ended: the rest of its link comes before the hub's notice.
  platform::Close(peer_writer_);
  peer_writer_ = -1;
  EXPECT_EQ(Next(), "DONE on the link");
  EXPECT_EQ(Next(), "SRVR_ERR exit 0");
  // Nothing is kept open for the ended peer: its reader meets the end of
  // the link, and a packet to its address goes through the hub again (which
  // answers for a process that ended).
  char byte = 0;
  EXPECT_EQ(platform::ReadSome(peer_reader_, &byte, 1), 0);
  ASSERT_TRUE(varn_send_packet(kPeer, kSelf, VARN_ACK, nullptr, 0));
  EXPECT_EQ(ToHub(), Packet(kPeer, kSelf, VARN_ACK, ""));
}

// A linked peer that stops half way through a large packet holds up only
// its link: what comes through the hub is read meanwhile.
TEST_F(PacketReaderTest, APeerStoppedInsideALargePacketHoldsUpOnlyItsLink) {
  FromPeerThroughHub(VARN_PING, "link over");
  FromHub(VARN_STATUS, "IDLE");
  TakeFirst("STATUS IDLE");
  Write(peer_writer_,
        "400000" + std::string(kSelf) + " " + kPeer + " DATA " + std::string(1000, 'x'));
  // The reader has started the large packet and waits for its rest.
  EXPECT_EQ(Next(50), "result " + std::to_string(static_cast<int>(ReadResult::kTimeout)));
  Write(to_self_[1], Packet(kSelf, "3@h", VARN_INTR, "from another"));
  EXPECT_EQ(Next(), "INTR from another");
}

TEST_F(PacketReaderTest, APacketTheLinkRefusesGoesThroughTheHub) {
  FromPeerThroughHub(VARN_DATA, "through the hub");
  TakeFirst("DATA through the hub");
  // The peer's reading end is gone while it still lives: the packet is not
  // lost but relayed.
  platform::Close(peer_reader_);
  peer_reader_ = -1;
  ASSERT_TRUE(varn_send_packet(kPeer, kSelf, VARN_CMD, "still here", 0));
  EXPECT_EQ(ToHub(), Packet(kPeer, kSelf, VARN_CMD, "still here"));
  ASSERT_TRUE(varn_send_packet(kPeer, kSelf, VARN_DONE, "and again", 0));
  EXPECT_EQ(ToHub(), Packet(kPeer, kSelf, VARN_DONE, "and again"));
}

}  // namespace
}  // namespace varn::transport
