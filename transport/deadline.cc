#include "transport/deadline.h"

#include <cstring>

namespace varn::transport {
namespace {

std::int64_t g_deadline_ms GUARDED_BY(core::kLibrary) = -1;
bool g_passed GUARDED_BY(core::kLibrary) = false;

// Late answers still to come, by kind and the peer's address. A few peers
// at most have one on the way; a fixed table needs no allocation and no
// destructor at exit. When it is full the oldest entry gives way (its
// answer then reaches the row like any other).
struct Late {
  LateAnswer kind;
  char address[256];
  int count;
};
constexpr int kLateSlots = 16;
Late g_late[kLateSlots] GUARDED_BY(core::kLibrary);
int g_late_next GUARDED_BY(core::kLibrary) = 0;

Late* FindLate(LateAnswer kind, const char* address) REQUIRES(core::kLibrary) {
  for (Late& late : g_late) {
    if (late.count > 0 && late.kind == kind && std::strcmp(late.address, address) == 0) {
      return &late;
    }
  }
  return nullptr;
}

}  // namespace

ReadDeadline::ReadDeadline(std::int64_t deadline_ms)
    : outer_deadline_ms_(g_deadline_ms), outer_passed_(g_passed) {
  g_deadline_ms = deadline_ms < 0 ? 0 : deadline_ms;
  g_passed = false;
}

// The scope ends on the thread that holds the library's state, as it began.
ReadDeadline::~ReadDeadline() NO_THREAD_SAFETY_ANALYSIS {
  g_deadline_ms = outer_deadline_ms_;
  g_passed = outer_passed_;
}

bool ReadDeadline::Passed() const { return g_passed; }

NoReadDeadline::NoReadDeadline() : outer_deadline_ms_(g_deadline_ms), outer_passed_(g_passed) {
  g_deadline_ms = -1;
}

NoReadDeadline::~NoReadDeadline() NO_THREAD_SAFETY_ANALYSIS {
  g_deadline_ms = outer_deadline_ms_;
  g_passed = outer_passed_;
}

std::int64_t CurrentDeadline() { return g_deadline_ms; }

void NoteDeadlinePassed() { g_passed = true; }

void NoteLate(LateAnswer kind, const char* address) {
  if (address == nullptr || std::strlen(address) >= sizeof g_late[0].address) return;
  if (Late* late = FindLate(kind, address)) {
    ++late->count;
    return;
  }
  // A free slot first; only when all are in use does the oldest give way.
  Late* free = nullptr;
  for (Late& late : g_late) {
    if (late.count == 0) {
      free = &late;
      break;
    }
  }
  if (free == nullptr) {
    free = &g_late[g_late_next];
    g_late_next = (g_late_next + 1) % kLateSlots;
  }
  Late& slot = *free;
  slot.kind = kind;
  std::strcpy(slot.address, address);
  slot.count = 1;
}

bool TakeLate(LateAnswer kind, const char* address) {
  if (address == nullptr) return false;
  Late* late = FindLate(kind, address);
  if (late == nullptr) return false;
  --late->count;
  return true;
}

}  // namespace varn::transport
