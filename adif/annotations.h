// Names for clang's thread-safety attributes; other compilers see nothing.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#if defined(__clang__)
#define ADIF_ATTR(x) __attribute__((x))
#else
#define ADIF_ATTR(x)
#endif

#define CAPABILITY(name) ADIF_ATTR(capability(name))
#define SCOPED_CAPABILITY ADIF_ATTR(scoped_lockable)
#define GUARDED_BY(lock) ADIF_ATTR(guarded_by(lock))
#define PT_GUARDED_BY(lock) ADIF_ATTR(pt_guarded_by(lock))
#define REQUIRES(...) ADIF_ATTR(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ADIF_ATTR(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ADIF_ATTR(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) ADIF_ATTR(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ADIF_ATTR(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) ADIF_ATTR(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS ADIF_ATTR(no_thread_safety_analysis)
