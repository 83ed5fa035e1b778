// print and concat.
#include "host/mirl/builtins.h"

#include <iterator>
#include <string>
#include <utility>

#include "host/mirl/errors.h"

namespace mirl {
namespace {

std::string Join(const ValueRefs& args, const char* separator) {
  std::string text;
  for (size_t i = 0; i < args.size(); ++i) {
    if (i > 0) text.append(separator);
    FormatValue(args[i].get(), false, &text);
  }
  return text;
}

MIRLValue* Print(const ValueRefs& args) {
  WriteLine(PrintStream(), Join(args, " "));
  return nullptr;
}

MIRLValue* Concat(const ValueRefs& args) { return NewText(Join(args, "")); }

const Builtin kBuiltins[] = {
    {"print", Print},
    {"concat", Concat},
};

}  // namespace

const Builtin* FindBuiltin(std::string_view name) {
  for (const Builtin& builtin : kBuiltins) {
    if (name == builtin.name) return &builtin;
  }
  return nullptr;
}

}  // namespace mirl
