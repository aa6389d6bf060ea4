#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Processes.h"
#include "support/VtableSlot.h"
#include "support/calls/SemaphoreCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <vesk/SemaphoreClient.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <limits>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::getSlot;
using support::Injected;
using support::Process;
using support::rowText;
using support::s_semaphore_calls;
using support::SemaphoreName;
using support::systemText;
using vesk::Creatable;
using vesk::SemaphoreBase;
using vesk::SemaphoreClient;
using vesk::SemaphoreCreator;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using Clock = std::chrono::steady_clock;

static_assert(!std::is_copy_constructible_v<SemaphoreClient> && std::has_virtual_destructor_v<SemaphoreBase>);
static_assert(sizeof(SemaphoreClient) == 2 * sizeof(void*));

ExpectedReport reported(int id, int error) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

ExpectedReport misuse(char const* text) {
    return {
        std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
        rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}

class SemaphoreBaseTest : public testing::Test {
protected:
    void SetUp() override { open(0); }

    void open(unsigned int value) {
        ASSERT_FALSE(m_semaphore.create(m_name, value, Creatable::REPLACE));
        s_semaphore_calls.deadlines.clear();
    }

    SemaphoreName m_name;
    SemaphoreCreator m_semaphore;
};

/// The three ways to take, as a number that is 0 when it is taken.
struct Way {
    char const* name;
    Injected* call;
    int (*take)(SemaphoreBase const&);
    char const* misuse;
};

void PrintTo(Way const& way, std::ostream* out) {
    *out << way.name;
}

Way const WAYS[] = {
    {"take", &inject_sem_wait, [](SemaphoreBase const& semaphore) { return semaphore.take() ? -1 : 0; },
     "__FUNCTION__ was called on invalid semaphore"},
    {"tryTake", &inject_sem_trywait,
     [](SemaphoreBase const& semaphore) { return static_cast<int>(semaphore.tryTake()); },
     "__FUNCTION__ was called on invalid semaphore"},
    {"tryTakeTimeout", &inject_sem_timedwait,
     [](SemaphoreBase const& semaphore) { return static_cast<int>(semaphore.tryTakeTimeout(60000)); },
     "__FUNTION__ was called on invalid semaphore"},
};

class SemaphoreBaseWays : public SemaphoreBaseTest, public testing::WithParamInterface<Way> {
protected:
    int take() { return GetParam().take(m_semaphore); }
};

TEST_P(SemaphoreBaseWays, decreaseAValueAbove0) {
    open(2);
    EXPECT_EQ(0, take());
    EXPECT_EQ(1, m_name.getValue());
    EXPECT_EQ(0, take());
    EXPECT_EQ(0, m_name.getValue());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(SemaphoreBaseWays, closedObjectIsRefusedWithoutACall) {
    SemaphoreClient const closed;
    Fault const calls(*GetParam().call, 0);
    Fault const clock(inject_clock_gettime, EINVAL);
    EXPECT_EQ(-1, GetParam().take(closed));
    EXPECT_TRUE(chainIs({misuse(GetParam().misuse)}));
    EXPECT_EQ(0, calls.getCalls());
}

TEST_P(SemaphoreBaseWays, areRepeatedWhenASignalInterrupts) {
    open(1);
    Fault const fault(*GetParam().call, EINTR, 1, 2);
    EXPECT_EQ(0, take());
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_EQ(0, m_name.getValue());
    EXPECT_TRUE(chainIs({}));
}

TEST_P(SemaphoreBaseWays, endWithoutFailureWhenTheObjectWasClosedMeanwhile) {
    open(1);
    s_semaphore_calls.on_wait = [this] { EXPECT_FALSE(m_semaphore.close()); };
    EXPECT_EQ(0, take());
    EXPECT_FALSE(m_semaphore.isValid());
    EXPECT_EQ(1, m_name.getValue()) << "nothing was taken";
    EXPECT_TRUE(chainIs({}));
}

TEST_P(SemaphoreBaseWays, otherFailuresAreReported) {
    open(1);
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    for (int const error : {EINVAL, EIO, EOVERFLOW}) {
        Fault const fault(*GetParam().call, error);
        EXPECT_EQ(-1, take());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({reported(10, error)}));
    }
    EXPECT_EQ(1, m_name.getValue());
}

INSTANTIATE_TEST_SUITE_P(All, SemaphoreBaseWays, testing::ValuesIn(WAYS));

// ---- answers that are no failures ----

TEST_F(SemaphoreBaseTest, tryTakeAnswersBusyWithoutAReport) {
    EXPECT_EQ(1, m_semaphore.tryTake());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(0, m_name.getValue());
}

TEST_F(SemaphoreBaseTest, tryTakeTimeoutTimesOutWithoutAReport) {
    auto const begin = Clock::now();
    EXPECT_EQ(1, m_semaphore.tryTakeTimeout(30));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(29));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreBaseTest, tryTakeTimeoutOf0OrLessDoesNotWait) {
    for (long long const ms : {0LL, -1LL, -1500LL, std::numeric_limits<long long>::min()}) {
        EXPECT_EQ(1, m_semaphore.tryTakeTimeout(ms)) << ms;
    }
    for (long long const ms : {0LL, -1LL, -1500LL, std::numeric_limits<long long>::min()}) {
        EXPECT_FALSE(m_semaphore.release());
        EXPECT_EQ(0, m_semaphore.tryTakeTimeout(ms)) << ms << ": what is there is taken";
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreBaseTest, busyOfTryTakeIsAFailureOfTheOthers) {
    {
        Fault const fault(inject_sem_wait, EAGAIN);
        EXPECT_TRUE(m_semaphore.take());
    }
    EXPECT_TRUE(chainIs({reported(10, EAGAIN)}));
    {
        Fault const fault(inject_sem_timedwait, EAGAIN);
        EXPECT_EQ(-1, m_semaphore.tryTakeTimeout(0));
    }
    EXPECT_TRUE(chainIs({reported(10, EAGAIN)}));
    {
        Fault const fault(inject_sem_trywait, ETIMEDOUT);
        EXPECT_EQ(-1, m_semaphore.tryTake());
    }
    EXPECT_TRUE(chainIs({reported(10, ETIMEDOUT)}));
}

// ---- the deadline ----

TEST_F(SemaphoreBaseTest, deadlineIsOnTheWallClockAndStaysTheSameWhenSignalsInterrupt) {
    timespec before{};
    ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &before));
    open(1);
    Fault const fault(inject_sem_timedwait, EINTR, 1, 2);
    EXPECT_EQ(0, m_semaphore.tryTakeTimeout(3600999));
    ASSERT_EQ(3U, s_semaphore_calls.deadlines.size());
    timespec const first = s_semaphore_calls.deadlines[0];
    for (timespec const& deadline : s_semaphore_calls.deadlines) {
        EXPECT_EQ(first.tv_sec, deadline.tv_sec);
        EXPECT_EQ(first.tv_nsec, deadline.tv_nsec);
    }
    long long const waited = (static_cast<long long>(first.tv_sec) - before.tv_sec) * 1000 +
        (first.tv_nsec - before.tv_nsec) / 1000000;
    EXPECT_GE(waited, 3600999);
    EXPECT_LE(waited, 3600999 + 60000);
    EXPECT_TRUE(first.tv_nsec >= 0 && first.tv_nsec < 1000000000);
}

