#include "support/Child.h"
#include "support/CleanEnd.h"
#include "support/ErrnoRows.h"
#include "support/FailOnce.h"
#include "support/Processes.h"
#include "support/RunInThreads.h"
#include "support/UnlockFault.h"

#include <vesk/Condition.h>
#include <vesk/ShmCondition.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/threadsafe/ConditionImpl.h>

#include <limits>
#include <optional>
#include <thread>

namespace {

std::atomic<int> g_clock{-1};
std::atomic<int> g_shared{-1};

int note(std::atomic<int>& to, int value) {
    to = value;
    return value;
}

} // namespace

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_condattr_setclock, (pthread_condattr_t * a, clockid_t c), (a, note(g_clock, c)))
VESK_INJECT_RESULT(pthread_condattr_setpshared, (pthread_condattr_t * a, int s), (a, note(g_shared, s)))
VESK_INJECT_RESULT(pthread_cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))
VESK_INJECT_RESULT(pthread_cond_destroy, (pthread_cond_t * c), (c))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))

namespace {

using namespace support;
using tarnbase::Duration;
using tarnbase::TimePoint;
using vesk::AbsTimeT;
using vesk::Condition;
using vesk::Mutex;
using vesk::MutexLock;
using vesk::ShmCondition;
using vesk::ShmMutex;
using vesk::ShmMutexLock;
namespace SysErrorId = vesk::SysErrorId;

constexpr auto SPOILED = SysErrorId::SPOILED_INTEGRITY;

AbsTimeT inMs(long long ms) {
    return AbsTimeT((TimePoint::now() + Duration(ms)).getCount());
}

void await(std::atomic<bool> const& flag) {
    while (!flag) {
        sched_yield();
    }
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
struct ThreadPartner {
    template <typename Body>
    explicit ThreadPartner(Body body)
        : thread([this, body] {
              id = gettid();
              body();
          }) {}
    int join() {
        thread.join();
        return 0;
    }
    void awaitSleep() const {
        while (id == 0) {
            sched_yield();
        }
        waitUntilAsleep(getpid(), id);
    }

    std::atomic<pid_t> id{0};
    std::thread thread;
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

struct ClassName {
    template <typename T>
    static std::string GetName(int i) {
        return i == 0 ? "Condition" : "ShmCondition";
    }
};
using BothClasses = testing::Types<OfThreads, OfProcesses>;
TYPED_TEST_SUITE(Conditions, BothClasses, ClassName);

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
        AbsTimeT const deadline = inMs(20);
        signed char result = 0;
        do {
            result = shared.to_partner.waitTimeout(shared.mutex, deadline);
        } while (result == 0);
        EXPECT_EQ(1, result);
        EXPECT_TRUE(shared.go) << "it has the mutex again when it returns";
    });
    await(shared.ready);
    {
        typename TypeParam::Lock const lock(shared.mutex);
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
        g_clock = -1;
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
        EXPECT_EQ(waits == 0 ? -1 : CLOCK_MONOTONIC, g_clock);
    }
}

TEST(Condition, creationThatFailsEndsTheProcess) {
    for (Injected* const function : {&inject_pthread_condattr_setclock, &inject_pthread_cond_init}) {
        ChildEnd const end = runInChild([function] {
            std::GlobalErrorHandler::setHook(nullptr);
            Mutex mutex;
            Condition condition;
            MutexLock const lock(mutex);
            Fault const fault(*function, EINVAL);
            condition.waitTimeout(mutex, inMs(-1));
        });
        EXPECT_EQ(SIGABRT, end.signal);
        EXPECT_NE(
            std::string::npos, end.errors.find("error creating condition (errno = " + std::to_string(EINVAL)))
            << end.errors;
    }
}

