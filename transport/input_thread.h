// The library's own threads and the end of the process.
//
// The input thread runs the active channel's reading loop
// (Channel::RunInput) and hands what it reads to the application's thread
// through one HandOver, or, where the channel reads by turns, lets the
// waiting application's thread read for itself. In socket mode the error-forwarding thread sends
// every line the process writes to its error stream to the hub as STDERR.
//
// Thread ownership:
//   - the hand-over: producer the input thread, consumer the application's
//     thread (its own mutex, hand_over.h);
//   - the threads' started flags and the error pipe: the application's
//     thread (varn_init, varn_deinit);
//   - the input thread's id: written once by the input thread, read by any;
//   - everything else of the library: the application's thread, and the
//     input thread only while it holds the application's thread still
//     (core/library_lock.h).
#ifndef VARN_TRANSPORT_INPUT_THREAD_H_
#define VARN_TRANSPORT_INPUT_THREAD_H_

#include <cstddef>

#include "core/library_lock.h"
#include "transport/hand_over.h"

namespace varn::transport {

// Socket mode: creates the error pipe (its write end becomes the error
// descriptor) and starts the thread that forwards its lines as STDERR.
bool StartErrorForwarding() REQUIRES(core::kLibrary);
// Passes on what the application wrote to its error stream and output,
// then stops the error-forwarding thread (waiting at most 2 s). Standard
// output and error go to the null device afterwards.
void StopErrorForwarding() REQUIRES(core::kLibrary);

// On the input thread (KILL), arms the exit deadline that ends the process
// with status 2 s from now, whatever the rest of the way out is waiting
// for: an exit handler that needs a lock the held application's thread
// owns, or a hub that never acknowledges the exit notice. Elsewhere, and a
// second time, it does nothing.
void BoundTheEnd(int status);

// Ends the process with status through a normal exit (exit handlers run,
// stdio streams are flushed), within the bound of BoundTheEnd on the input
// thread.
[[noreturn]] void EndProcess(int status);

bool OnInputThread();

// The input thread's side of the hand-over.
void HandToApplication(PacketBody body);
void HandToApplicationLast(PacketBody body);
void CloseHandOver();
// The application's side: the next body; false once the input has ended
// and everything was taken.
bool TakeHandedOver(PacketBody* body) REQUIRES(core::kLibrary);

// The reading turn (hand_over.h), where the channel reads by turns. The
// application's side: a handed-over body, or the turn to read the channel.
// before_wait runs (without the hand-over's lock) before the thread waits;
// kTimeout once deadline_ms (when not negative) passed.
HandOver::Next TakeHandedOverOrRead(PacketBody* body, void (*before_wait)(),
                                    std::int64_t deadline_ms) REQUIRES(core::kLibrary);
void DoneReadingChannel() REQUIRES(core::kLibrary);
// The input thread's side, and the wake-up descriptor its read waits on.
bool AwaitInputTurn();
bool YieldInputTurnIfAsked();
int InputTurnWakeFd();

// Counters of the trace lines: messages read by the input thread, and
// taken by the application's thread.
int NextInputCount();
int NextTakenCount() REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_INPUT_THREAD_H_
