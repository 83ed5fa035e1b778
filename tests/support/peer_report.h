// What the small test programs linked to the library share: the report
// line they write to the test (one line per call, on the descriptor the
// test gave with -report or -reportfile) and the word of a category code.
#ifndef VARN_TESTS_SUPPORT_PEER_REPORT_H_
#define VARN_TESTS_SUPPORT_PEER_REPORT_H_

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "varn.h"

namespace varn::test_support {

// The report descriptor; -1 until the program's options set it.
inline int g_report = -1;

void Report(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline void Report(const char* format, ...) {
  char line[8192];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(line, sizeof line - 1, format, ap);
  va_end(ap);
  if (n < 0) return;
  if (n > static_cast<int>(sizeof line) - 2) n = sizeof line - 2;
  line[n++] = '\n';
  if (g_report >= 0) {
    ssize_t w = write(g_report, line, static_cast<size_t>(n));
    (void)w;
  }
}

// The category word of code, "?" for an unknown one. The text lives until
// the next call.
inline const char* Word(std::uint32_t code) {
  static char word[32];
  if (!varn_util_int_to_category(static_cast<int>(code), word)) std::strcpy(word, "?");
  return word;
}

// What a test server's callback does before it serves a command: an INTR
// from its client sets *interrupted (the callback then runs on the input
// thread, the application's thread held), the client's end ends the server,
// and a CMD's text is read into text (room for VARN_STATUS_TEXT_SIZE
// bytes). True when h brought a command to serve.
inline bool TakeCommand(int h, std::atomic<bool>* interrupted, char* text) {
  if (h < 0) return false;
  std::uint32_t category = VarnMessage[h].last_category;
  if (category == VARN_INTR) {
    *interrupted = true;
    return false;
  }
  if (category == VARN_SRVR_ERR) varn_deinit();
  if (category != VARN_CMD) return false;
  std::uint32_t cat = 0, length = 0;
  text[0] = '\0';
  varn_recv_msg_len(h, &cat, text, &length);
  return true;
}

}  // namespace varn::test_support

#endif  // VARN_TESTS_SUPPORT_PEER_REPORT_H_
