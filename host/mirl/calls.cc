// Where library code calls into the runtime: script functions by name,
// function values through the pushed values, and the caller's variables.
#include <cstdarg>
#include <new>
#include <optional>
#include <vector>

#include "host/mirl/interpreter.h"
#include "host/mirl/mirl.h"
#include "host/mirl/value.h"

namespace {

char script_scope;

std::vector<MIRLValue*>& Temps() {
  static auto* temps = new std::vector<MIRLValue*>;
  return *temps;
}

}  // namespace

extern "C" {

void* const AdbgVoc = &script_scope;

int autil_call(void* scope, const char* name, MIRLValue** result, int argc, ...) {
  if (result != nullptr) *result = nullptr;
  if (scope != AdbgVoc || name == nullptr || name[0] == '\0' || argc < 0) return 0;
  std::optional<mirl::Callable> callee;
  std::vector<MIRLValue*> args;
  try {
    callee = mirl::FindFunction(name);
    if (!callee) return 0;
    args.reserve(static_cast<size_t>(argc));
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return 0;
  }
  va_list list;
  va_start(list, argc);
  for (int i = 0; i < argc; ++i) args.push_back(va_arg(list, MIRLValue*));
  va_end(list);
  return mirl::CallFromLibrary(*callee, args, result) ? 1 : 0;
}

int arun_set_value(MIRLValue* variable, MIRLValue* value) {
  if (aval_type(variable) != AvalSymbol) return 0;
  try {
    mirl::SetCallerVariable(variable->text, value != nullptr ? value : mirl::Nil());
    return 1;
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return 0;
  }
}

int arun_push_temp(MIRLValue* value) {
  try {
    Temps().push_back(value);
    return 1;
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return 0;
  }
}

int arun_call_op(int op, int count) {
  std::vector<MIRLValue*>& temps = Temps();
  if (count < 1 || static_cast<size_t>(count) > temps.size()) {
    arun_aerr_set("MIRL", 7, "bad operation", "%d values wanted, %zu pushed", count, temps.size());
    if (count > 0) temps.clear();
    return 0;
  }
  std::vector<MIRLValue*> args;
  try {
    args.assign(temps.end() - count + 1, temps.end());
  } catch (const std::bad_alloc&) {
    temps.resize(temps.size() - static_cast<size_t>(count));
    aerr_memory_error();
    return 0;
  }
  MIRLValue* function = temps[temps.size() - static_cast<size_t>(count)];
  temps.resize(temps.size() - static_cast<size_t>(count));
  if (op != ArunOpCall) {
    arun_aerr_set("MIRL", 7, "bad operation", "operation %d", op);
    return 0;
  }
  if (AerrFlag != 0) return 0;
  if (aval_type(function) != AprgFunction) {
    arun_aerr_set("MIRL", 4, "not a function", nullptr);
    return 0;
  }
  return mirl::CallFromLibrary(*function->callable, args, nullptr) ? 1 : 0;
}

}  // extern "C"
