// Debug mode: a program runs alone from a terminal, with text lines on
// standard input and output in place of packets. The entry points are
// declared in varn.h (varn_debug_*); each returns 0, "not handled", when
// debug mode is off, so that its caller goes its usual way.
#ifndef VARN_SERVICES_DEBUG_MODE_H_
#define VARN_SERVICES_DEBUG_MODE_H_

#include "varn.h"

#endif  // VARN_SERVICES_DEBUG_MODE_H_
