#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "support/FailOnce.h"
#include "support/UnlockFault.h"
#include "threads/SchedSupport.h"
#include "threads/ThreadSupport.h"

#include <vesk/Mutex.h>
#include <vesk/Vesk.h>

#include <tarncommon/tracing/Channel.h>

VESK_INJECT_RESULT(
    pthread_getschedparam, (pthread_t thread, int* policy, sched_param* param), (thread, policy, param))
VESK_INJECT_ERRNO(int, -1, getpriority, (__priority_which_t which, id_t who), (which, who))
VESK_INJECT_ERRNO(int, -1, setpriority, (__priority_which_t which, id_t who, int nice), (which, who, nice))
VESK_INJECT_RESULT(
    pthread_setschedparam, (pthread_t thread, int policy, sched_param const* param), (thread, policy, param))
VESK_INJECT_RESULT(pthread_attr_setinheritsched, (pthread_attr_t * a, int inherit), (a, inherit))
VESK_INJECT_RESULT(pthread_attr_setschedpolicy, (pthread_attr_t * a, int policy), (a, policy))
VESK_INJECT_RESULT(pthread_attr_setschedparam, (pthread_attr_t * a, sched_param const* param), (a, param))
VESK_INJECT_ERRNO(int, -1, sched_get_priority_min, (int policy), (policy))
VESK_INJECT_ERRNO(int, -1, sched_get_priority_max, (int policy), (policy))
VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;
using namespace vesk::sched;
using vesk::Mutex;

constexpr auto UNCLASSIFIED = SysErrorId::UNCLASSIFIED;
constexpr int LOWEST_INT = -2147483647 - 1;

Attr makeAttr(Policy_E policy, int priority = 0, int nice = 0) {
    Attr attributes;
    attributes.policy = policy;
    attributes.param.priority = priority;
    attributes.param.nice = nice;
    return attributes;
}

/// Returns attributes that no operation reads, which show what an operation writes.
Attr makeMarked() {
    Attr attributes = makeAttr(VESK_SCHED_CLASS_HIGH, 3, 4);
    attributes.param.reserved_byte = 1;
    attributes.param.reserved_word = 2;
    attributes.param.reserved_last = 5;
    return attributes;
}

void expectAttr(Attr const& attributes, Policy_E policy, int priority, int nice) {
    EXPECT_EQ(policy, attributes.policy);
    expectParam(attributes.param, priority, nice);
}

/// Checks what a failed operation leaves of `makeMarked`.
void expectFailed(Attr const& attributes) {
    EXPECT_EQ(VESK_SCHED_NOOP, attributes.policy);
    expectParam(attributes.param, 3, 4, 1, 2, 5);
}

void expectCallerAttr(Policy_E policy, int priority, int nice) {
    Attr attributes = makeMarked();
    leaveOlderReport();
    errno = EACCES; // With this errno, -1 is a nice value all the same.
    EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
    expectAttr(attributes, policy, priority, nice);
    EXPECT_TRUE(onlyOlderIsPending());
}

int getNice(pid_t thread = getThreadId()) {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(thread));
}

/// Runs `body` in a thread with this policy. Skips the test if the system refuses the policy.
template <typename Body>
void inPolicy(int policy, int priority, Body body) {
    std::string const name = policy == SCHED_FIFO ? "SCHED_FIFO"
        : policy == SCHED_RR                      ? "SCHED_RR"
        : policy == SCHED_BATCH                   ? "SCHED_BATCH"
                                                  : "SCHED_OTHER";
    inPreparedThread(
        "the system refuses " + name, [=] { return setPolicy(policy, priority); }, body);
}

/// Runs `body` in a thread with this nice value. Skips the test if the system refuses the value.
template <typename Body>
void inNice(int nice, Body body) {
    auto const set_nice = [nice] {
        return setpriority(PRIO_PROCESS, static_cast<id_t>(getThreadId()), nice) == 0 ? 0 : errno;
    };
    inPreparedThread("the system refuses a nice value", set_nice, body);
}

std::vector<ExpectedReport> schedulingFailed(std::string const& argument) {
    return {{Thread::ErrorId::SCHEDULING_FAILED, rowText(Thread::ErrorId::SCHEDULING_FAILED, argument)}};
}

/// Reports of a failure with its cause.
std::vector<ExpectedReport> schedulingFailed(SysErrorId::Id cause, int error, std::string const& argument) {
    return {{cause, rowText(cause, systemText(error))}, schedulingFailed(argument)[0]};
}

constexpr char const* UNKNOWN_POLICY = "read unexpected policy from thread";
constexpr char const* NOT_SET = "setting scheduling policy/parameter failed";

// ---- the attributes of the caller ----

TEST(ThreadCallerSchedAttrs, realTimeThreadHasItsPriorityAndItsNiceValueIsNotRead) {
    auto const expectPriority = [](Policy_E policy, int priority) {
        Fault const nice(inject_getpriority, 0);
        expectCallerAttr(policy, priority, 0);
        EXPECT_EQ(0, nice.getCalls());
    };
    inPolicy(SCHED_FIFO, 7, [=] { expectPriority(VESK_SCHED_POLICY_FIFO, 7); });
    inPolicy(SCHED_RR, 99, [=] { expectPriority(VESK_SCHED_POLICY_RR, 99); });
}

