// varn_init and varn_deinit: bringing the library up (options, standard
// streams, the channel to the hub, identity, tables, the transport) and
// down (the exit notice, the end of the process).
//
// This is the top of the library: it wires the layers together. The
// transport is told here how to reach the layers above it (upcalls), the
// rows how to name a new message source, and which channel to use.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/low_memory.h"
#include "core/options.h"
#include "core/remote_file_table.h"
#include "core/rows.h"
#include "core/status.h"
#include "host/debug_settings.h"
#include "platform/io.h"
#include "platform/system.h"
#include "plugin_manager.h"
#include "process/process_list.h"
#include "transport/channel.h"
#include "transport/data_batch.h"
#include "transport/input_thread.h"
#include "transport/links.h"
#include "transport/upcalls.h"
#include "varn.h"

namespace {

using varn::core::Diag;
using varn::core::Fixed;
using varn::core::State;
namespace platform = varn::platform;
namespace core = varn::core;

// Buffers of the standard streams, owned by the library for the life of the
// process (stdio keeps pointers to them).
char g_stdin_buffer[32768];
char g_stdout_buffer[32768];

int Fail(int error) {
  VarnErrorNo = error;
  return 0;
}

void RedirectStdinToNull() {
  int null_fd = platform::OpenNullForReading();
  if (null_fd >= 0) {
    platform::Duplicate2(null_fd, platform::kStdin);
    platform::Close(null_fd);
  }
}

void CountDownWaitPeriod() REQUIRES(core::kLibrary) {
  const char* value = platform::GetEnv("WAIT_PERIOD");
  int seconds = value ? std::atoi(value) : 0;
  core::MutableSetup().wait_period = seconds;
  for (int left = seconds; left > 0; --left) {
    Diag(left == 1 ? "...waiting to start for %d second\n" : "...waiting to start for %d seconds\n",
         left);
    platform::SleepMilliseconds(1000);
  }
  Diag("...starting now!\n");
}

// The channel of a process started by the hub with pipes: two descriptors
// named in hexadecimal on the command line.
bool SetUpPipes() REQUIRES(core::kLibrary) {
  auto& s = State();
  core::Setup& setup = core::MutableSetup();
  if (s.opt_quonin == nullptr) {
    Diag("varnP_init_quonio: no quonin file descriptor\n");
    return false;
  }
  if (!core::ParseHexFd(s.opt_quonin, &setup.quonin_fd) || !platform::IsOpenFd(setup.quonin_fd)) {
    Diag("varn_init_varn_args: invalid quonin arg \"%s\"\n", s.opt_quonin);
    return false;
  }
  if (s.opt_quonout == nullptr) {
    Diag("varnP_init_quonio: no quonout file descriptor\n");
    return false;
  }
  if (!core::ParseHexFd(s.opt_quonout, &setup.quonout_fd) ||
      !platform::IsOpenFd(setup.quonout_fd)) {
    Diag("varn_init_varn_args: invalid quonout arg \"%s\"\n", s.opt_quonout);
    return false;
  }
  setup.error_fd = platform::kStderr;
  if (!platform::IsOpenFd(setup.error_fd)) {
    // No error stream. Without -quon_noconsole that is fatal; with it the
    // process goes on, its error output and standard output going to the
    // null device (so that no file it opens later takes descriptor 1 or 2
    // and receives diagnostics).
    if (!setup.noconsole_flag) return false;
    int null_fd = platform::OpenNullDevice();
    if (null_fd >= 0) {
      platform::Duplicate2(null_fd, platform::kStderr);
      platform::Close(null_fd);
    }
  }
  // Nothing the application prints may reach the channel.
  std::fflush(stdout);
  platform::Duplicate2(setup.error_fd, platform::kStdout);
  RedirectStdinToNull();
  return true;
}

// Sets up the standard streams and the channel to the hub: standard input
// and output in debug mode, the socket and the error pipe in socket mode,
// the two pipes otherwise. No console is created: the error stream is the
// one the process was started with (SetUpPipes says what happens without).
bool SetUpStreamsAndChannels() REQUIRES(core::kLibrary) {
  core::Setup& setup = core::MutableSetup();
  if (setup.debug_flag) {
    setup.quonin_fd = platform::kStdin;
    setup.quonout_fd = platform::kStdout;
    setup.error_fd = platform::kStderr;
  } else if (State().opt_sockfd != nullptr) {
    if (!varn::transport::StartErrorForwarding()) return false;
    setup.quonin_fd = platform::kInvalidFd;
    setup.quonout_fd = platform::kInvalidFd;
    // Standard output and error now go to the error pipe; stdin reads nothing.
    platform::Duplicate2(setup.error_fd, platform::kStdout);
    platform::Duplicate2(setup.error_fd, platform::kStderr);
    RedirectStdinToNull();
  } else if (!SetUpPipes()) {
    return false;
  }
  if (varn::host::is_debug_mode_active_for("DRAVO_DEBUG_MODE", "ipc", "all", 0)) {
    setup.trace = true;
    const char* v = platform::GetEnv("DRAVO_DEBUG_MODE");
    Diag("(1) DRAVO_DEBUG_MODE=%s\n", v ? v : "");
  }
  if (varn::host::is_debug_mode_active_for("DRAVO_DEBUG_MODE", "wait", "all", 0)) {
    CountDownWaitPeriod();
  }
  State().streams_ready = true;
  return true;
}

bool LearnIdentity() REQUIRES(core::kLibrary) {
  core::Setup& setup = core::MutableSetup();
  platform::SocketVersion version{};
  bool have_host = false;
  if (platform::SocketStartup(&version)) {
    if (!(version.major >= 2 || (version.major == 1 && version.minor >= 1))) {
      return Fail(VARN_E_WINSOCK);
    }
    State().socket_layer_started = true;
    have_host = platform::HostName(setup.host_name, sizeof setup.host_name);
  }
  if (!have_host && !platform::ComputerName(setup.host_name, 16)) return Fail(VARN_E_HOSTNAME);
  std::snprintf(setup.pid_text, sizeof setup.pid_text, "%u", platform::ProcessId());
  std::snprintf(setup.own_address, sizeof setup.own_address, "%s@%s", setup.pid_text,
                setup.host_name);
  return true;
}

// The parent's row: row 0 after the tables were cleared, unless the parent
// is the hub itself (or there is none).
bool MakeParentRow(varnHandle* parent) REQUIRES(core::kLibrary) {
  const auto& s = State();
  int h = -1;
  if (!varnP_get_new_varnHandle(&h)) return false;
  if (s.opt_parentid == nullptr || std::strcmp(s.opt_parentid, VARN_HUB_ADDRESS) == 0) {
    *parent = -1;
    return true;
  }
  core::Row row(h);
  if (!row.OpenTo(s.opt_parentid, Fixed().own_address) ||
      !varn_util_strcpy(&row.entry().name, s.opt_parentname)) {
    row.set_state(core::RowState::kFree);
    return false;
  }
  *parent = h;
  return true;
}

void ApplyEnables(const std::vector<core::EnableOption>& enables) REQUIRES(core::kLibrary) {
  for (const core::EnableOption& e : enables) {
    if (e.enable) {
      varnP_enable_server_protocal(e.name.c_str(), e.has_address ? e.address.c_str() : nullptr);
    } else {
      varnP_disable_server_protocal(e.name.c_str());
    }
  }
}

void WireTheLayers() REQUIRES(core::kLibrary) {
  varn::transport::UpperLayer upper;
  upper.enable = varnP_enable_server_protocal;
  upper.disable = varnP_disable_server_protocal;
  upper.notify = varnP_notify;
  upper.disconnect = varnP_disconnect_process;
  upper.shut_down = varn_deinit;
  varn::transport::RegisterUpperLayer(upper);
  core::SetSourceNamer(varn::process::NameFromProcessList);
}

}  // namespace

