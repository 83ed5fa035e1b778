// The two interface objects that plug-ins reach the library through.
#ifndef VARN_PLUGIN_INTERFACE_OBJECTS_H_
#define VARN_PLUGIN_INTERFACE_OBJECTS_H_

#include <new>

#include "varn_plugin.h"

namespace varn::plugin {

// A new object of the concrete class; null when memory is short.
VARNInterface* NewVarnInterface();
RemoteFileInterface* NewRemoteFileInterface();

}  // namespace varn::plugin

#endif  // VARN_PLUGIN_INTERFACE_OBJECTS_H_
