// The status session client: display lines for the status server
// ("dravosess"), grouped by the sessions it hands out. Everything is an
// ordinary message to the status server's row: a CMD to open a session,
// DATA for the rest. Application's thread.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/api_entry.h"
#include "core/diag.h"
#include "services/text_buffer.h"
#include "varn.h"

namespace {

namespace core = varn::core;

constexpr const char* kProgram = "dravosess";
constexpr const char* kNewSession = "SS_NEW_STATUS_HANDLE";
constexpr std::size_t kNewSessionLength = 20;  // without the blank after it
// The display line's buffer, its NUL included.
constexpr std::size_t kLineSize = 5808;
constexpr uint32_t kAnswerLength = 5799;
constexpr char kSeparator = 15;

constexpr const char* kKindWords[] = {"DISPLAY_WARNING__DE", "DISPLAY_PROGRESS_DE",
                                      "DISPLAY_INFO_DE"};

// Set once the status server is found or started; kept for the life of the
// process. A server this process started is kept in its row when it exits
// and is started again by the next send.
varnHandle g_status_handle GUARDED_BY(core::kLibrary) = -1;

// Looks for the status server among the known rows, then in the hub's
// process list (only a process that already has a row here can be
// addressed), and starts it when neither has it.
int FindOrStart() REQUIRES(core::kLibrary) {
  if (varn_query_varn_handle_byname(&g_status_handle, kProgram)) return 1;
  char* list = nullptr;
  if (varn_query_pg_process(&list) && list != nullptr) {
    // A word of a record is never longer than the list.
    std::size_t size = std::strlen(list) + 1;
    std::vector<char> name(size), address(size), parent(size);
    char* cursor = nullptr;
    int status = 0;
    varn_prep_query_result(list, &cursor);
    while (varn_get_query_result(&cursor, name.data(), address.data(), parent.data(), &status)) {
      if (std::strcmp(name.data(), kProgram) == 0) {
        varn_query_varn_handle(&g_status_handle, address.data());
        break;
      }
    }
    if (g_status_handle != -1) return 1;
  }
  // Started into a local handle: a failed start leaves the status handle
  // unset, so that a later call tries again.
  varnHandle started = -1;
  char error_text[VARN_STATUS_TEXT_SIZE];
  if (varn_invoke(&started, kProgram, nullptr, nullptr, 1, error_text, nullptr)) {
    g_status_handle = started;
    return 1;
  }
  core::Diag("varn_invoke() failed. %d\n", VarnErrorNo);
  return 0;
}

bool EndsTheWait(uint32_t category) {
  return category == VARN_KILL || category == VARN_INTR || category == VARN_DONE ||
         category == VARN_ERROR || category == VARN_SRVR_ERR;
}

int SendText(const char* text) REQUIRES(core::kLibrary) {
  return varn_send_msg(g_status_handle, VARN_DATA, text, 0);
}

}  // namespace

extern "C" int varn_status_open_session(void) noexcept {
  if (!core::EnterCall()) return 0;
  if (g_status_handle == -1 && !FindOrStart()) return 0;
  if (!varn_send_msg(g_status_handle, VARN_CMD, kNewSession, 0)) return 0;
  // Whatever else the status server sends meanwhile is put back for the
  // calls that expect it; the wait passes over what it put back.
  varn::services::AnswerBuffer buffer;
  if (!buffer.ok()) {
    VarnErrorNo = VARN_E_MALLOC;
    return 0;
  }
  uint32_t category = 0;
  for (;;) {
    uint32_t length = kAnswerLength;
    category = 0;
    if (!varn_wait(g_status_handle, &category, buffer.data(), &length, VARN_DONE, 1)) break;
    // Not produced by this library's waits (a wait that succeeds names a
    // category); kept as the protocol has it.
    if (category == 0) return 1;
    if (EndsTheWait(category)) break;
    if (!varn_put_msg_in_queue(g_status_handle, static_cast<int>(category), buffer.data(),
                               length)) {
      break;
    }
  }
  if (category != VARN_DONE || std::strncmp(buffer.data(), kNewSession, kNewSessionLength) != 0 ||
      buffer.data()[kNewSessionLength] != ' ') {
    return 0;
  }
  return static_cast<int>(std::strtol(buffer.data() + kNewSessionLength + 1, nullptr, 10));
}

extern "C" int varn_status_display_de(uint32_t session, uint32_t kind, const char* text1,
                                      const char* text2, const char* text3) noexcept {
  core::OnApplicationThread();
  // Without a hub no server can be found: the text is not lost either.
  bool entered = core::EnterCall();
  if (g_status_handle == -1 && (!entered || !FindOrStart())) {
    if (text1 != nullptr) core::Diag("%s\n", text1);
    return 0;
  }
  if (!entered) return 0;
  if (kind > 2) {
    VarnErrorNo = VARN_E_SEND_UNKNOWN;
    return 0;
  }
  // A line too long for the buffer is cut at its end (never inside a
  // character of several bytes), so that as much as fits is shown.
  char line[kLineSize];
  int n = std::snprintf(line, sizeof line, "%s %d%c%s%c%s%c%s", kKindWords[kind],
                        static_cast<int>(session), kSeparator, text1 ? text1 : "", kSeparator,
                        text2 ? text2 : "", kSeparator, text3 ? text3 : "");
  if (n < 0) return 0;
  if (static_cast<std::size_t>(n) >= sizeof line) varn::services::CutAtCharacter(line);
  return SendText(line);
}

extern "C" int varn_status_show_session(uint32_t session) noexcept {
  core::OnApplicationThread();
  char text[32];
  std::snprintf(text, sizeof text, "SS_SHOW_SESSION %d", static_cast<int>(session));
  return SendText(text);
}

extern "C" int varn_status_get_varnhandle(void) noexcept {
  core::OnApplicationThread();
  if (g_status_handle == -1 && core::EnterCall()) FindOrStart();
  return g_status_handle;
}

int varn_status_map_to_front(int on) noexcept {
  core::OnApplicationThread();
  return SendText(on != 0 ? "MAP_TO_FRONT_ON" : "MAP_TO_FRONT_OFF");
}