TEST(ShmCondition, isForProcessesAndOnTheMonotonicClock) {
    g_clock = g_shared = -1;
    ShmCondition const condition;
    EXPECT_TRUE(condition.isValid());
    EXPECT_EQ(CLOCK_MONOTONIC, g_clock);
    EXPECT_EQ(PTHREAD_PROCESS_SHARED, g_shared);
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

constexpr int ITSELF = 0;

struct Row {
    char const* name;
    std::vector<int> errors;
    SysErrorId::Id id;
    int argument; ///< What the text shows of a condition's failure; `ITSELF` is the error number.
    int error = 0;
};

/// The failures of `T`, which holds its mutex for each of them.
template <typename T>
class FailingCondition : public testing::TestWithParam<Row> {
protected:
    /// Runs the operation of the row, the call below which fails. Returns its result.
    int run() {
        std::string const operation = GetParam().name;
        int const error = GetParam().error;
        auto& condition = m_shared.to_test;
        typename T::Lock const lock(m_shared.mutex);
        EXPECT_TRUE(
            operation != "signal" || condition.waitTimeout(m_shared.mutex, inMs(-1)) == 1); // Creates it.
        leaveOlderReport();
        Fault const wait(inject_pthread_cond_wait, error);
        Fault const timed_wait(inject_pthread_cond_timedwait, error);
        Fault const signal(inject_pthread_cond_signal, error);
        return operation == "wait"     ? (condition.wait(m_shared.mutex) ? -1 : 0)
            : operation == "timedWait" ? condition.waitTimeout(m_shared.mutex, inMs(60000))
                                       : (condition.signal() ? -1 : 0);
    }

    T m_shared;
};

class ConditionRows : public FailingCondition<OfThreads> {};

TEST_P(ConditionRows, reportTheRawResult) {
    Row const& row = GetParam();
    EXPECT_EQ(-1, run());
    EXPECT_TRUE(chainIs({rawResult(row.id, row.argument == ITSELF ? row.error : row.argument)}));
    EXPECT_FALSE(m_shared.to_test.signal()) << "the internal lock is free again";
}

INSTANTIATE_TEST_SUITE_P(
    All, ConditionRows,
    testing::ValuesIn(eachErrno<Row>({
        {"wait", {EINVAL, EPERM}, SPOILED, -1},
        {"wait", {ENOTRECOVERABLE, EAGAIN}, SPOILED, ITSELF},
        {"wait", {ETIMEDOUT}, SPOILED, 1}, // Without a deadline a timeout is a failure.
        {"timedWait", {EINVAL, EPERM}, SPOILED, -1},
        {"timedWait", {ENOTRECOVERABLE, EAGAIN}, SPOILED, ITSELF},
        {"signal", {EINVAL, EPERM}, SPOILED, -1},
        {"signal", {EAGAIN, ENOTRECOVERABLE}, SysErrorId::UNCLASSIFIED, ITSELF},
    })),
    ErrnoName());

class ShmConditionRows : public FailingCondition<OfProcesses> {};

TEST_P(ShmConditionRows, reportTheCauseAndTheOperation) {
    Row const& row = GetParam();
    EXPECT_EQ(-1, run());
    bool const signals = row.name == std::string("signal");
    auto const operation =
        signals ? ShmCondition::ErrorId::SIGNAL_FAILED : ShmCondition::ErrorId::WAIT_FAILED;
    EXPECT_TRUE(chainIs(withErrno({row.id, operation}, row.error)));
}

INSTANTIATE_TEST_SUITE_P(
    All, ShmConditionRows,
    testing::ValuesIn(eachErrno<Row>({
        {"wait", {EINVAL, EPERM}, SPOILED, ITSELF},
        {"wait", {ENOTRECOVERABLE}, SysErrorId::UNCLASSIFIED, ITSELF},
        {"timedWait", {EINVAL, EPERM}, SPOILED, ITSELF},
        {"timedWait", {ENOTRECOVERABLE}, SysErrorId::UNCLASSIFIED, ITSELF},
        {"signal", {EINVAL}, SPOILED, ITSELF},
        {"signal", {EPERM}, SysErrorId::UNCLASSIFIED, ITSELF},
    })),
    ErrnoName());

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
        ChildEnd const end = runInChild([function] {
            std::GlobalErrorHandler::setHook(nullptr);
            Mutex mutex;
            Condition condition;
            MutexLock const lock(mutex);
            Fault const fault(*function, EINVAL);
            condition.waitTimeout(mutex, inMs(-1));
        });
        EXPECT_EQ(SIGABRT, end.signal);
        char const* const text = function == &inject_pthread_mutex_lock ? "error locking" : "error unlocking";
        EXPECT_NE(std::string::npos, end.errors.find(text)) << end.errors;
        EXPECT_NE(std::string::npos, end.errors.find("waitTimeout")) << end.errors;
    }
}

} // namespace
