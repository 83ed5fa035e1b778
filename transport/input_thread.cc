// The input thread and the error-forwarding thread.
//
// Thread ownership:
//   - g_channel: producer the input thread, consumer the application's
//     thread (its own mutex, see packet_channel.h).
//   - g_waiting: the waiting-packet count, an atomic (it stands for the
//     message counter lock).
//   - g_input_started, g_error_thread: set on the application's thread
//     (varn_init, varn_deinit).
//   - g_input_thread_id: written once by the input thread, read by any.
//   - everything of the library (rows, queue, receive side): touched by the
//     input thread only between ThreadHold::Hold() and Release(), while the
//     application's thread is parked.
#include "transport/input_thread.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/status.h"
#include "platform/io.h"
#include "platform/system.h"
#include "platform/thread.h"
#include "services/debug_mode.h"
#include "transport/output.h"
#include "transport/packet_channel.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::State;
using varn::transport::PacketBody;
namespace platform = varn::platform;
namespace wire = varn::wire;

varn::transport::PacketChannel* g_channel = nullptr;  // created once, never destroyed
std::atomic<int> g_waiting{0};
bool g_input_started = false;
platform::JoinableThread g_error_thread;  // application's thread
std::atomic<platform::ThreadId> g_input_thread_id{0};

// How long the input thread waits for the application's thread to park
// before it parks it where it is (and again before it gives up).
constexpr int kHoldWaitMs = 1000;
// How long the end of the process may take in exit handlers when it ends
// from the input thread, before it is ended without them.
constexpr int kExitWatchdogMs = 2000;
// How long varn_deinit waits for the error-forwarding thread to pass on
// what was written before the end.
constexpr int kErrorDrainMs = 2000;
// Counters for the trace lines.
int g_input_count = 0;       // input thread
int g_taken_count = 0;       // application's thread
int g_handler_count = 0;     // application's thread
int g_error_pipe_read = -1;  // read end of the error pipe (socket mode)

constexpr std::size_t kDebugLineMax = 999999;

// Reads exactly count bytes from the channel to the hub. False when the
// channel ended or failed first.
bool ReadChannel(void* buf, std::size_t count) {
  std::size_t got = 0;
  while (got < count) {
    std::size_t n = 0;
    if (!read_file_win(State().quonin_fd, static_cast<char*>(buf) + got, count - got, &n) ||
        n == 0) {
      return false;
    }
    got += n;
  }
  return true;
}

// The hub's loss as a packet from "quon": what the application's thread
// takes once the channel has ended.
PacketBody HubLossPacket() {
  const char* own = State().own_address;
  std::size_t len = std::strlen(own) + std::strlen(" quon SRVR_ERR");
  PacketBody p;
  p.data = static_cast<char*>(std::malloc(len + 1));
  if (p.data != nullptr) {
    std::snprintf(p.data, len + 1, "%s quon SRVR_ERR", own);
    p.length = len;
  }
  return p;
}

// Reads one whole packet from the channel. Returns false at the end of the
// channel; a packet that cannot be allocated is read and discarded, and
// *packet stays empty.
enum class ReadResult { kPacket, kSkipped, kEnd };
ReadResult ReadPacket(PacketBody* packet, bool input_thread) {
  char digits[wire::kLengthDigits + 1] = {};
  if (State().trace && input_thread) {
    Diag("@@@ Thread=%u ReadFile(1)...\n", platform::CurrentThreadId());
  }
  if (!ReadChannel(digits, wire::kLengthDigits)) return ReadResult::kEnd;
  std::size_t length = 0;
  if (wire::ParseLength(digits, &length) != wire::WireError::kOk) {
    // A length field that is not six digits means the stream is out of
    // step; nothing after it can be trusted, so it is treated as the end.
    Diag("@@@ Thread=%u varnP_thread: bad length field \"%s\", channel closed\n",
         platform::CurrentThreadId(), digits);
    return ReadResult::kEnd;
  }
  char* body = static_cast<char*>(std::malloc(length + 1));
  if (body == nullptr) {
    Diag("@@@ Thread=%u varnP_thread(2): malloc failed %d byte buffer\n",
         platform::CurrentThreadId(), static_cast<int>(length));
    char sink[4096];
    while (length > 0) {
      std::size_t piece = length < sizeof sink ? length : sizeof sink;
      if (!ReadChannel(sink, piece)) return ReadResult::kEnd;
      length -= piece;
    }
    return ReadResult::kSkipped;
  }
  if (State().trace && input_thread) {
    Diag("@@@ Thread=%u ReadFile(2)...\n", platform::CurrentThreadId());
  }
  if (!ReadChannel(body, length)) {
    std::free(body);
    return ReadResult::kEnd;
  }
  body[length] = '\0';
  packet->data = body;
  packet->length = length;
  return ReadResult::kPacket;
}

