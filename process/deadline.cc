// The waits with a deadline: varn_wait_deadline, varn_call_deadline and
// varn_cancel. They wait like varn_wait and varn_send_msg, with every read
// bounded (transport/deadline.h), and when the deadline passes they ask the
// peer for its status, bounded too, to tell the caller why nothing came.
//
// All run on the application's thread.
#include <cstring>
#include <string>
#include <string_view>

#include "core/api_entry.h"
#include "core/rows.h"
#include "platform/system.h"
#include "process/sending.h"
#include "transport/await.h"
#include "transport/channel.h"
#include "transport/deadline.h"
#include "transport/hub_channel.h"
#include "transport/output.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

namespace core = varn::core;
namespace platform = varn::platform;
namespace transport = varn::transport;
namespace wire = varn::wire;
using core::Row;
using core::RowState;
using transport::CategorySet;

constexpr CategorySet kTerminal = {VARN_DONE, VARN_ERROR};
constexpr CategorySet kAcknowledgement = {VARN_ACK, VARN_NAK};
constexpr CategorySet kExit = {VARN_SRVR_ERR};
constexpr CategorySet kStatus = {VARN_STATUS};
// How long the status query at the deadline may take.
constexpr int kStatusBoundMinMs = 50;
constexpr int kStatusBoundMaxMs = 500;

// The caller's out parameters.
struct Out {
  uint32_t* category;
  char* buffer;
  uint32_t capacity;
  uint32_t* length;
  char* detail;
};

void Clear(const Out& out) {
  if (out.category != nullptr) *out.category = 0;
  if (out.length != nullptr) *out.length = 0;
  if (out.buffer != nullptr && out.capacity > 0) out.buffer[0] = '\0';
  if (out.detail != nullptr) out.detail[0] = '\0';
}

void CopyCut(char* to, std::size_t capacity, std::string_view text) {
  if (to == nullptr || capacity == 0) return;
  std::size_t n = text.size() < capacity - 1 ? text.size() : capacity - 1;
  if (n > 0) std::memcpy(to, text.data(), n);
  to[n] = '\0';
}

int Fail(const Out& out, int error, std::string_view detail = {}) {
  VarnErrorNo = error;
  CopyCut(out.detail, VARN_STATUS_TEXT_SIZE, detail);
  return 0;
}

// 80, with the peer's exit text while its exit notice is the row's last
// message (a row that exited earlier may have forgotten it).
int FailExited(Row& row, const Out& out) REQUIRES(core::kLibrary) {
  const char* text = row.last_category() == VARN_SRVR_ERR ? row.LastText() : nullptr;
  return Fail(out, VARN_E_PEER_EXITED, text != nullptr ? text : "");
}

// Hands the row's last message to the caller.
int Deliver(Row& row, const Out& out) REQUIRES(core::kLibrary) {
  if (out.category != nullptr) *out.category = static_cast<uint32_t>(row.last_category());
  if (out.length != nullptr) *out.length = static_cast<uint32_t>(row.LastLength());
  const char* text = row.LastText();
  CopyCut(out.buffer, out.capacity,
          text != nullptr ? std::string_view(text, row.LastLength()) : std::string_view());
  return 1;
}

// Where the answer of an expected message stands (debug mode, or a
// disabled peer): DONE, at once, as varn_wait gives there.
int DeliverDefault(const Out& out) {
  if (out.category != nullptr) *out.category = VARN_DONE;
  return 1;
}

enum class Outcome { kArrived, kExited, kDeadline, kFailed };

// Reads until one of `until`, or the peer's exit notice, is the row's last
// message, or the deadline passes. Only those of h's messages are taken
// meanwhile; its others wait in the queue for the calls that expect them.
Outcome AwaitWithin(Row& row, CategorySet until, std::int64_t deadline_ms)
    REQUIRES(core::kLibrary) {
  CategorySet taken = until.With(kExit);
  row.ClearLast();
  row.set_waiting_for_expected();
  bool read;
  bool passed;
  {
    transport::Lane only(row.handle(), taken);
    transport::ReadDeadline deadline(deadline_ms);
    read = transport::AwaitUntil([&row, taken] {
      int last = row.last_category();
      // An interrupt from the peer went to the callback; the wait goes on.
      if ((last == VARN_INTR || last == VARN_KILL) && !taken.contains(last)) {
        row.ClearLast();
        return false;
      }
      return taken.contains(last);
    });
    passed = deadline.Passed();
  }
  row.set_waiting(false);
  if (read) return until.contains(row.last_category()) ? Outcome::kArrived : Outcome::kExited;
  return passed ? Outcome::kDeadline : Outcome::kFailed;
}

// What the peer says at the deadline.
struct PeerState {
  // kArrived: the status answer came (status), or one of `until` did.
  Outcome outcome = Outcome::kFailed;
  bool status = false;
  int code = 0;      // VARN_STATUS_*
  std::string text;  // the status text after the word
};

