// A client of the service programs, run by the tests as the hub's first
// client. It runs one scenario (the first argument that is not an option)
// through the library's status, help and launcher calls, and writes what
// it sees, one line per event, to the file given with "-reportfile FILE".
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/peer_report.h"
#include "varn.h"

namespace {

using varn::test_support::g_report;
using varn::test_support::Report;
using varn::test_support::Word;

const char* Address(int h) {
  return h >= 0 && h < VARN_MAX_ENTRIES && VarnMessage[h].address ? VarnMessage[h].address : "-";
}

// Waits for the next message from h and reports it under a label.
std::string WaitFor(const char* label, int h, bool any = false) {
  uint32_t category = 0, length = 0;
  static char buffer[1 << 20];
  buffer[0] = '\0';
  int r = any ? varn_wait_for_any_from_handle(h, &category, buffer, &length, 0, 1)
              : varn_wait(h, &category, buffer, &length, 0, 1);
  Report("%s %d cat=%s text=%s", label, r, r ? Word(category) : "-", buffer);
  return buffer;
}

std::string Command(const char* label, int h, const char* command) {
  if (!varn_send_msg(h, VARN_CMD, command, 0)) {
    Report("%s send failed err=%d", label, VarnErrorNo);
    return "";
  }
  return WaitFor(label, h);
}

// How many processes of that name the hub lists.
int Listed(const char* name) {
  char* list = nullptr;
  if (!varn_query_pg_process(&list) || list == nullptr) return -1;
  std::vector<char> n(std::strlen(list) + 1), a(n.size()), p(n.size());
  char* cursor = nullptr;
  int status = 0, count = 0;
  varn_prep_query_result(list, &cursor);
  while (varn_get_query_result(&cursor, n.data(), a.data(), p.data(), &status)) {
    if (std::strcmp(n.data(), name) == 0) ++count;
  }
  return count;
}

// Whether a process of that address is listed by the hub.
bool Alive(const std::string& address) {
  char* list = nullptr;
  return varn_query_pg_process(&list) && list != nullptr &&
         std::strstr(list, (" " + address + " ").c_str()) != nullptr;
}

// A status set by a peer after its DONE is seen by a later query: asks
// until it is (each query a round trip), for at most 10 s.
bool AwaitStatus(int h, uint32_t wanted) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    uint32_t status = 99;
    char text[VARN_STATUS_TEXT_SIZE];
    if (varn_query_status(h, &status, text) && status == wanted) return true;
  }
  return false;
}

void KillByPid(int h) {
  std::string address = Address(h);
  kill(static_cast<pid_t>(std::atoi(address.c_str())), SIGKILL);
}

// ---- Status sessions ---------------------------------------------------------

int StatusSessions() {
  // Before the status server is known, neither call looks for it.
  int r = varn_status_map_to_front(1);
  Report("map before %d err=%d", r, VarnErrorNo);
  r = varn_status_show_session(1);
  Report("show before %d err=%d", r, VarnErrorNo);
  int s1 = varn_status_open_session();
  int s2 = varn_status_open_session();
  int h = varn_status_get_varnhandle();
  Report("sessions %d %d handle=%d name=%s", s1, s2, h, h >= 0 ? VarnMessage[h].name : "-");
  Report("warning %d",
         varn_status_display_de(s1, VARN_STATUS_WARNING, "disk nearly full", "/data", "95%"));
  Report("progress %d", varn_status_display_de(3, VARN_STATUS_PROGRESS, "a", nullptr, "c"));
  Report("info %d", varn_status_display_de(s2, VARN_STATUS_INFO, "done", "", nullptr));
  r = varn_status_display_de(s2, 3, "never", "sent", "");
  Report("kind3 %d err=%d", r, VarnErrorNo);
  // A line longer than its buffer is cut, never inside a character: 5806
  // bytes of line, then a character of two bytes of which only the first
  // would fit the 5807 bytes before the NUL.
  std::string long_text(5806 - std::strlen("DISPLAY_INFO_DE 2\017"), 'x');
  long_text += "\xc3\xa9 and more";
  Report("long %d", varn_status_display_de(s2, VARN_STATUS_INFO, long_text.c_str(), "", ""));
  Report("show %d", varn_status_show_session(s2));
  Report("front on %d", varn_status_map_to_front(1));
  Report("front off %d", varn_status_map_to_front(0));
  Report("same handle %d", varn_status_get_varnhandle() == h ? 1 : 0);
  Report("listed %d", Listed("dravosess"));
  // A KILL is handled as it arrives, before lines still unread: a round
  // trip first, so that every line has been shown.
  Report("sync %d", varn_status_open_session());
  Report("kill %d", varn_kill(h));
  return 0;
}

