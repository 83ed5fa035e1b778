// Counted values, lists and conversions.
#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "host/mirl/mirl.h"
#include "host/mirl/value.h"

namespace {

long live_values = 0;

MIRLValue* MakeShared(int type, int integer) {
  MIRLValue* value = new MIRLValue;
  value->type = type;
  value->integer = integer;
  value->shared = true;
  return value;
}

MIRLValue* const shared_nil = MakeShared(AvalNil, 0);

MIRLValue* NewValue(int type) {
  MIRLValue* value = new MIRLValue;
  value->type = type;
  ++live_values;
  return value;
}

void Destroy(MIRLValue* value) {
  for (MIRLValue* item : value->items) aval_free_value(item);
  --live_values;
  delete value;
}

// A text that is a whole number of the int range, with an optional sign.
bool ParseWholeNumber(const std::string& text, int* out) {
  const char* begin = text.data();
  const char* end = begin + text.size();
  if (begin != end && *begin == '+') ++begin;
  if (begin == end || (*begin == '-' && begin + 1 == end)) return false;
  auto [ptr, ec] = std::from_chars(begin, end, *out);
  return ec == std::errc() && ptr == end;
}

// A real cut towards zero; false outside the int range (and for NaN).
bool CutReal(double real, int* out) {
  if (!(real > static_cast<double>(INT_MIN) - 1.0 && real < static_cast<double>(INT_MAX) + 1.0))
    return false;
  *out = static_cast<int>(real);
  return true;
}

bool ToInt(const MIRLValue* value, int* out) {
  if (value == nullptr) return false;
  switch (value->type) {
    case AvalInteger:
    case AvalBoolean:
      *out = value->integer;
      return true;
    case AvalReal:
      return CutReal(value->real, out);
    case AvalString:
      return ParseWholeNumber(value->text, out);
    default:
      return false;
  }
}

// %g without depending on the locale's decimal point.
void FormatReal(double real, std::string* out) {
  char buffer[64];
  auto [ptr, ec] =
      std::to_chars(buffer, buffer + sizeof buffer, real, std::chars_format::general, 6);
  if (ec == std::errc()) out->append(buffer, ptr);
}

MIRLValue* CopyList(const MIRLValue* list) {
  mirl::ValueRef copy(mirl::NewList());
  copy->items.reserve(list->items.size());
  for (MIRLValue* item : list->items) {
    copy->items.push_back(item->type == AvalList ? CopyList(item) : mirl::Retain(item));
  }
  return copy.release();
}

MIRLValue* CopyValue(const MIRLValue* value, int type) {
  int number = 0;
  switch (type) {
    case AvalString:
      if (value->type == AvalString) return mirl::NewText(value->text);
      if (value->type == AvalInteger || value->type == AvalReal || value->type == AvalBoolean) {
        std::string text;
        mirl::FormatValue(value, false, &text);
        return mirl::NewText(std::move(text));
      }
      return nullptr;
    case AvalInteger:
      return ToInt(value, &number) ? mirl::NewInteger(number) : nullptr;
    case AvalReal:
      if (value->type == AvalReal) return mirl::NewReal(value->real);
      if (value->type == AvalInteger) return mirl::NewReal(value->integer);
      return nullptr;
    case AvalBoolean:
      if (value->type == AvalBoolean || value->type == AvalInteger)
        return mirl::Boolean(value->integer != 0);
      return nullptr;
    case AvalList:
      return value->type == AvalList ? CopyList(value) : nullptr;
    case AprgFunction:
      return value->type == AprgFunction ? mirl::NewFunction(*value->callable) : nullptr;
    case AvalSymbol:
      return value->type == AvalSymbol ? mirl::NewSymbol(value->text) : nullptr;
    case AvalNil:
      return value->type == AvalNil ? mirl::Nil() : nullptr;
    default:
      return nullptr;
  }
}

}  // namespace

MIRLValue* const AvalTrue = MakeShared(AvalBoolean, 1);
MIRLValue* const AvalFalse = MakeShared(AvalBoolean, 0);

namespace mirl {

MIRLValue* Retain(MIRLValue* value) {
  if (value != nullptr && !value->shared) ++value->refs;
  return value;
}

MIRLValue* Nil() { return shared_nil; }

MIRLValue* Boolean(bool flag) { return flag ? AvalTrue : AvalFalse; }

MIRLValue* NewInteger(int number) {
  MIRLValue* value = NewValue(AvalInteger);
  value->integer = number;
  return value;
}

MIRLValue* NewReal(double real) {
  MIRLValue* value = NewValue(AvalReal);
  value->real = real;
  return value;
}

MIRLValue* NewText(std::string text) {
  ValueRef value(NewValue(AvalString));
  value->text = std::move(text);
  return value.release();
}

MIRLValue* NewList() { return NewValue(AvalList); }

MIRLValue* NewSymbol(std::string name) {
  ValueRef value(NewValue(AvalSymbol));
  value->text = std::move(name);
  return value.release();
}

MIRLValue* NewFunction(const Callable& callable) {
  ValueRef value(NewValue(AprgFunction));
  value->callable = std::make_unique<Callable>(callable);
  return value.release();
}

void FormatValue(const MIRLValue* value, bool quote_texts, std::string* out) {
  switch (aval_type(value)) {
    case AvalInteger:
      out->append(std::to_string(value->integer));
      break;
    case AvalReal:
      FormatReal(value->real, out);
      break;
    case AvalString:
      if (quote_texts) out->push_back('"');
      out->append(value->text);
      if (quote_texts) out->push_back('"');
      break;
    case AvalBoolean:
      out->append(value->integer != 0 ? "true" : "false");
      break;
    case AvalList:
      out->push_back('[');
      for (size_t i = 0; i < value->items.size(); ++i) {
        if (i > 0) out->append(", ");
        FormatValue(value->items[i], true, out);
      }
      out->push_back(']');
      break;
    case AprgFunction:
      out->append("<function ").append(value->callable->name).push_back('>');
      break;
    case AvalSymbol:
      out->append("&").append(value->text);
      break;
    default:
      out->append("nil");
      break;
  }
}

}  // namespace mirl

