// Stand-in for the foundation library's path and string types: opening and
// removing files by a UTF-8 path.
#ifndef VARN_HOST_LORN_PATH_H_
#define VARN_HOST_LORN_PATH_H_

#include <cstdio>
#include <string>

namespace varn::host {

class LornPath {
 public:
  explicit LornPath(const char* path) : path_(path) {}
  // fopen of the path; nullptr on failure.
  std::FILE* fopen(const char* mode) const;
  // Replaces the trailing "XXXXXX" of name_template (in place) so that the
  // file is new, creates it and opens it with mode; nullptr on failure.
  static std::FILE* OpenUnique(char* name_template, const char* mode);

 private:
  const char* path_;
};

// A UTF-8 text as the foundation library passes it around.
class LornString {
 public:
  explicit LornString(const char* text) : text_(text != nullptr ? text : "") {}
  const char* c_str() const { return text_; }

 private:
  const char* text_;
};

namespace LORN {
// Removes the file the path names; 0 on success, -1 on failure.
int unlink_utf8(const LornString& path);
// The current working directory; an empty text when it cannot be read.
std::string getcwd_utf8();
}  // namespace LORN

}  // namespace varn::host

#endif  // VARN_HOST_LORN_PATH_H_
