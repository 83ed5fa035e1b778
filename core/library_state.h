// Process-wide state of the library, in one owner.
//
// Two parts with different thread rules:
//   - Setup: what varn_init works out before the library's threads start
//     (identity, channel descriptors, flags). Written only by varn_init (and
//     the error descriptor by varn_deinit); read by any thread afterwards.
//   - LibraryState: everything else, owned by the application's thread
//     (core/library_lock.h).
#ifndef VARN_CORE_LIBRARY_STATE_H_
#define VARN_CORE_LIBRARY_STATE_H_

#include <cstddef>
#include <cstdint>

#include "core/library_lock.h"
#include "varn.h"

namespace varn::core {

inline constexpr std::size_t kNameSize = 256;
inline constexpr std::size_t kPidTextSize = 32;

struct Setup {
  // Identity.
  char program_name[kNameSize] = {};
  char host_name[kNameSize] = {};
  char pid_text[kPidTextSize] = {};
  char own_address[kNameSize] = {};  // pid@host

  // Flags of the command line.
  bool debug_flag = false;
  bool stderr_flag = false;
  bool noconsole_flag = false;
  bool noheader_flag = false;
  bool links_flag = false;  // the hub sets up direct links (-quon_links)

  // Channel descriptors.
  int socket_fd = -1;
  int quonin_fd = -1;
  int quonout_fd = -1;
  int error_fd = -1;

  bool trace = false;  // topic "ipc" of DRAVO_DEBUG_MODE
  int wait_period = 0;
};

namespace detail {
extern Setup g_setup;
}  // namespace detail

// Inline: read on every call, the per-record stream calls included.
inline const Setup& Fixed() { return detail::g_setup; }
inline Setup& MutableSetup() REQUIRES(kLibrary) { return detail::g_setup; }

struct LibraryState {
  bool initialised = false;
  varnHandle saved_parent = -1;

  // Active entry count; -1 until first read (then 40).
  int active_count = -1;

  // Copies of option arguments (heap strings owned here).
  char* opt_outfile = nullptr;
  char* opt_parentid = nullptr;
  char* opt_parentname = nullptr;
  char* opt_display = nullptr;
  char* opt_sockfd = nullptr;
  char* opt_sleep = nullptr;
  char* opt_channels = nullptr;
  char* opt_quonin = nullptr;
  char* opt_quonout = nullptr;

  bool socket_layer_started = false;
  bool streams_ready = false;

  // Line buffer of the line readers (grows; 1025 bytes at first).
  char* line_buffer = nullptr;
  std::size_t line_capacity = 0;

  // Fields replaced through varn_util_strcpy (see core::TextChanges).
  std::uint64_t text_changes = 0;
};

namespace detail {
// Defined in globals.cc; reached only through State().
extern LibraryState g_state GUARDED_BY(kLibrary);
}  // namespace detail

inline LibraryState& State() REQUIRES(kLibrary) { return detail::g_state; }

}  // namespace varn::core

#endif  // VARN_CORE_LIBRARY_STATE_H_
