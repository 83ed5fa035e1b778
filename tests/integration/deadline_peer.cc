// The programs of the deadline tests, run under the real hub.
//
//   deadline_peer -reportfile F client        the hub's first client: starts a
//       server and runs the waits with deadlines against it, one report line
//       per call: "NAME r=R err=E cat=WORD text=TEXT detail=DETAIL ms=MS"
//   deadline_peer -reportfile F hub-loss      the same, but the hub is killed
//       (SIGKILL, from a timer in this program) during the wait
//   deadline_peer server                      serves the commands below
//
// Server commands: "spin N" (busy N ms in its own code, status "spinning",
// then DONE "spun"); "echo X" (DONE X); "until-intr" (busy until an INTR,
// then ERROR "cancelled"); "stop-me" (stops itself with SIGSTOP after the
// ACK, then DONE "resumed"); "interrupt-me" (INTR to the client, then DONE
// "after the interrupt"); "exit N" (ends without an answer).
#include <fcntl.h>
#include <signal.h>
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

void BusyFor(int ms, bool until_interrupted) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < until) {
    if (until_interrupted && g_interrupted.load()) return;
  }
}

void ServerCallback(int h) {
  char text[VARN_STATUS_TEXT_SIZE];
  if (!varn::test_support::TakeCommand(h, &g_interrupted, text)) return;
  if (std::strncmp(text, "spin ", 5) == 0) {
    varn_set_status(VARN_STATUS_BUSY, "spinning");
    BusyFor(std::atoi(text + 5), false);
    varn_send_msg(h, VARN_DONE, "spun", 0);
  } else if (std::strncmp(text, "echo ", 5) == 0) {
    varn_send_msg(h, VARN_DONE, text + 5, 0);
  } else if (std::strcmp(text, "until-intr") == 0) {
    g_interrupted = false;
    varn_set_status(VARN_STATUS_BUSY, "waiting for INTR");
    BusyFor(10000, true);
    varn_send_msg(h, VARN_ERROR, g_interrupted ? "cancelled" : "never interrupted", 0);
  } else if (std::strcmp(text, "stop-me") == 0) {
    varn_set_status(VARN_STATUS_BUSY, "stopping");
    raise(SIGSTOP);
    varn_send_msg(h, VARN_DONE, "resumed", 0);
  } else if (std::strcmp(text, "interrupt-me") == 0) {
    varn_send_msg(h, VARN_INTR, "from the server", 0);
    varn_send_msg(h, VARN_DONE, "after the interrupt", 0);
  } else if (std::strncmp(text, "exit ", 5) == 0) {
    _exit(std::atoi(text + 5));  // no exit notice: the hub tells of the end
  }
}

struct Result {
  int r;
  int err;
  uint32_t category = 0;
  char text[256] = "";
  char detail[VARN_STATUS_TEXT_SIZE] = "";
  long ms = 0;
};

void Print(const char* name, const Result& x) {
  Report("%s r=%d err=%d cat=%s text=%s detail=%s ms=%ld", name, x.r, x.err,
         x.r ? Word(x.category) : "-", x.text, x.detail, x.ms);
}

template <typename Call>
void Run(const char* name, Call call) {
  Result x;
  uint32_t length = 0;
  auto t0 = std::chrono::steady_clock::now();
  x.r = call(&x.category, x.text, static_cast<uint32_t>(sizeof x.text), &length, x.detail);
  x.err = VarnErrorNo;
  x.ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0)
          .count();
  Print(name, x);
}

auto Call(int h, const char* command, int ms) {
  return [=](uint32_t* c, char* b, uint32_t cap, uint32_t* l, char* d) {
    return varn_call_deadline(h, command, ms, c, b, cap, l, d);
  };
}

auto Wait(int h, uint64_t categories, int ms) {
  return [=](uint32_t* c, char* b, uint32_t cap, uint32_t* l, char* d) {
    return varn_wait_deadline(h, categories, ms, c, b, cap, l, d);
  };
}

int StartServer() {
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle h = -1;
  if (!varn_invoke(&h, "varn_deadline_peer", nullptr, "server", 0, refusal, nullptr)) {
    Report("server not started err=%d %s", VarnErrorNo, refusal);
    std::exit(3);
  }
  return h;
}

constexpr uint64_t kTerminal = VARN_CATEGORY_BIT(VARN_DONE) | VARN_CATEGORY_BIT(VARN_ERROR);

void KillHub(int) { kill(getppid(), SIGKILL); }

