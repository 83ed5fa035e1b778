// dravosess: the status server. It hands out status sessions and shows the
// warning, progress and information lines that processes send it, grouped
// by session.
//
// Requests (from any process):
//
//   CMD  "SS_NEW_STATUS_HANDLE"   a new session: DONE "SS_NEW_STATUS_HANDLE N".
//                                 Sessions are numbered 1, 2, ... in the
//                                 order they are asked for, by whoever asks,
//                                 and never reused.
//   DATA "KIND N\017TEXT1\017TEXT2\017TEXT3"
//                                 a display line for session N; KIND is
//                                 DISPLAY_WARNING__DE, DISPLAY_PROGRESS_DE or
//                                 DISPLAY_INFO_DE (\017: the byte of code 15)
//   DATA "SS_SHOW_SESSION N"      shows session N
//   DATA "MAP_TO_FRONT_ON", "MAP_TO_FRONT_OFF"
//                                 brings the status window to the front, or
//                                 lets it stay where it is
//
// Any other command is answered with ERROR "unknown command: ..."; DATA it
// does not know is shown as unrecognised. DATA is never answered.
//
// What it shows goes to standard output (under the hub: the hub's log), or
// is appended to the file named by "-o FILE" or, without that option, by
// the environment variable DRAVOSESS_OUTPUT. Every message that arrives is
// written twice: as a line for a person, and exactly as it came, with
// every byte that is not printable ASCII written as a backslash and three
// octal digits:
//
//   dravosess 4711@host: ready
//   session 1: opened for 4700@host
//     raw CMD from 4700@host: "SS_NEW_STATUS_HANDLE"
//   session 1 warning: disk nearly full | /data | 95%
//     raw DATA from 4700@host: "DISPLAY_WARNING__DE 1\017disk nearly full\017/data\01795%"
//
// A line for a session that was never opened is still shown, marked
// "(unknown session)": the line matters more than its session.
//
// With "-notify_open" it first tells the asking process, by DATA
// "SS_SESSION_OPENING N", which session it is about to open, and answers
// the request after that (a client must pass over messages it does not wait
// for while it waits for its session).
//
// The program ends when it is killed, or when the process that started it
// ends.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_text.h"
#include "varn.h"

