#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/UnlockFault.h"
#include "threads/ThreadSupport.h"

#include <vesk/Mutex.h>
#include <vesk/SysError.h>
#include <vesk/Thread.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/tracing/Channel.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <grp.h>
#include <limits>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

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

using namespace vesk::sched;
using support::chainIs;
using support::ChildEnd;
using support::Event;
using support::eventually;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::systemText;
using vesk::Mutex;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;

/// Attributes that no reading gives, to see what it writes.
Attr makeMarked() {
    Attr attributes;
    attributes.policy = VESK_SCHED_CLASS_HIGH;
    attributes.param.reserved_byte = 1;
    attributes.param.reserved_word = 2;
    attributes.param.priority = 3;
    attributes.param.nice = 4;
    attributes.param.reserved_last = 5;
    return attributes;
}

void expectAttr(Attr const& attributes, Policy_E policy, int priority, int nice) {
    EXPECT_EQ(policy, attributes.policy);
    EXPECT_EQ(priority, attributes.param.priority);
    EXPECT_EQ(nice, attributes.param.nice);
    EXPECT_EQ(0, attributes.param.reserved_byte);
    EXPECT_EQ(0u, attributes.param.reserved_word);
    EXPECT_EQ(0u, attributes.param.reserved_last);
}

void expectFailed(Attr const& attributes) {
    EXPECT_EQ(VESK_SCHED_NOOP, attributes.policy);
    EXPECT_EQ(1, attributes.param.reserved_byte);
    EXPECT_EQ(2u, attributes.param.reserved_word);
    EXPECT_EQ(3, attributes.param.priority);
    EXPECT_EQ(4, attributes.param.nice);
    EXPECT_EQ(5u, attributes.param.reserved_last);
}

/// Runs `body` in a thread that `setUp` has prepared; what the system refuses skips the test.
template <typename SetUp, typename Body>
void inThread(char const* what, SetUp setUp, Body body) {
    int refused = 0;
    std::thread([&] {
        refused = setUp();
        if (refused == 0) {
            body();
        }
    }).join();
    if (refused != 0) {
        GTEST_SKIP() << "the system refuses " << what << ": " << systemText(refused);
    }
}

int setPolicy(int policy, int priority) {
    sched_param param{};
    param.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), policy, &param);
}

int setNice(int nice) {
    int const result = setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), nice);
    return result == 0 ? 0 : errno;
}

// ---- policies ----

TEST(ThreadCallerSchedAttrs, fifoThreadHasItsPriority) {
    inThread(
        "SCHED_FIFO", [] { return setPolicy(SCHED_FIFO, 7); },
        [] {
            Attr attributes = makeMarked();
            EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
            expectAttr(attributes, VESK_SCHED_POLICY_FIFO, 7, 0);
            EXPECT_TRUE(chainIs({}));
        });
}

TEST(ThreadCallerSchedAttrs, roundRobinThreadHasItsPriority) {
    inThread(
        "SCHED_RR", [] { return setPolicy(SCHED_RR, 99); },
        [] {
            Attr attributes = makeMarked();
            EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
            expectAttr(attributes, VESK_SCHED_POLICY_RR, 99, 0);
            EXPECT_TRUE(chainIs({}));
        });
}

TEST(ThreadCallerSchedAttrs, realTimeThreadIsNotAskedForItsNiceValue) {
    inThread(
        "SCHED_RR", [] { return setPolicy(SCHED_RR, 1); },
        [] {
            Fault const nice(inject_getpriority, 0);
            Attr attributes;
            EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
            EXPECT_EQ(0, nice.getCalls());
        });
}

class ThreadCallerNice : public testing::TestWithParam<int> {};

TEST_P(ThreadCallerNice, isThatOfTheThreadItself) {
    inThread(
        "a nice value", [] { return setNice(GetParam()); },
        [] {
            Attr attributes = makeMarked();
            EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
            expectAttr(attributes, VESK_SCHED_POLICY_NORMAL, 0, GetParam());
            EXPECT_TRUE(chainIs({}));
        });
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadCallerNice, testing::Values(-20, -2, -1, 0, 1, 5, 19), [](auto const& row) {
        return (row.param < 0 ? "minus" : "plus") + std::to_string(row.param < 0 ? -row.param : row.param);
    });

TEST(ThreadCallerSchedAttrs, niceValueIsNotThatOfTheProcess) {
    int const process_nice = getpriority(PRIO_PROCESS, 0);
    if (process_nice > 18) {
        GTEST_SKIP() << "the process is as nice as can be";
    }
    inThread(
        "a nice value", [process_nice] { return setNice(process_nice + 1); },
        [process_nice] {
            Attr attributes;
            EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
            EXPECT_EQ(process_nice + 1, attributes.param.nice);
        });
    Attr attributes;
    EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
    EXPECT_EQ(process_nice, attributes.param.nice);
}

TEST(ThreadCallerSchedAttrs, minusOneCountsAsANiceValueWhateverErrnoWasBefore) {
    inThread(
        "a nice value", [] { return setNice(-1); },
        [] {
            Attr attributes = makeMarked();
            errno = EACCES;
            EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
            expectAttr(attributes, VESK_SCHED_POLICY_NORMAL, 0, -1);
            EXPECT_TRUE(chainIs({}));
        });
}

TEST(ThreadCallerSchedAttrs, successLeavesAPendingChainAlone) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Attr attributes;
    EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}}));
}

// ---- failures ----

TEST(ThreadCallerSchedAttrs, policyThatTheLibraryDoesNotKnowIsNoop) {
    inThread(
        "SCHED_BATCH", [] { return setPolicy(SCHED_BATCH, 0); },
        [] {
            std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
            Attr attributes = makeMarked();
            EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
            expectFailed(attributes);
            EXPECT_TRUE(chainIs(
                {{Thread::ErrorId::SCHEDULING_FAILED,
                  "getting/setting Thread priority/scheduling parameters failed: read unexpected policy from "
                  "thread"}}));
        });
}

class ThreadPolicyErrors : public testing::TestWithParam<int> {};

