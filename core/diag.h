// Diagnostics on the standard error stream.
//
// Lines are formatted into a stack buffer and written with one write(2) on
// descriptor 2, so they appear at once and never take the stdio lock: the
// input thread prints while the application's thread may be held inside
// stdio, and the error-forwarding thread reads what is written here.
#ifndef VARN_CORE_DIAG_H_
#define VARN_CORE_DIAG_H_

namespace varn::core {

// printf-style; lines longer than 4 KiB are cut.
void Diag(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace varn::core

#endif  // VARN_CORE_DIAG_H_
