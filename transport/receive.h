// The receive side's state that the messaging calls read.
#ifndef VARN_TRANSPORT_RECEIVE_H_
#define VARN_TRANSPORT_RECEIVE_H_

namespace varn::transport {

// The text of the last KILL, INTR or SRVR_ERR (at most 1023 bytes).
const char* SignalBuffer();

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_RECEIVE_H_
