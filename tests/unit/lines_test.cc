// Line reading and writing on local streams.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "varn.h"

namespace {

// A stream reading text held in memory: no file is made.
class TextStream {
 public:
  explicit TextStream(std::string text)
      : text_(std::move(text)), file_(fmemopen(text_.data(), text_.size(), "r")) {}
  ~TextStream() { std::fclose(file_); }
  TextStream(const TextStream&) = delete;
  TextStream& operator=(const TextStream&) = delete;
  FILE* get() const { return file_; }

 private:
  std::string text_;
  FILE* file_;
};

TEST(LinesTest, ReadlineCutsAtLineEndsAndStopsAtCtrlZ) {
  TextStream stream(
      "first\r\nsecond\n\x1a"
      "rest\n");
  FILE* f = stream.get();
  char buffer[VARN_LINE_SIZE];
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_STREQ(buffer, "first");
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_STREQ(buffer, "second");
  EXPECT_EQ(varn_readline(f, buffer, 1), 0);  // a line starting with Ctrl-Z ends the input
}

// The end at Ctrl-Z belongs to the stream as it stood then: the same FILE
// moved by plain stdio (or a new stream that the C library placed at the
// address of a closed one) reads on.
TEST(LinesTest, ReadlineEndsAtCtrlZOnlyWhereTheStreamStood) {
  TextStream stream("one\n\x1a\n");
  FILE* f = stream.get();
  char buffer[VARN_LINE_SIZE];
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_EQ(varn_readline(f, buffer, 1), 0);
  EXPECT_EQ(varn_readline(f, buffer, 1), 0);  // stays ended
  std::rewind(f);
  ASSERT_EQ(varn_readline(f, buffer, 1), 1);
  EXPECT_STREQ(buffer, "one");
}

TEST(LinesTest, ReadlineHandsBackALongLineInPiecesWithinTheBuffer) {
  std::string line(2500, 'a');
  TextStream stream(line + "\nnext\n");
  FILE* f = stream.get();
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
}

TEST(LinesTest, ReadlinePGrowsForLongLines) {
  std::string line(5000, 'b');
  TextStream stream(line + "\r\nshort");
  FILE* f = stream.get();
  char* out = nullptr;
  ASSERT_EQ(varn_readlineP(f, &out, 1), 1);
  EXPECT_EQ(std::string(out), line);
  ASSERT_EQ(varn_readlineP(f, &out, 1), 1);
  EXPECT_STREQ(out, "short");  // the last line needs no line feed
  EXPECT_EQ(varn_readlineP(f, &out, 1), 0);
}

TEST(LinesTest, WritelineAddsTheLineFeedOnRequest) {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(varn_writeline(f, 1, "one", 1), 1);
  EXPECT_EQ(varn_writeline(f, 0, "two", 1), 1);
  std::fclose(f);
  EXPECT_EQ(std::string(text, size), "one\ntwo");
  std::free(text);
}

}  // namespace
