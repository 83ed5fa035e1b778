// The protocol step that every varn_send_msg runs: put the message on the
// wire, then wait as the category requires (acknowledgement, or the peer's
// exit after KILL), moving the stream states of the row.
//
// Runs on the application's thread with the send lock held (taken by
// varn_send_msg), or on the input thread during interrupt handling.
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "services/debug_mode.h"
#include "varn.h"

namespace {

int AcknowledgementWait(varnHandle h, int wait_flag) {
  varn_util_hold_sigusr1(1);
  int* set = nullptr;
  varn_queue_set_waitcat(&set, VARN_ACK, VARN_NAK, VARN_SRVR_ERR, 0);
  varn_queue_set_outband(h, set);
  VarnEntry& row = VarnMessage[h];
  row.last_category = 0;
  int result = 0;
  for (;;) {
    if (!varn_recv_read_and_parse_message(wait_flag)) break;
    uint32_t last = row.last_category;
    if (last == VARN_ACK) {
      result = 1;
      break;
    }
    if (last == VARN_NAK) {
      if (row.last_data_len != 0 && row.last_data != nullptr &&
          std::strcmp(row.last_data, "BUSY") == 0) {
        row.send_stream = 1;
        VarnErrorNo = VARN_E_RECEIVER_BUSY;
      }
      break;
    }
    if (last == VARN_SRVR_ERR) {
      VarnErrorNo = VARN_E_CLOSED;
      break;
    }
  }
  varn_queue_reset_outband();
  varn_queue_free_waitcat(&set);
  varn_util_release_sigusr1(1);
  return result;
}

int ExitWait(varnHandle h) {
  varn_queue_set_outband(h, nullptr);
  VarnEntry& row = VarnMessage[h];
  while (varn_recv_read_and_parse_message(1) && row.last_category != VARN_SRVR_ERR) {
  }
  row.send_stream = 0;
  row.recv_stream = 0;
  row.state = ENTRY_FREE;
  varn_queue_reset_outband();
  return 1;
}

}  // namespace

extern "C" int varnP_send_framed(varnHandle h, int category, const char* payload,
                                 size_t length) noexcept {
  VarnEntry& row = VarnMessage[h];
  if (category == VARN_DATA && row.send_stream == 2) {
    return varnP_data_batch_add(row.address, payload, length);
  }
  return varn_send_packet(row.address, row.local_address, category, payload, length);
}

extern "C" int varn_send_send_msg(varnHandle h, int category, const char* payload,
                                  size_t length) noexcept {
  if (!varn::core::ValidHandle(h) || VarnMessage[h].state != ENTRY_ACTIVE) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  VarnErrorNo = 0;
  VarnEntry& row = VarnMessage[h];
  if (varn_debug_send_message(h, category, payload, row.send_stream)) return 1;
  // IDLE before DONE or ERROR leaves: a peer that has the answer and asks
  // for the status at once must not find this process still BUSY.
  if (category == VARN_DONE || category == VARN_ERROR) varn_set_status(VARN_STATUS_IDLE, "");
  if (!varnP_send_framed(h, category, payload, length)) return 0;
  switch (category) {
    case VARN_KILL:
      row.last_category = 0;
      return ExitWait(h);
    case VARN_INTR:
    case VARN_DATA:
    case VARN_ENABLE:
    case VARN_DISABLE:
      return 1;
    case VARN_CMD:
      return AcknowledgementWait(h, 1);
    case VARN_DONE:
    case VARN_ERROR:
      return 1;
    case VARN_BEGIN:
      row.send_stream = 2;
      return AcknowledgementWait(h, 1);
    case VARN_END:
      row.send_stream = 1;
      return AcknowledgementWait(h, 1);
    case VARN_SRVR_ERR:
      row.send_stream = 0;
      row.recv_stream = 0;
      return AcknowledgementWait(h, 0);
    default:
      return 0;  // sent; no protocol step follows
  }
}
