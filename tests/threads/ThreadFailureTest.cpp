#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "threads/ThreadSupport.h"

#include <vesk/SysError.h>
#include <vesk/Thread.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <pthread.h>
#include <string>
#include <vector>

namespace {

// What the library hands to the system.
void* (*g_start_routine)(void*) = nullptr;
std::vector<int>* g_inheritance =
    nullptr; // Who wants to know, if anybody. Threads are made before main, too.
// Whether a failing unlock lets go of the lock all the same.
std::atomic<bool> g_failing_unlock_unlocks{true};
// Counts down the locks of this thread to the one that waits until there are no more threads than that.
thread_local int t_locks_to_hold = 0;
thread_local int t_threads_to_wait_for = 0;
// How many allocations that may fail do.
thread_local int t_failing_allocations = 0;

template <typename Function>
Function* getReal(support::Injected& injected, Function*) {
    return reinterpret_cast<Function*>(injected.getReal());
}

} // namespace

support::Injected inject_pthread_create("pthread_create");
extern "C" VESK_UNWATCHED int
pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*start)(void*), void* argument) {
    g_start_routine = start;
    int inheritance = -1;
    if (attributes != nullptr) {
        pthread_attr_getinheritsched(attributes, &inheritance);
    }
    if (g_inheritance != nullptr) {
        g_inheritance->push_back(inheritance);
    }
    int error = 0;
    if (inject_pthread_create.fails(error)) {
        return error;
    }
    return getReal(inject_pthread_create, &pthread_create)(thread, attributes, start, argument);
}

support::Injected inject_pthread_mutex_lock("pthread_mutex_lock");
extern "C" VESK_UNWATCHED int pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (t_locks_to_hold > 0 && --t_locks_to_hold == 0) {
        EXPECT_TRUE(support::eventually([] { return support::countThreads() <= t_threads_to_wait_for; }));
    }
    int error = 0;
    if (inject_pthread_mutex_lock.fails(error)) {
        return error;
    }
    return getReal(inject_pthread_mutex_lock, &pthread_mutex_lock)(mutex);
}

support::Injected inject_pthread_mutex_unlock("pthread_mutex_unlock");
extern "C" VESK_UNWATCHED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    int error = 0;
    bool const fails = inject_pthread_mutex_unlock.fails(error);
    if (fails && !g_failing_unlock_unlocks) {
        return error;
    }
    int const result = getReal(inject_pthread_mutex_unlock, &pthread_mutex_unlock)(mutex);
    return fails ? error : result;
}

void* operator new(size_t size, std::nothrow_t const&) noexcept {
    if (t_failing_allocations > 0) {
        --t_failing_allocations;
        return nullptr;
    }
    return ::operator new(size);
}

VESK_INJECT_ERRNO(char*, nullptr, strdup, (char const* text), (text))
VESK_INJECT_RESULT(pthread_attr_init, (pthread_attr_t * a), (a))
VESK_INJECT_RESULT(pthread_attr_destroy, (pthread_attr_t * a), (a))
VESK_INJECT_RESULT(pthread_attr_setdetachstate, (pthread_attr_t * a, int state), (a, state))
VESK_INJECT_RESULT(pthread_join, (pthread_t thread, void** result), (thread, result))
VESK_INJECT_RESULT(
    pthread_timedjoin_np, (pthread_t thread, void** result, timespec const* t), (thread, result, t))
VESK_INJECT_RESULT(pthread_cancel, (pthread_t thread), (thread))
VESK_INJECT_RESULT(pthread_detach, (pthread_t thread), (thread))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(
    pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, timespec const* t), (c, m, t))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::Event;
using support::EventRecorder;
using support::eventually;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::SetAtEnd;
using support::systemText;
using support::waitForCancellation;
using vesk::Mutex;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;
using vesk::sched::Attr;

using Body = std::function<void()>;
void run(void* body) {
    (*static_cast<Body*>(body))();
}

void doNothing(void*) {}

constexpr Fault::Threads OTHERS = Fault::Threads::OTHERS;

std::string aborted(std::string const& function, std::string const& text) {
    return "ABORT framework/src/vesk/posix/Thread " + function + ": " + text;
}

ExpectedReport failed(int id, int error) {
    return {Thread::Error, id, rowText(Thread::Error, id, systemText(error))};
}

