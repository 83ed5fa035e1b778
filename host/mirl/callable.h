// What a function value refers to: a function of a script, a builtin, or a
// function of a registered vocabulary.
#ifndef VARN_HOST_MIRL_CALLABLE_H_
#define VARN_HOST_MIRL_CALLABLE_H_

#include <memory>
#include <string>

#include "host/mirl/mirl.h"

namespace mirl {

struct Builtin;
struct FunctionDef;
struct Program;
struct Unit;

struct Callable {
  enum class Kind { kScript, kBuiltin, kVocabulary };
  Kind kind = Kind::kBuiltin;
  std::string name;
  // kScript: the parsed script stays alive as long as a value refers to one
  // of its functions; its globals are only looked at while its run is the
  // current one (a weak reference, so globals holding function values of
  // their own script make no cycle).
  std::shared_ptr<const Program> program;
  const FunctionDef* def = nullptr;
  std::weak_ptr<Unit> unit;
  const Builtin* builtin = nullptr;  // kBuiltin
  AutilFunction function = nullptr;  // kVocabulary
};

}  // namespace mirl

#endif  // VARN_HOST_MIRL_CALLABLE_H_
