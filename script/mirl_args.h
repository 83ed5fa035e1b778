// Reading the arguments of a script call, for the vocabulary's functions.
#ifndef VARN_SCRIPT_MIRL_ARGS_H_
#define VARN_SCRIPT_MIRL_ARGS_H_

#include <string>

#include "core/library_lock.h"
#include "host/mirl/mirl.h"

namespace varn::script::args {

// A server argument: an integer is an index, a text a server name, a
// missing argument the default server.
int ServerIndex(int i) REQUIRES(core::kLibrary);

// An argument that must be a text; false when it is missing or is not.
bool Text(int i, std::string* out);

enum class Read { kAbsent, kRead, kWrongType };
// Optional arguments: kAbsent leaves *out alone.
Read OptionalText(int i, std::string* out);
Read OptionalInt(int i, int* out);
Read OptionalBool(int i, bool* out);

}  // namespace varn::script::args

#endif  // VARN_SCRIPT_MIRL_ARGS_H_
