// The kinds of message that script handlers receive.
#ifndef VARN_SCRIPT_MESSAGE_KINDS_H_
#define VARN_SCRIPT_MESSAGE_KINDS_H_

#include "varn.h"

namespace varn::script {

enum MessageKind {
  kKindCommand = 0,       // CMD
  kKindData = 1,          // DATA outside a block
  kKindDataBegin = 2,     // BEGIN: the block's title
  kKindDataContinue = 3,  // DATA inside a block
  kKindDataEnd = 4,       // END
  kKindDone = 5,          // DONE
  kKindError = 6,         // ERROR
  kKindDeath = 7,         // SRVR_ERR: the server's process has ended
  kKindNone = -1,
};

// The kind of a category received outside a block; kKindNone for the
// categories that have none (0, nothing received, among them).
inline int KindOfCategory(int category) {
  switch (category) {
    case VARN_CMD:
      return kKindCommand;
    case VARN_DATA:
      return kKindData;
    case VARN_BEGIN:
      return kKindDataBegin;
    case VARN_END:
      return kKindDataEnd;
    case VARN_DONE:
      return kKindDone;
    case VARN_ERROR:
      return kKindError;
    case VARN_SRVR_ERR:
      return kKindDeath;
    default:
      return kKindNone;
  }
}

}  // namespace varn::script

#endif  // VARN_SCRIPT_MESSAGE_KINDS_H_