ExpectedReport lockFailed(int error) {
    return {
        Mutex::Error, Mutex::ErrorId::INCONSISTENT, rowText(Mutex::ErrorId::INCONSISTENT, systemText(error))};
}

void makeOlder() {
    std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
}
ExpectedReport const OLDER{SysError, SysErrorId::NO_SUCH_PROCESS};

class ThreadFailure : public support::ThreadsGone {
protected:
    void SetUp() override { g_failing_unlock_unlocks = true; }
};

// ---- creation ----

struct CreationRow {
    char const* call;
    Injected* function;
    int error;
    int times;
    int id;
    char const* text;
    bool on_top; // Whether it goes on top of what is pending.
};

void PrintTo(CreationRow const& row, std::ostream* out) {
    *out << row.call << " errno " << row.error;
}

class ThreadCreationRows : public ThreadFailure, public testing::WithParamInterface<CreationRow> {};

TEST_P(ThreadCreationRows, leaveAnInvalidObject) {
    CreationRow const& row = GetParam();
    Fault const made(inject_pthread_attr_init, 0);
    Fault const destroyed(inject_pthread_attr_destroy, 0);
    makeOlder();
    {
        Fault const fault(*row.function, row.error, 1, row.times);
        Thread const thread(doNothing, nullptr, "name");
        EXPECT_FALSE(thread.isValid());
        EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    }
    std::vector<ExpectedReport> expected = {
        {SysError, row.id, rowText(SysError, row.id, systemText(row.error))},
        {Thread::Error, Thread::ErrorId::CREATE_FAILED, std::string("Thread creation failed: ") + row.text}};
    if (row.on_top) {
        expected.insert(expected.begin(), OLDER);
    }
    EXPECT_TRUE(chainIs(expected));
    EXPECT_EQ(row.function == &inject_pthread_attr_init ? 0 : 1, destroyed.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadCreationRows,
    testing::Values(
        CreationRow{"attr_init", &inject_pthread_attr_init, ENOMEM, 1, 1, "attribute init failed", false},
        CreationRow{"attr_init", &inject_pthread_attr_init, EINVAL, 1, 19, "attribute init failed", false},
        CreationRow{
            "setdetachstate", &inject_pthread_attr_setdetachstate, EINVAL, 1, 19,
            "Error setting detached state", false},
        CreationRow{
            "setdetachstate", &inject_pthread_attr_setdetachstate, ENOMEM, 1, 19,
            "Error setting detached state", false},
        CreationRow{"create", &inject_pthread_create, EPERM, 2, 7, "thread creation failed", true},
        CreationRow{"create", &inject_pthread_create, EAGAIN, 1, 0, "thread creation failed", true},
        CreationRow{"create", &inject_pthread_create, EINVAL, 2, 19, "thread creation failed", true},
        CreationRow{"create", &inject_pthread_create, ENOMEM, 1, 19, "thread creation failed", true}));

TEST_F(ThreadFailure, creationOpensAChainIfNothingIsPending) {
    Fault const fault(inject_pthread_create, EAGAIN);
    Thread const thread(doNothing, nullptr);
    EXPECT_FALSE(thread.isValid());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::RESOURCES_EXHAUSTED, rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EAGAIN))},
         {Thread::Error, Thread::ErrorId::CREATE_FAILED, "Thread creation failed: thread creation failed"}}));
}

TEST_F(ThreadFailure, creationReportsFromItsSource) {
    Fault const fault(inject_pthread_create, EAGAIN);
    Thread const thread(doNothing, nullptr);
    for (auto const* report = std::ErrorStorage::get(); report != nullptr; report = report->next) {
        EXPECT_STREQ("framework/src/vesk/posix/Thread", report->file);
    }
}

class ThreadSecondTry : public ThreadFailure, public testing::WithParamInterface<int> {};

TEST_P(ThreadSecondTry, inheritsItsScheduling) {
    makeOlder();
    std::atomic<bool> ran{false};
    Body body = [&ran] { ran = true; };
    Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    std::vector<int> inheritance;
    g_inheritance = &inheritance;
    Fault const fault(inject_pthread_create, GetParam());
    Thread thread(run, &body, "second", attributes, false);
    g_inheritance = nullptr;
    EXPECT_TRUE(thread.isValid());
    EXPECT_EQ(2, fault.getCalls());
    EXPECT_EQ((std::vector<int>{PTHREAD_EXPLICIT_SCHED, PTHREAD_INHERIT_SCHED}), inheritance);
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_TRUE(ran);
    EXPECT_TRUE(chainIs({OLDER}));
}

