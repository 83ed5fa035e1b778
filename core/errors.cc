// The error-number table. Texts come from the one list in varn.h.
#include "varn.h"

namespace {

#define VARN_ERROR_TEXT_(number, name, text) text,
constexpr const char* kMessages[] = {VARN_ERROR_LIST(VARN_ERROR_TEXT_)};
#undef VARN_ERROR_TEXT_

#define VARN_ERROR_NUMBER_(number, name, text) number,
constexpr int kNumbers[] = {VARN_ERROR_LIST(VARN_ERROR_NUMBER_)};
#undef VARN_ERROR_NUMBER_

// The table is indexed by error number, so the list must run 0, 1, 2, ...
constexpr bool NumbersAreIndexes() {
  for (int i = 0; i < VARN_ERROR_COUNT; ++i) {
    if (kNumbers[i] != i) return false;
  }
  return true;
}

static_assert(sizeof(kMessages) / sizeof(kMessages[0]) == VARN_ERROR_COUNT);
static_assert(NumbersAreIndexes());

constexpr const char* kUnknownError = "Unknown error.";

}  // namespace

int varn_get_error_no(void) noexcept { return VarnErrorNo; }

const char* varn_get_error_message(int n) noexcept {
  if (n < 0 || n >= VARN_ERROR_COUNT) return kUnknownError;
  return kMessages[n];
}
