// Functions every script has.
#ifndef VARN_HOST_MIRL_BUILTINS_H_
#define VARN_HOST_MIRL_BUILTINS_H_

#include <string_view>

#include "host/mirl/value.h"

namespace mirl {

struct Builtin {
  const char* name;
  // The result (owned; null for none). Throws std::bad_alloc.
  MIRLValue* (*run)(const ValueRefs& args);
};

const Builtin* FindBuiltin(std::string_view name);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_BUILTINS_H_