// The status server tells the client about the session before it answers:
// the client passes over that message and leaves it for later.
int StatusNotify() {
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle h = -1;
  int r = varn_invoke(&h, "dravosess", nullptr, "-notify_open", 1, refusal, nullptr);
  Report("invoke %d", r);
  int s = varn_status_open_session();
  Report("session %d handle same=%d", s, varn_status_get_varnhandle() == h ? 1 : 0);
  WaitFor("put back", h, true);
  Report("listed %d", Listed("dravosess"));
  varn_kill(h);
  return 0;
}

// A status server known under another name is found by its address in the
// hub's list; none is started.
int StatusFoundInList() {
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle h = -1;
  varn_invoke(&h, "dravosess", nullptr, nullptr, 1, refusal, nullptr);
  varn_util_strcpy(&VarnMessage[h].name, "status-server");
  int s = varn_status_open_session();
  Report("session %d handle same=%d listed=%d", s, varn_status_get_varnhandle() == h ? 1 : 0,
         Listed("dravosess"));
  varn_kill(h);
  return 0;
}

// The status server is killed; the next line starts it again.
int StatusRestart() {
  int s = varn_status_open_session();
  int h = varn_status_get_varnhandle();
  std::string first = Address(h);
  Report("session %d", s);
  Report("before %d", varn_status_display_de(s, VARN_STATUS_INFO, "before the crash", "", ""));
  // A round trip, so that the line has arrived before the server dies.
  Report("again %d", varn_status_open_session());
  KillByPid(h);
  WaitFor("notice", h);
  Report("state %u", VarnMessage[h].state);
  Report("after %d", varn_status_display_de(s, VARN_STATUS_INFO, "after the restart", "", ""));
  Report("moved %d same handle %d", first != Address(h) ? 1 : 0,
         varn_status_get_varnhandle() == h ? 1 : 0);
  Report("session after %d", varn_status_open_session());
  varn_kill(h);
  return 0;
}

// No status server can be started: the first text goes to the error stream.
int StatusMissing() {
  int s = varn_status_open_session();
  Report("session %d err=%d", s, VarnErrorNo);
  int r = varn_status_display_de(1, VARN_STATUS_WARNING, "lost line kept on stderr", "x", "y");
  Report("display %d handle=%d", r, varn_status_get_varnhandle());
  return 0;
}

// ---- Help --------------------------------------------------------------------

void ReportOpen(const char* label, int r, int busy, const char* message) {
  Report("%s %d busy=%d help=%d message=%s", label, r, busy, VarnHelpErrorNo, message);
}

int Open(const char* label, const char* topic, const char* book) {
  int busy = -1;
  char message[VARN_HELP_MESSAGE_SIZE] = "unchanged";
  int r = varn_help_open(topic, book, &busy, message);
  ReportOpen(label, r, busy, message);
  return r;
}