INSTANTIATE_TEST_SUITE_P(All, ThreadSecondTry, testing::Values(EPERM, EINVAL));

TEST_F(ThreadFailure, onlyPermissionAndParametersAreWorthASecondTry) {
    Fault const fault(inject_pthread_create, EAGAIN, 1, 2);
    Thread const thread(doNothing, nullptr);
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(thread.isValid());
    EXPECT_TRUE(
        chainIs({{SysErrorId::RESOURCES_EXHAUSTED}, {Thread::Error, Thread::ErrorId::CREATE_FAILED}}));
}

TEST_F(ThreadFailure, invalidObjectRefusesEverythingThatLooksAtItsState) {
    std::unique_ptr<Thread> thread;
    {
        Fault const fault(inject_pthread_create, EAGAIN);
        thread = std::make_unique<Thread>(doNothing, nullptr);
    }
    EXPECT_TRUE(thread->start());
    EXPECT_TRUE(thread->join());
    EXPECT_TRUE(thread->terminate());
    EXPECT_FALSE(thread->wakeup());
    EXPECT_FALSE(thread->setPriority(1));
    EXPECT_TRUE(thread->setSchedAttrs({vesk::sched::VESK_SCHED_POLICY_NORMAL, {}})) << "there is no thread";
    std::ErrorStorage::ack();
}

TEST_F(ThreadFailure, creationWaitsForMemory) {
    EventRecorder const recorder;
    t_failing_allocations = 2;
    Thread const thread(doNothing, nullptr);
    EXPECT_TRUE(thread.isValid());
    EXPECT_EQ(0, t_failing_allocations);
    EXPECT_EQ(
        "OUT_OF_MEMORY framework/src/vesk/posix/Thread Thread: cannot allocate what thread and object share\n"
        "OUT_OF_MEMORY framework/src/vesk/posix/Thread Thread: cannot allocate what thread and object share",
        recorder.getText());
}

TEST_F(ThreadFailure, nameThatCannotBeCopiedIsNoReasonToFail) {
    char mine[64] = "";
    ASSERT_EQ(0, pthread_getname_np(pthread_self(), mine, sizeof mine));
    char shown[64] = "";
    Body body = [&shown] { EXPECT_EQ(0, pthread_getname_np(pthread_self(), shown, sizeof shown)); };
    Fault const fault(inject_strdup, ENOMEM);
    Thread thread(run, &body, "forgotten");
    EXPECT_TRUE(thread.isValid());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
    EXPECT_STREQ(mine, shown);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(ThreadFailure, wrapperWithoutItsObjectIsAsserted) {
    { Thread const thread(doNothing, nullptr); }
    ASSERT_NE(nullptr, g_start_routine);
    EventRecorder const recorder;
    EXPECT_EQ(nullptr, g_start_routine(nullptr));
    EXPECT_EQ("ASSERT framework/src/vesk/posix/Thread threadWrapper: p_arg", recorder.getText());
}

// ---- start ----

TEST_F(ThreadFailure, startThatCannotLockLeavesTheState) {
    Thread thread(doNothing, nullptr);
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_TRUE(thread.start());
    }
    EXPECT_TRUE(chainIs({lockFailed(EINVAL), failed(1, EINVAL)}));
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, startThatCannotUnlockHasStartedAndFails) {
    Thread thread(doNothing, nullptr);
    {
        // Behind that of the condition's own lock.
        Fault const fault(inject_pthread_mutex_unlock, EPERM, 2);
        EXPECT_TRUE(thread.start());
    }
    EXPECT_TRUE(chainIs({lockFailed(EPERM), failed(1, EPERM)}));
    EXPECT_FALSE(thread.join());
}

struct SignalRow {
    int error;
    int id;
};

