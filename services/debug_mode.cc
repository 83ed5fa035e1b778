// Debug mode: input lines become messages from the developer at the
// terminal ("VarnDebugSrcStr"), and what the program sends is written as
// lines on standard output (and into the debug input file of a started
// program). Runs on the application's thread.
#include "services/debug_mode.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/diag.h"
#include "core/library_state.h"
#include "host/lorn_path.h"
#include "transport/input_thread.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::State;

constexpr int64_t kLineBlock = 1000000;
char g_source[] = "VarnDebugSrcStr";
char g_destination[] = "VarnDebugDesStr";

bool On() { return State().debug_flag; }

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

extern "C" int varn_debug_true(void) noexcept { return State().debug_flag ? 1 : 0; }

// At the end of the input nothing more can come: the call fails with 43,
// as if the hub were gone, so that waits end and the main loop finishes the
// run instead of reading a closed input for ever.
extern "C" int varn_debug_get_message_str(char** line, size_t* length) noexcept {
  if (!On()) return 0;
  for (;;) {
    char* block = nullptr;
    std::size_t n = 0;
    if (!varn::transport::TakeDebugLine(&block, &n)) {
      Diag("read failed\n");
      VarnErrorNo = VARN_E_DAEMON_GONE;
      return 0;
    }
    block[std::strcspn(block, "\r\n")] = '\0';
    if (Skippable(block)) {
      std::free(block);
      continue;
    }
    varn::transport::CountPacketTaken();
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
  if (!On()) return 0;
  VarnEntry& row = VarnMessage[h];
  if (!varn_util_strcpy(&row.local_address, destination) ||
      !varn_util_strcpy(&row.address, source)) {
    return 0;
  }
  row.last_category = static_cast<uint32_t>(category);
  std::free(row.last_data);
  row.last_data = nullptr;
  row.last_data_len = 0;
  if (payload != nullptr) {
    row.last_data = strdup(payload);
    if (row.last_data == nullptr) {
      VarnErrorNo = VARN_E_MALLOC;
      return 0;
    }
    row.last_data_len = static_cast<int64_t>(std::strlen(payload));
  }
  row.recv_stream = recv_stream;
  row.send_stream = send_stream;
  return 1;
}

// A capacity below the largest line (0 included: nothing could be copied)
// is refused with 34 and the size to offer, and no line is consumed. An END
// line hands back the text after the word, followed by two NULs, as a
// stream's END does outside debug mode.
extern "C" int varn_debug_read_data(varnHandle h, int* category, char* buffer, int64_t capacity,
                                    size_t* length) noexcept {
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
  VarnEntry& row = VarnMessage[h];
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
  if (!On()) return 0;
  VarnEntry& row = VarnMessage[h];
  FILE* file = row.debug_input != nullptr && row.debug_input != stderr ? row.debug_input : nullptr;
  if (category != VARN_DATA) {
    row.send_stream = 1;
    row.recv_stream = 1;
  }
  bool peer_done = false;
  switch (category) {
    case VARN_KILL:
      row.send_stream = 0;
      row.recv_stream = 0;
      row.state = ENTRY_FREE;
      row.last_category = VARN_SRVR_ERR;
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
      row.send_stream = 2;
      break;
    case VARN_END:
      OutLine(file, "END", payload, true);
      peer_done = true;
      break;
    case VARN_DATA:
      if (send_stream == 2) {
        row.send_stream = 2;
        Out(nullptr, payload ? payload : "");
      } else {
        OutLine(file, "DATA", payload ? payload : "", false);
      }
      break;
    case VARN_SRVR_ERR:
      row.send_stream = 0;
      row.recv_stream = 0;
      std::fputs("SRVR_ERR\n", stdout);
      std::fflush(stdout);
      varn::transport::EndProcess(0);
    default:
      break;
  }
  Out(file, "\n");
  std::fflush(stdout);
  if (file != nullptr) std::fflush(file);
  if (peer_done) {
    // The peer is taken as having done the command at once.
    row.last_category = VARN_DONE;
    varnP_call_callback(h);
    row.send_stream = 1;
  }
  return 1;
}

// A file name that does not fit the 256-byte name buffer is not used: the
// program's input then goes to standard output only, with the warning.
extern "C" int varn_debug_invoke_entry(varnHandle h, const char* program, const char* /*host*/,
                                       const char* /*args*/, uint32_t /*keep*/,
                                       const char* prefix) noexcept {
  if (!On()) return 0;
  VarnEntry& row = VarnMessage[h];
  row.state = ENTRY_ACTIVE;
  row.send_stream = 1;
  row.recv_stream = 1;
  row.last_category = 0;
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
      !varn_util_strcpy(&row.local_address, State().own_address) ||
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