extern "C" int varn_init(int* argc, char** argv, varnHandle* parent) noexcept {
  core::OnApplicationThread();
  auto& s = State();
  core::Setup& setup = core::MutableSetup();
  if (s.initialised) {
    *parent = s.saved_parent;
    return 1;
  }
  plugin_manager::GetInterface("VARN");  // asked for, not used

  if (argc != nullptr && *argc >= 1 && argv != nullptr && argv[0] != nullptr) {
    std::snprintf(setup.program_name, sizeof setup.program_name, "%s", argv[0]);
  } else {
    std::snprintf(setup.program_name, sizeof setup.program_name, "Process %u",
                  platform::ProcessId());
  }
  core::InstallLowMemoryHandler();
  platform::DefaultBrokenPipeToIgnore();
  WireTheLayers();

  if (argc != nullptr && *argc <= 1) setup.stderr_flag = true;  // started with no arguments
  std::vector<core::EnableOption> enables;
  if (argc != nullptr && argv != nullptr && !core::ScanOptions(argc, argv, &enables)) return 0;

  if (VarnSleepSecond > 0)
    platform::SleepMilliseconds(static_cast<uint64_t>(VarnSleepSecond) * 1000);

  std::setvbuf(stdin, g_stdin_buffer, _IOLBF, sizeof g_stdin_buffer);
  std::setvbuf(stdout, g_stdout_buffer, _IOLBF, sizeof g_stdout_buffer);
  std::setvbuf(stderr, nullptr, _IONBF, 0);

  if (!LearnIdentity()) return 0;
  if (!SetUpStreamsAndChannels()) return Fail(VARN_E_ALREADY_INIT);
  varn::transport::ChooseChannel(setup.debug_flag);
  varn::transport::EnableLinks(setup.links_flag && !setup.debug_flag);

  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) VarnMessage[i] = VarnEntry{};
  core::ClearFileRows();
  core::ClearStatusText();
  VarnErrorNo = 0;
  if (!MakeParentRow(parent)) return 0;

  varn_send_init();
  varn_recv_init();
  s.saved_parent = *parent;
  s.initialised = true;
  if (!varn_queue_init()) return 0;
  if (!varn_init_varn_line()) return 0;
  if (!startQuoninThread2()) return 0;
  ApplyEnables(enables);
  VarnErrorNo = 0;
  return 1;
}

extern "C" int varn_deinit(void) noexcept {
  core::OnApplicationThread();
  auto& s = State();
  if (!s.initialised) return 1;
  // A KILL (on the input thread) ends the process within a bound, even
  // when the hub never acknowledges the exit notice.
  varn::transport::BoundTheEnd(0);
  // In socket mode the last lines of error output go to the hub before the
  // exit notice does.
  varn::transport::StopErrorForwarding();
  // Peers read a link to its end before they take the hub's notice that
  // this process ended: the links close first.
  varn::transport::CloseLinks();
  if (VarnErrorNo != VARN_E_DAEMON_GONE) {
    // Row 0 becomes the hub's row for the farewell.
    core::Row row(0);
    row.OpenTo(VARN_HUB_ADDRESS, Fixed().own_address);
    row.entry().keep_entry = 0;
    row.entry().non_velor = 0;
    VarnErrorNo = 0;
    s.initialised = false;
    char status_text[VARN_STATUS_TEXT_SIZE];
    core::StatusSnapshot(status_text, sizeof status_text);
    if (varn_send_msg(0, VARN_SRVR_ERR, status_text, 0)) {
      int count = core::ActiveCount();
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
