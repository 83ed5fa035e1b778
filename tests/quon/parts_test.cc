// The hub's parts on their own: framing, start requests, files, spawning
// and the event loop.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "platform/event_loop.h"
#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "quon/file_service.h"
#include "quon/link_broker.h"
#include "quon/output_buffer.h"
#include "quon/packet_framer.h"
#include "quon/session_view.h"
#include "quon/start_request.h"
#include "tests/support/launcher.h"
#include "tests/support/output.h"
#include "transport/wire_format.h"

namespace varn::quon {
namespace {

namespace fs = std::filesystem;

std::string Build(std::string_view dest, std::string_view src, int category,
                  std::string_view payload) {
  std::size_t size = wire::PacketSize(dest, src, category, payload.size());
  std::string out(size, '\0');
  wire::BuildPacket(out.data(), out.size(), dest, src, category,
                    payload.empty() ? nullptr : payload.data(), payload.size(), &size);
  return out;
}

void Feed(PacketFramer& framer, std::string_view bytes) {
  char* p = framer.Reserve(bytes.size());
  std::copy(bytes.begin(), bytes.end(), p);
  framer.Commit(bytes.size());
}

TEST(QuonPacketFramerTest, CutsPacketsWhereverTheReadsEnd) {
  std::string stream = Build("1@h", "2@h", VARN_CMD, "run 1") +
                       Build("quon", "2@h", VARN_STATUS, "IDLE") +
                       Build("1@h", "2@h", VARN_ACK, "");
  PacketFramer framer;
  std::vector<std::string> seen;
  std::string reason;
  // One byte at a time: every split point inside a packet is crossed.
  for (char c : stream) {
    Feed(framer, std::string_view(&c, 1));
    Packet p;
    while (framer.Next(&p, &reason) == PacketFramer::Result::kPacket) {
      seen.push_back(std::string(p.header.word) + ":" + std::string(p.text()));
      EXPECT_EQ(std::string(p.data, p.size).substr(6), std::string(p.data + 6, p.size - 6));
    }
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"CMD:run 1", "STATUS:IDLE", "ACK:"}));
  EXPECT_EQ(framer.buffered(), 0u);
}

TEST(QuonPacketFramerTest, ReportsBadInputAndRecovers) {
  PacketFramer framer;
  Packet p;
  std::string reason;
  Feed(framer, "12x456quon a CMD");
  EXPECT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kBad);
  EXPECT_EQ(reason, "length field is not six digits");
  EXPECT_EQ(framer.buffered(), 0u);  // nothing to resynchronise on: all dropped

  // An oversized packet is skipped by its length, even across reads.
  Feed(framer, "999999");
  EXPECT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kBad);
  EXPECT_NE(reason.find("over the size limit"), std::string::npos);
  Feed(framer, std::string(500000, 'a'));
  EXPECT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kNeedMore);
  Feed(framer, std::string(499999, 'a') + Build("quon", "1@h", VARN_PING, ""));
  ASSERT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kPacket);
  EXPECT_EQ(p.category, VARN_PING);

  Feed(framer, std::string("000006ab\0\0\0\0", 12) + Build("quon", "1@h", VARN_PING, ""));
  Feed(framer, std::string("000014quon 1@h NOPE\0", 20));
  EXPECT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kBad);
  EXPECT_EQ(reason, "fewer than three header tokens");
  EXPECT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kPacket);
  EXPECT_EQ(framer.Next(&p, &reason), PacketFramer::Result::kBad);
  EXPECT_EQ(reason, "unknown category word \"NOPE\"");
}