TEST(ThreadCallerSchedAttrs, niceValueIsThatOfTheThreadItself) {
    for (int const nice : {-20, -2, -1, 0, 1, 5, 19}) {
        SCOPED_TRACE(nice);
        inNice(nice, [nice] { expectCallerAttr(VESK_SCHED_POLICY_NORMAL, 0, nice); });
    }
}

TEST(ThreadCallerSchedAttrs, niceValueIsNotThatOfTheProcess) {
    int const process_nice = getpriority(PRIO_PROCESS, 0);
    if (process_nice > 18) {
        GTEST_SKIP() << "the process is as nice as can be";
    }
    inNice(process_nice + 1, [=] { expectCallerAttr(VESK_SCHED_POLICY_NORMAL, 0, process_nice + 1); });
    expectCallerAttr(VESK_SCHED_POLICY_NORMAL, 0, process_nice);
}

TEST(ThreadCallerSchedAttrs, policyThatTheLibraryDoesNotKnowIsNoop) {
    inPolicy(SCHED_BATCH, 0, [] {
        leaveOlderReport();
        Attr attributes = makeMarked();
        EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
        expectFailed(attributes);
        ASSERT_NE(nullptr, std::ErrorStorage::get());
        EXPECT_STREQ("framework/src/vesk/posix/Thread", std::ErrorStorage::get()->file);
        EXPECT_TRUE(chainIs(schedulingFailed(UNKNOWN_POLICY)));
    });
}

// ---- threads created with scheduling ----

/// What a thread finds when it looks at itself.
struct Seen {
    int policy = -1;
    int priority = -1;
    int nice = -100;
    char name[32] = "";
};

void look(void* argument) {
    auto& seen = *static_cast<Seen*>(argument);
    sched_param param{};
    pthread_getschedparam(pthread_self(), &seen.policy, &param);
    seen.priority = param.sched_priority;
    seen.nice = getNice();
    pthread_getname_np(pthread_self(), seen.name, sizeof seen.name);
}

/// A policy of the system with its priority.
struct Kernel {
    int policy;
    int priority;
};
struct Wanted {
    Policy_E policy;
    int priority = 0;
    int nice = 0;
};

constexpr Policy_E KEEP = VESK_SCHED_POLICY_KEEP;
constexpr Policy_E RR = VESK_SCHED_POLICY_RR;
constexpr Policy_E FIFO = VESK_SCHED_POLICY_FIFO;
constexpr Policy_E NORMAL = VESK_SCHED_POLICY_NORMAL;
// The older constructor, without and with its priority.
constexpr Policy_E OLDER = static_cast<Policy_E>(100);
constexpr Policy_E OLDER_PRIO = static_cast<Policy_E>(101);
constexpr Kernel ROUND_ROBIN{SCHED_RR, 4};
constexpr Kernel SHARING{SCHED_OTHER, 0};
constexpr Kernel UNKNOWN{SCHED_BATCH, 0};
constexpr int ANY = 100;

/// What a thread has that a thread with this policy creates.
struct CreationRow {
    char const* name;
    Kernel creator;
    Wanted wanted;
    Kernel seen;
    int nice;
    int inherit_calls;         ///< 1 if the scheduling is explicit, 2 if it is inherited behind that.
    Injected* fails = nullptr; ///< The call that fails.
    std::vector<int> errors = {0};
    char const* thread_name = "created";
    int error = 0;

    bool isOlder() const { return wanted.policy >= OLDER; }
    std::unique_ptr<Thread> create(Seen& to) const {
        if (isOlder()) {
            bool const use_priority = wanted.policy == OLDER_PRIO;
            return std::make_unique<Thread>(
                look, &to, "created", use_priority, wanted.priority, 16384, false);
        }
        Attr const attributes = makeAttr(wanted.policy, wanted.priority, wanted.nice);
        return std::make_unique<Thread>(look, &to, "created", attributes, false);
    }
};

Injected* const READ = &inject_pthread_getschedparam;
Injected* const SET_POLICY = &inject_pthread_attr_setschedpolicy;
Injected* const SET_PARAM = &inject_pthread_attr_setschedparam;

