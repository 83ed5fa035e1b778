// Conversions of the varn_util_ family between codes and the words of the
// wire (transport/wire_format.h).
#include <cstring>
#include <string_view>

#include "transport/wire_format.h"
#include "varn.h"

int varn_util_int_to_category(int code, char* word) noexcept {
  const char* text = varn::wire::CategoryWord(code);
  if (text == nullptr) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 0;
  }
  std::strcpy(word, text);
  return 1;
}

int varn_util_category_to_int(const char* word, int* code) noexcept {
  // A null word reads as empty and so matches nothing.
  if (!varn::wire::CategoryFromWord(word != nullptr ? word : "", code)) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 0;
  }
  return 1;
}

int varn_util_status_string_to_code(const char* word, int* code) noexcept {
  // VarnErrorNo is deliberately left as it was.
  return varn::wire::StatusFromWord(word != nullptr ? word : "", code) ? 1 : 0;
}