// Bytes leave in order across writes the pipe takes only in part; once
// drained, a buffer grown past kKeptBytes is given back, a small one kept.
TEST(QuonOutputBufferTest, DrainsInOrderAndGivesBackALargeBlock) {
  int fds[2];
  ASSERT_TRUE(platform::CreatePipe(fds));
  ASSERT_TRUE(platform::SetNonBlocking(fds[1], true));
  std::string sent;
  for (int i = 0; sent.size() <= 3 * OutputBuffer::kKeptBytes; ++i) {
    sent += std::to_string(i) + ' ';
  }
  OutputBuffer out;
  out.Append(sent.data(), sent.size());
  EXPECT_GT(out.capacity(), OutputBuffer::kKeptBytes);
  std::string got;
  char chunk[8192];
  for (int round = 0; round < 1000 && !out.empty(); ++round) {
    ASSERT_NE(out.WriteTo(fds[1]), OutputBuffer::Flush::kFailed);
    long n = platform::ReadSome(fds[0], chunk, sizeof chunk);
    ASSERT_GT(n, 0);
    got.append(chunk, static_cast<std::size_t>(n));
  }
  ASSERT_TRUE(out.empty());
  EXPECT_EQ(out.capacity(), 0u);
  while (got.size() < sent.size()) {
    long n = platform::ReadSome(fds[0], chunk, sizeof chunk);
    ASSERT_GT(n, 0);
    got.append(chunk, static_cast<std::size_t>(n));
  }
  EXPECT_EQ(got, sent);

  out.Append("small", 5);
  EXPECT_EQ(out.WriteTo(fds[1]), OutputBuffer::Flush::kEmpty);
  EXPECT_GT(out.capacity(), 0u);
  platform::Close(fds[0]);
  platform::Close(fds[1]);
}

// One command that closes two cycles at once, then one of them broken:
// the other still stands and is shown.
TEST(QuonWaitTrackerTest, ShowsEveryCycleThatStands) {
  ClientMap clients;
  for (std::uint64_t id = 1; id <= 3; ++id) {
    auto c = std::make_unique<Client>();
    c->id = id;
    clients.emplace(id, std::move(c));
  }
  Client& a = *clients[1];
  Client& x = *clients[2];
  Client& y = *clients[3];
  WaitTracker waits(clients);
  EXPECT_TRUE(waits.OnCommand(x, a, 0).empty());   // x waits on a
  EXPECT_TRUE(waits.OnCommand(x, y, 0).empty());   // x on y
  EXPECT_TRUE(waits.OnCommand(y, a, 0).empty());   // y on a
  EXPECT_FALSE(waits.OnCommand(a, x, 0).empty());  // a on x: two cycles close
  EXPECT_EQ(waits.StandingCycles(), (std::vector<WaitCycle>{{1, 2}, {1, 2, 3}}));
  waits.OnAnswer(a, x);  // a answers x: x waits on a no more
  EXPECT_EQ(waits.StandingCycles(), (std::vector<WaitCycle>{{1, 2, 3}}));
  waits.OnEnded(y);
  EXPECT_TRUE(waits.StandingCycles().empty());
}

TEST(QuonStartRequestTest, SplitsArgumentsLikeAShell) {
  std::vector<std::string> w;
  std::string error;
  ASSERT_TRUE(SplitWords(R"(  a 'b c'  "d \"e\" \$f \x" g\ h ''  i"j"'k' )", &w, &error));
  EXPECT_EQ(w, (std::vector<std::string>{"a", "b c", "d \"e\" $f \\x", "g h", "", "ijk"}));
  ASSERT_TRUE(SplitWords("$HOME *.c ~", &w, &error));  // no expansion
  EXPECT_EQ(w, (std::vector<std::string>{"$HOME", "*.c", "~"}));
  ASSERT_TRUE(SplitWords("", &w, &error));
  EXPECT_TRUE(w.empty());
  EXPECT_FALSE(SplitWords("a 'b", &w, &error));
  EXPECT_FALSE(SplitWords("a \"b\\\"", &w, &error));
}

class QuonOpenFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = test_support::TestOutputDir("root");
    fs::create_directories(root_ + "/sub");
    int error = 0;
    ASSERT_TRUE(files_root_.Open(root_, &error)) << error;
    root_ = files_root_.path();
    outside_ = root_ + "-outside";
    fs::create_directories(outside_);
    std::ofstream(outside_ + "/secret") << "secret";
  }
  void TearDown() override {
    fs::remove_all(root_);
    fs::remove_all(outside_);
  }
  platform::FilesRoot files_root_;
  std::string root_;
  std::string outside_;
};

