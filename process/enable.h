// Enable and disable lists, the reinvoke notice and disconnection; the
// functions are declared in varn.h (varnP_enable_server_protocal and its
// family).
#ifndef VARN_PROCESS_ENABLE_H_
#define VARN_PROCESS_ENABLE_H_

#include "varn.h"

#endif  // VARN_PROCESS_ENABLE_H_
