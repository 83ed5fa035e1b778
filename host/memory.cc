#include "host/memory.h"

#include <cstdlib>
#include <mutex>

namespace varn::host {
namespace {
std::mutex g_mutex;  // guards the two slots below
MemRecoverHandler g_handler = nullptr;
std::size_t g_reserve = 0;
}  // namespace

void dravo_mem_recover_func(MemRecoverHandler* handler, std::size_t* reserve) {
  std::lock_guard<std::mutex> lock(g_mutex);
  MemRecoverHandler old_handler = g_handler;
  std::size_t old_reserve = g_reserve;
  g_handler = *handler;
  g_reserve = *reserve;
  *handler = old_handler;
  *reserve = old_reserve;
}

void* gmem_ko_malloc(std::size_t size) {
  void* p = std::malloc(size);
  if (p != nullptr) return p;
  MemRecoverHandler handler;
  std::size_t reserve;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    handler = g_handler;
    reserve = g_reserve;
  }
  if (handler != nullptr && handler(reserve, size) == 1) p = std::malloc(size);
  return p;
}

void gmem_ko_free(void* p) { std::free(p); }

}  // namespace varn::host
