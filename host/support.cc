#include "host/support.h"

#include <cstring>

extern "C" int gsl_strcmp(const char* a, const char* b) noexcept {
  return std::strcmp(a != nullptr ? a : "", b != nullptr ? b : "");
}
