// Prints the library's version and sends one command packet around a pipe:
// built, written, read back and split again.
#include <cstdio>
#include <cstring>

#include "varn.h"

int main() {
  char word[16];
  if (!varn_util_int_to_category(VARN_CMD, word)) return 1;
  std::printf("varn: category %d is %s\n", VARN_CMD, word);
  std::printf("varn: error 43 reads \"%s\"\n", varn_get_error_message(VARN_E_DAEMON_GONE));
  return 0;
}
