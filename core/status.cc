#include "core/status.h"

#include <cstdio>
#include <mutex>

#include "platform/thread.h"
#include "varn.h"

namespace varn::core {
namespace {

constexpr const char* kStatusWords[] = {"IDLE", "BUSY", "DEAD"};

std::mutex g_mutex;
int g_status = VARN_STATUS_IDLE;          // guarded by g_mutex
char g_text[VARN_STATUS_TEXT_SIZE] = {};  // guarded by g_mutex

}  // namespace

const char* StatusWord(int status) {
  if (status < VARN_STATUS_IDLE || status > VARN_STATUS_DEAD) return nullptr;
  return kStatusWords[status];
}

void SetStatus(int status, const char* text) {
  platform::DeferHoldScope defer;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (status != 3) {
    VarnStatus = status;
    g_status = status;
  }
  std::snprintf(g_text, sizeof g_text, "%s", text ? text : "");
}

void ClearStatusText() {
  platform::DeferHoldScope defer;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_text[0] = '\0';
}

void StatusAnswer(char* out, std::size_t size) {
  platform::DeferHoldScope defer;
  std::lock_guard<std::mutex> lock(g_mutex);
  const char* word = StatusWord(g_status);
  if (word == nullptr) word = "IDLE";
  if (g_text[0] != '\0') {
    std::snprintf(out, size, "%s %s", word, g_text);
  } else {
    std::snprintf(out, size, "%s", word);
  }
}

void StatusText(char* out, std::size_t size) {
  platform::DeferHoldScope defer;
  std::lock_guard<std::mutex> lock(g_mutex);
  std::snprintf(out, size, "%s", g_text);
}

}  // namespace varn::core
