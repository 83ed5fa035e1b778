// Debug mode: a program runs alone from a terminal. Input lines become
// messages from the developer at the terminal ("VarnDebugSrcStr"), and what
// the program sends is written as lines on standard output (and into the
// debug input file of a program it would have started). Peers are not
// reached: starts, status queries and the answers to commands are
// simulated.
//
// Debug mode is a channel of the transport (transport/channel.h): it
// registers itself while the library loads, and varn_init makes it the
// active channel when -quon_debug is given. The varn_debug_ calls are its
// exported pieces; each returns 0, "not handled", when debug mode is off.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/rows.h"
#include "host/lorn_path.h"
#include "platform/io.h"
#include "transport/channel.h"
#include "transport/input_thread.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::Fixed;
using varn::core::State;
namespace core = varn::core;
namespace transport = varn::transport;

constexpr int64_t kLineBlock = 1000000;
// The longest input line; a longer one is handed on in pieces of this size,
// so nothing is lost and no buffer is overrun.
constexpr std::size_t kLineMax = 999999;
char g_source[] = "VarnDebugSrcStr";
char g_destination[] = "VarnDebugDesStr";

bool On() { return Fixed().debug_flag; }

bool Skippable(const char* line) {
  if (line[0] == '\0' || line[0] == '#') return true;
  for (const char* p = line; *p; ++p) {
    if (*p != ' ' && (*p < 9 || *p > 13)) return false;
  }
  return true;
}

// Writes text to standard output and, when given, to the debug input file.
void Out(FILE* file, const char* text) {
  std::fputs(text, stdout);
  if (file != nullptr) std::fputs(text, file);
}

void OutLine(FILE* file, const char* word, const char* payload, bool word_alone_when_empty) {
  if (payload == nullptr || (word_alone_when_empty && payload[0] == '\0')) {
    Out(file, word);
    return;
  }
  Out(file, word);
  Out(file, " ");
  Out(file, payload);
}

}  // namespace

extern "C" int varn_debug_true(void) noexcept { return On() ? 1 : 0; }

// At the end of the input nothing more can come: the call fails with 43,
// as if the hub were gone, so that waits end and the main loop finishes the
// run instead of reading a closed input for ever.
extern "C" int varn_debug_get_message_str(char** line, size_t* length) noexcept {
  varn::core::OnApplicationThread();
  if (!On()) return 0;
  for (;;) {
    transport::PacketBody body;
    if (!transport::TakeHandedOver(&body)) {
      Diag("read failed\n");
      VarnErrorNo = VARN_E_DAEMON_GONE;
      return 0;
    }
    char* block = body.data;
    block[std::strcspn(block, "\r\n")] = '\0';
    if (Skippable(block)) {
      std::free(block);
      continue;
    }
    *line = block;
    *length = std::strlen(block);
    return 1;
  }
}

extern "C" int varn_debug_parse_message(char* line, char** destination, char** source,
                                        int* category, char** payload) noexcept {
  if (!On()) return 0;
  *destination = g_destination;
  *source = g_source;
  char* blank = std::strchr(line, ' ');
  *payload = nullptr;
  if (blank != nullptr) {
    *blank = '\0';
    *payload = blank + 1;
  }
  int code = 0;
  if (!varn_util_category_to_int(line, &code)) {
    Diag("invalid category %s, line ignored\n", line);
    *category = 0;
  } else if (code != VARN_KILL && code != VARN_CMD && code != VARN_BEGIN && code != VARN_DATA) {
    Diag("category %s does not apply in debug mode line ignored\n", line);
    *category = 0;
  } else {
    *category = code;
  }
  return 1;
}

// The payload is kept as a copy of the row, so it stays readable after the
// line's block is released, until the next message replaces it.
extern "C" int varn_debug_save_data(varnHandle h, const char* destination, const char* source,
                                    int category, const char* payload, uint32_t recv_stream,
                                    uint32_t send_stream) noexcept {
  varn::core::OnApplicationThread();
  if (!On()) return 0;
  core::Row row(h);
  if (!row.Store(destination, source, category, payload,
                 payload != nullptr ? std::strlen(payload) : 0)) {
    return 0;
  }
  row.set_recv_stream(static_cast<core::Stream>(recv_stream));
  row.set_send_stream(static_cast<core::Stream>(send_stream));
  return 1;
}

