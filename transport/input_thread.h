// The input thread, the error-forwarding thread, and the application
// thread's end of the hand-over between them.
//
// The input thread reads whole packets from the channel to the hub, drops
// PING, handles INTR and KILL itself while it holds the application's thread
// still, and hands every other packet over in order. When the channel ends
// or fails it stops reading and hands over, from then on, the hub's loss (a
// SRVR_ERR from "quon"), so that every wait ends with error 43.
#ifndef VARN_TRANSPORT_INPUT_THREAD_H_
#define VARN_TRANSPORT_INPUT_THREAD_H_

#include <cstddef>

namespace varn::transport {

// Socket mode: creates the error pipe (its write end becomes
// State().error_fd) and starts the thread that forwards its lines as STDERR.
bool StartErrorForwarding();

// Ends the process with status. On the application's thread this is a
// normal exit; on the input thread (KILL), where the held application's
// thread may own stdio or allocator locks, standard output is flushed only
// if its lock is free, and the process ends without exit handlers.
[[noreturn]] void EndProcess(int status);

// Debug mode: the next input line (a malloc'd block the caller frees, NUL
// after the line, line feed removed by the caller). False at end of input.
bool TakeDebugLine(char** line, std::size_t* length);

// The waiting-packet count (lines in debug mode), lowered by the taker.
void CountPacketTaken();

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_INPUT_THREAD_H_
