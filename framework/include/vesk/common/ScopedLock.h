#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/Annotations.h>

namespace vesk {

/// Guard that holds a lock for the duration of a scope. Each lock class has its own alias for it
/// (`MutexLock`, `ShmMutexLock`, ...).
///
/// If the lock cannot be taken, the report of its `lock` stays pending and `isLocked()` returns false. If
/// unlocking fails at the end of the scope, `std::GlobalErrorHandler::doAbort` is called with
/// "error unlocking".
///
/// `LOCK` is the member that takes the lock, for a class that has more than one.
template <typename Lock, auto LOCK = &Lock::lock>
class [[nodiscard]] TARN_SCOPED_LOCK ScopedLock : private tarnbase::NonCopyable {
public:
    /// Waits for the lock.
    explicit ScopedLock(Lock& lock) TARN_ACQUIRE(lock) TARN_NOT_ANALYZED : m_lock(lock),
                                                                           m_locked(!(lock.*LOCK)()) {}

    ~ScopedLock() TARN_RELEASE() TARN_NOT_ANALYZED {
        if (m_locked && m_lock.unlock()) {
            std::GlobalErrorHandler::doAbort(
                "framework/include/vesk/common/ScopedLock", __LINE__, "~ScopedLock", "error unlocking");
        }
    }

    /// Returns whether the lock is held.
    bool isLocked() const noexcept { return m_locked; }

    /// Takes over a robust lock that the constructor could not take because its owner ended, see `ShmMutex`. To be
    /// called after the repair of what the lock guards. Returns true on failure, with the report of the lock's
    /// `recover`.
    [[nodiscard]] bool recover() TARN_NOT_ANALYZED {
        m_locked = !m_lock.recover();
        return !m_locked;
    }

    /// Unlocks before the end of the scope. Returns true on failure, with the report of the lock's `unlock`.
    /// The guard does not touch the lock again in either case.
    [[nodiscard]] bool unlock() TARN_RELEASE() TARN_NOT_ANALYZED {
        m_locked = false;
        return m_lock.unlock();
    }

private:
    Lock& m_lock;
    bool m_locked;
};

} // namespace vesk
