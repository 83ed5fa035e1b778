// The deadline scopes of the transport's reads.
#include "transport/deadline.h"

#include <gtest/gtest.h>

#include <string>

namespace varn::transport {
namespace {

TEST(ReadDeadlineTest, ScopesNestAndACallbackScopeLiftsTheDeadline) {
  EXPECT_EQ(CurrentDeadline(), -1);
  {
    ReadDeadline outer(1000);
    EXPECT_EQ(CurrentDeadline(), 1000);
    {
      NoReadDeadline callback;
      EXPECT_EQ(CurrentDeadline(), -1);
      ReadDeadline inner(500);
      NoteDeadlinePassed();
      EXPECT_TRUE(inner.Passed());
    }
    // What passed inside the callback is not the outer wait's deadline.
    EXPECT_EQ(CurrentDeadline(), 1000);
    EXPECT_FALSE(outer.Passed());
  }
  EXPECT_EQ(CurrentDeadline(), -1);
}

TEST(ReadDeadlineTest, LateAnswersAreCountedOffByKindAndAddress) {
  NoteLate(LateAnswer::kStatus, "1@h");
  NoteLate(LateAnswer::kStatus, "1@h");
  NoteLate(LateAnswer::kAcknowledgement, "1@h");
  EXPECT_FALSE(TakeLate(LateAnswer::kStatus, "2@h"));
  EXPECT_TRUE(TakeLate(LateAnswer::kStatus, "1@h"));
  EXPECT_TRUE(TakeLate(LateAnswer::kStatus, "1@h"));
  EXPECT_FALSE(TakeLate(LateAnswer::kStatus, "1@h"));
  EXPECT_TRUE(TakeLate(LateAnswer::kAcknowledgement, "1@h"));
  EXPECT_FALSE(TakeLate(LateAnswer::kAcknowledgement, "1@h"));
}

TEST(ReadDeadlineTest, AnAwaitedLateAnswerKeepsItsPlaceWhileOthersComeAndGo) {
  NoteLate(LateAnswer::kStatus, "7@h");
  for (int i = 0; i < 40; ++i) {
    std::string other = std::to_string(100 + i) + "@h";
    NoteLate(LateAnswer::kStatus, other.c_str());
    EXPECT_TRUE(TakeLate(LateAnswer::kStatus, other.c_str()));
  }
  EXPECT_TRUE(TakeLate(LateAnswer::kStatus, "7@h"));
}

}  // namespace
}  // namespace varn::transport
