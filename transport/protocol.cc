// The protocol step that every varn_send_msg runs: put the message on the
// wire, then wait as the category requires (acknowledgement, or the peer's
// exit after KILL), moving the stream states of the row.
//
// Runs on the application's thread with the send lock held (taken by
// varn_send_msg), or on the input thread during interrupt handling.
#include <cstring>

#include "core/rows.h"
#include "transport/await.h"
#include "transport/channel.h"
#include "transport/data_batch.h"
#include "transport/deadline.h"
#include "transport/hub_channel.h"
#include "varn.h"

namespace varn::transport {
namespace {

using core::Row;
using core::Stream;

constexpr CategorySet kAcknowledgement = {VARN_ACK, VARN_NAK, VARN_SRVR_ERR};

int AcknowledgementWait(Row& row, int wait_flag) REQUIRES(core::kLibrary) {
  do {
    if (!AwaitRow(row.handle(), kAcknowledgement, true, wait_flag)) return 0;
  } while (IsLateAcknowledgement(row));
  return AcknowledgementOutcome(row.handle());
}

// After KILL: every message of the peer is handled until its exit notice
// came (or reading failed); the row is free either way.
int ExitWait(Row& row) REQUIRES(core::kLibrary) {
  {
    Lane only(row.handle(), {});
    AwaitUntil([&row] { return row.last_category() == VARN_SRVR_ERR; });
  }
  row.set_streams(Stream::kClosed, Stream::kClosed);
  row.set_state(core::RowState::kFree);
  return 1;
}

}  // namespace

bool IsLateAcknowledgement(Row& row) {
  int last = row.last_category();
  return (last == VARN_ACK || last == VARN_NAK) &&
         TakeLate(LateAnswer::kAcknowledgement, row.entry().address);
}

int AcknowledgementOutcome(int h) {
  Row row(h);
  switch (row.last_category()) {
    case VARN_ACK:
      return 1;
    case VARN_NAK:
      if (row.LastLength() != 0 && row.entry().last_data != nullptr &&
          std::strcmp(row.entry().last_data, "BUSY") == 0) {
        row.set_send_stream(Stream::kReady);
        VarnErrorNo = VARN_E_RECEIVER_BUSY;
      }
      return 0;
    default:  // SRVR_ERR: the peer ended
      VarnErrorNo = VARN_E_CLOSED;
      return 0;
  }
}

int ProtocolStep(int h, int category, const char* payload, std::size_t length) {
  Row row(h);
  // IDLE before DONE or ERROR leaves: a peer that has the answer and asks
  // for the status at once must not find this process still BUSY.
  if (category == VARN_DONE || category == VARN_ERROR) varn_set_status(VARN_STATUS_IDLE, "");
  if (!varnP_send_framed(h, category, payload, length)) return 0;
  switch (category) {
    case VARN_KILL:
      row.ClearLast();
      return ExitWait(row);
    case VARN_INTR:
    case VARN_DATA:
    case VARN_ENABLE:
    case VARN_DISABLE:
    case VARN_DONE:
    case VARN_ERROR:
      return 1;
    case VARN_CMD:
      return AcknowledgementWait(row, 1);
    case VARN_BEGIN:
      row.set_send_stream(Stream::kStreaming);
      return AcknowledgementWait(row, 1);
    case VARN_END:
      row.set_send_stream(Stream::kReady);
      return AcknowledgementWait(row, 1);
    case VARN_SRVR_ERR:
      row.set_streams(Stream::kClosed, Stream::kClosed);
      return AcknowledgementWait(row, 0);
    default:
      return 0;  // sent; no protocol step follows
  }
}

}  // namespace varn::transport

extern "C" int varnP_send_framed(varnHandle h, int category, const char* payload,
                                 size_t length) noexcept {
  varn::core::OnApplicationThread();
  varn::core::Row row(h);
  if (category == VARN_DATA && row.send_stream() == varn::core::Stream::kStreaming) {
    return varn::transport::AddRecordFor(h, payload, length);
  }
  return varn_send_packet(row.entry().address, row.entry().local_address, category, payload,
                          length);
}

extern "C" int varn_send_send_msg(varnHandle h, int category, const char* payload,
                                  size_t length) noexcept {
  varn::core::OnApplicationThread();
  if (!varn::core::ValidHandle(h) || VarnMessage[h].state != ENTRY_ACTIVE) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  VarnErrorNo = 0;
  return varn::transport::ActiveChannel().SendToRow(h, category, payload, length);
}
