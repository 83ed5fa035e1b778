// The varn_util_ family: category and status conversions, argument removal,
// the string-field setter, and the small platform helpers.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "core/status.h"
#include "host/support.h"
#include "platform/system.h"
#include "transport/wire_format.h"
#include "varn.h"

int varn_util_int_to_category(int code, char* word) noexcept {
  const char* text = varn::wire::CategoryWord(code);
  if (text == nullptr) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 0;
  }
  std::strcpy(word, text);
  return 1;
}

int varn_util_category_to_int(const char* word, int* code) noexcept {
  // Exact comparison; a null word compares as empty and so matches nothing.
  for (int i = 1; i < varn::wire::kCategoryCount; ++i) {
    if (i == varn::wire::kDackObsolete) continue;  // has a word but is never accepted
    if (gsl_strcmp(word, varn::wire::CategoryWord(i)) == 0) {
      *code = i;
      return 1;
    }
  }
  VarnErrorNo = VARN_E_CATEGORY;
  return 0;
}

int varn_util_status_string_to_code(const char* word, int* code) noexcept {
  for (int status = VARN_STATUS_IDLE; status <= VARN_STATUS_DEAD; ++status) {
    if (gsl_strcmp(word, varn::core::StatusWord(status)) == 0) {
      *code = status;
      return 1;
    }
  }
  return 0;  // VarnErrorNo is deliberately left as it was
}

void varn_util_compress_args(char** argv, int index, int* argc, int count) noexcept {
  // The slot at the old end (argv[*argc]) keeps its value: callers that
  // rely on a terminating null must not expect one at the new end.
  for (int i = index; i + count < *argc; ++i) argv[i] = argv[i + count];
  *argc -= count;
}

int varn_util_strcpy(char** field, const char* text) noexcept {
  if (*field != nullptr && text != nullptr && std::strcmp(*field, text) == 0) return 1;
  std::free(*field);
  *field = nullptr;
  if (text == nullptr || *text == '\0') return 1;  // an empty text is never stored
  std::size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::malloc(size));
  if (copy == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    return 0;
  }
  std::memcpy(copy, text, size);
  *field = copy;
  return 1;
}

size_t varn_util_strlen(const char* text) noexcept {
  return text == nullptr ? 0 : std::strlen(text);
}

int varn_util_sleep(int seconds, int milliseconds) noexcept {
  std::int64_t total = static_cast<std::int64_t>(seconds) * 1000 + milliseconds;
  if (total > 0) varn::platform::SleepMilliseconds(static_cast<std::uint64_t>(total));
  return 1;
}

// Signal masking has no counterpart here; the calls stay so that the queue
// and the protocol keep their structure.
void varn_util_hold_sigusr1(int /*how*/) noexcept {}
void varn_util_release_sigusr1(int /*how*/) noexcept {}
void varn_util_sigaction(int /*signal_number*/) noexcept {}