TEST_F(QuonOpenFilesTest, KeepsBinaryDataAndCapsReads) {
  OpenFiles table(files_root_);
  FileReply r = table.Handle(VARN_FOPEN, "sub/data BINARY WRITE");
  EXPECT_EQ(r.category, VARN_FNAK);  // mode and type are in that order
  r = table.Handle(VARN_FOPEN, std::string("sub/data WRITE BINARY\0\0", 23));
  ASSERT_EQ(r.category, VARN_FACK);
  std::string fd = r.payload;
  // The byte count decides; trailing NULs inside the count are data.
  std::string payload = fd + " 4 " + std::string("a\0b\0", 4) + std::string(2, '\0');
  EXPECT_EQ(table.Handle(VARN_FWRITE, payload).payload, "4");
  EXPECT_EQ(table.Handle(VARN_FWRITE, fd + " 9 short").category, VARN_FNAK);
  EXPECT_EQ(table.Handle(VARN_FWRITE, fd + " -1 x").category, VARN_FNAK);
  std::string big(OpenFiles::kMaxRead + 100, 'q');
  EXPECT_EQ(table.Handle(VARN_FWRITE, fd + " " + std::to_string(big.size()) + " " + big).category,
            VARN_FACK);
  EXPECT_EQ(table.Handle(VARN_FCLOSE, fd).category, VARN_FACK);
  EXPECT_EQ(table.Handle(VARN_FCLOSE, fd).payload, "bad file number");

  r = table.Handle(VARN_FOPEN, "sub/data READ BINARY");
  ASSERT_EQ(r.category, VARN_FACK);
  r = table.Handle(VARN_FREAD, r.payload + " 99999999");
  ASSERT_EQ(r.category, VARN_FACK);
  EXPECT_EQ(r.payload.size(), OpenFiles::kMaxRead);
  EXPECT_EQ(r.payload.substr(0, 5), std::string("a\0b\0q", 5));
  EXPECT_EQ(table.Handle(VARN_FREAD, "1 0").category, VARN_FNAK);
  EXPECT_EQ(table.Handle(VARN_FREAD, "1").category, VARN_FNAK);
  EXPECT_EQ(table.Handle(VARN_FSEEK, "2 x 0").payload, "bad request");
  EXPECT_EQ(table.Handle(VARN_FSEEK, "2 -2 2").payload, std::to_string(big.size() + 2));
  EXPECT_EQ(table.Handle(VARN_FSEEK, "2 1 7").payload, "1");  // unknown whence: from start
  EXPECT_EQ(table.open_count(), 1u);
  table.CloseAll();
  EXPECT_EQ(table.open_count(), 0u);
}

TEST_F(QuonOpenFilesTest, RefusesEveryWayOutOfTheRoot) {
  OpenFiles table(files_root_);
  fs::create_symlink(outside_, root_ + "/sub/door");
  fs::create_symlink(outside_ + "/secret", root_ + "/secret-link");
  std::vector<std::string> ways_out = {"../x", "sub/../../x", "sub/door/secret", "secret-link",
                                       outside_ + "/secret"};
  for (const std::string& path : ways_out) {
    EXPECT_EQ(table.Handle(VARN_FOPEN, path + " READ TEXT").payload, "outside the files root")
        << path;
    EXPECT_EQ(table.Handle(VARN_FSTAT, path).payload, "outside the files root") << path;
  }
  EXPECT_EQ(table.Handle(VARN_FOPEN, "sub/door/new WRITE TEXT").payload, "outside the files root");
  EXPECT_FALSE(fs::exists(outside_ + "/new"));
  EXPECT_EQ(table.Handle(VARN_FSTAT, "sub/door").payload, "outside the files root");
  // Removing a link removes the link, not what it points at.
  EXPECT_EQ(table.Handle(VARN_FUNLINK, "secret-link").category, VARN_FACK);
  EXPECT_TRUE(fs::exists(outside_ + "/secret"));
  EXPECT_EQ(table.Handle(VARN_FUNLINK, "sub/door/secret").payload, "outside the files root");
  EXPECT_EQ(table.Handle(VARN_FSTAT, root_).payload, "1");
  EXPECT_EQ(table.Handle(VARN_FOPEN, "sub READ TEXT").category, VARN_FNAK);
}