TEST_P(ThreadPolicyErrors, areUnclassified) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Attr attributes = makeMarked();
    {
        Fault const fault(inject_pthread_getschedparam, GetParam());
        Fault const nice(inject_getpriority, 0);
        EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
        EXPECT_EQ(0, nice.getCalls());
    }
    expectFailed(attributes);
    EXPECT_TRUE(
        chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(GetParam()))}}));
}

INSTANTIATE_TEST_SUITE_P(All, ThreadPolicyErrors, testing::Values(ESRCH, EPERM, EINVAL, ENOSYS));

class ThreadNiceErrors : public testing::TestWithParam<int> {};

TEST_P(ThreadNiceErrors, areUnclassified) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Attr attributes = makeMarked();
    {
        Fault const fault(inject_getpriority, GetParam());
        EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
    }
    expectFailed(attributes);
    EXPECT_TRUE(
        chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(GetParam()))}}));
}

INSTANTIATE_TEST_SUITE_P(All, ThreadNiceErrors, testing::Values(ESRCH, EINVAL, EACCES, EPERM));

TEST(ThreadCallerSchedAttrs, reportsFromItsSource) {
    Fault const fault(inject_pthread_getschedparam, ESRCH);
    Attr attributes;
    EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
    ASSERT_NE(nullptr, std::ErrorStorage::get());
    EXPECT_STREQ("framework/src/vesk/posix/Thread", std::ErrorStorage::get()->file);
}

// ---- threads made with scheduling ----

using Body = std::function<void()>;
void run(void* body) {
    (*static_cast<Body*>(body))();
}

void doNothing(void*) {}

Attr makeAttr(Policy_E policy, int priority = 0, int nice = 0) {
    Attr attributes;
    attributes.policy = policy;
    attributes.param.priority = priority;
    attributes.param.nice = nice;
    return attributes;
}

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
    seen.nice = getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
    pthread_getname_np(pthread_self(), seen.name, sizeof seen.name);
}

/// Runs a thread to its end.
void runToEnd(Thread& thread) {
    ASSERT_TRUE(thread.isValid());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

Seen seeIn(Attr const& attributes) {
    Seen seen;
    Thread thread(look, &seen, nullptr, attributes, false);
    runToEnd(thread);
    EXPECT_TRUE(chainIs({}));
    return seen;
}

void expectSeen(Seen const& seen, int policy, int priority) {
    EXPECT_EQ(policy, seen.policy);
    EXPECT_EQ(priority, seen.priority);
}

// A thread of a real-time policy shows that inheriting and asking are not the same.
int makeRoundRobin() {
    return setPolicy(SCHED_RR, 4);
}

TEST(ThreadCreationSched, noopInheritsAndAsksForNothing) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        Fault const calls(inject_pthread_attr_setinheritsched, 0);
        expectSeen(seeIn(Attr()), SCHED_RR, 4);
        EXPECT_EQ(0, calls.getCalls());
    });
}

TEST(ThreadCreationSched, roundRobinAndFifoHaveTheirPriority) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        expectSeen(seeIn(makeAttr(VESK_SCHED_POLICY_RR, 7)), SCHED_RR, 7);
        expectSeen(seeIn(makeAttr(VESK_SCHED_POLICY_FIFO, 9)), SCHED_FIFO, 9);
    });
}

TEST(ThreadCreationSched, timeSharingHasItsNiceValueWhateverItsCreatorHas) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        Seen const seen = seeIn(makeAttr(VESK_SCHED_POLICY_NORMAL, 50, -7));
        expectSeen(seen, SCHED_OTHER, 0);
        EXPECT_EQ(-7, seen.nice);
    });
}

TEST(ThreadCreationSched, timeSharingNeedsNoRightToBeNice) {
    int const mine = getpriority(PRIO_PROCESS, 0);
    Seen const seen = seeIn(makeAttr(VESK_SCHED_POLICY_NORMAL, 0, 19));
    expectSeen(seen, SCHED_OTHER, 0);
    EXPECT_EQ(19, seen.nice);
    EXPECT_EQ(mine, getpriority(PRIO_PROCESS, 0)) << "the creator keeps its own";
}

TEST(ThreadCreationSched, keepInARealTimeThreadTakesThePriority) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        expectSeen(seeIn(makeAttr(VESK_SCHED_POLICY_KEEP, 8, 19)), SCHED_RR, 8);
    });
    inThread(
        "SCHED_FIFO", [] { return setPolicy(SCHED_FIFO, 1); },
        [] { expectSeen(seeIn(makeAttr(VESK_SCHED_POLICY_KEEP, 2, 19)), SCHED_FIFO, 2); });
}

TEST(ThreadCreationSched, keepInATimeSharingThreadTakesTheNiceValue) {
    Seen const seen = seeIn(makeAttr(VESK_SCHED_POLICY_KEEP, 8, 18));
    expectSeen(seen, SCHED_OTHER, 0);
    EXPECT_EQ(18, seen.nice);
}

TEST(ThreadCreationSched, keepOfAPolicyThatIsUnknownInherits) {
    inThread(
        "SCHED_BATCH", [] { return setPolicy(SCHED_BATCH, 0); },
        [] {
            Fault const inheritances(inject_pthread_attr_setinheritsched, 0);
            Fault const params(inject_pthread_attr_setschedparam, 0);
            expectSeen(seeIn(makeAttr(VESK_SCHED_POLICY_KEEP, 8, 18)), SCHED_BATCH, 0);
            EXPECT_EQ(2, inheritances.getCalls());
            EXPECT_EQ(0, params.getCalls());
        });
}

class ThreadCreationClasses : public testing::TestWithParam<int> {};

TEST_P(ThreadCreationClasses, inherit) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        Fault const policies(inject_pthread_attr_setschedpolicy, 0);
        Seen const seen = seeIn(makeAttr(static_cast<Policy_E>(GetParam()), 8, 18));
        expectSeen(seen, SCHED_RR, 4);
        EXPECT_NE(18, seen.nice);
        EXPECT_EQ(0, policies.getCalls());
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadCreationClasses,
    testing::Values(
        VESK_SCHED_CLASS_IDLE, VESK_SCHED_CLASS_BELOW_NORMAL, VESK_SCHED_CLASS_NORMAL,
        VESK_SCHED_CLASS_ABOVE_NORMAL, VESK_SCHED_CLASS_HIGH, VESK_SCHED_CLASS_REALTIME, 11, -1));

