#include "platform/io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
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
