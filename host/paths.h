// Stand-ins for the support library's path tests.
#ifndef VARN_HOST_PATHS_H_
#define VARN_HOST_PATHS_H_

namespace varn::host {

// True when path starts with a drive letter and a colon ("C:").
bool gfile_hasdrv(const char* path);
// True when the last component of path has an extension (a dot that is
// neither its first character nor its last).
bool gfile_hasext(const char* path);

}  // namespace varn::host

#endif  // VARN_HOST_PATHS_H_