TEST(ThreadCreationSched, priorityOutOfRangeIsAnInvalidParameter) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Thread const thread(doNothing, nullptr, nullptr, makeAttr(VESK_SCHED_POLICY_RR, 1000), false);
    EXPECT_FALSE(thread.isValid());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PARAMETER, rowText(SysErrorId::INVALID_PARAMETER, systemText(EINVAL))},
         {Thread::Error, Thread::ErrorId::CREATE_FAILED,
          "Thread creation failed: setting scheduling attributes failed"}}));
}

struct CreationRow {
    char const* call;
    Injected* function;
    int nth;
    int error;
    int id;
    char const* text;
};

void PrintTo(CreationRow const& row, std::ostream* out) {
    *out << row.call << " " << row.nth << " errno " << row.error;
}

class ThreadCreationSchedRows : public testing::TestWithParam<CreationRow> {};

// A class needs the second call of pthread_attr_setinheritsched, keeping the policy needs pthread_getschedparam.
Policy_E policyThatNeeds(CreationRow const& row) {
    return row.nth == 2 ? VESK_SCHED_CLASS_HIGH : VESK_SCHED_POLICY_KEEP;
}

TEST_P(ThreadCreationSchedRows, leaveAnInvalidObject) {
    CreationRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(*row.function, row.error, row.nth);
    Thread const thread(doNothing, nullptr, "name", makeAttr(policyThatNeeds(row), 0, 0), false);
    EXPECT_FALSE(thread.isValid());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_EQ(row.nth, fault.getCalls());
    EXPECT_TRUE(chainIs(
        {{SysError, row.id, rowText(SysError, row.id, systemText(row.error))},
         {Thread::Error, Thread::ErrorId::CREATE_FAILED,
          std::string("Thread creation failed: ") + row.text}}));
}

constexpr char const* NO_INHERITANCE = "setting scheduler inheritance failed";
constexpr char const* NO_ATTRIBUTES = "setting scheduling attributes failed";

INSTANTIATE_TEST_SUITE_P(
    All, ThreadCreationSchedRows,
    testing::Values(
        CreationRow{"setinheritsched", &inject_pthread_attr_setinheritsched, 1, EINVAL, 19, NO_INHERITANCE},
        CreationRow{"setinheritsched", &inject_pthread_attr_setinheritsched, 1, EPERM, 19, NO_INHERITANCE},
        CreationRow{"setinheritsched", &inject_pthread_attr_setinheritsched, 2, EINVAL, 19, NO_INHERITANCE},
        CreationRow{"setinheritsched", &inject_pthread_attr_setinheritsched, 2, ENOTSUP, 19, NO_INHERITANCE},
        CreationRow{"getschedparam", &inject_pthread_getschedparam, 1, EINVAL, 8, NO_ATTRIBUTES},
        CreationRow{"getschedparam", &inject_pthread_getschedparam, 1, ESRCH, 19, NO_ATTRIBUTES},
        CreationRow{"setschedpolicy", &inject_pthread_attr_setschedpolicy, 1, EINVAL, 8, NO_ATTRIBUTES},
        CreationRow{"setschedpolicy", &inject_pthread_attr_setschedpolicy, 1, ENOTSUP, 19, NO_ATTRIBUTES},
        CreationRow{"setschedparam", &inject_pthread_attr_setschedparam, 1, EINVAL, 8, NO_ATTRIBUTES},
        CreationRow{"setschedparam", &inject_pthread_attr_setschedparam, 1, ENOTSUP, 19, NO_ATTRIBUTES}));

struct FallbackRow {
    char const* call;
    Injected* function;
    int error;
};

void PrintTo(FallbackRow const& row, std::ostream* out) {
    *out << row.call << " errno " << row.error;
}

class ThreadCreationFallbacks : public testing::TestWithParam<FallbackRow> {};

TEST_P(ThreadCreationFallbacks, inheritWithoutAReport) {
    FallbackRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Seen seen;
    {
        Fault const inheritances(inject_pthread_attr_setinheritsched, 0);
        Fault const fault(*row.function, row.error);
        Thread thread(look, &seen, nullptr, makeAttr(VESK_SCHED_POLICY_KEEP, 0, 17), false);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_EQ(2, inheritances.getCalls());
        runToEnd(thread);
    }
    expectSeen(seen, SCHED_OTHER, 0);
    EXPECT_TRUE(chainIs({{SysErrorId::NO_SUCH_PROCESS}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadCreationFallbacks,
    testing::Values(
        FallbackRow{"getschedparam", &inject_pthread_getschedparam, EPERM},
        FallbackRow{"getschedparam", &inject_pthread_getschedparam, EACCES},
        FallbackRow{"setschedpolicy", &inject_pthread_attr_setschedpolicy, EPERM},
        FallbackRow{"setschedpolicy", &inject_pthread_attr_setschedpolicy, EACCES},
        FallbackRow{"setschedparam", &inject_pthread_attr_setschedparam, EPERM},
        FallbackRow{"setschedparam", &inject_pthread_attr_setschedparam, EACCES}));

TEST(ThreadCreationSched, niceValueIsSetBehindAFallback) {
    for (Injected* const function :
         {&inject_pthread_attr_setschedpolicy, &inject_pthread_attr_setschedparam}) {
        for (Policy_E const policy : {VESK_SCHED_POLICY_NORMAL, VESK_SCHED_POLICY_KEEP}) {
            Seen seen;
            Fault const fault(*function, EPERM);
            Thread thread(look, &seen, nullptr, makeAttr(policy, 0, 17), false);
            EXPECT_EQ(1, fault.getCalls());
            runToEnd(thread);
            EXPECT_EQ(17, seen.nice) << policy;
        }
    }
}

TEST(ThreadCreationSched, niceValueIsLeftAloneInARealTimeThread) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        Fault const calls(inject_setpriority, 0, 1, 1, Fault::Threads::OTHERS);
        expectSeen(seeIn(makeAttr(VESK_SCHED_POLICY_FIFO, 3, 17)), SCHED_FIFO, 3);
        EXPECT_EQ(0, calls.getCalls());
    });
}