// The creator's real-time policy shows the difference between inheriting and setting the default.
auto const CREATION_ROWS = eachErrno<CreationRow>({
    {"noopInherits", ROUND_ROBIN, {VESK_SCHED_NOOP}, ROUND_ROBIN, ANY, 0},
    {"roundRobin", ROUND_ROBIN, {RR, 7}, {SCHED_RR, 7}, ANY, 1},
    {"fifo", ROUND_ROBIN, {FIFO, 9}, {SCHED_FIFO, 9}, ANY, 1},
    {"timeSharingInARealTimeThread", ROUND_ROBIN, {NORMAL, 50, -7}, SHARING, -7, 1},
    {"timeSharingWithoutTheRight", SHARING, {NORMAL, 0, 19}, SHARING, 19, 1},
    {"keepInARoundRobinThread", ROUND_ROBIN, {KEEP, 8, 19}, {SCHED_RR, 8}, ANY, 1},
    {"keepInAFifoThread", {SCHED_FIFO, 1}, {KEEP, 2, 19}, {SCHED_FIFO, 2}, ANY, 1},
    {"keepInATimeSharingThread", SHARING, {KEEP, 8, 18}, SHARING, 18, 1},
    {"keepOfAnUnknownPolicyInherits", UNKNOWN, {KEEP, 8, 18}, UNKNOWN, ANY, 2},
    // A call that fails.
    {"failRead", SHARING, {KEEP, 0, 17}, SHARING, ANY, 2, READ, {EPERM, EACCES}},
    {"failPolicy", SHARING, {KEEP, 0, 17}, SHARING, 17, 2, SET_POLICY, {EPERM, EACCES}},
    {"failParam", SHARING, {KEEP, 0, 17}, SHARING, 17, 2, SET_PARAM, {EPERM, EACCES}},
    {"failTimeSharingPolicy", SHARING, {NORMAL, 0, 17}, SHARING, 17, 2, SET_POLICY, {EPERM}},
    {"failTimeSharingParam", SHARING, {NORMAL, 0, 17}, SHARING, 17, 2, SET_PARAM, {EPERM}},
    // The older constructor.
    {"olderWithoutAPriorityInherits", ROUND_ROBIN, {OLDER, 50}, ROUND_ROBIN, ANY, 0},
    {"olderKeepsRoundRobin", ROUND_ROBIN, {OLDER_PRIO, 6}, {SCHED_RR, 6}, ANY, 1},
    {"olderKeepsFifo", {SCHED_FIFO, 2}, {OLDER_PRIO, 5}, {SCHED_FIFO, 5}, ANY, 1},
    {"olderIsNiceInATimeSharingThread", SHARING, {OLDER_PRIO, 16}, SHARING, 16, 1},
    {"olderLosesItsNameIfUnknown", UNKNOWN, {OLDER_PRIO, 6}, UNKNOWN, ANY, 0, READ, {0}, "creator"},
    {"olderLosesItsName", ROUND_ROBIN, {OLDER_PRIO, 6}, ROUND_ROBIN, ANY, 0, READ, {EPERM}, "creator"},
});

VESK_TEST_TABLE(
    ThreadCreationSched, followsTheAttributesAndTheCreatorWithoutAReport, testing::Test, CREATION_ROWS) {
    CreationRow const& row = GetParam();
    inPolicy(row.creator.policy, row.creator.priority, [&row] {
        ASSERT_EQ(0, pthread_setname_np(pthread_self(), "creator"));
        int const mine = getNice();
        Seen seen;
        if (!row.isOlder()) {
            leaveOlderReport();
        }
        {
            Fault const inherit_calls(inject_pthread_attr_setinheritsched, 0);
            Fault const calls(
                row.fails == nullptr ? inject_pthread_attr_setschedparam : *row.fails, row.error);
            std::unique_ptr<Thread> const thread = row.create(seen);
            EXPECT_EQ(row.inherit_calls, inherit_calls.getCalls());
            EXPECT_EQ(row.fails != nullptr || row.inherit_calls == 1 ? 1 : 0, calls.getCalls());
            EXPECT_EQ(row.isOlder(), !std::ErrorStorage::isError(false));
            ASSERT_TRUE(thread->isValid());
            EXPECT_FALSE(thread->start());
            EXPECT_FALSE(thread->join());
        }
        EXPECT_EQ(row.seen.policy, seen.policy);
        EXPECT_EQ(row.seen.priority, seen.priority);
        EXPECT_TRUE(row.nice == seen.nice || row.nice == ANY) << seen.nice;
        EXPECT_STREQ(row.thread_name, seen.name);
        EXPECT_EQ(mine, getNice()) << "the creator keeps its own";
        EXPECT_TRUE(row.isOlder() ? chainIs({}) : onlyOlderIsPending());
    });
}

TEST(ThreadOlderConstructor, canDetachAndReadsThePolicyOnlyForAPriority) {
    Event done;
    Body body = [&done] { done.set(); };
    Fault const reads(inject_pthread_getschedparam, 0);
    { Thread const thread(doNothing, nullptr, "older", false, 50, 0, false); }
    EXPECT_EQ(0, reads.getCalls());
    Thread thread(run, &body, "older", true, 5, 0, true);
    EXPECT_LT(0, reads.getCalls());
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(chainIs({std::CommonErrorId::CONTRACT_BROKEN}));
    EXPECT_TRUE(done.wait());
    EXPECT_TRUE(hasThreads(g_threads_at_start));
}

Seen seeIn(Policy_E policy, int priority, int nice) {
    Seen seen;
    Thread thread(look, &seen, "modest", makeAttr(policy, priority, nice), false);
    EXPECT_FALSE(std::ErrorStorage::isError(false));
    runToEnd(thread);
    EXPECT_TRUE(chainIs({}));
    return seen;
}

TEST(ThreadCreation, priorityOutOfRangeIsAnInvalidParameter) {
    leaveOlderReport();
    Thread const thread(doNothing, nullptr, nullptr, makeAttr(VESK_SCHED_POLICY_RR, 1000), false);
    EXPECT_FALSE(thread.isValid());
    auto const id = SysErrorId::INVALID_PARAMETER;
    EXPECT_TRUE(chainIs(
        {{id, rowText(id, systemText(EINVAL))},
         {Thread::ErrorId::CREATE_FAILED, "Thread creation failed: setting scheduling attributes failed"}}));
}

