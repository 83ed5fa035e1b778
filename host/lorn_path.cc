#include "host/lorn_path.h"

#include "platform/io.h"

namespace varn::host {

std::FILE* LornPath::fopen(const char* mode) const { return std::fopen(path_, mode); }

std::FILE* LornPath::OpenUnique(char* name_template, const char* mode) {
  return platform::CreateUniqueFile(name_template, mode);
}

}  // namespace varn::host
