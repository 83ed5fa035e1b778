// The program of the link tests, run under the real hub.
//
//   link_peer -reportfile F client   the hub's first client: starts servers
//       and checks that every exchange with them keeps its order while the
//       hub links them, one report line per check
//   link_peer server                 serves the commands below
//
// Server commands: "echo X" (DONE X); "count N" (BEGIN, N DATA records "1"
// .. "N", END, then DONE); "until-intr" (busy until an INTR, then ERROR
// "cancelled"); "bye" (DONE "bye", then ends at once without an exit
// notice of its own).
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/peer_report.h"
#include "varn.h"

namespace {

using varn::test_support::g_report;
using varn::test_support::Report;
using varn::test_support::Word;

std::atomic<bool> g_interrupted{false};

void ServerCallback(int h) {
  char text[VARN_STATUS_TEXT_SIZE];
  if (!varn::test_support::TakeCommand(h, &g_interrupted, text)) return;
  if (std::strncmp(text, "echo ", 5) == 0) {
    varn_send_msg(h, VARN_DONE, text + 5, 0);
  } else if (std::strncmp(text, "count ", 6) == 0) {
    int n = std::atoi(text + 6);
    varn_send_msg(h, VARN_BEGIN, "count", 0);
    for (int i = 1; i <= n; ++i) varn_send_msg(h, VARN_DATA, std::to_string(i).c_str(), 0);
    varn_send_msg(h, VARN_END, "end", 0);
    varn_send_msg(h, VARN_DONE, "counted", 0);
  } else if (std::strcmp(text, "until-intr") == 0) {
    g_interrupted = false;
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!g_interrupted.load() && std::chrono::steady_clock::now() < until) {
    }
    varn_send_msg(h, VARN_ERROR, g_interrupted ? "cancelled" : "never interrupted", 0);
  } else if (std::strcmp(text, "bye") == 0) {
    varn_send_msg(h, VARN_DONE, "bye", 0);
    _exit(0);  // the hub tells of the end
  }
}

int StartServer() {
  varnHandle h = -1;
  char refusal[VARN_STATUS_TEXT_SIZE] = "";
  if (!varn_invoke(&h, "varn_link_peer", nullptr, "server", 0, refusal, nullptr)) {
    Report("server not started err=%d %s", VarnErrorNo, refusal);
    std::exit(3);
  }
  return h;
}

// Waits for the next message from h; its category and text.
std::string Next(int h, uint32_t* category) {
  static char buffer[65536];
  uint32_t length = 0;
  buffer[0] = '\0';
  if (!varn_wait(h, category, buffer, &length, 0, 1)) {
    Report("wait failed err=%d", VarnErrorNo);
    *category = 0;
    return "";
  }
  return buffer;
}

// n echo round trips; reports the first answer out of order.
void Echoes(const char* name, int h, int n) {
  for (int i = 1; i <= n; ++i) {
    std::string command = "echo " + std::to_string(i);
    uint32_t category = 0;
    if (!varn_send_msg(h, VARN_CMD, command.c_str(), 0)) {
      Report("%s send %d failed err=%d", name, i, VarnErrorNo);
      return;
    }
    std::string text = Next(h, &category);
    if (category != VARN_DONE || text != std::to_string(i)) {
      Report("%s answer %d was %s %s", name, i, Word(category), text.c_str());
      return;
    }
  }
  Report("%s %d in order", name, n);
}

// A stream of n records; reports the first one out of order.
void Count(const char* name, int h, int n) {
  std::string command = "count " + std::to_string(n);
  uint32_t category = 0;
  if (!varn_send_msg(h, VARN_CMD, command.c_str(), 0)) {
    Report("%s send failed err=%d", name, VarnErrorNo);
    return;
  }
  if (Next(h, &category); category != VARN_BEGIN) {
    Report("%s began with %s", name, Word(category));
    return;
  }
  for (int i = 1;; ++i) {
    static char record[256];
    uint32_t length = 0;
    if (!varn_recv_data(h, &category, record, sizeof record, &length)) {
      Report("%s record %d failed err=%d", name, i, VarnErrorNo);
      return;
    }
    if (category == VARN_END) {
      if (i != n + 1) Report("%s ended after %d records", name, i - 1);
      break;
    }
    if (std::string(record, length) != std::to_string(i)) {
      Report("%s record %d was %.*s", name, i, static_cast<int>(length), record);
      return;
    }
  }
  std::string text = Next(h, &category);
  Report("%s %d in order, then %s %s", name, n, Word(category), text.c_str());
}

int Client() {
  // The first exchanges of a pair cross the hub; the link comes up during
  // them, so each check spans the switch.
  int a = StartServer();
  Echoes("echo", a, 200);
  int b = StartServer();
  Count("stream", b, 20000);  // its first command: the switch comes mid-stream
  Count("stream again", b, 1000);

  // An interrupt on the link reaches a server busy in its own code.
  uint32_t category = 0;
  if (!varn_send_msg(a, VARN_CMD, "until-intr", 0)) Report("until-intr failed");
  if (!varn_send_msg(a, VARN_INTR, "stop", 0)) Report("intr failed");
  std::string text = Next(a, &category);
  Report("interrupted %s %s", Word(category), text.c_str());

  // The last answer of a server that ends at once comes before the notice
  // of its end, which the hub sends.
  int c = StartServer();
  Echoes("before bye", c, 3);
  if (!varn_send_msg(c, VARN_CMD, "bye", 0)) Report("bye failed err=%d", VarnErrorNo);
  text = Next(c, &category);
  std::string then = Next(c, &category);
  Report("bye answer %s, then %s %s", text.c_str(), Word(category), then.c_str());

  varn_kill(a);
  varn_kill(b);
  Report("client done");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) return 2;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "-reportfile") == 0) {
      g_report = open(argv[i + 1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    }
  }
  std::string mode = argc > 1 ? argv[argc - 1] : "";
  if (mode == "server") {
    varn_set_callback(ServerCallback);
    KOMainLoop();
    return 0;
  }
  if (mode != "client") return 2;
  int status = Client();
  varn_deinit();
  return status;
}
