// Making servers reachable: their start (through the known-server table
// for the environment's own tools), connection through another server, and
// attachment to processes that already run.
#ifndef VARN_SCRIPT_SERVER_START_H_
#define VARN_SCRIPT_SERVER_START_H_

#include <string>

#include "core/library_lock.h"

namespace varn::script {

// The server's handle: the one it has, or one from connecting it through
// its via server, or from starting its program and polling it until it is
// idle. -1 (with a script error, except for slot 0) when it cannot be had.
// nonvelor_kind is the start request kind of a non-Velor program; a null
// or empty directory means the current one.
int EnsureServer(int index, int nonvelor_kind, const char* directory) REQUIRES(core::kLibrary);

// The current working directory as a start hands it on: in double quotes
// when it has a blank and no double quote.
std::string DefaultDirectory();

}  // namespace varn::script

#endif  // VARN_SCRIPT_SERVER_START_H_
