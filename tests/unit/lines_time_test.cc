// Line reading and writing on local streams, and the time calls.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "varn.h"

namespace {

FILE* StreamWith(const std::string& text) {
  FILE* f = std::tmpfile();
  std::fwrite(text.data(), 1, text.size(), f);
  std::rewind(f);
  return f;
}

TEST(LinesTest, ReadlineCutsAtLineEndsAndStopsAtCtrlZ) {
  FILE* f = StreamWith(
      "first\r\nsecond\n\x1a"
      "rest\n");
  char buffer[VARN_LINE_SIZE];
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_STREQ(buffer, "first");
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_STREQ(buffer, "second");
  EXPECT_EQ(varn_readline(f, buffer, 1), 0);  // a line starting with Ctrl-Z ends the input
  std::fclose(f);
}

TEST(LinesTest, ReadlineHandsBackALongLineInPiecesWithinTheBuffer) {
  std::string line(2500, 'a');
  FILE* f = StreamWith(line + "\nnext\n");
  char buffer[VARN_LINE_SIZE];
  std::string joined;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(varn_readline(f, buffer, 1), 1);
    ASSERT_LE(std::string(buffer).size(), 1024u);
    joined += buffer;
  }
  EXPECT_EQ(joined, line);
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_STREQ(buffer, "next");
  EXPECT_EQ(varn_readline(f, buffer, 1), 0);
  std::fclose(f);
}

TEST(LinesTest, ReadlinePGrowsForLongLines) {
  std::string line(5000, 'b');
  FILE* f = StreamWith(line + "\r\nshort");
  char* out = nullptr;
  ASSERT_EQ(varn_readlineP(f, &out, 1), 1);
  EXPECT_EQ(std::string(out), line);
  ASSERT_EQ(varn_readlineP(f, &out, 1), 1);
  EXPECT_STREQ(out, "short");  // the last line needs no line feed
  EXPECT_EQ(varn_readlineP(f, &out, 1), 0);
  std::fclose(f);
}

TEST(LinesTest, WritelineAddsTheLineFeedOnRequest) {
  FILE* f = std::tmpfile();
  ASSERT_EQ(varn_writeline(f, 1, "one", 1), 1);
  ASSERT_EQ(varn_writeline(f, 0, "two", 1), 1);
  std::rewind(f);
  char buf[32] = {};
  std::fread(buf, 1, sizeof buf - 1, f);
  EXPECT_STREQ(buf, "one\ntwo");
  std::fclose(f);
}

TEST(TimeTest, ElapsedRightAfterStartIsSmallAndWholeMilliseconds) {
  ASSERT_EQ(varn_start_time(), 1);
  uint32_t seconds = 99, micros = 1;
  ASSERT_EQ(varn_elapsed_time(&seconds, &micros), 1);
  EXPECT_EQ(seconds, 0u);
  EXPECT_EQ(micros % 1000, 0u);
  EXPECT_LT(micros, 1000000u);
  ASSERT_EQ(varn_total_time(&seconds, &micros), 1);
  EXPECT_EQ(micros % 1000, 0u);
}

}  // namespace
