// Annotations for clang's thread-safety analysis (-Wthread-safety): which
// lock guards which data, which functions need which lock. Other compilers
// see nothing. A build with clang and -Werror turns every breach of these
// rules into a compile error (scripts/test.sh tsan).
#ifndef VARN_PLATFORM_THREAD_ANNOTATIONS_H_
#define VARN_PLATFORM_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define VARN_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define VARN_THREAD_ANNOTATION_(x)
#endif

#define CAPABILITY(x) VARN_THREAD_ANNOTATION_(capability(x))
#define SCOPED_CAPABILITY VARN_THREAD_ANNOTATION_(scoped_lockable)
#define GUARDED_BY(x) VARN_THREAD_ANNOTATION_(guarded_by(x))
#define PT_GUARDED_BY(x) VARN_THREAD_ANNOTATION_(pt_guarded_by(x))
#define REQUIRES(...) VARN_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VARN_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VARN_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VARN_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) VARN_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) VARN_THREAD_ANNOTATION_(assert_capability(x))
#define RETURN_CAPABILITY(x) VARN_THREAD_ANNOTATION_(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS VARN_THREAD_ANNOTATION_(no_thread_safety_analysis)

#endif  // VARN_PLATFORM_THREAD_ANNOTATIONS_H_
