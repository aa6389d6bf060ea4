#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Processes.h"

#include <vesk/ShmSpinLock.h>
#include <vesk/SpinLock.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<int> g_shared{-1};

int note(int shared) {
    g_shared = shared;
    return shared;
}

} // namespace

VESK_INJECT_RESULT(pthread_spin_init, (pthread_spinlock_t * l, int shared), (l, note(shared)))
VESK_INJECT_RESULT(pthread_spin_destroy, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_lock, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_trylock, (pthread_spinlock_t * l), (l))
VESK_INJECT_RESULT(pthread_spin_unlock, (pthread_spinlock_t * l), (l))

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::Process;
using support::rowText;
using support::SharedObject;
using support::systemText;
using vesk::ShmSpinLock;
using vesk::SpinLock;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

/// Both lock classes, which differ only in whom they are for.
template <typename Lock>
struct Name;
template <>
struct Name<SpinLock> {
    static constexpr char const* TEXT = "SpinLock";
    static constexpr int SHARED = PTHREAD_PROCESS_PRIVATE;
};
template <>
struct Name<ShmSpinLock> {
    static constexpr char const* TEXT = "ShmSpinLock";
    static constexpr int SHARED = PTHREAD_PROCESS_SHARED;
};

struct Names {
    template <typename Lock>
    static std::string GetName(int) {
        return Name<Lock>::TEXT;
    }
};

template <typename Lock>
class SpinLocks : public testing::Test {};

using Both = testing::Types<SpinLock, ShmSpinLock>;
TYPED_TEST_SUITE(SpinLocks, Both, Names);

TYPED_TEST(SpinLocks, isMadeForWhomItIs) {
    g_shared = -1;
    TypeParam const lock;
    EXPECT_TRUE(lock.isValid());
    EXPECT_EQ(Name<TypeParam>::SHARED, g_shared);
}

TYPED_TEST(SpinLocks, locksAndUnlocksWithoutAReport) {
    TypeParam const lock;
    EXPECT_FALSE(lock.lock());
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, lock.tryLock());
    EXPECT_FALSE(lock.unlock());
    EXPECT_TRUE(chainIs({}));
}

TYPED_TEST(SpinLocks, heldLockIsBusyForATry) {
    TypeParam const lock;
    ASSERT_FALSE(lock.lock());
    std::thread([&lock] {
        EXPECT_EQ(1, lock.tryLock());
        EXPECT_TRUE(chainIs({}));
    }).join();
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, lock.tryLock());
    EXPECT_FALSE(lock.unlock());
}

TYPED_TEST(SpinLocks, threadsStayOutOfEachOthersWay) {
    constexpr int THREADS = 2;
    constexpr int ROUNDS = 20000;
    TypeParam const lock;
    int counter = 0; // Not atomic: only the lock makes the sum right.
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::ScopedLock<TypeParam const> const guard(lock);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * ROUNDS, counter);
}

TYPED_TEST(SpinLocks, lockThatCannotBeMadeIsInvalidAndNotDestroyed) {
    for (int const error : {EAGAIN, ENOMEM}) {
        Fault const destroyed(inject_pthread_spin_destroy, 0);
        EventRecorder recorder;
        {
            std::optional<Fault> fault(std::in_place, inject_pthread_spin_init, error);
            TypeParam const lock;
            fault.reset();
            EXPECT_FALSE(lock.isValid());
        }
        EXPECT_TRUE(
            chainIs({{SpinLock::ErrorId::CREATE_FAILED, "SpinLock creation failed: " + systemText(error)}}));
        EXPECT_EQ(0, destroyed.getCalls());
        EXPECT_EQ("", recorder.getText());
    }
}

TYPED_TEST(SpinLocks, lockThatCannotBeDestroyedIsAWarningAndNothingStaysPending) {
    EventRecorder recorder;
    Fault const fault(inject_pthread_spin_destroy, EBUSY);
    { TypeParam const lock; }
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_EQ(
        "WARNING framework/include/vesk/posix/SpinLock ~SpinLock: Error destroying SpinLock!",
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

TYPED_TEST(SpinLocks, destroyingAGoodLockKeepsWhatIsPending) {
    {
        TypeParam const lock;
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    }
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}}));
}

