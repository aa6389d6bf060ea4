#pragma once

#include "support/Testing.h"

#include <vesk/Mutex.h>
#include <vesk/RWLock.h>
#include <vesk/ShmMutex.h>
#include <vesk/ShmRWLock.h>
#include <vesk/ShmSpinLock.h>
#include <vesk/SpinLock.h>

/// What the suites of the lock classes share.
namespace support {

template <typename Lock>
constexpr bool IS_RWLOCK = std::is_base_of_v<vesk::RWLockBase, Lock>;
template <typename Lock>
constexpr bool IS_SPIN_LOCK = std::is_base_of_v<vesk::SpinLockBase, Lock>;

/// The forms of a `ShmMutex`.
template <bool RECURSIVE, bool INHERIT>
struct ShmMutexForm : vesk::ShmMutex {
    ShmMutexForm() : ShmMutex(RECURSIVE, INHERIT) {}
};
struct PlainMutex : ShmMutexForm<false, false> {};
struct RecursiveMutex : ShmMutexForm<true, false> {};
struct InheritingMutex : ShmMutexForm<false, true> {};
struct RecursiveInheritingMutex : ShmMutexForm<true, true> {};

template <typename Lock>
bool lockForWrite(Lock const& lock) {
    if constexpr (IS_RWLOCK<Lock>) {
        return lock.lockForWrite();
    } else {
        return lock.lock();
    }
}
template <typename Lock>
bool lockForRead(Lock const& lock) {
    if constexpr (IS_RWLOCK<Lock>) {
        return lock.lockForRead();
    } else {
        return lock.lock();
    }
}
template <typename Lock>
int tryForWrite(Lock const& lock) {
    if constexpr (IS_RWLOCK<Lock>) {
        return lock.tryLockForWrite();
    } else {
        return lock.tryLock();
    }
}
/// Returns what `tryForWrite` returns where the class has no timeouts.
template <typename Lock>
int tryForWrite(Lock const& lock, unsigned int timeout_ms) {
    if constexpr (IS_RWLOCK<Lock>) {
        return lock.tryLockForWrite(timeout_ms);
    } else if constexpr (IS_SPIN_LOCK<Lock>) {
        return lock.tryLock();
    } else {
        return lock.tryLockTimeout(timeout_ms);
    }
}

/// A lock with two numbers that are equal whenever no writer holds it. The numbers are not atomic: only the
/// lock makes the sums right.
template <typename Lock>
struct Contended {
    Lock lock;
    std::atomic<bool> ready{false};
    std::atomic<bool> go{false};
    std::atomic<bool> locked{false};
    volatile int first = 0;
    volatile int second = 0;

    void write(int rounds) {
        for (int round = 0; round < rounds; ++round) {
            EXPECT_FALSE(lockForWrite(lock));
            int const value = first;
            if (round % 1000 == 0) {
                sched_yield(); // Without the lock, the others continue here.
            }
            first = value + 1;
            second = second + 1;
            EXPECT_FALSE(lock.unlock());
        }
    }
    void read(int rounds) {
        int differences = 0;
        for (int round = 0; round < rounds; ++round) {
            EXPECT_FALSE(lockForRead(lock));
            differences += first != second ? 1 : 0;
            EXPECT_FALSE(lock.unlock());
        }
        EXPECT_EQ(0, differences);
    }
};

inline void await(std::atomic<bool> const& flag) {
    while (!flag) {
        sched_yield();
    }
}

} // namespace support
