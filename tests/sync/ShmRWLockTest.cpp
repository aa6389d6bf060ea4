#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/RWLock.h>
#include <vesk/ShmRWLock.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<int> g_shared{-1};

int note(int shared) {
    g_shared = shared;
    return shared;
}

} // namespace

VESK_INJECT_RESULT(pthread_rwlockattr_setpshared, (pthread_rwlockattr_t * a, int shared), (a, note(shared)))
VESK_INJECT_RESULT(pthread_rwlock_init, (pthread_rwlock_t * l, pthread_rwlockattr_t const* a), (l, a))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_unlock, (pthread_rwlock_t * l), (l))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::Process;
using support::rowText;
using support::SharedObject;
using support::systemText;
using vesk::RWLock;
using vesk::ShmRWLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

/// What the processes of a test share.
struct Shared {
    ShmRWLock lock;
    std::atomic<bool> ready{false};
    std::atomic<bool> go{false};
    std::atomic<bool> locked{false};
    volatile int first = 0;
    volatile int second = 0;
};

void await(std::atomic<bool> const& flag) {
    while (!flag) {
        sched_yield();
    }
}

TEST(ShmRWLock, isMadeForProcesses) {
    g_shared = -1;
    ShmRWLock const lock;
    EXPECT_TRUE(lock.isValid());
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, g_shared);
}

TEST(ShmRWLock, writersAndReadersOfFourProcessesStayOutOfEachOthersWay) {
    constexpr int ROUNDS = 5000;
    SharedObject<Shared> const shared;
    std::vector<Process> processes;
    for (int i = 0; i < 2; ++i) {
        processes.emplace_back([&shared] {
            await(shared->go);
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::ShmRWLockForWrite const guard(shared->lock);
                shared->first = shared->first + 1;
                shared->second = shared->second + 1;
            }
        });
        processes.emplace_back([&shared] {
            await(shared->go);
            int differences = 0;
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::ShmRWLockForRead const guard(shared->lock);
                differences += shared->first != shared->second ? 1 : 0;
            }
            EXPECT_EQ(0, differences);
        });
    }
    shared->go = true;
    for (Process& process : processes) {
        EXPECT_EQ(0, process.join());
    }
    EXPECT_EQ(2 * ROUNDS, shared->first);
    EXPECT_EQ(2 * ROUNDS, shared->second);
}

TEST(ShmRWLock, triesSeeWhatAnotherProcessHolds) {
    SharedObject<Shared> const shared;
    ASSERT_FALSE(shared->lock.lockForRead());
    EXPECT_EQ(0, Process([&shared] {
                     EXPECT_EQ(0, shared->lock.tryLockForRead());
                     EXPECT_EQ(0, shared->lock.tryLockForRead(50));
                     EXPECT_EQ(1, shared->lock.tryLockForWrite());
                     EXPECT_FALSE(shared->lock.unlock());
                     EXPECT_FALSE(shared->lock.unlock());
                 }).join());
    EXPECT_FALSE(shared->lock.unlock());
    ASSERT_FALSE(shared->lock.lockForWrite());
    EXPECT_EQ(0, Process([&shared] {
                     EXPECT_EQ(1, shared->lock.tryLockForRead());
                     EXPECT_EQ(1, shared->lock.tryLockForWrite());
                     auto const start = std::chrono::steady_clock::now();
                     EXPECT_EQ(1, shared->lock.tryLockForRead(20));
                     EXPECT_EQ(1, shared->lock.tryLockForWrite(20));
                     EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(38));
                     EXPECT_TRUE(chainIs({}));
                 }).join());
    EXPECT_FALSE(shared->lock.unlock());
}

TEST(ShmRWLock, waitsForAnotherProcessToLetGo) {
    for (bool const for_write : {false, true}) {
        SharedObject<Shared> const shared;
        ASSERT_FALSE(shared->lock.lockForWrite());
        Process waiter([&] {
            shared->ready = true;
            EXPECT_FALSE(for_write ? shared->lock.lockForWrite() : shared->lock.lockForRead());
            shared->locked = true;
            EXPECT_FALSE(shared->lock.unlock());
        });
        await(shared->ready);
        support::waitUntilAsleep(waiter.getId(), waiter.getId());
        EXPECT_FALSE(shared->locked);
        EXPECT_FALSE(shared->lock.unlock());
        EXPECT_EQ(0, waiter.join());
        EXPECT_TRUE(shared->locked);
    }
}

TEST(ShmRWLock, outlivesAProcessThatDiesWithoutHoldingIt) {
    SharedObject<Shared> const shared;
    Process user([&shared] {
        EXPECT_FALSE(shared->lock.lockForWrite());
        EXPECT_FALSE(shared->lock.unlock());
        EXPECT_FALSE(shared->lock.lockForRead());
        EXPECT_FALSE(shared->lock.unlock());
        shared->ready = true;
        await(shared->go);
    });
    await(shared->ready);
    user.kill();
    EXPECT_EQ(0, shared->lock.tryLockForWrite());
    EXPECT_FALSE(shared->lock.unlock());
    EXPECT_EQ(0, shared->lock.tryLockForRead());
    EXPECT_FALSE(shared->lock.unlock());
}

TEST(ShmRWLock, writerThatReadsIsADeadlock) {
    ShmRWLock const lock;
    ASSERT_FALSE(lock.lockForWrite());
    EXPECT_TRUE(lock.lockForRead());
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::DEADLOCK, "Deadlock has been detected: " + systemText(EDEADLK)}}));
    EXPECT_TRUE(lock.lockForWrite());
    EXPECT_TRUE(chainIs({{RWLock::ErrorId::DEADLOCK, "Deadlock has been detected: " + systemText(EDEADLK)}}));
    EXPECT_FALSE(lock.unlock());
}

TEST(ShmRWLock, failedUnlockIsReported) {
    ShmRWLock const lock;
    ASSERT_FALSE(lock.lockForRead());
    bool failed = false;
    {
        Fault const fault(inject_pthread_rwlock_unlock, EPERM);
        failed = lock.unlock();
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
         {ShmRWLock::Error, ShmRWLock::ErrorId::UNLOCK_FAILED, "Unlocking failed: " + systemText(EPERM)}}));
    EXPECT_FALSE(lock.unlock());
}

TEST(ShmRWLock, lockThatCannotBeMadeIsInvalidAndNotDestroyed) {
    struct {
        support::Injected* function;
        int error;
        int id;
        int text;
    } const rows[] = {
        {&inject_pthread_rwlockattr_setpshared, EINVAL, 19, EINVAL},
        {&inject_pthread_rwlock_init, ENOMEM, 1, 0},
    };
    for (auto const& row : rows) {
        Fault const destroyed(inject_pthread_rwlock_destroy, 0);
        EventRecorder recorder;
        {
            std::optional<Fault> fault(std::in_place, *row.function, row.error);
            ShmRWLock const lock;
            fault.reset();
            EXPECT_FALSE(lock.isValid());
        }
        EXPECT_TRUE(chainIs({{SysError, row.id, rowText(SysError, row.id, systemText(row.text))}}));
        EXPECT_EQ(0, destroyed.getCalls());
        EXPECT_EQ("", recorder.getText());
    }
}

TEST(ShmRWLock, lockThatCannotBeDestroyedIsAWarningAndNothingStaysPending) {
    EventRecorder recorder;
    Fault const fault(inject_pthread_rwlock_destroy, EINVAL);
    { ShmRWLock const lock; }
    EXPECT_EQ(
        "WARNING framework/include/vesk/posix/RWLock ~RWLock: Error destroying RWLock!", recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

} // namespace
