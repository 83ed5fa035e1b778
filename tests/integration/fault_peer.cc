// The program of the fault matrix tests, linked to libvarn and started
// under the real hub. One program, three roles (first argument after the
// library's options):
//
//   client MOMENT RECORDS [pinger] [close]
//       The hub's first client. Starts a server (and, with "pinger", a
//       pinger) through the hub, sends the server a CMD and waits for the
//       answer with the library's ordinary calls: the acknowledgement wait
//       of varn_send_msg, varn_wait, and varn_recv_data for a stream.
//       Reports every result, every record and every callback. "close" is
//       passed on to the server.
//   server MOMENT RECORDS [close]
//       Stops at MOMENT (before-ack, after-ack or mid-stream) and does
//       nothing until SIGUSR1 comes: its own code is busy, the library is
//       not called, so the test can kill, stop or cut it off there. With
//       "close" it then closes its descriptors to the hub and stays alive
//       until a second SIGUSR1; otherwise it goes on with the exchange
//       (DONE, or the rest of the stream, its END and DONE) and serves
//       until it is killed.
//   pinger
//       Sends its parent (the client) an INTR for every SIGUSR1.
//
// Each line goes to the file or FIFO named by -reportfile, prefixed with
// the role. Every blocking step of the program's own has a bound.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/peer_report.h"
#include "varn.h"

namespace {

using varn::test_support::g_report;
using varn::test_support::Report;

// The word of a category, or its number, kept on the stack: the callback
// uses it too, and must not allocate while the application's thread is
// held. The library's lookup sets VarnErrorNo for a code without
// a word (NONE among them); the error a program reports must stay the one
// its call left.
struct Word {
  explicit Word(uint32_t code) {
    int saved = VarnErrorNo;
    if (!varn_util_int_to_category(static_cast<int>(code), text)) {
      std::snprintf(text, sizeof text, "%u", code);
    }
    VarnErrorNo = saved;
  }
  const char* c_str() const { return text; }
  char text[32];
};

constexpr char kProgram[] = "varn_test_fault_peer";
// How long a stopped server or an idle pinger waits for the test before it
// gives up: far beyond any test's own bound.
constexpr int kReleaseBoundSeconds = 120;

// The channel to the hub as the hub passed it (read before varn_init takes
// the options away): -quon_quonin/-quon_quonout in hexadecimal, or
// -quon_sockfd in decimal.
int g_channel_in = -1;
int g_channel_out = -1;
bool g_channel_socket = false;

void NoteChannel(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "-quon_quonin") == 0) {
      g_channel_in = static_cast<int>(std::strtol(argv[i + 1], nullptr, 16));
    } else if (std::strcmp(argv[i], "-quon_quonout") == 0) {
      g_channel_out = static_cast<int>(std::strtol(argv[i + 1], nullptr, 16));
    } else if (std::strcmp(argv[i], "-quon_sockfd") == 0) {
      g_channel_in = static_cast<int>(std::strtol(argv[i + 1], nullptr, 10));
      g_channel_socket = true;
    }
  }
}

// Waits for SIGUSR1 (blocked in every thread since main started) for at
// most kReleaseBoundSeconds. The library's hold signal may cut the wait
// short; it goes on for the rest of the time.
bool AwaitRelease() {
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const time_t until = now.tv_sec + kReleaseBoundSeconds;
  for (;;) {
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec >= until) return false;
    timespec left{until - now.tv_sec, 0};
    if (sigtimedwait(&usr1, nullptr, &left) == SIGUSR1) return true;
    if (errno != EINTR && errno != EAGAIN) return false;
  }
}

std::string OwnAddress() {
  char own[512] = "";
  varn_query_own_address(own);
  return own;
}

const char* ErrorText() { return varn_get_error_message(VarnErrorNo); }

// ---- server -----------------------------------------------------------------

struct ServerPlan {
  std::string moment;
  int records = 0;
  bool close_channel = false;
};

// Cuts the process off from the hub, alive: both ends of the channel go.
// Nothing of the library is called afterwards, and the process ends
// without its exit notice. The library's input thread waits on the socket
// and so keeps it open after a mere close: the connection is shut down
// first. Closing a descriptor that the input thread reads is the fault
// itself; the thread sanitizer's report of it is suppressed below.
__attribute__((noinline)) void CutChannel() {
  if (g_channel_socket) shutdown(g_channel_in, SHUT_RDWR);
  if (g_channel_in >= 0) close(g_channel_in);
  if (g_channel_out >= 0 && g_channel_out != g_channel_in) close(g_channel_out);
}

