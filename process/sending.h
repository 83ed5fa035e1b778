// The checks a message to a peer passes before it is sent, shared by
// varn_send_msg and varn_call_deadline.
#ifndef VARN_PROCESS_SENDING_H_
#define VARN_PROCESS_SENDING_H_

#include "core/library_lock.h"

namespace varn::process {

// Whether row h can take a message of this category now: a peer that
// exited is started again (false, with the start's error, when that
// fails); a program that does not speak the protocol takes only KILL, INTR
// and DATA (39); the row must be in use (31).
bool RowTakesMessage(int h, int category) REQUIRES(core::kLibrary);

}  // namespace varn::process

#endif  // VARN_PROCESS_SENDING_H_
