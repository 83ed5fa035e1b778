// What the transport asks of the layers above it, and the application's
// callback.
//
// Some messages call for work of the process layer: ENABLE, DISABLE and
// NOTIFY change the enable lists, DETACH disconnects a row, KILL ends the
// process through varn_deinit. The transport does not call up into those
// layers by name; varn_init registers the functions here. A function that
// is not registered (before varn_init) does nothing.
#ifndef VARN_TRANSPORT_UPCALLS_H_
#define VARN_TRANSPORT_UPCALLS_H_

#include "core/library_lock.h"
#include "varn.h"

namespace varn::transport {

struct UpperLayer {
  int (*enable)(const char* name, const char* address) = nullptr;
  int (*disable)(const char* name) = nullptr;
  int (*notify)(const char* text) = nullptr;
  int (*disconnect)(varnHandle h) = nullptr;
  // Ends the process (varn_deinit); returns only when the library was not
  // initialised.
  int (*shut_down)() = nullptr;
};

void RegisterUpperLayer(const UpperLayer& layer) REQUIRES(core::kLibrary);

int CallEnable(const char* name, const char* address) REQUIRES(core::kLibrary);
int CallDisable(const char* name) REQUIRES(core::kLibrary);
int CallNotify(const char* text) REQUIRES(core::kLibrary);
int CallDisconnect(varnHandle h) REQUIRES(core::kLibrary);
int CallShutDown() REQUIRES(core::kLibrary);

// The application's callback (varn_set_callback); the rule that decides
// whether a message goes to it is varnP_call_callback.
VarnCallback Callback() REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_UPCALLS_H_