// ---- a nice value that cannot be set ----

ChildEnd runWithNiceRefused(char const* name, short threshold) {
    return support::runInChild([name, threshold] {
        EXPECT_TRUE(tracing::Channel::setThreshold("FW_Vesk_Thread", threshold));
        Body body = [] {
            EXPECT_FALSE(std::ErrorStorage::isError(false));
            printf("tid %d nice %d;", static_cast<int>(syscall(SYS_gettid)), getpriority(PRIO_PROCESS, 0));
        };
        Fault const fault(inject_setpriority, EACCES, 1, 1, Fault::Threads::OTHERS);
        Thread thread(run, &body, name, makeAttr(VESK_SCHED_POLICY_NORMAL, 0, -11), false);
        runToEnd(thread);
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({}));
    });
}

TEST(ThreadNiceRefused, isTracedWithTheNameOfTheThread) {
    ChildEnd const end = runWithNiceRefused("a-name-that-is-longer-than-shown", 2);
    EXPECT_EQ(0, end.exit_code) << end.output;
    int tid = 0;
    int nice = 0;
    ASSERT_EQ(2, sscanf(end.output.c_str(), "tid %d nice %d;", &tid, &nice)) << end.output;
    EXPECT_EQ(
        "FW_Vesk_Thread[2] tid " + std::to_string(tid) +
            ": Thread::threadWrapper (a-name-that-is-longer-than-shown): can't set nice value -11 (" +
            systemText(EACCES) + ") falling back to " + std::to_string(nice) + "\n",
        end.errors);
}

TEST(ThreadNiceRefused, isTracedWithTheKernelsIdWhereThereIsNoName) {
    ChildEnd const end = runWithNiceRefused(nullptr, -5);
    EXPECT_EQ(0, end.exit_code) << end.output;
    int tid = 0;
    int nice = 0;
    ASSERT_EQ(2, sscanf(end.output.c_str(), "tid %d nice %d;", &tid, &nice)) << end.output;
    EXPECT_NE(
        std::string::npos,
        end.errors.find(
            "Thread::threadWrapper (thread-tid-" + std::to_string(tid) + "): can't set nice value -11 (" +
            systemText(EACCES) + ") falling back to " + std::to_string(nice)))
        << end.errors;
}

TEST(ThreadNiceRefused, isSilentWhereTheChannelIs) {
    for (short const threshold : {short{3}, short{7}}) {
        ChildEnd const end = runWithNiceRefused("quiet", threshold);
        EXPECT_EQ(0, end.exit_code) << end.output;
        EXPECT_EQ("", end.errors);
    }
}

// ---- the older constructor ----

Seen seeInOlder(bool use_priority, int priority) {
    Seen seen;
    Thread thread(look, &seen, "older", use_priority, priority, 16384, false);
    runToEnd(thread);
    EXPECT_TRUE(chainIs({}));
    return seen;
}

TEST(ThreadOlderConstructor, withoutAPriorityInherits) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        Fault const reads(inject_pthread_getschedparam, 0);
        Thread thread(doNothing, nullptr, "older", false, 50, 0, false);
        EXPECT_EQ(0, reads.getCalls());
        runToEnd(thread);
        Seen const seen = seeInOlder(false, 50);
        expectSeen(seen, SCHED_RR, 4);
        EXPECT_STREQ("older", seen.name);
    });
}

TEST(ThreadOlderConstructor, withAPriorityKeepsTheRealTimePolicy) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        Seen const seen = seeInOlder(true, 6);
        expectSeen(seen, SCHED_RR, 6);
        EXPECT_STREQ("older", seen.name);
    });
    inThread(
        "SCHED_FIFO", [] { return setPolicy(SCHED_FIFO, 2); },
        [] { expectSeen(seeInOlder(true, 5), SCHED_FIFO, 5); });
}

TEST(ThreadOlderConstructor, withAPriorityIsNiceInATimeSharingThread) {
    Seen const seen = seeInOlder(true, 16);
    expectSeen(seen, SCHED_OTHER, 0);
    EXPECT_EQ(16, seen.nice);
    EXPECT_STREQ("older", seen.name);
}

TEST(ThreadOlderConstructor, dropsItsNameWhereThePolicyIsUnknown) {
    inThread(
        "SCHED_BATCH", [] { return setPolicy(SCHED_BATCH, 0); },
        [] {
            ASSERT_EQ(0, pthread_setname_np(pthread_self(), "creator"));
            Seen const seen = seeInOlder(true, 6);
            expectSeen(seen, SCHED_BATCH, 0);
            EXPECT_STREQ("creator", seen.name);
        });
}

TEST(ThreadOlderConstructor, dropsItsNameAndAcknowledgesWhereThePolicyCannotBeRead) {
    inThread("SCHED_RR", makeRoundRobin, [] {
        ASSERT_EQ(0, pthread_setname_np(pthread_self(), "creator"));
        Seen seen;
        {
            Fault const fault(inject_pthread_getschedparam, EPERM);
            Thread thread(look, &seen, "older", true, 6, 16384, false);
            EXPECT_EQ(1, fault.getCalls());
            EXPECT_FALSE(std::ErrorStorage::isError(false));
            runToEnd(thread);
        }
        expectSeen(seen, SCHED_RR, 4);
        EXPECT_STREQ("creator", seen.name);
    });
}

TEST(ThreadOlderConstructor, canDetach) {
    Event done;
    Body body = [&done] { done.set(); };
    int const before = support::countThreads();
    Thread thread(run, &body, "older", true, 5, 0, true);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_TRUE(done.wait());
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
}

// ---- a process without rights ----

