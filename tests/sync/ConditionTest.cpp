#include "support/Aborts.h"
#include "support/CleanEnd.h"
#include "support/FailOnce.h"
#include "support/Sleeper.h"
#include "support/UnlockFault.h"
#include "sync/LockCalls.h"
#include "sync/LockSupport.h"

#include <vesk/Condition.h>
#include <vesk/ShmCondition.h>

#include <tarncommon/threadsafe/ConditionImpl.h>

#include <limits>

namespace {

using namespace support;
using namespace vesk;
using tarnbase::Duration;
using tarnbase::TimePoint;

constexpr auto SPOILED = SysErrorId::SPOILED_INTEGRITY;

AbsTimeT inMs(long long ms) {
    return AbsTimeT((TimePoint::now() + Duration(ms)).getCount());
}

TEST(ShmCondition, familyIsThatOfCondition) {
    EXPECT_EQ(&Condition::Error, &ShmCondition::Error);
    expectRows(
        Condition::Error,
        {"Creating condition variable failed", "Waiting on condition variable failed",
         "Signaling condition variable failed"},
        0);
}

// ---- both classes ----

/// What the two sides of a test share.
template <typename MutexType, typename ConditionType>
struct Shared {
    using Lock = vesk::ScopedLock<MutexType const>;

    MutexType mutex;
    ConditionType to_partner;
    ConditionType to_test;
    std::atomic<bool> ready{false};
    std::atomic<bool> held{false};
    std::atomic<bool> go{false};
    int volatile turn = 0; // Even: the test's. Not atomic: the mutex guards it.

    /// The partner's turns.
    void takeTurns(int rounds) {
        for (int round = 0; round < rounds; ++round) {
            Lock const lock(mutex);
            while (turn % 2 == 0) {
                ASSERT_FALSE(to_partner.wait(mutex));
            }
            turn = turn + 1;
            EXPECT_FALSE(to_test.signal());
        }
    }
    /// The test's turns.
    void giveTurns(int rounds) {
        for (int round = 0; round < rounds; ++round) {
            Lock const lock(mutex);
            turn = turn + 1;
            EXPECT_FALSE(to_partner.signal());
            while (turn % 2 != 0) {
                ASSERT_EQ(0, to_test.waitTimeout(mutex, inMs(60000)));
            }
        }
    }
};

/// The other side of a test: a thread for `Condition`, a process for `ShmCondition`.
struct ThreadPartner : Sleeper {
    using Sleeper::Sleeper;
    int join() { return Sleeper::join() == nullptr ? 0 : -1; }
};
struct ProcessPartner : Process {
    using Process::Process;
    void awaitSleep() const { waitUntilAsleep(getId(), getId()); }
};

struct OfThreads : Shared<Mutex, Condition> {
    using Partner = ThreadPartner;
};
struct OfProcesses : Shared<ShmMutex, ShmCondition> {
    using Partner = ProcessPartner;
};

template <typename T>
class Conditions : public testing::Test {
protected:
    using Lock = typename T::Lock;

