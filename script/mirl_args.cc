#include "script/mirl_args.h"

#include "varn.h"

namespace varn::script::args {

int ServerIndex(int i) {
  int type = AvalNone;
  MIRLValue* value = nullptr;
  arun_get_parm(i, &type, &value);
  int index = aquon_decode_server(type, value);
  aval_free_value(value);
  return index;
}

bool Text(int i, std::string* out) {
  MIRLValue* value = nullptr;
  if (!arun_get_typed_parm(i, AvalString, &value)) return false;
  const char* text = aval_value_data(value);
  *out = text != nullptr ? text : "";
  aval_free_value(value);
  return true;
}

Read OptionalText(int i, std::string* out) {
  if (arun_peek_parm(i) == AvalNone) return Read::kAbsent;
  return Text(i, out) ? Read::kRead : Read::kWrongType;
}

Read OptionalInt(int i, int* out) {
  if (arun_peek_parm(i) == AvalNone) return Read::kAbsent;
  return arun_get_int_parm(i, out) ? Read::kRead : Read::kWrongType;
}

Read OptionalBool(int i, bool* out) {
  if (arun_peek_parm(i) == AvalNone) return Read::kAbsent;
  MIRLValue* value = nullptr;
  int flag = 0;
  bool ok = arun_get_typed_parm(i, AvalBoolean, &value) && aval_boolean_value(value, &flag);
  aval_free_value(value);
  if (!ok) return Read::kWrongType;
  *out = flag != 0;
  return Read::kRead;
}

}  // namespace varn::script::args