/// Runs `body` in a child that may neither use real-time policies nor lower a nice value.
template <typename Body>
void withoutRights(Body body) {
    ChildEnd const end = support::runInChild([&body] {
        rlimit const none{0, 0};
        EXPECT_EQ(0, setrlimit(RLIMIT_RTPRIO, &none));
        EXPECT_EQ(0, setrlimit(RLIMIT_NICE, &none));
        if (geteuid() == 0) {
            EXPECT_EQ(0, setgroups(0, nullptr));
            EXPECT_EQ(0, setgid(65534));
            EXPECT_EQ(0, setuid(65534));
        }
        body();
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0, end.signal) << end.output << end.errors;
}

TEST(ThreadWithoutRights, realTimeThreadRunsWithInheritedSchedulingAndNoError) {
    withoutRights([] {
        for (Policy_E const policy : {VESK_SCHED_POLICY_FIFO, VESK_SCHED_POLICY_RR}) {
            Seen seen;
            Thread thread(look, &seen, "modest", makeAttr(policy, 10), false);
            EXPECT_FALSE(std::ErrorStorage::isError(false));
            runToEnd(thread);
            expectSeen(seen, SCHED_OTHER, 0);
            EXPECT_STREQ("modest", seen.name);
            EXPECT_TRUE(chainIs({}));
        }
    });
}

TEST(ThreadWithoutRights, niceValueThatIsRefusedLeavesTheThreadRunning) {
    withoutRights([] {
        int const mine = getpriority(PRIO_PROCESS, 0);
        Seen const seen = seeIn(makeAttr(VESK_SCHED_POLICY_NORMAL, 0, mine - 1));
        EXPECT_EQ(mine, seen.nice);
    });
}

TEST(ThreadWithoutRights, settingARealTimePolicyIsRefused) {
    withoutRights([] {
        Thread thread(doNothing, nullptr);
        EXPECT_TRUE(thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_RR, 1)));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EPERM))},
             {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED,
              rowText(Thread::ErrorId::SCHEDULING_FAILED, "setting scheduling policy/parameter failed")}}));
        EXPECT_EQ(SCHED_OTHER, sched_getscheduler(0));
    });
}

TEST(ThreadWithoutRights, loweringANiceValueIsRefused) {
    withoutRights([] {
        Event ready;
        Event go;
        Body body = [&] {
            ready.set();
            EXPECT_TRUE(go.wait());
        };
        Thread thread(run, &body);
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(ready.wait());
        EXPECT_TRUE(thread.setPriority(getpriority(PRIO_PROCESS, 0) - 1));
        // The system tells it as EACCES, which is not the row of missing privileges.
        EXPECT_TRUE(chainIs(
            {{Thread::ErrorId::SCHEDULING_FAILED,
              rowText(Thread::ErrorId::SCHEDULING_FAILED, systemText(EACCES))}}));
        go.set();
        EXPECT_FALSE(thread.join());
    });
}

TEST(ThreadWithoutRights, raisingARealTimePriorityIsRefused) {
    int refused = 0;
    std::thread([&refused] { refused = setPolicy(SCHED_RR, 1); }).join();
    if (refused != 0) {
        GTEST_SKIP() << "no real-time scheduling here: " << systemText(refused);
    }
    ChildEnd const end = support::runInChild([] {
        Event go;
        Body body = [&go] { EXPECT_TRUE(go.wait()); };
        Thread thread(run, &body, nullptr, makeAttr(VESK_SCHED_POLICY_RR, 1), false);
        EXPECT_FALSE(thread.start());
        rlimit const none{0, 0};
        EXPECT_EQ(0, setrlimit(RLIMIT_RTPRIO, &none));
        EXPECT_EQ(0, setgid(65534));
        EXPECT_EQ(0, setuid(65534));
        EXPECT_TRUE(thread.setPriority(2));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
             {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED,
              rowText(Thread::ErrorId::SCHEDULING_FAILED, "insufficient privileges")}}));
        EXPECT_EQ(1, thread.getPriority());
        go.set();
        EXPECT_FALSE(thread.join());
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

// ---- a thread that runs ----

/// A thread in its body, as long as the test wants it.
class ThreadRunning : public support::ThreadsGone {
protected:
    void SetUp() override {
        EXPECT_FALSE(m_thread.start());
        EXPECT_TRUE(m_ready.wait());
    }
    void TearDown() override {
        end();
        support::ThreadsGone::TearDown();
    }
    void end() {
        m_go.set();
        if (m_thread.getThreadState() != Thread::DEAD) {
            EXPECT_FALSE(m_thread.join());
        }
    }

    /// How the system sees it.
    void expectKernel(int policy, int priority, int nice) const {
        int kernel_policy = sched_getscheduler(m_tid);
        sched_param param{};
        EXPECT_EQ(0, sched_getparam(m_tid, &param));
        EXPECT_EQ(policy, kernel_policy);
        EXPECT_EQ(priority, param.sched_priority);
        EXPECT_EQ(nice, getpriority(PRIO_PROCESS, static_cast<id_t>(m_tid)));
    }

    /// Brings it under a real-time policy behind the library's back; false if the system refuses.
    bool makeRealTime(int policy, int priority) {
        sched_param param{};
        param.sched_priority = priority;
        return pthread_setschedparam(m_thread.getThreadId().getValue(), policy, &param) == 0;
    }

    Event m_ready;
    Event m_go;
    std::atomic<pid_t> m_tid{0};
    int m_nice = getpriority(PRIO_PROCESS, 0);
    Body m_body = [this] {
        m_tid = static_cast<pid_t>(syscall(SYS_gettid));
        m_ready.set();
        EXPECT_TRUE(m_go.wait());
    };
    Thread m_thread{run, &m_body};
};

#define SKIP_UNLESS_REAL_TIME(policy, priority)                                                              \
    if (!makeRealTime(policy, priority)) {                                                                   \
        GTEST_SKIP() << "no real-time scheduling here";                                                      \
    }

constexpr char const* NOT_SET = "setting scheduling policy/parameter failed";

