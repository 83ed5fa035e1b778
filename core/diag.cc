#include "core/diag.h"

#include <cstdarg>
#include <cstdio>

#include "platform/io.h"

namespace varn::core {

void Diag(const char* format, ...) {
  char buf[4096];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  if (n < 0) return;
  std::size_t len =
      static_cast<std::size_t>(n) < sizeof buf ? static_cast<std::size_t>(n) : sizeof buf - 1;
  platform::WriteAll(platform::kStderr, buf, len);
}

}  // namespace varn::core