TEST(QuonSpawnTest, ReportsFailuresBeforeReturning) {
  platform::SpawnRequest r;
  r.program = "quon-no-such-program";
  EXPECT_EQ(platform::Spawn(r).error, platform::SpawnError::kNotFound);
  r.program = "true";
  r.working_directory = "/no/such/dir";
  platform::SpawnResult s = platform::Spawn(r);
  EXPECT_EQ(s.error, platform::SpawnError::kNoDirectory);
  EXPECT_EQ(s.pid, -1);
  // Extra directories come before PATH.
  std::string dir = test_support::TestOutputDir("path");
  { std::ofstream(dir + "/true") << "#!/bin/sh\nexit 9\n"; }
  fs::permissions(dir + "/true", fs::perms::owner_all);
  platform::EventLoop loop;
  int code = -1;
  loop.WatchChildExits([&code](int, platform::ChildStatus st) { code = st.value; });
  r.working_directory.clear();
  r.extra_path = {dir};
  s = platform::Spawn(r);
  ASSERT_GT(s.pid, 0);
  std::int64_t deadline = platform::MonotonicMillis() + 10000;
  while (code < 0 && platform::MonotonicMillis() < deadline) loop.RunOnce(1000);
  EXPECT_EQ(code, 9);
  fs::remove_all(dir);
}

TEST(QuonSpawnTest, AddsEnvironmentEntriesAndClosesDescriptorsMappedFromNone) {
  ASSERT_EQ(setenv("VARN_SPAWN_B", "old", 1), 0);
  int out[2];
  ASSERT_TRUE(platform::CreatePipe(out));
  platform::SpawnRequest r;
  r.program = "sh";
  // printenv prints every entry of a name: a replaced variable shows once.
  r.argv = {"sh", "-c",
            "[ -e /proc/self/fd/2 ] || echo no-stderr; printenv VARN_SPAWN_A VARN_SPAWN_B"};
  r.environment = {"VARN_SPAWN_A=one two", "VARN_SPAWN_B=new"};
  r.fds = {{out[1], 1}, {-1, 2}};
  test_support::Child child;
  ASSERT_TRUE(child.Start(r)) << child.error();
  platform::Close(out[1]);
  std::string text;
  char buf[256];
  long n = 0;
  while (platform::WaitReadable(out[0], 10000) &&
         (n = platform::ReadSome(out[0], buf, sizeof buf)) > 0) {
    text.append(buf, static_cast<std::size_t>(n));
  }
  platform::Close(out[0]);
  EXPECT_EQ(child.Wait(10000), 0);
  EXPECT_EQ(text, "no-stderr\none two\nnew\n");
  // The caller's own environment is left as it was.
  EXPECT_STREQ(platform::GetEnv("VARN_SPAWN_B"), "old");
  EXPECT_EQ(platform::GetEnv("VARN_SPAWN_A"), nullptr);
}

TEST(QuonEventLoopTest, RunsTimersInOrderAndDeliversSignals) {
  platform::EventLoop loop;
  std::vector<int> order;
  loop.AddTimer(30, [&] { order.push_back(3); });
  auto cancelled = loop.AddTimer(10, [&] { order.push_back(99); });
  loop.AddTimer(0, [&] { order.push_back(1); });
  loop.AddTimer(20, [&] { order.push_back(2); });
  loop.CancelTimer(cancelled);
  int got = 0;
  ASSERT_TRUE(loop.WatchSignals({SIGUSR2}, [&got](int s) { got = s; }));
  platform::SignalProcess(static_cast<int>(platform::ProcessId()), SIGUSR2, false);
  std::int64_t deadline = platform::MonotonicMillis() + 10000;
  while ((order.size() < 3 || got == 0) && platform::MonotonicMillis() < deadline) {
    loop.RunOnce(1000);
  }
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(got, SIGUSR2);

  // A watcher dropped by an earlier callback of the same round is not run.
  int fds[2];
  ASSERT_TRUE(platform::CreatePipe(fds));
  ASSERT_TRUE(platform::WriteAll(fds[1], "x", 1));
  int calls = 0;
  int fds2[2];
  ASSERT_TRUE(platform::CreatePipe(fds2));
  ASSERT_TRUE(platform::WriteAll(fds2[1], "y", 1));
  loop.Watch(fds[0], true, false, [&](platform::IoEvents) {
    ++calls;
    loop.Unwatch(fds2[0]);
  });
  loop.Watch(fds2[0], true, false, [&](platform::IoEvents) {
    ++calls;
    loop.Unwatch(fds[0]);
  });
  loop.RunOnce(1000);
  EXPECT_EQ(calls, 1);
  for (int fd : {fds[0], fds[1], fds2[0], fds2[1]}) platform::Close(fd);
}

