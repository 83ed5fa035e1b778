#include "host/astr_string.h"

#include <cstdlib>
#include <cstring>

namespace varn::host {

char* astr_new_string(const char* text) {
  const char* from = text != nullptr ? text : "";
  std::size_t n = std::strlen(from);
  char* copy = static_cast<char*>(std::malloc(n + 1));
  if (copy != nullptr) std::memcpy(copy, from, n + 1);
  return copy;
}

void astr_free_string(char* text) { std::free(text); }

char* astr_get_leaf_name(char* path) {
  char* leaf = path;
  for (char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\' || *p == ':') leaf = p + 1;
  }
  return leaf;
}

void astr_remove_extent(char* path) {
  char* leaf = astr_get_leaf_name(path);
  char* dot = std::strrchr(leaf, '.');
  if (dot != nullptr && dot != leaf) *dot = '\0';
}

}  // namespace varn::host
