// Stand-in for the environment's plug-in manager: a registry of interface
// objects by name, filled while libraries load.
#ifndef VARN_HOST_PLUGIN_MANAGER_H_
#define VARN_HOST_PLUGIN_MANAGER_H_

namespace plugin_manager {

// Registers object under name; a later registration of the same name wins.
void RegisterInterfaceDuringStartup(void* object, const char* name);
// The object registered under name, or nullptr.
void* GetInterface(const char* name);

}  // namespace plugin_manager

#endif  // VARN_HOST_PLUGIN_MANAGER_H_
