// Stand-in for the environment's plug-in manager: a registry of interface
// objects by name, which libraries fill while they load and plug-ins read.
// A shared library of its own (libplugin_manager.so) that exports these two
// functions and nothing else. Both may be called from any thread and from
// static initialisers, in any order.
#ifndef PLUGIN_MANAGER_H_
#define PLUGIN_MANAGER_H_

namespace plugin_manager {

// Registers object under name; a later registration of the same name
// wins. A null object or name registers nothing.
__attribute__((visibility("default"))) void RegisterInterfaceDuringStartup(void* object,
                                                                           const char* name);
// The object registered under name; null for a name nothing was registered
// under (yet), and for a null name.
__attribute__((visibility("default"))) void* GetInterface(const char* name);

}  // namespace plugin_manager

#endif  // PLUGIN_MANAGER_H_
