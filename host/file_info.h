// Stand-in for the support library's file information.
#ifndef VARN_HOST_FILE_INFO_H_
#define VARN_HOST_FILE_INFO_H_

namespace varn::host {

// The mode bits of what path names (the file-type bits are mask 0xF000:
// 0x4000 a directory, 0x8000 a regular file). 0 on success, -1 on failure.
int gsl_stat(const char* path, unsigned* mode);

}  // namespace varn::host

#endif  // VARN_HOST_FILE_INFO_H_
