// Stand-ins for the environment's support library, which the library calls
// by these names. They have C linkage as the real library does, but are
// hidden: they are not part of libvarn's interface.
#ifndef VARN_HOST_SUPPORT_H_
#define VARN_HOST_SUPPORT_H_

extern "C" {

// strcmp that treats a null pointer as the empty text.
int gsl_strcmp(const char* a, const char* b) noexcept;

// Sleeps that many seconds; 0 or less returns at once.
void gsl_sleep(int seconds) noexcept;

}  // extern "C"

#endif  // VARN_HOST_SUPPORT_H_
