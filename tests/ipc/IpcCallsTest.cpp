#include "IpcSupport.h"
#include "support/Processes.h"
#include "support/Sleeper.h"

#include <chrono>
#include <limits>

/// What the calls of message queues and semaphores have in common: refusal, failure, interruption and waiting.

namespace {

using namespace support;
using namespace vesk;
using Clock = std::chrono::steady_clock;

constexpr unsigned int MSG_SIZE = 16;
constexpr long long FOREVER_MS = 60000;
constexpr long long LOWEST = std::numeric_limits<long long>::min();
constexpr long long HIGHEST = std::numeric_limits<long long>::max();

/// A queue with room for one message, and a semaphore.
struct Objects {
    MsgQueueServer queue;
    SemaphoreCreator semaphore;
    char buffer[MSG_SIZE + 1] = {};
    MsgQueueBase::Message message{buffer, MSG_SIZE, 0}; ///< That the calls read or write.
};

void allowRead(Objects& objects) {
    MsgQueueBase::Message const message{objects.buffer, 3, 0};
    EXPECT_EQ(0, objects.queue.writeMsgTimeout(&message, 0));
}
void allowWrite(Objects& objects) {
    MsgQueueBase::Message message{objects.buffer, MSG_SIZE, 0};
    EXPECT_EQ(0, objects.queue.readMsgTimeout(&message, 0));
}
void allowTake(Objects& objects) {
    EXPECT_FALSE(objects.semaphore.release());
}

enum class Effect { ATTRIBUTE, ATTEMPT, WAIT, TIMED_WAIT };

/// A call of a queue or a semaphore. The result 0 means success, and 1 also a timeout.
struct Call {
    char const* name;
    Effect effect;
    Injected* call;
    long long (*run)(Objects&, long long ms);
    void (*allow)(Objects&); ///< Lets one call succeed. The initial state makes it wait.
    long long failure;
    long long size_failure = failure; ///< The result if the size of the message is wrong.

    IpcKind const& getKind() const { return allow == allowTake ? SEMAPHORE : QUEUE; }
};

// A timed write that fails returns 1, as after a timeout.
Call const CALLS[] = {
    {"maxMsgSize", Effect::ATTRIBUTE, &inject_mq_getattr,
     [](Objects& o, long long) -> long long { return o.queue.maxMsgSize(); }, allowRead, 0},
    {"maxMsgCount", Effect::ATTRIBUTE, &inject_mq_getattr,
     [](Objects& o, long long) -> long long { return o.queue.maxMsgCount(); }, allowRead, 0},
    {"availMsgs", Effect::ATTRIBUTE, &inject_mq_getattr,
     [](Objects& o, long long) -> long long { return o.queue.availMsgs(); }, allowRead, 0},
    {"tryTake", Effect::ATTEMPT, &inject_sem_trywait,
     [](Objects& o, long long) -> long long { return o.semaphore.tryTake(); }, allowTake, -1},
    {"readMsg", Effect::WAIT, &inject_mq_receive,
     [](Objects& o, long long) -> long long { return o.queue.readMsg(&o.message); }, allowRead, 1},
    {"writeMsg", Effect::WAIT, &inject_mq_send,
     [](Objects& o, long long) -> long long { return o.queue.writeMsg(&o.message); }, allowWrite, 1},
    {"take", Effect::WAIT, &inject_sem_wait,
     [](Objects& o, long long) -> long long { return o.semaphore.take(); }, allowTake, 1},
    {"readMsgTimeout", Effect::TIMED_WAIT, &inject_mq_timedreceive,
     [](Objects& o, long long ms) -> long long { return o.queue.readMsgTimeout(&o.message, ms); }, allowRead,
     -1},
    {"writeMsgTimeout", Effect::TIMED_WAIT, &inject_mq_timedsend,
     [](Objects& o, long long ms) -> long long { return o.queue.writeMsgTimeout(&o.message, ms); },
     allowWrite, 1, -1},
    {"tryTakeTimeout", Effect::TIMED_WAIT, &inject_sem_timedwait,
     [](Objects& o, long long ms) -> long long { return o.semaphore.tryTakeTimeout(ms); }, allowTake, -1},
};

/// Returns the calls with this or a later effect, of one kind of objects if given.
auto callsFrom(Effect least, IpcKind const* kind = nullptr) {
    std::vector<Call> calls;
    std::copy_if(std::begin(CALLS), std::end(CALLS), std::back_inserter(calls), [&](Call const& call) {
        return call.effect >= least && (kind == nullptr || kind == &call.getKind());
    });
    return testing::ValuesIn(calls);
}

class IpcCall : public testing::TestWithParam<Call> {
protected:
    IpcCall() : m_name(GetParam().getKind()) {}