// A capacity below the largest line (0 included: nothing could be copied)
// is refused with 34 and the size to offer, and no line is consumed. An END
// line hands back the text after the word, followed by two NULs, as a
// stream's END does outside debug mode.
extern "C" int varn_debug_read_data(varnHandle h, int* category, char* buffer, int64_t capacity,
                                    size_t* length) noexcept {
  varn::core::OnApplicationThread();
  if (!On()) return 0;
  if (capacity >= 0 && capacity < kLineBlock) {
    *length = kLineBlock;
    VarnErrorNo = VARN_E_TOO_LONG;
    return 1;
  }
  char* line = nullptr;
  std::size_t n = 0;
  if (!varn_debug_get_message_str(&line, &n)) {
    Diag("varn_debug_read_data\n");
    return 0;
  }
  VarnEntry& row = core::Row(h).entry();
  if (std::strncmp(line, "END", 3) == 0 && (line[3] == '\0' || line[3] == ' ')) {
    *category = VARN_END;
    const char* text = line[3] == ' ' ? line + 4 : "";
    std::size_t tn = std::strlen(text);
    std::memcpy(buffer, text, tn);
    buffer[tn] = '\0';
    buffer[tn + 1] = '\0';
    *length = tn;
    varn_util_strcpy(&row.last_data, text);
    row.last_data_len = static_cast<int64_t>(tn);
  } else {
    *category = VARN_DATA;
    std::memcpy(buffer, line, n + 1);
    *length = n;
  }
  std::free(line);
  return 1;
}

extern "C" int varn_debug_send_message(varnHandle h, int category, const char* payload,
                                       uint32_t send_stream) noexcept {
  varn::core::OnApplicationThread();
  if (!On()) return 0;
  core::Row row(h);
  FILE* input = row.entry().debug_input;
  FILE* file = input != nullptr && input != stderr ? input : nullptr;
  if (category != VARN_DATA) row.set_streams(core::Stream::kReady, core::Stream::kReady);
  bool peer_done = false;
  switch (category) {
    case VARN_KILL:
      // The peer is taken as gone.
      row.set_streams(core::Stream::kClosed, core::Stream::kClosed);
      row.set_state(core::RowState::kFree);
      row.set_last_category(VARN_SRVR_ERR);
      varnP_call_callback(h);
      Out(file, "KILL");
      break;
    case VARN_INTR:
      Out(nullptr, "INTR");
      break;
    case VARN_CMD:
      OutLine(file, "CMD", payload ? payload : "", false);
      peer_done = true;
      break;
    case VARN_DONE:
      OutLine(nullptr, "DONE", payload, true);
      varn_set_status(VARN_STATUS_IDLE, "");
      break;
    case VARN_ERROR:
      OutLine(nullptr, "ERROR", payload, true);
      varn_set_status(VARN_STATUS_IDLE, "");
      break;
    case VARN_BEGIN:
      OutLine(file, "BEGIN", payload ? payload : "", false);
      row.set_send_stream(core::Stream::kStreaming);
      break;
    case VARN_END:
      OutLine(file, "END", payload, true);
      peer_done = true;
      break;
    case VARN_DATA:
      if (static_cast<core::Stream>(send_stream) == core::Stream::kStreaming) {
        row.set_send_stream(core::Stream::kStreaming);
        Out(nullptr, payload ? payload : "");
      } else {
        OutLine(file, "DATA", payload ? payload : "", false);
      }
      break;
    case VARN_SRVR_ERR:
      row.set_streams(core::Stream::kClosed, core::Stream::kClosed);
      std::fputs("SRVR_ERR\n", stdout);
      std::fflush(stdout);
      transport::EndProcess(0);
    default:
      break;
  }
  Out(file, "\n");
  std::fflush(stdout);
  if (file != nullptr) std::fflush(file);
  if (peer_done) {
    // The peer is taken as having done the command at once.
    row.set_last_category(VARN_DONE);
    varnP_call_callback(h);
    row.set_send_stream(core::Stream::kReady);
  }
  return 1;
}

// A file name that does not fit the 256-byte name buffer is not used: the
// program's input then goes to standard output only, with the warning.
extern "C" int varn_debug_invoke_entry(varnHandle h, const char* program, const char* /*host*/,
                                       const char* /*args*/, uint32_t /*keep*/,
                                       const char* prefix) noexcept {
  varn::core::OnApplicationThread();
  if (!On()) return 0;
  core::Row r(h);
  VarnEntry& row = r.entry();
  r.set_state(core::RowState::kActive);
  r.set_streams(core::Stream::kReady, core::Stream::kReady);
  r.ClearLast();
  row.owned = 1;
  char name[256];
  int n = prefix != nullptr ? std::snprintf(name, sizeof name, "%s.%s", prefix, program)
                            : std::snprintf(name, sizeof name, "%s.XXXXXX", program);
  FILE* file = nullptr;
  if (n > 0 && static_cast<std::size_t>(n) < sizeof name) {
    file = prefix != nullptr ? varn::host::LornPath(name).fopen("a+")
                             : varn::host::LornPath::OpenUnique(name, "a+");
  }
  if (file != nullptr) {
    Diag("Program %s's input goes to file: %s\n", program, name);
    row.debug_input = file;
  } else {
    Diag("Warning: can't open '%s' -- ", name);
    Diag("Program %s's input goes to stderr\n", program);
  }
  if (!varn_util_strcpy(&row.name, program) ||
      !varn_util_strcpy(&row.local_address, Fixed().own_address) ||
      !varn_util_strcpy(&row.address, name)) {
    return 0;
  }
  return 1;
}