    SharedObject<T> m_shared;
    decltype(T::mutex)& m_mutex = m_shared->mutex;
    decltype(T::to_partner)& m_condition = m_shared->to_partner;
};

using BothClasses = testing::Types<OfThreads, OfProcesses>;
TYPED_TEST_SUITE(Conditions, BothClasses, TypeName);

TYPED_TEST(Conditions, handOverInBothDirections) {
    constexpr int ROUNDS = 2000;
    typename TypeParam::Partner partner([this] { this->m_shared->takeTurns(ROUNDS); });
    this->m_shared->giveTurns(ROUNDS);
    EXPECT_EQ(0, partner.join());
    EXPECT_EQ(2 * ROUNDS, this->m_shared->turn);
}

TYPED_TEST(Conditions, latestDeadlinesWaitForTheSignal) {
    for (long long const late :
         {TimePoint::MAX.getCount(), TimePoint::MAX.getCount() - 1, TimePoint::now().getCount() + 60000}) {
        SharedObject<TypeParam> const shared;
        typename TypeParam::Partner waiter([&shared, late] {
            typename TypeParam::Lock const lock(shared->mutex);
            shared->ready = true;
            while (shared->turn == 0) {
                ASSERT_EQ(0, shared->to_partner.waitTimeout(shared->mutex, AbsTimeT(late)));
            }
        });
        await(shared->ready);
        waiter.awaitSleep();
        {
            typename TypeParam::Lock const lock(shared->mutex);
            shared->turn = 1;
            EXPECT_FALSE(shared->to_partner.signal());
        }
        EXPECT_EQ(0, waiter.join());
    }
}

TYPED_TEST(Conditions, clearedFlagOfTheDeadlineIsIgnoredAndOneInThePastTimesOutAtOnce) {
    typename TypeParam::Lock const lock(this->m_mutex);
    auto const start = TimePoint::now();
    for (long long const past :
         {start.getCount() - 1, start.getCount() - 86400000, 1LL, 0LL, -1LL,
          std::numeric_limits<long long>::min()}) {
        AbsTimeT deadline(past);
        EXPECT_EQ(1, this->m_condition.waitTimeout(this->m_mutex, deadline)) << past;
        deadline.good = 0;
        EXPECT_EQ(1, this->m_condition.waitTimeout(this->m_mutex, deadline)) << past;
    }
    EXPECT_LT((TimePoint::now() - start).getCount(), 30000);
}

TYPED_TEST(Conditions, deadlineIsWaitedForOnTheMonotonicClock) {
    typename TypeParam::Lock const lock(this->m_mutex);
    AbsTimeT const deadline = inMs(30);
    signed char result = 0;
    do {
        result = this->m_condition.waitTimeout(this->m_mutex, deadline);
    } while (result == 0);
    EXPECT_EQ(1, result);
    EXPECT_GE(TimePoint::now().getCount(), deadline.value);
}

TYPED_TEST(Conditions, timedOutWaiterReturnsWithTheMutexThoughItWasHeldElsewhereForAWhile) {
    TypeParam& shared = *this->m_shared;
    typename TypeParam::Partner waiter([&shared] {
        typename TypeParam::Lock const lock(shared.mutex);
        shared.ready = true;
        do { // The time may expire before the test has the mutex.
            AbsTimeT const deadline = inMs(20);
            signed char result = 0;
            do {
                result = shared.to_partner.waitTimeout(shared.mutex, deadline);
            } while (result == 0);
            EXPECT_EQ(1, result);
        } while (!shared.held);
        EXPECT_TRUE(shared.go) << "it has the mutex again when it returns";
    });
    await(shared.ready);
    {
        typename TypeParam::Lock const lock(shared.mutex);
        shared.held = true;
        long long const end = inMs(40).value;
        while (TimePoint::now().getCount() < end) {
            sched_yield();
        }
        shared.go = true;
    }
    EXPECT_EQ(0, waiter.join());
}

TYPED_TEST(Conditions, signalWithoutAWaiterDoesNothing) {
    EXPECT_FALSE(this->m_condition.signal());
    typename TypeParam::Lock const lock(this->m_mutex);
    EXPECT_EQ(1, this->m_condition.waitTimeout(this->m_mutex, inMs(-1))) << "the signal is not kept";
}

// ---- creation and destruction ----

TEST(Condition, firstWaitCreatesItOnceOnTheMonotonicClockAndSignalsBeforeItMakeNoSystemCall) {
    Mutex mutex;
    for (int const waits : {0, 2}) {
        t_clock = -1;
        Fault const made(inject_pthread_cond_init, 0);
        Fault const signaled(inject_pthread_cond_signal, EINVAL, 1, Fault::FOREVER);
        Fault const destroyed(inject_pthread_cond_destroy, 0);
        {
            Condition condition;
            EXPECT_FALSE(condition.signal());
            EXPECT_FALSE(condition.signal());
            EXPECT_EQ(0, made.getCalls());
            MutexLock const lock(mutex);
            for (int i = 0; i < waits; ++i) {
                EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
            }
        }
        EXPECT_EQ(waits == 0 ? 0 : 1, made.getCalls());
        EXPECT_EQ(0, signaled.getCalls());
        EXPECT_EQ(waits == 0 ? 0 : 1, destroyed.getCalls());
        EXPECT_EQ(waits == 0 ? -1 : CLOCK_MONOTONIC, t_clock);
    }
}

TEST(Condition, creationThatFailsEndsTheProcess) {
    for (Injected* const function : {&inject_pthread_condattr_setclock, &inject_pthread_cond_init}) {
        std::string const text = "error creating condition (errno = " + std::to_string(EINVAL);
        EXPECT_TRUE(abortsWith(text, [function] {
            Mutex mutex;
            Condition condition;
            MutexLock const lock(mutex);
            Fault const fault(*function, EINVAL);
            condition.waitTimeout(mutex, inMs(-1));
        }));
    }
}

TEST(ShmCondition, isForProcessesAndOnTheMonotonicClock) {
    t_clock = t_shared = -1;
    ShmCondition const condition;
    EXPECT_TRUE(condition.isValid());
    EXPECT_EQ(CLOCK_MONOTONIC, t_clock);
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, t_shared);
}

