#include "platform/files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace varn::platform {
namespace {

// Confines a lookup beneath its starting directory. Magic links (the
// /proc/PID/fd and /proc/PID/root kind) jump anywhere, so they are refused
// outright rather than left to RESOLVE_BENEATH's current behaviour.
constexpr unsigned long long kConfined = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;

// openat2 asks to be retried with EAGAIN when a rename elsewhere raced with
// a ".." step and it could not prove the lookup stayed beneath.
constexpr int kOpenAttempts = 16;

std::FILE* Stream(void* s) { return static_cast<std::FILE*>(s); }

bool RealPath(const std::string& path, std::string* out, int* error) {
  char buf[PATH_MAX];
  if (realpath(path.c_str(), buf) == nullptr) {
    *error = errno;
    return false;
  }
  *out = buf;
  return true;
}

int OpenAt2(int dir_fd, const char* path, int flags, unsigned mode, unsigned long long resolve) {
  open_how how{};
  how.flags = static_cast<unsigned long long>(flags);
  // The kernel refuses a mode without O_CREAT.
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = resolve;
  return static_cast<int>(syscall(SYS_openat2, dir_fd, path, &how, sizeof how));
}

}  // namespace

FilesRoot::~FilesRoot() {
  if (fd_ >= 0) close(fd_);
}

FilesRoot::FilesRoot(FilesRoot&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)) {}

FilesRoot& FilesRoot::operator=(FilesRoot&& other) noexcept {
  std::swap(path_, other.path_);
  std::swap(fd_, other.fd_);
  return *this;
}

bool FilesRoot::Open(const std::string& directory, int* error) {
  std::string canonical;
  if (!RealPath(directory, &canonical, error)) return false;
  int fd = open(canonical.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return false;
  }
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
  path_ = std::move(canonical);
  return true;
}

bool FilesRoot::Relative(const std::string& path, std::string* relative, int* error) const {
  if (path.empty()) {
    *error = ENOENT;
    return false;
  }
  // The kernel would stop at a NUL and see a different path.
  if (path.find('\0') != std::string::npos) {
    *error = EINVAL;
    return false;
  }
  std::size_t rest = 0;
  if (path[0] == '/') {
    // Only textually under the root; the kernel judges the rest.
    if (path_ != "/") {
      bool under = path.compare(0, path_.size(), path_) == 0 &&
                   (path.size() == path_.size() || path[path_.size()] == '/');
      if (!under) {
        *error = EXDEV;
        return false;
      }
      rest = path_.size();
    }
    rest = path.find_first_not_of('/', rest);
    if (rest == std::string::npos) {
      *relative = ".";
      return true;
    }
  }
  *relative = path.substr(rest);
  return true;
}

int FilesRoot::OpenBeneath(const std::string& relative, int flags, unsigned mode,
                           int* error) const {
  if (fd_ < 0) {
    *error = EBADF;
    return -1;
  }
  flags |= O_CLOEXEC;
  for (int attempt = 1;; ++attempt) {
    int fd = OpenAt2(fd_, relative.c_str(), flags, mode, kConfined);
    if (fd >= 0) return fd;
    int e = errno;
    if ((e == EAGAIN || e == EINTR) && attempt < kOpenAttempts) continue;
    if (e == ELOOP) {
      // A loop of links, or a magic link that RESOLVE_NO_MAGICLINKS refused.
      // RESOLVE_BENEATH alone refuses the latter as an escape (EXDEV); an
      // O_PATH look opens nothing, so it can tell the two apart safely.
      int probe = OpenAt2(fd_, relative.c_str(), O_PATH | O_CLOEXEC | (flags & O_DIRECTORY), 0,
                          RESOLVE_BENEATH);
      if (probe >= 0) {
        close(probe);
      } else if (errno == EXDEV) {
        e = EXDEV;
      }
    }
    *error = e;
    return -1;
  }
}

