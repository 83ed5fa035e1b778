// varn_init and varn_deinit: options, standard streams, channels, identity,
// tables, and the start of the transport.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/low_memory.h"
#include "core/status.h"
#include "host/debug_settings.h"
#include "host/gui.h"
#include "host/plugin_manager.h"
#include "host/support.h"
#include "platform/io.h"
#include "platform/system.h"
#include "process/enable.h"
#include "transport/input_thread.h"
#include "transport/output.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::State;
namespace platform = varn::platform;

// Buffers of the standard streams, owned by the library for the life of the
// process (stdio keeps pointers to them).
char g_stdin_buffer[32768];
char g_stdout_buffer[32768];

// Enable and disable options seen during the scan. They are applied after
// the tables are cleared and the transport runs, so that their rows survive
// initialisation (a restarted process keeps its enable list) and an enable
// that starts a disabled server can send its request.
struct DeferredEnable {
  bool enable;
  char* name;
  char* address;  // null for disable or for an enable without address
};
std::vector<DeferredEnable>* g_deferred = nullptr;

int Fail(int error) {
  VarnErrorNo = error;
  return 0;
}

// Copies an option argument into a heap string owned by the library.
bool CopyArg(char** slot, const char* value) {
  std::free(*slot);
  *slot = strdup(value);
  return *slot != nullptr;
}

enum class OptionKind { kFlag, kOne, kTwo };
struct Option {
  const char* name;
  OptionKind kind;
};
constexpr Option kOptions[] = {
    {"-quon_asciionly", OptionKind::kFlag}, {"-quon_debug", OptionKind::kFlag},
    {"-quon_disable", OptionKind::kOne},    {"-quon_enable", OptionKind::kTwo},
    {"-quon_noheader", OptionKind::kFlag},  {"-quon_outfile", OptionKind::kOne},
    {"-quon_parentid", OptionKind::kOne},   {"-quon_parentname", OptionKind::kOne},
    {"-quon_display", OptionKind::kOne},    {"-quon_sockfd", OptionKind::kOne},
    {"-quon_noconsole", OptionKind::kFlag}, {"-quon_sleep", OptionKind::kOne},
    {"-quon_stderr", OptionKind::kFlag},    {"-quon_channels", OptionKind::kOne},
    {"-quon_quonin", OptionKind::kOne},     {"-quon_quonout", OptionKind::kOne},
};

// Applies one recognised option. Returns false (with VarnErrorNo 35) when a
// copy fails.
bool ApplyOption(const char* name, char** args) {
  auto& s = State();
  auto is = [name](const char* n) { return gsl_strcmp(name, n) == 0; };
  if (is("-quon_asciionly")) return true;
  if (is("-quon_debug")) {
    s.debug_flag = true;
    VarnChanType = VARN_CHAN_STANDALONE;
    return true;
  }
  if (is("-quon_disable") || is("-quon_enable")) {
    bool enable = is("-quon_enable");
    DeferredEnable d{enable, strdup(args[0]), enable ? strdup(args[1]) : nullptr};
    if (d.name == nullptr || (enable && d.address == nullptr)) {
      std::free(d.name);
      std::free(d.address);
      return false;
    }
    if (g_deferred == nullptr) g_deferred = new std::vector<DeferredEnable>();
    g_deferred->push_back(d);
    return true;
  }
  if (is("-quon_noheader")) return s.noheader_flag = true;
  if (is("-quon_outfile")) return CopyArg(&s.opt_outfile, args[0]);
  if (is("-quon_parentid")) {
    VarnChanType = VARN_CHAN_PIPE;
    return CopyArg(&s.opt_parentid, args[0]);
  }
  if (is("-quon_parentname")) return CopyArg(&s.opt_parentname, args[0]);
  if (is("-quon_display")) return CopyArg(&s.opt_display, args[0]);
  if (is("-quon_sockfd")) {
    if (!CopyArg(&s.opt_sockfd, args[0])) return false;
    s.socket_fd = std::atoi(args[0]);
    VarnChanType = VARN_CHAN_SOCKET;
    return true;
  }
  if (is("-quon_noconsole")) return s.noconsole_flag = true;
  if (is("-quon_sleep")) {
    if (!CopyArg(&s.opt_sleep, args[0])) return false;
    VarnSleepSecond = std::atoi(args[0]);
    return true;
  }
  if (is("-quon_stderr")) return s.stderr_flag = true;
  if (is("-quon_channels")) {
    if (!CopyArg(&s.opt_channels, args[0])) return false;
    varn_num_chan(std::atoi(args[0]));
    return true;
  }
  if (is("-quon_quonin")) return CopyArg(&s.opt_quonin, args[0]);
  if (is("-quon_quonout")) return CopyArg(&s.opt_quonout, args[0]);
  return true;
}