// When the status query's answer is due: its bound after the deadline.
// A call that asks more than once (its acknowledgement came during the
// first query) shares the one bound, so that it returns within it.
std::int64_t StatusAnswerDue(std::int64_t deadline_ms, int timeout_ms) {
  int bound = timeout_ms < kStatusBoundMinMs   ? kStatusBoundMinMs
              : timeout_ms > kStatusBoundMaxMs ? kStatusBoundMaxMs
                                               : timeout_ms;
  return deadline_ms + bound;
}

bool SendStatusQuery(Row& row) REQUIRES(core::kLibrary) {
  return varn_send_packet(row.entry().address, row.entry().local_address, VARN_STATUS_Q, nullptr,
                          0) != 0;
}

// Waits until due_ms for the answer to a status query already sent, or for
// one of `until`, whichever comes first.
PeerState AwaitStatusAnswer(Row& row, CategorySet until, std::int64_t due_ms)
    REQUIRES(core::kLibrary) {
  PeerState state;
  state.outcome = AwaitWithin(row, until.With(kStatus), due_ms);
  bool answered = state.outcome == Outcome::kArrived && row.last_category() == VARN_STATUS &&
                  !until.contains(VARN_STATUS);
  if (answered) {
    std::string_view rest;
    const char* payload = row.LastText();
    state.status = true;
    // A status word it does not know counts as busy: the peer is alive and
    // has not answered.
    if (!wire::ParseStatusAnswer(payload != nullptr ? payload : "", &state.code, &rest)) {
      state.code = VARN_STATUS_BUSY;
    }
    state.text.assign(rest);
  }
  return state;
}

// An answer to the status query that did not come in time, or that
// something expected overtook, must not reach a later wait on this peer.
void DropStatusAnswer(Row& row, const PeerState& peer) REQUIRES(core::kLibrary) {
  if (!peer.status && peer.outcome != Outcome::kExited) {
    transport::NoteLate(transport::LateAnswer::kStatus, row.entry().address);
  }
}

// What the call returns once the status query is over: what came meanwhile,
// or the reason nothing did.
int Explain(Row& row, const PeerState& peer, const Out& out) REQUIRES(core::kLibrary) {
  switch (peer.outcome) {
    case Outcome::kArrived:
      if (!peer.status) {  // came during the query
        transport::IsLateAcknowledgement(row);
        return Deliver(row, out);
      }
      return Fail(out, peer.code == VARN_STATUS_IDLE ? VARN_E_PEER_IDLE : VARN_E_PEER_BUSY,
                  peer.text);
    case Outcome::kExited:
      return FailExited(row, out);
    case Outcome::kDeadline:
      return Fail(out, VARN_E_PEER_SILENT);
    case Outcome::kFailed:
      return 0;
  }
  return 0;
}

// Waits for `until` from the acknowledged (or never asked) peer, and at the
// deadline says why nothing came.
int FinishWait(Row& row, CategorySet until, std::int64_t deadline_ms, int timeout_ms,
               const Out& out) REQUIRES(core::kLibrary) {
  Outcome outcome = AwaitWithin(row, until, deadline_ms);
  if (outcome == Outcome::kArrived) {
    // An ACK or NAK the caller waited for is the one a command that gave
    // up on it left behind, if one did: the next command does not skip it.
    transport::IsLateAcknowledgement(row);
    return Deliver(row, out);
  }
  if (outcome == Outcome::kFailed) return 0;  // VarnErrorNo says why (43: the hub)
  if (outcome == Outcome::kExited) {
    return FailExited(row, out);
  }
  if (!SendStatusQuery(row)) return 0;
  PeerState peer = AwaitStatusAnswer(row, until, StatusAnswerDue(deadline_ms, timeout_ms));
  DropStatusAnswer(row, peer);
  return Explain(row, peer, out);
}

std::int64_t DeadlineAfter(int timeout_ms) {
  return platform::MonotonicMillis() + (timeout_ms > 0 ? timeout_ms : 0);
}

// Whether the peer is simulated or disabled: then nothing is awaited.
bool AnsweredAtOnce(varnHandle h) REQUIRES(core::kLibrary) {
  return transport::ActiveChannel().SimulatesPeers() || core::PeerDisabled(h);
}

}  // namespace

extern "C" int varn_wait_deadline(varnHandle h, uint64_t categories, int timeout_ms,
                                  uint32_t* category, char* buffer, uint32_t capacity,
                                  uint32_t* length, char* detail) noexcept {
  Out out{category, buffer, capacity, length, detail};
  Clear(out);
  if (!core::EnterCall(h)) return 0;
  if (AnsweredAtOnce(h)) return DeliverDefault(out);
  Row row(h);
  if (row.is(RowState::kFree)) return Fail(out, VARN_E_CLOSED);
  CategorySet until = categories == 0 ? kTerminal : CategorySet::FromMask(categories);
  return FinishWait(row, until, DeadlineAfter(timeout_ms), timeout_ms, out);
}

