// Waits with a deadline through the real hub: each reason produced by a
// real peer (busy with a status text, busy before it took the command,
// idle, stopped, exited, the hub killed), a cancel that ends a command with
// exactly one answer, and every call back within its bound.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "tests/support/launcher.h"
#include "tests/support/output.h"
#include "varn.h"

namespace varn::testing {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kSlackMs = 1500;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr long kSlackMs = 1500;
#else
constexpr long kSlackMs = 400;
#endif
#else
constexpr long kSlackMs = 400;
#endif

struct Line {
  std::string rest;  // "r=.. err=.. cat=.. text=.. detail=.."
  long ms = -1;
};

// Runs the client under the hub; its report lines by name (the first word).
std::map<std::string, Line> RunClient(const std::string& mode, int* hub_status) {
  std::string report = test_support::TestOutputDir("deadline") + "/report.txt";
  std::string program = VARN_DEADLINE_PEER_PATH;
  std::string dir = program.substr(0, program.rfind('/'));
  test_support::RunResult r = test_support::RunProgram(
      {VARN_QUON_PATH, "--path", dir, program, "-reportfile", report, mode}, "", "", 60000);
  *hub_status = r.status;
  std::ifstream in(report);
  std::map<std::string, Line> lines;
  std::string text;
  while (std::getline(in, text)) {
    std::string name = text.substr(0, text.find(' '));
    Line line;
    std::size_t ms = text.rfind(" ms=");
    line.rest = text.substr(name.size() + 1,
                            ms == std::string::npos ? std::string::npos : ms - name.size() - 1);
    if (ms != std::string::npos) line.ms = std::stol(text.substr(ms + 4));
    lines[name] = line;
  }
  return lines;
}

// A call with deadline D (ms) that ends at it returns after D, and before D
// plus the status query's bound (D, at most 500 ms) plus slack.
void ExpectWithin(const Line& line, long deadline_ms) {
  EXPECT_GE(line.ms, deadline_ms - 5) << line.rest;
  EXPECT_LE(line.ms, deadline_ms + std::min(deadline_ms, 500L) + kSlackMs) << line.rest;
}

TEST(DeadlineTest, EachReasonComesFromARealPeerWithinItsBound) {
  int status = -1;
  auto lines = RunClient("client", &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(lines["busy"].rest, "r=0 err=77 cat=- text= detail=spinning");
  ExpectWithin(lines["busy"], 300);
  EXPECT_EQ(lines["no-ack"].rest, "r=0 err=76 cat=- text= detail=spinning");
  ExpectWithin(lines["no-ack"], 300);
  EXPECT_EQ(lines["first-answer"].rest, "r=1 err=0 cat=DONE text=spun detail=");
  EXPECT_EQ(lines["late-ack"].rest, "r=1 err=0 cat=ACK text= detail=");
  EXPECT_EQ(lines["second-answer"].rest, "r=1 err=0 cat=DONE text=late detail=");
  EXPECT_EQ(lines["idle"].rest, "r=0 err=78 cat=- text= detail=");
  ExpectWithin(lines["idle"], 300);
  EXPECT_EQ(lines["until-intr"].rest, "r=0 err=77 cat=- text= detail=waiting for INTR");
  EXPECT_EQ(lines["cancel"].rest, "r=1 err=0 cat=ERROR text=cancelled detail=");
  EXPECT_LT(lines["cancel"].ms, 5000);
  // Exactly one answer: nothing follows the cancelled command's ERROR.
  EXPECT_EQ(lines["after-cancel"].rest, "r=0 err=78 cat=- text= detail=");
  EXPECT_EQ(lines["busy-again"].rest, "r=0 err=77 cat=- text= detail=spinning");
  EXPECT_EQ(lines["no-ack-again"].rest, "r=0 err=76 cat=- text= detail=spinning");
  EXPECT_EQ(lines["spun"].rest, "r=1 err=0 cat=DONE text=spun detail=");
  EXPECT_EQ(lines["cancel-unacked"].rest, "r=1 err=0 cat=ERROR text=cancelled detail=");
  EXPECT_EQ(lines["next"].rest, "r=1 err=0 cat=DONE text=next detail=");
  EXPECT_EQ(lines["ack-left"].rest, "r=0 err=78 cat=- text= detail=");
  EXPECT_EQ(lines["stopped"].rest, "r=0 err=79 cat=- text= detail=");
  ExpectWithin(lines["stopped"], 300);
  EXPECT_EQ(lines["resumed"].rest, "r=1 err=0 cat=DONE text=resumed detail=");
  // The status answer that came late went nowhere; this one is fresh.
  EXPECT_EQ(lines["status"].rest, "r=1 status=0 text=");
  EXPECT_EQ(lines["interrupted"].rest, "r=1 err=0 cat=DONE text=after the interrupt detail=");
  EXPECT_EQ(lines["interrupted-callbacks"].rest, "INTR");
  EXPECT_EQ(lines["exited"].rest, "r=0 err=80 cat=- text= detail=exit 3");
  EXPECT_LT(lines["exited"].ms, 5000);
  EXPECT_EQ(lines["cancel-exited"].rest, "r=0 err=80 cat=- text= detail=exit 3");
  EXPECT_LT(lines["cancel-exited"].ms, 1000);
  EXPECT_EQ(lines["after-exit"].rest, "state=" + std::to_string(ENTRY_EXITED));
}

TEST(DeadlineTest, AWaitEndsWith43WhenTheHubIsKilled) {
  int status = -1;
  auto lines = RunClient("hub-loss", &status);
  EXPECT_EQ(status, 128 + 9);  // the hub itself was killed
  EXPECT_EQ(lines["hub-lost"].rest, "r=0 err=43 cat=- text= detail=");
  // The timer fires after 1 s; the deadline (10 s) is far off.
  EXPECT_LT(lines["hub-lost"].ms, 1000 + kSlackMs);
}

}  // namespace
}  // namespace varn::testing
