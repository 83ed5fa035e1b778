// The "reinvoke" notice: rows that knew a peer's old address follow it, and
// -quon_enable arguments that name it are rewritten.
#include <gtest/gtest.h>

#include <cstring>

#include "core/library_state.h"
#include "varn.h"

namespace {

class NotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto& row : VarnMessage) row = VarnEntry{};
    varn::core::State().active_count = -1;
    VarnErrorNo = 0;
  }
  int Row(int h, const char* address, const char* args = nullptr) {
    VarnMessage[h].state = ENTRY_EXITED;
    varn_util_strcpy(&VarnMessage[h].address, address);
    varn_util_strcpy(&VarnMessage[h].args, args);
    return h;
  }
};

TEST_F(NotifyTest, RowsFollowTheNewAddressKeepingTheirPrefix) {
  Row(0, "10@h");
  Row(1, "!x10@h");
  Row(2, "11@h");
  ASSERT_EQ(varnP_notify("reinvoke 10@h 20@h"), 1);
  EXPECT_STREQ(VarnMessage[0].address, "20@h");
  EXPECT_EQ(VarnMessage[0].state, static_cast<uint32_t>(ENTRY_ACTIVE));
  EXPECT_STREQ(VarnMessage[1].address, "!x20@h");
  EXPECT_STREQ(VarnMessage[2].address, "11@h");
  EXPECT_EQ(VarnMessage[2].state, static_cast<uint32_t>(ENTRY_EXITED));
}

TEST_F(NotifyTest, EnableArgumentsNamingTheOldAddressAreRewritten) {
  Row(0, "30@h", "-quon_enable srv 10@h -x");
  Row(1, "31@h", "-quon_enable srv !y10@h");
  Row(2, "32@h", "-quon_enable srv 12@h -x");
  Row(3, "33@h", "-quon_enable srv");
  ASSERT_EQ(varnP_notify("reinvoke 10@h 20@h"), 1);
  EXPECT_STREQ(VarnMessage[0].args, "-quon_enable srv 20@h -x");
  EXPECT_STREQ(VarnMessage[1].args, "-quon_enable srv 20@h");
  EXPECT_STREQ(VarnMessage[2].args, "-quon_enable srv 12@h -x");
  EXPECT_STREQ(VarnMessage[3].args, "-quon_enable srv");
}

TEST_F(NotifyTest, OtherVerbsAndMalformedTextsAreIgnored) {
  Row(0, "10@h");
  EXPECT_EQ(varnP_notify("moved 10@h 20@h"), 1);
  EXPECT_EQ(varnP_notify("reinvoke 10@h"), 1);
  EXPECT_EQ(varnP_notify(""), 1);
  EXPECT_STREQ(VarnMessage[0].address, "10@h");
}

}  // namespace
