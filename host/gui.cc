#include "host/gui.h"

#include "platform/system.h"

namespace varn::host {

int gui_chdir(const char* directory) {
  return directory != nullptr && platform::ChangeDirectory(directory) ? 1 : 0;
}

}  // namespace varn::host
