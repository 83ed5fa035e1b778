#include "host/plugin_manager.h"

#include <map>
#include <mutex>
#include <string>

namespace plugin_manager {
namespace {
// Function-local statics: registration happens from static initialisers of
// other files, in an order nobody controls.
std::mutex& Mutex() {
  static std::mutex m;
  return m;
}
std::map<std::string, void*>& Registry() {
  static auto* r = new std::map<std::string, void*>();  // never destroyed
  return *r;
}
}  // namespace

void RegisterInterfaceDuringStartup(void* object, const char* name) {
  std::lock_guard<std::mutex> lock(Mutex());
  Registry()[name] = object;
}

void* GetInterface(const char* name) {
  std::lock_guard<std::mutex> lock(Mutex());
  auto it = Registry().find(name);
  return it == Registry().end() ? nullptr : it->second;
}

}  // namespace plugin_manager