// The payload each client was sent, in order, as "ID VERB".
std::vector<std::string> Sent(const std::vector<LinkBroker::Out>& out) {
  std::vector<std::string> sent;
  for (const LinkBroker::Out& o : out) {
    wire::LinkControl c;
    EXPECT_TRUE(wire::ParseLinkControl(o.payload, &c)) << o.payload;
    sent.push_back(std::to_string(o.to) + " " + o.payload.substr(5, o.payload.find(' ', 5) - 5));
  }
  return sent;
}

TEST(QuonLinkBrokerTest, LinksAPairOnlyOnceBothAskedAndCleansUpEveryWay) {
  std::string dir = test_support::TestOutputDir("broker");
  LinkBroker broker(dir, 42);
  LinkBroker::Party a{1, "10@h"}, b{2, "20@h"}, c{3, "30@h"};
  std::vector<LinkBroker::Out> out;
  broker.Want(a, b, &out);
  EXPECT_TRUE(out.empty());  // b has not asked
  broker.Want(b, a, &out);
  ASSERT_EQ(Sent(out), (std::vector<std::string>{"1 open", "2 open"}));
  // Each side reads what the other writes.
  wire::LinkControl to_a, to_b;
  ASSERT_TRUE(wire::ParseLinkControl(out[0].payload, &to_a));
  ASSERT_TRUE(wire::ParseLinkControl(out[1].payload, &to_b));
  EXPECT_EQ(to_a.peer, "20@h");
  EXPECT_EQ(to_a.in_path, to_b.out_path);
  EXPECT_EQ(to_a.out_path, to_b.in_path);
  std::string path(to_a.in_path);
  EXPECT_TRUE(fs::exists(path));
  // A side opens its write end without waiting: the broker holds a reader.
  int writer = platform::OpenFifoEnd(path.c_str(), true);
  EXPECT_GE(writer, 0);
  platform::Close(writer);

  out.clear();
  broker.Ready(1, 2, true, &out);
  EXPECT_TRUE(out.empty());
  broker.Ready(2, 1, true, &out);
  EXPECT_EQ(Sent(out), (std::vector<std::string>{"1 go", "2 go"}));
  EXPECT_FALSE(fs::exists(path));  // the names go once both hold their ends
  EXPECT_EQ(broker.links(), 1u);
  out.clear();
  broker.Want(a, b, &out);  // already linked
  broker.Want(b, a, &out);
  EXPECT_TRUE(out.empty());

  // A side that cannot open its ends drops the link on both sides.
  broker.Want(a, c, &out);
  broker.Want(c, a, &out);
  ASSERT_TRUE(wire::ParseLinkControl(out[0].payload, &to_a));
  path = std::string(to_a.in_path);
  out.clear();
  broker.Ready(3, 1, false, &out);
  EXPECT_EQ(Sent(out), (std::vector<std::string>{"1 drop", "3 drop"}));
  EXPECT_FALSE(fs::exists(path));

  // A client that ends while its link is being set up: the other side is
  // told; one that ends after it was linked is forgotten.
  out.clear();
  broker.Want(b, c, &out);
  broker.Want(c, b, &out);
  ASSERT_TRUE(wire::ParseLinkControl(out[0].payload, &to_b));
  path = std::string(to_b.in_path);
  out.clear();
  broker.Ended(3, &out);
  EXPECT_EQ(Sent(out), (std::vector<std::string>{"2 drop"}));
  EXPECT_FALSE(fs::exists(path));
  out.clear();
  broker.Ended(1, &out);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(broker.links(), 0u);
}

TEST(QuonLinkBrokerTest, WithoutADirectoryNothingIsLinked) {
  LinkBroker broker("", 42);
  std::vector<LinkBroker::Out> out;
  broker.Want({1, "10@h"}, {2, "20@h"}, &out);
  broker.Want({2, "20@h"}, {1, "10@h"}, &out);
  EXPECT_TRUE(out.empty());
}

}  // namespace
}  // namespace varn::quon