// Scans and removes the -quon_ options. Stops at an option whose arguments
// are missing and leaves the rest of the vector as it is.
bool ScanOptions(int* argc, char** argv) {
  int i = 1;
  while (i < *argc) {
    const Option* match = nullptr;
    for (const Option& o : kOptions) {
      if (gsl_strcmp(argv[i], o.name) == 0) {
        match = &o;
        break;
      }
    }
    if (match == nullptr) {
      ++i;
      continue;
    }
    int nargs = match->kind == OptionKind::kFlag ? 0 : match->kind == OptionKind::kOne ? 1 : 2;
    if (i + nargs >= *argc) break;  // arguments missing: stop the scan here
    if (!ApplyOption(match->name, argv + i + 1)) return Fail(VARN_E_MALLOC);
    varn_util_compress_args(argv, i, argc, nargs + 1);
  }
  return true;
}

// Reads a descriptor given in hexadecimal; the whole text must be a number.
bool ParseHexFd(const char* text, int* fd) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  long value = std::strtol(text, &end, 16);
  if (*end != '\0' || value < 0 || value > 0x7fffffff) return false;
  *fd = static_cast<int>(value);
  return true;
}

void RedirectStdinToNull() {
  int null_fd = platform::OpenNullForReading();
  if (null_fd >= 0) {
    platform::Duplicate2(null_fd, platform::kStdin);
    platform::Close(null_fd);
  }
}

void CountDownWaitPeriod() {
  const char* value = platform::GetEnv("WAIT_PERIOD");
  int seconds = value ? std::atoi(value) : 0;
  State().wait_period = seconds;
  for (int left = seconds; left > 0; --left) {
    Diag(left == 1 ? "...waiting to start for %d second\n" : "...waiting to start for %d seconds\n",
         left);
    platform::SleepMilliseconds(1000);
  }
  Diag("...starting now!\n");
  // The beeps at exit that go with this on a console have no equivalent
  // here: there is no console and no speaker to drive.
}

