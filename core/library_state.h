// Process-wide state of the library, in one owner.
//
// Thread rules: varn_init fills this on the application's thread before the
// input thread starts. Afterwards the application's thread owns every field;
// the input thread reads or writes them only while it holds the application's
// thread still (interrupt handling, transport/input_thread.cc). Fields marked
// "constant after init" may be read from any thread once varn_init returned.
#ifndef VARN_CORE_LIBRARY_STATE_H_
#define VARN_CORE_LIBRARY_STATE_H_

#include <cstddef>

#include "varn.h"

namespace varn::core {

inline constexpr std::size_t kNameSize = 256;
inline constexpr std::size_t kPidTextSize = 32;

struct LibraryState {
  bool initialised = false;
  varnHandle saved_parent = -1;

  // Identity (constant after init; the error-forwarding thread reads
  // own_address).
  char program_name[kNameSize] = {};
  char host_name[kNameSize] = {};
  char pid_text[kPidTextSize] = {};
  char own_address[kNameSize] = {};

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

  bool debug_flag = false;
  bool stderr_flag = false;
  bool noconsole_flag = false;
  bool noheader_flag = false;

  // Channel descriptors (constant after init).
  int socket_fd = -1;
  int quonin_fd = -1;
  int quonout_fd = -1;
  int error_fd = -1;

  VarnCallback callback = nullptr;

  bool socket_layer_started = false;
  bool streams_ready = false;
  bool trace = false;  // topic "ipc" of DRAVO_DEBUG_MODE
  int wait_period = 0;

  // Line buffer of varn_readlineP.
  char* line_buffer = nullptr;
  std::size_t line_capacity = 0;
};

LibraryState& State();

// The active entry count, turning the unset value into the default.
int ActiveCount();
bool ValidHandle(int h);

// Lookups by server name used by invocation and messaging. Both skip rows
// whose name is null. Return 1 with *h set, else 0.
int FindDisabledEntry(int* h, const char* name);
int FindEnabledEntry(int* h, const char* name);

// The remote file table (rows 0..29 files, row 30 the Quon reply row).
VarnFileEntry* FileTable();
// Clears rows 0..29 as varn_init does.
void ClearFileRows();
// Files an answer into the first waiting row. Returns false when no row
// waits (the answer is dropped). Sets VarnErrorNo 35 when the copy fails.
bool FileAnswer(int category, const char* payload, std::size_t length);

}  // namespace varn::core

#endif  // VARN_CORE_LIBRARY_STATE_H_
