#include "support/Emulation.h"
#include "support/NamedRow.h"
#include "support/Processes.h"
#include "support/Sleeper.h"
#include "sync/LockSupport.h"
#include "threads/SchedSupport.h"

#include <vesk/Condition.h>
#include <vesk/ShmCondition.h>

#include <mutex>
#include <semaphore.h>

/// Priority inheritance, and locks whose owner ends.

namespace {

using namespace support;
using namespace vesk;

constexpr auto INHERIT = Mutex::Protocol::INHERIT;
constexpr auto NONE = Mutex::Protocol::NONE;
constexpr auto ROBUST = ShmMutex::Robustness::ROBUST;
constexpr auto OWNER_DIED = Mutex::ErrorId::OWNER_DIED;

// ---- priority inheritance ----

/// A thread with a real-time priority on the first processor that the test may use.
class RealTimeThread {
public:
    template <typename Body>
    RealTimeThread(int priority, Body body)
        : m_thread([this, priority, body] {
              m_refused = useOneProcessor() ? setPolicy(SCHED_FIFO, priority) : errno;
              if (m_refused == 0) {
                  body();
              }
          }) {}
    ~RealTimeThread() { join(); }

    /// Returns 0, or the error number of the system that does not allow such threads.
    int join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        return m_refused;
    }

private:
    int m_refused = 0; // Before the thread, which writes it.
    std::thread m_thread;
};

struct Semaphore {
    Semaphore() { sem_init(&m_semaphore, 0, 0); }
    ~Semaphore() { sem_destroy(&m_semaphore); }
    void post() { sem_post(&m_semaphore); }
    void wait() {
        while (sem_wait(&m_semaphore) != 0 && errno == EINTR) {}
    }

private:
    sem_t m_semaphore;
};

/// Lets three threads of one processor meet: one of low priority holds the lock when the one of high priority
/// asks for it, and one of middle priority becomes ready at the same time. Returns the order in which the latter two
/// get on, or the reason why it cannot be seen.
template <typename Lock>
std::string meet(Lock& lock) {
    std::mutex guard;
    std::string order;
    auto const note = [&](char const* name) {
        std::lock_guard<std::mutex> const locked(guard);
        order += name;
    };
    Semaphore is_held;
    Semaphore go_low;
    Semaphore go_middle;
    Semaphore go_high;
    std::atomic<bool> refused{false};
    auto const director = [&] {
        RealTimeThread low(1, [&] {
            EXPECT_FALSE(lock.lock());
            is_held.post();
            go_low.wait();
            EXPECT_FALSE(lock.unlock());
        });
        is_held.wait();
        RealTimeThread middle(2, [&] {
            go_middle.wait();
            note(" middle");
        });
        RealTimeThread high(3, [&] {
            go_high.wait();
            EXPECT_FALSE(lock.lock());
            note(" high");
            EXPECT_FALSE(lock.unlock());
        });
        // None of them runs before this thread waits for their ends.
        go_high.post();
        go_low.post();
        go_middle.post();
    };
    RealTimeThread first(4, director);
    refused = first.join() != 0;
    return refused ? "not allowed" : order;
}

struct Meeting {
    char const* name;
    std::string (*meet)();
    char const* order;
};

template <typename Lock, Mutex::Protocol PROTOCOL>
std::string meetAt() {
    Lock lock(false, PROTOCOL);
    return meet(lock);
}

Meeting const MEETINGS[] = {
    {"Mutex_plain", meetAt<Mutex, NONE>, " middle high"},
    {"Mutex_inheriting", meetAt<Mutex, INHERIT>, " high middle"},
    {"ShmMutex_plain", meetAt<ShmMutex, NONE>, " middle high"},
    {"ShmMutex_inheriting", meetAt<ShmMutex, INHERIT>, " high middle"},
};

VESK_TEST_TABLE(Priorities, ofWaitersReachTheOwnerOfALockThatInherits, testing::Test, MEETINGS) {
    VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    std::string const order = GetParam().meet();
    if (order == "not allowed") {
        GTEST_SKIP() << "real-time scheduling is not allowed here";
    }
    EXPECT_EQ(GetParam().order, order);
}