TEST(ThreadCreation, niceValueIsLeftAloneInARealTimeThread) {
    inPolicy(SCHED_RR, 4, [] {
        Fault const calls(inject_setpriority, 0, 1, 1, Fault::Threads::OTHERS);
        EXPECT_EQ(SCHED_FIFO, seeIn(FIFO, 3, 17).policy);
        EXPECT_EQ(0, calls.getCalls());
    });
}

// ---- a nice value that cannot be set ----

/// Runs a thread with this name that cannot have its nice value. Returns what the process has traced, and stores the
/// thread's id and its nice value.
std::string traceNiceRefused(char const* name, short threshold, int& tid, int& nice) {
    ChildEnd const end = runInChild([name, threshold] {
        EXPECT_TRUE(tracing::Channel::setThreshold("FW_Vesk_Thread", threshold));
        Body const body = [] {
            EXPECT_FALSE(std::ErrorStorage::isError(false));
            printf("tid %d nice %d;", getThreadId(), getpriority(PRIO_PROCESS, 0));
        };
        Fault const fault(inject_setpriority, EACCES, 1, 1, Fault::Threads::OTHERS);
        TestThread(body, name, makeAttr(VESK_SCHED_POLICY_NORMAL, 0, -11)).runToEnd();
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
    EXPECT_EQ(2, sscanf(end.output.c_str(), "tid %d nice %d;", &tid, &nice)) << end.output;
    return end.errors;
}

std::string niceRefused(std::string const& name, int nice) {
    return ": Thread::threadWrapper (" + name + "): can't set nice value -11 (" + systemText(EACCES) +
        ") falling back to " + std::to_string(nice);
}

TEST(ThreadNiceRefused, isTracedWithTheNameOfTheThreadFromTheThresholdOn) {
    int tid = 0;
    int nice = 0;
    char const* const name = "a-name-that-is-longer-than-shown";
    std::string traced = traceNiceRefused(name, 2, tid, nice);
    EXPECT_EQ("FW_Vesk_Thread[2] tid " + std::to_string(tid) + niceRefused(name, nice) + "\n", traced);
    traced = traceNiceRefused(nullptr, -5, tid, nice);
    auto const id = "thread-tid-" + std::to_string(tid);
    EXPECT_NE(std::string::npos, traced.find(niceRefused(id, nice))) << "the kernel's id: " << traced;
    EXPECT_EQ("", traceNiceRefused("quiet", 3, tid, nice));
    EXPECT_EQ("", traceNiceRefused("quiet", 7, tid, nice));
}

// ---- a process without rights ----

void dropSchedulingRights() {
    rlimit const none{0, 0};
    EXPECT_EQ(0, setrlimit(RLIMIT_RTPRIO, &none));
    EXPECT_EQ(0, setrlimit(RLIMIT_NICE, &none));
    EXPECT_TRUE(geteuid() != 0 || dropRights());
}

VESK_TEST_BY(expectInChild, ThreadWithoutRights, newThreadInheritsWhatItMayNotHave) {
    dropSchedulingRights();
    for (Policy_E const policy : {VESK_SCHED_POLICY_FIFO, VESK_SCHED_POLICY_RR}) {
        Seen const seen = seeIn(policy, 10, 0);
        EXPECT_EQ(SCHED_OTHER, seen.policy);
        EXPECT_EQ(0, seen.priority);
        EXPECT_STREQ("modest", seen.name);
    }
    EXPECT_EQ(getNice(), seeIn(NORMAL, 0, getNice() - 1).nice);
}

VESK_TEST_BY(expectInChild, ThreadWithoutRights, settingARealTimePolicyAndLoweringANiceValueAreRefused) {
    dropSchedulingRights();
    HeldThread thread;
    EXPECT_TRUE(thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_RR, 1)));
    EXPECT_TRUE(chainIs(schedulingFailed(UNCLASSIFIED, EPERM, NOT_SET)));
    EXPECT_EQ(SCHED_OTHER, sched_getscheduler(0));
    EXPECT_TRUE(thread.setPriority(getNice() - 1));
    // The system fails with EACCES, which is not the row of missing privileges.
    EXPECT_TRUE(chainIs(schedulingFailed(systemText(EACCES))));
}

TEST(ThreadWithoutRights, raisingARealTimePriorityIsRefused) {
    int refused = 0;
    std::thread([&refused] { refused = setPolicy(SCHED_RR, 1); }).join();
    if (refused != 0) {
        GTEST_SKIP() << "no real-time scheduling here: " << systemText(refused);
    }
    expectInChild([] {
        HeldThread thread(makeAttr(VESK_SCHED_POLICY_RR, 1));
        dropSchedulingRights();
        EXPECT_TRUE(thread.setPriority(2));
        EXPECT_TRUE(
            chainIs(schedulingFailed(SysErrorId::PERMISSION_DENIED, EPERM, "insufficient privileges")));
        EXPECT_EQ(1, thread.getPriority());
    });
}

// ---- a thread that runs ----

class ThreadRunning : public ThreadsGone {
protected:
    /// Checks what the system shows.
    void expectKernel(int policy, int priority, int nice) const {
        sched_param param{};
        EXPECT_EQ(policy, sched_getscheduler(m_tid));
        EXPECT_EQ(0, sched_getparam(m_tid, &param));
        EXPECT_EQ(priority, param.sched_priority);
        EXPECT_EQ(nice, getNice(m_tid));
    }
    void expectAttrs(Policy_E policy, int priority, int nice) {
        Attr attributes = makeMarked();
        EXPECT_FALSE(m_thread.getSchedAttrs(attributes));
        expectAttr(attributes, policy, priority, nice);
    }