// The server's stop: nothing happens here until the test sends SIGUSR1.
void StopHere(const ServerPlan& plan) {
  Report("server: stopped %s", plan.moment.c_str());
  if (!AwaitRelease()) {
    Report("server: never released");
    _exit(3);
  }
  if (!plan.close_channel) {
    Report("server: released %s", plan.moment.c_str());
    return;
  }
  CutChannel();
  Report("server: closed %s", plan.moment.c_str());
  bool released = AwaitRelease();
  Report("server: ends");
  _exit(released ? 0 : 3);
}

void SendRecords(int client, int from, int to) {
  for (int i = from; i <= to; ++i) {
    std::string record = "row " + std::to_string(i);
    if (!varn_send_msg(client, VARN_DATA, record.c_str(), 0)) {
      Report("server: data %d failed err=%d", i, VarnErrorNo);
    }
  }
}

int Server(const ServerPlan& plan) {
  const int client = 0;  // the parent's row
  Report("server: ready pid=%d address=%s", static_cast<int>(getpid()), OwnAddress().c_str());
  if (plan.moment == "before-ack") StopHere(plan);
  uint32_t category = 0, length = 0;
  static char command[VARN_STATUS_TEXT_SIZE];
  int r = varn_wait(client, &category, command, &length, 0, 1);
  Report("server: got r=%d cat=%s text=%s", r, r ? Word(category).c_str() : "-", r ? command : "");
  if (!r || category != VARN_CMD) return 1;
  if (plan.moment == "after-ack") StopHere(plan);
  if (plan.moment == "mid-stream") {
    r = varn_send_msg(client, VARN_BEGIN, "rows", 0);
    Report("server: begin r=%d err=%d", r, VarnErrorNo);
    SendRecords(client, 1, plan.records);
    // The records so far go out now; the rest of the batch waits for END.
    r = varnP_data_batch_flush();
    Report("server: flushed r=%d", r);
    StopHere(plan);
    SendRecords(client, plan.records + 1, 2 * plan.records);
    r = varn_send_msg(client, VARN_END, "end", 0);
    Report("server: end r=%d err=%d", r, VarnErrorNo);
  }
  r = varn_send_msg(client, VARN_DONE, "done", 0);
  Report("server: done r=%d err=%d", r, VarnErrorNo);
  // Serves until the client's KILL ends the process.
  KOMainLoop();
  return 0;
}

// ---- pinger -----------------------------------------------------------------

int Pinger() {
  Report("pinger: ready pid=%d", static_cast<int>(getpid()));
  while (AwaitRelease()) {
    int r = varn_send_msg(0, VARN_INTR, "ping", 0);
    Report("pinger: sent r=%d err=%d", r, VarnErrorNo);
  }
  return 0;
}

// ---- client -----------------------------------------------------------------

// The callback sees what does not answer a wait: interrupts from the
// pinger, the hub's KILL. It runs on the library's input thread while the
// application's thread is held, so it only formats and writes.
void ClientCallback(int h) {
  if (h < 0) {
    Report("client: callback quon");
    return;
  }
  Report("client: callback %s", Word(VarnMessage[h].last_category).c_str());
}

void ReportWait(const char* what, int h, uint32_t* category) {
  uint32_t length = 0;
  static char buffer[VARN_STATUS_TEXT_SIZE];
  buffer[0] = '\0';
  *category = 0;
  int r = varn_wait(h, category, buffer, &length, 0, 1);
  int err = VarnErrorNo;
  Report("client: %s r=%d err=%d cat=%s text=%s msg=%s", what, r, err,
         r ? Word(*category).c_str() : "-", r ? buffer : "", ErrorText());
  if (!r) *category = 0;
}

// Reads the stream to its END. False when a read failed.
bool ReportStream(int h) {
  for (;;) {
    uint32_t category = 0, length = 0;
    static char buffer[65536];
    int r = varn_recv_data(h, &category, buffer, sizeof buffer, &length);
    if (!r) {
      int err = VarnErrorNo;
      Report("client: data r=0 err=%d cat=%s msg=%s", err, Word(category).c_str(), ErrorText());
      return false;
    }
    if (category == VARN_END) {
      Report("client: end %s", buffer);
      return true;
    }
    Report("client: record %.*s", static_cast<int>(length), buffer);
  }
}