TEST(ShmCondition, isInvalidAndNotDestroyedIfCreationFails) {
    struct {
        Injected* function;
        int error;
        SysErrorId::Id id;
    } const rows[] = {
        {&inject_pthread_condattr_setclock, EINVAL, SPOILED},
        {&inject_pthread_condattr_setpshared, ENOTSUP, SysErrorId::UNCLASSIFIED},
        {&inject_pthread_cond_init, ENOMEM, SysErrorId::OUT_OF_MEMORY},
    };
    for (auto const& row : rows) {
        Fault const destroyed(inject_pthread_cond_destroy, 0);
        EXPECT_FALSE(failOnce(*row.function, row.error, [] { return ShmCondition().isValid(); }));
        EXPECT_TRUE(chainIs(withErrno({row.id, ShmCondition::ErrorId::CREATE_FAILED}, row.error)));
        EXPECT_EQ(0, destroyed.getCalls());
    }
}

TEST(ShmCondition, failedDestructionLeavesItsReport) {
    for (int const error : {EBUSY, EINVAL, EPERM}) {
        EXPECT_TRUE(failOnce(inject_pthread_cond_destroy, error, [] { return ShmCondition().isValid(); }));
        EXPECT_TRUE(causeIs(error == EPERM ? SysErrorId::UNCLASSIFIED : SPOILED, error));
    }
}

// ---- waiting ----

TEST(Condition, eachSignalLetsAWaiterThrough) {
    constexpr int WAITERS = 4;
    Mutex mutex;
    Condition condition;
    int tokens = 0;
    int served = 0;
    runInThreads(2 * WAITERS, [&](int i) {
        if (i < WAITERS) {
            MutexLock const lock(mutex);
            while (tokens == 0) {
                ASSERT_FALSE(condition.wait(mutex));
            }
            --tokens;
            ++served;
        } else {
            {
                MutexLock const lock(mutex);
                ++tokens;
            }
            EXPECT_FALSE(condition.signal()) << "the caller need not hold the mutex";
        }
    });
    EXPECT_EQ(WAITERS, served);
}

TEST(Condition, waiterOccupiesNeitherTheMutexNorTheCondition) {
    OfThreads shared;
    std::thread waiter([&] {
        MutexLock const lock(shared.mutex);
        shared.ready = true;
        while (shared.turn == 0) {
            ASSERT_FALSE(shared.to_partner.wait(shared.mutex));
        }
    });
    await(shared.ready);
    {
        MutexLock const lock(shared.mutex);
        EXPECT_EQ(1, shared.to_partner.waitTimeout(shared.mutex, inMs(1))) << "a second one may wait";
        shared.turn = 1;
        EXPECT_FALSE(shared.mutex.unlock()) << "the lock checks its owner";
        EXPECT_FALSE(shared.mutex.lock());
    }
    EXPECT_FALSE(shared.to_partner.signal());
    waiter.join();
}

// ---- two mutexes ----

testing::AssertionResult isRefused() {
    return chainIs({{SPOILED, rowText(SPOILED, "Using Condition with different Mutexes")}});
}

/// Returns the report that shows a raw result instead of the text of an error.
ExpectedReport rawResult(SysErrorId::Id id, int result) {
    return {id, rowText(id, std::to_string(result))};
}

