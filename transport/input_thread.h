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

// Ends the process with status through a normal exit (exit handlers run,
// stdio streams are flushed). On the input thread (KILL), where the held
// application's thread may own a lock an exit handler needs, a watchdog
// ends the process without them if they have not finished within 2 s.
[[noreturn]] void EndProcess(int status);

// Socket mode: passes on what the application wrote to its error stream
// and output, then stops the error-forwarding thread (waiting at most 2 s).
// Standard output and error go to the null device afterwards.
void StopErrorForwarding();

// Debug mode: the next input line (a malloc'd block the caller frees, NUL
// after the line, line feed removed by the caller). False at end of input.
bool TakeDebugLine(char** line, std::size_t* length);

// The waiting-packet count (lines in debug mode), lowered by the taker.
void CountPacketTaken();

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_INPUT_THREAD_H_
