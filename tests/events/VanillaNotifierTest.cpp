#include "support/CleanEnd.h"
#include "support/ErrnoRows.h"
#include "support/FailOnce.h"
#include "support/RunInThreads.h"
#include "support/VtableSlot.h"

#include <vesk/Dispatcher.h>

#include <memory>

namespace {
// The mutex of the condition's wait, and whether it was locked when the condition was signaled.
std::atomic<pthread_mutex_t*> s_waiters_mutex{nullptr};
std::atomic<int> s_signals_with_mutex{0};
std::atomic<int> s_signals_without_mutex{0};

void noteSignal() {
    if (pthread_mutex_t* const mutex = s_waiters_mutex) {
        if (pthread_mutex_trylock(mutex) == EBUSY) {
            ++s_signals_with_mutex;
        } else {
            ++s_signals_without_mutex;
            pthread_mutex_unlock(mutex);
        }
    }
}
} // namespace

VESK_INJECT(
    int, return error, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
    (condition, mutex), s_waiters_mutex = mutex)
VESK_INJECT(int, return error, pthread_cond_signal, (pthread_cond_t * condition), (condition), noteSignal())

namespace {

using namespace support;
using Notifier = vesk::Dispatcher::Notifier;
using vesk::Dispatcher;

class VanillaNotifier : public testing::Test {
protected:
    /// Counts the waits of all threads from now on, and lets some fail.
    void watchWaits(int error = 0, int times = 1) {
        m_waits.reset();
        m_waits = std::make_unique<Fault>(inject_pthread_cond_wait, error, 1, times, Fault::Threads::ALL);
    }
    std::thread startWaiter(int waits = 1) {
        return std::thread([this, waits] {
            for (int i = 0; i < waits; ++i) {
                m_notifier.wait();
                ++m_returned;
            }
        });
    }
    void awaitWaits(int calls) const {
        while (m_waits->getCalls() < calls) {
            std::this_thread::yield();
        }
    }
    /// Lets a thread wait and wakes it. This binds the condition: before, a signal does not reach the system.
    void sleepOnce() {
        watchWaits();
        std::thread waiter = startWaiter();
        awaitWaits(1);
        m_notifier.signal();
        waiter.join();
    }

