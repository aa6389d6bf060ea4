#include "IpcSupport.h"
#include "support/Processes.h"
#include "support/Threads.h"

#include <tarncommon/error/ErrorOutput.h>

#include <chrono>
#include <climits>
#include <thread>

namespace {

using namespace support;
using namespace vesk;

class SemaphoreTest : public testing::Test {
protected:
    void SetUp() override { create(0); }

    void create(unsigned int value) {
        ASSERT_FALSE(m_semaphore.create(m_name, value, Creatable::REPLACE));
        EXPECT_EQ(value, s_semaphore_value);
    }
    int getValue() const { return std::stoi(m_name.getState()); }

    IpcName m_name{SEMAPHORE};
    SemaphoreCreator m_semaphore;
    SemaphoreClient m_closed;
};

/// One of the three ways to take. The result 0 means that it was taken.
struct Way {
    char const* name;
    Injected* call;
    int (*take)(SemaphoreBase const&);
    char const* misuse;
};

Way const WAYS[] = {
    {"take", &inject_sem_wait, [](SemaphoreBase const& semaphore) { return semaphore.take() ? -1 : 0; },
     "__FUNCTION__ was called on invalid semaphore"},
    {"tryTake", &inject_sem_trywait,
     [](SemaphoreBase const& semaphore) -> int { return semaphore.tryTake(); },
     "__FUNCTION__ was called on invalid semaphore"},
    {"tryTakeTimeout", &inject_sem_timedwait,
     [](SemaphoreBase const& semaphore) -> int { return semaphore.tryTakeTimeout(60000); },
     "__FUNTION__ was called on invalid semaphore"},
};

class SemaphoreWays : public SemaphoreTest, public testing::WithParamInterface<Way> {
protected:
    int take() { return GetParam().take(m_semaphore); }
};

TEST_P(SemaphoreWays, decreaseAValueAbove0) {
    create(2);
    for (int const left : {1, 0}) {
        EXPECT_EQ(0, take());
        EXPECT_EQ(left, getValue());
    }
}

TEST_P(SemaphoreWays, refuseAClosedObjectWithoutACall) {
    Fault const calls(*GetParam().call, 0);
    Fault const clock(inject_clock_gettime, EINVAL);
    EXPECT_EQ(-1, GetParam().take(m_closed));
    EXPECT_TRUE(chainIs({reportOf(CommonErrorId::CONTRACT_BROKEN, GetParam().misuse)}));
    EXPECT_EQ(0, calls.getCalls());
}

TEST_P(SemaphoreWays, areRepeatedIfASignalInterrupts) {
    create(1);
    Fault const fault(*GetParam().call, EINTR, 1, 2);
    EXPECT_EQ(0, take());
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_EQ(0, getValue());
}

TEST_P(SemaphoreWays, endWithoutFailureIfTheObjectWasClosedMeanwhile) {
    create(1);
    s_on_semaphore_wait = [this] { EXPECT_FALSE(m_semaphore.close()); };
    EXPECT_EQ(0, take());
    EXPECT_FALSE(m_semaphore.isValid());
    EXPECT_EQ(1, getValue()) << "nothing was taken";
}

TEST_P(SemaphoreWays, reportOtherFailures) {
    create(1);
    // What means "not now" to one way is a failure of the others.
    int const foreign = GetParam().call == &inject_sem_trywait ? ETIMEDOUT : EAGAIN;
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    for (int const error : {EINVAL, EIO, EOVERFLOW, foreign}) {
        Fault const fault(*GetParam().call, error);
        EXPECT_EQ(-1, take());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, error));
    }
    EXPECT_EQ(1, getValue());
}

INSTANTIATE_TEST_SUITE_P(All, SemaphoreWays, testing::ValuesIn(WAYS), [](auto const& row) {
    return row.param.name;
});

// ---- release ----

