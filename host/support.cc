#include "host/support.h"

#include <cstdint>
#include <cstring>

#include "platform/system.h"

extern "C" int gsl_strcmp(const char* a, const char* b) noexcept {
  return std::strcmp(a != nullptr ? a : "", b != nullptr ? b : "");
}

extern "C" void gsl_sleep(int seconds) noexcept {
  if (seconds > 0) varn::platform::SleepMilliseconds(static_cast<std::uint64_t>(seconds) * 1000);
}