void PushForApplication(PacketBody packet) {
  g_waiting.fetch_add(1);
  varn_post_quonin_msg();
  g_channel->Push(packet);
}

// Answers STATUS? from the status the application's thread last set,
// without holding it: a busy or sleeping process answers at once and its
// sleep is not cut short.
void AnswerStatusQuery(const wire::Header& header) {
  char text[VARN_STATUS_TEXT_SIZE];
  varn::core::StatusAnswer(text, sizeof text);
  std::string destination(header.source);
  std::string source(header.destination);
  varn::transport::WireOnlyScope wire_only;
  varn::transport::SendSmallPacketQuiet(destination.c_str(), source.c_str(), wire::kStatus, text,
                                        0);
}

void HandleInterrupt(PacketBody packet, int category) {
  platform::ThreadHold::Result held = platform::ThreadHold::Hold(kHoldWaitMs);
  if (held == platform::ThreadHold::Result::kFailed) {
    // The application's thread does not let itself be held (it blocks the
    // hold signal). An INTR then reaches it at its next read, like any
    // message; a KILL ends the process without touching library state.
    if (category == wire::kIntr) {
      PushForApplication(packet);
      return;
    }
    Diag("@@@ Thread=%u varnP_thread_quonin(2): KILL without holding the application\n",
         platform::CurrentThreadId());
    std::free(packet.data);
    varn::transport::EndProcess(0);
  }
  if (State().trace && (category == wire::kKill || category == wire::kIntr)) {
    Diag("@@@ Thread=%u <<< quonin <--- [%s]\n", platform::CurrentThreadId(), packet.data);
  }
  // The held thread may be in the middle of a call that looks at
  // VarnErrorNo; an INTR leaves it as it was.
  int saved_error = VarnErrorNo;
  // Parked inside a deferred section, the held thread may own the wire
  // lock in the middle of a packet: nothing can be written until it goes on.
  varn::transport::SetInterruptContext(true, held == platform::ThreadHold::Result::kHeldInSection);
  char *destination, *source, *payload;
  int parsed_category = 0;
  std::size_t payload_length = 0;
  if (!varn_recv_parse_message(packet.data, packet.length, &destination, &source, &parsed_category,
                               &payload, &payload_length)) {
    if (VarnErrorNo != 0) {
      Diag("@@@ Thread=%u varnP_thread_quonin(2): INTR processing failed: VarnErrorNo=%d\n",
           platform::CurrentThreadId(), VarnErrorNo);
    }
  } else if (!varn_parse_message(source, destination, payload, parsed_category, payload_length) &&
             VarnErrorNo != 0) {
    Diag("@@@ Thread=%u varnP_thread_quonin(2): INTR processing failed: VarnErrorNo=%d\n",
         platform::CurrentThreadId(), VarnErrorNo);
  }
  varn::transport::SetInterruptContext(false);
  std::free(packet.data);
  if (category == wire::kKill) varn::transport::EndProcess(0);
  if (VarnErrorNo != VARN_E_DAEMON_GONE) VarnErrorNo = saved_error;
  platform::ThreadHold::Release();
}