TEST_F(SemaphoreTest, releaseOfAClosedObjectIsRefused) {
    Fault const posts(inject_sem_post, 0);
    EXPECT_TRUE(m_closed.release());
    EXPECT_TRUE(
        chainIs({reportOf(CommonErrorId::CONTRACT_BROKEN, "__FUNCTION__ was called on invalid semaphore")}));
    EXPECT_EQ(0, posts.getCalls());
}

TEST_F(SemaphoreTest, releaseIncreasesTheValueAndFailuresAreReported) {
    EXPECT_EQ(1, m_semaphore.tryTake());
    EXPECT_TRUE(chainIs({}));
    for (int const value : {1, 2}) {
        EXPECT_FALSE(m_semaphore.release());
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ(value, getValue());
    }
    for (int const error : {EINVAL, EINTR, EAGAIN}) {
        EXPECT_TRUE(failOnce(inject_sem_post, error, [this] { return m_semaphore.release(); }));
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, error));
    }
    create(SEM_VALUE_MAX);
    EXPECT_TRUE(m_semaphore.release());
    EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EOVERFLOW));
    EXPECT_EQ(SEM_VALUE_MAX, getValue());
}

// ---- creator and client ----

TEST_F(SemaphoreTest, valueAboveTheHighestIsRefused) {
    constexpr unsigned int HIGHEST = SEM_VALUE_MAX;
    EXPECT_FALSE(m_semaphore.deleteName());
    EXPECT_TRUE(m_semaphore.create(m_name, HIGHEST + 1, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs(
        reportsOf({EINVAL, SysErrorId::INVALID_PATH, FileAccessErrorId::BAD_PATH}, m_name.getSystemName())));
    EXPECT_FALSE(m_name.exists());
    EXPECT_FALSE(m_semaphore.create(m_name, HIGHEST, Creatable::CREATE_NEW));
    EXPECT_EQ(SEM_VALUE_MAX, getValue());
}

TEST_F(SemaphoreTest, clientAttachesToTheSemaphoreOfItsCreatorAndKeepsItWhenItIsReplaced) {
    create(2);
    SemaphoreClient client;
    EXPECT_FALSE(client.attach(m_name));
    EXPECT_EQ(m_name.getSystemName(), s_semaphore_open.name);
    EXPECT_EQ(0, s_semaphore_open.flags);
    EXPECT_FALSE(client.take());
    EXPECT_EQ(1, getValue());
    create(2);
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(client.take());
    EXPECT_EQ(2, getValue());
    EXPECT_FALSE(m_semaphore.deleteName());
    EXPECT_FALSE(m_semaphore.take()) << "a semaphore without a name stays usable";
}

// ---- concurrency ----

TEST_F(SemaphoreTest, waiterThatASignalWakesSeesThatItsObjectWasClosed) {
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
        id = getThreadId();
        failed = client.take();
        EXPECT_TRUE(chainIs({}));
        done = true;
    });
    while (id == 0) {
        std::this_thread::yield();
    }
    waitUntilAsleep(getpid(), id);
    EXPECT_FALSE(client.close());
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done && std::chrono::steady_clock::now() < end) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(done);
    if (!done) {
        EXPECT_FALSE(m_semaphore.release());
    }
    waiter.join();
    EXPECT_FALSE(failed);
    EXPECT_EQ(0, getValue());
    EXPECT_EQ(0, sigaction(SIGUSR1, &previous, nullptr));
}

TEST_F(SemaphoreTest, processesNeverTakeMoreThanTheValue) {
    constexpr int SLOTS = 2;
    create(SLOTS);
    SharedObject<std::atomic<int>> holders(0);
    {
        auto const work = [&] {
            SemaphoreClient client;
            EXPECT_FALSE(client.attach(m_name));
            for (size_t round = 0; round < 200; ++round) {
                int const result = WAYS[round % 3].take(client);
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
        Process processes[] = {Process(work), Process(work), Process(work)};
        for (Process& process : processes) {
            EXPECT_EQ(0, process.join());
        }
    }
    EXPECT_EQ(SLOTS, getValue());
}

} // namespace