    void SetUp() override {
        if (GetParam().allow == allowTake) {
            ASSERT_FALSE(m_objects.semaphore.create(m_name, 0, Creatable::CREATE_NEW));
            return;
        }
        VESK_SKIP_WITHOUT_QUEUES();
        ASSERT_FALSE(m_objects.queue.create(m_name, MSG_SIZE, 1, Creatable::CREATE_NEW));
        if (GetParam().allow == allowWrite) {
            allowRead(m_objects);
        }
    }

    long long run(long long ms = FOREVER_MS) {
        m_objects.message.size = MSG_SIZE;
        return GetParam().run(m_objects, ms);
    }
    void allow() { GetParam().allow(m_objects); }

    IpcName m_name;
    Objects m_objects;
};

class IpcInterruption : public IpcCall {};
class IpcWait : public IpcCall {};
class IpcTimedWait : public IpcCall {};
class MsgQueueTransfer : public IpcCall {};
class SemaphoreWays : public IpcCall {};

INSTANTIATE_TEST_SUITE_P(All, IpcCall, callsFrom(Effect::ATTRIBUTE), RowName());
INSTANTIATE_TEST_SUITE_P(All, IpcInterruption, callsFrom(Effect::ATTEMPT), RowName());
INSTANTIATE_TEST_SUITE_P(All, IpcWait, callsFrom(Effect::WAIT), RowName());
INSTANTIATE_TEST_SUITE_P(All, IpcTimedWait, callsFrom(Effect::TIMED_WAIT), RowName());
INSTANTIATE_TEST_SUITE_P(All, MsgQueueTransfer, callsFrom(Effect::ATTEMPT, &QUEUE), RowName());
INSTANTIATE_TEST_SUITE_P(All, SemaphoreWays, callsFrom(Effect::ATTEMPT, &SEMAPHORE), RowName());

TEST_P(IpcCall, isRefusedOnAClosedObject) {
    Objects closed;
    // Emulators set the priority also in a failed read.
    closed.message.size = GetParam().allow == allowWrite ? 0 : MSG_SIZE;
    unsigned int const size = closed.message.size;
    Fault const calls(*GetParam().call, 0);
    std::optional<Fault> clock;
    if (GetParam().allow == allowTake) {
        clock.emplace(inject_clock_gettime, EINVAL);
    }
    EXPECT_EQ(GetParam().failure, GetParam().run(closed, FOREVER_MS));
    if (GetParam().allow == allowTake) {
        bool const is_timed = GetParam().effect == Effect::TIMED_WAIT;
        std::string const function = is_timed ? "__FUNTION__" : "__FUNCTION__";
        std::string const text = function + " was called on invalid semaphore";
        EXPECT_TRUE(chainIs({reportOf(CommonErrorId::CONTRACT_BROKEN, text.c_str())}));
        EXPECT_EQ(0, calls.getCalls());
    } else {
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
        EXPECT_EQ(size, closed.message.size);
    }
}

TEST_P(IpcCall, failureIsReportedAndChangesNothing) {
    allow();
    std::string const before = m_name.getState();
    leaveOlderReport();
    // What means "not now" to one call is a failure of the others.
    int const foreign = GetParam().effect == Effect::ATTEMPT ? ETIMEDOUT : EAGAIN;
    for (int const error : {EBADF, EINVAL, EIO, EOVERFLOW, foreign}) {
        EXPECT_EQ(GetParam().failure, failOnce(*GetParam().call, error, [this] { return run(); }));
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, error));
        EXPECT_EQ(MSG_SIZE, m_objects.message.size);
    }
    EXPECT_EQ(before, m_name.getState());
}

TEST_P(IpcInterruption, isRepeated) {
    allow();
    Fault const fault(*GetParam().call, EINTR, 1, 2);
    EXPECT_EQ(0, run());
    EXPECT_EQ(3, fault.getCalls());
}

TEST_P(IpcWait, isEndedByAnotherProcess) {
    Process other([&] {
        waitUntilAsleep(getppid(), getppid());
        allow();
    });
    EXPECT_EQ(0, run());
    EXPECT_EQ(0, other.join());
}

