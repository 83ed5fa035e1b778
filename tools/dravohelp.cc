// dravohelp: the help server. It drives the help viewer, which shows topics
// of the help books, web pages and the pages of web-linked errors. Here the
// viewer is simulated: what it would show is written to the help log.
//
// Requests, and what the server answers (the texts of errors are those of
// the help message table):
//
//   DATA "Invoke"            opens the viewer (brings it up when it is
//                            closed); no answer
//   DATA "end_dravohelp"     closes the viewer; no answer. The process
//                            itself ends with the KILL that the client
//                            sends after it.
//   DATA "TOPIC!BOOK!2"      shows TOPIC of BOOK;
//   DATA "TOPIC!NULL!1"      shows TOPIC of the first book that has it.
//                            Answers: DONE "" when it is shown; DATA with a
//                            notice when the viewer had to be opened first
//                            ("The help viewer was opened to show ...") or
//                            is busy (the topic is shown once it is free);
//                            ERROR "Requested book is not available",
//                            "Requested topic is not available", "Cannot
//                            open the document" (a malformed request) or,
//                            when the viewer is lost, "Cannot find Viewer
//                            process. ...".
//   CMD  "TITLE"             DONE "Dravo Help Server VERSION"
//   CMD  "OPEN_URL ADDRESS"  shows the web page; DONE "", or ERROR "Cannot
//                            open the document" for an empty address
//   CMD  "WEBLINKED_ERROR DOMAIN\017NUMBER\017TEXT"
//                            shows the page of the error; DONE "", or ERROR
//                            "Cannot open the document" when a field is
//                            missing (\017: the byte of code 15)
//   CMD  "VIEWER STATE"      sets the simulated viewer's state, for trying
//                            the client's paths out: "ready", "closed",
//                            "busy" or "lost". DONE "viewer STATE".
//
// Status queries tell the viewer's state: IDLE while it is ready or closed,
// BUSY "viewer busy" while it is busy, DEAD with the text "Cannot find
// Viewer process. ..." while it is lost. A state set by a command holds
// from the moment after the command's DONE. Topics asked for while the
// viewer is busy are shown when it becomes ready.
//
// Books: "Manuals" (topics intro, varn, quon, status, help) and "guide"
// (intro, sessions, launchers).
//
// Every request is recorded in the help log, the file named by the
// environment variable DRAVOHELP_LOG, else "/tmp/dravohelp.log" (appended
// to, and opened anew for every line: a client deletes the log before it
// starts a new help server), with the request exactly as it came (bytes
// that are not printable ASCII as a backslash and three octal digits) and
// what was answered. The same lines go to standard output (under the hub:
// the hub's log):
//
//   dravohelp 4711@host: started
//   request DATA "Invoke" from 4700@host
//   viewer: opened
//   request DATA "intro!Manuals!2" from 4700@host
//   viewer: showing Manuals/intro: Introduction to the environment
//   answer DONE ""
//
// The program ends when it is killed, or when the process that started it
// ends.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_text.h"
#include "varn.h"

#ifndef VARN_VERSION
#define VARN_VERSION "0"
#endif

