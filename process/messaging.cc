// The messaging calls: send, wait, receive, stream reads, status, callback,
// requests to the hub, and the main loops.
//
// All run on the application's thread; varnP_call_callback also runs on the
// input thread while it handles an interrupt with the application's thread
// held.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/api_entry.h"
#include "core/diag.h"
#include "core/library_state.h"
#include "core/status.h"
#include "platform/system.h"
#include "services/debug_mode.h"
#include "transport/output.h"
#include "transport/receive.h"
#include "varn.h"

namespace {

using varn::core::State;

using varn::core::EnterCall;

bool PeerDisabled(varnHandle h) {
  const char* name = VarnMessage[h].name;
  int d;
  return name != nullptr && varn::core::FindDisabledEntry(&d, name);
}

int SendPlain(const char* destination, int category, const char* payload) {
  return varn_send_packet(destination, State().own_address, category, payload, 0);
}

// Waits until the Quon reply row holds one of the given categories; the
// row is waiting (state 2) for the duration.
bool WaitForReply(const int* categories, int count) {
  VarnFileEntry& reply = varn::core::FileTable()[VARN_QUON_REPLY_ROW];
  for (;;) {
    for (int i = 0; i < count; ++i) {
      if (reply.last_category == categories[i]) return true;
    }
    if (!varn_recv_read_and_parse_message(1)) return false;
  }
}

// Time marks, seconds and milliseconds.
int64_t g_start_seconds = 0, g_last_seconds = 0;
int g_start_millis = 0, g_last_millis = 0;

void Since(int64_t mark_s, int mark_ms, uint32_t* seconds, uint32_t* micros) {
  int64_t now_s;
  int now_ms;
  varn::platform::NowSecondsMillis(&now_s, &now_ms);
  g_last_seconds = now_s;
  g_last_millis = now_ms;
  int64_t s = now_s - mark_s;
  int ms = now_ms - mark_ms;
  if (ms < 0) {  // borrow a second
    s -= 1;
    ms += 1000;
  }
  *seconds = static_cast<uint32_t>(s);
  *micros = static_cast<uint32_t>(ms * 1000);
}

}  // namespace

// ---- Sending ----------------------------------------------------------------

extern "C" int varn_send_msg(varnHandle h, int category, const char* data,
                             int64_t length) noexcept {
  if (!EnterCall(h)) return 0;
  if (PeerDisabled(h)) return 1;  // messages to a disabled server are dropped
  VarnEntry& row = VarnMessage[h];
  if (row.state == ENTRY_EXITED) {
    if (category == VARN_KILL) {
      row.send_stream = 0;
      row.recv_stream = 0;
      row.state = ENTRY_FREE;
      return 1;
    }
    if (!varnP_reinvoke_process(h)) return 0;
  }
  if (row.non_velor && category != VARN_KILL && category != VARN_INTR && category != VARN_DATA) {
    VarnErrorNo = VARN_E_NON_VELOR;
    return 0;
  }
  if (row.state != ENTRY_ACTIVE) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  varn::transport::SendLockGuard lock;
  return varn_send_send_msg(h, category, data, length > 0 ? static_cast<size_t>(length) : 0);
}

extern "C" int varn_kill(varnHandle h) noexcept { return varn_send_msg(h, VARN_KILL, nullptr, 0); }

extern "C" int varn_send_quon_cmd(const char* command) noexcept {
  if (!EnterCall()) return 0;
  if (VarnChanType == VARN_CHAN_STANDALONE) {
    VarnErrorNo = VARN_E_STANDALONE;
    return 0;
  }
  VarnFileEntry& reply = varn::core::FileTable()[VARN_QUON_REPLY_ROW];
  reply.state = 2;
  reply.last_category = 0;
  if (!SendPlain("quon", VARN_CMD, command)) {
    reply.state = 0;
    VarnErrorNo = VARN_E_QUON_CMD;
    return 0;
  }
  static const int kAnswers[] = {VARN_ENAK, VARN_EDONE, VARN_EERROR};
  bool answered = WaitForReply(kAnswers, 3);
  reply.state = 0;
  if (answered && reply.last_category == VARN_EDONE) return 1;
  // A wait that ended without an answer failed to read: the hub is gone
  // (43 stays) and the command cannot be taken as done.
  if (answered) VarnErrorNo = VARN_E_QUON_CMD;
  return 0;
}