TEST_P(IpcTimedWait, lastsForItsTimeoutOrEndsAtOnce) {
    auto begin = Clock::now();
    std::string const before = m_name.getState();
    for (long long const ms : {0LL, -1LL, -999LL, -1500LL, LOWEST}) {
        EXPECT_EQ(1, run(ms)) << ms;
        EXPECT_EQ(MSG_SIZE, m_objects.message.size);
    }
    EXPECT_EQ(before, m_name.getState());
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
    begin = Clock::now();
    EXPECT_EQ(1, run(30));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(29));
    EXPECT_EQ(1, failOnce(*GetParam().call, ETIMEDOUT, [this] { return run(); }));
    EXPECT_TRUE(chainIs({})) << "a timeout is not reported";
    for (long long const ms : {LOWEST, -1500LL, -1LL, 0LL, HIGHEST}) {
        allow();
        EXPECT_EQ(0, run(ms)) << ms;
    }
}

TEST_P(IpcTimedWait, clockThatCannotBeReadIsReported) {
    allow();
    for (int const error : {EINVAL, EPERM}) {
        Calls const calls(*GetParam().call, 0);
        Fault const fault(inject_clock_gettime, error);
        EXPECT_EQ(-1, run());
        EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, error));
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

/// Makes SIGUSR1 only interrupt calls during its lifetime.
class InterruptingSignal {
public:
    InterruptingSignal() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        EXPECT_EQ(0, sigaction(SIGUSR1, &action, &m_previous));
    }
    ~InterruptingSignal() { EXPECT_EQ(0, sigaction(SIGUSR1, &m_previous, nullptr)); }

    /// Sends signals to a thread until its body has returned. Returns whether that happened soon.
    static bool end(Sleeper& thread) {
        return eventually([&] {
            thread.kill(SIGUSR1);
            return thread.isDone();
        });
    }

private:
    struct sigaction m_previous {};
};

TEST_P(IpcTimedWait, isNotExtendedBySignals) {
    InterruptingSignal const signal;
    long long result = -1;
    Sleeper waiter([&] { result = run(200); });
    if (!signal.end(waiter)) {
        ADD_FAILURE() << "it waits as long as signals arrive";
        allow();
    }
    waiter.join();
    EXPECT_EQ(1, result);
}

// ---- only of message queues ----

TEST_P(MsgQueueTransfer, wrongSizeIsRefusedAndReported) {
    allow();
    std::string const before = m_name.getState();
    EXPECT_EQ(GetParam().size_failure, failOnce(*GetParam().call, EMSGSIZE, [this] { return run(); }));
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EMSGSIZE));
    EXPECT_EQ(MSG_SIZE, m_objects.message.size);
    for (unsigned int const too_small : {MSG_SIZE - 1, 0U}) {
        unsigned int const size = GetParam().allow == allowRead ? too_small : MSG_SIZE + 1;
        m_objects.message.size = size;
        EXPECT_EQ(GetParam().size_failure, GetParam().run(m_objects, 0));
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EMSGSIZE)) << size;
        EXPECT_EQ(size, m_objects.message.size);
    }
    EXPECT_EQ(before, m_name.getState());
}

TEST_P(MsgQueueTransfer, missingBufferIsRefusedByTheSystem) {
    allow();
    m_objects.message.buffer = nullptr;
    EXPECT_EQ(GetParam().failure, run());
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EFAULT));
}

// ---- only of semaphores ----

TEST_P(SemaphoreWays, decreaseAValueAbove0) {
    allow();
    allow();
    for (char const* const left : {"1", "0"}) {
        EXPECT_EQ(0, run());
        EXPECT_EQ(left, m_name.getState());
    }
}

TEST_P(SemaphoreWays, endWithoutFailureIfTheObjectWasClosedMeanwhile) {
    allow();
    s_on_semaphore_wait = [this] { EXPECT_FALSE(m_objects.semaphore.close()); };
    EXPECT_EQ(0, run());
    EXPECT_FALSE(m_objects.semaphore.isValid());
    EXPECT_EQ("1", m_name.getState()) << "nothing was taken";
}

TEST(SemaphoreWaiter, thatASignalWakesSeesThatItsObjectWasClosed) {
    IpcName const name(SEMAPHORE);
    InterruptingSignal const signal;
    SemaphoreCreator semaphore; // Keeps the semaphore itself in the process.
    ASSERT_FALSE(semaphore.create(name, 0, Creatable::CREATE_NEW));
    SemaphoreClient client;
    ASSERT_FALSE(client.attach(name));
    SleepingThread waiter([&] {
        EXPECT_FALSE(client.take());
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_FALSE(client.close());
    if (!signal.end(waiter)) {
        ADD_FAILURE() << "it still waits";
        EXPECT_FALSE(semaphore.release());
    }
    waiter.join();
    EXPECT_EQ("0", name.getState());
}

} // namespace