std::string textOfError2(std::string const& argument) {
    return "getting/setting Thread priority/scheduling parameters failed: " + argument;
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
        Attr attributes = makeMarked();
        EXPECT_FALSE(m_thread.getSchedAttrs(attributes));
        expectAttr(
            attributes, row.policy == SCHED_RR ? VESK_SCHED_POLICY_RR : VESK_SCHED_POLICY_FIFO, row.priority,
            0);
        EXPECT_EQ(row.priority, m_thread.getPriority());
    }
    EXPECT_FALSE(m_thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_NORMAL, 6, 9)));
    expectKernel(SCHED_OTHER, 0, 9);
    Attr attributes = makeMarked();
    EXPECT_FALSE(m_thread.getSchedAttrs(attributes));
    expectAttr(attributes, VESK_SCHED_POLICY_NORMAL, 0, 9);
    EXPECT_EQ(9, m_thread.getPriority());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadRunning, noopAsksTheSystemForNothing) {
    Fault const reads(inject_pthread_getschedparam, 0);
    Fault const writes(inject_pthread_setschedparam, 0);
    EXPECT_FALSE(m_thread.setSchedAttrs(Attr()));
    EXPECT_EQ(0, reads.getCalls() + writes.getCalls());
}

class ThreadRunningClasses : public ThreadRunning, public testing::WithParamInterface<int> {};

TEST_P(ThreadRunningClasses, areRefused) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(m_thread.setSchedAttrs(makeAttr(static_cast<Policy_E>(GetParam()), 1, 1)));
    EXPECT_TRUE(chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2("unexpected policy")}}));
    expectKernel(SCHED_OTHER, 0, m_nice);
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadRunningClasses,
    testing::Values(
        VESK_SCHED_CLASS_IDLE, VESK_SCHED_CLASS_BELOW_NORMAL, VESK_SCHED_CLASS_NORMAL,
        VESK_SCHED_CLASS_ABOVE_NORMAL, VESK_SCHED_CLASS_HIGH, VESK_SCHED_CLASS_REALTIME, 11, -1));

struct SetRow {
    char const* call;
    Injected* function;
    Policy_E policy;
    int error;
};

void PrintTo(SetRow const& row, std::ostream* out) {
    *out << row.call << " errno " << row.error;
}

class ThreadSetSchedAttrsRows : public ThreadRunning, public testing::WithParamInterface<SetRow> {};

TEST_P(ThreadSetSchedAttrsRows, areUnclassified) {
    SetRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(*row.function, row.error);
        Fault const writes(inject_setpriority, row.function == &inject_setpriority ? row.error : 0);
        EXPECT_TRUE(m_thread.setSchedAttrs(makeAttr(row.policy, 1, m_nice)));
        EXPECT_EQ(row.function == &inject_setpriority ? 1 : 0, writes.getCalls());
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(row.error))},
         {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED, textOfError2(NOT_SET)}}));
    expectKernel(SCHED_OTHER, 0, m_nice);
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadSetSchedAttrsRows,
    testing::Values(
        SetRow{"getschedparam", &inject_pthread_getschedparam, VESK_SCHED_POLICY_KEEP, ESRCH},
        SetRow{"setschedparam", &inject_pthread_setschedparam, VESK_SCHED_POLICY_KEEP, EINVAL},
        SetRow{"setschedparam", &inject_pthread_setschedparam, VESK_SCHED_POLICY_RR, EPERM},
        SetRow{"setschedparam", &inject_pthread_setschedparam, VESK_SCHED_POLICY_FIFO, EINVAL},
        SetRow{"setschedparam", &inject_pthread_setschedparam, VESK_SCHED_POLICY_NORMAL, ENOTSUP},
        SetRow{"setpriority", &inject_setpriority, VESK_SCHED_POLICY_NORMAL, EACCES},
        SetRow{"setpriority", &inject_setpriority, VESK_SCHED_POLICY_NORMAL, ESRCH}));

TEST_F(ThreadRunning, keepOnATimeSharingThreadIsRefusedWithAPriority) {
    EXPECT_TRUE(m_thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_KEEP, 1, 0)));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EINVAL))},
         {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED}}));
    EXPECT_FALSE(m_thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_KEEP, 0, 0)));
}

// ---- setPriority and getPriority ----

TEST_F(ThreadRunning, priorityIsTheNiceValueInATimeSharingThread) {
    for (int const nice : {m_nice, 18, 19}) {
        EXPECT_FALSE(m_thread.setPriority(nice));
        expectKernel(SCHED_OTHER, 0, nice);
        EXPECT_EQ(nice, m_thread.getPriority());
    }
    EXPECT_EQ(m_nice, getpriority(PRIO_PROCESS, 0));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadRunning, niceValueOfMinusOneComesThrough) {
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(m_tid), -1) != 0) {
        GTEST_SKIP() << "no right to be less nice: " << systemText(errno);
    }
    EXPECT_EQ(-1, m_thread.getPriority());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(m_thread.setPriority(-20));
    EXPECT_EQ(-20, m_thread.getPriority());
}

TEST_F(ThreadRunning, priorityIsThatOfTheRealTimePolicy) {
    SKIP_UNLESS_REAL_TIME(SCHED_FIFO, 1);
    EXPECT_FALSE(m_thread.setPriority(9));
    expectKernel(SCHED_FIFO, 9, m_nice);
    EXPECT_EQ(9, m_thread.getPriority());
    ASSERT_TRUE(makeRealTime(SCHED_RR, 1));
    EXPECT_FALSE(m_thread.setPriority(11));
    expectKernel(SCHED_RR, 11, m_nice);
}

TEST_F(ThreadRunning, priorityOutOfRangeIsRefusedByTheSystem) {
    SKIP_UNLESS_REAL_TIME(SCHED_FIFO, 1);
    EXPECT_TRUE(m_thread.setPriority(1000));
    EXPECT_TRUE(chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2(systemText(EINVAL))}}));
    EXPECT_EQ(1, m_thread.getPriority());
}