int HelpRequests() {
  Report("kill unknown %d", varn_help_kill());
  Report("first %d %s", VarnHelpErrorNo, varn_help_get_error_message());
  Open("empty", "", "guide");
  Report("invoke %d", varn_help_invoke());
  int h = varn_help_get_handle();
  Report("handle %d name=%s", h, h >= 0 ? VarnMessage[h].name : "-");
  Report("version %d", varn_help_get_version());
  WaitFor("title", h);
  Open("book", "intro", "guide");
  Open("any book", "intro", nullptr);
  int busy = -1;
  char message[VARN_HELP_MESSAGE_SIZE] = "unchanged";
  int r = varn_help_manual("varn", &busy, message);
  ReportOpen("manual", r, busy, message);
  Open("no topic", "nosuch", "guide");
  Open("no book", "intro", "nobook");
  Report("url %d", varn_help_open_url("https://example.org/help"));
  WaitFor("url answer", h);
  Report("weblinked %d", varn_help_weblinked_error("E42"));
  WaitFor("weblinked answer", h);
  // The viewer had been closed: it is opened for the request.
  Command("closed", h, "VIEWER closed");
  Open("reopened", "sessions", "guide");
  // A busy viewer takes no request.
  Command("busy", h, "VIEWER busy");
  Report("status busy %d", AwaitStatus(h, VARN_STATUS_BUSY) ? 1 : 0);
  Open("while busy", "intro", "guide");
  Command("ready", h, "VIEWER ready");
  // A help server whose viewer is lost is replaced by a new one.
  Command("lost", h, "VIEWER lost");
  Report("status dead %d", AwaitStatus(h, VARN_STATUS_DEAD) ? 1 : 0);
  std::string old_address = Address(h);
  Open("after loss", "status", "Manuals");
  int fresh = varn_help_get_handle();
  Report("replaced %d", fresh != h && old_address != Address(fresh) ? 1 : 0);
  r = varn_help_invoke();
  Report("invoke again %d same=%d", r, varn_help_get_handle() == fresh ? 1 : 0);
  Report("kill old %d", varn_kill(h));
  // Killed, then started anew by the next invoke.
  std::string killed = Address(fresh);
  r = varn_help_kill();
  Report("kill %d handle=%d alive=%d", r, varn_help_get_handle(), Alive(killed) ? 1 : 0);
  r = varn_help_invoke();
  Report("restart %d new=%d", r, killed != Address(varn_help_get_handle()) ? 1 : 0);
  Report("kill again %d", varn_help_kill());
  // A handle that names no process cannot be killed.
  KohelpMessageHandle = VARN_MAX_ENTRIES;
  r = varn_help_kill();
  Report("kill bad %d help=%d %s", r, VarnHelpErrorNo, varn_help_get_error_message());
  KohelpMessageHandle = -1;
  return 0;
}

int HelpBusyWithoutSettings() {
  varn_help_invoke();
  int h = varn_help_get_handle();
  Command("busy", h, "VIEWER busy");
  Report("status busy %d", AwaitStatus(h, VARN_STATUS_BUSY) ? 1 : 0);
  Open("while busy", "intro", "guide");
  Report("text %s", varn_help_get_error_message());
  varn_help_kill();
  return 0;
}

// No help server can be started.
int HelpMissing() {
  int r = varn_help_invoke();
  Report("invoke %d help=%d %s", r, VarnHelpErrorNo, varn_help_get_error_message());
  VarnHelpErrorNo = 16;
  Open("open", "intro", "guide");
  return 0;
}

int HelpMessages() {
  for (int n = -1; n <= 17; ++n) {
    VarnHelpErrorNo = n;
    const char* text = varn_help_get_error_message();
    Report("message %d %s", n, text ? text : "(null)");
  }
  char* solved = varn_help_get_error_solved_message("Cannot read the file %s", "book.idx");
  Report("solved %s", solved);
  std::free(solved);
  std::string wide(600, 'w');
  solved = varn_help_get_error_solved_message("%s", wide.c_str());
  Report("solved long %zu", std::strlen(solved));
  std::free(solved);
  return 0;
}

// ---- Launchers ---------------------------------------------------------------

