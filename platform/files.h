// File operations that the hub carries out for its clients.
//
// Contract:
// - ResolveUnderRoot turns a client's path into an absolute path with every
//   symbolic link resolved, and refuses one that lands outside the root
//   directory with EXDEV (which no path lookup reports by itself). A path that does not exist yet
//   resolves through its parent directory, so a file can be created; with `keep_last` the last
//   component is not followed even when it exists (for deleting a link).
// - File wraps a buffered stream: reads stop at the end of the file, feof
//   is true once a read has hit the end, every write is flushed before the
//   call returns, and the stream is closed with the object.
// - Failures return false (or -1) and leave the errno value in *error.
#ifndef VARN_PLATFORM_FILES_H_
#define VARN_PLATFORM_FILES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace varn::platform {

// Absolute canonical form of an existing directory, or "" on failure.
std::string CanonicalDirectory(const std::string& path);

// See the contract above. root must be canonical (CanonicalDirectory).
bool ResolveUnderRoot(const std::string& root, const std::string& path, bool keep_last,
                      std::string* resolved, int* error);

enum class FileMode { kRead, kWrite, kAppend };

class File {
 public:
  static std::unique_ptr<File> Open(const std::string& path, FileMode mode, int* error);
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
  explicit File(void* stream) : stream_(stream) {}
  void* stream_;
};

// Opens (creating it when needed) a file for appending; close-on-exec.
// Returns the descriptor, or -1 with *error set.
int OpenForAppend(const std::string& path, int* error);

// Kind of file: 1 a directory, 2 a regular file, 0 anything else.
bool FileKindOf(const std::string& path, int* kind, int* error);
bool RemoveFile(const std::string& path, int* error);

}  // namespace varn::platform

#endif  // VARN_PLATFORM_FILES_H_