void EndOfInput() {
  g_channel->PushLast(HubLossPacket());
  g_channel->Close();
}

void PacketLoop() {
  for (;;) {
    PacketBody packet;
    ReadResult r = ReadPacket(&packet, true);
    if (r == ReadResult::kEnd) {
      EndOfInput();
      return;
    }
    if (r == ReadResult::kSkipped) continue;
    wire::Header header;
    if (wire::SplitBody(packet.data, packet.length, &header) != wire::WireError::kOk) {
      Diag("@@@ Thread=%u varnP_thread(2): bad packet received : length=%06d buffer=%s\n",
           platform::CurrentThreadId(), static_cast<int>(packet.length), packet.data);
      std::free(packet.data);
      continue;
    }
    if (State().trace) {
      Diag("@@@ Thread=%u + inComing[%d]=%06zu%s\n", platform::CurrentThreadId(), g_input_count,
           packet.length, packet.data);
    }
    int category = wire::kNone;
    wire::CategoryFromWord(header.word, &category);
    if (category == wire::kKill || category == wire::kIntr) {
      HandleInterrupt(packet, category);
    } else if (category == wire::kStatusQuery) {
      // Answered here so that a process busy in its own code (a server
      // computing a long answer) still reports BUSY and its progress text.
      if (State().trace) {
        Diag("@@@ Thread=%u <<< quonin <--- [%s]\n", platform::CurrentThreadId(), packet.data);
      }
      AnswerStatusQuery(header);
      std::free(packet.data);
    } else if (category == wire::kPing) {
      if (State().trace) {
        Diag("@@@ Thread=%u <<< quonin <--- [%06zu%s]\n", platform::CurrentThreadId(),
             packet.length, packet.data);
      }
      std::free(packet.data);
    } else {
      if (State().trace) {
        Diag("@@@ Thread=%u + WriteFile[%d]=%06zu%s\n", platform::CurrentThreadId(), g_input_count,
             packet.length, packet.data);
      }
      PushForApplication(packet);
    }
    ++g_input_count;
  }
}

// Debug mode: standard input, line by line. A line that is only a carriage
// return and a line feed is not a line. A line longer than 999999 bytes is
// handed over in pieces of that size, so nothing is lost and no buffer is
// overrun. At the end of the input the channel closes.
void LineLoop() {
  char* line = static_cast<char*>(std::malloc(kDebugLineMax + 2));
  if (line == nullptr) {
    g_channel->Close();
    return;
  }
  std::size_t used = 0;
  for (;;) {
    char c;
    long n = platform::ReadSome(State().quonin_fd, &c, 1);
    if (n <= 0) {
      if (n < 0) Diag("@@@ ReadFile() failed\n");  // the plain end of input is no failure
      break;
    }
    line[used++] = c;
    bool end = c == '\n' || used == kDebugLineMax;
    if (!end) continue;
    if (used == 2 && line[0] == '\r' && line[1] == '\n') {
      used = 0;
      continue;
    }
    line[used] = '\0';
    if (State().trace) {
      Diag("@@@ + inComing[%d]=%s", g_input_count, line);
      Diag("@@@ + WriteFile[%d]=%s", g_input_count, line);
    }
    PacketBody p{static_cast<char*>(std::malloc(used + 1)), used};
    if (p.data != nullptr) {
      std::memcpy(p.data, line, used + 1);
      PushForApplication(p);
    }
    ++g_input_count;
    used = 0;
  }
  std::free(line);
  g_channel->Close();
}

void InputThreadMain(void*) {
  g_input_thread_id.store(platform::CurrentThreadId());
  varn::transport::UsePrivatePacketBuffer();
  if (State().debug_flag) {
    LineLoop();
  } else {
    PacketLoop();
  }
}