extern "C" int varn_set_chan_mode(int mode) noexcept {
  char command[64];
  std::snprintf(command, sizeof command, "set_chan_mode %d", mode);
  if (!varn_send_quon_cmd(command)) return 0;
  VarnChanMode = mode;
  return 1;
}

extern "C" int varn_send_status_to_daemon(int status) noexcept {
  const char* word = varn::core::StatusWord(status);
  if (word == nullptr) {
    VarnErrorNo = VARN_E_BAD_STATUS;
    return 0;
  }
  return SendPlain("quon", VARN_STATUS, word);
}

extern "C" int varn_send_trace_msg(const char* text) noexcept {
  static int tracing = -1;  // unknown until first use
  if (tracing < 0) {
    const char* v = std::getenv("TOV_TRACE");
    tracing = v != nullptr && v[0] != '\0' ? 1 : 0;
  }
  if (!tracing) return 1;
  if (text == nullptr) text = "";
  std::size_t size = std::strlen(text) + 50;
  char* line = static_cast<char*>(std::malloc(size));
  if (line == nullptr) return 0;
  int64_t seconds;
  int millis;
  varn::platform::NowSecondsMillis(&seconds, &millis);
  std::snprintf(line, size, "*TRACEPOINT* (%lu.%06lu) %s", static_cast<unsigned long>(seconds),
                static_cast<unsigned long>(millis) * 1000, text);
  int r = SendPlain("quon", VARN_STDERR, line);
  std::free(line);
  return r;
}

extern "C" int varn_put_msg_in_queue(varnHandle h, int category, const char* data,
                                     int64_t length) noexcept {
  const VarnEntry& row = VarnMessage[h];
  return varn_queue_put_msg(row.address, row.local_address, data, category,
                            length > 0 ? static_cast<size_t>(length) : 0);
}

// ---- Waiting and receiving --------------------------------------------------

