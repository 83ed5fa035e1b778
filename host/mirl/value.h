// The layout of a script value and the runtime's own ways of making them.
// Unlike the C calls of mirl.h, the New* calls throw std::bad_alloc.
#ifndef VARN_HOST_MIRL_VALUE_H_
#define VARN_HOST_MIRL_VALUE_H_

#include <memory>
#include <string>
#include <vector>

#include "host/mirl/callable.h"
#include "host/mirl/mirl.h"

// Only the fields of the value's type are used.
struct MIRLValue {
  int type = AvalNil;
  bool shared = false;  // lives for ever and is not counted
  long refs = 1;
  int integer = 0;                           // AvalInteger; AvalBoolean (0 or 1)
  double real = 0;                           // AvalReal
  std::string text;                          // AvalString; the variable an AvalSymbol names
  std::vector<MIRLValue*> items;             // AvalList, one reference each
  std::unique_ptr<mirl::Callable> callable;  // AprgFunction
};

namespace mirl {

// Releases one reference when it goes out of scope.
struct ValueReleaser {
  void operator()(MIRLValue* value) const { aval_free_value(value); }
};
using ValueRef = std::unique_ptr<MIRLValue, ValueReleaser>;
using ValueRefs = std::vector<ValueRef>;

// Adds a reference; returns the value.
MIRLValue* Retain(MIRLValue* value);
// The shared nil.
MIRLValue* Nil();
MIRLValue* Boolean(bool flag);

MIRLValue* NewInteger(int value);
MIRLValue* NewReal(double value);
MIRLValue* NewText(std::string text);
MIRLValue* NewList();
MIRLValue* NewSymbol(std::string name);
MIRLValue* NewFunction(const Callable& callable);

// Appends the value as print writes it: texts quoted inside lists only
// (quote_texts applies to the value itself).
void FormatValue(const MIRLValue* value, bool quote_texts, std::string* out);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_VALUE_H_
