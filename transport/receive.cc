// Packet input and parsing: taking one message, splitting it, deciding by
// category what it does, and reading DATA records back out of a stream.
//
// Runs on the application's thread, and on the input thread only while it
// holds the application's thread still (INTR and KILL).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/remote_file_table.h"
#include "core/rows.h"
#include "core/status.h"
#include "transport/await.h"
#include "transport/channel.h"
#include "transport/deadline.h"
#include "transport/hub_channel.h"
#include "transport/output.h"
#include "transport/stream_buffer.h"
#include "transport/upcalls.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace varn::transport {
namespace {

using core::Diag;
using core::Row;
using core::RowState;
using core::Stream;

bool IsHub(const char* address) { return address != nullptr && wire::kHubAddress == address; }

// Handle of the row for a message source: "find" never creates a row.
int Find(const char* source) REQUIRES(core::kLibrary) { return varnP_find_entry_exact(source, 1); }
int FindOrCreate(const char* source) REQUIRES(core::kLibrary) {
  return varnP_find_entry_exact(source, IfDetachProtocol != 0 ? 1 : 0);
}

// Stores through the active channel, keeping the row's stream states.
bool Store(int h, const char* destination, const char* source, int category, const char* payload,
           std::size_t length) REQUIRES(core::kLibrary) {
  if (!core::ValidHandle(h)) return false;
  const VarnEntry& e = VarnMessage[h];
  return ActiveChannel().StoreInRow(h, destination, source, category, payload, length,
                                    e.recv_stream, e.send_stream);
}

// Stores a message from a known source (a row is found, never created).
// Returns the row, or -1 for an unknown source, which is ignored without
// an error.
int StoreIfKnown(const char* destination, const char* source, int category, const char* payload,
                 std::size_t length) REQUIRES(core::kLibrary) {
  int h = Find(source);
  if (h < 0) {
    VarnErrorNo = 0;
    return -1;
  }
  Store(h, destination, source, category, payload, length);
  return h;
}

void AnswerStatusQuery(const char* source, const char* destination) REQUIRES(core::kLibrary) {
  char text[VARN_STATUS_TEXT_SIZE];
  int status = core::StatusSnapshot(text, sizeof text);
  std::string answer = wire::BuildStatusAnswer(status, text);
  varn_send_packet_signal(source, destination, VARN_STATUS, answer.c_str(), 0);
}

void AnswerAddressQuery(const char* source, const char* destination, const char* payload,
                        std::size_t length) REQUIRES(core::kLibrary) {
  std::string name;
  if (payload != nullptr && length > 0) {
    std::string_view owner, server;
    wire::ParseServerQuery(wire::WithoutPadding(std::string_view(payload, length)), &owner,
                           &server);
    name = server.substr(0, server.find('\0'));
  }
  const char* answer = "";
  if (!name.empty()) {
    int count = core::ActiveCount();
    for (int i = 0; i < count; ++i) {
      const VarnEntry& row = VarnMessage[i];
      if (row.state == ENTRY_ACTIVE && row.name != nullptr && name == row.name) {
        answer = row.address ? row.address : "";
        break;
      }
    }
  }
  varn_send_packet_signal(source, destination, VARN_QUERY, answer[0] ? answer : nullptr, 0);
}

// The first row in use whose address, without its route prefix, is the
// notice's source; -1 when none.
int FindNoticeRow(const char* source) REQUIRES(core::kLibrary) {
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state != ENTRY_FREE && row.address != nullptr &&
        wire::WithoutRoutePrefix(row.address) == source) {
      return i;
    }
  }
  return -1;
}

int HandleSrvrErr(const char* source, const char* payload, std::size_t length)
    REQUIRES(core::kLibrary) {
  if (IsHub(source)) {
    varnP_call_callback(-1);
    VarnErrorNo = VARN_E_DAEMON_GONE;
    return 0;
  }
  int h = FindNoticeRow(source);
  if (h < 0) return 1;
  Row row(h);
  // A notice longer than the signal buffer is cut, never dropped: the row
  // must end, or every wait and kill on the peer would wait for it.
  if (!row.StoreSignal(VARN_SRVR_ERR, payload, length, true)) return 1;
  row.set_streams(Stream::kClosed, Stream::kClosed);
  if (row.entry().keep_entry == 0) {
    row.ResetKeepingNotice();
  } else if (!row.is(RowState::kDisabled)) {
    row.set_state(RowState::kExited);
  }
  varnP_call_callback(h);
  return 1;
}

