// A small program linked to libvarn that the transport tests start under a
// scripted hub. It runs one scenario (first argument after the library's
// options) and writes what it sees, one line per event, to the descriptor
// given with "-report N".
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/peer_report.h"
#include "varn.h"

namespace {

using varn::test_support::g_report;
using varn::test_support::Report;
using varn::test_support::Word;
std::atomic<long> g_counter{0};

// The callback reports what arrived. For INTR it also checks that the
// application's thread is held: the counter it increments must not move.
void Callback(int h) {
  if (h < 0) {
    Report("callback quon");
    return;
  }
  uint32_t category = VarnMessage[h].last_category;
  if (category == VARN_INTR) {
    long before = g_counter.load();
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(30);
    while (std::chrono::steady_clock::now() < until) {
    }
    Report("callback INTR held=%d", g_counter.load() == before ? 1 : 0);
    return;
  }
  char buffer[4096] = "";
  uint32_t cat = 0;
  uint32_t len = 0;
  int saved = VarnErrorNo;
  VarnErrorNo = 0;
  varn_recv_msg_len(h, &cat, buffer, &len);
  VarnErrorNo = saved;
  Report("callback %s %s", Word(category), buffer);
  if (category == VARN_CMD && std::strcmp(buffer, "quit") == 0) {
    varn_send_msg(h, VARN_DONE, "bye", 0);
    varn_deinit();
  }
  if (category == VARN_CMD && std::strncmp(buffer, "busy ", 5) == 0) {
    // Busy in its own code, sending nothing, before it answers.
    auto until =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::atoi(buffer + 5));
    while (std::chrono::steady_clock::now() < until) {
    }
    varn_send_msg(h, VARN_DONE, "rested", 0);
  }
  if (category == VARN_CMD && std::strncmp(buffer, "where ", 6) == 0) {
    int row = -1;
    const char* address = "none";
    if (varn_query_varn_handle_byname(&row, buffer + 6) && VarnMessage[row].address) {
      address = VarnMessage[row].address;
    }
    varn_send_msg(h, VARN_DONE, address, 0);
  }
}

// Debug-mode server: answers a CMD with DONE ok; after a BEGIN it reads the
// data lines and reports them.
void EchoCallback(int h) {
  if (h < 0) return;
  uint32_t category = VarnMessage[h].last_category;
  if (category == VARN_CMD) {
    varn_send_msg(h, VARN_DONE, "ok", 0);
  } else if (category == VARN_BEGIN) {
    for (;;) {
      uint32_t cat = 0, length = 0;
      static char buffer[1000000];
      int r = varn_recv_data(h, &cat, buffer, sizeof buffer - 1, &length);
      if (!r) {
        Report("data failed err=%d length=%u", VarnErrorNo, length);
        r = varn_recv_data(h, &cat, buffer, sizeof buffer, &length);
        if (!r) return;
      }
      if (cat == VARN_END) {
        Report("end %s", buffer);
        break;
      }
      Report("record %s", buffer);
    }
  }
}

int Connect(const char* name, const char* address) {
  varnHandle h = -1;
  if (!varn_connect_process(&h, name, address, nullptr)) Report("connect failed");
  return h;
}

void ReportWait(int h) {
  uint32_t category = 0, length = 0;
  char buffer[4096] = "";
  int r = varn_wait(h, &category, buffer, &length, 0, 1);
  Report("wait %d err=%d cat=%s text=%s", r, VarnErrorNo, r ? Word(category) : "-", buffer);
}

void ReportStream(int h) {
  for (;;) {
    uint32_t category = 0, length = 0;
    char buffer[4096];
    int r = varn_recv_data(h, &category, buffer, sizeof buffer, &length);
    if (!r) {
      Report("data 0 err=%d cat=%s", VarnErrorNo, Word(category));
      return;
    }
    if (category == VARN_END) {
      Report("end %s", buffer);
      return;
    }
    Report("record %u %.*s", length, static_cast<int>(length), buffer);
  }
}

// INTR callback that asks the hub for its process list: a request made
// while the application's wait is on.
void RequestingCallback(int h) {
  if (h < 0 || VarnMessage[h].last_category != VARN_INTR) return;
  char* list = nullptr;
  int r = varn_query_pg_process(&list);
  Report("callback list %d text=%s", r, r && list ? list : "-");
}

