#include "IpcSupport.h"
#include "support/Processes.h"

#include <chrono>
#include <limits>
#include <thread>

/// What the waiting calls of message queues and semaphores have in common.

namespace {

using namespace support;
using namespace vesk;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr long long FOREVER_MS = 60000;
constexpr long long LOWEST = std::numeric_limits<long long>::min();
constexpr long long HIGHEST = std::numeric_limits<long long>::max();

/// A queue with room for one message, and a semaphore.
struct Objects {
    int read(long long ms) {
        char buffer[16];
        MsgQueueBase::Message message{buffer, sizeof buffer, 0};
        return queue.readMsgTimeout(&message, ms);
    }
    int write(long long ms) {
        char text[] = "tea";
        MsgQueueBase::Message const message{text, 3, 0};
        return queue.writeMsgTimeout(&message, ms);
    }

    vesk::MsgQueueServer queue;
    vesk::SemaphoreCreator semaphore;
};

/// A call that waits: 0 is success, 1 a timeout. The initial state makes it wait.
struct Call {
    char const* name;
    IpcKind const* kind;
    Injected* call;
    int (*run)(Objects&, long long ms);
    void (*allow)(Objects&); ///< Lets one call succeed.
};

struct CallName {
    std::string operator()(testing::TestParamInfo<Call> const& info) const { return info.param.name; }
};

void allowRead(Objects& objects) {
    EXPECT_EQ(0, objects.write(0));
}
void allowWrite(Objects& objects) {
    EXPECT_EQ(0, objects.read(0));
}
void allowTake(Objects& objects) {
    EXPECT_FALSE(objects.semaphore.release());
}

Call const TIMED_CALLS[] = {
    {"timedRead", &QUEUE, &inject_mq_timedreceive, [](Objects& o, long long ms) { return o.read(ms); },
     allowRead},
    {"timedWrite", &QUEUE, &inject_mq_timedsend, [](Objects& o, long long ms) { return o.write(ms); },
     allowWrite},
    {"timedTake", &SEMAPHORE, &inject_sem_timedwait,
     [](Objects& o, long long ms) -> int { return o.semaphore.tryTakeTimeout(ms); }, allowTake},
};

Call const UNTIMED_CALLS[] = {
    {"read", &QUEUE, &inject_mq_receive,
     [](Objects& o, long long) {
         char buffer[16];
         MsgQueueBase::Message message{buffer, sizeof buffer, 0};
         return o.queue.readMsg(&message) ? -1 : 0;
     },
     allowRead},
    {"write", &QUEUE, &inject_mq_send,
     [](Objects& o, long long) {
         MsgQueueBase::Message const message{nullptr, 0, 0};
         return o.queue.writeMsg(&message) ? -1 : 0;
     },
     allowWrite},
    {"take", &SEMAPHORE, &inject_sem_wait, [](Objects& o, long long) { return o.semaphore.take() ? -1 : 0; },
     allowTake},
};

class IpcWait : public testing::TestWithParam<Call> {
protected:
    IpcWait() : m_name(*GetParam().kind) {}

    void SetUp() override {
        if (GetParam().kind == &SEMAPHORE) {
            ASSERT_FALSE(m_objects.semaphore.create(m_name, 0, Creatable::CREATE_NEW));
            return;
        }
        VESK_SKIP_WITHOUT_QUEUES();
        ASSERT_FALSE(m_objects.queue.create(m_name, 16, 1, Creatable::CREATE_NEW));
        if (GetParam().allow == allowWrite) {
            EXPECT_EQ(0, m_objects.write(0));
        }
        s_deadlines.clear();
    }

    int run(long long ms = FOREVER_MS) { return GetParam().run(m_objects, ms); }
    void allow() { GetParam().allow(m_objects); }

    IpcName m_name;
    Objects m_objects;
};

class IpcTimedWait : public IpcWait {};

INSTANTIATE_TEST_SUITE_P(Timed, IpcWait, testing::ValuesIn(TIMED_CALLS), CallName());
INSTANTIATE_TEST_SUITE_P(Untimed, IpcWait, testing::ValuesIn(UNTIMED_CALLS), CallName());
INSTANTIATE_TEST_SUITE_P(All, IpcTimedWait, testing::ValuesIn(TIMED_CALLS), CallName());

TEST_P(IpcWait, isEndedByAnotherProcess) {
    Process other([&] {
        waitUntilAsleep(getppid(), getppid());
        allow();
    });
    EXPECT_EQ(0, run());
    EXPECT_EQ(0, other.join());
}

TEST_P(IpcWait, isRepeatedIfASignalInterrupts) {
    allow();
    Fault const fault(*GetParam().call, EINTR, 1, 2);
    EXPECT_EQ(0, run());
    EXPECT_EQ(3, fault.getCalls());
}

TEST_P(IpcTimedWait, lastsForItsTimeoutOrEndsAtOnce) {
    auto begin = Clock::now();
    for (long long const ms : {0LL, -1LL, -999LL, -1500LL, LOWEST}) {
        EXPECT_EQ(1, run(ms)) << ms;
    }
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
    begin = Clock::now();
    EXPECT_EQ(1, run(30));
    EXPECT_GE(Clock::now() - begin, milliseconds(29));
    {
        Fault const fault(*GetParam().call, ETIMEDOUT);
        EXPECT_EQ(1, run());
    }
    EXPECT_TRUE(chainIs({})) << "a timeout is not reported";
    for (long long const ms : {LOWEST, -1500LL, -1LL, 0LL, HIGHEST}) {
        allow();
        EXPECT_EQ(0, run(ms)) << ms;
    }
}

TEST_P(IpcTimedWait, clockThatCannotBeReadIsReported) {
    allow();
    for (int const error : {EINVAL, EPERM}) {
        Fault const calls(*GetParam().call, 0);
        Fault const fault(inject_clock_gettime, error);
        EXPECT_EQ(-1, run());
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
        EXPECT_EQ(0, calls.getCalls());
    }
    EXPECT_EQ(0, run(0)) << "the failed calls have changed nothing";
}

TEST_P(IpcTimedWait, deadlineIsOnTheWallClockAndStaysTheSameIfSignalsInterrupt) {
    timespec before{};
    ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &before));
    allow();
    s_deadlines.clear();
    Fault const fault(*GetParam().call, EINTR, 1, 2);
    EXPECT_EQ(0, run(3600999));
    ASSERT_EQ(3U, s_deadlines.size());
    timespec const first = s_deadlines[0];
    for (timespec const& deadline : s_deadlines) {
        EXPECT_TRUE(deadline.tv_sec == first.tv_sec && deadline.tv_nsec == first.tv_nsec);
    }
    long long const ms = (static_cast<long long>(first.tv_sec) - before.tv_sec) * 1000 +
        (first.tv_nsec - before.tv_nsec) / 1000000;
    EXPECT_GE(ms, 3600999);
    EXPECT_LE(ms, 3600999 + 60000);
    EXPECT_TRUE(first.tv_nsec >= 0 && first.tv_nsec < 1000000000);
}

TEST_P(IpcTimedWait, isNotExtendedBySignals) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
    std::atomic<bool> done{false};
    int result = -1;
    std::thread waiter([&] {
        result = run(200);
        done = true;
    });
    auto const end = Clock::now() + std::chrono::seconds(30);
    while (!done && Clock::now() < end) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_TRUE(done) << "it would wait as long as signals arrive";
    if (!done) {
        allow();
    }
    waiter.join();
    EXPECT_EQ(1, result);
    EXPECT_EQ(0, sigaction(SIGUSR1, &previous, nullptr));
}

} // namespace