extern "C" int varn_call_deadline(varnHandle h, const char* command, int timeout_ms,
                                  uint32_t* category, char* buffer, uint32_t capacity,
                                  uint32_t* length, char* detail) noexcept {
  Out out{category, buffer, capacity, length, detail};
  Clear(out);
  if (!core::EnterCall(h)) return 0;
  std::int64_t deadline_ms = DeadlineAfter(timeout_ms);
  if (AnsweredAtOnce(h)) {
    // Debug mode shows the command as it would go out.
    if (!varn_send_msg(h, VARN_CMD, command, 0)) return 0;
    return DeliverDefault(out);
  }
  if (!varn::process::RowTakesMessage(h, VARN_CMD)) return 0;
  Row row(h);
  transport::SendLockUnlessExempt lock;
  const char* text = command != nullptr ? command : "";
  if (!varnP_send_framed(h, VARN_CMD, text, std::strlen(text))) return 0;
  Outcome outcome;
  do {
    outcome = AwaitWithin(row, kAcknowledgement, deadline_ms);
  } while (outcome == Outcome::kArrived && transport::IsLateAcknowledgement(row));
  if (outcome == Outcome::kFailed) return 0;
  if (outcome == Outcome::kExited) {
    return FailExited(row, out);
  }
  if (outcome == Outcome::kDeadline) {
    std::int64_t due_ms = StatusAnswerDue(deadline_ms, timeout_ms);
    if (!SendStatusQuery(row)) return 0;
    PeerState peer;
    do {
      peer = AwaitStatusAnswer(row, kAcknowledgement, due_ms);
    } while (peer.outcome == Outcome::kArrived && !peer.status &&
             transport::IsLateAcknowledgement(row));
    if (peer.outcome == Outcome::kFailed) return 0;
    if (peer.outcome == Outcome::kExited) {
      return FailExited(row, out);
    }
    if (peer.outcome == Outcome::kDeadline || peer.status) {
      // Given up without the command's acknowledgement: when it comes, it
      // must not answer the next command to this peer.
      DropStatusAnswer(row, peer);
      transport::NoteLate(transport::LateAnswer::kAcknowledgement, row.entry().address);
      // Silent; or it answered its status but its application has not
      // taken the command.
      return peer.status ? Fail(out, VARN_E_NO_ACK, peer.text) : Fail(out, VARN_E_PEER_SILENT);
    }
    // The acknowledgement came during the query, whose answer is still on
    // its way: the answer to the command, if it comes before the status
    // answer or the query's bound, is taken; else the status tells why not.
    if (!transport::AcknowledgementOutcome(h)) {
      DropStatusAnswer(row, peer);
      return 0;  // NAK (42 when busy), as varn_send_msg reports it
    }
    PeerState after = AwaitStatusAnswer(row, kTerminal, due_ms);
    DropStatusAnswer(row, after);
    return Explain(row, after, out);
  }
  if (!transport::AcknowledgementOutcome(h)) {
    // NAK (42 when busy), as varn_send_msg reports it.
    return 0;
  }
  return FinishWait(row, kTerminal, deadline_ms, timeout_ms, out);
}

extern "C" int varn_cancel(varnHandle h, const char* text, int timeout_ms, uint32_t* category,
                           char* buffer, uint32_t capacity, uint32_t* length,
                           char* detail) noexcept {
  Out out{category, buffer, capacity, length, detail};
  Clear(out);
  if (!core::EnterCall(h)) return 0;
  std::int64_t deadline_ms = DeadlineAfter(timeout_ms);
  if (AnsweredAtOnce(h)) {
    if (!varn_send_msg(h, VARN_INTR, text, 0)) return 0;
    return DeliverDefault(out);
  }
  Row row(h);
  // A peer that has ended has no command left to cancel: the INTR would
  // start a kept server again, or find no peer at all.
  bool ended = row.is(RowState::kExited) ||
               (row.is(RowState::kFree) && row.last_category() == VARN_SRVR_ERR);
  if (ended) return FailExited(row, out);
  if (row.is(RowState::kFree)) return Fail(out, VARN_E_CLOSED);
  if (!varn_send_msg(h, VARN_INTR, text, 0)) return 0;
  // A DONE or ERROR already queued is the one that ends the command: the
  // lane hands queued messages over first. The acknowledgement of a command
  // whose call gave up before it came is taken too: it belongs to the
  // command cancelled here, and must not answer the next one. A NAK ends
  // the command (it was refused), an ACK does not.
  for (;;) {
    int r = FinishWait(row, kTerminal.With(kAcknowledgement), deadline_ms, timeout_ms, out);
    if (r == 0 || row.last_category() != VARN_ACK) return r;
    Clear(out);
  }
}
