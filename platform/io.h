// Descriptor I/O for the library and the hub.
//
// Every descriptor this layer creates is close-on-exec from birth; a child
// inherits only what a spawn explicitly passes on. Reads and writes retry
// on EINTR, so a signal that parks a thread (thread.h) never turns into a
// failed transfer.
#ifndef VARN_PLATFORM_IO_H_
#define VARN_PLATFORM_IO_H_

#include <cstddef>
#include <cstdio>

namespace varn::platform {

inline constexpr int kInvalidFd = -1;

// Creates a pipe; fds[0] reads, fds[1] writes. Both close-on-exec.
bool CreatePipe(int fds[2]);

// Creates a connected pair of stream sockets, both close-on-exec.
bool CreateSocketPair(int fds[2]);

// One read. Returns the byte count (0 at end of input) or -1 on failure.
long ReadSome(int fd, void* buf, std::size_t count);

// Reads until count bytes arrived, the input ended or a read failed.
// Returns the bytes obtained; *failed is set when a read failed.
std::size_t ReadFull(int fd, void* buf, std::size_t count, bool* failed);

// One write. Returns the byte count or -1 on failure (errno kept).
long WriteSome(int fd, const void* buf, std::size_t count);

// Writes everything. False when a write fails.
bool WriteAll(int fd, const void* buf, std::size_t count);

// One send on a socket without raising SIGPIPE. -1 on failure.
long SocketSend(int fd, const void* buf, std::size_t count);

// One receive on a socket. -1 on failure, 0 at end.
long SocketReceive(int fd, void* buf, std::size_t count);

// Writes a then b to fd in one system call where the descriptor takes
// them (writev; on a socket without raising SIGPIPE). Bytes written, or -1.
long WriteGather(int fd, bool socket, const void* a, std::size_t a_size, const void* b,
                 std::size_t b_size);

// Waits up to timeout_ms (negative: for ever) for fd to become readable.
// True when readable (or at end of input / error, which a read then reports).
bool WaitReadable(int fd, int timeout_ms);

// Waits for any of `count` descriptors to become readable (or reach their
// end), for wake_fd (a wake-up descriptor, when not negative) to be
// signalled, or for the timeout (for ever when timeout_ms < 0).
// On kData, ready[i] tells which descriptors have something. At most
// kMaxWaitFds descriptors.
inline constexpr int kMaxWaitFds = 64;
enum class Readable { kData, kWake, kTimeout };
Readable WaitReadableAmong(const int* fds, bool* ready, int count, int wake_fd, int timeout_ms);

// A named pipe at path with mode 0600. False (errno kept) when it cannot be
// made.
bool CreateFifo(const char* path);
// Opens one end of a named pipe without waiting for the other side: the
// read end at once; the write end only while some reader has the pipe open
// (kInvalidFd otherwise). The descriptor is close-on-exec and blocking.
int OpenFifoEnd(const char* path, bool write);

// A wake-up descriptor: one thread signals it, another waits for it with
// WaitReadableAmong and drains it. kInvalidFd when none can be made.
int CreateWakeFd();
void SignalWake(int wake_fd);
void DrainWake(int wake_fd);

void Close(int fd);
bool Duplicate2(int from, int to);
// Descriptor of /dev/null opened for reading, or kInvalidFd.
int OpenNullForReading();
// Descriptor of /dev/null opened for reading and writing, or kInvalidFd.
int OpenNullDevice();
bool IsOpenFd(int fd);
bool SetNonBlocking(int fd, bool on);
bool SetCloseOnExec(int fd, bool on);
// Asks for a pipe buffer of `bytes` (more data in flight for a streaming
// peer). False where fd is not a pipe or the system refused.
bool GrowPipe(int fd, std::size_t bytes);
// Replaces the trailing "XXXXXX" of name_template in place so that it names
// a new file, creates it, and returns it opened as a stdio stream with mode
// (nullptr on failure).
std::FILE* CreateUniqueFile(char* name_template, const char* mode);
// errno of the last failed call on this thread.
int LastError();

// The standard descriptors.
inline constexpr int kStdin = 0;
inline constexpr int kStdout = 1;
inline constexpr int kStderr = 2;

}  // namespace varn::platform

#endif  // VARN_PLATFORM_IO_H_