void PrintTo(SignalRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class ThreadSignalRows : public ThreadFailure, public testing::WithParamInterface<SignalRow> {};

INSTANTIATE_TEST_SUITE_P(
    All, ThreadSignalRows, testing::Values(SignalRow{EINVAL, 10}, SignalRow{EAGAIN, 19}));

TEST_P(ThreadSignalRows, startThatCannotSignalLeavesTheStateAndNoLock) {
    Fault const waits(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
    Thread thread(doNothing, nullptr);
    EXPECT_TRUE(eventually([&waits] { return waits.getCalls() > 0; }));
    makeOlder();
    {
        Fault const fault(inject_pthread_cond_signal, GetParam().error);
        EXPECT_TRUE(thread.start());
    }
    EXPECT_TRUE(chainIs({{SysError, GetParam().id}, failed(1, GetParam().error)}));
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

TEST_P(ThreadSignalRows, wakeupThatCannotSignalLeavesTheStateAndNoLock) {
    Thread* self = nullptr;
    Body body = [&self] { EXPECT_FALSE(self->suspend(0)); };
    Thread thread(run, &body);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(eventually([&] { return thread.getThreadState() == Thread::SUSPENDED; }));
    makeOlder();
    {
        Fault const fault(inject_pthread_cond_signal, GetParam().error);
        EXPECT_TRUE(thread.wakeup());
    }
    EXPECT_TRUE(chainIs({{Thread::ErrorId::WAKEUP_FAILED, "unknown error 7"}})) << "a chain of its own";
    EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
    EXPECT_FALSE(thread.wakeup());
    EXPECT_FALSE(thread.join());
}

// ---- join ----

TEST_F(ThreadFailure, joinThatCannotLockLeavesTheThreadToBeJoined) {
    Thread thread(doNothing, nullptr);
    EXPECT_FALSE(thread.start());
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_TRUE(thread.join());
    }
    EXPECT_TRUE(chainIs({lockFailed(EINVAL), failed(4, EINVAL)}));
    {
        Fault const fault(inject_pthread_mutex_lock, EPERM);
        EXPECT_EQ(-1, thread.joinTimeout(1000));
    }
    EXPECT_TRUE(chainIs({lockFailed(EPERM), failed(4, EPERM)}));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, joinThatCannotUnlockLeavesTheThreadToBeJoined) {
    Thread thread(doNothing, nullptr);
    EXPECT_FALSE(thread.start());
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        EXPECT_TRUE(thread.join());
    }
    EXPECT_TRUE(chainIs({lockFailed(EPERM), failed(4, EPERM)}));
    EXPECT_FALSE(thread.join());
}

class ThreadJoinErrors : public ThreadFailure, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(All, ThreadJoinErrors, testing::Values(EDEADLK, EINVAL, ESRCH));

TEST_P(ThreadJoinErrors, leaveTheThreadToBeJoined) {
    Event go;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    makeOlder();
    {
        Fault const fault(inject_pthread_join, GetParam());
        EXPECT_TRUE(thread.join());
    }
    EXPECT_TRUE(chainIs({failed(4, GetParam())}));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    go.set();
    EXPECT_FALSE(thread.join());
}

TEST_P(ThreadJoinErrors, ofATimedJoinLeaveTheThreadToBeJoined) {
    Thread thread(doNothing, nullptr);
    EXPECT_FALSE(thread.start());
    makeOlder();
    {
        Fault const fault(inject_pthread_timedjoin_np, GetParam());
        EXPECT_EQ(-1, thread.joinTimeout(60000));
    }
    EXPECT_TRUE(chainIs({failed(4, GetParam())}));
    EXPECT_EQ(0, thread.joinTimeout(60000));
}

TEST_F(ThreadFailure, timedJoinThatGivesMinusOneTellsErrno) {
    Thread thread(doNothing, nullptr);
    EXPECT_FALSE(thread.start());
    {
        Fault const fault(inject_pthread_timedjoin_np, -1);
        errno = ENOTSUP;
        EXPECT_EQ(-1, thread.joinTimeout(60000));
    }
    EXPECT_TRUE(chainIs({failed(4, ENOTSUP)}));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, timedJoinThatTimesOutReportsNothing) {
    Event go;
    Body body = [&go] { EXPECT_TRUE(go.wait()); };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    makeOlder();
    {
        Fault const fault(inject_pthread_timedjoin_np, ETIMEDOUT);
        EXPECT_EQ(1, thread.joinTimeout(60000));
    }
    EXPECT_TRUE(chainIs({OLDER}));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    go.set();
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, joinThatCannotMarkItsEndFailsAndIsNotTriedAgain) {
    for (bool const timed : {false, true}) {
        for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
            Thread thread(doNothing, nullptr);
            EXPECT_FALSE(thread.start());
            {
                Fault const fault(*function, EINVAL, 2);
                EXPECT_EQ(timed ? -1 : 1, timed ? thread.joinTimeout(60000) : thread.join());
            }
            EXPECT_TRUE(chainIs({lockFailed(EINVAL), failed(4, EINVAL)}));
            EXPECT_EQ(Thread::DEAD, thread.getThreadState());
            Fault const joins(inject_pthread_join, 0);
            EXPECT_TRUE(thread.join());
            EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
            EXPECT_EQ(0, joins.getCalls());
        }
    }
}

