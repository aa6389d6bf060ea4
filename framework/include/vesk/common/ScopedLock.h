#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// Holds a lock for the length of a scope; each lock class has its name for it (`MutexLock`, `ShmMutexLock`, ...).
///
/// A lock that cannot be had leaves the report of its `lock` pending, and `isLocked()` tells. Being unable to unlock at
/// the end of the scope goes to `std::GlobalErrorHandler::doAbort` with "error unlocking".
///
/// `LOCK` is the member that takes the lock, for a class that has more than one.
template <typename Lock, auto LOCK = &Lock::lock>
class [[nodiscard]] ScopedLock : private tarnbase::NonCopyable {
public:
    /// Waits for the lock.
    explicit ScopedLock(Lock& lock) : m_lock(lock), m_locked(!(lock.*LOCK)()) {}

    ~ScopedLock() {
        if (m_locked && m_lock.unlock()) {
            std::GlobalErrorHandler::doAbort(
                "framework/include/vesk/common/ScopedLock", __LINE__, "~ScopedLock", "error unlocking");
        }
    }

    bool isLocked() const noexcept { return m_locked; }

    /// Unlocks before the end of the scope. True on failure, with the report of the lock's `unlock`; the guard is done
    /// with the lock in any case.
    bool unlock() {
        m_locked = false;
        return m_lock.unlock();
    }

private:
    Lock& m_lock;
    bool m_locked;
};

} // namespace vesk
