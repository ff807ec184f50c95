#ifndef RVOTHREADANNOTATIONS_P_H
#define RVOTHREADANNOTATIONS_P_H

// The lock rules that clang checks (-Wthread-safety): a lock type is a
// capability, a field names the lock that guards it, a function the locks it
// needs or takes. Every build with clang checks them; the build of
// `scripts/test --all` named clang-tsa makes a broken rule an error.
// docs/ARCHITECTURE.md gives the order in which the locks nest, which the
// analysis does not check.

#include "RvoDdiGlobal.h"

#define CAPABILITY(x) RVODDI_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY RVODDI_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) RVODDI_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) RVODDI_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) RVODDI_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) RVODDI_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) RVODDI_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) RVODDI_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) RVODDI_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) RVODDI_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) RVODDI_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) RVODDI_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) RVODDI_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) RVODDI_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS RVODDI_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif // RVOTHREADANNOTATIONS_P_H