TEST(MutexProtocol, changesNothingElse) {
    for (bool const recursive : {false, true}) {
        Mutex const mutex(recursive, INHERIT);
        EXPECT_FALSE(mutex.lock());
        EXPECT_EQ(!recursive, mutex.lock());
        EXPECT_TRUE(recursive ? chainIs({}) : causeIs(Mutex::ErrorId::INCONSISTENT, EDEADLK));
        std::thread([&mutex] {
            EXPECT_TRUE(mutex.unlock());
            EXPECT_TRUE(causeIs(Mutex::ErrorId::INCONSISTENT, EPERM));
        }).join();
        EXPECT_FALSE(mutex.unlock());
        EXPECT_TRUE(!recursive || !mutex.unlock());
        EXPECT_TRUE(mutex.unlock()) << "free";
        EXPECT_TRUE(causeIs(Mutex::ErrorId::INCONSISTENT, EPERM));
    }
}

TEST(MutexProtocol, worksWithConditions) {
    VESK_SKIP_WITHOUT_BYTE_ORDER_OF_KERNEL();
    Mutex mutex(false, INHERIT);
    Condition condition;
    bool ready = false;
    SleepingThread const waiter([&] {
        MutexLock const lock(mutex);
        while (!ready) {
            EXPECT_FALSE(condition.wait(mutex));
        }
    });
    MutexLock const lock(mutex);
    ready = true;
    EXPECT_FALSE(condition.signal());
}

// ---- robust locks ----

struct Guarded {
    ShmMutex mutex{false, NONE, ROBUST};
    ShmCondition condition;
    volatile int first = 0;
    volatile int second = 0;
};

class RobustShmMutex : public testing::Test {
protected:
    void SetUp() override {
        if (IS_EMULATED) {
            GTEST_SKIP() << "the emulator does not know the list of the locks that a thread holds";
        }
        ASSERT_TRUE(m_mutex.isValid());
    }
    void TearDown() override { EXPECT_TRUE(chainIs({})) << "The test leaves reports pending."; }

    /// Leaves the lock to a process that ends while it holds it.
    void loseOwner() {
        EXPECT_EQ(0, Process([this] { EXPECT_FALSE(m_mutex.lock()); }).join());
    }

    SharedObject<Guarded> const m_shared;
    ShmMutex const& m_mutex = m_shared->mutex;
};

struct Taking {
    char const* name;
    int failure;
    int (*take)(ShmMutex const& mutex);
};

Taking const TAKINGS[] = {
    {"lock", 1, [](ShmMutex const& mutex) -> int { return mutex.lock(); }},
    {"tryLock", -1, [](ShmMutex const& mutex) -> int { return mutex.tryLock(); }},
    {"tryLockTimeout", -1, [](ShmMutex const& mutex) -> int { return mutex.tryLockTimeout(60000); }},
};

class TakenRobustShmMutex : public RobustShmMutex, public testing::WithParamInterface<Taking> {};

TEST_P(TakenRobustShmMutex, goesToTheNextCallerAndCanBeRecovered) {
    loseOwner();
    EXPECT_EQ(GetParam().failure, GetParam().take(m_mutex));
    EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
    std::thread([this] { EXPECT_EQ(1, m_mutex.tryLock()) << "not held"; }).join();
    EXPECT_FALSE(m_mutex.recover());
    std::thread([this] { EXPECT_EQ(1, m_mutex.tryLock()) << "not held after the recovery"; }).join();
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_EQ(0, GetParam().take(m_mutex)) << "not recovered";
    EXPECT_FALSE(m_mutex.unlock());
}

TEST_P(TakenRobustShmMutex, isGivenUpIfItIsUnlockedWithoutRecovery) {
    loseOwner();
    EXPECT_EQ(GetParam().failure, GetParam().take(m_mutex));
    EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
    EXPECT_FALSE(m_mutex.unlock());
    EXPECT_EQ(GetParam().failure, GetParam().take(m_mutex));
    EXPECT_TRUE(causeIs(Mutex::ErrorId::LOCK_FAILED, ENOTRECOVERABLE));
}

INSTANTIATE_TEST_SUITE_P(All, TakenRobustShmMutex, testing::ValuesIn(TAKINGS), TableName());

TEST_F(RobustShmMutex, goesToAWaiterWhenItsOwnerIsKilled) {
    PreparedChild owner([this] { EXPECT_FALSE(m_mutex.lock()); }, pause);
    std::atomic<bool> has_it{false};
    SleepingThread waiter([&] {
        EXPECT_TRUE(m_mutex.lock());
        has_it = true;
        EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
        EXPECT_FALSE(m_mutex.recover());
        EXPECT_FALSE(m_mutex.unlock());
    });
    EXPECT_FALSE(has_it);
    owner.kill();
    waiter.join();
    EXPECT_TRUE(has_it);
}