// ---- suspend ----

/// Runs a body in a thread that knows its object.
void inThread(std::function<void(Thread&)> const& body) {
    Thread* self = nullptr;
    Body bound = [&] { body(*self); };
    Thread thread(run, &bound);
    self = &thread;
    EXPECT_FALSE(thread.start());
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, suspendThatCannotLockLeavesTheState) {
    inThread([](Thread& self) {
        {
            Fault const fault(inject_pthread_mutex_lock, EINVAL);
            EXPECT_TRUE(self.suspend(0));
        }
        EXPECT_TRUE(chainIs(
            {lockFailed(EINVAL), {Thread::Error, Thread::ErrorId::SUSPEND_FAILED, "unknown error 6"}}));
        EXPECT_EQ(Thread::RUNNING, self.getThreadState());
    });
}

TEST_F(ThreadFailure, suspendThatCannotWaitLeavesTheStateAndNoLock) {
    inThread([](Thread& self) {
        for (long long const ms : {0, 60000}) {
            makeOlder();
            {
                Fault const wait(inject_pthread_cond_wait, EINVAL);
                Fault const timed_wait(inject_pthread_cond_timedwait, EINVAL);
                EXPECT_TRUE(self.suspend(ms));
            }
            EXPECT_TRUE(chainIs(
                {{SysErrorId::SPOILED_INTEGRITY},
                 {Thread::Error, Thread::ErrorId::SUSPEND_FAILED, "unknown error 6"}}));
            EXPECT_EQ(Thread::RUNNING, self.getThreadState());
        }
    });
}

TEST_F(ThreadFailure, suspendThatCannotUnlockFails) {
    inThread([](Thread& self) {
        {
            // Behind that of the condition's own lock.
            Fault const fault(inject_pthread_mutex_unlock, EPERM, 2);
            EXPECT_TRUE(self.suspend(1));
        }
        EXPECT_TRUE(chainIs(
            {lockFailed(EPERM), {Thread::Error, Thread::ErrorId::SUSPEND_FAILED, "unknown error 6"}}));
        EXPECT_EQ(Thread::SUSPENDED, self.getThreadState()) << "its time has run out";
    });
}

TEST_F(ThreadFailure, suspendThatCannotUnlockOnceItWasTerminatedFails) {
    Event done;
    Body body = [&done] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        auto& self = *static_cast<Thread*>(Thread::s_tls_ctrl_object.get());
        EXPECT_FALSE(self.terminate());
        {
            Fault const fault(inject_pthread_mutex_unlock, EPERM);
            EXPECT_TRUE(self.suspend(0));
        }
        EXPECT_TRUE(chainIs(
            {lockFailed(EPERM), {Thread::Error, Thread::ErrorId::SUSPEND_FAILED, "unknown error 6"}}));
        done.set();
    };
    Thread thread(run, &body);
    EXPECT_FALSE(thread.start());
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
}

// ---- wakeup ----

TEST_F(ThreadFailure, wakeupThatCannotLockOrUnlockReportsInAChainOfItsOwn) {
    Thread thread(doNothing, nullptr);
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_TRUE(thread.wakeup());
    }
    EXPECT_TRUE(chainIs({{Thread::ErrorId::WAKEUP_FAILED, "unknown error 7"}}));
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        EXPECT_TRUE(thread.wakeup());
    }
    EXPECT_TRUE(chainIs({{Thread::ErrorId::WAKEUP_FAILED, "unknown error 7"}}));
    EXPECT_EQ(Thread::CREATED, thread.getThreadState());
}

// ---- terminate ----

std::atomic<int> g_exits{0};

class ThreadTerminateFailure : public ThreadFailure {
protected:
    void SetUp() override {
        ThreadFailure::SetUp();
        g_exits = 0;
    }

    void TearDown() override {
        EXPECT_TRUE(m_left.wait());
        ThreadFailure::TearDown();
    }

    void start(Thread& thread) {
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(m_ready.wait());
    }

    Event m_ready;
    Event m_go;
    Event m_left;
    Body m_body = [this] {
        SetAtEnd const end(m_left);
        Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) { ++g_exits; });
        m_ready.set();
        EXPECT_TRUE(m_go.wait());
    };
};

