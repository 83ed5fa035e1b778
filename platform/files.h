// File operations that the hub carries out for its clients.
//
// Contract:
// - FilesRoot holds the directory under which clients' files are served: a
//   descriptor of it (close-on-exec, opened once) and its canonical path.
// - Every client path is opened by the kernel relative to that descriptor,
//   in one step, with resolution confined beneath the directory: a ".."
//   above it, an absolute symbolic link, a link that leads outside and a
//   /proc "magic" link all make the open itself fail with EXDEV. There is no
//   separate check before the open, so a link swapped in between cannot
//   lead outside either. Symbolic links that stay beneath the root are
//   followed; a loop of links still fails with ELOOP.
// - A relative client path is relative to the root. An absolute one is taken
//   only when it lies textually under the root's canonical path (the rest is
//   then opened relative to the root); any other absolute path fails with
//   EXDEV, as does an absolute path that climbs out with "..". An empty
//   path fails with ENOENT, one with a NUL byte in it with EINVAL.
// - OpenFile never blocks on the kind of file it meets: it opens with
//   O_NONBLOCK, refuses a directory with EISDIR and anything else that is
//   not a regular file with ENXIO (what the kernel itself reports for a
//   socket, or a FIFO that nobody reads), then clears O_NONBLOCK again.
// - KindOf looks at what the path leads to without opening it for reading
//   or writing (an O_PATH descriptor is examined), so a FIFO cannot hold it.
// - Remove resolves only the directory that holds the last component and
//   removes that entry itself: a symbolic link is removed, never its target.
// - File wraps a buffered stream: reads stop at the end of the file, feof
//   is true once a read has hit the end, every write is flushed before the
//   call returns, and the stream is closed with the object.
// - Failures return false (or -1, or nullptr) and leave the errno value in
//   *error.
#ifndef VARN_PLATFORM_FILES_H_
#define VARN_PLATFORM_FILES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace varn::platform {

enum class FileMode { kRead, kWrite, kAppend };

class File;

class FilesRoot {
 public:
  FilesRoot() = default;
  ~FilesRoot();
  FilesRoot(FilesRoot&& other) noexcept;
  FilesRoot& operator=(FilesRoot&& other) noexcept;
  FilesRoot(const FilesRoot&) = delete;
  FilesRoot& operator=(const FilesRoot&) = delete;

  // Opens an existing directory as the root (ENOTDIR when it is none).
  bool Open(const std::string& directory, int* error);
  bool is_open() const { return fd_ >= 0; }
  // The canonical path of the directory.
  const std::string& path() const { return path_; }

  // mode kWrite creates or truncates, kAppend creates or appends; a new
  // file gets 0666 less the umask.
  std::unique_ptr<File> OpenFile(const std::string& path, FileMode mode, int* error) const;
  // Kind of file: 1 a directory, 2 a regular file, 0 anything else.
  bool KindOf(const std::string& path, int* kind, int* error) const;
  bool Remove(const std::string& path, int* error) const;

 private:
  // The client path as a path relative to the root descriptor.
  bool Relative(const std::string& path, std::string* relative, int* error) const;
  // openat2 beneath the root; the descriptor, or -1.
  int OpenBeneath(const std::string& relative, int flags, unsigned mode, int* error) const;

  std::string path_;
  int fd_ = -1;
};

class File {
 public:
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Bytes read (0 at the end of the file), or -1 on failure.
  long Read(void* buf, std::size_t count, int* error);
  bool Write(const void* buf, std::size_t count, int* error);
  // whence: 0 from the start, 1 from the current position, 2 from the end.
  bool Seek(std::int64_t offset, int whence, int* error);
  std::int64_t Tell(int* error);
  bool AtEnd() const;
  void Rewind();

 private:
  friend class FilesRoot;
  explicit File(void* stream) : stream_(stream) {}
  void* stream_;
};

// The mode bits of what a path names (stat(2), links followed). False with
// *error set when it cannot be looked at.
bool FileModeBits(const std::string& path, unsigned* mode, int* error);
// Removes a directory entry (unlink(2)). False with *error set.
bool RemoveEntry(const std::string& path, int* error);

// Opens (creating it when needed) a file for appending; close-on-exec.
// Returns the descriptor, or -1 with *error set.
int OpenForAppend(const std::string& path, int* error);

}  // namespace varn::platform

#endif  // VARN_PLATFORM_FILES_H_
