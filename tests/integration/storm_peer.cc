// The programs of the interrupt storm test, run under the real hub.
//
//   storm_peer -reportfile F storm KIND COUNT
//     The hub's first client. It starts an interrupter (this program again)
//     that sends it COUNT INTRs and then KILL, and keeps its own thread busy
//     meanwhile in one kind of code: "alloc" (allocation and release of
//     many sizes), "stdio" (formatted writes through a FILE) or "send"
//     (commands to a server it started, answered with DONE, so the thread
//     is mostly inside varn_send_msg and varn_wait). Its callback counts the
//     INTRs, checks their sequence numbers, and at KILL reports the count.
//   storm_peer interrupter COUNT    sends COUNT INTRs ("1".."COUNT"), then KILL
//   storm_peer server               answers every CMD with DONE, ends with its parent
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
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

// Written by the callback only; the callback runs one at a time (on the
// input thread with this thread held, or on this thread while it reads).
long g_intrs = 0;
long g_out_of_order = 0;
int g_interrupter = -1;

// Runs with the application's thread held where it stood: allocates
// nothing and takes no lock the held thread might own.
void StormCallback(int h) {
  if (h < 0) return;
  uint32_t category = VarnMessage[h].last_category;
  if (category == VARN_INTR) {
    char text[32] = "";
    uint32_t cat = 0, length = 0;
    varn_recv_msg_len(h, &cat, text, &length);
    if (std::atol(text) != g_intrs + 1) ++g_out_of_order;
    ++g_intrs;
  } else if (category == VARN_KILL) {
    Report("intr %ld out-of-order %ld from-interrupter %d", g_intrs, g_out_of_order,
           h == g_interrupter ? 1 : 0);
  }
}

std::atomic<unsigned long> g_sink{0};  // keeps the busy work from being optimised away

void Allocate(unsigned round) {
  static const std::size_t kSizes[] = {8, 24, 100, 500, 4096, 70000, 300000};
  std::vector<std::string> keep;
  for (std::size_t size : kSizes) {
    std::size_t n = size + round % 7;
    char* p = static_cast<char*>(std::malloc(n));
    if (p == nullptr) continue;
    std::memset(p, static_cast<int>(round), n);
    g_sink += static_cast<unsigned char>(p[n - 1]);
    keep.emplace_back(p, n < 64 ? n : 64);
    std::free(p);
  }
  g_sink += keep.size();
}

void Print(FILE* out, unsigned round) {
  std::fprintf(out, "round %u %s %.3f\n", round, "through stdio", round / 7.0);
  char line[128];
  std::snprintf(line, sizeof line, "%08x", round);
  g_sink += static_cast<unsigned char>(line[0]);
  if (round % 64 == 0) std::fflush(out);
}

int Storm(const std::string& kind, int count) {
  varn_set_callback(StormCallback);
  static char refusal[VARN_STATUS_TEXT_SIZE];
  varnHandle server = -1;
  if (kind == "send" &&
      !varn_invoke(&server, "varn_storm_peer", nullptr, "server", 0, refusal, nullptr)) {
    Report("server not started err=%d %s", VarnErrorNo, refusal);
    return 3;
  }
  std::string args = "interrupter " + std::to_string(count);
  varnHandle interrupter = -1;
  if (!varn_invoke(&interrupter, "varn_storm_peer", nullptr, args.c_str(), 0, refusal, nullptr)) {
    Report("interrupter not started err=%d %s", VarnErrorNo, refusal);
    return 3;
  }
  g_interrupter = interrupter;
  FILE* out = std::fopen("/dev/null", "w");
  if (out == nullptr) return 3;
  // Runs until KILL ends the process.
  for (unsigned round = 0;; ++round) {
    if (kind == "alloc") {
      Allocate(round);
    } else if (kind == "stdio") {
      Print(out, round);
    } else {
      if (!varn_send_msg(server, VARN_CMD, "go", 0)) {
        Report("send failed err=%d", VarnErrorNo);
        return 4;
      }
      uint32_t category = 0, length = 0;
      char answer[64];
      if (!varn_wait(server, &category, answer, &length, 0, 1) || category != VARN_DONE) {
        Report("wait failed err=%d", VarnErrorNo);
        return 4;
      }
    }
  }
}

// Answers commands; ends with the storm program (its parent).
void ServerCallback(int h) {
  if (h < 0) return;
  uint32_t category = VarnMessage[h].last_category;
  if (category == VARN_CMD) varn_send_msg(h, VARN_DONE, "", 0);
  if (category == VARN_SRVR_ERR) varn_deinit();
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) return 3;
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-reportfile") == 0 && i + 1 < argc) {
      g_report = open(argv[++i], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } else {
      args.emplace_back(argv[i]);
    }
  }
  if (args.size() == 3 && args[0] == "storm") return Storm(args[1], std::atoi(args[2].c_str()));
  if (args.size() == 2 && args[0] == "interrupter") {
    int count = std::atoi(args[1].c_str());
    for (int i = 1; i <= count; ++i) {
      std::string text = std::to_string(i);
      if (!varn_send_msg(parent, VARN_INTR, text.c_str(), 0)) return 4;
    }
    varn_kill(parent);
    return 0;
  }
  if (args.size() == 1 && args[0] == "server") {
    varn_set_callback(ServerCallback);
    KOMainLoop();
    return 0;
  }
  return 2;
}