extern "C" {

MIRLValue* aval_create_string(const char* text) {
  try {
    return mirl::NewText(text != nullptr ? text : "");
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return nullptr;
  }
}

MIRLValue* aval_create_raw_integer(int value) {
  try {
    return mirl::NewInteger(value);
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return nullptr;
  }
}

MIRLValue* aval_create_real(double value) {
  try {
    return mirl::NewReal(value);
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return nullptr;
  }
}

MIRLValue* aval_create_list(int n) {
  try {
    mirl::ValueRef list(mirl::NewList());
    if (n > 0) list->items.assign(static_cast<size_t>(n), mirl::Nil());
    return list.release();
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return nullptr;
  }
}

int aval_put_list_item(MIRLValue* list, int i, MIRLValue* item) {
  if (list == nullptr || list->type != AvalList || i < 0 ||
      static_cast<size_t>(i) >= list->items.size()) {
    aval_free_value(item);
    return 0;
  }
  MIRLValue* old = list->items[i];
  list->items[i] = item != nullptr ? item : mirl::Nil();
  aval_free_value(old);
  return 1;
}

MIRLValue* aval_insert_list_item(MIRLValue* list, MIRLValue* item) {
  mirl::ValueRef owned(item != nullptr ? item : mirl::Nil());
  try {
    if (list == nullptr) {
      mirl::ValueRef fresh(mirl::NewList());
      fresh->items.push_back(owned.release());
      return fresh.release();
    }
    if (list->type != AvalList) return list;
    list->items.insert(list->items.begin(), owned.get());
    owned.release();
    return list;
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return list;
  }
}

int aval_append_list_item(MIRLValue* list, MIRLValue* item) {
  mirl::ValueRef owned(item != nullptr ? item : mirl::Nil());
  if (list == nullptr || list->type != AvalList) return 0;
  try {
    list->items.push_back(owned.get());
    owned.release();
    return 1;
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return 0;
  }
}

MIRLValue* aval_nth_list(MIRLValue* list, int n) {
  if (list == nullptr || list->type != AvalList || n < 0 ||
      static_cast<size_t>(n) >= list->items.size())
    return nullptr;
  return list->items[n];
}

MIRLValue* aval_tail_list(MIRLValue* list, int n) {
  if (list == nullptr || list->type != AvalList) return nullptr;
  try {
    mirl::ValueRef tail(mirl::NewList());
    size_t from = n > 0 ? static_cast<size_t>(n) : 0;
    for (size_t i = from; i < list->items.size(); ++i) {
      tail->items.push_back(mirl::Retain(list->items[i]));
    }
    return tail.release();
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return nullptr;
  }
}

int aval_list_length(const MIRLValue* list) {
  if (list == nullptr || list->type != AvalList) return -1;
  return static_cast<int>(list->items.size());
}

MIRLValue* aval_copy_value(const MIRLValue* value, int type) {
  if (value == nullptr) return nullptr;
  try {
    return CopyValue(value, type);
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return nullptr;
  }
}

int aval_type(const MIRLValue* value) { return value != nullptr ? value->type : AvalNone; }

const char* aval_value_data(const MIRLValue* value) {
  return value != nullptr && value->type == AvalString ? value->text.c_str() : nullptr;
}

int aval_string_length(const MIRLValue* value) {
  return value != nullptr && value->type == AvalString ? static_cast<int>(value->text.size()) : -1;
}

int aval_string_value(const MIRLValue* value, int size, char* buffer) {
  if (value == nullptr || value->type != AvalString || size <= 0 || buffer == nullptr) return 0;
  size_t n = std::min(value->text.size(), static_cast<size_t>(size) - 1);
  std::memcpy(buffer, value->text.data(), n);
  buffer[n] = '\0';
  return 1;
}

int aval_integer_value(const MIRLValue* value, int* out) {
  if (value == nullptr || (value->type != AvalInteger && value->type != AvalBoolean)) return 0;
  if (out != nullptr) *out = value->integer;
  return 1;
}

int aval_boolean_value(const MIRLValue* value, int* flag) {
  if (value == nullptr || value->type != AvalBoolean) return 0;
  if (flag != nullptr) *flag = value->integer;
  return 1;
}

void aval_free_value(MIRLValue* value) {
  if (value == nullptr || value->shared) return;
  if (--value->refs == 0) Destroy(value);
}

void aval_free_values(MIRLValue** values, int count) {
  if (values == nullptr) return;
  for (int i = 0; i < count; ++i) aval_free_value(values[i]);
}

int convertToInt(const MIRLValue* value) {
  int number = 0;
  return ToInt(value, &number) ? number : 0;
}

long mirl_live_values(void) { return live_values; }

}  // extern "C"
