#pragma once

#include "vesk/common/Report.h"

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/threadsafe/Annotations.h>

namespace vesk::detail {

// For code that cannot continue after a failure and has no caller to report it to. Each failure goes to
// `GlobalErrorHandler::doAbort`. A hook may let that return.

/// Locks a mutex. After a failure the caller continues as if it held the lock.
template <typename Lock>
void lockOrAbort(Place place, Lock& lock, char const* function) TARN_ACQUIRE(lock) TARN_NOT_ANALYZED {
    if (lock.lock()) {
        std::GlobalErrorHandler::doAbort(place.file, place.line, function, "error locking");
    }
}

/// Unlocks a mutex. After a failure the caller continues as if it had released the lock.
template <typename Lock>
void unlockOrAbort(Place place, Lock& lock, char const* function) TARN_RELEASE(lock) TARN_NOT_ANALYZED {
    if (lock.unlock()) {
        std::GlobalErrorHandler::doAbort(place.file, place.line, function, "error unlocking");
    }
}

/// Unlocks a mutex that other threads need to make progress. Tries a second time after a failure.
template <typename Lock>
void unlockAgainOrAbort(
    Place place, Lock& lock, char const* function, char const* failure = "error unlocking")
    TARN_RELEASE(lock) TARN_NOT_ANALYZED {
    if (lock.unlock()) {
        std::GlobalErrorHandler::doAbort(place.file, place.line, function, "%s", failure);
        static_cast<void>(lock.unlock());
    }
}

/// Calls an operation, which returns true on failure, until it succeeds.
template <typename Operation>
void insist(Place place, char const* function, char const* failure, Operation operation) {
    while (operation()) {
        std::GlobalErrorHandler::doAbort(place.file, place.line, function, "%s", failure);
    }
}

/// Locks a mutex, and repeats that until it succeeds.
template <typename Lock>
void insistOnLock(Place place, Lock& lock, char const* function, char const* failure = "error locking")
    TARN_ACQUIRE(lock) TARN_NOT_ANALYZED {
    insist(place, function, failure, [&lock] { return lock.lock(); });
}

} // namespace vesk::detail
