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
#include "core/remote_file_table.h"
#include "core/rows.h"
#include "core/status.h"
#include "platform/system.h"
#include "process/sending.h"
#include "transport/await.h"
#include "transport/channel.h"
#include "transport/data_batch.h"
#include "transport/output.h"
#include "transport/queue.h"
#include "transport/upcalls.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

using varn::core::EnterCall;
using varn::core::Fixed;
using varn::core::PeerDisabled;
using varn::core::Row;
using varn::core::RowState;
using varn::core::State;
namespace core = varn::core;
namespace transport = varn::transport;

int SendToHub(int category, const char* payload) {
  return varn_send_packet(VARN_HUB_ADDRESS, Fixed().own_address, category, payload, 0);
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

bool varn::process::RowTakesMessage(int h, int category) {
  Row row(h);
  if (row.is(RowState::kExited) && !varnP_reinvoke_process(h)) return false;
  if (row.entry().non_velor && category != VARN_KILL && category != VARN_INTR &&
      category != VARN_DATA) {
    VarnErrorNo = VARN_E_NON_VELOR;
    return false;
  }
  if (!row.is(RowState::kActive)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return false;
  }
  return true;
}

extern "C" int varn_send_msg(varnHandle h, int category, const char* data,
                             int64_t length) noexcept {
  if (!EnterCall(h)) return 0;
  std::size_t size = length > 0 ? static_cast<size_t>(length) : 0;
  // A record inside a stream goes straight into the open batch when it can
  // (its checks are the same; one a record, the rest once a batch).
  if (category == VARN_DATA && transport::AppendToOpenBatch(h, data, size)) return 1;
  if (PeerDisabled(h)) return 1;  // messages to a disabled server are dropped
  Row row(h);
  if (row.is(RowState::kExited)) {
    if (category == VARN_KILL) {
      row.set_streams(core::Stream::kClosed, core::Stream::kClosed);
      row.set_state(RowState::kFree);
      return 1;
    }
  }
  if (!varn::process::RowTakesMessage(h, category)) return 0;
  // DATA is one write, or an append to the open batch, with no wait after
  // it: the packet writer holds the send lock around each write it makes,
  // so a record needs no hold across the step (a stream's record costs
  // tens of nanoseconds, and the lock was a fifth of it).
  if (category == VARN_DATA) return varn_send_send_msg(h, category, data, size);
  varn::transport::SendLockUnlessExempt lock;
  return varn_send_send_msg(h, category, data, size);
}

extern "C" int varn_kill(varnHandle h) noexcept { return varn_send_msg(h, VARN_KILL, nullptr, 0); }

extern "C" int varn_send_quon_cmd(const char* command) noexcept {
  if (!EnterCall()) return 0;
  if (VarnChanType == VARN_CHAN_STANDALONE) {
    VarnErrorNo = VARN_E_STANDALONE;
    return 0;
  }
  core::AwaitingAnswer reply(core::kReplyRow, core::FileRowState::kFree);
  if (!SendToHub(VARN_CMD, command)) {
    VarnErrorNo = VARN_E_QUON_CMD;
    return 0;
  }
  bool answered = transport::AwaitAnswer(reply, {VARN_ENAK, VARN_EDONE, VARN_EERROR});
  if (answered && reply.category() == VARN_EDONE) return 1;
  // A wait that ended without an answer failed to read: the hub is gone
  // (43 stays) and the command cannot be taken as done.
  if (answered) VarnErrorNo = VARN_E_QUON_CMD;
  return 0;
}

extern "C" int varn_set_chan_mode(int mode) noexcept {
  if (!varn_send_quon_cmd(varn::wire::SetChanModeCommand(mode).c_str())) return 0;
  VarnChanMode = mode;
  return 1;
}

extern "C" int varn_send_status_to_daemon(int status) noexcept {
  const char* word = varn::wire::StatusWord(status);
  if (word == nullptr) {
    VarnErrorNo = VARN_E_BAD_STATUS;
    return 0;
  }
  return SendToHub(VARN_STATUS, word);
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
  int r = SendToHub(VARN_STDERR, line);
  std::free(line);
  return r;
}

extern "C" int varn_put_msg_in_queue(varnHandle h, int category, const char* data,
                                     int64_t length) noexcept {
  core::OnApplicationThread();
  const VarnEntry& row = VarnMessage[h];
  return transport::PutBack(row.address, row.local_address, data, category,
                            length > 0 ? static_cast<size_t>(length) : 0);
}

// ---- Waiting and receiving --------------------------------------------------

namespace {

int Wait(varnHandle h, uint32_t* category, char* buffer, uint32_t* length,
         uint32_t default_category, int force, bool take_put_back) {
  if (!EnterCall(h)) return 0;
  if (PeerDisabled(h) || (transport::ActiveChannel().SimulatesPeers() && force == 0)) {
    *category = default_category;
    if (buffer != nullptr) buffer[0] = '\0';
    *length = 0;
    return 1;
  }
  Row row(h);
  // Nothing can answer a wait on a row that is not in use (its peer exited
  // and was forgotten): it fails at once instead of waiting for ever.
  if (row.is(RowState::kFree)) {
    VarnErrorNo = VARN_E_CLOSED;
    return 0;
  }
  row.ClearLast();
  row.set_waiting(true);
  bool read;
  {
    transport::Lane only(h, {});
    if (take_put_back) transport::LaneTakesPutBack();
    read = transport::AwaitUntil([&row] {
      int last = row.last_category();
      if (last == VARN_NONE) return false;
      if (row.entry().immediate_intr_kill && (last == VARN_KILL || last == VARN_INTR)) {
        row.ClearLast();  // went to the callback; the wait goes on
        return false;
      }
      return true;
    });
  }
  row.set_waiting(false);
  if (!read) return 0;
  switch (row.last_category()) {
    case VARN_KILL:
    case VARN_INTR:
    case VARN_CMD:
    case VARN_DONE:
    case VARN_BEGIN:
    case VARN_DATA:
    case VARN_ERROR:
    case VARN_SRVR_ERR:
      *category = static_cast<uint32_t>(row.last_category());
      *length = static_cast<uint32_t>(row.LastLength());
      if (buffer != nullptr) row.CopyLastText(buffer);
      return 1;
    default:
      VarnErrorNo = VARN_E_CATEGORY;
      return 0;
  }
}

}  // namespace

extern "C" int varn_wait(varnHandle h, uint32_t* category, char* buffer, uint32_t* length,
                         uint32_t default_category, int force) noexcept {
  return Wait(h, category, buffer, length, default_category, force, false);
}

// Also takes, from the queue, what the application put back.
extern "C" int varn_wait_for_any_from_handle(varnHandle h, uint32_t* category, char* buffer,
                                             uint32_t* length, uint32_t default_category,
                                             int force) noexcept {
  VarnSigusr1Caught = 1;
  return Wait(h, category, buffer, length, default_category, force, true);
}

extern "C" int varn_recv_msg_len_new(varnHandle h, uint32_t* category, char* buffer,
                                     uint64_t* length) noexcept {
  core::OnApplicationThread();
  if (length != nullptr) *length = 0;
  if (VarnErrorNo != 0) return 0;
  if (!core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  if (PeerDisabled(h)) {
    VarnErrorNo = VARN_E_DISABLED;
    return 0;
  }
  Row row(h);
  *category = static_cast<uint32_t>(row.last_category());
  std::size_t n = row.CopyLastText(buffer);
  // The count includes the terminating NUL.
  if (length != nullptr && n > 0) *length = static_cast<uint64_t>(n) + 1;
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
  if (Row(h).recv_stream() == core::Stream::kStreaming) {
    return RecvData(h, category, buffer, -1, length, 1);
  }
  int cat = 0;
  size_t n = 0;
  int r = varn_recv_read_data_from_VarnInStreamData(h, &cat, buffer, &n);
  *category = static_cast<uint32_t>(cat);
  *length = static_cast<uint32_t>(n);
  return r;
}

// ---- Callback, loop -----------------------------------------------------------

extern "C" int varn_set_callback(VarnCallback callback) noexcept {
  core::OnApplicationThread();
  if (!State().initialised) {
    VarnErrorNo = VARN_E_NOT_INIT;
    return 0;
  }
  varnP_set_callback(callback);
  return 1;
}

extern "C" int varn_set_immediate_intr_kill_mode(varnHandle h, uint32_t flag) noexcept {
  core::OnApplicationThread();
  VarnErrorNo = 0;
  if (!core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  VarnMessage[h].immediate_intr_kill = flag;
  return 1;
}

extern "C" int KOnvtAccept(void) noexcept {
  return SendToHub(VARN_STATUS, varn::wire::StatusWord(VARN_STATUS_IDLE));
}

extern "C" void KOnvtMainLoop(void) noexcept {
  core::OnApplicationThread();
  if (!State().streams_ready) {
    varn::core::Diag(
        "KOnvtMainLoop: invalid stdio redirection, use -quon_debug or kodaemon, aborting...\n");
    return;
  }
  if (!KOnvtAccept()) return;
  for (;;) {
    varn_process_one_message();
    // Once the hub is gone nothing more can arrive: end the process rather
    // than spin on a channel that is closed. A channel that simulates its
    // peers (debug mode) ends at the end of its input the same way, and
    // still shows the exit notice.
    if (VarnErrorNo == VARN_E_DAEMON_GONE) {
      if (transport::ActiveChannel().SimulatesPeers()) VarnErrorNo = 0;
      varn_deinit();
    }
  }
}

extern "C" void KOMainLoop(void) noexcept { KOnvtMainLoop(); }

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