    /// Sets a policy without the library. Returns whether the system allows that.
    bool setKernel(int policy, int priority) {
        sched_param param{};
        param.sched_priority = priority;
        return pthread_setschedparam(m_thread.getThreadId().getValue(), policy, &param) == 0;
    }

    void TearDown() override {
        m_thread.end();
        ThreadsGone::TearDown();
    }

    int m_nice = getpriority(PRIO_PROCESS, 0);
    HeldThread m_thread;
    pid_t const m_tid = m_thread.getId();
};

#define SKIP_UNLESS_REAL_TIME(policy, priority)                                                              \
    if (!setKernel(policy, priority)) {                                                                      \
        GTEST_SKIP() << "no real-time scheduling here";                                                      \
    }

TEST_F(ThreadRunning, schedAttrsAreSetAndRead) {
    SKIP_UNLESS_REAL_TIME(SCHED_RR, 1);
    struct {
        Attr set;
        int policy;
        int priority;
    } const rows[] = {
        {makeAttr(VESK_SCHED_POLICY_FIFO, 3, 9), SCHED_FIFO, 3},
        {makeAttr(VESK_SCHED_POLICY_RR, 5, 9), SCHED_RR, 5},
        {makeAttr(VESK_SCHED_POLICY_KEEP, 6, 9), SCHED_RR, 6},
        {makeAttr(VESK_SCHED_NOOP, 7, 9), SCHED_RR, 6},
    };
    for (auto const& row : rows) {
        EXPECT_FALSE(m_thread.setSchedAttrs(row.set));
        expectKernel(row.policy, row.priority, m_nice);
        expectAttrs(row.policy == SCHED_RR ? VESK_SCHED_POLICY_RR : VESK_SCHED_POLICY_FIFO, row.priority, 0);
        EXPECT_EQ(row.priority, m_thread.getPriority());
    }
    EXPECT_FALSE(m_thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_NORMAL, 6, 9)));
    expectKernel(SCHED_OTHER, 0, 9);
    expectAttrs(VESK_SCHED_POLICY_NORMAL, 0, 9);
    EXPECT_EQ(9, m_thread.getPriority());
    Fault const reads(inject_pthread_getschedparam, 0);
    Fault const writes(inject_pthread_setschedparam, 0);
    EXPECT_FALSE(m_thread.setSchedAttrs(Attr()));
    EXPECT_EQ(0, reads.getCalls() + writes.getCalls()) << "noop makes no system call";
}

class ThreadClasses : public ThreadRunning, public testing::WithParamInterface<int> {};

TEST_P(ThreadClasses, areInheritedByANewThread) {
    inPolicy(SCHED_RR, 4, [] {
        Fault const policies(inject_pthread_attr_setschedpolicy, 0);
        Seen const seen = seeIn(static_cast<Policy_E>(GetParam()), 8, 18);
        EXPECT_EQ(SCHED_RR, seen.policy);
        EXPECT_EQ(4, seen.priority);
        EXPECT_NE(18, seen.nice);
        EXPECT_EQ(0, policies.getCalls());
    });
}

TEST_P(ThreadClasses, areRefusedInAThreadThatRuns) {
    leaveOlderReport();
    EXPECT_TRUE(m_thread.setSchedAttrs(makeAttr(static_cast<Policy_E>(GetParam()), 1, 1)));
    EXPECT_TRUE(chainIs(schedulingFailed("unexpected policy")));
    expectKernel(SCHED_OTHER, 0, m_nice);
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadClasses,
    testing::Values(
        VESK_SCHED_CLASS_IDLE, VESK_SCHED_CLASS_BELOW_NORMAL, VESK_SCHED_CLASS_NORMAL,
        VESK_SCHED_CLASS_ABOVE_NORMAL, VESK_SCHED_CLASS_HIGH, VESK_SCHED_CLASS_REALTIME, 11, -1));

TEST_F(ThreadRunning, keepOnATimeSharingThreadIsRefusedWithAPriority) {
    EXPECT_TRUE(m_thread.setSchedAttrs(makeAttr(KEEP, 1, 0)));
    EXPECT_TRUE(chainIs(schedulingFailed(UNCLASSIFIED, EINVAL, NOT_SET)));
    EXPECT_FALSE(m_thread.setSchedAttrs(makeAttr(KEEP, 0, 0)));
}

// ---- setPriority and getPriority ----

TEST_F(ThreadRunning, priorityIsTheNiceValueInATimeSharingThread) {
    for (int const nice : {m_nice, 18, 19}) {
        EXPECT_FALSE(m_thread.setPriority(nice));
        expectKernel(SCHED_OTHER, 0, nice);
        EXPECT_EQ(nice, m_thread.getPriority());
    }
    EXPECT_EQ(m_nice, getpriority(PRIO_PROCESS, 0));
}

TEST_F(ThreadRunning, niceValueOfMinusOneIsNoFailure) {
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(m_tid), -1) != 0) {
        GTEST_SKIP() << "no right to be less nice: " << systemText(errno);
    }
    EXPECT_EQ(-1, m_thread.getPriority());
    EXPECT_FALSE(m_thread.setPriority(-20));
    EXPECT_EQ(-20, m_thread.getPriority());
}

