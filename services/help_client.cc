// The help server client: starting or waking the help server
// ("dravohelp"), asking it to show topics, manuals, web pages and web-linked
// errors, and stopping it; with the help error number and its message
// table. Everything is an ordinary message to the help server's row.
// Application's thread.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/api_entry.h"
#include "host/lorn_path.h"
#include "host/settings.h"
#include "services/text_buffer.h"
#include "varn.h"

int KohelpMessageHandle = -1;
int VarnHelpErrorNo = 16;

namespace {

namespace core = varn::core;
namespace services = varn::services;

constexpr const char* kProgram = "dravohelp";
constexpr const char* kDefaultLog = "/tmp/dravohelp.log";
// The open request's buffer, its NUL included.
constexpr std::size_t kRequestSize = 5808;
constexpr std::size_t kSolvedSize = 512;
constexpr int kAttempts = 2;
constexpr char kSeparator = 15;

constexpr const char kViewerLost[] =
    "Cannot find Viewer process.  This could be because the process is not running or the "
    "program fails to attach to the running viewer process.";
constexpr const char* kMessages[] = {
    "Cannot invoke Dravo Help Server",
    "Cannot invoke third party process",
    "Cannot find the .dravohelp file",
    "Environment not defined properly",
    "Cannot write to the /tmp directory",
    "Cannot find the hsbook_index file",
    "Cannot open the document",
    "Requested book is not available",
    "Syntax error in the hsbook_index file",
    "Requested topic is not available",
    "Cannot deinit the varn library",
    "Cannot send data back to the application",
    "Cannot send done back to the application",
    "Cannot kill the Dravo Help Server process",
    "Cannot read the file %s",
    kViewerLost,
    "No error",
};
constexpr int kMessageCount = sizeof kMessages / sizeof kMessages[0];
static_assert(kMessageCount == 17);

enum HelpError {
  kCannotInvoke = 0,
  kNoSettings = 2,
  kNoBook = 7,
  kCannotKill = 13,
};

// The help server's log. DRAVOHELP_LOG moves it (the help server reads the
// same variable), so that runs side by side need not share one file.
const char* HelpLogPath() {
  const char* path = gsl_getenv("DRAVOHELP_LOG");
  return path != nullptr && path[0] != '\0' ? path : kDefaultLog;
}

void DeleteHelpLog() { varn::host::LORN::unlink_utf8(varn::host::LornString(HelpLogPath())); }

void SetMessage(char* message, const char* text) {
  services::CopyCut(message, VARN_HELP_MESSAGE_SIZE, text);
}

// The status of the help server's row; a query that fails counts as DEAD.
uint32_t HelpServerStatus() {
  uint32_t status = VARN_STATUS_DEAD;
  char text[VARN_STATUS_TEXT_SIZE];
  varn_query_status(KohelpMessageHandle, &status, text);
  return status;
}

int SendInvoke() { return varn_send_msg(KohelpMessageHandle, VARN_DATA, "Invoke", 0); }

// The viewer cannot take a request now: the reason, from the help
// program's settings, goes to message.
int ViewerBusy(int* busy, char* message) {
  *busy = 1;
  GuiEnv* settings = gui_env_open(kProgram, 0);
  if (settings == nullptr) {
    VarnHelpErrorNo = kNoSettings;
    SetMessage(message, kMessages[kNoSettings]);
    return 0;
  }
  char value[256];
  if (gui_env_get(settings, "VIEWER_BUSY", value, nullptr, sizeof value, 0) && value[0] != '\0') {
    SetMessage(message, value);
  }
  gui_env_close(settings);
  return 0;
}

int SendCommand(const std::string& payload) {
  return varn_send_msg(KohelpMessageHandle, VARN_CMD, payload.data(),
                       static_cast<int64_t>(payload.size()));
}

}  // namespace

extern "C" int varn_help_invoke(void) noexcept {
  if (!core::EnterCall()) return 0;
  char* address = nullptr;
  if (varn_query_server_address(kProgram, &address)) {
    if (HelpServerStatus() != VARN_STATUS_DEAD) return SendInvoke();
    // The help server is there but its viewer is gone: a new one is started
    // with a fresh log.
    DeleteHelpLog();
  }
  // Started into a local handle: a failed start keeps the handle known.
  varnHandle started = -1;
  char error_text[VARN_STATUS_TEXT_SIZE];
  if (!varn_invoke(&started, kProgram, nullptr, nullptr, 1, error_text, nullptr)) {
    VarnHelpErrorNo = kCannotInvoke;
    return 0;
  }
  KohelpMessageHandle = started;
  return SendInvoke();
}

