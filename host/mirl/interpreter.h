// The running state of scripts, as the other parts of the runtime see it:
// where the script is, the arguments of the current vocabulary call, and
// calls into scripts from library code.
#ifndef VARN_HOST_MIRL_INTERPRETER_H_
#define VARN_HOST_MIRL_INTERPRETER_H_

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/mirl/callable.h"
#include "host/mirl/mirl.h"
#include "host/mirl/value.h"

namespace mirl {

// A parsed script and the global variables of its run.
struct Unit {
  std::shared_ptr<const Program> program;
  std::map<std::string, MIRLValue*, std::less<>> globals;  // one reference each
  ~Unit();
};

struct Location {
  std::string file;
  int line = 0;
  std::string function;  // empty at the top level
};

// Where the innermost running script code is; false when none runs.
bool CurrentLocation(Location* where);

// The arguments of the innermost running vocabulary call; null when none.
const ValueRefs* CurrentArguments();

// Assigns, as an assignment of the script code that made the current
// vocabulary call would (or the globals of the last run when no script
// code runs). Takes a reference of its own. Throws std::bad_alloc.
void SetCallerVariable(const std::string& name, MIRLValue* value);

// A function by name for library code: the last run's script functions,
// then the builtins, then the vocabularies.
std::optional<Callable> FindFunction(std::string_view name);

// Calls from library code (arun_call_op, autil_call): arguments borrowed.
// Never throws. Returns false, with the error pending, when the call raised
// a script error (or one was pending before: then nothing runs). *result,
// when given, receives the result (null for none, always null on failure).
bool CallFromLibrary(const Callable& callable, const std::vector<MIRLValue*>& args,
                     MIRLValue** result);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_INTERPRETER_H_
