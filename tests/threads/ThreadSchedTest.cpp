#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

VESK_INJECT_RESULT(
    pthread_getschedparam, (pthread_t thread, int* policy, sched_param* param), (thread, policy, param))
VESK_INJECT_ERRNO(int, -1, getpriority, (__priority_which_t which, id_t who), (which, who))

namespace {

using namespace vesk::sched;
using support::chainIs;
using support::Fault;
using support::rowText;
using support::systemText;
using vesk::SysError;
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
    std::ErrorOutput("older", 1, true)(SysError, 18);
    Attr attributes;
    EXPECT_FALSE(Thread::getCallerSchedAttrs(attributes));
    EXPECT_TRUE(chainIs({{SysError, 18}}));
}

// ---- failures ----

TEST(ThreadCallerSchedAttrs, policyThatTheLibraryDoesNotKnowIsNoop) {
    inThread(
        "SCHED_BATCH", [] { return setPolicy(SCHED_BATCH, 0); },
        [] {
            std::ErrorOutput("older", 1, true)(SysError, 18);
            Attr attributes = makeMarked();
            EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
            expectFailed(attributes);
            EXPECT_TRUE(chainIs(
                {{Thread::Error, 2,
                  "getting/setting Thread priority/scheduling parameters failed: read unexpected policy from "
                  "thread"}}));
        });
}

class ThreadPolicyErrors : public testing::TestWithParam<int> {};

TEST_P(ThreadPolicyErrors, areUnclassified) {
    std::ErrorOutput("older", 1, true)(SysError, 18);
    Attr attributes = makeMarked();
    {
        Fault const fault(inject_pthread_getschedparam, GetParam());
        Fault const nice(inject_getpriority, 0);
        EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
        EXPECT_EQ(0, nice.getCalls());
    }
    expectFailed(attributes);
    EXPECT_TRUE(chainIs({{SysError, 19, rowText(SysError, 19, systemText(GetParam()))}}));
}

INSTANTIATE_TEST_SUITE_P(All, ThreadPolicyErrors, testing::Values(ESRCH, EPERM, EINVAL, ENOSYS));

class ThreadNiceErrors : public testing::TestWithParam<int> {};

TEST_P(ThreadNiceErrors, areUnclassified) {
    std::ErrorOutput("older", 1, true)(SysError, 18);
    Attr attributes = makeMarked();
    {
        Fault const fault(inject_getpriority, GetParam());
        EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
    }
    expectFailed(attributes);
    EXPECT_TRUE(chainIs({{SysError, 19, rowText(SysError, 19, systemText(GetParam()))}}));
}

INSTANTIATE_TEST_SUITE_P(All, ThreadNiceErrors, testing::Values(ESRCH, EINVAL, EACCES, EPERM));

TEST(ThreadCallerSchedAttrs, reportsFromItsSource) {
    Fault const fault(inject_pthread_getschedparam, ESRCH);
    Attr attributes;
    EXPECT_TRUE(Thread::getCallerSchedAttrs(attributes));
    ASSERT_NE(nullptr, std::ErrorStorage::get());
    EXPECT_STREQ("framework/src/vesk/posix/Thread", std::ErrorStorage::get()->file);
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

} // namespace
