/* Marks the functions and data that libvarn exports; everything else in the
   library is built with hidden visibility. */
#ifndef VARN_EXPORT_H_
#define VARN_EXPORT_H_

#if defined(VARN_BUILDING_LIBRARY)
#define VARN_EXPORT __attribute__((visibility("default")))
#else
#define VARN_EXPORT
#endif

#ifdef __cplusplus
#define VARN_NOEXCEPT noexcept
#else
#define VARN_NOEXCEPT
#endif

#endif /* VARN_EXPORT_H_ */
