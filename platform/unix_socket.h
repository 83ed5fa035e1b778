// Unix stream sockets: the hub's control endpoint listens on one, and the
// tools that talk to it connect to it.
//
// Every descriptor is close-on-exec from birth. The listening socket and
// the connections it accepts are non-blocking; a connection made with
// ConnectUnixSocket blocks.
#ifndef VARN_PLATFORM_UNIX_SOCKET_H_
#define VARN_PLATFORM_UNIX_SOCKET_H_

#include <cstdint>
#include <string>

namespace varn::platform {

// Which file a socket was bound to, so that only that file is removed later.
struct SocketFileId {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
};

// Creates a socket file at path, readable and writable by its owner only
// (mode 0600 from the start: it is bound under a umask that allows no
// more), and listens on it. A socket file at the path that nobody listens
// on any more (a crashed process's) is replaced; a live socket fails with
// EADDRINUSE and any other kind of file with EEXIST. A path that does not
// fit a socket address fails with ENAMETOOLONG. Returns the descriptor, or
// -1 with the errno value in *error.
int ListenUnixSocket(const std::string& path, SocketFileId* id, int* error);

// Takes one waiting connection. -1 when none waits (*error EAGAIN) or on
// failure.
int AcceptConnection(int listen_fd, int* error);

// Connects to the socket at path. A listener whose backlog stays full for
// two seconds fails with EAGAIN. -1 with the errno value in *error.
int ConnectUnixSocket(const std::string& path, int* error);

// Removes path when it is a socket file that nobody listens on (a listener
// whose backlog is full counts as listening; the probe never waits). True
// when it was removed.
bool RemoveStaleSocket(const std::string& path);

// Removes path when it is still the socket file `id` names.
void RemoveSocketFile(const std::string& path, const SocketFileId& id);

}  // namespace varn::platform

#endif  // VARN_PLATFORM_UNIX_SOCKET_H_
