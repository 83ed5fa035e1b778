#include "plugin_manager.h"

#include <map>
#include <mutex>
#include <string>

namespace plugin_manager {
namespace {

// Function-local statics: registration happens from static initialisers of
// other libraries, in an order nobody controls. Never destroyed, so that a
// library's registration or a plug-in's lookup during process exit still
// finds them.
std::mutex& Mutex() {
  static auto* m = new std::mutex;
  return *m;
}
std::map<std::string, void*>& Registry() {
  static auto* r = new std::map<std::string, void*>;
  return *r;
}

}  // namespace

void RegisterInterfaceDuringStartup(void* object, const char* name) {
  if (object == nullptr || name == nullptr) return;
  std::lock_guard<std::mutex> lock(Mutex());
  Registry()[name] = object;
}

void* GetInterface(const char* name) {
  if (name == nullptr) return nullptr;
  std::lock_guard<std::mutex> lock(Mutex());
  auto it = Registry().find(name);
  return it == Registry().end() ? nullptr : it->second;
}

}  // namespace plugin_manager