// Errors of its sends stay here: VarnErrorNo belongs to the application's
// thread. The thread ends when the pipe has no writer left (varn_deinit)
// or a send fails.
void ErrorThreadMain(void*) {
  platform::BlockHoldSignal();
  varn::transport::UsePrivatePacketBuffer();
  varn::transport::WireOnlyScope wire_only;
  if (State().debug_flag) return;
  char line[512];
  std::size_t used = 0;
  char chunk[512];
  for (;;) {
    long n = platform::ReadSome(g_error_pipe_read, chunk, sizeof chunk);
    if (n <= 0) return;
    for (long i = 0; i < n; ++i) {
      char c = chunk[i];
      if (c == '\r') continue;
      bool end = c == '\n';
      if (!end) line[used++] = c;
      if (end || used == 511) {
        line[used] = '\0';
        if (varn::transport::SendPacketQuiet("quon", State().own_address, VARN_STDERR, line,
                                             used) != 0) {
          return;
        }
        used = 0;
      }
    }
  }
}

}  // namespace

namespace varn::transport {

bool StartErrorForwarding() { return varnP_start_error_thread() == 1; }

namespace {

int g_exit_status = 0;

void ExitWatchdog(void*) {
  platform::SleepMilliseconds(kExitWatchdogMs);
  platform::ExitImmediately(g_exit_status);
}

}  // namespace

void EndProcess(int status) {
  if (platform::CurrentThreadId() == g_input_thread_id.load()) {
    // The process ends as on any exit, so that exit handlers run and what
    // the application wrote to its files is flushed. The held application's
    // thread may own a lock that one of them needs; the watchdog then ends
    // the process without them.
    g_exit_status = status;
    platform::StartThread(ExitWatchdog, nullptr);
  }
  std::exit(status);
}

void StopErrorForwarding() {
  if (!g_error_thread.started()) return;
  // What the application wrote is handed to the pipe, then every writer of
  // the pipe is closed so that the thread reads to its end and stops.
  if (platform::CurrentThreadId() == g_input_thread_id.load()) {
    // The held application's thread may own the streams' locks.
    for (FILE* stream : {stdout, stderr}) {
      if (ftrylockfile(stream) == 0) {
        std::fflush(stream);
        funlockfile(stream);
      }
    }
  } else {
    std::fflush(stdout);
    std::fflush(stderr);
  }
  int null_fd = platform::OpenNullDevice();
  if (null_fd >= 0) {
    platform::Duplicate2(null_fd, platform::kStdout);
    platform::Duplicate2(null_fd, platform::kStderr);
    platform::Close(null_fd);
  }
  platform::Close(State().error_fd);
  State().error_fd = platform::kInvalidFd;
  g_error_thread.Join(kErrorDrainMs);
}

bool TakeDebugLine(char** line, std::size_t* length) {
  PacketBody p;
  if (g_channel == nullptr || !g_channel->Take(&p)) return false;
  *line = p.data;
  *length = p.length;
  return true;
}

void CountPacketTaken() { g_waiting.fetch_sub(1); }

}  // namespace varn::transport

extern "C" int startQuoninThread2(void) noexcept {
  if (g_input_started) return 1;
  if (g_channel == nullptr) g_channel = new varn::transport::PacketChannel();
  if (!platform::ThreadHold::SetTargetToCurrentThread()) {
    Diag("startQuoninThread2: DuplicateHandle() failed for INTR, aborting...\n");
    return 0;
  }
  if (!platform::StartThread(InputThreadMain, nullptr)) {
    Diag("startQuoninThread2: CreateThread() failed, aborting...\n");
    return 0;
  }
  g_input_started = true;
  return 1;
}

