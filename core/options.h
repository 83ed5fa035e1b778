// The -quon_ options of the command line: recognised, copied into the
// library's state, and removed, so that the application sees only its own
// arguments.
#ifndef VARN_CORE_OPTIONS_H_
#define VARN_CORE_OPTIONS_H_

#include <string>
#include <vector>

#include "core/library_lock.h"

namespace varn::core {

// -quon_enable and -quon_disable name servers; they are applied after the
// tables are cleared and the transport runs (so that their rows survive
// initialisation, and an enable that starts a server can send its request).
struct EnableOption {
  bool enable;
  std::string name;
  std::string address;  // empty for a disable, or an enable without address
  bool has_address;
};

// Scans and removes the options. The scan stops at an option whose
// arguments are missing and leaves the rest of the vector as it is. False
// (VarnErrorNo 35) when an argument cannot be copied.
bool ScanOptions(int* argc, char** argv, std::vector<EnableOption>* enables) REQUIRES(kLibrary);

// Reads a descriptor given in hexadecimal; the whole text must be a number.
bool ParseHexFd(const char* text, int* fd);

}  // namespace varn::core

#endif  // VARN_CORE_OPTIONS_H_