// After a failure: the next wait on the same peer must end at once too.
void ReportAfter(int h) {
  uint32_t category = 0, length = 0;
  char buffer[256] = "";
  int r = varn_wait(h, &category, buffer, &length, 0, 1);
  int err = VarnErrorNo;
  Report("client: after r=%d err=%d cat=%s msg=%s", r, err, r ? Word(category).c_str() : "-",
         ErrorText());
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

int Client(const std::string& moment, int records, bool pinger, bool close_channel,
           const std::string& report_path) {
  varn_set_callback(ClientCallback);
  Report("client: ready pid=%d address=%s", static_cast<int>(getpid()), OwnAddress().c_str());
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle ping = -1;
  if (pinger) {
    std::string args = "pinger -reportfile " + Quoted(report_path);
    int r = varn_invoke(&ping, kProgram, nullptr, args.c_str(), 0, refusal, nullptr);
    Report("client: pinger r=%d err=%d address=%s", r, VarnErrorNo,
           r ? VarnMessage[ping].address : refusal);
    if (!r) return 1;
  }
  std::string args = "server " + moment + " " + std::to_string(records) +
                     (close_channel ? " close" : "") + " -reportfile " + Quoted(report_path);
  varnHandle server = -1;
  int r = varn_invoke(&server, kProgram, nullptr, args.c_str(), 0, refusal, nullptr);
  Report("client: server r=%d err=%d address=%s", r, VarnErrorNo,
         r ? VarnMessage[server].address : refusal);
  if (!r) return 1;

  Report("client: sending CMD");
  r = varn_send_msg(server, VARN_CMD, "run", 0);
  int err = VarnErrorNo;
  Report("client: send r=%d err=%d msg=%s", r, err, ErrorText());
  if (!r) {
    ReportAfter(server);
    return 0;
  }
  uint32_t category = 0;
  if (moment == "mid-stream") {
    ReportWait("begin", server, &category);
    if (category != VARN_BEGIN) {
      ReportAfter(server);
      return 0;
    }
    if (!ReportStream(server)) {
      ReportAfter(server);
      return 0;
    }
  }
  Report("client: waiting");
  ReportWait("wait", server, &category);
  if (category != VARN_DONE) {
    ReportAfter(server);
    return 0;
  }
  // A clean ending: both helpers go.
  r = varn_kill(server);
  int k = ping >= 0 ? varn_kill(ping) : 1;
  Report("client: killed r=%d %d err=%d", r, k, VarnErrorNo);
  return 0;
}

}  // namespace

// Read by the thread sanitizer at start (unused in other builds): the
// deliberate close of the channel races, by design, with the input thread's
// last read of it.
extern "C" const char* __tsan_default_suppressions() { return "race:CutChannel\n"; }

int main(int argc, char** argv) {
  // SIGUSR1 is taken with sigtimedwait only: blocked before the library
  // starts its threads, so that they inherit the mask.
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
  NoteChannel(argc, argv);

  varnHandle parent = -1;
  int ok = varn_init(&argc, argv, &parent);
  std::string report_path;
  std::string words[5];
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-reportfile") == 0 && i + 1 < argc) {
      report_path = argv[++i];
      // Under the hub only the standard descriptors are inherited.
      g_report = open(report_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    } else if (count < 5) {
      words[count++] = argv[i];
    }
  }
  if (!ok) {
    Report("%s: init failed err=%d", words[0].c_str(), VarnErrorNo);
    return 3;
  }
  auto has = [&](const char* flag) {
    for (int i = 3; i < count; ++i) {
      if (words[i] == flag) return true;
    }
    return false;
  };
  int status = 2;
  if (words[0] == "client" && count >= 3) {
    status =
        Client(words[1], std::atoi(words[2].c_str()), has("pinger"), has("close"), report_path);
  } else if (words[0] == "server" && count >= 3) {
    status = Server({words[1], std::atoi(words[2].c_str()), has("close")});
  } else if (words[0] == "pinger") {
    status = Pinger();
  } else {
    Report("unknown role %s", words[0].c_str());
  }
  varn_deinit();
  return status;
}
