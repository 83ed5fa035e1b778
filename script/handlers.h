// Messages from servers reach the scripts here.
#ifndef VARN_SCRIPT_HANDLERS_H_
#define VARN_SCRIPT_HANDLERS_H_

#include <memory>

#include "core/library_lock.h"

namespace varn::script {

// The library's message callback, installed by aquon_initialize: reads the
// message of the handle and hands it to the server's top handler.
void MessageCallback(int handle);

// A handler that calls a script function (the data, a Mirl function value)
// as function(server index, kind, payload).
void CallMirlHandler(void* data, int index, int kind, const char* payload);

// A server's process has ended: the record is reset and forgets its handle.
void NoteDeath(int index) REQUIRES(core::kLibrary);

// A buffer that holds any message the library can hand over.
std::unique_ptr<char[]> PacketBuffer();

}  // namespace varn::script

#endif  // VARN_SCRIPT_HANDLERS_H_