// Sets up the standard streams and the channel to the hub. There is no
// console on this platform, so the steps that create or title one do
// nothing; a missing error stream simply fails the set-up.
bool SetUpStreamsAndChannels() {
  auto& s = State();
  if (s.debug_flag) {
    s.quonin_fd = platform::kStdin;
    s.quonout_fd = platform::kStdout;
    s.error_fd = platform::kStderr;
  } else if (s.opt_sockfd != nullptr) {
    if (!varn::transport::StartErrorForwarding()) return false;
    s.quonin_fd = platform::kInvalidFd;
    s.quonout_fd = platform::kInvalidFd;
    // Standard output and error now go to the error pipe; stdin reads nothing.
    platform::Duplicate2(s.error_fd, platform::kStdout);
    platform::Duplicate2(s.error_fd, platform::kStderr);
    RedirectStdinToNull();
  } else {
    if (s.opt_quonin == nullptr) {
      Diag("varnP_init_quonio: no quonin file descriptor\n");
      return false;
    }
    if (!ParseHexFd(s.opt_quonin, &s.quonin_fd) || !platform::IsOpenFd(s.quonin_fd)) {
      Diag("varn_init_varn_args: invalid quonin arg \"%s\"\n", s.opt_quonin);
      return false;
    }
    if (s.opt_quonout == nullptr) {
      Diag("varnP_init_quonio: no quonout file descriptor\n");
      return false;
    }
    if (!ParseHexFd(s.opt_quonout, &s.quonout_fd) || !platform::IsOpenFd(s.quonout_fd)) {
      Diag("varn_init_varn_args: invalid quonout arg \"%s\"\n", s.opt_quonout);
      return false;
    }
    s.error_fd = platform::kStderr;
    if (!platform::IsOpenFd(s.error_fd)) {
      // No error stream. Without -quon_noconsole that is fatal; with it the
      // process goes on, its error output and standard output going to the
      // null device (so that no file it opens later takes descriptor 1 or 2
      // and receives diagnostics).
      if (!s.noconsole_flag) return false;
      int null_fd = platform::OpenNullDevice();
      if (null_fd >= 0) {
        platform::Duplicate2(null_fd, platform::kStderr);
        platform::Close(null_fd);
      }
    }
    // Nothing the application prints may reach the channel.
    std::fflush(stdout);
    platform::Duplicate2(s.error_fd, platform::kStdout);
    RedirectStdinToNull();
  }
  if (varn::host::is_debug_mode_active_for("DRAVO_DEBUG_MODE", "ipc", "all", 0)) {
    s.trace = true;
    const char* v = platform::GetEnv("DRAVO_DEBUG_MODE");
    Diag("(1) DRAVO_DEBUG_MODE=%s\n", v ? v : "");
  }
  if (varn::host::is_debug_mode_active_for("DRAVO_DEBUG_MODE", "wait", "all", 0)) {
    CountDownWaitPeriod();
  }
  s.streams_ready = true;
  return true;
}

void ApplyDeferredEnables() {
  if (g_deferred == nullptr) return;
  for (DeferredEnable& d : *g_deferred) {
    if (d.enable) {
      varnP_enable_server_protocal(d.name, d.address);
    } else {
      varnP_disable_server_protocal(d.name);
    }
    std::free(d.name);
    std::free(d.address);
  }
  delete g_deferred;
  g_deferred = nullptr;
}

}  // namespace

