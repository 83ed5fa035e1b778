#include "platform/io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace varn::platform {

bool CreatePipe(int fds[2]) { return pipe2(fds, O_CLOEXEC) == 0; }

bool CreateSocketPair(int fds[2]) {
  return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0;
}

long ReadSome(int fd, void* buf, std::size_t count) {
  for (;;) {
    ssize_t n = read(fd, buf, count);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

std::size_t ReadFull(int fd, void* buf, std::size_t count, bool* failed) {
  std::size_t got = 0;
  *failed = false;
  while (got < count) {
    long n = ReadSome(fd, static_cast<char*>(buf) + got, count - got);
    if (n < 0) {
      *failed = true;
      break;
    }
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return got;
}

long WriteSome(int fd, const void* buf, std::size_t count) {
  for (;;) {
    ssize_t n = write(fd, buf, count);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

bool WriteAll(int fd, const void* buf, std::size_t count) {
  const char* p = static_cast<const char*>(buf);
  while (count > 0) {
    long n = WriteSome(fd, p, count);
    if (n <= 0) return false;
    p += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

long SocketSend(int fd, const void* buf, std::size_t count) {
  for (;;) {
    ssize_t n = send(fd, buf, count, MSG_NOSIGNAL);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

long WriteGather(int fd, bool socket, const void* a, std::size_t a_size, const void* b,
                 std::size_t b_size) {
  iovec pieces[2] = {{const_cast<void*>(a), a_size}, {const_cast<void*>(b), b_size}};
  for (;;) {
    ssize_t n;
    if (socket) {
      msghdr message{};
      message.msg_iov = pieces;
      message.msg_iovlen = 2;
      n = sendmsg(fd, &message, MSG_NOSIGNAL);
    } else {
      n = writev(fd, pieces, 2);
    }
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

long SocketReceive(int fd, void* buf, std::size_t count) {
  for (;;) {
    ssize_t n = recv(fd, buf, count, 0);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

bool WaitReadable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  for (;;) {
    int r = poll(&p, 1, timeout_ms);
    if (r > 0) return true;
    if (r == 0) return false;
    if (errno != EINTR) return true;  // let the read report the failure
  }
}

Readable WaitReadableAmong(const int* fds, bool* ready, int count, int wake_fd, int timeout_ms) {
  pollfd p[kMaxWaitFds + 1];
  if (count > kMaxWaitFds) count = kMaxWaitFds;
  for (int i = 0; i < count; ++i) p[i] = {fds[i], POLLIN, 0};
  int n = count;
  if (wake_fd >= 0) p[n++] = {wake_fd, POLLIN, 0};
  for (;;) {
    int r = poll(p, static_cast<nfds_t>(n), timeout_ms);
    if (r == 0) return Readable::kTimeout;
    if (r < 0 && errno == EINTR) continue;
    bool any = false;
    for (int i = 0; i < count; ++i) {
      // A failure of poll itself is left for the reads to report.
      ready[i] = r < 0 || p[i].revents != 0;
      any = any || ready[i];
    }
    return any ? Readable::kData : Readable::kWake;
  }
}

bool CreateFifo(const char* path) { return mkfifo(path, 0600) == 0; }

int OpenFifoEnd(const char* path, bool write) {
  int fd = open(path, (write ? O_WRONLY : O_RDONLY) | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return kInvalidFd;
  // Non-blocking only so that the open does not wait for the other side.
  if (!SetNonBlocking(fd, false)) {
    close(fd);
    return kInvalidFd;
  }
  return fd;
}

int CreateWakeFd() {
  int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return fd >= 0 ? fd : kInvalidFd;
}

void SignalWake(int wake_fd) {
  std::uint64_t one = 1;
  while (write(wake_fd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void DrainWake(int wake_fd) {
  std::uint64_t count = 0;
  while (read(wake_fd, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

bool GrowPipe(int fd, std::size_t bytes) {
  return fcntl(fd, F_SETPIPE_SZ, static_cast<int>(bytes)) >= 0;
}

void Close(int fd) {
  if (fd >= 0) close(fd);
}

bool Duplicate2(int from, int to) {
  for (;;) {
    if (dup2(from, to) >= 0) return true;
    if (errno != EINTR) return false;
  }
}

int OpenNullForReading() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

int OpenNullDevice() { return open("/dev/null", O_RDWR | O_CLOEXEC); }

bool IsOpenFd(int fd) { return fd >= 0 && fcntl(fd, F_GETFD) != -1; }

bool SetNonBlocking(int fd, bool on) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return fcntl(fd, F_SETFL, flags) == 0;
}

bool SetCloseOnExec(int fd, bool on) {
  int flags = fcntl(fd, F_GETFD);
  if (flags < 0) return false;
  flags = on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
  return fcntl(fd, F_SETFD, flags) == 0;
}

std::FILE* CreateUniqueFile(char* name_template, const char* mode) {
  int fd = mkostemp(name_template, O_CLOEXEC);
  if (fd < 0) return nullptr;
  std::FILE* f = fdopen(fd, mode);
  if (f == nullptr) close(fd);
  return f;
}

int LastError() { return errno; }

}  // namespace varn::platform
