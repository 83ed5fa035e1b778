// Process-level services: identity, host name, time, sleeping, environment,
// exit, and the socket start-up that the library performs once.
#ifndef VARN_PLATFORM_SYSTEM_H_
#define VARN_PLATFORM_SYSTEM_H_

#include <cstddef>
#include <cstdint>

namespace varn::platform {

unsigned ProcessId();
unsigned ParentProcessId();

// Host name as gethostname gives it. False on failure.
bool HostName(char* buf, std::size_t size);

// A short machine name, used when the host name is not available. Cut to
// size - 1 characters; false when there is none.
bool ComputerName(char* buf, std::size_t size);

// The socket layer needs no start-up here; this reports the version the
// library checks for (2.2) so that the start-up path stays uniform.
struct SocketVersion {
  int major;
  int minor;
};
bool SocketStartup(SocketVersion* version);
bool SocketCleanup();

void SleepMilliseconds(std::uint64_t ms);
// Gives the processor to another thread.
void Yield();

// Wall-clock time as whole seconds and milliseconds since the epoch.
void NowSecondsMillis(std::int64_t* seconds, int* millis);
// Monotonic milliseconds, for deadlines.
std::int64_t MonotonicMillis();

// Environment lookup; nullptr when unset.
const char* GetEnv(const char* name);

// Ends the process at once with status, without running exit handlers.
// Used where normal exit could wait on a lock another thread holds.
[[noreturn]] void ExitImmediately(int status);

// An exit deadline. Once armed, the process ends with the armed status
// when ms have passed, whatever its threads wait for: a timer signal whose
// handler calls _exit. Prepared once, while nothing is held; arming is a
// system call and allocates nothing, so it works while another thread is
// stopped inside the allocator or holds a lock the exit path needs.
bool PrepareExitDeadline();
// False when the deadline was not prepared or is armed already. The
// calling thread unblocks the signal so that it can be delivered.
bool ArmExitDeadline(int ms, int status);

// Gives the allocator's free pages back to the system (a process whose
// buffers grew for a burst and were freed keeps them resident otherwise).
void ReturnFreeMemory();

// A write to a pipe whose reader is gone reports EPIPE instead of ending
// the process: SIGPIPE is ignored unless the program installed a handler.
void DefaultBrokenPipeToIgnore();

bool ChangeDirectory(const char* dir);
// Current directory into buf; false when it does not fit.
bool CurrentDirectory(char* buf, std::size_t size);

}  // namespace varn::platform

#endif  // VARN_PLATFORM_SYSTEM_H_
