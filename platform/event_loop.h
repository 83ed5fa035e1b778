// A single-threaded event loop over epoll, for the hub and its tests.
//
// Contract:
// - Descriptors are watched for readability and/or writability; a callback
//   gets what the kernel reported (readable, writable, hang-up, error).
//   Interest can be changed or dropped at any time, also from inside a
//   callback; an event still pending for a descriptor that was dropped in
//   the same round is not delivered.
// - Timers fire once, on the monotonic clock, at or after their deadline.
// - Signals given to WatchSignals are blocked for the calling thread and
//   arrive through a signalfd, so their callbacks run in the loop like any
//   other event, never inside a signal handler.
// - WatchChildExits blocks SIGCHLD the same way and reaps every exited child
//   of the process (waitpid(-1)); each exit is reported once. No zombie
//   remains once the loop has run after a child ended.
// - Post() queues work that runs after the callbacks of the current round,
//   which lets a callback defer destroying the object that owns it.
// Nothing here is thread-safe: one thread owns the loop.
#ifndef VARN_PLATFORM_EVENT_LOOP_H_
#define VARN_PLATFORM_EVENT_LOOP_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace varn::platform {

struct IoEvents {
  bool readable = false;
  bool writable = false;
  bool hangup = false;  // the other end is gone (reads then give end of input)
  bool error = false;
};

// How a child process ended.
struct ChildStatus {
  bool signaled = false;  // true: value is the signal number
  int value = 0;          // exit code, or signal number
};

// Work that runs at the end of a round of the loop, after its callbacks,
// timers and posted work: output gathered during the round leaves in one
// write. An object queues itself at most once a round.
class RoundEnd {
 public:
  virtual void OnRoundEnd() = 0;

 protected:
  ~RoundEnd() = default;
};

class EventLoop {
 public:
  using IoCallback = std::function<void(IoEvents)>;
  using TimerId = std::uint64_t;

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // False when the epoll instance could not be created.
  bool ok() const { return epoll_fd_ >= 0; }

  // Starts watching fd; replaces an existing watch of the same fd.
  bool Watch(int fd, bool read, bool write, IoCallback callback);
  bool Modify(int fd, bool read, bool write);
  // Stops watching fd (it is not closed). Unknown descriptors are ignored.
  void Unwatch(int fd);

  TimerId AddTimer(std::int64_t delay_ms, std::function<void()> callback);
  void CancelTimer(TimerId id);

  // Delivers the given signals to callback (one call per signal received).
  bool WatchSignals(const std::vector<int>& signals, std::function<void(int)> callback);
  // Reports every child that ends, after reaping it.
  bool WatchChildExits(std::function<void(int pid, ChildStatus status)> callback);

  void Post(std::function<void()> work);

  // Queues r for the end of the current round; the caller queues it once.
  void AtRoundEnd(RoundEnd* r);
  // Takes r off the queue (it is being destroyed).
  void CancelRoundEnd(RoundEnd* r);

  // Waits up to timeout_ms (negative: until something happens) and runs
  // whatever became due. Returns false when waiting failed.
  bool RunOnce(int timeout_ms);

 private:
  struct Watcher {
    IoCallback callback;
  };
  bool UpdateSignalMask();
  void OnSignalFd();
  void ReapChildren();
  void RunTimers();
  void RunPosted();

  int epoll_fd_ = -1;
  int signal_fd_ = -1;
  std::vector<int> signals_;
  std::function<void(int)> signal_callback_;
  std::function<void(int, ChildStatus)> child_callback_;
  std::unordered_map<int, std::shared_ptr<Watcher>> watchers_;
  std::multimap<std::int64_t, TimerId> timer_order_;
  std::map<TimerId, std::pair<std::int64_t, std::function<void()>>> timers_;
  TimerId next_timer_ = 1;
  std::vector<std::function<void()>> posted_;
  std::vector<RoundEnd*> round_end_;
  std::vector<RoundEnd*> round_end_running_;
};

// Makes writes to a closed pipe or socket fail with EPIPE instead of ending
// the process with SIGPIPE. Children started through spawn.h get the default
// action back.
void IgnoreBrokenPipeSignal();

}  // namespace varn::platform

#endif  // VARN_PLATFORM_EVENT_LOOP_H_
