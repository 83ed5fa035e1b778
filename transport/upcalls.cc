#include "transport/upcalls.h"

#include "core/rows.h"
#include "transport/deadline.h"
#include "varn.h"

namespace varn::transport {
namespace {

UpperLayer g_upper GUARDED_BY(core::kLibrary);
VarnCallback g_callback GUARDED_BY(core::kLibrary) = nullptr;

}  // namespace

void RegisterUpperLayer(const UpperLayer& layer) { g_upper = layer; }

int CallEnable(const char* name, const char* address) {
  return g_upper.enable ? g_upper.enable(name, address) : 1;
}
int CallDisable(const char* name) { return g_upper.disable ? g_upper.disable(name) : 1; }
int CallNotify(const char* text) { return g_upper.notify ? g_upper.notify(text) : 1; }
int CallDisconnect(varnHandle h) { return g_upper.disconnect ? g_upper.disconnect(h) : 1; }
int CallShutDown() { return g_upper.shut_down ? g_upper.shut_down() : 1; }

VarnCallback Callback() { return g_callback; }

}  // namespace varn::transport

extern "C" void varnP_set_callback(VarnCallback callback) noexcept {
  varn::core::OnApplicationThread();
  varn::transport::g_callback = callback;
}

extern "C" void varnP_call_callback(varnHandle h) noexcept {
  varn::core::OnApplicationThread();
  VarnCallback callback = varn::transport::g_callback;
  // The callback's own waits are not bound by the deadline of the wait
  // that read its message.
  varn::transport::NoReadDeadline unbounded;
  if (h >= 0 && varn::core::ValidHandle(h)) {
    varn::core::Row row(h);
    if (row.waiting()) {
      // The waiting call takes the message, unless interrupts from this
      // peer are to reach the callback at once, or the waiting call would
      // not take them.
      bool interrupt = row.last_category() == VARN_INTR || row.last_category() == VARN_KILL;
      if (interrupt && (row.entry().immediate_intr_kill || row.waiting_passes_interrupts())) {
        if (callback) callback(h);
      } else {
        row.set_waiting(false);
      }
      return;
    }
  }
  if (callback) callback(h);
}
