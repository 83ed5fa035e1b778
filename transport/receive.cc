// Packet input and parsing: taking one message, splitting it, deciding by
// category what it does, and reading DATA records back out of a stream.
//
// Runs on the application's thread, and on the input thread only while it
// holds the application's thread still (INTR and KILL).
#include "transport/receive.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/status.h"
#include "process/enable.h"
#include "services/debug_mode.h"
#include "transport/stream_buffer.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::State;
namespace stream = varn::transport::stream;
namespace wire = varn::wire;

char g_signal_buffer[1024];

bool IsQuon(const char* address) { return address != nullptr && std::strcmp(address, "quon") == 0; }

// Handle of the row for a message source: "find" never creates a row.
int Find(const char* source) { return varnP_find_entry_exact(source, 1); }
int FindOrCreate(const char* source) {
  return varnP_find_entry_exact(source, IfDetachProtocol != 0 ? 1 : 0);
}

int StoreMessage(int h, const char* destination, const char* source, int category,
                 const char* payload, uint32_t recv_stream, uint32_t send_stream, size_t length) {
  if (!varn::core::ValidHandle(h)) return 0;
  if (varn_debug_save_data(h, destination, source, category, payload, recv_stream, send_stream)) {
    return 1;
  }
  VarnEntry& row = VarnMessage[h];
  if (!varn_util_strcpy(&row.address, source) ||
      !varn_util_strcpy(&row.local_address, destination)) {
    return 0;
  }
  row.last_category = static_cast<uint32_t>(category);
  row.last_data_len = static_cast<int64_t>(length);
  // Inside a stream only data belongs to the stream: an answer that arrives
  // meanwhile (STATUS, ACK, DONE, ...) is kept in the row, not mixed into
  // the records.
  bool stream_data = category == VARN_DATA || category == VARN_STDERR || category == VARN_BROADCAST;
  if (row.recv_stream == 2 && stream_data) {
    if (!stream::Append(source, payload, length)) return 0;
    // The payload lives in the stream now; last_data must not keep an older
    // text that readers would take for one of last_data_len bytes.
    std::free(row.last_data);
    row.last_data = nullptr;
  } else {
    std::free(row.last_data);
    row.last_data = nullptr;
    if (length > 0 && payload != nullptr) {
      row.last_data = static_cast<char*>(std::malloc(length + 1));
      if (row.last_data == nullptr) {
        VarnErrorNo = VARN_E_MALLOC;
        return 0;
      }
      std::memcpy(row.last_data, payload, length);
      row.last_data[length] = '\0';
    }
  }
  row.recv_stream = recv_stream;
  row.send_stream = send_stream;
  return VarnErrorNo == 0;
}

// Stores the current streams of the row again (the usual case).
int Store(int h, const char* destination, const char* source, int category, const char* payload,
          size_t length) {
  if (!varn::core::ValidHandle(h)) return 0;
  return StoreMessage(h, destination, source, category, payload, VarnMessage[h].recv_stream,
                      VarnMessage[h].send_stream, length);
}

// Stores a KILL, INTR or SRVR_ERR text in the signal buffer. A text that
// does not fit is refused, unless `cut` says to keep its first 1023 bytes:
// an exit notice must end the row whatever its length, or every wait and
// kill on that peer would wait for a notice that was already dropped.
int StoreInterrupt(int h, int category, const char* payload, uint32_t recv_stream,
                   uint32_t send_stream, size_t length, bool cut = false) {
  if (!varn::core::ValidHandle(h)) return 0;
  if (length > sizeof g_signal_buffer - 1) {
    if (!cut) return 0;
    length = sizeof g_signal_buffer - 1;
  }
  if (length > 0 && payload != nullptr) std::memcpy(g_signal_buffer, payload, length);
  g_signal_buffer[payload != nullptr ? length : 0] = '\0';
  VarnEntry& row = VarnMessage[h];
  row.last_category = static_cast<uint32_t>(category);
  row.last_data_len = static_cast<int64_t>(length);
  row.recv_stream = recv_stream;
  row.send_stream = send_stream;
  return 1;
}

// Compares addresses, skipping a two-character prefix that starts with "!".
const char* Bare(const char* address) {
  if (address != nullptr && address[0] == '!' && address[1] != '\0') return address + 2;
  return address;
}