std::unique_ptr<File> FilesRoot::OpenFile(const std::string& path, FileMode mode,
                                          int* error) const {
  std::string relative;
  if (!Relative(path, &relative, error)) return nullptr;
  int flags = mode == FileMode::kRead    ? O_RDONLY
              : mode == FileMode::kWrite ? O_WRONLY | O_CREAT | O_TRUNC
                                         : O_WRONLY | O_CREAT | O_APPEND;
  // Non-blocking, so that a FIFO without a writer cannot hold the open.
  int fd = OpenBeneath(relative, flags | O_NONBLOCK | O_NOCTTY, 0666, error);
  if (fd < 0) return nullptr;
  int e = 0;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    e = errno;
  } else if (S_ISDIR(st.st_mode)) {
    e = EISDIR;
  } else if (!S_ISREG(st.st_mode)) {
    e = ENXIO;
  } else {
    int status = fcntl(fd, F_GETFL);
    if (status < 0 || fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) e = errno;
  }
  std::FILE* f = nullptr;
  if (e == 0) {
    f = fdopen(fd, mode == FileMode::kRead ? "rb" : mode == FileMode::kWrite ? "wb" : "ab");
    if (f == nullptr) e = errno;
  }
  if (f == nullptr) {
    close(fd);
    *error = e;
    return nullptr;
  }
  return std::unique_ptr<File>(new File(f));
}

bool FilesRoot::KindOf(const std::string& path, int* kind, int* error) const {
  std::string relative;
  if (!Relative(path, &relative, error)) return false;
  int fd = OpenBeneath(relative, O_PATH, 0, error);
  if (fd < 0) return false;
  struct stat st;
  bool ok = fstat(fd, &st) == 0;
  if (ok) {
    *kind = S_ISDIR(st.st_mode) ? 1 : S_ISREG(st.st_mode) ? 2 : 0;
  } else {
    *error = errno;
  }
  close(fd);
  return ok;
}

bool FilesRoot::Remove(const std::string& path, int* error) const {
  std::string relative;
  if (!Relative(path, &relative, error)) return false;
  while (relative.size() > 1 && relative.back() == '/') relative.pop_back();
  std::size_t slash = relative.rfind('/');
  std::string parent = slash == std::string::npos ? "." : relative.substr(0, slash);
  std::string last = slash == std::string::npos ? relative : relative.substr(slash + 1);
  if (last.empty() || last == "." || last == "..") {
    *error = EINVAL;
    return false;
  }
  // Only the directory is resolved; the entry itself is never followed.
  int dir = OpenBeneath(parent, O_PATH | O_DIRECTORY, 0, error);
  if (dir < 0) return false;
  bool ok = unlinkat(dir, last.c_str(), 0) == 0;
  if (!ok) *error = errno;
  close(dir);
  return ok;
}

File::~File() { std::fclose(Stream(stream_)); }

long File::Read(void* buf, std::size_t count, int* error) {
  std::size_t n = std::fread(buf, 1, count, Stream(stream_));
  if (n == 0 && std::ferror(Stream(stream_))) {
    *error = errno;
    std::clearerr(Stream(stream_));
    return -1;
  }
  return static_cast<long>(n);
}

bool File::Write(const void* buf, std::size_t count, int* error) {
  if (std::fwrite(buf, 1, count, Stream(stream_)) != count || std::fflush(Stream(stream_)) != 0) {
    *error = errno;
    std::clearerr(Stream(stream_));
    return false;
  }
  return true;
}

bool File::Seek(std::int64_t offset, int whence, int* error) {
  int w = whence == 1 ? SEEK_CUR : whence == 2 ? SEEK_END : SEEK_SET;
  if (fseeko(Stream(stream_), static_cast<off_t>(offset), w) != 0) {
    *error = errno;
    return false;
  }
  return true;
}

std::int64_t File::Tell(int* error) {
  off_t pos = ftello(Stream(stream_));
  if (pos < 0) *error = errno;
  return static_cast<std::int64_t>(pos);
}

bool File::AtEnd() const { return std::feof(Stream(stream_)) != 0; }

void File::Rewind() { std::rewind(Stream(stream_)); }

bool FileModeBits(const std::string& path, unsigned* mode, int* error) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = errno;
    return false;
  }
  *mode = static_cast<unsigned>(st.st_mode);
  return true;
}

bool RemoveEntry(const std::string& path, int* error) {
  if (unlink(path.c_str()) != 0) {
    *error = errno;
    return false;
  }
  return true;
}

int OpenForAppend(const std::string& path, int* error) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) *error = errno;
  return fd;
}

}  // namespace varn::platform