TEST(Condition, otherMutexIsRefusedAndTheFirstBindingStays) {
    Mutex first;
    Mutex second;
    Condition condition;
    bool ready = false;
    std::atomic<bool> bound{false};
    std::thread waiter([&] {
        MutexLock const lock(first);
        condition.waitTimeout(first, inMs(-1));
        bound = true;
        while (!ready) {
            ASSERT_FALSE(condition.wait(first));
        }
    });
    await(bound);
    ASSERT_FALSE(second.lock());
    leaveOlderReport();
    EXPECT_TRUE(condition.wait(second));
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(-1, condition.waitTimeout(second, inMs(60000)));
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(1, Condition().waitTimeout(second, inMs(-1))) << "it works with another condition";
    EXPECT_FALSE(second.unlock()) << "the caller holds its mutex still";
    {
        MutexLock const lock(first);
        EXPECT_EQ(1, condition.waitTimeout(first, inMs(-1))) << "the first mutex works on";
        ready = true;
    }
    EXPECT_FALSE(condition.signal());
    waiter.join();
}

// ---- failures of the system ----

TEST(Condition, waitWithoutTheMutexFails) {
    Mutex mutex;
    Condition condition;
    EXPECT_TRUE(condition.wait(mutex));
    EXPECT_TRUE(chainIs({rawResult(SPOILED, threadsafe::ConditionBase::ERROR_INCONSISTENCY)}));
    EXPECT_EQ(-1, condition.waitTimeout(mutex, inMs(60000)));
    EXPECT_TRUE(chainIs({rawResult(SPOILED, threadsafe::ConditionBase::ERROR_INCONSISTENCY)}));
    MutexLock const lock(mutex);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1))) << "it is bound all the same";
}

TEST(ShmCondition, waitWithoutTheMutexFailsIfTheMutexKnowsItsOwner) {
    ShmMutex mutex(true);
    ShmCondition condition;
    auto const expected = withErrno({SPOILED, ShmCondition::ErrorId::WAIT_FAILED}, EPERM);
    EXPECT_TRUE(condition.wait(mutex));
    EXPECT_TRUE(chainIs(expected));
    EXPECT_EQ(-1, condition.waitTimeout(mutex, inMs(60000)));
    EXPECT_TRUE(chainIs(expected));
}

struct Row {
    char const* name;
    std::vector<int> errors;
    SysErrorId::Id id;
    std::optional<int> argument =
        {}; ///< What the text shows of a condition's failure instead of the error number.
    int error = 0;
};

/// Checks that the operation of a row fails, the call below which fails, with the mutex locked.
template <typename T>
void expectFailure(T& shared, Row const& row) {
    std::string const operation = row.name;
    auto& condition = shared.to_test;
    typename T::Lock const lock(shared.mutex);
    EXPECT_TRUE(operation != "signal" || condition.waitTimeout(shared.mutex, inMs(-1)) == 1); // Creates it.
    leaveOlderReport();
    Fault const wait(inject_pthread_cond_wait, row.error);
    Fault const timed_wait(inject_pthread_cond_timedwait, row.error);
    Fault const signal(inject_pthread_cond_signal, row.error);
    int const result = operation == "wait" ? (condition.wait(shared.mutex) ? -1 : 0)
        : operation == "timedWait"         ? condition.waitTimeout(shared.mutex, inMs(60000))
                                           : (condition.signal() ? -1 : 0);
    EXPECT_EQ(-1, result);
}

auto const ROWS = eachErrno<Row>({
    {"wait", {EINVAL, EPERM}, SPOILED, -1},
    {"wait", {ENOTRECOVERABLE, EAGAIN}, SPOILED},
    {"wait", {ETIMEDOUT}, SPOILED, 1}, // Without a deadline a timeout is a failure.
    {"timedWait", {EINVAL, EPERM}, SPOILED, -1},
    {"timedWait", {ENOTRECOVERABLE, EAGAIN}, SPOILED},
    {"signal", {EINVAL, EPERM}, SPOILED, -1},
    {"signal", {EAGAIN, ENOTRECOVERABLE}, SysErrorId::UNCLASSIFIED},
});

VESK_TEST_TABLE(ConditionRows, reportTheRawResult, testing::Test, ROWS) {
    OfThreads shared;
    expectFailure(shared, GetParam());
    EXPECT_TRUE(chainIs({rawResult(GetParam().id, GetParam().argument.value_or(GetParam().error))}));
    EXPECT_FALSE(shared.to_test.signal()) << "the internal lock is free again";
}

