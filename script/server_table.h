// The server table of the script bindings: one record per server a script
// or the host's code works with, found by its index (its slot).
//
// All of it belongs to the application's thread (the host's main thread,
// which runs the scripts and makes the library's calls); the message
// callback runs on that thread too, from inside the library's receive
// calls. The table has no lock of its own: the capability of the library's
// state (core/library_lock.h) stands for that ownership. Records move when
// the table grows, so no reference into it is kept across a call that can
// allocate a server or run a handler.
#ifndef VARN_SCRIPT_SERVER_TABLE_H_
#define VARN_SCRIPT_SERVER_TABLE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "core/library_lock.h"
#include "varn.h"

namespace varn::script {

// One entry of a server's handler stack.
struct AquonHandler {
  AquonHandlerFn function = nullptr;  // null entries are passed over
  void* data = nullptr;               // owned by whoever pushed the entry
};

struct AquonServer {
  std::uint32_t in_use = 0;
  std::string name;               // the program started for it; the key
  std::string id;                 // stored and returned, not interpreted
  std::string host_variable;      // setting naming the host to start it on
  std::string arguments;          // argument text of the start
  std::string argument_function;  // script function that rewrites the arguments
  std::string done_text;          // payload of the DONE that ends the next incoming block
  int handle = -1;                // its varnHandle; -1 while not reachable
  std::uint32_t non_velor = 0;    // started as a program that does not speak the protocol
  std::uint32_t external = 0;     // not started here: never killed, interrupted or reset
  std::uint32_t busy = 0;         // a command or block is out and its DONE not yet seen
  std::uint32_t keep_entry = 0;   // the start keeps the process entry; a reset keeps the handle
  std::uint32_t started_here = 0;
  int via_server = -1;                 // the server it is reached through; part of the lookup key
  std::vector<AquonHandler> handlers;  // last pushed on top
};

// Fields that aquon_get_server reads by number.
enum ServerField {
  kFieldName = 0,
  kFieldId = 1,
  kFieldHostVariable = 2,
  kFieldArguments = 3,
  kFieldHandle = 4,
  kFieldViaServer = 5,
  kFieldNonVelor = 6,
  kFieldArgumentFunction = 7,
  kFieldKeepEntry = 8,
};

// The state of the bindings, with the names of their globals.
struct ScriptState {
  std::vector<AquonServer> servers;

  int aquon_initialized = 0;  // result of registering the vocabulary
  int aquon_poll_interval = 1;
  int aquon_poll_count = 300;
  int aquon_default_server = -1;
  int aquon_last_connected = -1;

  // The outgoing block and the waits.
  int aquon_command_wait = 0;
  int aquon_block_handle = -1;
  int aquon_block_server = -1;
  std::string aquon_last_done_message;

  // The shared status and help servers.
  unsigned char aquon_status_started = 0;
  int aquon_status_handle = 0;
  int aquon_help_started = 0;
  int aquon_help_handle = 0;

  int mirlquon_initialized = 0;
};

ScriptState& Script() REQUIRES(core::kLibrary);

// A valid index: in range and in use.
bool ValidServer(int index) REQUIRES(core::kLibrary);
// The record of a valid index (the reference lasts until the table grows).
AquonServer& Server(int index) REQUIRES(core::kLibrary);
// The first free slot (a new one at the end when none is free), made an
// empty record in use. Returns its index.
int TakeEmptySlot() REQUIRES(core::kLibrary);
// After a kill or a death: not busy, and the handle forgotten unless the
// entry is kept; the same for every later server reached through it.
// External servers are left alone.
void ResetServer(int index) REQUIRES(core::kLibrary);
// The lowest in-use server with that handle; -1 when none.
int ServerWithHandle(int handle) REQUIRES(core::kLibrary);
// Sets up slot 0 (the parent, or an empty record) and the poll settings.
void InitServers(int poll_interval, int timeout, int parent) REQUIRES(core::kLibrary);

}  // namespace varn::script

#endif  // VARN_SCRIPT_SERVER_TABLE_H_
