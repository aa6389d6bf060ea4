#include "support/Emulation.h"
#include "support/Processes.h"
#include "sync/LockSupport.h"

#include <chrono>

/// The locks that processes share.

namespace {

using namespace support;
using vesk::ShmRWLock;
using vesk::ShmSpinLock;

template <typename Lock>
class ShmLocks : public testing::Test {
protected:
    static constexpr bool HAS_TIMEOUTS = !IS_SPIN_LOCK<Lock>;

    void SetUp() override {
        if (std::is_same_v<Lock, InheritingMutex> || std::is_same_v<Lock, RecursiveInheritingMutex>) {
            VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
        }
    }

    SharedObject<Contended<Lock>> const m_shared;
};

using AllShmLocks = testing::Types<
    PlainMutex, RecursiveMutex, InheritingMutex, RecursiveInheritingMutex, ShmRWLock, ShmSpinLock>;

TYPED_TEST_SUITE(ShmLocks, AllShmLocks, TypeName);

TYPED_TEST(ShmLocks, excludeProcesses) {
    constexpr int ROUNDS = 20000;
    std::vector<Process> processes;
    for (int i = 0; i < 2; ++i) {
        processes.emplace_back([this] {
            await(this->m_shared->go);
            this->m_shared->write(ROUNDS);
        });
        processes.emplace_back([this] {
            await(this->m_shared->go);
            this->m_shared->read(ROUNDS);
        });
    }
    this->m_shared->go = true;
    for (Process& process : processes) {
        EXPECT_EQ(0, process.join());
    }
    EXPECT_EQ(2 * ROUNDS, this->m_shared->first);
    EXPECT_EQ(2 * ROUNDS, this->m_shared->second);
}

TYPED_TEST(ShmLocks, triesFindWhatAnotherProcessHoldsBusy) {
    TypeParam const& lock = this->m_shared->lock;
    Process holder([this, &lock] {
        EXPECT_FALSE(lockForWrite(lock));
        this->m_shared->ready = true;
        await(this->m_shared->go);
        EXPECT_FALSE(lock.unlock());
    });
    await(this->m_shared->ready);
    EXPECT_EQ(1, tryForWrite(lock));
    EXPECT_EQ(1, tryForWrite(lock, 0));
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, tryForWrite(lock, 20));
    if (this->HAS_TIMEOUTS) {
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
    }
    EXPECT_TRUE(chainIs({})) << "busy is no failure";
    this->m_shared->go = true;
    EXPECT_EQ(0, this->HAS_TIMEOUTS ? tryForWrite(lock, 60000) : int(lockForWrite(lock)));
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, holder.join());
}

TYPED_TEST(ShmLocks, waitForAnotherProcessToUnlock) {
    for (bool const for_write : {false, true}) {
        SharedObject<Contended<TypeParam>> const shared;
        ASSERT_FALSE(lockForWrite(shared->lock));
        Process waiter([&] {
            shared->ready = true;
            EXPECT_FALSE(for_write ? lockForWrite(shared->lock) : lockForRead(shared->lock));
            shared->locked = true;
            EXPECT_FALSE(shared->lock.unlock());
        });
        await(shared->ready);
        if (!IS_SPIN_LOCK<TypeParam>) {
            waitUntilAsleep(waiter.getId(), waiter.getId());
        }
        EXPECT_FALSE(shared->locked);
        EXPECT_FALSE(shared->lock.unlock());
        EXPECT_EQ(0, waiter.join());
        EXPECT_TRUE(shared->locked);
    }
}

TYPED_TEST(ShmLocks, outliveAProcessThatIsKilledWithoutHoldingThem) {
    TypeParam const& lock = this->m_shared->lock;
    std::atomic<bool>& ready = this->m_shared->ready;
    Process user([&] {
        EXPECT_FALSE(lockForWrite(lock));
        EXPECT_FALSE(lock.unlock());
        EXPECT_FALSE(lockForRead(lock));
        EXPECT_FALSE(lock.unlock());
        ready = true;
        await(this->m_shared->go);
    });
    await(ready);
    user.kill();
    ASSERT_EQ(0, tryForWrite(lock));
    if (!IS_RWLOCK<TypeParam>) {
        ready = false;
        Process waiter([&] {
            ready = true;
            lockForWrite(lock);
        });
        await(ready);
        if (!IS_SPIN_LOCK<TypeParam>) {
            waitUntilAsleep(waiter.getId(), waiter.getId());
        }
        waiter.kill();
    }
    EXPECT_FALSE(lock.unlock());
    EXPECT_FALSE(lockForRead(lock));
    EXPECT_FALSE(lock.unlock());
    EXPECT_EQ(0, Process([&lock] {
                     EXPECT_EQ(0, tryForWrite(lock));
                     EXPECT_FALSE(lock.unlock());
                 }).join());
}

TEST(ShmRWLock, triesSeeWhatAnotherProcessHolds) {
    SharedObject<ShmRWLock> const lock;
    ASSERT_FALSE(lock->lockForRead());
    EXPECT_EQ(0, Process([&lock] {
                     EXPECT_EQ(0, lock->tryLockForRead());
                     EXPECT_EQ(0, lock->tryLockForRead(50));
                     EXPECT_EQ(1, lock->tryLockForWrite());
                     EXPECT_FALSE(lock->unlock());
                     EXPECT_FALSE(lock->unlock());
                 }).join());
    EXPECT_FALSE(lock->unlock());
    ASSERT_FALSE(lock->lockForWrite());
    EXPECT_EQ(0, Process([&lock] {
                     EXPECT_EQ(1, lock->tryLockForRead());
                     EXPECT_EQ(1, lock->tryLockForWrite());
                     auto const start = std::chrono::steady_clock::now();
                     EXPECT_EQ(1, lock->tryLockForRead(20));
                     EXPECT_EQ(1, lock->tryLockForWrite(20));
                     EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(38));
                     EXPECT_TRUE(chainIs({}));
                 }).join());
    EXPECT_FALSE(lock->unlock());
}

} // namespace
