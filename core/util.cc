// The varn_util_ family's general helpers: argument removal, the
// string-field setter, sleeping, and the signal calls that have nothing to
// do here. (The category conversions are the transport's: categories.cc.)
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "core/rows.h"
#include "host/gui.h"
#include "platform/system.h"
#include "varn.h"

void varn_util_compress_args(char** argv, int index, int* argc, int count) noexcept {
  // The slot at the old end (argv[*argc]) keeps its value: callers that
  // rely on a terminating null must not expect one at the new end.
  for (int i = index; i + count < *argc; ++i) argv[i] = argv[i + count];
  *argc -= count;
}

int varn_util_strcpy(char** field, const char* text) noexcept {
  varn::core::OnApplicationThread();
  if (*field != nullptr && text != nullptr && std::strcmp(*field, text) == 0) return 1;
  ++varn::core::State().text_changes;
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

// The queue and the protocol call these around the steps that change
// shared lists. Nothing is masked: no signal handler of the library touches
// those lists (the input thread holds the application's thread instead), so
// the calls do nothing.
void varn_util_hold_sigusr1(int /*how*/) noexcept {}
void varn_util_release_sigusr1(int /*how*/) noexcept {}
void varn_util_sigaction(int /*signal_number*/) noexcept {}

int varn_chdir(const char* directory) noexcept {
  if (VarnChanType == VARN_CHAN_SOCKET) return 0;
  return varn::host::gui_chdir(directory);
}
