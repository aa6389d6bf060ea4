#pragma once

#include "vesk/common/Report.h"

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/threadsafe/Annotations.h>

namespace vesk::detail {

/// Operations for code that cannot continue after a failure and has no caller to report it to. Each failure
/// is given to `GlobalErrorHandler::doAbort`, whose hook may let it return.

/// Locks a mutex. After a failure the caller continues as if it held the lock.
template <typename Lock>
void lockOrAbort(Place place, Lock& lock, char const* function) TARN_ACQUIRE(lock) TARN_NOT_ANALYZED {
    if (lock.lock()) {
        std::GlobalErrorHandler::doAbort(place.file, place.line, function, "error locking");
    }
}

/// Unlocks a mutex. Tries a second time after a failure: the operation cannot continue with the lock held.
template <typename Lock>
void unlockOrAbort(Place place, Lock& lock, char const* function, char const* failure = "error unlocking")
    TARN_RELEASE(lock) TARN_NOT_ANALYZED {
    if (lock.unlock()) {
        std::GlobalErrorHandler::doAbort(place.file, place.line, function, "%s", failure);
        lock.unlock();
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

/// Allocates memory, and calls `GlobalErrorHandler::doOutOfMem`, which waits, as long as there is none.
/// @param allocate  returns null without memory
template <typename Allocate>
auto allocateOrWait(Place place, char const* function, char const* purpose, Allocate allocate) {
    for (;;) {
        if (auto* const memory = allocate()) {
            return memory;
        }
        std::GlobalErrorHandler::doOutOfMem(place.file, place.line, function, "%s", purpose);
    }
}

} // namespace vesk::detail