TEST_F(ThreadRunning, priorityIsThatOfTheRealTimePolicyAndRefusedOutOfRange) {
    SKIP_UNLESS_REAL_TIME(SCHED_FIFO, 1);
    EXPECT_FALSE(m_thread.setPriority(9));
    EXPECT_TRUE(m_thread.setPriority(1000));
    EXPECT_TRUE(chainIs(schedulingFailed(systemText(EINVAL))));
    expectKernel(SCHED_FIFO, 9, m_nice);
    EXPECT_EQ(9, m_thread.getPriority());
    ASSERT_TRUE(setKernel(SCHED_RR, 1));
    EXPECT_FALSE(m_thread.setPriority(11));
    expectKernel(SCHED_RR, 11, m_nice);
}

TEST_F(ThreadRunning, priorityOfAnUnknownPolicyIsNeitherSetNorRead) {
    if (!setKernel(SCHED_BATCH, 0)) {
        GTEST_SKIP() << "no SCHED_BATCH here";
    }
    leaveOlderReport();
    EXPECT_TRUE(m_thread.setPriority(1));
    EXPECT_TRUE(chainIs(schedulingFailed(UNKNOWN_POLICY)));
    EXPECT_EQ(LOWEST_INT, m_thread.getPriority());
    EXPECT_TRUE(chainIs(schedulingFailed(UNKNOWN_POLICY)));
    Attr attributes = makeMarked();
    EXPECT_TRUE(m_thread.getSchedAttrs(attributes));
    expectFailed(attributes);
    std::ErrorStorage::ack();
}

TEST_F(ThreadRunning, setPriorityThatCannotLockOrUnlockDoesNothing) {
    for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
        Fault const reads(inject_pthread_getschedparam, 0);
        {
            Fault const fault(*function, EINVAL);
            EXPECT_TRUE(m_thread.setPriority(19));
        }
        EXPECT_EQ(0, reads.getCalls());
        EXPECT_TRUE(
            chainIs(withErrno({Mutex::ErrorId::INCONSISTENT, Thread::ErrorId::SCHEDULING_FAILED}, EINVAL)));
    }
    expectKernel(SCHED_OTHER, 0, m_nice);
}

TEST_F(ThreadRunning, setPriorityOfAThreadThatIsOverDoesNothing) {
    m_thread.release();
    EXPECT_TRUE(m_thread.isIn(Thread::FINISHED));
    Fault const reads(inject_pthread_getschedparam, 0);
    EXPECT_FALSE(m_thread.setPriority(1000));
    EXPECT_FALSE(m_thread.join());
    EXPECT_FALSE(m_thread.setPriority(1000));
    EXPECT_EQ(0, reads.getCalls());
}

// ---- threads that have ended: the system may have given their handles to other threads ----

void expectGone(Thread& thread) {
    Fault const reads(inject_pthread_getschedparam, 0);
    Fault const writes(inject_pthread_setschedparam, 0);
    Fault const nices(inject_setpriority, 0);
    for (Policy_E const policy :
         {VESK_SCHED_POLICY_KEEP, VESK_SCHED_POLICY_RR, VESK_SCHED_POLICY_FIFO, VESK_SCHED_POLICY_NORMAL}) {
        EXPECT_TRUE(thread.setSchedAttrs(makeAttr(policy, 1, 19)));
        EXPECT_TRUE(chainIs(schedulingFailed(UNCLASSIFIED, ESRCH, NOT_SET)));
    }
    Attr attributes = makeMarked();
    EXPECT_TRUE(thread.getSchedAttrs(attributes));
    EXPECT_TRUE(causeIs(UNCLASSIFIED, ESRCH));
    expectFailed(attributes);
    EXPECT_EQ(LOWEST_INT, thread.getPriority());
    EXPECT_TRUE(causeIs(UNCLASSIFIED, ESRCH));
    std::vector<bool> processors;
    EXPECT_TRUE(thread.getCPUAffinity(processors));
    EXPECT_TRUE(causeIs(UNCLASSIFIED, ESRCH));
    EXPECT_TRUE(thread.setCPUAffinity({}));
    EXPECT_TRUE(causeIs(UNCLASSIFIED, ESRCH));
    EXPECT_EQ(0, reads.getCalls() + writes.getCalls() + nices.getCalls());
}

TEST_F(ThreadRunning, nothingIsSetOnceItWasJoinedOrATerminatedOneHasEnded) {
    VESK_SKIP_WITHOUT_CANCELLATION();
    m_thread.end();
    expectGone(m_thread);
    Event ready;
    StartedThread thread([&ready] {
        ready.set();
        waitForCancellation();
    });
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(hasThreads(g_threads_at_start));
    expectGone(thread);
}

TEST_F(ThreadRunning, nothingIsSetOnceADetachedOneHasEnded) {
    Thread thread(doNothing, nullptr, nullptr, Attr(), true);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
    // A new thread mostly takes the place of the old one.
    HeldThread const next;
    expectGone(thread);
    EXPECT_TRUE(thread.setPriority(19));
    EXPECT_TRUE(chainIs(schedulingFailed(systemText(ESRCH))));
    EXPECT_EQ(m_nice, next.getPriority());
}

