#include "host/paths.h"

#include <cctype>
#include <cstring>

namespace varn::host {

bool gfile_hasdrv(const char* path) {
  return path != nullptr && std::isalpha(static_cast<unsigned char>(path[0])) && path[1] == ':';
}

bool gfile_hasext(const char* path) {
  if (path == nullptr) return false;
  const char* last = path;
  for (const char* p = path; *p; ++p) {
    if (*p == '/' || *p == '\\' || *p == ':') last = p + 1;
  }
  const char* dot = std::strrchr(last, '.');
  return dot != nullptr && dot != last && dot[1] != '\0';
}

}  // namespace varn::host