void AnswerStatusQuery(const char* source, const char* destination) {
  char text[VARN_STATUS_TEXT_SIZE];
  varn::core::StatusAnswer(text, sizeof text);
  varn_send_packet_signal(source, destination, VARN_STATUS, text, 0);
}

void AnswerAddressQuery(const char* source, const char* destination, const char* payload,
                        size_t length) {
  char name[512] = "";
  if (payload != nullptr && length > 0) {
    const char* start = std::strchr(payload, ':');
    start = start ? start + 1 : payload;
    std::snprintf(name, sizeof name, "%s", start);
    if (char* colon = std::strchr(name, ':')) *colon = '\0';
  }
  const char* answer = "";
  if (name[0] != '\0') {
    int count = varn::core::ActiveCount();
    for (int i = 0; i < count; ++i) {
      const VarnEntry& row = VarnMessage[i];
      if (row.state == ENTRY_ACTIVE && row.name != nullptr && std::strcmp(row.name, name) == 0) {
        answer = row.address ? row.address : "";
        break;
      }
    }
  }
  varn_send_packet_signal(source, destination, VARN_QUERY, answer[0] ? answer : nullptr, 0);
}

int HandleSrvrErr(const char* source, const char* payload, size_t length) {
  if (IsQuon(source)) {
    varnP_call_callback(-1);
    VarnErrorNo = VARN_E_DAEMON_GONE;
    return 0;
  }
  int count = varn::core::ActiveCount();
  int h = -1;
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state != ENTRY_FREE && row.address != nullptr &&
        std::strcmp(Bare(row.address), source) == 0) {
      h = i;
      break;
    }
  }
  if (h < 0) return 1;
  if (!StoreInterrupt(h, VARN_SRVR_ERR, payload, 0, 0, length, true)) return 1;
  VarnEntry& row = VarnMessage[h];
  if (row.keep_entry == 0) {
    int64_t kept = row.last_data_len;
    varnP_deinit_entry(h);
    row.last_category = VARN_SRVR_ERR;
    // The exit text stays readable (from the signal buffer) for the wait
    // or callback that takes this notice.
    row.last_data_len = kept;
  } else if (row.state != ENTRY_DISABLED) {
    row.state = ENTRY_EXITED;
  }
  varnP_call_callback(h);
  return 1;
}

// Splits in place and reports a parse failure as the receive side does.
int Split(char* body, size_t length, char** destination, char** source, int* category,
          char** payload, size_t* payload_length) {
  if (varn_debug_true()) {
    varn_debug_parse_message(body, destination, source, category, payload);
    *payload_length = *payload ? std::strlen(*payload) : 0;
    return 1;
  }
  return varn_recv_parse_message(body, length, destination, source, category, payload,
                                 payload_length);
}

// Answers of the hub to requests of this process. They are filed into the
// waiting reply row, never queued: a request made while a wait is on (from
// a callback, say) must see its answer.
bool IsHubAnswer(int category) {
  switch (category) {
    case VARN_FACK:
    case VARN_FNAK:
    case VARN_QUERYP:
    case VARN_AACK:
    case VARN_ANAK:
    case VARN_DNAK:
    case VARN_EACK:
    case VARN_ENAK:
    case VARN_EDONE:
    case VARN_EERROR:
      return true;
    default:
      return false;
  }
}

// Whether a new message must be parsed at once while the lane is on:
// interrupts, the hub's loss and its answers, and what the lane lets
// through. The lookup's error for an unknown source is not left behind.
bool ParsedAtOnce(const char* source, int category) {
  if (category == VARN_INTR) return true;
  if (IsQuon(source) && (category == VARN_SRVR_ERR || IsHubAnswer(category))) return true;
  int saved = VarnErrorNo;
  bool through = varn_queue_is_outband_chan(source, category) != 0;
  VarnErrorNo = saved;
  return through;
}

int TakeSplitAndHandle(bool lane) {
  char* body = nullptr;
  size_t length = 0;
  if (!varnP_take_packet(&body, &length, 1)) return 0;
  char *destination, *source, *payload;
  int category = 0;
  size_t payload_length = 0;
  int r;
  if (!Split(body, length, &destination, &source, &category, &payload, &payload_length)) {
    r = 0;
  } else if (lane && !ParsedAtOnce(source, category)) {
    r = varn_queue_put_msg(source, destination, payload, category, payload_length);
  } else {
    r = varn_parse_message(source, destination, payload, category, payload_length);
  }
  std::free(body);
  return r;
}

}  // namespace

