// The arguments of the current vocabulary call, as the called function
// reads them.
#include "host/mirl/interpreter.h"
#include "host/mirl/mirl.h"
#include "host/mirl/value.h"

namespace {

MIRLValue* Argument(int i) {
  const mirl::ValueRefs* args = mirl::CurrentArguments();
  if (args == nullptr || i < 0 || static_cast<size_t>(i) >= args->size()) return nullptr;
  return (*args)[static_cast<size_t>(i)].get();
}

}  // namespace

extern "C" {

int arun_num_parm(void) {
  const mirl::ValueRefs* args = mirl::CurrentArguments();
  return args != nullptr ? static_cast<int>(args->size()) : 0;
}

int arun_peek_parm(int i) { return aval_type(Argument(i)); }

int arun_get_parm(int i, int* type, MIRLValue** value) {
  MIRLValue* arg = Argument(i);
  if (type != nullptr) *type = aval_type(arg);
  if (value != nullptr) *value = mirl::Retain(arg);
  return arg != nullptr ? 1 : 0;
}

int arun_get_typed_parm(int i, int type, MIRLValue** value) {
  MIRLValue* arg = Argument(i);
  bool match = arg != nullptr && arg->type == type;
  if (value != nullptr) *value = match ? mirl::Retain(arg) : nullptr;
  return match ? 1 : 0;
}

int arun_get_int_parm(int i, int* value) {
  MIRLValue* arg = Argument(i);
  if (arg == nullptr || (arg->type != AvalInteger && arg->type != AvalBoolean)) return 0;
  if (value != nullptr) *value = arg->integer;
  return 1;
}

}  // extern "C"

namespace mirl {

Parm::~Parm() { aval_free_value(value_); }

Parm get_string_parm(int i) {
  MIRLValue* value = nullptr;
  arun_get_typed_parm(i, AvalString, &value);
  return Parm(value);
}

Parm get_optional_string_parm(int i, const char* default_text) {
  MIRLValue* value = nullptr;
  if (arun_get_typed_parm(i, AvalString, &value) == 0) value = aval_create_string(default_text);
  return Parm(value);
}

}  // namespace mirl
