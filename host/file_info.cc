#include "host/file_info.h"

#include "platform/files.h"

namespace varn::host {

int gsl_stat(const char* path, unsigned* mode) {
  int error = 0;
  return path != nullptr && platform::FileModeBits(path, mode, &error) ? 0 : -1;
}

}  // namespace varn::host