namespace varn::transport {
const char* SignalBuffer() { return g_signal_buffer; }
}  // namespace varn::transport

extern "C" int varn_recv_init(void) noexcept {
  stream::Reset();
  return 1;
}

extern "C" int varn_recv_parse_message(char* body, size_t length, char** destination, char** source,
                                       int* category, char** payload,
                                       size_t* payload_length) noexcept {
  wire::Header header;
  if (wire::SplitBody(body, length, &header) != wire::WireError::kOk) {
    Diag("varn_recv_parse_message: VARN_E_PARSE\n");
    Diag("msgBuf=%s plen=%zu\n", body, length);
    VarnErrorNo = VARN_E_PARSE;
    return 0;
  }
  // Terminate the tokens in place, as strtok would.
  auto terminate = [](std::string_view token) {
    char* p = const_cast<char*>(token.data());
    p[token.size()] = '\0';
    return p;
  };
  int code = 0;
  bool known = wire::CategoryFromWord(header.word, &code);
  *destination = terminate(header.destination);
  *source = terminate(header.source);
  terminate(header.word);
  if (!known) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 0;
  }
  *category = code;
  if (header.has_payload) {
    *payload = body + header.payload_offset;
    *payload_length = header.payload_length;
  } else {
    *payload = nullptr;
    *payload_length = 0;
  }
  return 1;
}

extern "C" int varn_recv_read_and_parse_message(int wait) noexcept {
  char *source, *destination, *payload;
  int category = 0;
  size_t length = 0;
  int r;
  // The signal path (VarnIntrSignal) has no signal messages to take on this
  // platform: interrupts reach the input thread instead. Reading goes its
  // usual way whatever VarnIntrSignal says.
  if (varn_queue_outband_on()) {
    if (varn_queue_get_outband_msg(&source, &destination, &payload, &category, &length)) {
      r = varn_parse_message(source, destination, payload, category, length);
    } else {
      r = TakeSplitAndHandle(true);
    }
  } else if (varn_queue_get_msg(&source, &destination, &payload, &category, &length)) {
    r = varn_parse_message(source, destination, payload, category, length);
  } else {
    r = TakeSplitAndHandle(false);
  }
  if (wait) varn_remove_quonin_msg();
  return r;
}

extern "C" int varn_recv_find_entry_exact(const char* address, int exact) noexcept {
  return varnP_find_entry_exact(address, exact == 0 && IfDetachProtocol == 0 ? 0 : 1);
}

