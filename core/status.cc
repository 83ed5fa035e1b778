#include "core/status.h"

#include <cstdio>

#include "platform/mutex.h"
#include "platform/thread.h"
#include "varn.h"

namespace varn::core {
namespace {

platform::Mutex g_mutex;
int g_status GUARDED_BY(g_mutex) = VARN_STATUS_IDLE;
char g_text[VARN_STATUS_TEXT_SIZE] GUARDED_BY(g_mutex) = {};

}  // namespace

void SetStatus(int status, const char* text) {
  platform::DeferHoldScope defer;
  platform::MutexLock lock(&g_mutex);
  if (status != 3) {
    VarnStatus = status;
    g_status = status;
  }
  std::snprintf(g_text, sizeof g_text, "%s", text ? text : "");
}

void ClearStatusText() {
  platform::DeferHoldScope defer;
  platform::MutexLock lock(&g_mutex);
  g_text[0] = '\0';
}

int StatusSnapshot(char* text, std::size_t size) {
  platform::DeferHoldScope defer;
  platform::MutexLock lock(&g_mutex);
  std::snprintf(text, size, "%s", g_text);
  return g_status;
}

}  // namespace varn::core

extern "C" int varn_set_status(uint32_t status, const char* text) noexcept {
  if (status > 3) {
    VarnErrorNo = VARN_E_BAD_STATUS;
    return 0;
  }
  varn::core::SetStatus(static_cast<int>(status), text);
  return 1;
}
