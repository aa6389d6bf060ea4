#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/RWLock.h>
#include <vesk/ShmRWLock.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<bool> g_has_attributes{false};

pthread_rwlockattr_t const* note(pthread_rwlockattr_t const* attributes) {
    g_has_attributes = attributes != nullptr;
    return attributes;
}

} // namespace

VESK_INJECT_RESULT(pthread_rwlock_init, (pthread_rwlock_t * l, pthread_rwlockattr_t const* a), (l, note(a)))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_unlock, (pthread_rwlock_t * l), (l))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::RWLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

TEST(RWLock, rowsHaveTheirTexts) {
    char const* const texts[] = {
        "Failed to create rwlock: %s",
        "Deadlock has been detected: %s",
        "Maximum lock count has been reached: %s",
        "Locking for read failed: %s",
        "Locking for write failed: %s",
        "Unlocking failed: %s",
    };
    int id = 0;
    for (char const* text : texts) {
        ASSERT_NE(nullptr, RWLock::Error.getRow(id));
        EXPECT_STREQ(text, RWLock::Error.getRow(id)->format);
        EXPECT_EQ(1, RWLock::Error.getRow(id)->nargs);
        ++id;
    }
    EXPECT_EQ(nullptr, RWLock::Error.getRow(id));
    EXPECT_TRUE(RWLock::Error.isA(SysError));
    EXPECT_EQ(&RWLock::Error, &vesk::ShmRWLock::Error);
}

TEST(RWLock, isMadeForOneProcess) {
    g_has_attributes = true;
    RWLock const lock;
    EXPECT_TRUE(lock.isValid());
    EXPECT_FALSE(g_has_attributes);
    EXPECT_TRUE(chainIs({}));
}

TEST(RWLock, readersShareIt) {
    RWLock const lock;
    EXPECT_FALSE(lock.lockForRead());
    EXPECT_FALSE(lock.lockForRead()) << "the same thread may read twice";
    std::thread([&lock] {
        EXPECT_FALSE(lock.lockForRead());
        EXPECT_EQ(0, lock.tryLockForRead());
        EXPECT_EQ(0, lock.tryLockForRead(50));
        EXPECT_EQ(1, lock.tryLockForWrite());
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(lock.unlock());
        }
    }).join();
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(1, lock.tryLockForWrite()) << "one reader is left";
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, lock.tryLockForWrite());
    EXPECT_FALSE(lock.unlock());
    EXPECT_TRUE(chainIs({}));
}

TEST(RWLock, writerIsAlone) {
    RWLock const lock;
    ASSERT_FALSE(lock.lockForWrite());
    std::thread([&lock] {
        EXPECT_EQ(1, lock.tryLockForRead());
        EXPECT_EQ(1, lock.tryLockForWrite());
        EXPECT_EQ(1, lock.tryLockForRead(0));
        EXPECT_EQ(1, lock.tryLockForWrite(0));
        EXPECT_TRUE(chainIs({})) << "busy is no failure";
    }).join();
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, lock.tryLockForRead());
    EXPECT_FALSE(lock.unlock());
}

TEST(RWLock, waitsForTheWriterToLetGo) {
    for (bool const for_write : {false, true}) {
        RWLock const lock;
        ASSERT_FALSE(lock.lockForWrite());
        std::atomic<pid_t> waiting{0};
        std::atomic<bool> locked{false};
        std::thread waiter([&] {
            waiting = gettid();
            EXPECT_FALSE(for_write ? lock.lockForWrite() : lock.lockForRead());
            locked = true;
            EXPECT_FALSE(lock.unlock());
        });
        while (waiting == 0) {
            std::this_thread::yield();
        }
        support::waitUntilAsleep(getpid(), waiting);
        EXPECT_FALSE(locked);
        EXPECT_FALSE(lock.unlock());
        waiter.join();
        EXPECT_TRUE(locked);
    }
}

TEST(RWLock, timeoutIsWaitedForToTheEnd) {
    RWLock const lock;
    ASSERT_FALSE(lock.lockForWrite());
    std::thread([&lock] {
        auto const start = std::chrono::steady_clock::now();
        EXPECT_EQ(1, lock.tryLockForRead(30));
        EXPECT_EQ(1, lock.tryLockForWrite(30));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(58));
        EXPECT_TRUE(chainIs({}));
    }).join();
    EXPECT_FALSE(lock.unlock());
}

TEST(RWLock, timedLockIsHadWhenTheWriterLetsGo) {
    for (bool const for_write : {false, true}) {
        RWLock const lock;
        ASSERT_FALSE(lock.lockForWrite());
        std::atomic<pid_t> waiting{0};
        std::thread waiter([&] {
            waiting = gettid();
            constexpr unsigned int LONGEST = ~0U;
            EXPECT_EQ(0, for_write ? lock.tryLockForWrite(LONGEST) : lock.tryLockForRead(LONGEST));
            EXPECT_FALSE(lock.unlock());
        });
        while (waiting == 0) {
            std::this_thread::yield();
        }
        support::waitUntilAsleep(getpid(), waiting);
        EXPECT_FALSE(lock.unlock());
        waiter.join();
    }
}

