#ifndef RVOTSAN_P_H
#define RVOTSAN_P_H

// Hand-offs through Qt's thread pool and futures are synchronised inside the
// Qt library, where ThreadSanitizer cannot see it. These mark such a hand-off
// of the object at `address`: rvoHappensBefore on the giving thread before
// the hand-off, rvoHappensAfter on the taking thread after it. Without
// ThreadSanitizer they compile to nothing.

#if defined(__SANITIZE_THREAD__)
#define RVODDI_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RVODDI_TSAN 1
#endif
#endif

#ifdef RVODDI_TSAN
#include <sanitizer/tsan_interface.h>
inline void rvoHappensBefore(const void *address)
{
    __tsan_release(const_cast<void *>(address));
}
inline void rvoHappensAfter(const void *address)
{
    __tsan_acquire(const_cast<void *>(address));
}
#else
inline void rvoHappensBefore(const void *) { }
inline void rvoHappensAfter(const void *) { }
#endif

#endif // RVOTSAN_P_H
