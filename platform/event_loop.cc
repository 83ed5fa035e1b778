#include "platform/event_loop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

#include "platform/system.h"

namespace varn::platform {
namespace {

std::uint32_t EventMask(bool read, bool write) {
  std::uint32_t mask = 0;
  if (read) mask |= EPOLLIN;
  if (write) mask |= EPOLLOUT;
  return mask;
}

}  // namespace

EventLoop::EventLoop() { epoll_fd_ = epoll_create1(EPOLL_CLOEXEC); }

EventLoop::~EventLoop() {
  if (signal_fd_ >= 0) close(signal_fd_);
  if (epoll_fd_ >= 0) close(epoll_fd_);
}

bool EventLoop::Watch(int fd, bool read, bool write, IoCallback callback) {
  epoll_event ev{};
  ev.events = EventMask(read, write);
  ev.data.fd = fd;
  auto watcher = std::make_shared<Watcher>();
  watcher->callback = std::move(callback);
  bool known = watchers_.count(fd) != 0;
  if (epoll_ctl(epoll_fd_, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &ev) != 0) return false;
  watchers_[fd] = std::move(watcher);
  return true;
}

bool EventLoop::Modify(int fd, bool read, bool write) {
  if (watchers_.count(fd) == 0) return false;
  epoll_event ev{};
  ev.events = EventMask(read, write);
  ev.data.fd = fd;
  return epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev) == 0;
}

void EventLoop::Unwatch(int fd) {
  auto it = watchers_.find(fd);
  if (it == watchers_.end()) return;
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  watchers_.erase(it);
}

EventLoop::TimerId EventLoop::AddTimer(std::int64_t delay_ms, std::function<void()> callback) {
  TimerId id = next_timer_++;
  std::int64_t due = MonotonicMillis() + (delay_ms < 0 ? 0 : delay_ms);
  timers_[id] = {due, std::move(callback)};
  timer_order_.emplace(due, id);
  return id;
}

void EventLoop::CancelTimer(TimerId id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  auto range = timer_order_.equal_range(it->second.first);
  for (auto o = range.first; o != range.second; ++o) {
    if (o->second == id) {
      timer_order_.erase(o);
      break;
    }
  }
  timers_.erase(it);
}

bool EventLoop::UpdateSignalMask() {
  sigset_t mask;
  sigemptyset(&mask);
  for (int s : signals_) sigaddset(&mask, s);
  if (child_callback_) sigaddset(&mask, SIGCHLD);
  if (pthread_sigmask(SIG_BLOCK, &mask, nullptr) != 0) return false;
  int fd = signalfd(signal_fd_, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) return false;
  if (signal_fd_ < 0) {
    signal_fd_ = fd;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) return false;
  }
  return true;
}

bool EventLoop::WatchSignals(const std::vector<int>& signals, std::function<void(int)> callback) {
  signals_ = signals;
  signal_callback_ = std::move(callback);
  return UpdateSignalMask();
}

bool EventLoop::WatchChildExits(std::function<void(int, ChildStatus)> callback) {
  child_callback_ = std::move(callback);
  if (!UpdateSignalMask()) return false;
  // A child that ended before SIGCHLD was blocked left no pending signal.
  Post([this] { ReapChildren(); });
  return true;
}

void EventLoop::OnSignalFd() {
  bool child = false;
  for (;;) {
    signalfd_siginfo info;
    ssize_t n = read(signal_fd_, &info, sizeof info);
    if (n != static_cast<ssize_t>(sizeof info)) break;
    int signo = static_cast<int>(info.ssi_signo);
    if (signo == SIGCHLD) {
      child = true;
    } else if (signal_callback_) {
      signal_callback_(signo);
    }
  }
  // Several exits may share one SIGCHLD, so reap until none is left.
  if (child) ReapChildren();
}

void EventLoop::ReapChildren() {
  if (!child_callback_) return;
  for (;;) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) {
      if (pid < 0 && errno == EINTR) continue;
      break;
    }
    ChildStatus cs;
    if (WIFSIGNALED(status)) {
      cs.signaled = true;
      cs.value = WTERMSIG(status);
    } else if (WIFEXITED(status)) {
      cs.value = WEXITSTATUS(status);
    } else {
      continue;  // stopped or continued: not an exit
    }
    child_callback_(static_cast<int>(pid), cs);
  }
}

void EventLoop::Post(std::function<void()> work) { posted_.push_back(std::move(work)); }

void EventLoop::RunTimers() {
  std::int64_t now = MonotonicMillis();
  while (!timer_order_.empty() && timer_order_.begin()->first <= now) {
    TimerId id = timer_order_.begin()->second;
    timer_order_.erase(timer_order_.begin());
    auto it = timers_.find(id);
    if (it == timers_.end()) continue;
    auto callback = std::move(it->second.second);
    timers_.erase(it);
    callback();
  }
}

void EventLoop::RunPosted() {
  // Posted work may post more; run until the list stays empty.
  while (!posted_.empty()) {
    std::vector<std::function<void()>> work;
    work.swap(posted_);
    for (auto& w : work) w();
  }
}

bool EventLoop::RunOnce(int timeout_ms) {
  RunPosted();
  if (!timer_order_.empty()) {
    std::int64_t wait = timer_order_.begin()->first - MonotonicMillis();
    if (wait < 0) wait = 0;
    if (timeout_ms < 0 || wait < timeout_ms) timeout_ms = static_cast<int>(wait);
  }
  constexpr int kMaxEvents = 64;
  epoll_event events[kMaxEvents];
  int n = epoll_wait(epoll_fd_, events, kMaxEvents, timeout_ms);
  if (n < 0 && errno != EINTR) return false;
  for (int i = 0; i < n; ++i) {
    int fd = events[i].data.fd;
    if (fd == signal_fd_) {
      OnSignalFd();
      continue;
    }
    auto it = watchers_.find(fd);
    if (it == watchers_.end()) continue;  // dropped earlier in this round
    // Keep the watcher alive while its callback runs, even if it unwatches.
    std::shared_ptr<Watcher> watcher = it->second;
    IoEvents ev;
    std::uint32_t e = events[i].events;
    ev.readable = (e & EPOLLIN) != 0;
    ev.writable = (e & EPOLLOUT) != 0;
    ev.hangup = (e & (EPOLLHUP | EPOLLRDHUP)) != 0;
    ev.error = (e & EPOLLERR) != 0;
    watcher->callback(ev);
  }
  RunTimers();
  RunPosted();
  // Queued again while running (a flush that met a full pipe and then
  // more output) means the next round; the vectors keep their capacity.
  round_end_running_.swap(round_end_);
  for (std::size_t i = 0; i < round_end_running_.size(); ++i) {
    if (round_end_running_[i] != nullptr) round_end_running_[i]->OnRoundEnd();
  }
  round_end_running_.clear();
  return true;
}

void EventLoop::AtRoundEnd(RoundEnd* r) { round_end_.push_back(r); }

void EventLoop::CancelRoundEnd(RoundEnd* r) {
  for (RoundEnd*& queued : round_end_) {
    if (queued == r) queued = nullptr;
  }
  for (RoundEnd*& queued : round_end_running_) {
    if (queued == r) queued = nullptr;
  }
}

void IgnoreBrokenPipeSignal() { std::signal(SIGPIPE, SIG_IGN); }

}  // namespace varn::platform
