// Registration of the interface objects while the library loads, before any
// of its functions is called. The objects live until the process ends.
#include "plugin/interface_objects.h"
#include "plugin_manager.h"

namespace varn::plugin {
namespace {

// Registers a new object under name; the object is kept, or null when
// memory was short (then nothing is registered). When the manager throws,
// the object is freed and the exception goes on.
template <typename Interface>
Interface* Register(Interface* object, const char* name) {
  if (object == nullptr) return nullptr;
  try {
    plugin_manager::RegisterInterfaceDuringStartup(object, name);
  } catch (...) {
    delete object;
    throw;
  }
  return object;
}

[[maybe_unused]] VARNInterface* const g_varn_interface = Register(NewVarnInterface(), "VARN");
[[maybe_unused]] RemoteFileInterface* const g_remote_file_interface =
    Register(NewRemoteFileInterface(), "RemoteFile");

}  // namespace
}  // namespace varn::plugin