TEST_F(ThreadRunning, priorityOfAnUnknownPolicyIsNeitherSetNorRead) {
    if (!makeRealTime(SCHED_BATCH, 0)) {
        GTEST_SKIP() << "no SCHED_BATCH here";
    }
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    EXPECT_TRUE(m_thread.setPriority(1));
    EXPECT_TRUE(
        chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2("read unexpected policy from thread")}}));
    EXPECT_EQ(std::numeric_limits<int>::min(), m_thread.getPriority());
    EXPECT_TRUE(
        chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2("read unexpected policy from thread")}}));
    Attr attributes = makeMarked();
    EXPECT_TRUE(m_thread.getSchedAttrs(attributes));
    expectFailed(attributes);
    std::ErrorStorage::ack();
}

TEST_F(ThreadRunning, priorityThatCannotBeReadIsTheLowestInteger) {
    {
        Fault const fault(inject_pthread_getschedparam, EPERM);
        EXPECT_EQ(-2147483647 - 1, m_thread.getPriority());
    }
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EPERM))}}));
    {
        Fault const fault(inject_getpriority, EACCES);
        EXPECT_EQ(-2147483647 - 1, m_thread.getPriority());
    }
    EXPECT_TRUE(chainIs({{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EACCES))}}));
}

TEST_F(ThreadRunning, setPriorityThatCannotLockOrUnlockDoesNothing) {
    for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
        Fault const reads(inject_pthread_getschedparam, 0);
        {
            Fault const fault(*function, EINVAL);
            EXPECT_TRUE(m_thread.setPriority(19));
        }
        EXPECT_EQ(0, reads.getCalls());
        EXPECT_TRUE(chainIs(
            {{Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(EINVAL))},
             {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED, textOfError2(systemText(EINVAL))}}));
    }
    expectKernel(SCHED_OTHER, 0, m_nice);
}

TEST_F(ThreadRunning, setPriorityThatCannotReadThePolicyReportsOnTop) {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    Fault const fault(inject_pthread_getschedparam, ESRCH);
    EXPECT_TRUE(m_thread.setPriority(19));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::NO_SUCH_PROCESS},
         {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED, textOfError2(systemText(ESRCH))}}));
    expectKernel(SCHED_OTHER, 0, m_nice);
}

class ThreadSetPriorityRows : public ThreadRunning, public testing::WithParamInterface<SetRow> {};

TEST_P(ThreadSetPriorityRows, report) {
    SetRow const& row = GetParam();
    if (row.policy == VESK_SCHED_POLICY_RR) {
        SKIP_UNLESS_REAL_TIME(SCHED_RR, 1);
    }
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(*row.function, row.error);
        EXPECT_TRUE(m_thread.setPriority(2));
    }
    if (row.error == EPERM) {
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EPERM))},
             {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED, textOfError2("insufficient privileges")}}));
    } else {
        EXPECT_TRUE(chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2(systemText(row.error))}}));
    }
    EXPECT_EQ(row.policy == VESK_SCHED_POLICY_RR ? 1 : m_nice, m_thread.getPriority());
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadSetPriorityRows,
    testing::Values(
        SetRow{"setpriority", &inject_setpriority, VESK_SCHED_POLICY_NORMAL, EPERM},
        SetRow{"setpriority", &inject_setpriority, VESK_SCHED_POLICY_NORMAL, EACCES},
        SetRow{"setpriority", &inject_setpriority, VESK_SCHED_POLICY_NORMAL, ESRCH},
        SetRow{"setschedparam", &inject_pthread_setschedparam, VESK_SCHED_POLICY_RR, EPERM},
        SetRow{"setschedparam", &inject_pthread_setschedparam, VESK_SCHED_POLICY_RR, EINVAL}));

TEST_F(ThreadRunning, setPriorityOfAThreadThatIsOverDoesNothing) {
    m_go.set();
    EXPECT_TRUE(eventually([this] { return m_thread.getThreadState() == Thread::FINISHED; }));
    Fault const reads(inject_pthread_getschedparam, 0);
    EXPECT_FALSE(m_thread.setPriority(1000));
    EXPECT_FALSE(m_thread.join());
    EXPECT_FALSE(m_thread.setPriority(1000));
    EXPECT_EQ(0, reads.getCalls());
    EXPECT_TRUE(chainIs({}));
}

// ---- threads that are gone: their handles may be those of others by now ----

void expectGone(Thread& thread) {
    Fault const reads(inject_pthread_getschedparam, 0);
    Fault const writes(inject_pthread_setschedparam, 0);
    Fault const nices(inject_setpriority, 0);
    ExpectedReport const cause(
        SysError, SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(ESRCH)));
    ExpectedReport const not_set(Thread::Error, Thread::ErrorId::SCHEDULING_FAILED, textOfError2(NOT_SET));
    for (Policy_E const policy :
         {VESK_SCHED_POLICY_KEEP, VESK_SCHED_POLICY_RR, VESK_SCHED_POLICY_FIFO, VESK_SCHED_POLICY_NORMAL}) {
        EXPECT_TRUE(thread.setSchedAttrs(makeAttr(policy, 1, 19)));
        EXPECT_TRUE(chainIs({cause, not_set}));
    }
    Attr attributes = makeMarked();
    EXPECT_TRUE(thread.getSchedAttrs(attributes));
    EXPECT_TRUE(chainIs({cause}));
    expectFailed(attributes);
    EXPECT_EQ(std::numeric_limits<int>::min(), thread.getPriority());
    EXPECT_TRUE(chainIs({cause}));
    std::vector<bool> processors;
    EXPECT_TRUE(thread.getCPUAffinity(processors));
    EXPECT_TRUE(chainIs({cause}));
    EXPECT_TRUE(thread.setCPUAffinity({}));
    EXPECT_TRUE(chainIs({cause}));
    EXPECT_EQ(0, reads.getCalls() + writes.getCalls() + nices.getCalls());
}

TEST_F(ThreadRunning, nothingIsSetOnceItWasJoined) {
    end();
    expectGone(m_thread);
}

TEST_F(ThreadRunning, nothingIsSetOnceADetachedOneIsGone) {
    int const before = support::countThreads();
    Thread thread(doNothing, nullptr, nullptr, Attr(), true);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    // A new thread mostly gets the place of the old one.
    Event go;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread next(run, &body);
    EXPECT_FALSE(next.start());
    expectGone(thread);
    EXPECT_TRUE(thread.setPriority(19));
    EXPECT_TRUE(chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2(systemText(ESRCH))}}));
    EXPECT_EQ(m_nice, next.getPriority());
    go.set();
    EXPECT_FALSE(next.join());
}