namespace {

using varn::tools::Escape;

constexpr char kSeparator = 15;
constexpr std::string_view kNewSession = "SS_NEW_STATUS_HANDLE";
constexpr std::string_view kShow = "SS_SHOW_SESSION ";

varn::tools::LineOutput g_out;
varnHandle g_parent = -1;
bool g_notify_open = false;
int g_last_session = 0;
std::map<int, std::string> g_sessions;  // number -> the address that asked for it

std::string Sender(int h) {
  const char* address = VarnMessage[h].address;
  return address != nullptr ? address : "?";
}

void Raw(const char* word, int h, std::string_view payload) {
  g_out.Line("  raw " + std::string(word) + " from " + Sender(h) + ": \"" + Escape(payload) + "\"");
}

std::string SessionLabel(int session) {
  std::string label = "session " + std::to_string(session);
  if (g_sessions.count(session) == 0) label += " (unknown session)";
  return label;
}

void Reply(int h, int category, const std::string& text) {
  if (!varn_send_msg(h, category, text.c_str(), 0)) {
    std::fprintf(stderr, "dravosess: cannot answer %s: %s\n", Sender(h).c_str(),
                 varn_get_error_message(varn_get_error_no()));
  }
}

// A display line: "KIND N" and three texts, each after a separator.
bool ShowLine(std::string_view payload) {
  static const std::pair<std::string_view, const char*> kKinds[] = {
      {"DISPLAY_WARNING__DE ", "warning"},
      {"DISPLAY_PROGRESS_DE ", "progress"},
      {"DISPLAY_INFO_DE ", "info"},
  };
  for (const auto& [word, kind] : kKinds) {
    if (payload.substr(0, word.size()) != word) continue;
    std::string_view rest = payload.substr(word.size());
    std::size_t first = rest.find(kSeparator);
    if (first == std::string_view::npos) return false;
    std::string number(rest.substr(0, first));
    char* end = nullptr;
    long session = std::strtol(number.c_str(), &end, 10);
    if (number.empty() || *end != '\0') return false;
    std::vector<std::string_view> texts;
    rest.remove_prefix(first + 1);
    for (;;) {
      std::size_t next = rest.find(kSeparator);
      texts.push_back(rest.substr(0, next));
      if (next == std::string_view::npos) break;
      rest.remove_prefix(next + 1);
    }
    if (texts.size() != 3) return false;
    std::string shown;
    for (std::string_view t : texts) {
      if (t.empty()) continue;
      if (!shown.empty()) shown += " | ";
      shown += Escape(t);
    }
    g_out.Line(SessionLabel(static_cast<int>(session)) + " " + kind + ": " + shown);
    return true;
  }
  return false;
}

void OnData(int h, std::string_view payload) {
  if (payload == "MAP_TO_FRONT_ON") {
    g_out.Line("status window: brought to the front");
  } else if (payload == "MAP_TO_FRONT_OFF") {
    g_out.Line("status window: may stay behind");
  } else if (payload.substr(0, kShow.size()) == kShow) {
    int session = std::atoi(std::string(payload.substr(kShow.size())).c_str());
    g_out.Line(SessionLabel(session) + ": shown");
  } else if (!ShowLine(payload)) {
    g_out.Line("unrecognised DATA from " + Sender(h));
  }
  Raw("DATA", h, payload);
}

void OnCommand(int h, std::string_view payload) {
  if (payload != kNewSession) {
    Raw("CMD", h, payload);
    Reply(h, VARN_ERROR, "unknown command: " + std::string(payload));
    return;
  }
  int session = ++g_last_session;
  g_sessions[session] = Sender(h);
  g_out.Line("session " + std::to_string(session) + ": opened for " + Sender(h));
  Raw("CMD", h, payload);
  if (g_notify_open) Reply(h, VARN_DATA, "SS_SESSION_OPENING " + std::to_string(session));
  Reply(h, VARN_DONE, std::string(kNewSession) + " " + std::to_string(session));
}

void OnMessage(int h) {
  if (h < 0) return;  // the hub
  // A plain array, not a lazily built one: an INTR or KILL runs this callback
  // on the input thread while the application's thread is held, perhaps in
  // the middle of a first-use initialisation it would then wait for.
  static char buffer[1 << 20];
  uint32_t category = 0;
  uint32_t length = 0;
  if (!varn_recv_msg_len(h, &category, buffer, &length)) return;
  std::string_view payload(buffer, varn::tools::PayloadLength(buffer, length));
  switch (category) {
    case VARN_CMD:
      OnCommand(h, payload);
      break;
    case VARN_DATA:
      OnData(h, payload);
      break;
    case VARN_SRVR_ERR:
      if (h == g_parent) {
        g_out.Line("dravosess: the process that started it ended; ending too");
        varn_deinit();
      }
      break;
    default:
      break;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (!varn_init(&argc, argv, &g_parent)) {
    std::fprintf(stderr, "dravosess: %s\n", varn_get_error_message(varn_get_error_no()));
    return 1;
  }
  const char* output = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc) {
      output = argv[++i];
    } else if (std::strcmp(argv[i], "-notify_open") == 0) {
      g_notify_open = true;
    } else {
      std::fprintf(stderr,
                   "dravosess: unknown option %s (usage: dravosess [-o FILE] [-notify_open])\n",
                   argv[i]);
    }
  }
  if (!g_out.Open(output, "DRAVOSESS_OUTPUT")) {
    std::fprintf(stderr, "dravosess: cannot open the output file; writing to standard output\n");
    g_out.Open(nullptr, "");
  }
  char address[256];
  varn_query_own_address(address);
  g_out.Line(std::string("dravosess ") + address + ": ready");
  varn_set_callback(OnMessage);
  KOMainLoop();
  return 0;
}