int Launchers() {
  // Two calls, one instance.
  int a = varn_dftool_invoke();
  std::string a_address = Address(a);
  int b = varn_dftool_invoke();
  Report("dftool same=%d address same=%d listed=%d", a == b ? 1 : 0,
         a_address == Address(b) ? 1 : 0, Listed("velordftool"));
  Command("dftool who", a, "who");
  // An instance that exited is started again.
  int i = varn_instrument_invoke();
  std::string i_address = Address(i);
  Command("instrument quit", i, "quit");
  WaitFor("instrument notice", i);
  int j = varn_instrument_invoke();
  Report("instrument restarted %d new=%d listed=%d", j >= 0 ? 1 : 0,
         i_address != Address(j) ? 1 : 0, Listed("dravoinstrio"));
  // A display server started by another call is taken over.
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle d = -1;
  varn_invoke(&d, "dravodds", nullptr, "first", 1, refusal, nullptr);
  int dds = varn_dds_invoke();
  Report("dds adopted=%d listed=%d", dds == d ? 1 : 0, Listed("dravodds"));
  // One that reports itself dead is killed and started anew.
  std::string d_address = Address(d);
  Command("dds report", d, "report dead");
  Report("dds dead %d", AwaitStatus(d, VARN_STATUS_DEAD) ? 1 : 0);
  int dds2 = varn_dds_invoke_with_args("second run");
  Report("dds replaced new=%d old alive=%d listed=%d", d_address != Address(dds2) ? 1 : 0,
         Alive(d_address) ? 1 : 0, Listed("dravodds"));
  Command("dds args", dds2, "args");
  Report("dds kept %d", varn_dds_invoke() == dds2 ? 1 : 0);
  varn_kill(a);
  varn_kill(j);
  varn_kill(dds2);
  return 0;
}

// Which server serves datasets, as the setting says.
int Dataset() {
  int merged = varn_dataset_is_merged();
  int h = varn_dataset_invoke_with_args("-scale 2");
  Report("merged %d", merged);
  Command("dataset who", h, "who");
  Command("dataset args", h, "args");
  Report("second same=%d", varn_dataset_invoke() == h ? 1 : 0);
  if (!merged) {
    // The dataset server is not kept: once it ended, its status cannot be
    // asked and a new one is started.
    std::string address = Address(h);
    Command("dataset quit", h, "quit");
    WaitFor("dataset notice", h);
    int again = varn_dataset_invoke();
    Report("dataset restarted new=%d", address != Address(again) ? 1 : 0);
    Command("restarted args", again, "args");
    varn_kill(again);
    Report("dds listed %d", Listed("dravodds"));
  } else {
    Report("dds same=%d dss listed=%d", varn_dds_invoke() == h ? 1 : 0, Listed("dravodss"));
    varn_kill(h);
  }
  return 0;
}

// The setting is read once: a change later in the process does not count.
int MergeSetting() {
  int first = varn_dataset_is_merged();
  setenv("USE_DATASET_SERVER", first ? "Y" : "N", 1);
  Report("merged %d then %d", first, varn_dataset_is_merged());
  return 0;
}

int Scenario(const std::string& mode) {
  if (mode == "status-sessions") return StatusSessions();
  if (mode == "status-notify") return StatusNotify();
  if (mode == "status-list") return StatusFoundInList();
  if (mode == "status-restart") return StatusRestart();
  if (mode == "status-missing") return StatusMissing();
  if (mode == "help") return HelpRequests();
  if (mode == "help-busy") return HelpBusyWithoutSettings();
  if (mode == "help-missing") return HelpMissing();
  if (mode == "help-messages") return HelpMessages();
  if (mode == "launchers") return Launchers();
  if (mode == "dataset") return Dataset();
  if (mode == "merge-setting") return MergeSetting();
  Report("unknown scenario %s", mode.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  int ok = varn_init(&argc, argv, &parent);
  std::string mode;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-reportfile") == 0 && i + 1 < argc) {
      // Under the hub only the standard descriptors are inherited.
      g_report = open(argv[++i], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } else if (mode.empty() && argv[i][0] != '-') {
      mode = argv[i];
    }
  }
  if (!ok) {
    Report("init failed err=%d", VarnErrorNo);
    return 3;
  }
  int status = Scenario(mode);
  Report("end");
  varn_deinit();
  return status;
}