TEST_F(ThreadRunning, operationsRaceWithTheEndOfADetachedThread) {
    for (int round = 0; round < 2000; ++round) {
        Thread thread(doNothing, nullptr, nullptr, Attr(), true);
        EXPECT_FALSE(thread.start());
        std::vector<bool> processors;
        Attr attributes;
        for (volatile int i = 0; i < round * 7919 % 50000; i = i + 1) {}
        ASSERT_TRUE(
            !thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_NORMAL, 0, m_nice)) ||
            chainIs({UNCLASSIFIED, Thread::ErrorId::SCHEDULING_FAILED}));
        ASSERT_TRUE(!thread.getSchedAttrs(attributes) || chainIs({UNCLASSIFIED}));
        ASSERT_TRUE(!thread.getCPUAffinity(processors) || chainIs({UNCLASSIFIED}));
        ASSERT_TRUE(!thread.setCPUAffinity({}) || chainIs({UNCLASSIFIED}));
        ASSERT_TRUE(!thread.setPriority(m_nice) || chainIs({Thread::ErrorId::SCHEDULING_FAILED}));
    }
    EXPECT_EQ(m_nice, getpriority(PRIO_PROCESS, 0));
}

TEST_F(ThreadRunning, exitHandlersStillSeeTheirOwnScheduling) {
    static int s_priority;
    Body const body = [] {
        Thread::registerExitHandler(
            [](Thread::ThreadId const&, Thread::ExitReason) { s_priority = self().getPriority(); });
    };
    TestThread(body, nullptr, makeAttr(VESK_SCHED_POLICY_NORMAL, 0, 15)).runToEnd();
    EXPECT_EQ(15, s_priority);
}

// ---- the limits ----

TEST(ThreadPriorityLimits, areThoseOfTheCallersPolicy) {
    EXPECT_EQ(0, Thread::getMinPriority());
    EXPECT_EQ(0, Thread::getMaxPriority());
    inPolicy(SCHED_RR, 4, [] {
        EXPECT_EQ(sched_get_priority_min(SCHED_RR), Thread::getMinPriority());
        EXPECT_EQ(sched_get_priority_max(SCHED_RR), Thread::getMaxPriority());
        EXPECT_LT(Thread::getMinPriority(), Thread::getMaxPriority());
    });
}

// ---- system calls that fail ----

struct Row {
    char const* name;
    Injected* function;
    int (*operation)(Thread&);
    std::vector<int> errors;
    int result;
    std::vector<ExpectedReport> (*reports)(int error);
    bool needs_real_time = false;
    int error = 0;
};

int readCaller(Thread&) {
    Attr attributes = makeMarked();
    bool const failed = Thread::getCallerSchedAttrs(attributes);
    expectFailed(attributes);
    return failed;
}
int readCallerPolicy(Thread& thread) {
    Fault const nice(inject_getpriority, 0);
    int const result = readCaller(thread);
    EXPECT_EQ(0, nice.getCalls());
    return result;
}
template <Policy_E POLICY>
int setAttr(Thread& thread) {
    return thread.setSchedAttrs(makeAttr(POLICY, 1, getNice()));
}
/// Sets attributes where the call before that for the nice value fails.
template <Policy_E POLICY>
int setAttrWithoutNice(Thread& thread) {
    Fault const writes(inject_setpriority, 0);
    int const result = setAttr<POLICY>(thread);
    EXPECT_EQ(0, writes.getCalls());
    return result;
}
constexpr auto setPriority = [](Thread& thread) -> int { return thread.setPriority(2); };
constexpr auto getPriority = [](Thread& thread) -> int { return thread.getPriority(); };
constexpr auto getMin = [](Thread&) -> int { return Thread::getMinPriority(); };
constexpr auto getMax = [](Thread&) -> int { return Thread::getMaxPriority(); };

std::vector<ExpectedReport> unclassified(int error) {
    return withErrno({UNCLASSIFIED}, error);
}
std::vector<ExpectedReport> notSet(int error) {
    return schedulingFailed(UNCLASSIFIED, error, NOT_SET);
}
std::vector<ExpectedReport> notPermitted(int error) {
    return schedulingFailed(SysErrorId::PERMISSION_DENIED, error, "insufficient privileges");
}
std::vector<ExpectedReport> failed(int error) {
    return withErrno({Thread::ErrorId::SCHEDULING_FAILED}, error);
}

std::vector<ExpectedReport> onTopOfTheOlderOne(int error) {
    return {SysErrorId::NO_SUCH_PROCESS, failed(error)[0]};
}

Injected* const READ_NICE = &inject_getpriority;
Injected* const SET = &inject_pthread_setschedparam;
Injected* const SET_NICE = &inject_setpriority;