extern "C" int varn_wait(varnHandle h, uint32_t* category, char* buffer, uint32_t* length,
                         uint32_t default_category, int force) noexcept {
  if (!EnterCall(h)) return 0;
  if (PeerDisabled(h) || (varn_debug_true() && force == 0)) {
    *category = default_category;
    if (buffer != nullptr) buffer[0] = '\0';
    *length = 0;
    return 1;
  }
  VarnEntry& row = VarnMessage[h];
  // Nothing can answer a wait on a row that is not in use (its peer exited
  // and was forgotten): it fails at once instead of waiting for ever.
  if (row.state == ENTRY_FREE) {
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  row.last_category = 0;
  row.waiting = 1;
  varn_queue_set_outband(h, nullptr);
  for (;;) {
    if (!varn_recv_read_and_parse_message(1)) {
      varn_queue_reset_outband();
      row.waiting = 0;
      return 0;
    }
    uint32_t last = row.last_category;
    if (last == 0) continue;
    if (row.immediate_intr_kill && (last == VARN_KILL || last == VARN_INTR)) {
      row.last_category = 0;  // went to the callback; the wait goes on
      continue;
    }
    break;
  }
  varn_queue_reset_outband();
  row.waiting = 0;
  uint32_t last = row.last_category;
  switch (last) {
    case VARN_KILL:
    case VARN_INTR:
    case VARN_CMD:
    case VARN_DONE:
    case VARN_BEGIN:
    case VARN_DATA:
    case VARN_ERROR:
    case VARN_SRVR_ERR:
      *category = last;
      *length = static_cast<uint32_t>(row.last_data_len);
      if (buffer != nullptr) {
        // KILL, INTR and SRVR_ERR keep their text in the signal buffer; the
        // row's last_data still holds an older message of another length.
        bool signal = last == VARN_KILL || last == VARN_INTR || last == VARN_SRVR_ERR;
        const char* text = signal ? varn::transport::SignalBuffer() : row.last_data;
        if (text != nullptr && row.last_data_len > 0) {
          std::memcpy(buffer, text, static_cast<size_t>(row.last_data_len) + 1);
        } else {
          buffer[0] = '\0';
        }
      }
      return 1;
    default:
      VarnErrorNo = VARN_E_CATEGORY;
      return 0;
  }
}

extern "C" int varn_wait_for_any_from_handle(varnHandle h, uint32_t* category, char* buffer,
                                             uint32_t* length, uint32_t default_category,
                                             int force) noexcept {
  VarnSigusr1Caught = 1;
  return varn_wait(h, category, buffer, length, default_category, force);
}

extern "C" int varn_recv_msg_len_new(varnHandle h, uint32_t* category, char* buffer,
                                     uint64_t* length) noexcept {
  if (length != nullptr) *length = 0;
  if (VarnErrorNo != 0) return 0;
  if (!varn::core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  if (PeerDisabled(h)) {
    VarnErrorNo = VARN_E_DISABLED;
    return 0;
  }
  const VarnEntry& row = VarnMessage[h];
  *category = row.last_category;
  bool signal = row.last_category == VARN_KILL || row.last_category == VARN_INTR ||
                row.last_category == VARN_SRVR_ERR;
  const char* text = signal ? varn::transport::SignalBuffer() : row.last_data;
  if (row.last_data_len == 0 || text == nullptr) {
    buffer[0] = '\0';
    return 1;
  }
  std::memcpy(buffer, text, static_cast<size_t>(row.last_data_len) + 1);
  if (length != nullptr) *length = static_cast<uint64_t>(row.last_data_len) + 1;
  return 1;
}

extern "C" int varn_recv_msg_len(varnHandle h, uint32_t* category, char* buffer,
                                 uint32_t* length) noexcept {
  uint64_t wide = 0;
  int r = varn_recv_msg_len_new(h, category, buffer, length ? &wide : nullptr);
  if (length != nullptr) *length = static_cast<uint32_t>(wide);
  return r;
}

extern "C" int varn_recv_msg(varnHandle h, uint32_t* category, char* buffer) noexcept {
  return varn_recv_msg_len_new(h, category, buffer, nullptr);
}

namespace {

int RecvData(varnHandle h, uint32_t* category, char* buffer, int64_t capacity, uint32_t* length,
             int lane) {
  if (!EnterCall(h)) return 0;
  int cat = 0;
  size_t n = 0;
  int r = varn_receive_read_data(h, &cat, buffer, capacity, &n, lane);
  *category = static_cast<uint32_t>(cat);
  *length = static_cast<uint32_t>(n);
  return r;
}

}  // namespace

extern "C" int varn_recv_data(varnHandle h, uint32_t* category, char* buffer, int64_t capacity,
                              uint32_t* length) noexcept {
  return RecvData(h, category, buffer, capacity, length, 1);
}

extern "C" int varn_truly_recv_data(varnHandle h, uint32_t* category, char* buffer,
                                    int64_t capacity, uint32_t* length) noexcept {
  return RecvData(h, category, buffer, capacity, length, 0);
}

extern "C" int varn_read_data(varnHandle h, uint32_t* category, char* buffer,
                              uint32_t* length) noexcept {
  if (!EnterCall(h)) return 0;
  if (PeerDisabled(h)) {
    VarnErrorNo = VARN_E_DISABLED;
    return 0;
  }
  if (VarnMessage[h].recv_stream == 2) return RecvData(h, category, buffer, -1, length, 1);
  int cat = 0;
  size_t n = 0;
  int r = varn_recv_read_data_from_VarnInStreamData(h, &cat, buffer, &n);
  *category = static_cast<uint32_t>(cat);
  *length = static_cast<uint32_t>(n);
  return r;
}

// ---- Status, callback, loop -------------------------------------------------

extern "C" int varn_set_status(uint32_t status, const char* text) noexcept {
  if (status > 3) {
    VarnErrorNo = VARN_E_BAD_STATUS;
    return 0;
  }
  varn::core::SetStatus(static_cast<int>(status), text);
  return 1;
}

extern "C" int varn_set_callback(VarnCallback callback) noexcept {
  if (!State().initialised) {
    VarnErrorNo = VARN_E_NOT_INIT;
    return 0;
  }
  State().callback = callback;
  return 1;
}

extern "C" void varnP_set_callback(VarnCallback callback) noexcept { State().callback = callback; }

extern "C" void varnP_call_callback(varnHandle h) noexcept {
  VarnCallback callback = State().callback;
  if (h >= 0 && varn::core::ValidHandle(h)) {
    VarnEntry& row = VarnMessage[h];
    if (row.waiting) {
      if (row.immediate_intr_kill &&
          (row.last_category == VARN_INTR || row.last_category == VARN_KILL)) {
        if (callback) callback(h);
      } else {
        row.waiting = 0;  // the waiting call takes the message
      }
      return;
    }
  }
  if (callback) callback(h);
}

extern "C" int varn_set_immediate_intr_kill_mode(varnHandle h, uint32_t flag) noexcept {
  if (!varn::core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  VarnMessage[h].immediate_intr_kill = flag;
  return 1;
}

extern "C" int KOnvtAccept(void) noexcept { return SendPlain("quon", VARN_STATUS, "IDLE"); }

extern "C" void KOnvtMainLoop(void) noexcept {
  if (!State().streams_ready) {
    varn::core::Diag(
        "KOnvtMainLoop: invalid stdio redirection, use -quon_debug or kodaemon, aborting...\n");
    return;
  }
  if (!KOnvtAccept()) return;
  for (;;) {
    varn_process_one_message();
    // Once the hub is gone nothing more can arrive: end the process rather
    // than spin on a channel that is closed.
    // In debug mode the end of the input ends the run the same way, and
    // the exit notice is still shown.
    if (VarnErrorNo == VARN_E_DAEMON_GONE) {
      if (varn_debug_true()) VarnErrorNo = 0;
      varn_deinit();
    }
  }
}

extern "C" void KOMainLoop(void) noexcept { KOnvtMainLoop(); }

// ---- Lines ------------------------------------------------------------------

namespace {

// Cuts a line at its first line feed, carriage return or Ctrl-Z. Returns
// false when the line starts with Ctrl-Z (end of input).
bool CutLine(char* line) {
  if (line[0] == 26) return false;
  line[std::strcspn(line, "\n\r\x1a")] = '\0';
  return true;
}

}  // namespace

// Reads at most 1024 characters. A longer line is handed back in pieces of
// 1024 characters, one per call, so the caller's 1025-byte buffer is never
// overrun and nothing is lost.
extern "C" int varn_readline(FILE* stream, char* buffer, int /*local*/) noexcept {
  if (stream == nullptr || buffer == nullptr) return 0;
  if (std::fgets(buffer, VARN_LINE_SIZE, stream) == nullptr) return 0;
  return CutLine(buffer) ? 1 : 0;
}

extern "C" int varn_readlineP(FILE* stream, char** line, int /*local*/) noexcept {
  if (stream == nullptr || !varn_init_varn_line()) return 0;
  auto& s = State();
  std::size_t used = 0;
  s.line_buffer[0] = '\0';
  for (;;) {
    if (std::fgets(s.line_buffer + used, static_cast<int>(s.line_capacity - used), stream) ==
        nullptr) {
      if (used == 0) return 0;
      break;
    }
    used += std::strlen(s.line_buffer + used);
    if (used > 0 && s.line_buffer[used - 1] == '\n') break;
    if (used + 1 < s.line_capacity) break;  // end of input without a line feed
    char* grown = static_cast<char*>(std::realloc(s.line_buffer, s.line_capacity + 1024));
    if (grown == nullptr) {
      VarnErrorNo = VARN_E_MALLOC;
      break;
    }
    s.line_buffer = grown;
    s.line_capacity += 1024;
  }
  *line = s.line_buffer;
  return CutLine(s.line_buffer) ? 1 : 0;
}

extern "C" int varn_writeline(FILE* stream, uint32_t newline, const char* text,
                              int /*local*/) noexcept {
  if (stream == nullptr || text == nullptr) return 0;
  if (std::fputs(text, stream) < 0) return 0;
  if (newline && std::fputc('\n', stream) == EOF) return 0;
  return 1;
}

// ---- Time -------------------------------------------------------------------

extern "C" int varn_start_time(void) noexcept {
  varn::platform::NowSecondsMillis(&g_start_seconds, &g_start_millis);
  g_last_seconds = g_start_seconds;
  g_last_millis = g_start_millis;
  return 1;
}

extern "C" int varn_elapsed_time(uint32_t* seconds, uint32_t* microseconds) noexcept {
  Since(g_last_seconds, g_last_millis, seconds, microseconds);
  return 1;
}

extern "C" int varn_total_time(uint32_t* seconds, uint32_t* microseconds) noexcept {
  Since(g_start_seconds, g_start_millis, seconds, microseconds);
  return 1;
}

extern "C" int varn_sleep(int seconds, int milliseconds) noexcept {
  return varn_util_sleep(seconds, milliseconds);
}