TEST_F(ThreadTerminateFailure, toLockLeavesTheThreadAlone) {
    Thread thread(run, &m_body);
    start(thread);
    {
        Fault const cancels(inject_pthread_cancel, 0);
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        EXPECT_TRUE(thread.terminate());
        EXPECT_EQ(0, cancels.getCalls());
    }
    EXPECT_TRUE(chainIs({lockFailed(EINVAL), failed(5, EINVAL)}));
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    EXPECT_EQ(0, g_exits);
    m_go.set();
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(1, g_exits);
}

class ThreadCancelErrors : public ThreadTerminateFailure, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(All, ThreadCancelErrors, testing::Values(ESRCH, EPERM));

TEST_P(ThreadCancelErrors, leaveADetachedThreadThatRunsOn) {
    int const error = GetParam();
    Thread thread(run, &m_body);
    start(thread);
    makeOlder();
    {
        Fault const detaches(inject_pthread_detach, 0);
        Fault const fault(inject_pthread_cancel, error);
        EXPECT_TRUE(thread.terminate());
        EXPECT_EQ(1, detaches.getCalls()) << "before the cancellation";
    }
    EXPECT_TRUE(chainIs({OLDER, failed(5, error)})) << "on top of what is pending";
    {
        Fault const fault(inject_pthread_cancel, error);
        EXPECT_TRUE(thread.terminate());
    }
    EXPECT_TRUE(chainIs({failed(5, error)})) << "alone where nothing is";
    EXPECT_EQ(Thread::RUNNING, thread.getThreadState());
    EXPECT_EQ(0, g_exits);
    EXPECT_FALSE(thread.terminate()) << "a later one may get through";
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_EQ(1, g_exits);
    m_go.set();
}

