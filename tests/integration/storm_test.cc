// An INTR storm through the real hub: thousands of interrupts while the
// receiving program's thread is busy in allocation-heavy code, in stdio, or
// inside varn_send_msg and varn_wait, then KILL. Every INTR callback must run
// exactly once and in order, and the program must end with status 0 (the
// hub's exit status is its first client's).
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/launcher.h"
#include "tests/support/output.h"

namespace varn::testing {
namespace {

constexpr int kInterrupts = 3000;
// Generous: a storm takes well under a second here, much longer under the
// sanitizers; a deadlock shows as the deadline passing.
constexpr int kDeadlineMs = 90000;

class StormTest : public ::testing::TestWithParam<const char*> {};

TEST_P(StormTest, EveryInterruptRunsItsCallbackOnceAndKillEndsWithStatusZero) {
  std::string report = test_support::TestOutputDir("storm") + "/report.txt";
  std::string program = VARN_STORM_PEER_PATH;
  std::string dir = program.substr(0, program.rfind('/'));
  test_support::RunResult r =
      test_support::RunProgram({VARN_QUON_PATH, "--path", dir, program, "-reportfile", report,
                                "storm", GetParam(), std::to_string(kInterrupts)},
                               "", "", kDeadlineMs);
  std::ifstream in(report);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(text.str(),
            "intr " + std::to_string(kInterrupts) + " out-of-order 0 from-interrupter 1\n");
}

INSTANTIATE_TEST_SUITE_P(Busy, StormTest, ::testing::Values("alloc", "stdio", "send"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace varn::testing