namespace {

using varn::tools::Escape;

constexpr char kSeparator = 15;
constexpr const char* kCannotOpen = "Cannot open the document";
constexpr const char* kNoBook = "Requested book is not available";
constexpr const char* kNoTopic = "Requested topic is not available";
constexpr const char* kViewerLost =
    "Cannot find Viewer process.  This could be because the process is not running or the "
    "program fails to attach to the running viewer process.";

struct Topic {
  const char* book;
  const char* topic;
  const char* title;
};

constexpr Topic kTopics[] = {
    {"Manuals", "intro", "Introduction to the environment"},
    {"Manuals", "varn", "The Varn message library"},
    {"Manuals", "quon", "Quon, the hub"},
    {"Manuals", "status", "Status sessions"},
    {"Manuals", "help", "Using the help viewer"},
    {"guide", "intro", "Getting started"},
    {"guide", "sessions", "Working with status sessions"},
    {"guide", "launchers", "Shared tool programs"},
};

enum class Viewer { kReady, kClosed, kBusy, kLost };

varnHandle g_parent = -1;
Viewer g_viewer = Viewer::kClosed;
std::vector<const Topic*> g_pending;  // asked for while the viewer was busy

void Log(const std::string& line) {
  const char* path = std::getenv("DRAVOHELP_LOG");
  if (path == nullptr || path[0] == '\0') path = "/tmp/dravohelp.log";
  if (std::FILE* f = std::fopen(path, "a")) {
    std::fprintf(f, "%s\n", line.c_str());
    std::fclose(f);
  }
  std::printf("dravohelp: %s\n", line.c_str());
  std::fflush(stdout);
}

std::string Sender(int h) {
  const char* address = VarnMessage[h].address;
  return address != nullptr ? address : "?";
}

// The status that status queries report, from the viewer's state.
void ReportViewer() {
  switch (g_viewer) {
    case Viewer::kBusy:
      varn_set_status(VARN_STATUS_BUSY, "viewer busy");
      break;
    case Viewer::kLost:
      varn_set_status(VARN_STATUS_DEAD, kViewerLost);
      break;
    default:
      varn_set_status(VARN_STATUS_IDLE, "");
      break;
  }
}

void Answer(int h, int category, const std::string& text) {
  char word[16] = "?";
  varn_util_int_to_category(category, word);
  Log(std::string("answer ") + word + " \"" + Escape(text) + "\"");
  if (!varn_send_msg(h, category, text.c_str(), static_cast<int64_t>(text.size()))) {
    Log(std::string("cannot answer: ") + varn_get_error_message(varn_get_error_no()));
  }
}

void Show(const Topic* t) {
  Log(std::string("viewer: showing ") + t->book + "/" + t->topic + ": " + t->title);
}

void SetViewer(Viewer v) {
  g_viewer = v;
  if (v != Viewer::kReady) return;
  for (const Topic* t : g_pending) Show(t);
  g_pending.clear();
}

const Topic* Find(std::string_view topic, const std::string* book, bool* book_known) {
  *book_known = book == nullptr;
  for (const Topic& t : kTopics) {
    if (book != nullptr && *book != t.book) continue;
    *book_known = true;
    if (topic == t.topic) return &t;
  }
  return nullptr;
}

// "TOPIC!BOOK!2" or "TOPIC!NULL!1".
void OpenTopic(int h, std::string_view request) {
  std::size_t last = request.rfind('!');
  std::size_t middle = last == std::string_view::npos || last == 0 ? std::string_view::npos
                                                                   : request.rfind('!', last - 1);
  if (middle == std::string_view::npos || middle == 0) {
    Answer(h, VARN_ERROR, kCannotOpen);
    return;
  }
  std::string_view topic = request.substr(0, middle);
  std::string book(request.substr(middle + 1, last - middle - 1));
  std::string_view mode = request.substr(last + 1);
  if ((mode != "1" && mode != "2") || (mode == "1" && book != "NULL")) {
    Answer(h, VARN_ERROR, kCannotOpen);
    return;
  }
  if (g_viewer == Viewer::kLost) {
    Answer(h, VARN_ERROR, kViewerLost);
    return;
  }
  bool book_known = false;
  const Topic* found = Find(topic, mode == "2" ? &book : nullptr, &book_known);
  if (!book_known) {
    Answer(h, VARN_ERROR, kNoBook);
    return;
  }
  if (found == nullptr) {
    Answer(h, VARN_ERROR, kNoTopic);
    return;
  }
  std::string where = std::string(found->book) + "/" + found->topic;
  if (g_viewer == Viewer::kBusy) {
    g_pending.push_back(found);
    Log("viewer: busy; " + where + " waits");
    Answer(h, VARN_DATA, "The help viewer is busy; " + where + " will be shown when it is free");
    return;
  }
  bool opened_now = g_viewer == Viewer::kClosed;
  if (opened_now) {
    SetViewer(Viewer::kReady);
    Log("viewer: opened");
  }
  Show(found);
  Answer(h, opened_now ? VARN_DATA : VARN_DONE,
         opened_now ? "The help viewer was opened to show " + where : "");
}

void OnData(int h, std::string_view payload) {
  if (payload == "Invoke") {
    if (g_viewer == Viewer::kClosed) {
      SetViewer(Viewer::kReady);
      Log("viewer: opened");
    }
  } else if (payload == "end_dravohelp") {
    g_pending.clear();
    if (g_viewer != Viewer::kLost) g_viewer = Viewer::kClosed;
    Log("viewer: closed; waiting for the end");
  } else {
    OpenTopic(h, payload);
  }
}

void OnCommand(int h, std::string_view payload) {
  constexpr std::string_view kUrl = "OPEN_URL ";
  constexpr std::string_view kWeb = "WEBLINKED_ERROR ";
  constexpr std::string_view kViewer = "VIEWER ";
  if (payload == "TITLE") {
    Answer(h, VARN_DONE, "Dravo Help Server " VARN_VERSION);
  } else if (payload.substr(0, kUrl.size()) == kUrl) {
    std::string_view address = payload.substr(kUrl.size());
    if (address.empty()) {
      Answer(h, VARN_ERROR, kCannotOpen);
    } else if (g_viewer == Viewer::kLost) {
      Answer(h, VARN_ERROR, kViewerLost);
    } else {
      Log("viewer: showing the web page " + Escape(address));
      Answer(h, VARN_DONE, "");
    }
  } else if (payload.substr(0, kWeb.size()) == kWeb) {
    std::string_view rest = payload.substr(kWeb.size());
    std::size_t a = rest.find(kSeparator);
    std::size_t b = a == std::string_view::npos ? a : rest.find(kSeparator, a + 1);
    if (b == std::string_view::npos || a == 0 || b == a + 1) {
      Answer(h, VARN_ERROR, kCannotOpen);
    } else if (g_viewer == Viewer::kLost) {
      Answer(h, VARN_ERROR, kViewerLost);
    } else {
      Log("viewer: showing the page of error " + Escape(rest.substr(0, a)) + "-" +
          Escape(rest.substr(a + 1, b - a - 1)) + ": " + Escape(rest.substr(b + 1)));
      Answer(h, VARN_DONE, "");
    }
  } else if (payload.substr(0, kViewer.size()) == kViewer) {
    std::string_view state = payload.substr(kViewer.size());
    Viewer v;
    if (state == "ready") {
      v = Viewer::kReady;
    } else if (state == "closed") {
      v = Viewer::kClosed;
    } else if (state == "busy") {
      v = Viewer::kBusy;
    } else if (state == "lost") {
      v = Viewer::kLost;
    } else {
      Answer(h, VARN_ERROR, "viewer states: ready, closed, busy, lost");
      return;
    }
    SetViewer(v);
    Log("viewer: " + std::string(state));
    Answer(h, VARN_DONE, "viewer " + std::string(state));
  } else {
    Answer(h, VARN_ERROR, "unknown request: " + std::string(payload));
  }
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
  if (category == VARN_SRVR_ERR) {
    if (h == g_parent) {
      Log("the process that started it ended; ending too");
      varn_deinit();
    }
    return;
  }
  if (category != VARN_CMD && category != VARN_DATA) return;
  Log(std::string("request ") + (category == VARN_CMD ? "CMD" : "DATA") + " \"" + Escape(payload) +
      "\" from " + Sender(h));
  if (category == VARN_CMD) {
    OnCommand(h, payload);
  } else {
    OnData(h, payload);
  }
  // A DONE or ERROR has just reported the process idle: the viewer's state
  // is reported again.
  ReportViewer();
}

}  // namespace

int main(int argc, char** argv) {
  if (!varn_init(&argc, argv, &g_parent)) {
    std::fprintf(stderr, "dravohelp: %s\n", varn_get_error_message(varn_get_error_no()));
    return 1;
  }
  char address[256];
  varn_query_own_address(address);
  Log(std::string("dravohelp ") + address + ": started");
  varn_set_callback(OnMessage);
  KOMainLoop();
  return 0;
}