extern "C" int varn_init(int* argc, char** argv, varnHandle* parent) noexcept {
  auto& s = State();
  if (s.initialised) {
    *parent = s.saved_parent;
    return 1;
  }
  plugin_manager::GetInterface("VARN");  // asked for, not used

  if (argc != nullptr && *argc >= 1 && argv != nullptr && argv[0] != nullptr) {
    std::snprintf(s.program_name, sizeof s.program_name, "%s", argv[0]);
  } else {
    std::snprintf(s.program_name, sizeof s.program_name, "Process %u", platform::ProcessId());
  }
  varn::core::InstallLowMemoryHandler();
  platform::DefaultBrokenPipeToIgnore();

  if (argc != nullptr && *argc <= 1) s.stderr_flag = true;  // started with no arguments
  if (argc != nullptr && argv != nullptr && !ScanOptions(argc, argv)) return 0;

  if (VarnSleepSecond > 0)
    platform::SleepMilliseconds(static_cast<uint64_t>(VarnSleepSecond) * 1000);

  std::setvbuf(stdin, g_stdin_buffer, _IOLBF, sizeof g_stdin_buffer);
  std::setvbuf(stdout, g_stdout_buffer, _IOLBF, sizeof g_stdout_buffer);
  std::setvbuf(stderr, nullptr, _IONBF, 0);

  // The send, socket write and socket read locks are objects of the
  // transport that exist from load time; nothing to create here.

  platform::SocketVersion version{};
  bool have_host = false;
  if (platform::SocketStartup(&version)) {
    if (!(version.major >= 2 || (version.major == 1 && version.minor >= 1))) {
      return Fail(VARN_E_WINSOCK);
    }
    s.socket_layer_started = true;
    have_host = platform::HostName(s.host_name, sizeof s.host_name);
  }
  if (!have_host && !platform::ComputerName(s.host_name, 16)) return Fail(VARN_E_HOSTNAME);

  std::snprintf(s.pid_text, sizeof s.pid_text, "%u", platform::ProcessId());
  std::snprintf(s.own_address, sizeof s.own_address, "%s@%s", s.pid_text, s.host_name);

  if (!SetUpStreamsAndChannels()) return Fail(VARN_E_ALREADY_INIT);

  int count = varn::core::ActiveCount();
  for (int i = 0; i < count; ++i) VarnMessage[i] = VarnEntry{};
  varn::core::ClearFileRows();
  varn::core::ClearStatusText();
  VarnErrorNo = 0;

  int h = -1;
  if (!varnP_get_new_varnHandle(&h)) return 0;
  if (s.opt_parentid == nullptr || std::strcmp(s.opt_parentid, "quon") == 0) {
    *parent = -1;
  } else {
    VarnEntry& row = VarnMessage[h];
    row.state = ENTRY_ACTIVE;
    if (!varn_util_strcpy(&row.address, s.opt_parentid) ||
        !varn_util_strcpy(&row.local_address, s.own_address) ||
        !varn_util_strcpy(&row.name, s.opt_parentname)) {
      row.state = ENTRY_FREE;
      return 0;
    }
    row.last_category = 0;
    row.send_stream = 1;
    row.recv_stream = 1;
    *parent = h;
  }

  varn_send_init();
  varn_recv_init();
  s.saved_parent = *parent;
  s.initialised = true;
  if (!varn_queue_init()) return 0;
  if (!varn_init_varn_line()) return 0;
  if (!startQuoninThread2()) return 0;
  ApplyDeferredEnables();
  VarnErrorNo = 0;
  return 1;
}

extern "C" int varn_init_varn_line(void) noexcept {
  auto& s = State();
  if (s.line_buffer != nullptr) return 1;
  s.line_buffer = static_cast<char*>(std::malloc(VARN_LINE_SIZE));
  if (s.line_buffer == nullptr) return 0;
  s.line_capacity = VARN_LINE_SIZE;
  return 1;
}

extern "C" int varn_deinit(void) noexcept {
  auto& s = State();
  if (!s.initialised) return 1;
  // In socket mode the last lines of error output go to the hub before the
  // exit notice does.
  varn::transport::StopErrorForwarding();
  if (VarnErrorNo != VARN_E_DAEMON_GONE) {
    VarnEntry& row = VarnMessage[0];
    row.state = ENTRY_ACTIVE;
    varn_util_strcpy(&row.local_address, s.own_address);
    varn_util_strcpy(&row.address, "quon");
    row.keep_entry = 0;
    row.non_velor = 0;
    row.send_stream = 1;
    row.recv_stream = 1;
    row.immediate_intr_kill = 0;
    VarnErrorNo = 0;
    s.initialised = false;
    char status_text[VARN_STATUS_TEXT_SIZE];
    varn::core::StatusText(status_text, sizeof status_text);
    if (varn_send_msg(0, VARN_SRVR_ERR, status_text, 0)) {
      int count = varn::core::ActiveCount();
      for (int i = 0; i < count; ++i) varnP_deinit_entry(i);
      std::free(s.opt_outfile);
      std::free(s.opt_parentid);
      std::free(s.opt_parentname);
      s.opt_outfile = s.opt_parentid = s.opt_parentname = nullptr;
      varn_queue_deinit();
    }
  }
  s.initialised = false;
  if (s.socket_layer_started && !platform::SocketCleanup()) {
    Diag("varn_deinit: SOCKET_ERROR #%d on exit\n", platform::LastError());
  }
  varn::transport::EndProcess(0);
}

extern "C" int varn_chdir(const char* directory) noexcept {
  if (VarnChanType == VARN_CHAN_SOCKET) return 0;
  return varn::host::gui_chdir(directory);
}
