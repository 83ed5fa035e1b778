#include "host/settings.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "platform/mutex.h"
#include "platform/system.h"

struct GuiEnv {
  std::map<std::string, std::string> values;
};

namespace {

std::optional<std::string> SettingsDirectory() {
  const char* dir = varn::platform::GetEnv("DRAVO_SETTINGS_DIR");
  if (dir != nullptr && dir[0] != '\0') return std::string(dir);
  const char* home = varn::platform::GetEnv("HOME");
  if (home != nullptr && home[0] != '\0') return std::string(home);
  return std::nullopt;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return s;
}

// Reads ".name" of the settings directory; false when it cannot be read.
bool ReadSettingsFile(const char* name, GuiEnv* env) {
  std::optional<std::string> dir = SettingsDirectory();
  if (!dir || name == nullptr || name[0] == '\0' || std::strchr(name, '/') != nullptr) return false;
  std::string path = *dir + "/." + name;
  std::FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return false;
  std::string line;
  char chunk[1024];
  while (std::fgets(chunk, sizeof chunk, file) != nullptr) {
    line += chunk;
    if (line.back() != '\n' && !std::feof(file)) continue;  // a long line goes on
    std::string_view text = Trim(line);
    if (!text.empty() && text.front() != '#') {
      std::size_t split = text.find_first_of("= \t");
      std::string key(text.substr(0, split));
      std::string_view value;
      if (split != std::string_view::npos) {
        value = Trim(text.substr(split + 1));
        // "KEY = VALUE"
        if (text[split] != '=' && !value.empty() && value.front() == '=') {
          value = Trim(value.substr(1));
        }
      }
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (!key.empty()) env->values.emplace(key, std::string(value));
    }
    line.clear();
  }
  std::fclose(file);
  return true;
}

// The environment variable of the key's name, else the settings' value.
const std::string* Lookup(const GuiEnv* env, const char* key, std::string* from_environment) {
  if (key == nullptr || key[0] == '\0') return nullptr;
  const char* v = varn::platform::GetEnv(key);
  if (v != nullptr) {
    *from_environment = v;
    return from_environment;
  }
  if (env == nullptr) return nullptr;
  auto it = env->values.find(key);
  return it == env->values.end() ? nullptr : &it->second;
}

int CopyOut(const std::string* found, char* value, const char* default_value, int size) {
  if (value != nullptr && size > 0) {
    const char* text = found != nullptr ? found->c_str() : (default_value ? default_value : "");
    std::snprintf(value, static_cast<std::size_t>(size), "%s", text);
  }
  return found != nullptr ? 1 : 0;
}

// The current environment of the astr_ calls.
varn::platform::Mutex g_mutex;
bool g_has_current GUARDED_BY(g_mutex) = false;
std::string g_current_name GUARDED_BY(g_mutex);
GuiEnv g_current GUARDED_BY(g_mutex);

}  // namespace

extern "C" const char* gsl_getenv(const char* name) noexcept {
  return name != nullptr ? varn::platform::GetEnv(name) : nullptr;
}

extern "C" int gui_env_init(void) noexcept { return SettingsDirectory() ? 1 : 0; }

extern "C" GuiEnv* gui_env_open(const char* name, int /*flags*/) noexcept {
  auto* env = new (std::nothrow) GuiEnv;
  if (env == nullptr) return nullptr;
  if (!ReadSettingsFile(name, env)) {
    delete env;
    return nullptr;
  }
  return env;
}

extern "C" int gui_env_get(GuiEnv* env, const char* key, char* value, const char* default_value,
                           int size, int /*flags*/) noexcept {
  if (env == nullptr) return CopyOut(nullptr, value, default_value, size);
  std::string from_environment;
  return CopyOut(Lookup(env, key, &from_environment), value, default_value, size);
}

extern "C" void gui_env_close(GuiEnv* env) noexcept { delete env; }

extern "C" const char* astr_get_environment(void) noexcept {
  varn::platform::MutexLock lock(&g_mutex);
  return g_has_current ? g_current_name.c_str() : nullptr;
}

extern "C" int astr_set_environment(const char* name) noexcept {
  if (name == nullptr || name[0] == '\0') return 0;
  GuiEnv env;
  ReadSettingsFile(name, &env);  // a missing file leaves the environment variables
  varn::platform::MutexLock lock(&g_mutex);
  g_current_name = name;
  g_current = std::move(env);
  g_has_current = true;
  return 1;
}

extern "C" int astr_environment_string(const char* key, char* value, int size) noexcept {
  varn::platform::MutexLock lock(&g_mutex);
  std::string from_environment;
  const std::string* found = g_has_current ? Lookup(&g_current, key, &from_environment) : nullptr;
  return CopyOut(found, value, nullptr, size);
}

extern "C" void astr_close_environment(void) noexcept {
  varn::platform::MutexLock lock(&g_mutex);
  g_has_current = false;
  g_current_name.clear();
  g_current.values.clear();
}

extern "C" int gui_env_get_ko(const char* key, char* value, int* length, int size,
                              int /*flags*/) noexcept {
  if (length != nullptr) *length = 0;
  if (key == nullptr || value == nullptr || size <= 0) return -1;
  const char* from_environment = gsl_getenv(key);
  bool found = true;
  if (from_environment != nullptr) {
    std::snprintf(value, static_cast<std::size_t>(size), "%s", from_environment);
  } else {
    found = astr_environment_string(key, value, size) != 0;
  }
  if (!found) {
    value[0] = '\0';
    return -1;
  }
  int n = static_cast<int>(std::strlen(value));
  if (length != nullptr) *length = n;
  return n;
}
