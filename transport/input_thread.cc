#include "transport/input_thread.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "core/diag.h"
#include "core/library_state.h"
#include "platform/io.h"
#include "platform/system.h"
#include "platform/thread.h"
#include "transport/channel.h"
#include "transport/output.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::Fixed;
namespace platform = varn::platform;
namespace transport = varn::transport;

transport::HandOver* g_hand_over = nullptr;  // created once, never destroyed
bool g_input_started GUARDED_BY(varn::core::kLibrary) = false;
platform::JoinableThread g_error_thread GUARDED_BY(varn::core::kLibrary);
int g_error_pipe_read = -1;  // written before the error thread starts
std::atomic<platform::ThreadId> g_input_thread_id{0};
std::atomic<int> g_input_count{0};
int g_taken_count GUARDED_BY(varn::core::kLibrary) = 0;
int g_handler_count GUARDED_BY(varn::core::kLibrary) = 0;

// How long the end of the process may take in exit handlers when it ends
// from the input thread, before it is ended without them.
constexpr int kExitWatchdogMs = 2000;
// How long varn_deinit waits for the error-forwarding thread to pass on
// what was written before the end.
constexpr int kErrorDrainMs = 2000;

void InputThreadMain(void*) {
  g_input_thread_id.store(platform::CurrentThreadId());
  transport::UsePrivatePacketBuffer();
  transport::ActiveChannel().RunInput();
}

// Errors of its sends stay here: VarnErrorNo belongs to the application's
// thread. The thread ends when the pipe has no writer left (varn_deinit)
// or a send fails.
void ErrorThreadMain(void*) {
  platform::BlockHoldSignal();
  transport::UsePrivatePacketBuffer();
  transport::WireOnlyScope wire_only;
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
        if (transport::SendPacketQuiet(VARN_HUB_ADDRESS, Fixed().own_address, VARN_STDERR, line,
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

void StopErrorForwarding() {
  if (!g_error_thread.started()) return;
  // What the application wrote is handed to the pipe, then every writer of
  // the pipe is closed so that the thread reads to its end and stops.
  if (OnInputThread()) {
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
  core::Setup& setup = core::MutableSetup();
  platform::Close(setup.error_fd);
  setup.error_fd = platform::kInvalidFd;
  g_error_thread.Join(kErrorDrainMs);
}

void BoundTheEnd(int status) {
  if (!OnInputThread()) return;
  platform::ArmExitDeadline(kExitWatchdogMs, status);
}

void EndProcess(int status) {
  // The process ends as on any exit, so that exit handlers run and what the
  // application wrote to its files is flushed.
  BoundTheEnd(status);
  std::exit(status);
}

bool OnInputThread() { return platform::CurrentThreadId() == g_input_thread_id.load(); }

void HandToApplication(PacketBody body) {
  varn_post_quonin_msg();
  g_hand_over->Push(body);
}

void HandToApplicationLast(PacketBody body) { g_hand_over->PushLast(body); }

void CloseHandOver() { g_hand_over->Close(); }

HandOver::Next TakeHandedOverOrRead(PacketBody* body, void (*before_wait)(),
                                    std::int64_t deadline_ms) {
  return g_hand_over->TakeOrRead(body, before_wait, deadline_ms);
}
void DoneReadingChannel() { g_hand_over->DoneReading(); }
bool AwaitInputTurn() { return g_hand_over->AwaitTurn(); }
bool YieldInputTurnIfAsked() { return g_hand_over->YieldIfAsked(); }
int InputTurnWakeFd() { return g_hand_over->wake_fd(); }

bool TakeHandedOver(PacketBody* body) { return g_hand_over != nullptr && g_hand_over->Take(body); }

int NextInputCount() { return g_input_count.fetch_add(1); }
int NextTakenCount() { return g_taken_count++; }

}  // namespace varn::transport

extern "C" int startQuoninThread2(void) noexcept {
  varn::core::OnApplicationThread();
  if (g_input_started) return 1;
  if (g_hand_over == nullptr) {
    g_hand_over = new transport::HandOver();
    // Without a wake-up descriptor the input thread reads alone, as the
    // debug channel always does.
    int wake_fd = platform::kInvalidFd;
    if (transport::ActiveChannel().ReadsByTurns()) wake_fd = platform::CreateWakeFd();
    g_hand_over->EnableTurns(wake_fd);
  }
  if (!platform::ThreadHold::SetTargetToCurrentThread()) {
    Diag("startQuoninThread2: DuplicateHandle() failed for INTR, aborting...\n");
    return 0;
  }
  // The bound on an end from the input thread is prepared now: when it is
  // needed, the application's thread may be held inside the allocator.
  if (!platform::PrepareExitDeadline()) Diag("startQuoninThread2: no exit deadline timer\n");
  if (!platform::StartThread(InputThreadMain, nullptr)) {
    Diag("startQuoninThread2: CreateThread() failed, aborting...\n");
    return 0;
  }
  g_input_started = true;
  return 1;
}

extern "C" int varnP_start_error_thread(void) noexcept {
  varn::core::OnApplicationThread();
  if (g_error_thread.started()) return 1;
  int fds[2];
  if (!platform::CreatePipe(fds)) return 0;
  g_error_pipe_read = fds[0];
  varn::core::MutableSetup().error_fd = fds[1];
  if (!g_error_thread.Start(ErrorThreadMain, nullptr)) {
    platform::Close(fds[0]);
    platform::Close(fds[1]);
    varn::core::MutableSetup().error_fd = platform::kInvalidFd;
    return 0;
  }
  return 1;
}

extern "C" int varnP_take_packet(char** body, size_t* length, int /*wait*/) noexcept {
  varn::core::OnApplicationThread();
  return transport::ActiveChannel().TakeBody(body, length) ? 1 : 0;
}

extern "C" int varnP_has_messages_waiting(void) noexcept { return 1; }

extern "C" int varn_process_one_message(void) noexcept {
  varn::core::OnApplicationThread();
  if (!varnP_has_messages_waiting()) return 0;
  if (Fixed().trace) {
    ++g_handler_count;
    Diag("(1) Thread=%u varnP_quonin_handler(): cumulativeMsgCount=%d\n",
         platform::CurrentThreadId(), g_handler_count);
  }
  int r = varn_recv_read_and_parse_message(0);
  if (r == 0 && VarnErrorNo != 0) {
    Diag("Thread=%u <varnP_quonin_handler(pid=%s)> FAILED: VarnErrorNo=%d\n",
         platform::CurrentThreadId(), Fixed().pid_text, VarnErrorNo);
    return 0;
  }
  return r;
}

// Reads from the channel to the hub: the socket (after waiting until it is
// readable; the input thread is its only reader), the input pipe (until
// count bytes came or the pipe ended), or standard input in debug mode.
extern "C" int read_file_win(int handle, void* buffer, size_t count, size_t* read) noexcept {
  *read = 0;
  switch (VarnChanType) {
    case VARN_CHAN_SOCKET: {
      platform::WaitReadable(Fixed().socket_fd, -1);
      long n = varn_recv(Fixed().socket_fd, buffer, count, 0);
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