extern "C" int varn_parse_message(const char* source, const char* destination, const char* payload,
                                  int category, size_t length) noexcept {
  VarnErrorNo = 0;
  if (category < 1 || category > VARN_END_ACKSENT) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 1;
  }
  int h;
  switch (category) {
    case VARN_STATUS_Q:
      AnswerStatusQuery(source, destination);
      return 1;
    case VARN_STATUS:
      if (IsQuon(source) && length != 0 && payload != nullptr &&
          std::strcmp(payload, "IDLE") == 0) {
        VarnRecvedQuonStatusIdle = 1;
        return 1;
      }
      h = Find(source);
      if (h < 0) {
        VarnErrorNo = 0;
        return 1;
      }
      Store(h, destination, source, category, payload, length);
      return 1;
    case VARN_KILL:
      h = FindOrCreate(source);
      if (h < 0) {
        varn_deinit();
        return 0;
      }
      if (StoreInterrupt(h, category, payload, VarnMessage[h].recv_stream,
                         VarnMessage[h].send_stream, length)) {
        varnP_call_callback(h);
      }
      varn_deinit();
      return 0;
    case VARN_ACCEPT:
    case VARN_REJECT: {
      h = Find(source);
      if (h < 0) {
        VarnErrorNo = 0;
        return 1;
      }
      Store(h, destination, source, category, payload, length);
      VarnEntry& row = VarnMessage[h];
      if (row.state == ENTRY_STARTING) {
        if (category == VARN_ACCEPT) {
          row.state = ENTRY_ACTIVE;
          if (!varn_util_strcpy(&row.address, row.last_data)) return 0;
        } else {
          varnP_deinit_entry(h);
          row.last_category = VARN_REJECT;
          VarnErrorNo = VARN_E_INVOKE;
        }
      }
      return 1;
    }
    case VARN_INTR:
      h = Find(source);
      if (h >= 0 && StoreInterrupt(h, category, payload, VarnMessage[h].recv_stream,
                                   VarnMessage[h].send_stream, length)) {
        varnP_call_callback(h);
      }
      return 1;
    case VARN_CMD:
    case VARN_CMD_ACKSENT:
      h = FindOrCreate(source);
      if (h < 0) return 1;
      // BUSY before the ACK: once the sender has its ACK, a status query
      // (answered on the input thread) must not find this process IDLE.
      varn_set_status(VARN_STATUS_BUSY, "");
      if (category == VARN_CMD) varn_send_packet(source, destination, VARN_ACK, nullptr, 0);
      if (!Store(h, destination, source, VARN_CMD, payload, length)) return 1;
      varnP_call_callback(h);
      return 1;
    case VARN_DONE:
    case VARN_ERROR:
      h = Find(source);
      if (h < 0) return 1;
      if (!Store(h, destination, source, category, payload, length)) return 1;
      varnP_call_callback(h);
      return 1;
    case VARN_BEGIN:
    case VARN_BEGIN_ACKSENT:
      h = FindOrCreate(source);
      if (h < 0) return 1;
      if (category == VARN_BEGIN) varn_send_packet(source, destination, VARN_ACK, nullptr, 0);
      if (!StoreMessage(h, destination, source, VARN_BEGIN, payload, 2, VarnMessage[h].send_stream,
                        length)) {
        return 1;
      }
      stream::Reset();
      stream::SetSource(source);
      varn_set_status(VARN_STATUS_BUSY, "");
      varnP_call_callback(h);
      return 1;
    case VARN_END:
    case VARN_END_ACKSENT: {
      h = Find(source);
      if (h < 0) return 1;
      StoreMessage(h, destination, source, VARN_END, payload, 1, VarnMessage[h].send_stream,
                   length);
      const VarnEntry& row = VarnMessage[h];
      if (row.last_data != nullptr) {
        if (!stream::SetEndText(row.last_data)) return 1;
      } else {
        stream::FreeEndText();
      }
      if (row.address != nullptr && std::strcmp(row.address, stream::Source()) == 0) {
        stream::SetEnded();
      }
      if (category == VARN_END) varn_send_packet(source, destination, VARN_ACK, nullptr, 0);
      return 1;
    }
    case VARN_DATA:
    case VARN_STDERR:
    case VARN_BROADCAST:
      h = FindOrCreate(source);
      if (h < 0) return 1;
      Store(h, destination, source, category, payload, length);
      if (VarnMessage[h].recv_stream != 2) varnP_call_callback(h);
      return 1;
    case VARN_SRVR_ERR:
      return HandleSrvrErr(source, payload, length);
    case VARN_ACK:
    case VARN_NAK:
    case VARN_QUERY:
      h = Find(source);
      if (h < 0) {
        VarnErrorNo = 0;
        return 1;
      }
      Store(h, destination, source, category, payload, length);
      return 1;
    case VARN_QUERY_Q:
      AnswerAddressQuery(source, destination, payload, length);
      return 1;
    case VARN_ENABLE: {
      char text[1024];
      std::snprintf(text, sizeof text, "%s", payload ? payload : "");
      char* blank = std::strchr(text, ' ');
      if (blank == nullptr) {
        VarnErrorNo = VARN_E_DAEMON;
        varnP_enable_server_protocal(text, nullptr);
      } else {
        *blank = '\0';
        varnP_enable_server_protocal(text, blank + 1);
      }
      return 1;
    }
    case VARN_DISABLE:
      varnP_disable_server_protocal(payload ? payload : "");
      return 1;
    case VARN_NOTIFY:
      varnP_notify(payload ? payload : "");
      return 1;
    case VARN_FACK:
    case VARN_FNAK:
    case VARN_QUERYP:
    case VARN_AACK:
    case VARN_ANAK:
    case VARN_DNAK:
    case VARN_EACK:
    case VARN_ENAK:
    case VARN_EDONE:
    case VARN_EERROR:
      varn::core::FileAnswer(category, payload, length);
      return 1;
    case VARN_DETACH:
      h = Find(source);
      if (h < 0) return 1;
      if (!Store(h, destination, source, category, payload, length)) return 1;
      varnP_disconnect_process(h);
      varnP_call_callback(h);
      return 1;
    default:
      VarnErrorNo = VARN_E_CATEGORY;
      return 1;
  }
}