extern "C" int varn_debug_query_status(varnHandle /*h*/, uint32_t* status, char* text) noexcept {
  if (!On()) return 0;
  *status = VARN_STATUS_IDLE;
  std::strcpy(text, "In Debug Mode");
  return 1;
}

namespace {

// Standard input, line by line. A line that is only a carriage return and
// a line feed is not a line. At the end of the input the hand-over closes.
void LineLoop() {
  char* line = static_cast<char*>(std::malloc(kLineMax + 2));
  if (line == nullptr) {
    transport::CloseHandOver();
    return;
  }
  std::size_t used = 0;
  for (;;) {
    char c;
    long n = varn::platform::ReadSome(Fixed().quonin_fd, &c, 1);
    if (n <= 0) {
      if (n < 0) Diag("@@@ ReadFile() failed\n");  // the plain end of input is no failure
      break;
    }
    line[used++] = c;
    bool end = c == '\n' || used == kLineMax;
    if (!end) continue;
    if (used == 2 && line[0] == '\r' && line[1] == '\n') {
      used = 0;
      continue;
    }
    line[used] = '\0';
    int count = transport::NextInputCount();
    if (Fixed().trace) {
      Diag("@@@ + inComing[%d]=%s", count, line);
      Diag("@@@ + WriteFile[%d]=%s", count, line);
    }
    transport::PacketBody p{static_cast<char*>(std::malloc(used + 1)), used};
    if (p.data != nullptr) {
      std::memcpy(p.data, line, used + 1);
      transport::HandToApplication(p);
    }
    used = 0;
  }
  std::free(line);
  transport::CloseHandOver();
}

class DebugChannel final : public transport::Channel {
 public:
  void RunInput() override { LineLoop(); }

  bool TakeBody(char** body, std::size_t* length) override REQUIRES(core::kLibrary) {
    return varn_debug_get_message_str(body, length) != 0;
  }

  bool Split(char* body, std::size_t /*length*/, transport::Message* m) override
      REQUIRES(core::kLibrary) {
    m->body = body;
    varn_debug_parse_message(body, &m->destination, &m->source, &m->category, &m->payload);
    m->length = m->payload != nullptr ? std::strlen(m->payload) : 0;
    return true;
  }

  bool WritesPackets() const override { return false; }
  int WritePacket(char* /*packet*/, std::size_t /*size*/) override { return 0; }

  bool StoreInRow(int h, const char* destination, const char* source, int category,
                  const char* payload, std::size_t /*length*/, std::uint32_t recv_stream,
                  std::uint32_t send_stream) override REQUIRES(core::kLibrary) {
    return varn_debug_save_data(h, destination, source, category, payload, recv_stream,
                                send_stream) != 0;
  }

  int ReadStream(int h, int* category, char* buffer, std::int64_t size, std::size_t* length,
                 StreamRead /*how*/) override REQUIRES(core::kLibrary) {
    if (!varn_debug_read_data(h, category, buffer, size, length)) return 0;
    return VarnErrorNo == VARN_E_TOO_LONG ? 0 : 1;
  }

  int SendToRow(int h, int category, const char* payload, std::size_t /*length*/) override
      REQUIRES(core::kLibrary) {
    return varn_debug_send_message(h, category, payload, VarnMessage[h].send_stream);
  }

  bool SimulatesPeers() const override { return true; }

  int SimulateStart(int h, const char* program) override REQUIRES(core::kLibrary) {
    return varn_debug_invoke_entry(h, program, nullptr, nullptr, 0, State().opt_outfile);
  }

  int SimulateStatus(int h, std::uint32_t* status, char* text) override {
    return varn_debug_query_status(h, status, text);
  }
};

DebugChannel g_debug_channel;

// Registers the channel while the library loads.
struct Registration {
  Registration() { transport::RegisterDebugChannel(&g_debug_channel); }
} g_registration;

}  // namespace