extern "C" int varnP_start_error_thread(void) noexcept {
  if (g_error_thread.started()) return 1;
  int fds[2];
  if (!platform::CreatePipe(fds)) return 0;
  g_error_pipe_read = fds[0];
  State().error_fd = fds[1];
  if (!g_error_thread.Start(ErrorThreadMain, nullptr)) {
    platform::Close(fds[0]);
    platform::Close(fds[1]);
    State().error_fd = platform::kInvalidFd;
    return 0;
  }
  return 1;
}

extern "C" int varnP_take_packet(char** body, size_t* length, int /*wait*/) noexcept {
  if (varn_debug_true()) return varn_debug_get_message_str(body, length);
  bool trace = State().trace;
  if (trace) Diag("(1) thread=%u ReadFile(1)...\n", platform::CurrentThreadId());
  PacketBody p;
  if (varn::transport::InInterruptContext()) {
    // While an interrupt is handled the packet source is the channel itself.
    ReadResult r;
    do {
      r = ReadPacket(&p, false);
    } while (r == ReadResult::kSkipped);
    if (r == ReadResult::kEnd) p = HubLossPacket();
  } else {
    if (g_channel == nullptr || !g_channel->Take(&p)) p = HubLossPacket();
    g_waiting.fetch_sub(1);
  }
  if (p.data == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    return 0;
  }
  if (trace) {
    Diag("thread=%u <<< quonin <--- %d [%06d%s]\n", platform::CurrentThreadId(), g_taken_count,
         static_cast<int>(p.length), p.data);
  }
  ++g_taken_count;
  *body = p.data;
  *length = p.length;
  return 1;
}

extern "C" int varnP_has_messages_waiting(void) noexcept { return 1; }

extern "C" int varn_process_one_message(void) noexcept {
  if (!varnP_has_messages_waiting()) return 0;
  if (State().trace) {
    ++g_handler_count;
    Diag("(1) Thread=%u varnP_quonin_handler(): cumulativeMsgCount=%d\n",
         platform::CurrentThreadId(), g_handler_count);
  }
  int r = varn_recv_read_and_parse_message(0);
  if (r == 0 && VarnErrorNo != 0) {
    Diag("Thread=%u <varnP_quonin_handler(pid=%s)> FAILED: VarnErrorNo=%d\n",
         platform::CurrentThreadId(), State().pid_text, VarnErrorNo);
    return 0;
  }
  return r;
}

// Reads from the channel to the hub. In socket mode the input thread is the
// only reader of the socket, so it simply waits for readability without a
// polling interval.
extern "C" int read_file_win(int handle, void* buffer, size_t count, size_t* read) noexcept {
  *read = 0;
  switch (VarnChanType) {
    case VARN_CHAN_SOCKET: {
      platform::WaitReadable(State().socket_fd, -1);
      long n = varn_recv(State().socket_fd, buffer, count, 0);
      if (n < 0) return 0;
      *read = static_cast<size_t>(n);
      return 1;
    }
    case VARN_CHAN_PIPE: {
      if (count == 0) return 1;
      bool failed = false;
      *read = platform::ReadFull(handle, buffer, count, &failed);
      return failed ? 0 : 1;
    }
    case VARN_CHAN_STANDALONE:
      return varn_ReadFile(handle, buffer, count, read, nullptr);
    default:
      return 0;
  }
}

extern "C" int varn_ReadFile(int handle, void* buffer, size_t count, size_t* read,
                             void* /*overlapped*/) noexcept {
  long n = platform::ReadSome(handle, buffer, count);
  if (n < 0) {
    *read = 0;
    return 0;
  }
  *read = static_cast<size_t>(n);
  return 1;
}

extern "C" long varn_recv(int socket, void* buffer, size_t count, int /*flags*/) noexcept {
  return platform::SocketReceive(socket, buffer, count);
}

extern "C" int varn_post_quonin_msg(void) noexcept { return 1; }
extern "C" int varn_remove_quonin_msg(void) noexcept { return 1; }
extern "C" int varn_queueMsgCount(int /*delta*/) noexcept { return 0; }