TEST_F(SemaphoreBaseTest, clockThatCannotBeReadIsReported) {
    open(1);
    {
        Fault const fault(inject_clock_gettime, EPERM);
        EXPECT_EQ(-1, m_semaphore.tryTakeTimeout(1000));
    }
    EXPECT_TRUE(chainIs({reported(19, EPERM)}));
    EXPECT_EQ(1, m_name.getValue());
}

// ---- release ----

TEST_F(SemaphoreBaseTest, releaseIncreasesTheValue) {
    EXPECT_FALSE(m_semaphore.release());
    EXPECT_FALSE(m_semaphore.release());
    EXPECT_EQ(2, m_name.getValue());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreBaseTest, releaseOfAClosedObjectIsRefused) {
    SemaphoreClient const closed;
    Fault const posts(inject_sem_post, 0);
    EXPECT_TRUE(closed.release());
    EXPECT_TRUE(chainIs({misuse("__FUNCTION__ was called on invalid semaphore")}));
    EXPECT_EQ(0, posts.getCalls());
}

TEST_F(SemaphoreBaseTest, releaseAtTheHighestValueExhaustsTheSystem) {
    open(SEM_VALUE_MAX);
    EXPECT_TRUE(m_semaphore.release());
    EXPECT_TRUE(chainIs({reported(0, EOVERFLOW)}));
    EXPECT_EQ(SEM_VALUE_MAX, m_name.getValue());
}

TEST_F(SemaphoreBaseTest, otherFailuresOfReleaseAreReported) {
    for (int const error : {EINVAL, EINTR, EAGAIN}) {
        Fault const fault(inject_sem_post, error);
        EXPECT_TRUE(m_semaphore.release());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({reported(10, error)}));
    }
}

// ---- close ----

TEST_F(SemaphoreBaseTest, closeIsTheSlotBehindTheDestructors) {
    EXPECT_EQ(2, getSlot(&SemaphoreBase::close));
}

TEST_F(SemaphoreBaseTest, closesAndClosesOnceOnly) {
    SemaphoreClient client;
    EXPECT_FALSE(client.isValid());
    ASSERT_FALSE(client.attach(m_name));
    EXPECT_TRUE(client.isValid());
    Fault const closes(inject_sem_close, 0);
    EXPECT_FALSE(client.close());
    EXPECT_FALSE(client.isValid());
    EXPECT_FALSE(client.close());
    EXPECT_EQ(1, closes.getCalls());
}

