// This process's own status and its text, as it answers STATUS?.
//
// Written on the application's thread (varn_set_status, and the receive
// side when a command arrives); read on the input thread, which answers
// status queries without holding the application's thread, so that a
// process busy in its own code (or asleep) answers at once and is not
// disturbed. Guarded by a lock of its own; a hold of the application's
// thread is deferred while it holds that lock.
#ifndef VARN_CORE_STATUS_H_
#define VARN_CORE_STATUS_H_

#include <cstddef>

namespace varn::core {

// Sets VarnStatus (unless status is 3, which keeps it) and the text (cut
// to 5799 characters; null means empty).
void SetStatus(int status, const char* text);
// Empties the text (varn_init).
void ClearStatusText();
// The status as last set, with its text copied into text (cut to
// size - 1 characters).
int StatusSnapshot(char* text, std::size_t size);

}  // namespace varn::core

#endif  // VARN_CORE_STATUS_H_