TYPED_TEST(SpinLocks, failuresGoToTheHandlerOfTheirOperation) {
    TypeParam const lock;
    {
        Fault const fault(inject_pthread_spin_lock, EPERM);
        EXPECT_TRUE(lock.lock());
    }
    EXPECT_TRUE(chainIs(
        {{SpinLock::ErrorId::INCONSISTENT, "SpinLock inconsistency detected: " + systemText(EPERM)}}));
    {
        Fault const fault(inject_pthread_spin_lock, EDEADLK);
        EXPECT_TRUE(lock.lock());
    }
    EXPECT_TRUE(
        chainIs({{SpinLock::ErrorId::UNLOCK_FAILED, "SpinLock unlock failed: " + systemText(EDEADLK)}}));
    {
        Fault const fault(inject_pthread_spin_trylock, EDEADLK);
        EXPECT_EQ(-1, lock.tryLock());
    }
    EXPECT_TRUE(chainIs(
        {{SpinLock::ErrorId::INCONSISTENT, "SpinLock inconsistency detected: " + systemText(EDEADLK)}}));
    {
        Fault const fault(inject_pthread_spin_trylock, EPERM);
        EXPECT_EQ(-1, lock.tryLock());
    }
    EXPECT_TRUE(chainIs({{SpinLock::ErrorId::LOCK_FAILED, "SpinLock lock failed: " + systemText(EPERM)}}));
    {
        Fault const fault(inject_pthread_spin_trylock, EBUSY);
        EXPECT_EQ(1, lock.tryLock());
    }
    EXPECT_TRUE(chainIs({}));
    ASSERT_EQ(0, lock.tryLock()) << "none of this took the lock";
    {
        Fault const fault(inject_pthread_spin_unlock, EDEADLK);
        EXPECT_TRUE(lock.unlock());
    }
    EXPECT_TRUE(chainIs(
        {{SpinLock::ErrorId::INCONSISTENT, "SpinLock inconsistency detected: " + systemText(EDEADLK)}}));
    {
        Fault const fault(inject_pthread_spin_unlock, EPERM);
        EXPECT_TRUE(lock.unlock());
    }
    EXPECT_TRUE(chainIs({{SpinLock::ErrorId::LOCK_FAILED, "SpinLock lock failed: " + systemText(EPERM)}}));
    EXPECT_EQ(1, lock.tryLock()) << "a failed unlock leaves the lock held";
    EXPECT_FALSE(lock.unlock());
}

TEST(SpinLock, rowsHaveTheirTexts) {
    char const* const texts[] = {
        "SpinLock creation failed: %s",
        "SpinLock lock failed: %s",
        "SpinLock unlock failed: %s",
        "SpinLock inconsistency detected: %s",
    };
    int id = 0;
    for (char const* text : texts) {
        ASSERT_NE(nullptr, SpinLock::Error.getRow(id));
        EXPECT_STREQ(text, SpinLock::Error.getRow(id)->format);
        EXPECT_EQ(1, SpinLock::Error.getRow(id)->nargs);
        ++id;
    }
    EXPECT_EQ(nullptr, SpinLock::Error.getRow(id));
    EXPECT_TRUE(SpinLock::Error.isA(SysError));
    EXPECT_EQ(&SpinLock::Error, &ShmSpinLock::Error);
}

struct Shared {
    ShmSpinLock lock;
    std::atomic<bool> ready{false};
    std::atomic<bool> go{false};
    volatile int counter = 0; // Not atomic: only the lock makes the sum right.
};

void await(std::atomic<bool> const& flag) {
    while (!flag) {
        sched_yield();
    }
}

TEST(ShmSpinLock, processesStayOutOfEachOthersWay) {
    constexpr int PROCESSES = 3;
    constexpr int ROUNDS = 20000;
    SharedObject<Shared> const shared;
    std::vector<Process> processes;
    for (int i = 0; i < PROCESSES; ++i) {
        processes.emplace_back([&shared] {
            await(shared->go);
            for (int round = 0; round < ROUNDS; ++round) {
                vesk::ShmSpinLockGuard const guard(shared->lock);
                shared->counter = shared->counter + 1;
            }
        });
    }
    shared->go = true;
    for (Process& process : processes) {
        EXPECT_EQ(0, process.join());
    }
    EXPECT_EQ(PROCESSES * ROUNDS, shared->counter);
}

TEST(ShmSpinLock, tryFindsWhatAnotherProcessHoldsBusy) {
    SharedObject<Shared> const shared;
    Process holder([&shared] {
        EXPECT_FALSE(shared->lock.lock());
        shared->ready = true;
        await(shared->go);
        EXPECT_FALSE(shared->lock.unlock());
    });
    await(shared->ready);
    EXPECT_EQ(1, shared->lock.tryLock());
    EXPECT_TRUE(chainIs({}));
    shared->go = true;
    EXPECT_FALSE(shared->lock.lock());
    EXPECT_FALSE(shared->lock.unlock());
    EXPECT_EQ(0, holder.join());
}

TEST(ShmSpinLock, outlivesAProcessThatDiesTurningOnIt) {
    SharedObject<Shared> const shared;
    ASSERT_FALSE(shared->lock.lock());
    Process waiter([&shared] {
        shared->ready = true;
        shared->lock.lock();
    });
    await(shared->ready);
    waiter.kill();
    EXPECT_FALSE(shared->lock.unlock());
    EXPECT_EQ(0, shared->lock.tryLock());
    EXPECT_FALSE(shared->lock.unlock());
}

} // namespace