    Dispatcher::VanillaNotifier m_notifier;
    std::unique_ptr<Fault> m_waits;
    std::atomic<int> m_returned{0};
};

TEST_F(VanillaNotifier, aNewOneIsNotSignaledAndFiveSignalsBeforeTheWaitAreOneWakeUp) {
    for (int const waits : {0, 1}) {
        for (int i = 0; waits == 1 && i < 5; ++i) {
            m_notifier.signal();
        }
        m_returned = 0;
        watchWaits();
        std::thread waiter = startWaiter(waits + 1);
        awaitWaits(1);
        EXPECT_EQ(waits, m_returned) << "the last wait sleeps";
        EXPECT_EQ(1, m_waits->getCalls());
        m_notifier.signal();
        waiter.join();
        EXPECT_EQ(waits + 1, m_returned);
    }
}

TEST_F(VanillaNotifier, aSignalWakesOneOfTwoWaiters) {
    watchWaits();
    std::thread first = startWaiter();
    std::thread second = startWaiter();
    awaitWaits(2);
    m_notifier.signal();
    while (m_returned == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(1, m_returned);
    m_notifier.signal();
    first.join();
    second.join();
    EXPECT_EQ(2, m_returned);
}

TEST_F(VanillaNotifier, conditionIsSignaledWithTheMutexLocked) {
    s_waiters_mutex = nullptr;
    s_signals_with_mutex = 0;
    s_signals_without_mutex = 0;
    sleepOnce();
    m_notifier.signal();
    EXPECT_EQ(2, s_signals_with_mutex);
    EXPECT_EQ(0, s_signals_without_mutex);
    s_waiters_mutex = nullptr;
}

TEST_F(VanillaNotifier, twoThreadsAlternate) {
    constexpr int ROUNDS = 2000;
    Dispatcher::VanillaNotifier answer;
    int count = 0; // Not atomic: each thread touches it only in its turn.
    std::thread partner([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            m_notifier.wait();
            ++count;
            answer.signal();
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        m_notifier.signal();
        answer.wait();
        EXPECT_EQ(i + 1, count);
    }
    partner.join();
}

TEST_F(VanillaNotifier, signalsOfManyThreadsLoseNoWakeUp) {
    constexpr int ROUNDS = 2000;
    std::atomic<int> posted{0};
    // A lost wake-up would let the waiter sleep forever: the last signal comes after the last count.
    runInThreads(4, [&](int thread) {
        for (int round = 0; thread < 3 && round < ROUNDS; ++round) {
            ++posted;
            m_notifier.signal();
        }
        while (thread == 3 && posted < 3 * ROUNDS) {
            m_notifier.wait();
        }
    });
}

// ---- failures of the system ----

/// An errno of the condition and what the report shows of it.
struct Row {
    int error;
    SysErrorId::Id id;
    char const* argument;

    testing::AssertionResult isPending() const { return chainIs({{id, rowText(id, argument)}}); }
};

TEST_F(VanillaNotifier, aFailedWaitIsReportedAndRepeated) {
    for (Row const& row :
         {Row{EINVAL, SysErrorId::SPOILED_INTEGRITY, "-1"}, Row{EPERM, SysErrorId::SPOILED_INTEGRITY, "-1"},
          Row{EAGAIN, SysErrorId::SPOILED_INTEGRITY, "11"}}) {
        SCOPED_TRACE(row.error);
        m_returned = 0;
        watchWaits(row.error, 2);
        std::thread waiter([this, &row] {
            m_notifier.wait();
            ++m_returned;
            EXPECT_TRUE(row.isPending());
        });
        awaitWaits(3);
        EXPECT_EQ(0, m_returned);
        m_notifier.signal();
        waiter.join();
        EXPECT_EQ(1, m_returned);
    }
}

Row const SIGNAL_ROWS[] = {
    {EINVAL, SysErrorId::SPOILED_INTEGRITY, "-1"},
    {EAGAIN, SysErrorId::UNCLASSIFIED, "11"},
};

TEST_F(VanillaNotifier, aFailedSignalIsReportedAndEndsTheNextWait) {
    sleepOnce();
    for (Row const& row : SIGNAL_ROWS) {
        SCOPED_TRACE(row.error);
        failOnce(inject_pthread_cond_signal, row.error, [this] { return m_notifier.signal(), 0; });
        EXPECT_TRUE(row.isPending());
        watchWaits();
        m_notifier.wait();
        EXPECT_EQ(0, m_waits->getCalls());
    }
}

TEST_F(VanillaNotifier, aWaiterThatAFailedSignalDidNotReachIsWokenByTheNext) {
    for (Row const& row : SIGNAL_ROWS) {
        SCOPED_TRACE(row.error);
        watchWaits();
        std::thread waiter = startWaiter();
        awaitWaits(1);
        {
            Fault const fault(inject_pthread_cond_signal, row.error, 1, 2);
            m_notifier.signal();
            m_notifier.signal();
            EXPECT_EQ(2, fault.getCalls());
        }
        EXPECT_TRUE(row.isPending());
        m_notifier.signal();
        waiter.join();
    }
}

TEST(VanillaNotifierClass, canBeDeletedAsANotifierWithWaitAndSignalAfterItsDestructors) {
    Notifier* const notifier = new Dispatcher::VanillaNotifier;
    notifier->signal();
    notifier->wait();
    delete notifier;
    EXPECT_EQ(2, getSlot(&Notifier::wait));
    EXPECT_EQ(3, getSlot(&Notifier::signal));
    EXPECT_TRUE(std::is_abstract_v<Notifier>);
    EXPECT_TRUE((std::is_base_of_v<Notifier, Dispatcher::VanillaNotifier>));
}

} // namespace
