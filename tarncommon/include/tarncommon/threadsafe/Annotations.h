#pragma once

#include <tarncommon/Export.h>

/// Annotations for Clang's thread-safety analysis (`-Wthread-safety`). They declare which lock guards a field
/// and which locks a function needs, acquires or releases; the analysis rejects code that contradicts them.
/// They expand to nothing for other compilers.

#if defined(__clang__)
#define TARN_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define TARN_THREAD_ANNOTATION(attribute)
#endif

/// Declares that a class is a lock.
#define TARN_LOCK TARN_THREAD_ANNOTATION(capability("mutex"))

/// Declares that a class is a guard, which holds a lock as long as it exists.
#define TARN_SCOPED_LOCK TARN_THREAD_ANNOTATION(scoped_lockable)

/// Declares that a field, or what a pointer points to, is used under a lock only.
#define TARN_GUARDED_BY(lock) TARN_THREAD_ANNOTATION(guarded_by(lock))

/// Declares that the callers of a function hold its locks.
#define TARN_REQUIRES(...) TARN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))

/// Declares that the callers of a function do not hold its locks.
#define TARN_EXCLUDES(...) TARN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

/// Declares that a function acquires or releases locks; without arguments its own object.
#define TARN_ACQUIRE(...) TARN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

/// Declares that a function has acquired its object, exclusively or shared, when it returns 0 or false.
#define TARN_ACQUIRE_IF_ZERO TARN_THREAD_ANNOTATION(try_acquire_capability(0))
#define TARN_ACQUIRE_SHARED_IF_ZERO TARN_THREAD_ANNOTATION(try_acquire_shared_capability(0))

/// Declares that a function releases its object, whether it is held exclusively or shared.
#define TARN_RELEASE_ANY TARN_THREAD_ANNOTATION(release_generic_capability())

/// Excludes the body of a function from the analysis. The comment beside it says why.
#define TARN_NOT_ANALYZED TARN_THREAD_ANNOTATION(no_thread_safety_analysis)