// Whether a new message must be parsed at once while the lane is on:
// interrupts, the hub's loss and its answers (a request made while a wait is
// on, from a callback say, must see its answer), and what the lane lets
// through. The lookup's error for an unknown source is not left behind.
bool ParsedAtOnce(const char* source, int category) REQUIRES(core::kLibrary) {
  if (category == VARN_INTR) return true;
  if (IsHub(source) && (category == VARN_SRVR_ERR || wire::IsHubAnswer(category))) return true;
  int saved = VarnErrorNo;
  bool through = varn_queue_is_outband_chan(source, category) != 0;
  VarnErrorNo = saved;
  return through;
}

int TakeSplitAndHandle(bool lane) REQUIRES(core::kLibrary) {
  Channel& channel = ActiveChannel();
  Message m;
  std::size_t body_length = 0;
  if (!channel.TakeBody(&m.body, &body_length)) return 0;
  int r;
  if (!channel.Split(m.body, body_length, &m)) {
    r = 0;
  } else if (lane && !ParsedAtOnce(m.source, m.category)) {
    r = varn_queue_put_msg(m.source, m.destination, m.payload, m.category, m.length);
  } else {
    r = varn_parse_message(m.source, m.destination, m.payload, m.category, m.length);
  }
  std::free(m.body);
  return r;
}

// Parses a message taken from the queue. The queue only lends it: the
// strings are freed at the queue's next hand-out, and parsing may read on
// before it is done (a row made for a new source asks the hub for the
// source's name and waits for the answer, taking queued messages first).
// So the parse works on copies of its own.
int ParseQueued(const char* source, const char* destination, const char* payload, int category,
                std::size_t length) REQUIRES(core::kLibrary) {
  std::string own_source = source ? source : "";
  std::string own_destination = destination ? destination : "";
  std::string own_payload = payload ? std::string(payload, length) : std::string();
  return varn_parse_message(source ? own_source.c_str() : nullptr,
                            destination ? own_destination.c_str() : nullptr,
                            payload ? own_payload.c_str() : nullptr, category, length);
}