// The client's callback keeps the categories that reached it.
std::string g_callbacks;
void ClientCallback(int h) {
  if (h < 0) return;
  g_callbacks += std::string(g_callbacks.empty() ? "" : ",") + Word(VarnMessage[h].last_category);
}

int Client() {
  int s = StartServer();
  varn_set_callback(ClientCallback);
  // Acknowledged, then busy in its own code past the deadline.
  Run("busy", Call(s, "spin 1500", 300));
  // Still busy: the next command is not even taken.
  Run("no-ack", Call(s, "echo late", 300));
  // Both answers come once it is done, each to the wait that expects it.
  Run("first-answer", Wait(s, kTerminal, 5000));
  Run("late-ack", Wait(s, VARN_CATEGORY_BIT(VARN_ACK), 5000));
  Run("second-answer", Wait(s, kTerminal, 5000));
  // Nothing is on its way.
  Run("idle", Wait(s, kTerminal, 300));
  // A cancelled command ends with one answer, and only one.
  Run("until-intr", Call(s, "until-intr", 300));
  Run("cancel", [s](uint32_t* c, char* b, uint32_t cap, uint32_t* l, char* d) {
    return varn_cancel(s, "stop", 5000, c, b, cap, l, d);
  });
  Run("after-cancel", Wait(s, kTerminal, 300));
  // Given up before the server took it, then cancelled once it did: the
  // cancel takes the command's late ACK, which must not answer the next
  // command (that one's own ACK would then be left over).
  Run("busy-again", Call(s, "spin 1000", 300));
  Run("no-ack-again", Call(s, "until-intr", 300));
  Run("spun", Wait(s, kTerminal, 5000));
  char state[VARN_STATUS_TEXT_SIZE] = "";
  for (int i = 0; i < 5000 && std::strcmp(state, "waiting for INTR") != 0; ++i) {
    uint32_t code = 0;
    if (!varn_query_status(s, &code, state)) break;  // each query is a round trip
  }
  Run("cancel-unacked", [s](uint32_t* c, char* b, uint32_t cap, uint32_t* l, char* d) {
    return varn_cancel(s, "stop", 5000, c, b, cap, l, d);
  });
  Run("ack-left", Wait(s, VARN_CATEGORY_BIT(VARN_ACK), 300));
  Run("next", Call(s, "echo next", 5000));
  // Stopped: not even its status comes. Once it goes on, the late status
  // answer is dropped and a fresh query gets a fresh answer.
  Run("stopped", Call(s, "stop-me", 300));
  kill(std::atoi(VarnMessage[s].address), SIGCONT);
  // The ACK may have been on its way still when it stopped: taken here too.
  Run("resumed", [s](uint32_t* c, char* b, uint32_t cap, uint32_t* l, char* d) {
    int r = varn_wait_deadline(s, kTerminal | VARN_CATEGORY_BIT(VARN_ACK), 5000, c, b, cap, l, d);
    if (r && *c == VARN_ACK) r = varn_wait_deadline(s, kTerminal, 5000, c, b, cap, l, d);
    return r;
  });
  uint32_t status = 0;
  char text[VARN_STATUS_TEXT_SIZE] = "";
  int r = varn_query_status(s, &status, text);
  Report("status r=%d status=%u text=%s", r, status, text);
  // An interrupt from the server during the wait goes to the callback once;
  // the call returns the answer, which the callback does not see.
  g_callbacks.clear();
  Run("interrupted", Call(s, "interrupt-me", 5000));
  Report("interrupted-callbacks %s", g_callbacks.c_str());
  // It exits without answering. Its row is kept, so that any later use of
  // it would start it again.
  VarnMessage[s].keep_entry = 1;
  Run("exited", Call(s, "exit 3", 5000));
  // Nothing is left to cancel, and nothing is started again.
  Run("cancel-exited", [s](uint32_t* c, char* b, uint32_t cap, uint32_t* l, char* d) {
    return varn_cancel(s, "stop", 5000, c, b, cap, l, d);
  });
  Report("after-exit state=%u", VarnMessage[s].state);
  return 0;
}

int HubLoss() {
  int s = StartServer();
  signal(SIGALRM, KillHub);
  alarm(1);
  Run("hub-lost", Call(s, "spin 8000", 10000));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) return 3;
  std::string mode;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-reportfile") == 0 && i + 1 < argc) {
      g_report = open(argv[++i], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } else {
      mode = argv[i];
    }
  }
  if (mode == "client") return Client();
  if (mode == "hub-loss") return HubLoss();
  if (mode == "server") {
    varn_set_callback(ServerCallback);
    KOMainLoop();
    return 0;
  }
  return 2;
}
