#include "core/low_memory.h"

#include <cstdio>
#include <cstdlib>

#include "core/diag.h"
#include "core/library_state.h"
#include "host/memory.h"
#include "varn.h"

namespace {

constexpr std::size_t kReserve = 100000;
// The message of the last call; the handler prints it.
char g_message[512];

int Handler(std::size_t reserve, std::size_t request) {
  char* message = nullptr;
  int result = varn_no_memory_msg(reserve, request, &message);
  // The message goes to the error stream.
  varn::core::Diag("%s", message);
  return result;
}

}  // namespace

namespace varn::core {

void InstallLowMemoryHandler() {
  host::MemRecoverHandler handler = Handler;
  std::size_t reserve = kReserve;
  host::dravo_mem_recover_func(&handler, &reserve);
  if (handler != nullptr) host::dravo_mem_recover_func(&handler, &reserve);
}

}  // namespace varn::core

extern "C" int varn_no_memory_msg(size_t reserve, size_t request, char** message) noexcept {
  g_message[0] = '\0';
  varn::host::MemRecoverHandler none = nullptr;
  std::size_t zero = 0;
  varn::host::dravo_mem_recover_func(&none, &zero);

  std::size_t size = request != 0 ? request : reserve;
  bool ok = false;
  if (size == 0) {
    size = 2;  // nothing to try: taken as failed
  } else if (void* p = std::malloc(size)) {
    std::free(p);
    ok = true;
  }
  std::size_t new_reserve = 0;
  const char* program = varn::core::Fixed().program_name;
  if (ok) {
    std::snprintf(g_message, sizeof g_message,
                  "%s: Warning-- less than %d bytes of memory remain\n", program,
                  static_cast<int>(reserve));
    new_reserve = size < reserve ? (reserve - size) / 2 : 0;
  } else {
    std::snprintf(g_message, sizeof g_message,
                  "%s: Error-- unable to allocate %d bytes, process may terminate without "
                  "further warning.\n",
                  program, static_cast<int>(size));
  }
  varn::host::MemRecoverHandler handler = Handler;
  varn::host::dravo_mem_recover_func(&handler, &new_reserve);
  *message = g_message;
  return ok ? 1 : 0;
}
