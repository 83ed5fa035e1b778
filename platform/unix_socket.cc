#include "platform/unix_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/system.h"

namespace varn::platform {
namespace {

bool MakeAddress(const std::string& path, sockaddr_un* address) {
  std::memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address->sun_path ||
      path.find('\0') != std::string::npos) {
    return false;
  }
  std::memcpy(address->sun_path, path.data(), path.size());
  return true;
}

// Connects without waiting for room: a listener whose backlog is full
// fails with EAGAIN at once instead of holding the caller. The descriptor
// is non-blocking.
int ConnectNow(const sockaddr_un& address) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  for (;;) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    if (errno != EINTR) break;
  }
  int saved = errno;
  close(fd);
  errno = saved;
  return -1;
}

// Whether something listens at address: it took the connection, or its
// backlog is full. False with errno otherwise (ECONNREFUSED: nobody).
bool Listening(const sockaddr_un& address) {
  int probe = ConnectNow(address);
  if (probe >= 0) {
    close(probe);
    return true;
  }
  return errno == EAGAIN;
}

// Clears the way for a new socket at path: nothing there, or a socket file
// whose owner no longer listens (removed). False with errno otherwise.
bool PathIsFree(const std::string& path, const sockaddr_un& address) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return errno == ENOENT;
  if (!S_ISSOCK(st.st_mode)) {
    errno = EEXIST;
    return false;
  }
  if (Listening(address)) {
    errno = EADDRINUSE;
    return false;
  }
  if (errno != ECONNREFUSED) return false;
  return unlink(path.c_str()) == 0 || errno == ENOENT;
}

}  // namespace

int ListenUnixSocket(const std::string& path, SocketFileId* id, int* error) {
  sockaddr_un address;
  if (!MakeAddress(path, &address)) {
    *error = ENAMETOOLONG;
    return -1;
  }
  if (!PathIsFree(path, address)) {
    *error = errno;
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    *error = errno;
    return -1;
  }
  // The file is created by bind with the umask applied: nobody else may
  // connect, not even for a moment. The hub is single-threaded when it
  // does this, so no other file is created under this umask.
  mode_t old_mask = umask(0177);
  int bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  int bind_error = errno;
  umask(old_mask);
  struct stat st;
  if (bound != 0 || listen(fd, 16) != 0 || stat(path.c_str(), &st) != 0) {
    *error = bound != 0 ? bind_error : errno;
    if (bound == 0) unlink(path.c_str());
    close(fd);
    return -1;
  }
  id->device = static_cast<std::uint64_t>(st.st_dev);
  id->inode = static_cast<std::uint64_t>(st.st_ino);
  return fd;
}

int AcceptConnection(int listen_fd, int* error) {
  for (;;) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) return fd;
    if (errno != EINTR) break;
  }
  *error = errno;
  return -1;
}

int ConnectUnixSocket(const std::string& path, int* error) {
  sockaddr_un address;
  if (!MakeAddress(path, &address)) {
    *error = ENAMETOOLONG;
    return -1;
  }
  // A listener whose backlog is full is tried again for a while (it may
  // be busy for a moment), then given up on with EAGAIN: a hung hub must
  // not hang its tools.
  constexpr int kTries = 200;
  constexpr int kRetryMs = 10;
  for (int i = 0; i < kTries; ++i) {
    int fd = ConnectNow(address);
    if (fd >= 0) {
      int flags = fcntl(fd, F_GETFL);
      if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        *error = errno;
        close(fd);
        return -1;
      }
      return fd;
    }
    if (errno != EAGAIN) break;
    SleepMilliseconds(kRetryMs);
  }
  *error = errno;
  return -1;
}

bool RemoveStaleSocket(const std::string& path) {
  sockaddr_un address;
  struct stat st;
  if (!MakeAddress(path, &address) || lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
    return false;
  }
  if (Listening(address)) return false;
  return errno == ECONNREFUSED && unlink(path.c_str()) == 0;
}

void RemoveSocketFile(const std::string& path, const SocketFileId& id) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return;
  if (static_cast<std::uint64_t>(st.st_dev) != id.device ||
      static_cast<std::uint64_t>(st.st_ino) != id.inode) {
    return;
  }
  unlink(path.c_str());
}

}  // namespace varn::platform
