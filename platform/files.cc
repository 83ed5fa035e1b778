#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace varn::platform {
namespace {

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

bool InsideRoot(const std::string& root, const std::string& path) {
  if (root == "/") return true;
  return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                          path[root.size()] == '/');
}

}  // namespace

std::string CanonicalDirectory(const std::string& path) {
  std::string out;
  int error;
  struct stat st;
  if (!RealPath(path, &out, &error) || stat(out.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return "";
  }
  return out;
}

bool ResolveUnderRoot(const std::string& root, const std::string& path, bool keep_last,
                      std::string* resolved, int* error) {
  if (path.empty()) {
    *error = ENOENT;
    return false;
  }
  std::string full = path[0] == '/' ? path : root + "/" + path;
  while (full.size() > 1 && full.back() == '/') full.pop_back();
  std::string out;
  if (keep_last || !RealPath(full, &out, error)) {
    if (!keep_last && *error != ENOENT) return false;
    // Resolve the parent and keep the last component as given.
    std::size_t slash = full.rfind('/');
    std::string parent = slash == 0 ? "/" : full.substr(0, slash);
    std::string last = full.substr(slash + 1);
    if (last.empty() || last == "." || last == "..") {
      *error = EINVAL;
      return false;
    }
    std::string parent_resolved;
    if (!RealPath(parent, &parent_resolved, error)) return false;
    out = parent_resolved == "/" ? "/" + last : parent_resolved + "/" + last;
  }
  if (!InsideRoot(root, out)) {
    *error = EXDEV;
    return false;
  }
  *resolved = out;
  return true;
}

std::unique_ptr<File> File::Open(const std::string& path, FileMode mode, int* error) {
  const char* m = mode == FileMode::kRead ? "rbe" : mode == FileMode::kWrite ? "wbe" : "abe";
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    *error = EISDIR;
    return nullptr;
  }
  std::FILE* f = std::fopen(path.c_str(), m);
  if (f == nullptr) {
    *error = errno;
    return nullptr;
  }
  return std::unique_ptr<File>(new File(f));
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

int OpenForAppend(const std::string& path, int* error) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) *error = errno;
  return fd;
}

bool FileKindOf(const std::string& path, int* kind, int* error) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = errno;
    return false;
  }
  *kind = S_ISDIR(st.st_mode) ? 1 : S_ISREG(st.st_mode) ? 2 : 0;
  return true;
}

bool RemoveFile(const std::string& path, int* error) {
  if (unlink(path.c_str()) != 0) {
    *error = errno;
    return false;
  }
  return true;
}

}  // namespace varn::platform