extern "C" int varn_help_kill(void) noexcept {
  core::OnApplicationThread();
  if (KohelpMessageHandle < 0) return 1;
  constexpr char kEnd[] = "end_dravohelp";
  varn_send_msg(KohelpMessageHandle, VARN_DATA, kEnd, sizeof kEnd - 1);
  if (!varn_kill(KohelpMessageHandle)) {
    VarnHelpErrorNo = kCannotKill;
    return 0;
  }
  KohelpMessageHandle = -1;
  return 1;
}

extern "C" int varn_help_get_handle(void) noexcept { return KohelpMessageHandle; }

extern "C" int varn_help_get_version(void) noexcept {
  if (!core::EnterCall()) return 0;
  return SendCommand("TITLE");
}

extern "C" int varn_help_open(const char* topic, const char* book, int* busy,
                              char* message) noexcept {
  if (!core::EnterCall()) return 0;
  int busy_here = 0;
  if (busy == nullptr) busy = &busy_here;
  if (topic == nullptr || topic[0] == '\0') {
    VarnHelpErrorNo = kNoBook;
    return 0;
  }
  bool any_book = book == nullptr || book[0] == '\0';
  std::string request =
      std::string(topic) + "!" + (any_book ? "NULL" : book) + (any_book ? "!1" : "!2");
  // A cut request would ask for another topic: a request that does not fit
  // its buffer is refused instead.
  if (request.size() >= kRequestSize) {
    VarnErrorNo = VARN_E_TOO_LONG;
    return 0;
  }
  *busy = 0;
  int attempts_left = kAttempts;
  for (;;) {
    uint32_t status = HelpServerStatus();
    if (status == VARN_STATUS_BUSY) return ViewerBusy(busy, message);
    if (status != VARN_STATUS_DEAD) break;
    *busy = 1;
    DeleteHelpLog();
    if (!gui_env_init()) {
      SetMessage(message, "Unable to initialize env.");
      return 0;
    }
    if (--attempts_left == 0) return 0;
    varn_help_invoke();
  }
  *busy = 0;
  if (!varn_send_msg(KohelpMessageHandle, VARN_DATA, request.data(),
                     static_cast<int64_t>(request.size()))) {
    return 0;
  }
  services::AnswerBuffer answer;
  if (!answer.ok()) {
    VarnErrorNo = VARN_E_MALLOC;
    return 0;
  }
  uint32_t category = 0;
  uint32_t length = 0;
  // A wait that fails leaves the request's fate unknown: that is a failure
  // (the reason is in VarnErrorNo), not an answer.
  if (!varn_wait(KohelpMessageHandle, &category, answer.data(), &length, VARN_DONE, 0)) return 0;
  switch (category) {
    case VARN_DONE:
      if (message != nullptr) message[0] = '\0';
      return 1;
    case VARN_DATA:
      *busy = 1;
      SetMessage(message, answer.data());
      return 1;
    case VARN_ERROR:
      *busy = 1;
      SetMessage(message, answer.data());
      return 0;
    default:
      return 1;
  }
}

extern "C" int varn_help_manual(const char* topic, int* busy, char* message) noexcept {
  return varn_help_open(topic, "Manuals", busy, message);
}

extern "C" int varn_help_open_url(const char* address) noexcept {
  if (!core::EnterCall()) return 0;
  return SendCommand(std::string("OPEN_URL ") + (address ? address : ""));
}

extern "C" int varn_help_weblinked_error(const char* text) noexcept {
  if (!core::EnterCall()) return 0;
  std::string payload = std::string("WEBLINKED_ERROR TOV") + kSeparator + "470" + kSeparator;
  return SendCommand(payload + (text ? text : ""));
}

extern "C" const char* varn_help_get_error_message(void) noexcept {
  int n = VarnHelpErrorNo;
  return n >= 0 && n < kMessageCount ? kMessages[n] : nullptr;
}

extern "C" char* varn_help_get_error_solved_message(const char* format, ...) noexcept {
  if (format == nullptr) return nullptr;
  char text[kSolvedSize];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  if (n < 0) return nullptr;
  if (static_cast<std::size_t>(n) >= sizeof text) services::CutAtCharacter(text);
  std::size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}