TEST_F(ThreadRunning, nothingIsSetOnceATerminatedOneIsGone) {
    int const before = support::countThreads();
    Event ready;
    Body body = [&ready] {
        ready.set();
        support::waitForCancellation();
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(ready.wait());
    EXPECT_FALSE(thread.terminate());
    EXPECT_TRUE(eventually([before] { return support::countThreads() == before; }));
    expectGone(thread);
}

TEST_F(ThreadRunning, operationsFightWithTheEndOfADetachedThread) {
    for (int round = 0; round < 2000; ++round) {
        Thread thread(doNothing, nullptr, nullptr, Attr(), true);
        EXPECT_FALSE(thread.start());
        std::vector<bool> processors;
        Attr attributes;
        for (volatile int i = 0; i < round * 7919 % 50000; i = i + 1) {}
        ASSERT_TRUE(
            !thread.setSchedAttrs(makeAttr(VESK_SCHED_POLICY_NORMAL, 0, m_nice)) ||
            chainIs({{SysErrorId::UNCLASSIFIED}, {Thread::Error, Thread::ErrorId::SCHEDULING_FAILED}}));
        ASSERT_TRUE(!thread.getSchedAttrs(attributes) || chainIs({{SysErrorId::UNCLASSIFIED}}));
        ASSERT_TRUE(!thread.getCPUAffinity(processors) || chainIs({{SysErrorId::UNCLASSIFIED}}));
        ASSERT_TRUE(!thread.setCPUAffinity({}) || chainIs({{SysErrorId::UNCLASSIFIED}}));
        ASSERT_TRUE(!thread.setPriority(m_nice) || chainIs({{Thread::ErrorId::SCHEDULING_FAILED}}));
    }
    EXPECT_EQ(m_nice, getpriority(PRIO_PROCESS, 0));
}

TEST_F(ThreadRunning, exitHandlersStillSeeTheirOwnScheduling) {
    static int s_priority;
    Body body = [] {
        Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) {
            s_priority = static_cast<Thread*>(Thread::s_tls_ctrl_object.get())->getPriority();
        });
    };
    Thread thread(run, &body, nullptr, makeAttr(VESK_SCHED_POLICY_NORMAL, 0, 15), false);
    runToEnd(thread);
    EXPECT_EQ(15, s_priority);
}

// ---- the limits ----

TEST(ThreadPriorityLimits, areThoseOfTheCallersPolicy) {
    EXPECT_EQ(0, Thread::getMinPriority());
    EXPECT_EQ(0, Thread::getMaxPriority());
    inThread("SCHED_RR", makeRoundRobin, [] {
        EXPECT_EQ(sched_get_priority_min(SCHED_RR), Thread::getMinPriority());
        EXPECT_EQ(sched_get_priority_max(SCHED_RR), Thread::getMaxPriority());
        EXPECT_LT(Thread::getMinPriority(), Thread::getMaxPriority());
    });
    EXPECT_TRUE(chainIs({}));
}

struct LimitRow {
    char const* name;
    int (*get)();
    Injected* function;
    int error;
};

void PrintTo(LimitRow const& row, std::ostream* out) {
    *out << row.name << " errno " << row.error;
}

class ThreadPriorityLimitRows : public testing::TestWithParam<LimitRow> {};

TEST_P(ThreadPriorityLimitRows, report) {
    LimitRow const& row = GetParam();
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(*row.function, row.error);
        EXPECT_EQ(-2147483647 - 1, row.get());
    }
    EXPECT_TRUE(chainIs({{Thread::ErrorId::SCHEDULING_FAILED, textOfError2(systemText(row.error))}}));
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadPriorityLimitRows,
    testing::Values(
        LimitRow{"minimum without policy", Thread::getMinPriority, &inject_pthread_getschedparam, ESRCH},
        LimitRow{"maximum without policy", Thread::getMaxPriority, &inject_pthread_getschedparam, EPERM},
        LimitRow{"minimum", Thread::getMinPriority, &inject_sched_get_priority_min, EINVAL},
        LimitRow{"maximum", Thread::getMaxPriority, &inject_sched_get_priority_max, ENOSYS}));

// ---- the main thread ----

TEST(ThreadMainSchedAttrs, areThoseOfTheStartUp) {
    ChildEnd const end = support::runInChild([] {
        expectAttr(Thread::getMainSchedAttrs(), VESK_SCHED_NOOP, 0, 0);
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 18));
        vesk::Vesk const vesk(true, false);
        ASSERT_EQ(0, setpriority(PRIO_PROCESS, 0, 19));
        expectAttr(Thread::getMainSchedAttrs(), VESK_SCHED_POLICY_NORMAL, 0, 18);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

// ---- the family ----

TEST(ThreadError, hasItsRows) {
    char const* const formats[] = {
        "Thread creation failed: %s",
        "Thread start failed: %s",
        "getting/setting Thread priority/scheduling parameters failed: %s",
        "Thread yield failed: %s",
        "Thread join failed: %s",
        "Thread terminate failed: %s",
    };
    for (int id = 0; id < 6; ++id) {
        std::ErrorID const* const row = Thread::Error.getRow(id);
        ASSERT_NE(nullptr, row);
        EXPECT_EQ(id, row->id);
        EXPECT_STREQ(formats[id], row->format);
        EXPECT_EQ(1, row->nargs);
    }
    EXPECT_EQ(nullptr, Thread::Error.getRow(6));
    EXPECT_TRUE(Thread::Error.isA(SysError));
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

support::Injected inject_pthread_create("pthread_create");
extern "C" VESK_UNWATCHED int pthread_create(
    pthread_t* thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument) {
    if (g_gate != nullptr) {
        g_held_function = function;
        function = runBehindTheGate;
    }
    return reinterpret_cast<decltype(&pthread_create)>(inject_pthread_create.getReal())(
        thread, attributes, function, argument);
}

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
