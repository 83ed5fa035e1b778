#include "host/debug_settings.h"

#include <cstring>
#include <string_view>

#include "platform/system.h"

namespace varn::host {

bool is_debug_mode_active_for(const char* variable, const char* topic, const char* all_word,
                              int /*flags*/) {
  const char* value = platform::GetEnv(variable);
  if (value == nullptr) return false;
  std::string_view rest(value);
  while (!rest.empty()) {
    std::size_t end = rest.find_first_of(" ,:;");
    std::string_view word = rest.substr(0, end);
    if (!word.empty() && ((topic && word == topic) || (all_word && word == all_word))) {
      return true;
    }
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  return false;
}

}  // namespace varn::host