TEST(RWLock, writerThatReadsIsADeadlock) {
    RWLock const lock;
    ASSERT_FALSE(lock.lockForWrite());
    EXPECT_TRUE(lock.lockForRead());
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::DEADLOCK, "Deadlock has been detected: " + systemText(EDEADLK)}}));
    EXPECT_EQ(-1, lock.tryLockForRead(10));
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::DEADLOCK, "Deadlock has been detected: " + systemText(EDEADLK)}}));
    EXPECT_EQ(1, lock.tryLockForRead()) << "without waiting there is no deadlock";
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, lock.tryLockForWrite()) << "the failures took nothing";
    EXPECT_FALSE(lock.unlock());
}

TEST(RWLock, writerThatWritesIsADeadlock) {
    RWLock const lock;
    ASSERT_FALSE(lock.lockForWrite());
    EXPECT_TRUE(lock.lockForWrite());
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::DEADLOCK, "Deadlock has been detected: " + systemText(EDEADLK)}}));
    EXPECT_EQ(-1, lock.tryLockForWrite(10));
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::DEADLOCK, "Deadlock has been detected: " + systemText(EDEADLK)}}));
    EXPECT_FALSE(lock.unlock());
}

TEST(RWLock, tooManyReadersAreReported) {
    RWLock const lock;
    bool failed = false;
    {
        Fault const fault(inject_pthread_rwlock_rdlock, EAGAIN);
        failed = lock.lockForRead();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs(
        {{RWLock::ErrorId::TOO_MANY_LOCKS, "Maximum lock count has been reached: " + systemText(EAGAIN)}}));
}

TEST(RWLock, failedWriteLockIsReported) {
    RWLock const lock;
    bool failed = false;
    {
        Fault const fault(inject_pthread_rwlock_wrlock, EINVAL);
        failed = lock.lockForWrite();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(
        chainIs({{RWLock::ErrorId::WRITE_LOCK_FAILED, "Locking for write failed: " + systemText(EINVAL)}}));
}

TEST(RWLock, failedUnlockIsReportedAndLeavesTheLockHeld) {
    RWLock const lock;
    ASSERT_FALSE(lock.lockForWrite());
    bool failed = false;
    {
        Fault const fault(inject_pthread_rwlock_unlock, EPERM);
        failed = lock.unlock();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
         {RWLock::Error, RWLock::ErrorId::UNLOCK_FAILED, "Unlocking failed: " + systemText(EPERM)}}));
    {
        Fault const fault(inject_pthread_rwlock_unlock, EINVAL);
        failed = lock.unlock();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::UNLOCK_FAILED, "Unlocking failed: " + systemText(EINVAL)}}));
    EXPECT_EQ(1, lock.tryLockForRead());
    EXPECT_FALSE(lock.unlock());
}

TEST(RWLock, lockThatCannotBeMadeIsInvalidAndNotDestroyed) {
    Fault const destroyed(inject_pthread_rwlock_destroy, 0);
    EventRecorder recorder;
    {
        std::optional<Fault> fault(std::in_place, inject_pthread_rwlock_init, EAGAIN);
        RWLock const lock;
        fault.reset();
        EXPECT_FALSE(lock.isValid());
        EXPECT_TRUE(std::ErrorStorage::isA(SysError));
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::RESOURCES_EXHAUSTED, rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(0))}}));
    EXPECT_EQ(0, destroyed.getCalls());
    EXPECT_EQ("", recorder.getText());
}

TEST(RWLock, lockThatCannotBeDestroyedIsAWarningAndNothingStaysPending) {
    EventRecorder recorder;
    Fault const fault(inject_pthread_rwlock_destroy, EBUSY);
    { RWLock const lock; }
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_EQ(
        "WARNING framework/include/vesk/posix/RWLock ~RWLock: Error destroying RWLock!", recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST(RWLock, destroyingAGoodLockKeepsWhatIsPending) {
    {
        RWLock const lock;
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    }
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}}));
}

TEST(RWLock, writersAndReadersStayOutOfEachOthersWay) {
    constexpr int ROUNDS = 5000;
    RWLock const lock;
    // Not atomic: only the lock keeps the two equal for a reader, and the sum right.
    int first = 0;
    int second = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::RWLockForWrite const guard(lock);
                ++first;
                ++second;
            }
        });
        threads.emplace_back([&] {
            int differences = 0;
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::RWLockForRead const guard(lock);
                differences += first != second ? 1 : 0;
            }
            EXPECT_EQ(0, differences);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(2 * ROUNDS, first);
    EXPECT_EQ(2 * ROUNDS, second);
}

} // namespace
