// Error texts, category and status conversions, and the varn_util_ helpers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "core/library_state.h"
#include "host/support.h"
#include "varn.h"

namespace {

class UtilTest : public ::testing::Test {
 protected:
  void SetUp() override { VarnErrorNo = 0; }
  void TearDown() override { VarnErrorNo = 0; }
};

TEST_F(UtilTest, ErrorMessagesByNumber) {
  EXPECT_STREQ(varn_get_error_message(0), "No error.");
  EXPECT_STREQ(varn_get_error_message(43), "Daemon is either dead or has closed all it's sockets.");
  EXPECT_STREQ(varn_get_error_message(49), "Buffer size may not be negative ");
  EXPECT_STREQ(varn_get_error_message(74), "Can't perform a remote ftell");
  EXPECT_STREQ(varn_get_error_message(75), "Unable to allocate a new varn handle");
  EXPECT_STREQ(varn_get_error_message(62), varn_get_error_message(70));
  for (int n : {-1, static_cast<int>(VARN_ERROR_COUNT), 1000})
    EXPECT_STREQ(varn_get_error_message(n), "Unknown error.") << n;

  // Only 62 and 70 share a text; any other duplicate means a shifted table.
  std::set<std::string> texts;
  for (int n = 0; n < VARN_ERROR_COUNT; ++n) {
    ASSERT_NE(varn_get_error_message(n), nullptr);
    texts.insert(varn_get_error_message(n));
  }
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(VARN_ERROR_COUNT - 1));

  VarnErrorNo = VARN_E_BAD_HANDLE;
  EXPECT_EQ(varn_get_error_no(), 31);
}

TEST_F(UtilTest, CategoryCodesAndWordsRoundTrip) {
  char word[14];
  for (int code = 1; code < VARN_CATEGORY_COUNT; ++code) {
    ASSERT_EQ(varn_util_int_to_category(code, word), 1) << code;
    if (code == VARN_DACK_OBSOLETE) continue;
    int back = -1;
    ASSERT_EQ(varn_util_category_to_int(word, &back), 1) << word;
    EXPECT_EQ(back, code) << word;
  }
  ASSERT_EQ(varn_util_int_to_category(VARN_CMD, word), 1);
  EXPECT_STREQ(word, "CMD");
  ASSERT_EQ(varn_util_int_to_category(VARN_QUERYP_Q, word), 1);
  EXPECT_STREQ(word, "QUERYP?");
  EXPECT_EQ(VarnErrorNo, 0);
}

TEST_F(UtilTest, UnknownCategoriesFailWithError4) {
  char word[14] = "untouched";
  for (int code : {0, 58, -1}) {
    VarnErrorNo = 0;
    EXPECT_EQ(varn_util_int_to_category(code, word), 0) << code;
    EXPECT_EQ(VarnErrorNo, VARN_E_CATEGORY) << code;
  }
  EXPECT_STREQ(word, "untouched");

  // 43 has a word, but the word is not accepted back.
  ASSERT_EQ(varn_util_int_to_category(VARN_DACK_OBSOLETE, word), 1);
  EXPECT_STREQ(word, "DACK_OBSOLETE");
  for (const char* text : {"DACK_OBSOLETE", "NONE", "cmd", "CMD ", "", "CMD_"}) {
    int code = 99;
    VarnErrorNo = 0;
    EXPECT_EQ(varn_util_category_to_int(text, &code), 0) << text;
    EXPECT_EQ(VarnErrorNo, VARN_E_CATEGORY) << text;
    EXPECT_EQ(code, 99) << text;
  }
  int code = 99;
  EXPECT_EQ(varn_util_category_to_int(nullptr, &code), 0);
  EXPECT_EQ(code, 99);
}

TEST_F(UtilTest, StatusWords) {
  int code = -1;
  EXPECT_EQ(varn_util_status_string_to_code("IDLE", &code), 1);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(varn_util_status_string_to_code("BUSY", &code), 1);
  EXPECT_EQ(code, 1);
  EXPECT_EQ(varn_util_status_string_to_code("DEAD", &code), 1);
  EXPECT_EQ(code, 2);

  // A failure touches neither the code nor the error number.
  VarnErrorNo = 17;
  for (const char* word : {"idle", "IDLE ", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(varn_util_status_string_to_code(word, &code), 0);
  }
  EXPECT_EQ(code, 2);
  EXPECT_EQ(VarnErrorNo, 17);
}

TEST_F(UtilTest, StringFieldRule) {
  char* field = nullptr;
  ASSERT_EQ(varn_util_strcpy(&field, "tool"), 1);
  ASSERT_NE(field, nullptr);
  EXPECT_STREQ(field, "tool");

  char text[] = "tool";  // equal text from another buffer keeps the allocation
  char* before = field;
  ASSERT_EQ(varn_util_strcpy(&field, text), 1);
  EXPECT_EQ(field, before);

  ASSERT_EQ(varn_util_strcpy(&field, "editor"), 1);
  EXPECT_STREQ(field, "editor");
  EXPECT_NE(field, static_cast<const char*>("editor"));  // a copy, not the caller's text

  ASSERT_EQ(varn_util_strcpy(&field, ""), 1);
  EXPECT_EQ(field, nullptr);
  ASSERT_EQ(varn_util_strcpy(&field, ""), 1);
  EXPECT_EQ(field, nullptr);

  ASSERT_EQ(varn_util_strcpy(&field, "x"), 1);
  ASSERT_EQ(varn_util_strcpy(&field, nullptr), 1);
  EXPECT_EQ(field, nullptr);
  EXPECT_EQ(VarnErrorNo, 0);
}

TEST_F(UtilTest, CompressArgsMovesLaterEntriesDown) {
  char a[] = "prog", b[] = "-quon_sleep", c[] = "3", d[] = "input", e[] = "-v";
  char* argv[] = {a, b, c, d, e, nullptr};
  int argc = 5;
  varn_util_compress_args(argv, 1, &argc, 2);
  EXPECT_EQ(argc, 3);
  EXPECT_EQ(argv[0], a);
  EXPECT_EQ(argv[1], d);
  EXPECT_EQ(argv[2], e);
  // The vacated slots and the old terminator are left as they were.
  EXPECT_EQ(argv[3], d);
  EXPECT_EQ(argv[4], e);
  EXPECT_EQ(argv[5], nullptr);

  varn_util_compress_args(argv, 2, &argc, 1);  // the last entry
  EXPECT_EQ(argc, 2);
  EXPECT_EQ(argv[1], d);
  EXPECT_EQ(argv[2], e);

  varn_util_compress_args(argv, 0, &argc, 0);
  EXPECT_EQ(argc, 2);
  EXPECT_EQ(argv[0], a);
}

TEST_F(UtilTest, SmallHelpers) {
  EXPECT_EQ(varn_util_strlen(nullptr), 0u);
  EXPECT_EQ(varn_util_strlen(""), 0u);
  EXPECT_EQ(varn_util_strlen("4312@lab7"), 9u);

  EXPECT_EQ(gsl_strcmp(nullptr, ""), 0);
  EXPECT_EQ(gsl_strcmp(nullptr, nullptr), 0);
  EXPECT_LT(gsl_strcmp(nullptr, "a"), 0);
  EXPECT_GT(gsl_strcmp("b", "a"), 0);

  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(varn_util_sleep(0, 30), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  EXPECT_EQ(varn_util_sleep(0, -5), 1);  // nothing to wait for
}

}  // namespace
