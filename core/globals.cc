// The library's exported data and the one instance of its internal state.
#include "core/library_state.h"
#include "varn.h"

VarnEntry VarnMessage[VARN_MAX_ENTRIES] = {};
int VarnErrorNo = VARN_E_NONE;
int VarnStatus = VARN_STATUS_IDLE;
int VarnChanType = VARN_CHAN_STANDALONE;
int VarnChanMode = 0;
int VarnIntrSignal = 0;
int VarnSigusr1Count = 0;  // exported for callers; the library never uses it
int VarnSigusr1Caught = 0;
int VarnSleepSecond = 0;
int VarnRecvedQuonStatusIdle = 0;
int IfDetachProtocol = 0;

namespace varn::core::detail {

// Constant-initialised, so they are usable from any static initialiser.
constinit Setup g_setup;
constinit LibraryState g_state;

}  // namespace varn::core::detail
