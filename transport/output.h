// Packet output: locks and per-thread packet buffers of the send side.
//
// Locks, in the order they may be taken:
//   1. the send lock (re-entrant): varn_send_msg holds it across a whole
//      protocol step, varnP_write_packet around each packet, so that two
//      threads sending at once do not interleave their exchanges;
//   2. the wire lock: held while the bytes of one packet go onto the
//      channel, so packets of different threads never interleave. It is the
//      socket write lock, used for pipes as well.
// The error-forwarding thread takes only the wire lock: its STDERR lines are
// no part of any exchange, and waiting for the send lock while the
// application's thread blocks on a full error pipe would deadlock.
// The input thread, while it handles an interrupt with the application's
// thread held, takes only the wire lock too: the held thread may own the
// send lock, but it never owns the wire lock (it is held only outside a
// packet write; see platform/thread.h DeferHoldScope).
#ifndef VARN_TRANSPORT_OUTPUT_H_
#define VARN_TRANSPORT_OUTPUT_H_

namespace varn::transport {

// Marks the calling thread as handling an interrupt (or no longer).
void SetInterruptContext(bool on);
bool InInterruptContext();

// Makes the calling thread build its packets in a buffer of its own instead
// of the application thread's shared packet buffer.
void UsePrivatePacketBuffer();

// Holds the send lock for a scope, unless the thread handles an interrupt.
class SendLockGuard {
 public:
  SendLockGuard();
  ~SendLockGuard();
  SendLockGuard(const SendLockGuard&) = delete;
  SendLockGuard& operator=(const SendLockGuard&) = delete;

 private:
  bool locked_;
};

// Scope that takes only the wire lock (the error-forwarding thread's sends).
void SetWireOnlyThread();

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_OUTPUT_H_