auto const ROWS = eachErrno<Row>({
    {"callerPolicy", READ, readCallerPolicy, {ESRCH, EPERM, EINVAL, ENOSYS}, 1, unclassified},
    {"callerNice", READ_NICE, readCaller, {ESRCH, EINVAL, EACCES, EPERM}, 1, unclassified},
    {"keepGetschedparam", READ, setAttrWithoutNice<KEEP>, {ESRCH}, 1, notSet},
    {"keepSetschedparam", SET, setAttrWithoutNice<KEEP>, {EINVAL}, 1, notSet},
    {"roundRobinSetschedparam", SET, setAttrWithoutNice<RR>, {EPERM}, 1, notSet},
    {"fifoSetschedparam", SET, setAttrWithoutNice<FIFO>, {EINVAL}, 1, notSet},
    {"normalSetschedparam", SET, setAttrWithoutNice<NORMAL>, {ENOTSUP}, 1, notSet},
    {"normalSetpriority", SET_NICE, setAttr<NORMAL>, {EACCES, ESRCH}, 1, notSet},
    {"setPriorityPolicy", READ, setPriority, {ESRCH}, 1, onTopOfTheOlderOne},
    {"setPriority", SET_NICE, setPriority, {EPERM}, 1, notPermitted},
    {"setPriority", SET_NICE, setPriority, {EACCES, ESRCH}, 1, failed},
    {"setPriorityOfRoundRobin", SET, setPriority, {EPERM}, 1, notPermitted, true},
    {"setPriorityOfRoundRobin", SET, setPriority, {EINVAL}, 1, failed, true},
    {"getPriorityPolicy", READ, getPriority, {EPERM}, LOWEST_INT, unclassified},
    {"getPriorityNice", READ_NICE, getPriority, {EACCES}, LOWEST_INT, unclassified},
    {"minimumPolicy", READ, getMin, {ESRCH}, LOWEST_INT, failed},
    {"maximumPolicy", READ, getMax, {EPERM}, LOWEST_INT, failed},
    {"minimum", &inject_sched_get_priority_min, getMin, {EINVAL}, LOWEST_INT, failed},
    {"maximum", &inject_sched_get_priority_max, getMax, {ENOSYS}, LOWEST_INT, failed},
});

VESK_TEST_TABLE(ThreadSchedRows, reportAndChangeNothing, ThreadRunning, ROWS) {
    Row const& row = GetParam();
    if (row.needs_real_time) {
        SKIP_UNLESS_REAL_TIME(SCHED_RR, 1);
    }
    leaveOlderReport();
    EXPECT_EQ(row.result, failOnce(*row.function, row.error, [&] { return row.operation(m_thread); }));
    EXPECT_TRUE(chainIs(row.reports(row.error)));
    expectKernel(row.needs_real_time ? SCHED_RR : SCHED_OTHER, row.needs_real_time ? 1 : 0, m_nice);
}

// ---- the main thread ----

VESK_TEST_BY(expectInChild, ThreadMainSchedAttrs, areThoseOfTheStartUp) {
    expectAttr(Thread::getMainSchedAttrs(), VESK_SCHED_NOOP, 0, 0);
    ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 18));
    vesk::Vesk const vesk(true, false);
    ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 19));
    expectAttr(Thread::getMainSchedAttrs(), VESK_SCHED_POLICY_NORMAL, 0, 18);
}

// ---- the family ----

TEST(ThreadError, hasItsRows) {
    expectRows(
        Thread::Error,
        {"Thread creation failed: %s", "Thread start failed: %s",
         "getting/setting Thread priority/scheduling parameters failed: %s", "Thread yield failed: %s",
         "Thread join failed: %s", "Thread terminate failed: %s"},
        1);
}

size_t getStackSize() {
    pthread_attr_t attributes;
    size_t size = 0;
    EXPECT_EQ(0, pthread_getattr_np(pthread_self(), &attributes));
    EXPECT_EQ(0, pthread_attr_getstacksize(&attributes, &size));
    pthread_attr_destroy(&attributes);
    return size;
}

TEST(ThreadOlderConstructor, hasTheDefaultStackWhateverSizeItGets) {
    size_t expected = 0;
    Body plain = [&expected] { expected = getStackSize(); };
    Thread thread(run, &plain);
    runToEnd(thread);
    for (unsigned int const wanted : {0U, 16384U, 1U << 20, 1U << 26}) {
        size_t size = 0;
        Body body = [&size] { size = getStackSize(); };
        Thread older(run, &body, "older", false, 0, wanted, false);
        runToEnd(older);
        EXPECT_EQ(expected, size) << wanted;
    }
}

// ---- before the thread runs ----

// While set, a new thread waits for it before it runs. For one thread at a time.
Event* g_gate = nullptr;
void* (*g_held_function)(void*) = nullptr;

void* runBehindTheGate(void* argument) {
    EXPECT_TRUE(g_gate->wait());
    return g_held_function(argument);
}

} // namespace

VESK_INJECT(
    int, return error, pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument),
    (thread, attributes, g_gate != nullptr ? runBehindTheGate : function, argument),
    g_held_function = function)

namespace {

TEST(ThreadBeforeItRuns, hasNoKernelIdYetSoThatTheCallerGetsTheNiceValue) {
    std::thread([] {
        int const nice = getpriority(PRIO_PROCESS, 0);
        if (nice == 19) {
            GTEST_SKIP() << "no nice value is left to tell the threads apart";
        }
        Event gate;
        g_gate = &gate;
        Seen seen;
        Thread thread(look, &seen);
        EXPECT_FALSE(thread.setPriority(nice + 1));
        EXPECT_EQ(nice + 1, getpriority(PRIO_PROCESS, 0));
        gate.set();
        runToEnd(thread);
        EXPECT_EQ(nice, seen.nice);
        g_gate = nullptr;
    }).join();
}

} // namespace
