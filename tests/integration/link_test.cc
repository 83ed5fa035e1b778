// Direct links between two library processes, through the real hub: each
// exchange keeps its order while the link comes up, interrupts and the
// notice of a peer's end arrive as they would through the hub, and once
// linked a pair's packets no longer cross the hub.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/launcher.h"
#include "tests/support/output.h"

namespace varn::testing {
namespace {

using test_support::RunProgram;
using test_support::RunResult;

struct HubRun {
  std::string report;
  std::string log;  // the hub's, with one line per packet it relayed
};

HubRun UnderHub(bool links, bool sockets) {
  std::string report = test_support::TestOutputDir("links") + "/report.txt";
  std::string peer = VARN_LINK_PEER_PATH;
  std::vector<std::string> argv = {VARN_QUON_PATH, "--trace", "--path",
                                   peer.substr(0, peer.rfind('/'))};
  if (!links) argv.push_back("--no-links");
  if (sockets) argv.push_back("--sockets");
  argv.insert(argv.end(), {peer, "-reportfile", report, "client"});
  RunResult r = RunProgram(argv, "");
  EXPECT_EQ(r.status, 0) << r.err;
  std::ifstream in(report);
  std::stringstream text;
  text << in.rdbuf();
  return {text.str(), r.err};
}

// How many CMD packets with this payload the hub relayed.
int Relayed(const std::string& log, const std::string& what) {
  int n = 0;
  for (std::size_t at = log.find(what); at != std::string::npos; at = log.find(what, at + 1)) ++n;
  return n;
}

void ExpectEveryExchangeInOrder(const std::string& report) {
  EXPECT_NE(report.find("echo 200 in order\n"), std::string::npos) << report;
  EXPECT_NE(report.find("stream 20000 in order, then DONE counted\n"), std::string::npos) << report;
  EXPECT_NE(report.find("stream again 1000 in order, then DONE counted\n"), std::string::npos)
      << report;
  EXPECT_NE(report.find("interrupted ERROR cancelled\n"), std::string::npos) << report;
  EXPECT_NE(report.find("before bye 3 in order\n"), std::string::npos) << report;
  EXPECT_NE(report.find("bye answer bye, then SRVR_ERR exit 0\n"), std::string::npos) << report;
  EXPECT_NE(report.find("client done\n"), std::string::npos) << report;
}

class LinkTest : public ::testing::TestWithParam<bool> {};

TEST_P(LinkTest, ExchangesKeepTheirOrderAcrossTheSwitchAndLeaveTheHub) {
  HubRun run = UnderHub(true, GetParam());
  ExpectEveryExchangeInOrder(run.report);
  // Three pairs were linked, and the hub saw only the first few of the 200
  // commands of the first pair: the link comes up after one round trip.
  EXPECT_EQ(Relayed(run.log, " linked\n"), 3) << run.log;
  EXPECT_LT(Relayed(run.log, " CMD "), 20) << run.log;
}

TEST_P(LinkTest, WithoutLinksEveryPacketCrossesTheHub) {
  HubRun run = UnderHub(false, GetParam());
  ExpectEveryExchangeInOrder(run.report);
  EXPECT_EQ(Relayed(run.log, " linked\n"), 0) << run.log;
  EXPECT_GE(Relayed(run.log, " CMD "), 200) << run.log;
}

INSTANTIATE_TEST_SUITE_P(Channel, LinkTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Sockets" : "Pipes";
                         });

}  // namespace
}  // namespace varn::testing
