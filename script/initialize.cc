// Setting the bindings up: the library, the message callback, the
// vocabularies, slot 0 and the start polls.
#include "host/mirl/mirl.h"
#include "script/handlers.h"
#include "script/script_errors.h"
#include "script/server_table.h"
#include "script/vocabulary.h"
#include "varn.h"

namespace script = varn::script;
using script::Script;
using varn::core::OnApplicationThread;

namespace {

int RegisterFunctions() REQUIRES(varn::core::kLibrary) {
  Script().aquon_initialized = autil_initialize(0, 0, 0, 1, &script::aquon_function_vocabulary);
  return Script().aquon_initialized;
}

int Failed() {
  script::RaiseVarnError();
  aerr_report();
  return 0;
}

}  // namespace

extern "C" int aquon_initialize(int poll_interval, int timeout, int* argc, char** argv) noexcept {
  OnApplicationThread();
  if (Script().aquon_initialized != 0) return 1;
  varnHandle parent = -1;
  if (!varn_init(argc, argv, &parent)) return Failed();
  if (!varn_set_callback(script::MessageCallback)) return Failed();
  RegisterFunctions();
  script::InitServers(poll_interval, timeout, parent);
  // The vocabulary and slot 0 stay when the help server does not start.
  if (!varn_help_invoke()) return Failed();
  return 1;
}

extern "C" int aquon_coexist_initialize(int poll_interval, int timeout, int parent) noexcept {
  OnApplicationThread();
  if (Script().aquon_initialized != 0) return Script().aquon_initialized;
  RegisterFunctions();
  script::InitServers(poll_interval, timeout, parent);
  return Script().aquon_initialized;
}

extern "C" int mirlquon_init(int* argc, char** argv, varnHandle* parent) noexcept {
  OnApplicationThread();
  if (Script().mirlquon_initialized != 0) return 1;
  if (!varn_init(argc, argv, parent) ||
      !autil_initialize(0, 0, 0, 1, &script::mirlquon_constant_vocabulary)) {
    return 0;
  }
  Script().mirlquon_initialized = 1;
  return 1;
}

extern "C" int mirlquon_init_vocab(void) noexcept {
  OnApplicationThread();
  return autil_initialize(0, 0, 0, 1, &script::mirlquon_constant_vocabulary) != 0 ? 1 : 0;
}
