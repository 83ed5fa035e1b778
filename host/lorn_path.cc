#include "host/lorn_path.h"

#include "platform/files.h"
#include "platform/io.h"
#include "platform/system.h"

namespace varn::host {

std::FILE* LornPath::fopen(const char* mode) const { return std::fopen(path_, mode); }

std::FILE* LornPath::OpenUnique(char* name_template, const char* mode) {
  return platform::CreateUniqueFile(name_template, mode);
}

int LORN::unlink_utf8(const LornString& path) {
  int error = 0;
  return platform::RemoveEntry(path.c_str(), &error) ? 0 : -1;
}

std::string LORN::getcwd_utf8() {
  char buffer[4096];
  return platform::CurrentDirectory(buffer, sizeof buffer) ? std::string(buffer) : std::string();
}

}  // namespace varn::host