auto const SHM_ROWS = eachErrno<Row>({
    {"wait", {EINVAL, EPERM}, SPOILED},
    {"wait", {ENOTRECOVERABLE}, SysErrorId::UNCLASSIFIED},
    {"timedWait", {EINVAL, EPERM}, SPOILED},
    {"timedWait", {ENOTRECOVERABLE}, SysErrorId::UNCLASSIFIED},
    {"signal", {EINVAL}, SPOILED},
    {"signal", {EPERM}, SysErrorId::UNCLASSIFIED},
});

VESK_TEST_TABLE(ShmConditionRows, reportTheCauseAndTheOperation, testing::Test, SHM_ROWS) {
    OfProcesses shared;
    expectFailure(shared, GetParam());
    bool const signals = GetParam().name == std::string("signal");
    auto const operation =
        signals ? ShmCondition::ErrorId::SIGNAL_FAILED : ShmCondition::ErrorId::WAIT_FAILED;
    EXPECT_TRUE(chainIs(withErrno({GetParam().id, operation}, GetParam().error)));
}

TEST(ShmCondition, outlivesAProcessThatIsKilledWithoutWaiting) {
    constexpr int ROUNDS = 10;
    SharedObject<OfProcesses> const shared;
    Process first([&shared] {
        shared->takeTurns(ROUNDS);
        shared->ready = true;
        await(shared->go);
    });
    shared->giveTurns(ROUNDS);
    await(shared->ready);
    first.kill();
    Process second([&shared] { shared->takeTurns(ROUNDS); });
    shared->giveTurns(ROUNDS);
    EXPECT_EQ(0, second.join());
    EXPECT_EQ(4 * ROUNDS, shared->turn);
}

// ---- failures of the internal lock ----

/// Checks the events of an operation in which the first call of `function` fails, with the abort suppressed. The recorder takes
/// its own lock later, so the fault does not reach it.
template <typename Operation>
void expectAborts(Injected& function, std::string const& name, Operation&& operation) {
    std::string const place = "ABORT framework/src/vesk/posix/Condition " + name + ": ";
    // An operation that continues without the lock has nothing to unlock.
    bool const locks = &function == &inject_pthread_mutex_lock;
    EventRecorder recorder;
    {
        Fault const fault(function, EINVAL);
        operation();
    }
    EXPECT_EQ((locks ? place + "error locking\n" : "") + place + "error unlocking", recorder.getText());
}

TEST(ConditionInternalLock, failedLockOrUnlockAbortsInTheNameOfTheOperation) {
    for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
        Mutex mutex;
        Condition timed;
        std::optional<Condition> condition(std::in_place);
        ASSERT_FALSE(mutex.lock());
        expectAborts(*function, "waitTimeout", [&] { EXPECT_EQ(1, timed.waitTimeout(mutex, inMs(-1))); });
        expectAborts(*function, "wait", [&] {
            Fault const fault(inject_pthread_cond_wait, ENOTRECOVERABLE);
            EXPECT_TRUE(condition->wait(mutex));
        });
        expectAborts(*function, "~Condition", [&] { condition.reset(); });
        EXPECT_FALSE(mutex.unlock());
        std::ErrorStorage::ack();
    }
}

TEST(ConditionInternalLock, isNotTakenOnceTheConditionIsBound) {
    Mutex mutex;
    Condition condition;
    MutexLock const lock(mutex);
    ASSERT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
    Fault const locks(inject_pthread_mutex_lock, 0);
    EXPECT_EQ(1, condition.waitTimeout(mutex, inMs(-1)));
    EXPECT_FALSE(condition.signal());
    EXPECT_EQ(0, locks.getCalls());
}

TEST(ConditionInternalLock, failureEndsTheProcess) {
    for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
        auto const wait = [function] {
            Mutex mutex;
            Condition condition;
            MutexLock const lock(mutex);
            Fault const fault(*function, EINVAL);
            condition.waitTimeout(mutex, inMs(-1));
        };
        bool const locks = function == &inject_pthread_mutex_lock;
        EXPECT_TRUE(abortsWith(locks ? "error locking" : "error unlocking", wait));
        EXPECT_TRUE(abortsWith("waitTimeout", wait));
    }
}

} // namespace