namespace {

void DeliverEnd(int* category, char* buffer, int64_t size, size_t* length) {
  *category = VARN_END;
  const char* text = stream::EndText();
  if (text != nullptr) {
    size_t n = std::strlen(text);
    // The END text is cut to the caller's buffer when its size is known.
    if (size >= 0 && n + 2 > static_cast<size_t>(size)) n = size >= 2 ? size - 2 : 0;
    if (size < 0 || size >= 2) {
      std::memcpy(buffer, text, n);
      buffer[n] = '\0';
      buffer[n + 1] = '\0';
    }
    *length = n;
  } else {
    *length = 0;
    if (size != 0) buffer[0] = '\0';
  }
  stream::Reset();
}

bool StreamSourceMatches(varnHandle h) {
  const char* address = VarnMessage[h].address;
  return address != nullptr && std::strcmp(address, stream::Source()) == 0;
}

}  // namespace

extern "C" int varn_receive_read_data(varnHandle h, int* category, char* buffer, int64_t size,
                                      size_t* length, int lane) noexcept {
  if (varn_debug_read_data(h, category, buffer, size, length)) {
    return VarnErrorNo == VARN_E_TOO_LONG ? 0 : 1;
  }
  if (!varn::core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  if (!StreamSourceMatches(h)) {
    VarnErrorNo = VARN_E_STREAM_SOURCE;
    return 0;
  }
  if (lane) varn_queue_set_outband(h, nullptr);
  while (stream::Unread() == 0) {
    // The END may already have been parsed (by a wait that stopped at it):
    // then the stream is over and reading on would wait for nothing.
    if (stream::Ended()) {
      if (lane) varn_queue_reset_outband();
      DeliverEnd(category, buffer, size, length);
      return 1;
    }
    VarnMessage[h].last_category = 0;
    if (!varn_recv_read_and_parse_message(1)) {
      if (lane) varn_queue_reset_outband();
      return 0;
    }
    uint32_t last = VarnMessage[h].last_category;
    if (last == VARN_END) {
      if (lane) varn_queue_reset_outband();
      DeliverEnd(category, buffer, size, length);
      return 1;
    }
    if (last == VARN_SRVR_ERR) {
      // The peer ended in the middle of its stream.
      if (lane) varn_queue_reset_outband();
      *category = VARN_SRVR_ERR;
      VarnErrorNo = VARN_E_CLOSED;
      return 0;
    }
  }
  if (lane) varn_queue_reset_outband();
  size_t n = 0;
  if (!stream::PeekLength(&n)) {
    VarnErrorNo = VARN_E_PARSE;  // corrupt stream data: the stream is dropped
    return 0;
  }
  if (size >= 0 && n >= static_cast<size_t>(size)) {
    VarnErrorNo = VARN_E_TOO_LONG;
    *length = n;
    return 0;
  }
  *category = VARN_DATA;
  if (!stream::TakeRecord(buffer, &n)) {
    VarnErrorNo = VARN_E_PARSE;
    return 0;
  }
  *length = n;
  return 1;
}

extern "C" int varn_recv_read_data(varnHandle h, int* category, char* buffer, int64_t size,
                                   size_t* length) noexcept {
  return varn_receive_read_data(h, category, buffer, size, length, 1);
}

extern "C" int varn_recv_read_data_from_VarnInStreamData(varnHandle h, int* category, char* buffer,
                                                         size_t* length) noexcept {
  if (varn_debug_read_data(h, category, buffer, -1, length)) {
    return VarnErrorNo == VARN_E_TOO_LONG ? 0 : 1;
  }
  if (!varn::core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  if (!StreamSourceMatches(h)) {
    VarnErrorNo = VARN_E_STREAM_SOURCE;
    return 0;
  }
  *category = VARN_DATA;
  size_t n = 0;
  if (!stream::TakeRecord(buffer, &n)) {
    VarnErrorNo = VARN_E_PARSE;
    return 0;
  }
  if (n > 0 || stream::Unread() > 0) {
    *length = n;
    return 1;
  }
  DeliverEnd(category, buffer, -1, length);
  return 1;
}

extern "C" void varn_recv_intr_signal_handler(void) noexcept {}