void ReportErrorAtExit() { Report("at exit err=%d", VarnErrorNo); }

// The size of a batch packet's header to S1, as the library builds it.
std::size_t BatchHeader() {
  char own[256];
  varn_query_own_address(own);
  return 6 + std::strlen("S1@h") + 1 + std::strlen(own) + 1 + std::strlen("DATA") + 1;
}

int Scenario(const std::string& mode, int argc, char** argv) {
  if (mode == "serve") {
    varn_set_callback(Callback);
    Report("ready");
    KOMainLoop();
    return 0;
  }
  if (mode == "command") {  // CMD to S1, then wait for its answer
    int h = Connect("srv", "S1@h");
    int r = varn_send_msg(h, VARN_CMD, "run 1", 0);
    Report("send %d err=%d", r, VarnErrorNo);
    ReportWait(h);
    return 0;
  }
  if (mode == "big-answer") {  // CMD to S1, then a wait that takes a large answer
    int h = Connect("srv", "S1@h");
    Report("send %d", varn_send_msg(h, VARN_CMD, "big", 0));
    static char buffer[300000];
    uint32_t category = 0, length = 0;
    int r = varn_wait(h, &category, buffer, &length, 0, 1);
    long sum = 0;
    for (uint32_t i = 0; i < length; ++i) sum += static_cast<unsigned char>(buffer[i]);
    Report("wait %d cat=%s length=%u sum=%ld", r, r ? Word(category) : "-", length, sum);
    return 0;
  }
  if (mode == "stream") {  // CMD to S1, wait for BEGIN, read the stream, wait for DONE
    int h = Connect("srv", "S1@h");
    Report("send %d", varn_send_msg(h, VARN_CMD, "sweep", 0));
    ReportWait(h);
    ReportStream(h);
    ReportWait(h);
    return 0;
  }
  if (mode == "begin") {  // BEGIN to S1, report how it ended
    int h = Connect("srv", "S1@h");
    int r = varn_send_msg(h, VARN_BEGIN, "title", 0);
    Report("begin %d err=%d send_stream=%u", r, VarnErrorNo, VarnMessage[h].send_stream);
    return 0;
  }
  if (mode == "two") {  // CMDs to S1 and S2, waits on S2 first, then S1
    int s1 = Connect("one", "S1@h");
    int s2 = Connect("two", "S2@h");
    Report("send %d", varn_send_msg(s1, VARN_CMD, "a", 0));
    Report("send %d", varn_send_msg(s2, VARN_CMD, "b", 0));
    ReportWait(s2);
    ReportWait(s1);
    ReportStream(s1);
    ReportWait(s1);
    return 0;
  }
  if (mode == "spin") {  // busy in its own code; INTR and KILL arrive meanwhile
    varn_set_callback(Callback);
    Connect("interrupter", "I@h");
    varn_set_status(VARN_STATUS_BUSY, "spinning");
    Report("ready");
    for (;;) g_counter.fetch_add(1);
  }
  if (mode == "block") {  // blocked in a wait on S1
    varn_set_callback(Callback);
    int h = Connect("srv", "S1@h");
    Connect("interrupter", "I@h");
    Report("ready");
    ReportWait(h);
    return 0;
  }
  if (mode == "sticky") {  // after the hub's loss every call refuses with 43
    int h = Connect("srv", "S1@h");
    ReportWait(h);
    int s = varn_send_msg(h, VARN_CMD, "x", 0);
    Report("after send=%d err=%d", s, VarnErrorNo);
    uint32_t c, l;
    char b[16];
    int w = varn_wait(h, &c, b, &l, 0, 1);
    Report("after wait=%d err=%d", w, VarnErrorNo);
    int k = varn_kill(h);
    Report("after kill=%d err=%d", k, VarnErrorNo);
    return 0;
  }
  if (mode == "args") {
    std::string line = "args";
    for (int i = 0; i < argc; ++i) line += std::string(" ") + argv[i];
    line += " argc=" + std::to_string(argc);
    Report("%s", line.c_str());
    Report("parent=%s chan=%d", VarnMessage[0].address ? VarnMessage[0].address : "-",
           VarnChanType);
    return 0;
  }
  if (mode == "stderr") {  // a long line on the error stream
    std::string text(600, 'x');
    std::fprintf(stderr, "%s\n", text.c_str());
    Report("written");
    KOMainLoop();
    return 0;
  }
  if (mode == "end-wait") {  // a wait that meets the END of a stream fails with 4
    int h = Connect("srv", "S1@h");
    Report("send %d", varn_send_msg(h, VARN_CMD, "x", 0));
    ReportWait(h);  // BEGIN
    ReportWait(h);  // END
    return 0;
  }
  if (mode == "immediate") {  // INTR from the waited-for peer goes to the callback
    varn_set_callback(Callback);
    int h = Connect("srv", "S1@h");
    varn_set_immediate_intr_kill_mode(h, 1);
    Report("ready");
    ReportWait(h);
    return 0;
  }
  if (mode == "any") {  // a queued DONE answers a later wait at once
    int s1 = Connect("one", "S1@h");
    int s2 = Connect("two", "S2@h");
    Report("send %d", varn_send_msg(s1, VARN_CMD, "a", 0));
    Report("send %d", varn_send_msg(s2, VARN_CMD, "b", 0));
    ReportWait(s2);
    uint32_t category = 0, length = 0;
    char buffer[64] = "";
    int r = varn_wait_for_any_from_handle(s1, &category, buffer, &length, 0, 1);
    Report("any %d cat=%s text=%s", r, Word(category), buffer);
    char copy[64];
    uint32_t copy_len = 0;
    r = varn_recv_msg_len(s1, &category, copy, &copy_len);
    Report("recv_msg_len %d len=%u text=%s", r, copy_len, copy);
    return 0;
  }
  if (mode == "quon-cmd") {  // two hub commands: the first done, the second refused
    int r = varn_send_quon_cmd("list");
    Report("cmd %d err=%d", r, VarnErrorNo);
    r = varn_set_chan_mode(3);
    Report("chan %d err=%d mode=%d", r, VarnErrorNo, varn_get_chan_mode());
    return 0;
  }
  if (mode == "small-buffer") {  // a record larger than the buffer, then a larger buffer
    int h = Connect("srv", "S1@h");
    Report("send %d", varn_send_msg(h, VARN_CMD, "x", 0));
    ReportWait(h);  // BEGIN
    uint32_t category = 0, length = 0;
    char small[4];
    int r = varn_recv_data(h, &category, small, sizeof small, &length);
    Report("small %d err=%d", r, VarnErrorNo);
    ReportStream(h);
    return 0;
  }
  if (mode == "read-after-end") {  // the stream ended before its data was read
    int h = Connect("srv", "S1@h");
    Report("send %d", varn_send_msg(h, VARN_CMD, "x", 0));
    ReportWait(h);  // BEGIN
    ReportWait(h);  // DATA, appended to the stream
    ReportWait(h);  // END: not a reply, fails with 4
    for (;;) {
      uint32_t category = 0, length = 0;
      char buffer[64];
      int r = varn_read_data(h, &category, buffer, &length);
      int err = VarnErrorNo;
      Report("read_data %d err=%d cat=%s len=%u text=%s", r, err, Word(category), length, buffer);
      if (!r || category == VARN_END) break;
    }
    return 0;
  }
  if (mode == "echo") {  // debug mode: CMD answered with DONE ok, BEGIN read to END
    varn_set_callback(EchoCallback);
    KOMainLoop();
    return 0;
  }
  if (mode == "debug-invoke") {  // debug mode: a started program gets a debug input file
    varnHandle h = -1;
    char error[VARN_STATUS_TEXT_SIZE];
    int r = varn_invoke(&h, "sim", nullptr, nullptr, 0, error, nullptr);
    Report("invoke %d", r);
    Report("cmd %d", varn_send_msg(h, VARN_CMD, "load a", 0));
    Report("cmd %d", varn_send_msg(h, VARN_CMD, "run", 0));
    Report("last=%s", Word(VarnMessage[h].last_category));
    int q = varn_send_quon_cmd("list");
    Report("quon %d err=%d", q, VarnErrorNo);
    return 0;
  }
  if (mode == "hub-start") {  // starts, lists, refuses and kills through the real hub
    varnHandle h = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    int r = varn_invoke(&h, "sweep_server", nullptr, nullptr, 1, refusal, nullptr);
    Report("invoke %d err=%d state=%u", r, VarnErrorNo, r ? VarnMessage[h].state : 0);
    char* list = nullptr;
    r = varn_query_pg_process(&list);
    Report("list %d", r);
    char* cursor = nullptr;
    varn_prep_query_result(list, &cursor);
    char name[256], address[256], third[256];
    int number = 0;
    while (varn_get_query_result(&cursor, name, address, third, &number)) {
      bool is_server = VarnMessage[h].address && std::strcmp(address, VarnMessage[h].address) == 0;
      Report("process %s %s", name, is_server ? "server" : "other");
    }
    varnHandle missing = -1;
    r = varn_invoke(&missing, "no_such_program_x", nullptr, nullptr, 0, refusal, nullptr);
    int err = VarnErrorNo;
    Report("missing %d err=%d text=%s freed=%d", r, err, refusal,
           missing >= 0 && VarnMessage[missing].state == ENTRY_FREE ? 1 : 0);
    r = varn_kill(h);
    Report("kill %d state=%u", r, VarnMessage[h].state);
    return 0;
  }
  if (mode == "hub-async") {  // an asynchronous start, completed by the wait
    varnHandle h = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    int r = varn_invoke_ex(&h, "sweep_server", nullptr, nullptr, 0, refusal, nullptr);
    Report("invoke_ex %d state=%u", r, VarnMessage[h].state);
    r = varn_wait_until_invoked(h, refusal);
    Report("invoked %d state=%u", r, VarnMessage[h].state);
    varnHandle bad = -1;
    r = varn_invoke_ex(&bad, "no_such_program_x", nullptr, nullptr, 0, refusal, nullptr);
    r = varn_wait_until_invoked(bad, refusal);
    int err = VarnErrorNo;
    Report("bad %d err=%d text=%s", r, err, refusal);
    Report("kill %d", varn_kill(h));
    return 0;
  }
  if (mode == "hub-nonvelor") {  // a program that does not speak the protocol
    varnHandle h = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    int r = varn_invoke_nonvelor_program(&h, "sh", nullptr, "-c 'echo one; echo \"two words\"'", 0,
                                         refusal, VARN_NONVELOR_INVOKER, nullptr);
    Report("invoke %d", r);
    for (int i = 0; i < 3; ++i) ReportWait(h);
    int unknown_kind =
        varn_invoke_nonvelor_program(&h, "sh", nullptr, "-c true", 0, refusal, 7, nullptr);
    int err = VarnErrorNo;
    Report("kind7 %d err=%d", unknown_kind, err);
    return 0;
  }
  if (mode == "hub-status") {  // IDLE, BUSY with text, sending data, and a dead peer
    varnHandle h = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    varn_invoke(&h, "sweep_server", nullptr, nullptr, 1, refusal, nullptr);
    uint32_t status = 9;
    char text[VARN_STATUS_TEXT_SIZE];
    int r = varn_query_status(h, &status, text);
    Report("status %d %u %s", r, status, text);
    varn_send_msg(h, VARN_CMD, "sweep 1 10 4 300", 0);
    r = varn_query_status(h, &status, text);
    Report("busy %d %u %.8s", r, status, text);
    ReportWait(h);
    ReportStream(h);
    ReportWait(h);
    VarnMessage[h].send_stream = 2;  // as while this process streams to it
    r = varn_query_status(h, &status, text);
    Report("streaming %d %u %s", r, status, text);
    VarnMessage[h].send_stream = 1;
    int s2 = Connect("ghost", "999999@nowhere");
    r = varn_query_status(s2, &status, text);
    Report("dead %d %u %s", r, status, text);
    Report("kill %d", varn_kill(h));
    return 0;
  }
  if (mode == "hub-connect") {  // a server started by another process is found by name
    varnHandle helper = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    int r = varn_invoke(&helper, "varn_test_peer", nullptr, "starter", 0, refusal, nullptr);
    Report("helper %d", r);
    uint32_t category = 0, length = 0;
    char buffer[256];
    r = varn_wait(helper, &category, buffer, &length, 0, 1);
    Report("helper says %d %s", r, buffer);
    varnHandle server = -1;
    r = varn_connect_server(&server, helper, "sweep_server");
    Report("connect %d err=%d", r, VarnErrorNo);
    uint32_t status = 9;
    char text[VARN_STATUS_TEXT_SIZE];
    r = varn_query_status(server, &status, text);
    Report("status %d %u", r, status);
    // A second connection to the same process is the same row.
    varnHandle again = -1;
    r = varn_connect_server(&again, helper, "sweep_server");
    Report("again %d same=%d", r, again == server ? 1 : 0);
    varnHandle none = -1;
    r = varn_connect_server(&none, helper, "nothing_by_that_name");
    int err = VarnErrorNo;
    Report("unknown %d err=%d", r, err);
    varn_kill(server);
    varn_kill(helper);
    return 0;
  }
  if (mode == "starter") {  // starts a sweep server, tells its parent, and serves
    varnHandle h = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    int r = varn_invoke(&h, "sweep_server", nullptr, nullptr, 0, refusal, nullptr);
    if (VarnMessage[0].state == ENTRY_ACTIVE) {
      varn_send_msg(0, VARN_DONE, r ? "started" : "failed", 0);
    }
    KOMainLoop();
    return 0;
  }
  if (mode == "hub-restart") {  // a kept server exits, is restarted, and others follow
    static char refusal[VARN_STATUS_TEXT_SIZE];
    varnHandle server = -1, follower = -1, other = -1;
    varn_invoke(&server, "varn_test_peer", nullptr, "serve", 1, refusal, nullptr);
    std::string old_address = VarnMessage[server].address;
    std::string args = "-quon_enable varn_test_peer " + old_address + " serve";
    varn_invoke(&follower, "varn_test_peer", nullptr, args.c_str(), 0, refusal, nullptr);
    varn_invoke(&other, "varn_test_peer", nullptr, "serve", 1, refusal, nullptr);
    // The kept server quits: its row stays, marked exited.
    varn_send_msg(server, VARN_CMD, "quit", 0);
    ReportWait(server);  // DONE bye
    ReportWait(server);  // its exit notice
    Report("exited state=%u", VarnMessage[server].state);
    // A kill to an exited peer sends nothing and frees the row.
    varn_send_msg(other, VARN_CMD, "quit", 0);
    ReportWait(other);
    ReportWait(other);
    int k = varn_kill(other);
    Report("kill exited %d state=%u", k, VarnMessage[other].state);
    // The next command starts the server again under a new address.
    int r = varn_send_msg(server, VARN_CMD, "hello", 0);
    std::string new_address = VarnMessage[server].address;
    Report("restarted %d moved=%d", r, new_address != old_address ? 1 : 0);
    // The follower knew the old address; it has followed the notice.
    varn_send_msg(follower, VARN_CMD, "where varn_test_peer", 0);
    uint32_t category = 0, length = 0;
    char buffer[256] = "";
    varn_wait(follower, &category, buffer, &length, 0, 1);
    Report("follower knows new=%d", new_address == buffer ? 1 : 0);
    varn_kill(server);
    varn_kill(follower);
    return 0;
  }
  if (mode == "hub-disabled") {  // a disabled name swallows sends and waits until enabled
    varnP_disable_server_protocal("sweep_server");
    static char refusal[VARN_STATUS_TEXT_SIZE];
    varnHandle h = -1;
    int r = varn_invoke(&h, "sweep_server", nullptr, nullptr, 0, refusal, nullptr);
    Report("invoke %d state=%u", r, VarnMessage[h].state);
    r = varn_send_msg(h, VARN_CMD, "help", 0);
    uint32_t category = 0, length = 0;
    char buffer[512] = "x";
    int w = varn_wait(h, &category, buffer, &length, VARN_DONE, 1);
    Report("send %d wait %d cat=%s text=%s", r, w, Word(category), buffer);
    r = varnP_enable_server_protocal("sweep_server", nullptr);
    Report("enable %d state=%u started=%d", r, VarnMessage[h].state,
           VarnMessage[h].address != nullptr ? 1 : 0);
    r = varn_send_msg(h, VARN_CMD, "help", 0);
    ReportWait(h);
    varn_kill(h);
    return 0;
  }
  if (mode == "long-exit") {  // S1's exit notice is longer than the signal buffer
    int h = Connect("srv", "S1@h");
    Report("ready");
    uint32_t category = 0, length = 0;
    static char buffer[4096];
    int r = varn_wait(h, &category, buffer, &length, 0, 1);
    Report("wait %d err=%d cat=%s len=%u text=%.8s state=%u", r, VarnErrorNo, Word(category),
           length, buffer, VarnMessage[h].state);
    r = varn_kill(h);
    Report("kill %d err=%d", r, VarnErrorNo);
    return 0;
  }
  if (mode == "stall") {  // does not read until SIGUSR1, then counts what S1 sent
    int h = Connect("srv", "S1@h");
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    Report("ready");
    int signo = 0;
    sigwait(&usr1, &signo);
    long count = 0;
    for (;;) {
      uint32_t category = 0, length = 0;
      static char buffer[70000];
      if (!varn_wait(h, &category, buffer, &length, 0, 1)) break;
      if (category != VARN_DATA) {
        Report("got %ld then %s %s", count, Word(category), buffer);
        break;
      }
      ++count;
    }
    return 0;
  }
  if (mode == "queued-many") {  // round trips with S1 while S2's messages wait in the queue
    int s1 = Connect("one", "S1@h");
    Connect("two", "S2@h");
    int rounds = std::atoi(argv[argc - 1]);
    for (int i = 0; i < rounds; ++i) {
      if (!varn_send_msg(s1, VARN_CMD, "ping", 0)) {
        Report("send failed err=%d", VarnErrorNo);
        return 0;
      }
      uint32_t category = 0, length = 0;
      char buffer[64];
      if (!varn_wait(s1, &category, buffer, &length, 0, 1)) {
        Report("wait failed err=%d", VarnErrorNo);
        return 0;
      }
    }
    Report("rounds %d queued=%d", rounds, varn_queue_has_msg());
    return 0;
  }
  if (mode == "intr-request") {  // an INTR callback asks the hub something during a wait
    varn_set_callback(RequestingCallback);
    int h = Connect("srv", "S1@h");
    Connect("interrupter", "I@h");
    Report("ready");
    ReportWait(h);
    return 0;
  }
  if (mode == "batch-edge") {  // records whose batch would reach the size limit once padded
    int h = Connect("srv", "S1@h");
    Report("begin %d", varn_send_msg(h, VARN_BEGIN, "edge", 0));
    std::size_t header = BatchHeader();
    // Alone, this record makes a packet of 999485 bytes, 999488 with padding.
    std::string too_big(999485 - header - 6, 'a');
    int r = varn_send_msg(h, VARN_DATA, too_big.data(), static_cast<int64_t>(too_big.size()));
    Report("alone %d err=%d", r, VarnErrorNo);
    // Three bytes less fits: 999482 bytes, 999484 with padding.
    std::string fits(too_big.size() - 3, 'b');
    r = varn_send_msg(h, VARN_DATA, fits.data(), static_cast<int64_t>(fits.size()));
    Report("fits %d err=%d", r, VarnErrorNo);
    // A small record, then one that would take the batch to the limit
    // once padded: the batch goes out first.
    r = varn_send_msg(h, VARN_DATA, "0123456789", 10);
    std::string second(999485 - header - 6 - 16, 'c');
    int r2 = varn_send_msg(h, VARN_DATA, second.data(), static_cast<int64_t>(second.size()));
    Report("pair %d %d err=%d", r, r2, VarnErrorNo);
    Report("end %d", varn_send_msg(h, VARN_END, nullptr, 0));
    return 0;
  }
  if (mode == "call-deadline") {  // two calls with a 200 ms deadline to S1
    int h = Connect("srv", "S1@h");
    for (int i = 0; i < 2; ++i) {
      uint32_t category = 0, length = 0;
      char buffer[64] = "", detail[VARN_STATUS_TEXT_SIZE] = "";
      int r = varn_call_deadline(h, "work", 200, &category, buffer, sizeof buffer, &length, detail);
      Report("call %d err=%d detail=%s", r, VarnErrorNo, detail);
    }
    return 0;
  }
  if (mode == "two-streams") {  // records to two peers' streams in turn; reads S1's stream
    int h1 = Connect("srv", "S1@h");
    int h2 = Connect("srv2", "S2@h");
    int b1 = varn_send_msg(h1, VARN_BEGIN, "one", 0);
    int b2 = varn_send_msg(h2, VARN_BEGIN, "two", 0);
    Report("begin %d %d", b1, b2);
    int r = varn_send_msg(h1, VARN_DATA, "abc", 3);
    r += varn_send_msg(h1, VARN_DATA, "hello", 0);  // a text: its length is its own
    r += varn_send_msg(h2, VARN_DATA, "xy", 2);
    r += varn_send_msg(h1, VARN_DATA, "z", 1);
    r += varn_send_msg(h2, VARN_DATA, "", 0);
    Report("records %d", r);
    int e1 = varn_send_msg(h1, VARN_END, nullptr, 0);
    int e2 = varn_send_msg(h2, VARN_END, nullptr, 0);
    Report("end %d %d", e1, e2);
    ReportWait(h1);  // S1's BEGIN
    uint32_t category = 0, length = 0;
    char buffer[64];
    r = varn_recv_data(h1, &category, buffer, sizeof buffer, &length);
    Report("record %d %.*s", r, static_cast<int>(length), buffer);
    // S1's stream is buffered: a read of S2's stream must not take from it.
    r = varn_recv_data(h2, &category, buffer, sizeof buffer, &length);
    Report("other %d err=%d", r, VarnErrorNo);
    ReportStream(h1);
    return 0;
  }
  if (mode == "stderr-burst") {  // many error lines, then the end at once
    for (int i = 0; i < 200; ++i) std::fprintf(stderr, "burst line %d\n", i);
    return 0;
  }
  if (mode == "stderr-after-loss") {  // error output after the hub is gone
    std::atexit(ReportErrorAtExit);
    int h = Connect("srv", "S1@h");
    Report("ready");
    ReportWait(h);
    for (int i = 0; i < 20; ++i) std::fprintf(stderr, "after loss %d\n", i);
    // The error-forwarding thread tries to send these and fails: for half a
    // second, 43 must stay what the application's thread sees.
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (VarnErrorNo == VARN_E_DAEMON_GONE && std::chrono::steady_clock::now() < until) {
    }
    Report("after lines err=%d", VarnErrorNo);
    return 0;
  }
  if (mode == "sleeper") {  // asleep in its own code while its status is asked
    varn_set_status(VARN_STATUS_BUSY, "thinking");
    Report("ready");
    timespec t{1, 500000000};
    int r = nanosleep(&t, &t);
    Report("slept rc=%d", r);
    return 0;
  }
  if (mode == "flood-out") {  // keeps sending to S1, which never reads
    varn_set_callback(Callback);
    int h = Connect("srv", "S1@h");
    Connect("interrupter", "I@h");
    Report("ready");
    std::string record(4096, 'x');
    for (;;) varn_send_msg(h, VARN_DATA, record.data(), static_cast<int64_t>(record.size()));
  }
  if (mode == "kill-flush") {  // buffered file output, then busy until KILL
    std::FILE* f = std::fopen(argv[argc - 1], "w");
    std::fprintf(f, "written before the kill\n");
    Report("ready");
    for (;;) g_counter.fetch_add(1);
  }
  if (mode == "put-back") {  // a stray message is put back until the DONE comes
    int h = Connect("srv", "S1@h");
    Report("send %d", varn_send_msg(h, VARN_CMD, "open", 0));
    uint32_t category = 0, length = 0;
    char buffer[256];
    int put_back = 0;
    for (;;) {
      category = 0;
      length = sizeof buffer - 1;
      if (!varn_wait(h, &category, buffer, &length, VARN_DONE, 1)) break;
      if (category == VARN_DONE) break;
      varn_put_msg_in_queue(h, static_cast<int>(category), buffer, length);
      ++put_back;
    }
    Report("done %s put_back=%d", buffer, put_back);
    // A later call takes what was put back.
    varn_wait_for_any_from_handle(h, &category, buffer, &length, 0, 1);
    Report("later %s %s", Word(category), buffer);
    return 0;
  }
  Report("unknown mode %s", mode.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  int ok = varn_init(&argc, argv, &parent);
  // The library's own options are gone now; read ours.
  std::string mode;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-report") == 0 && i + 1 < argc) {
      g_report = std::atoi(argv[i + 1]);
      ++i;
    } else if (std::strcmp(argv[i], "-reportfile") == 0 && i + 1 < argc) {
      // Under the hub only the standard descriptors are inherited.
      g_report = open(argv[i + 1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
      ++i;
    } else if (mode.empty() && argv[i][0] != '-') {
      mode = argv[i];
    }
  }
  if (!ok) {
    Report("init failed err=%d", VarnErrorNo);
    return 3;
  }
  Report("init parent=%d", parent);
  int status = Scenario(mode, argc, argv);
  varn_deinit();
  return status;
}