TEST_F(RobustShmMutex, countsAThreadThatEndsAsAnOwnerThatDied) {
    std::thread([this] { EXPECT_FALSE(m_mutex.lock()); }).join();
    EXPECT_TRUE(m_mutex.lock());
    EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
    EXPECT_FALSE(m_mutex.recover());
    EXPECT_FALSE(m_mutex.unlock());
}

TEST_F(RobustShmMutex, goesToTheNextIfTheOneThatRepairsDiesToo) {
    loseOwner();
    for (int round = 0; round < 3; ++round) {
        Process const repairer([this] {
            EXPECT_TRUE(m_mutex.lock());
            EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
        });
    }
    EXPECT_TRUE(m_mutex.lock());
    EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
    EXPECT_FALSE(m_mutex.recover());
    EXPECT_FALSE(m_mutex.unlock());
}

TEST_F(RobustShmMutex, isTakenOverByAGuardThatRecoversIt) {
    loseOwner();
    {
        ShmMutexLock lock(m_mutex);
        EXPECT_FALSE(lock.isLocked());
        EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
        EXPECT_FALSE(lock.recover());
        EXPECT_TRUE(lock.isLocked());
    }
    EXPECT_EQ(0, m_mutex.tryLock());
    EXPECT_FALSE(m_mutex.unlock());
}

TEST_F(RobustShmMutex, hasNothingToRecoverWhileItsOwnersLive) {
    for (bool const is_robust : {true, false}) {
        SharedObject<ShmMutex> const mutex(false, NONE, is_robust ? ROBUST : ShmMutex::Robustness::STALLED);
        ShmMutexLock lock(*mutex);
        EXPECT_TRUE(mutex->recover());
        EXPECT_TRUE(causeIs(Mutex::ErrorId::INCONSISTENT, EINVAL));
    }
}

TEST_F(RobustShmMutex, tellsAWaiterOfAConditionThatItsOwnerDied) {
    std::atomic<int> result{-2};
    SleepingThread waiter([&] {
        ShmMutexLock const lock(m_mutex);
        result = m_shared->condition.wait(m_shared->mutex);
        EXPECT_TRUE(causeIs(OWNER_DIED, EOWNERDEAD));
        EXPECT_FALSE(m_mutex.recover());
    });
    EXPECT_EQ(0, Process([this] {
                     EXPECT_FALSE(m_mutex.lock());
                     EXPECT_FALSE(m_shared->condition.signal());
                 }).join());
    waiter.join();
    EXPECT_EQ(1, result);
    EXPECT_EQ(0, m_mutex.tryLock());
    EXPECT_FALSE(m_mutex.unlock());
}

TEST_F(RobustShmMutex, keepsDataConsistentWhileItsOwnersAreKilled) {
    constexpr int ROUNDS = 100;
    // Returns whether the caller holds the lock, and the two numbers are equal.
    auto const takeAndRepair = [this] {
        if (m_mutex.lock()) {
            if (!std::ErrorStorage::is(OWNER_DIED)) {
                return false;
            }
            std::ErrorStorage::ack();
            m_shared->second = m_shared->first;
            if (m_mutex.recover()) {
                return false;
            }
        }
        return m_shared->first == m_shared->second;
    };
    auto const count = [&] {
        while (takeAndRepair()) {
            m_shared->first = m_shared->first + 1;
            m_shared->second = m_shared->second + 1;
            if (m_mutex.unlock()) {
                break;
            }
        }
        _exit(1);
    };
    for (int round = 0; round < ROUNDS; ++round) {
        int const before = m_shared->first;
        Process killed(count);
        Process other(count);
        EXPECT_TRUE(eventually([&] { return m_shared->first > before + 100 * (round % 10); }));
        killed.kill();
        EXPECT_EQ(SIGKILL, killed.getSignal());
        other.kill();
        EXPECT_EQ(SIGKILL, other.getSignal()) << "A process found the data inconsistent.";
        ASSERT_TRUE(takeAndRepair());
        EXPECT_FALSE(m_mutex.unlock());
    }
}

} // namespace