void DeliverEnd(int* category, char* buffer, int64_t size, std::size_t* length)
    REQUIRES(core::kLibrary) {
  *category = VARN_END;
  const char* text = stream::EndText();
  if (text != nullptr) {
    std::size_t n = std::strlen(text);
    // The END text is cut to the caller's buffer when its size is known.
    if (size >= 0 && n + 2 > static_cast<std::size_t>(size)) n = size >= 2 ? size - 2 : 0;
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

// The last row found to be the stream's source, while neither its address
// nor the source has changed: every record is read with this check, the
// comparison is made once a packet.
struct SourceMatch {
  int row = -1;
  std::uint64_t texts = 0;
  std::uint64_t sources = 0;
};
SourceMatch g_source_match GUARDED_BY(core::kLibrary);

bool StreamSourceMatches(int h) REQUIRES(core::kLibrary) {
  SourceMatch& m = g_source_match;
  if (m.row == h && m.texts == core::TextChanges() && m.sources == stream::SourceChanges()) {
    return true;
  }
  const char* address = VarnMessage[h].address;
  if (address == nullptr || std::strcmp(address, stream::Source()) != 0) return false;
  m = {h, core::TextChanges(), stream::SourceChanges()};
  return true;
}

// Takes the next record of the stream buffer, which holds bytes: 1 with
// the record, or 0 with the error number.
int TakeRecord(int* category, char* buffer, int64_t size, std::size_t* length)
    REQUIRES(core::kLibrary) {
  std::size_t n = 0;
  switch (stream::Take(buffer, size, &n)) {
    case stream::Taken::kCorrupt:
      VarnErrorNo = VARN_E_PARSE;  // corrupt stream data: the stream is dropped
      return 0;
    case stream::Taken::kTooLong:
      VarnErrorNo = VARN_E_TOO_LONG;
      *length = n;
      return 0;
    case stream::Taken::kRecord:
      break;
  }
  *category = VARN_DATA;
  *length = n;
  return 1;
}

// The per-record path: a record of row h's stream already in the stream
// buffer is taken at once, as the active channel's stream read would (only
// the hub channel fills that buffer). 1 or 0 as that read returns; -1 when
// the read must go the whole way (nothing buffered, or another source).
int TakeBufferedRecord(int h, int* category, char* buffer, std::int64_t size, std::size_t* length)
    REQUIRES(core::kLibrary) {
  if (stream::Unread() == 0 || !core::ValidHandle(h) || !StreamSourceMatches(h)) return -1;
  return TakeRecord(category, buffer, size, length);
}

}  // namespace

bool StoreMessage(int h, const char* destination, const char* source, int category,
                  const char* payload, std::size_t length, std::uint32_t recv_stream,
                  std::uint32_t send_stream) {
  if (!core::ValidHandle(h)) return false;
  Row row(h);
  // Inside a stream only data belongs to the stream: an answer that arrives
  // meanwhile (STATUS, ACK, DONE, ...) is kept in the row, not mixed into
  // the records.
  bool stream_data = category == VARN_DATA || category == VARN_STDERR || category == VARN_BROADCAST;
  bool ok;
  if (row.recv_stream() == Stream::kStreaming && stream_data) {
    ok = row.StoreWithoutText(destination, source, category, length) &&
         stream::Append(source, payload, length);
  } else {
    ok = row.Store(destination, source, category, payload, length);
  }
  row.set_recv_stream(static_cast<Stream>(recv_stream));
  row.set_send_stream(static_cast<Stream>(send_stream));
  return ok && VarnErrorNo == 0;
}

int ReadStreamRecord(int h, int* category, char* buffer, int64_t size, std::size_t* length,
                     Channel::StreamRead how) {
  if (!core::ValidHandle(h)) {
    VarnErrorNo = VARN_E_BAD_HANDLE;
    return 0;
  }
  if (!StreamSourceMatches(h)) {
    VarnErrorNo = VARN_E_STREAM_SOURCE;
    return 0;
  }
  if (how == Channel::StreamRead::kArrived) {
    // Only what is in the stream buffer: a record, or the end once the
    // buffer is used up.
    *category = VARN_DATA;
    std::size_t n = 0;
    if (stream::Take(buffer, -1, &n) != stream::Taken::kRecord) {
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
  if (stream::Unread() == 0) {
    Row row(h);
    bool ended = false;
    bool peer_gone = false;
    bool read_one = false;
    // The END may already have been parsed (by a wait that stopped at it):
    // then the stream is over and reading on would wait for nothing.
    auto done = [&]() REQUIRES(core::kLibrary) {
      if (stream::Unread() > 0) return true;
      ended = stream::Ended() || (read_one && row.last_category() == VARN_END);
      peer_gone = read_one && row.last_category() == VARN_SRVR_ERR;
      if (ended || peer_gone) return true;
      row.ClearLast();
      read_one = true;
      return false;
    };
    bool read = true;
    if (how == Channel::StreamRead::kLane) {
      Lane only(h, {});
      read = AwaitUntil(done);
    } else {
      read = AwaitUntil(done);
    }
    if (!read) return 0;
    if (stream::Unread() == 0 && ended) {
      DeliverEnd(category, buffer, size, length);
      return 1;
    }
    if (stream::Unread() == 0 && peer_gone) {
      // The peer ended in the middle of its stream.
      *category = VARN_SRVR_ERR;
      VarnErrorNo = VARN_E_CLOSED;
      return 0;
    }
  }
  return TakeRecord(category, buffer, size, length);
}

}  // namespace varn::transport

namespace transport = varn::transport;
namespace stream = varn::transport::stream;
namespace wire = varn::wire;
using varn::core::Row;
using varn::core::Stream;

extern "C" int varn_recv_init(void) noexcept {
  varn::core::OnApplicationThread();
  stream::Reset();
  return 1;
}

extern "C" int varn_recv_parse_message(char* body, size_t length, char** destination, char** source,
                                       int* category, char** payload,
                                       size_t* payload_length) noexcept {
  wire::Header header;
  if (wire::SplitBody(body, length, &header) != wire::WireError::kOk) {
    varn::core::Diag("varn_recv_parse_message: VARN_E_PARSE\n");
    varn::core::Diag("msgBuf=%s plen=%zu\n", body, length);
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

// Reading takes queued messages first (those the lane lets through, while
// a wait's lane is on), then new ones. VarnIntrSignal is not looked at: no
// signal message is ever stored (the input thread handles INTR and KILL as
// they arrive), so there is nothing for a signal path to take.
extern "C" int varn_recv_read_and_parse_message(int wait) noexcept {
  varn::core::OnApplicationThread();
  char *source, *destination, *payload;
  int category = 0;
  size_t length = 0;
  int r;
  if (varn_queue_outband_on()) {
    if (varn_queue_get_outband_msg(&source, &destination, &payload, &category, &length)) {
      r = transport::ParseQueued(source, destination, payload, category, length);
    } else {
      r = transport::TakeSplitAndHandle(true);
    }
  } else if (varn_queue_get_msg(&source, &destination, &payload, &category, &length)) {
    r = transport::ParseQueued(source, destination, payload, category, length);
  } else {
    r = transport::TakeSplitAndHandle(false);
  }
  if (wait) varn_remove_quonin_msg();
  return r;
}

extern "C" int varn_recv_find_entry_exact(const char* address, int exact) noexcept {
  return varnP_find_entry_exact(address, exact == 0 && IfDetachProtocol == 0 ? 0 : 1);
}

extern "C" int varn_parse_message(const char* source, const char* destination, const char* payload,
                                  int category, size_t length) noexcept {
  varn::core::OnApplicationThread();
  VarnErrorNo = 0;
  if (category < 1 || category > VARN_END_ACKSENT) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 1;
  }
  if (wire::IsHubAnswer(category)) {
    // Filed into the row that waits for an answer; none waits: dropped.
    varn::core::FileAnswer(category, payload, length);
    return 1;
  }
  transport::Channel& channel = transport::ActiveChannel();
  int h;
  switch (category) {
    case VARN_STATUS_Q:
      transport::AnswerStatusQuery(source, destination);
      return 1;
    case VARN_STATUS:
      if (transport::IsHub(source) && length != 0 && payload != nullptr &&
          std::strcmp(payload, wire::StatusWord(VARN_STATUS_IDLE)) == 0) {
        VarnRecvedQuonStatusIdle = 1;
        return 1;
      }
      // The answer to a query whose wait gave up at its deadline.
      if (transport::TakeLate(transport::LateAnswer::kStatus, source)) return 1;
      transport::StoreIfKnown(destination, source, category, payload, length);
      return 1;
    case VARN_KILL: {
      h = transport::FindOrCreate(source);
      if (h >= 0) {
        Row row(h);
        if (row.StoreSignal(category, payload, length, false)) varnP_call_callback(h);
      }
      transport::CallShutDown();
      return 0;
    }
    case VARN_ACCEPT:
    case VARN_REJECT: {
      h = transport::StoreIfKnown(destination, source, category, payload, length);
      if (h < 0) return 1;
      Row row(h);
      if (row.is(varn::core::RowState::kStarting)) {
        if (category == VARN_ACCEPT) {
          row.set_state(varn::core::RowState::kActive);
          if (!varn_util_strcpy(&row.entry().address, row.entry().last_data)) return 0;
        } else {
          row.Reset();
          row.set_last_category(VARN_REJECT);
          VarnErrorNo = VARN_E_INVOKE;
        }
      }
      return 1;
    }
    case VARN_INTR:
      h = transport::Find(source);
      if (h >= 0 && Row(h).StoreSignal(category, payload, length, false)) varnP_call_callback(h);
      return 1;
    case VARN_CMD:
    case VARN_CMD_ACKSENT:
      h = transport::FindOrCreate(source);
      if (h < 0) return 1;
      // BUSY before the ACK: once the sender has its ACK, a status query
      // (answered on the input thread) must not find this process IDLE.
      varn_set_status(VARN_STATUS_BUSY, "");
      if (category == VARN_CMD) transport::SendAcknowledgement(source, destination);
      if (!transport::Store(h, destination, source, VARN_CMD, payload, length)) return 1;
      varnP_call_callback(h);
      return 1;
    case VARN_DONE:
    case VARN_ERROR:
      h = transport::Find(source);
      if (h < 0) return 1;
      if (!transport::Store(h, destination, source, category, payload, length)) return 1;
      varnP_call_callback(h);
      return 1;
    case VARN_BEGIN:
    case VARN_BEGIN_ACKSENT:
      h = transport::FindOrCreate(source);
      if (h < 0) return 1;
      if (category == VARN_BEGIN) transport::SendAcknowledgement(source, destination);
      if (!channel.StoreInRow(h, destination, source, VARN_BEGIN, payload, length,
                              static_cast<uint32_t>(Stream::kStreaming),
                              VarnMessage[h].send_stream)) {
        return 1;
      }
      stream::Reset();
      stream::SetSource(source);
      varn_set_status(VARN_STATUS_BUSY, "");
      varnP_call_callback(h);
      return 1;
    case VARN_END:
    case VARN_END_ACKSENT: {
      h = transport::Find(source);
      if (h < 0) return 1;
      channel.StoreInRow(h, destination, source, VARN_END, payload, length,
                         static_cast<uint32_t>(Stream::kReady), VarnMessage[h].send_stream);
      const VarnEntry& row = VarnMessage[h];
      if (row.last_data != nullptr) {
        if (!stream::SetEndText(row.last_data)) return 1;
      } else {
        stream::FreeEndText();
      }
      if (row.address != nullptr && std::strcmp(row.address, stream::Source()) == 0) {
        stream::SetEnded();
      }
      if (category == VARN_END) transport::SendAcknowledgement(source, destination);
      return 1;
    }
    case VARN_DATA:
    case VARN_STDERR:
    case VARN_BROADCAST:
      h = transport::FindOrCreate(source);
      if (h < 0) return 1;
      transport::Store(h, destination, source, category, payload, length);
      if (Row(h).recv_stream() != Stream::kStreaming) varnP_call_callback(h);
      return 1;
    case VARN_SRVR_ERR:
      return transport::HandleSrvrErr(source, payload, length);
    case VARN_ACK:
    case VARN_NAK:
    case VARN_QUERY:
      transport::StoreIfKnown(destination, source, category, payload, length);
      return 1;
    case VARN_QUERY_Q:
      transport::AnswerAddressQuery(source, destination, payload, length);
      return 1;
    case VARN_ENABLE: {
      std::string text = payload ? payload : "";
      std::size_t blank = text.find(' ');
      if (blank == std::string::npos) {
        VarnErrorNo = VARN_E_DAEMON;
        transport::CallEnable(text.c_str(), nullptr);
      } else {
        transport::CallEnable(text.substr(0, blank).c_str(), text.c_str() + blank + 1);
      }
      return 1;
    }
    case VARN_DISABLE:
      transport::CallDisable(payload ? payload : "");
      return 1;
    case VARN_NOTIFY:
      transport::CallNotify(payload ? payload : "");
      return 1;
    case VARN_DETACH:
      h = transport::Find(source);
      if (h < 0) return 1;
      if (!transport::Store(h, destination, source, category, payload, length)) return 1;
      transport::CallDisconnect(h);
      varnP_call_callback(h);
      return 1;
    default:
      VarnErrorNo = VARN_E_CATEGORY;
      return 1;
  }
}

extern "C" int varn_receive_read_data(varnHandle h, int* category, char* buffer, int64_t size,
                                      size_t* length, int lane) noexcept {
  varn::core::OnApplicationThread();
  using How = transport::Channel::StreamRead;
  int taken = transport::TakeBufferedRecord(h, category, buffer, size, length);
  if (taken >= 0) return taken;
  return transport::ActiveChannel().ReadStream(h, category, buffer, size, length,
                                               lane != 0 ? How::kLane : How::kNoLane);
}

extern "C" int varn_recv_read_data(varnHandle h, int* category, char* buffer, int64_t size,
                                   size_t* length) noexcept {
  return varn_receive_read_data(h, category, buffer, size, length, 1);
}

extern "C" int varn_recv_read_data_from_VarnInStreamData(varnHandle h, int* category, char* buffer,
                                                         size_t* length) noexcept {
  varn::core::OnApplicationThread();
  return transport::ActiveChannel().ReadStream(h, category, buffer, -1, length,
                                               transport::Channel::StreamRead::kArrived);
}

extern "C" void varn_recv_intr_signal_handler(void) noexcept {}