TEST_F(ThreadTerminateFailure, toDetachIsIgnored) {
    Thread thread(run, &m_body);
    start(thread);
    {
        Fault const fault(inject_pthread_detach, EINVAL);
        EXPECT_FALSE(thread.terminate());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    m_go.set();
    EXPECT_EQ(0, pthread_detach(thread.getThreadId().getValue())) << "this test owes it";
}

TEST_F(ThreadTerminateFailure, detachedThreadIsNotDetachedAgain) {
    Thread thread(run, &m_body, nullptr, Attr(), true);
    start(thread);
    Fault const detaches(inject_pthread_detach, 0);
    EXPECT_FALSE(thread.terminate());
    EXPECT_EQ(0, detaches.getCalls());
    m_go.set();
}

TEST_F(ThreadTerminateFailure, toUnlockHasTerminatedWithoutTheHandlers) {
    Thread thread(run, &m_body);
    start(thread);
    {
        // Behind that of the link.
        Fault const fault(inject_pthread_mutex_unlock, EPERM, 2);
        EXPECT_TRUE(thread.terminate());
    }
    EXPECT_TRUE(chainIs({lockFailed(EPERM), failed(5, EPERM)}));
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
    EXPECT_EQ(0, g_exits);
    m_go.set();
}

// ---- the state ----

TEST_F(ThreadFailure, readingTheStateThatCannotLockIsAsserted) {
    for (Injected* const function : {&inject_pthread_mutex_lock, &inject_pthread_mutex_unlock}) {
        Thread const thread(doNothing, nullptr);
        EventRecorder const recorder;
        {
            Fault const fault(*function, EINVAL);
            EXPECT_EQ(Thread::CREATED, thread.getThreadState());
        }
        EXPECT_EQ("ASSERT framework/src/vesk/posix/Thread getThreadState: ! error", recorder.getText());
        EXPECT_TRUE(chainIs({lockFailed(EINVAL)}));
    }
}

// ---- the wrapper, where an abort that returns must leave a thread that goes on ----

// Which call of the new thread locks what, if it waits for its start: the state, the condition's own lock, then, behind
// the body, the link to claim the end, the state, and the link again to leave it.
constexpr int LOCK_STATE = 1;
constexpr int LOCK_TO_FINISH = 4;
// Unlocks: the condition's own lock, the state, the link, the state, the link.
constexpr int UNLOCK_STATE = 2;
constexpr int UNLOCK_TO_FINISH = 4;

struct WrapperRow {
    char const* name;
    Injected* function;
    int nth;
    char const* text;
    bool detached;
    bool unlocks;
};

void PrintTo(WrapperRow const& row, std::ostream* out) {
    *out << row.name;
}

class ThreadWrapperRows : public ThreadFailure, public testing::WithParamInterface<WrapperRow> {};

TEST_P(ThreadWrapperRows, areFatalAndNeitherHangNorStopTheThreadIfTheyAreSurvived) {
    WrapperRow const& row = GetParam();
    g_failing_unlock_unlocks = row.unlocks;
    EventRecorder const recorder;
    std::atomic<int> runs{0};
    Body body = [&runs] { ++runs; };
    {
        Fault const fault(*row.function, EAGAIN, row.nth, 1, OTHERS);
        // Where the fault is not in the wait itself, that shows when the thread is waiting.
        std::unique_ptr<Fault> waits;
        if (row.function != &inject_pthread_cond_wait) {
            waits = std::make_unique<Fault>(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
        }
        Thread thread(run, &body, "wrapped", Attr(), row.detached);
        ASSERT_TRUE(thread.isValid());
        EXPECT_TRUE(eventually([&] { return (waits ? *waits : fault).getCalls() > (waits ? 0 : 1); }));
        EXPECT_FALSE(thread.start());
        if (row.detached) {
            EXPECT_TRUE(eventually([&runs] { return runs == 1; }));
        } else {
            EXPECT_FALSE(thread.join());
        }
        EXPECT_TRUE(eventually(areThreadsGone));
    }
    EXPECT_EQ(1, runs);
    EXPECT_EQ(aborted("threadWrapper", row.text), recorder.getText());
}

INSTANTIATE_TEST_SUITE_P(
    All, ThreadWrapperRows,
    testing::Values(
        WrapperRow{"lock", &inject_pthread_mutex_lock, LOCK_STATE, "error getting state lock", false, true},
        WrapperRow{"wait", &inject_pthread_cond_wait, 1, "error waiting on condition", false, true},
        WrapperRow{"signal", &inject_pthread_cond_signal, 1, "wait failed", true, true},
        WrapperRow{"unlock", &inject_pthread_mutex_unlock, UNLOCK_STATE, "error unlocking", false, true},
        WrapperRow{
            "unlockThatLeavesTheLock", &inject_pthread_mutex_unlock, UNLOCK_STATE, "error unlocking", false,
            false},
        WrapperRow{"lockAtTheEnd", &inject_pthread_mutex_lock, LOCK_TO_FINISH, "error locking", false, true},
        WrapperRow{
            "unlockAtTheEnd", &inject_pthread_mutex_unlock, UNLOCK_TO_FINISH, "error unlocking", false, true},
        WrapperRow{
            "unlockAtTheEndThatLeavesTheLock", &inject_pthread_mutex_unlock, UNLOCK_TO_FINISH,
            "error unlocking", false, false}),
    [](auto const& row) { return row.param.name; });

TEST_F(ThreadFailure, unlockOfAThreadThatIsNotToRunIsFatal) {
    EventRecorder const recorder;
    {
        Fault const waits(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
        Fault const fault(inject_pthread_mutex_unlock, EAGAIN, UNLOCK_STATE, 1, OTHERS);
        Thread const thread([](void*) { ADD_FAILURE() << "ran"; }, nullptr);
        EXPECT_TRUE(eventually([&waits] { return waits.getCalls() > 0; }));
    }
    EXPECT_EQ(aborted("threadWrapper", "error unlocking"), recorder.getText());
}

// ---- the destructor ----

enum class Life { CREATED, CREATED_DETACHED, STARTED_DETACHED, FINISHED, JOINED, RUNNING };

struct DestructorRow {
    char const* name;
    Life life;
    Injected* function;
    int nth;
    char const* text;
    bool unlocks;
};

void PrintTo(DestructorRow const& row, std::ostream* out) {
    *out << row.name;
}

class ThreadDestructorRows : public ThreadFailure, public testing::WithParamInterface<DestructorRow> {};

TEST_P(ThreadDestructorRows, areFatalAndNeitherHangNorLeaveTheThreadIfTheyAreSurvived) {
    DestructorRow const& row = GetParam();
    g_failing_unlock_unlocks = row.unlocks;
    EventRecorder const recorder;
    Event begun;
    Event go;
    Body body = [&] {
        begun.set();
        EXPECT_TRUE(go.wait());
    };
    std::string expected = aborted("~Thread", row.text);
    {
        Fault const waits(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
        bool const detached = row.life == Life::CREATED_DETACHED || row.life == Life::STARTED_DETACHED;
        auto thread = std::make_unique<Thread>(run, &body, "destroyed", Attr(), detached);
        EXPECT_TRUE(eventually([&waits] { return waits.getCalls() > 0; }));
        if (row.life != Life::CREATED && row.life != Life::CREATED_DETACHED) {
            EXPECT_FALSE(thread->start());
            EXPECT_TRUE(begun.wait());
        }
        if (row.life == Life::FINISHED) {
            go.set();
            EXPECT_TRUE(eventually([&] { return thread->getThreadState() == Thread::FINISHED; }));
        } else if (row.life == Life::JOINED) {
            go.set();
            EXPECT_FALSE(thread->join());
        } else if (row.life == Life::RUNNING) {
            expected += "\n" + aborted("~Thread", "thread still running");
            expected += "\nASSERT framework/src/vesk/posix/Thread ~Thread: "
                        "getThreadState() == DEAD || m_detached_mode";
        }
        if (row.life == Life::CREATED_DETACHED) {
            // The destructor need not wait for the thread: it finds it gone.
            t_locks_to_hold = 3;
            t_threads_to_wait_for = support::countThreads() - 1;
        }
        Fault const fault(*row.function, EAGAIN, row.nth);
        thread.reset();
        EXPECT_LE(row.nth, fault.getCalls());
    }
    go.set();
    EXPECT_TRUE(eventually(areThreadsGone));
    EXPECT_EQ(expected, recorder.getText());
    std::ErrorStorage::ack();
}

// Locks of the destructor of a thread that was not started: the state, the condition's own for the signal, and, if
// detached, the state again.
INSTANTIATE_TEST_SUITE_P(
    All, ThreadDestructorRows,
    testing::Values(
        DestructorRow{"lock", Life::CREATED, &inject_pthread_mutex_lock, 1, "error getting state lock", true},
        DestructorRow{
            "signal", Life::CREATED, &inject_pthread_cond_signal, 1, "error unlocking and signaling", true},
        DestructorRow{
            "unlockBehindTheSignal", Life::CREATED, &inject_pthread_mutex_unlock, 2,
            "error unlocking and signaling", true},
        DestructorRow{
            "unlockBehindTheSignalThatLeavesTheLock", Life::CREATED, &inject_pthread_mutex_unlock, 2,
            "error unlocking and signaling", false},
        DestructorRow{
            "join", Life::CREATED, &inject_pthread_join, 1, "error joining non-detached thread", true},
        DestructorRow{
            "lockOfADetachedOne", Life::CREATED_DETACHED, &inject_pthread_mutex_lock, 3, "error locking",
            true},
        DestructorRow{"joinOfAFinishedOne", Life::FINISHED, &inject_pthread_join, 1, "error joining", true},
        DestructorRow{
            "unlockOfAFinishedOne", Life::FINISHED, &inject_pthread_mutex_unlock, 1, "error joining", true},
        DestructorRow{
            "unlockOfAJoinedOne", Life::JOINED, &inject_pthread_mutex_unlock, 1, "error unlocking", true},
        DestructorRow{
            "unlockOfAJoinedOneThatLeavesTheLock", Life::JOINED, &inject_pthread_mutex_unlock, 1,
            "error unlocking", false},
        DestructorRow{
            "unlockOfARunningOne", Life::RUNNING, &inject_pthread_mutex_unlock, 1, "error unlocking", true}),
    [](auto const& row) { return row.param.name; });

TEST_F(ThreadFailure, waitsOfTheDestructorThatFailAreFatalAndRepeated) {
    EventRecorder const recorder;
    int seen = 0;
    // Whether the destructor has to wait is a matter of who is faster, so this may take some rounds.
    for (int round = 0; round < 2000 && seen == 0; ++round) {
        auto thread = std::make_unique<Thread>(doNothing, nullptr, nullptr, Attr(), true);
        if (round % 2 == 0) {
            EXPECT_FALSE(thread->start());
        }
        Fault const fault(inject_pthread_cond_wait, EAGAIN);
        thread.reset();
        seen += fault.getCalls() > 1 ? 1 : 0;
    }
    ASSERT_EQ(1, seen);
    EXPECT_EQ(aborted("~Thread", "wait failed"), recorder.getText());
    std::ErrorStorage::ack();
}

} // namespace