TEST_F(SemaphoreBaseTest, failedCloseClosesTheObjectAllTheSame) {
    SemaphoreClient client;
    ASSERT_FALSE(client.attach(m_name));
    {
        Fault const fault(inject_sem_close, EINTR);
        EXPECT_TRUE(client.close());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({reported(10, EINTR)}));
    EXPECT_FALSE(client.isValid());
    EXPECT_FALSE(client.close());
    // What the object could not do; the system counts how often a semaphore was opened.
    sem_t* const semaphore = sem_open(m_name.getSystemName().c_str(), 0);
    EXPECT_EQ(0, sem_close(semaphore));
    EXPECT_EQ(0, sem_close(semaphore));
}

TEST_F(SemaphoreBaseTest, destructorWarnsAboutAFailedCloseAndAcknowledgesIt) {
    EventRecorder const recorder;
    auto client = std::make_unique<SemaphoreClient>();
    ASSERT_FALSE(client->attach(m_name));
    {
        Fault const fault(inject_sem_close, EINVAL);
        client.reset();
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/SemaphoreBase ~SemaphoreBase: error closing semaphore!",
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
    sem_t* const semaphore = sem_open(m_name.getSystemName().c_str(), 0);
    EXPECT_EQ(0, sem_close(semaphore));
    EXPECT_EQ(0, sem_close(semaphore));
}

// ---- waiting ----

TEST_F(SemaphoreBaseTest, takeWaitsForAnotherProcess) {
    Process other([&] {
        SemaphoreClient client;
        EXPECT_FALSE(client.attach(m_name));
        support::waitUntilAsleep(getppid(), getppid());
        EXPECT_FALSE(client.release());
    });
    EXPECT_FALSE(m_semaphore.take());
    EXPECT_EQ(0, other.join());
    Process later([&] {
        SemaphoreClient client;
        EXPECT_FALSE(client.attach(m_name));
        support::waitUntilAsleep(getppid(), getppid());
        EXPECT_FALSE(client.release());
    });
    EXPECT_EQ(0, m_semaphore.tryTakeTimeout(60000));
    EXPECT_EQ(0, later.join());
    EXPECT_EQ(0, m_name.getValue());
}

TEST_F(SemaphoreBaseTest, signalsDoNotLengthenATimedWait) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
    std::atomic<bool> done{false};
    signed char result = -1;
    std::thread waiter([&] {
        result = m_semaphore.tryTakeTimeout(200);
        done = true;
    });
    auto const end = Clock::now() + std::chrono::seconds(30);
    while (!done && Clock::now() < end) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(done) << "it would wait as long as signals come";
    if (!done) {
        EXPECT_FALSE(m_semaphore.release());
    }
    waiter.join();
    EXPECT_EQ(1, result);
    EXPECT_EQ(0, sigaction(SIGUSR1, &previous, nullptr));
}

TEST_F(SemaphoreBaseTest, waiterThatASignalWakesSeesThatItsObjectWasClosed) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
    // The semaphore itself stays in the process with the fixture's object.
    SemaphoreClient client;
    ASSERT_FALSE(client.attach(m_name));
    std::atomic<bool> done{false};
    std::atomic<pid_t> id{0};
    bool failed = true;
    std::thread waiter([&] {
        id = static_cast<pid_t>(syscall(SYS_gettid));
        failed = client.take();
        EXPECT_TRUE(chainIs({}));
        done = true;
    });
    while (id == 0) {
        std::this_thread::yield();
    }
    support::waitUntilAsleep(getpid(), id);
    EXPECT_FALSE(client.close());
    auto const end = Clock::now() + std::chrono::seconds(30);
    while (!done && Clock::now() < end) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(done);
    if (!done) {
        EXPECT_FALSE(m_semaphore.release());
    }
    waiter.join();
    EXPECT_FALSE(failed);
    EXPECT_EQ(0, m_name.getValue());
    EXPECT_EQ(0, sigaction(SIGUSR1, &previous, nullptr));
}

TEST_F(SemaphoreBaseTest, processesNeverHoldMoreThanThereIs) {
    constexpr int SLOTS = 2;
    open(SLOTS);
    support::SharedObject<std::atomic<int>> holders(0);
    {
        auto const work = [&] {
            SemaphoreClient client;
            EXPECT_FALSE(client.attach(m_name));
            for (int round = 0; round < 200; ++round) {
                int const result = round % 3 == 0 ? (client.take() ? -1 : 0)
                    : round % 3 == 1              ? client.tryTake()
                                                  : client.tryTakeTimeout(60000);
                EXPECT_NE(-1, result);
                if (result != 0) {
                    continue;
                }
                EXPECT_LE(++*holders, SLOTS);
                sched_yield();
                --*holders;
                EXPECT_FALSE(client.release());
            }
        };
        Process first(work);
        Process second(work);
        Process third(work);
        EXPECT_EQ(0, first.join());
        EXPECT_EQ(0, second.join());
        EXPECT_EQ(0, third.join());
    }
    EXPECT_EQ(SLOTS, m_name.getValue());
}

} // namespace
