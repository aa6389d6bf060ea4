#include "support/FailOnce.h"
#include "support/UnlockFault.h"
#include "threads/ThreadSupport.h"

#include <vesk/Mutex.h>

#include <new>

namespace {

// The last arguments of pthread_create. Some test programs create threads before main.
void* (*g_start_routine)(void*) = nullptr;
std::vector<int>* g_inheritance = nullptr;
// Counts down the locks of this thread to the one that waits until there are this many threads.
thread_local int t_locks_to_hold = 0;
thread_local int t_threads_to_wait_for = 0;
// How many allocations fail.
thread_local int t_failing_allocations = 0;

VESK_UNWATCHED void noteCreation(pthread_attr_t const* attributes, void* (*start)(void*)) {
    g_start_routine = start;
    int inheritance = -1;
    if (attributes != nullptr) {
        pthread_attr_getinheritsched(attributes, &inheritance);
    }
    if (g_inheritance != nullptr) {
        g_inheritance->push_back(inheritance);
    }
}

VESK_UNWATCHED void holdLock() {
    if (t_locks_to_hold > 0 && --t_locks_to_hold == 0) {
        EXPECT_TRUE(support::eventually([] { return support::countThreads() <= t_threads_to_wait_for; }));
    }
}

} // namespace

void* operator new(size_t size, std::nothrow_t const&) noexcept {
    if (t_failing_allocations > 0) {
        --t_failing_allocations;
        return nullptr;
    }
    return ::operator new(size);
}

VESK_INJECT(
    int, return error, pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*start)(void*), void* argument),
    (thread, attributes, start, argument), noteCreation(attributes, start))
VESK_INJECT(int, return error, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), holdLock())
VESK_INJECT_ERRNO(char*, nullptr, strdup, (char const* text), (text))
VESK_INJECT_RESULT(pthread_attr_init, (pthread_attr_t * a), (a))
VESK_INJECT_RESULT(pthread_attr_setinheritsched, (pthread_attr_t * a, int inherit), (a, inherit))
VESK_INJECT_RESULT(pthread_attr_setschedpolicy, (pthread_attr_t * a, int policy), (a, policy))
VESK_INJECT_RESULT(pthread_attr_setschedparam, (pthread_attr_t * a, sched_param const* param), (a, param))
VESK_INJECT_RESULT(
    pthread_getschedparam, (pthread_t thread, int* policy, sched_param* param), (thread, policy, param))
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

using namespace support;
using namespace vesk::sched;
using vesk::Mutex;

constexpr Fault::Threads OTHERS = Fault::Threads::OTHERS;
constexpr auto INCONSISTENT = Mutex::ErrorId::INCONSISTENT;

std::string aborted(std::string const& function, std::string const& text) {
    return "ABORT framework/src/vesk/posix/Thread " + function + ": " + text;
}

testing::AssertionResult failed(std::vector<ExpectedReport> const& reports, int error) {
    return chainIs(withErrno(reports, error));
}

class ThreadFailure : public ThreadsGone {
protected:
    void SetUp() override { g_failing_unlock_unlocks = true; }

    /// Waits for `m_go`.
    Body const m_wait = [this] { EXPECT_TRUE(m_go.wait()); };

    Event m_go;
};

// ---- creation ----

struct CreationRow {
    char const* name;
    Injected* function;
    std::vector<int> errors;
    int calls; ///< For missing rights and invalid parameters the thread is created twice.
    SysErrorId::Id id;
    char const* text;
    Policy_E policy = VESK_SCHED_NOOP; ///< That makes the call that fails.
    int nth = 1;
    int error = 0;
};

Injected* const ATTR_INIT = &inject_pthread_attr_init;
Injected* const DETACH_STATE = &inject_pthread_attr_setdetachstate;
Injected* const CREATE = &inject_pthread_create;
constexpr auto UNCLASSIFIED = SysErrorId::UNCLASSIFIED;
Injected* const INHERIT = &inject_pthread_attr_setinheritsched;
Injected* const READ = &inject_pthread_getschedparam;
Injected* const SET_POLICY = &inject_pthread_attr_setschedpolicy;
Injected* const SET_PARAM = &inject_pthread_attr_setschedparam;
constexpr auto INVALID = SysErrorId::INVALID_PARAMETER;
constexpr Policy_E KEEP = VESK_SCHED_POLICY_KEEP;
constexpr Policy_E HIGH = VESK_SCHED_CLASS_HIGH;
constexpr char const* NO_INHERITANCE = "setting scheduler inheritance failed";
constexpr char const* NO_ATTRIBUTES = "setting scheduling attributes failed";
constexpr char const* NO_INIT = "attribute init failed";
constexpr char const* NO_STATE = "Error setting detached state";
constexpr char const* NO_THREAD = "thread creation failed";

auto const CREATION_ROWS = eachErrno<CreationRow>({
    {"attrInit", ATTR_INIT, {ENOMEM}, 1, SysErrorId::OUT_OF_MEMORY, NO_INIT},
    {"attrInit", ATTR_INIT, {EINVAL}, 1, UNCLASSIFIED, NO_INIT},
    {"setdetachstate", DETACH_STATE, {EINVAL, ENOMEM}, 1, UNCLASSIFIED, NO_STATE},
    {"setinheritsched", INHERIT, {EINVAL, EPERM}, 1, UNCLASSIFIED, NO_INHERITANCE, KEEP},
    {"secondSetinheritsched", INHERIT, {EINVAL, ENOTSUP}, 1, UNCLASSIFIED, NO_INHERITANCE, HIGH, 2},
    {"getschedparam", READ, {EINVAL}, 1, INVALID, NO_ATTRIBUTES, KEEP},
    {"getschedparam", READ, {ESRCH}, 1, UNCLASSIFIED, NO_ATTRIBUTES, KEEP},
    {"setschedpolicy", SET_POLICY, {EINVAL}, 1, INVALID, NO_ATTRIBUTES, KEEP},
    {"setschedpolicy", SET_POLICY, {ENOTSUP}, 1, UNCLASSIFIED, NO_ATTRIBUTES, KEEP},
    {"setschedparam", SET_PARAM, {EINVAL}, 1, INVALID, NO_ATTRIBUTES, KEEP},
    {"setschedparam", SET_PARAM, {ENOTSUP}, 1, UNCLASSIFIED, NO_ATTRIBUTES, KEEP},
    {"create", CREATE, {EPERM}, 2, SysErrorId::PERMISSION_DENIED, NO_THREAD},
    {"create", CREATE, {EAGAIN}, 1, SysErrorId::RESOURCES_EXHAUSTED, NO_THREAD},
    {"create", CREATE, {EINVAL}, 2, UNCLASSIFIED, NO_THREAD},
    {"create", CREATE, {ENOMEM}, 1, UNCLASSIFIED, NO_THREAD},
});

VESK_TEST_TABLE(ThreadCreationRows, leaveAnInvalidObject, ThreadFailure, CREATION_ROWS) {
    CreationRow const& row = GetParam();
    for (bool const has_older : {true, false}) {
        SCOPED_TRACE(has_older);
        Fault const destroyed(inject_pthread_attr_destroy, 0);
        if (has_older) {
            leaveOlderReport();
        }
        {
            Attr attributes;
            attributes.policy = row.policy;
            Fault const fault(*row.function, row.error, row.nth, row.calls);
            Thread const thread(doNothing, nullptr, "name", attributes, false);
            EXPECT_FALSE(thread.isValid());
            EXPECT_EQ(Thread::DEAD, thread.getThreadState());
            EXPECT_EQ(row.nth + row.calls - 1, fault.getCalls());
        }
        std::vector<ExpectedReport> expected = {
            {row.id, rowText(row.id, systemText(row.error))},
            {Thread::ErrorId::CREATE_FAILED, std::string("Thread creation failed: ") + row.text}};
        if (has_older && row.function == &inject_pthread_create) { // Reports on top of what is pending.
            expected.insert(expected.begin(), SysErrorId::NO_SUCH_PROCESS);
        } else {
            for (auto const* report = std::ErrorStorage::get(); report != nullptr; report = report->next) {
                EXPECT_STREQ("framework/src/vesk/posix/Thread", report->file);
            }
        }
        EXPECT_TRUE(chainIs(expected));
        EXPECT_EQ(row.function == &inject_pthread_attr_init ? 0 : 1, destroyed.getCalls());
    }
}

TEST_F(ThreadFailure, secondTryForMissingRightsAndInvalidParametersInheritsItsScheduling) {
    Attr attributes;
    attributes.policy = VESK_SCHED_POLICY_NORMAL;
    for (int const error : {EPERM, EINVAL}) {
        SCOPED_TRACE(error);
        leaveOlderReport();
        bool ran = false;
        std::vector<int> inheritance;
        g_inheritance = &inheritance;
        Fault const fault(inject_pthread_create, error);
        TestThread thread([&ran] { ran = true; }, "second", attributes);
        g_inheritance = nullptr;
        EXPECT_EQ(2, fault.getCalls());
        EXPECT_EQ((std::vector<int>{PTHREAD_EXPLICIT_SCHED, PTHREAD_INHERIT_SCHED}), inheritance);
        thread.runToEnd();
        EXPECT_TRUE(ran);
        EXPECT_TRUE(onlyOlderIsPending());
    }
}

TEST_F(ThreadFailure, invalidObjectRefusesEverythingThatLooksAtItsState) {
    std::optional<Fault> fault(std::in_place, inject_pthread_create, EAGAIN);
    Thread thread(doNothing, nullptr);
    fault.reset();
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(thread.terminate());
    EXPECT_FALSE(thread.wakeup());
    EXPECT_FALSE(thread.setPriority(1));
    EXPECT_TRUE(thread.setSchedAttrs({VESK_SCHED_POLICY_NORMAL, {}})) << "there is no thread";
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
    Body const body = [&shown] { EXPECT_EQ(0, pthread_getname_np(pthread_self(), shown, sizeof shown)); };
    Fault const fault(inject_strdup, ENOMEM);
    TestThread(body, "forgotten").runToEnd();
    EXPECT_EQ(1, fault.getCalls());
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

// ---- system calls that fail below an operation ----

struct Row {
    char const* name;
    Injected* function;
    int nth;
    std::vector<int> errors;
    int (*operation)(Thread&);
    int result;
    std::vector<ExpectedReport> reports;
    Thread::State state; ///< Behind the operation. A state of CREATED is the one before it, too.
    int error = 0;
};

int start(Thread& thread) {
    return thread.start();
}
constexpr auto join = [](Thread& thread) -> int { return thread.join(); };
constexpr auto joinTimeout = [](Thread& thread) -> int { return thread.joinTimeout(60000); };
constexpr auto wakeup = [](Thread& thread) -> int { return thread.wakeup(); };
int suspend(Thread& thread) {
    return thread.suspend(0);
}
int suspendFor1Ms(Thread& thread) {
    return thread.suspend(1);
}

Injected* const LOCK = &inject_pthread_mutex_lock;
Injected* const UNLOCK = &inject_pthread_mutex_unlock;
Injected* const JOIN = &inject_pthread_join;
Injected* const TIMED_JOIN = &inject_pthread_timedjoin_np;
constexpr auto START_FAILED = Thread::ErrorId::START_FAILED;
constexpr auto JOIN_FAILED = Thread::ErrorId::JOIN_FAILED;
constexpr auto SUSPEND_FAILED = Thread::ErrorId::SUSPEND_FAILED;
constexpr auto WAKEUP_FAILED = Thread::ErrorId::WAKEUP_FAILED;
constexpr auto TERMINATE_FAILED = Thread::ErrorId::TERMINATE_FAILED;
constexpr auto OLDER = SysErrorId::NO_SUCH_PROCESS;
constexpr auto CREATED = Thread::CREATED;
constexpr auto RUNNING = Thread::RUNNING;
constexpr auto SUSPENDED = Thread::SUSPENDED;

auto const ROWS = eachErrno<Row>({
    {"startLock", LOCK, 1, {EINVAL}, start, 1, {INCONSISTENT, START_FAILED}, CREATED},
    {"startUnlock", UNLOCK, 1, {EPERM}, start, 1, {INCONSISTENT, START_FAILED}, RUNNING},
    {"joinLock", LOCK, 1, {EINVAL}, join, 1, {INCONSISTENT, JOIN_FAILED}, RUNNING},
    {"timedJoinLock", LOCK, 1, {EPERM}, joinTimeout, -1, {INCONSISTENT, JOIN_FAILED}, RUNNING},
    {"joinUnlock", UNLOCK, 1, {EPERM}, join, 1, {INCONSISTENT, JOIN_FAILED}, RUNNING},
    {"join", JOIN, 1, {EDEADLK, EINVAL, ESRCH}, join, 1, {JOIN_FAILED}, RUNNING},
    {"timedJoin", TIMED_JOIN, 1, {EDEADLK, EINVAL, ESRCH}, joinTimeout, -1, {JOIN_FAILED}, RUNNING},
    {"timedJoin", TIMED_JOIN, 1, {ETIMEDOUT}, joinTimeout, 1, {OLDER}, RUNNING},
    {"wakeupLock", LOCK, 1, {EINVAL}, wakeup, 1, {WAKEUP_FAILED}, CREATED},
    {"wakeupUnlock", UNLOCK, 1, {EPERM}, wakeup, 1, {WAKEUP_FAILED}, CREATED},
    {"suspendLock", LOCK, 1, {EINVAL}, suspend, 1, {INCONSISTENT, SUSPEND_FAILED}, RUNNING},
    {"suspendUnlock", UNLOCK, 1, {EPERM}, suspendFor1Ms, 1, {INCONSISTENT, SUSPEND_FAILED}, SUSPENDED},
});

VESK_TEST_TABLE(ThreadRows, reportAndLeaveAThreadThatCanBeJoined, ThreadFailure, ROWS) {
    Row const& row = GetParam();
    auto const check = [&row](Thread& thread) {
        leaveOlderReport();
        {
            Fault const fault(*row.function, row.error, row.nth);
            EXPECT_EQ(row.result, row.operation(thread));
        }
        EXPECT_TRUE(failed(row.reports, row.error));
        EXPECT_EQ(row.state, thread.getThreadState());
    };
    bool const by_itself = row.operation == suspend || row.operation == suspendFor1Ms;
    TestThread thread([&, this] {
        if (!by_itself) {
            m_wait();
            return;
        }
        EXPECT_FALSE(self().suspend(1)); // Binds the condition, if the start was too early for that.
        EXPECT_FALSE(self().wakeup());
        check(self());
    });
    if (row.state != Thread::CREATED && row.operation != start) {
        EXPECT_FALSE(thread.start());
    }
    if (!by_itself) {
        check(thread);
    }
    if (thread.getThreadState() == Thread::CREATED) {
        EXPECT_FALSE(thread.start());
    }
    m_go.set();
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, timedJoinThatReturnsMinusOneReportsErrno) {
    StartedThread thread([] {});
    EXPECT_EQ(-1, failOnce(inject_pthread_timedjoin_np, -1, [&thread] {
        errno = ENOTSUP;
        return thread.joinTimeout(60000);
    }));
    EXPECT_TRUE(causeIs(JOIN_FAILED, ENOTSUP));
    EXPECT_FALSE(thread.join());
}

TEST_F(ThreadFailure, joinThatCannotMarkItsEndFailsAndIsNotRepeated) {
    for (bool const timed : {false, true}) {
        for (Injected* const function : {LOCK, UNLOCK}) {
            StartedThread thread([] {});
            {
                Fault const fault(*function, EINVAL, 2);
                EXPECT_EQ(timed ? -1 : 1, timed ? thread.joinTimeout(60000) : thread.join());
            }
            EXPECT_TRUE(failed({INCONSISTENT, JOIN_FAILED}, EINVAL));
            EXPECT_EQ(Thread::DEAD, thread.getThreadState());
            Fault const joins(inject_pthread_join, 0);
            EXPECT_TRUE(thread.join());
            EXPECT_TRUE(chainIs({CommonErrorId::CONTRACT_BROKEN}));
            EXPECT_EQ(0, joins.getCalls());
        }
    }
}

TEST_F(ThreadFailure, signalThatFailsLeavesTheStateAndNoLock) {
    for (int const error : {EINVAL, EAGAIN}) {
        SCOPED_TRACE(error);
        Fault const waits(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
        TestThread thread([] { EXPECT_FALSE(self().suspend(0)); });
        EXPECT_TRUE(eventually([&waits] { return waits.getCalls() > 0; }));
        leaveOlderReport();
        EXPECT_TRUE(failOnce(inject_pthread_cond_signal, error, [&] { return thread.start(); }));
        auto const cause = error == EINVAL ? SysErrorId::SPOILED_INTEGRITY : UNCLASSIFIED;
        EXPECT_TRUE(chainIs({cause, withErrno({START_FAILED}, error)[0]}));
        EXPECT_EQ(Thread::CREATED, thread.getThreadState());
        EXPECT_FALSE(thread.start());
        EXPECT_TRUE(thread.isIn(Thread::SUSPENDED));
        leaveOlderReport();
        EXPECT_TRUE(failOnce(inject_pthread_cond_signal, error, [&] { return thread.wakeup(); }));
        EXPECT_TRUE(failed({WAKEUP_FAILED}, 0)) << "a chain of its own";
        EXPECT_EQ(Thread::SUSPENDED, thread.getThreadState());
        EXPECT_FALSE(thread.wakeup());
        EXPECT_FALSE(thread.join());
    }
}

TEST_F(ThreadFailure, suspendThatCannotWaitLeavesTheStateAndNoLock) {
    runInThread([] {
        for (long long const ms : {0, 60000}) {
            leaveOlderReport();
            {
                Fault const wait(inject_pthread_cond_wait, EINVAL);
                Fault const timed_wait(inject_pthread_cond_timedwait, EINVAL);
                EXPECT_TRUE(self().suspend(ms));
            }
            EXPECT_TRUE(chainIs({SysErrorId::SPOILED_INTEGRITY, withErrno({SUSPEND_FAILED}, 0)[0]}));
            EXPECT_EQ(Thread::RUNNING, self().getThreadState());
        }
    });
}

TEST_F(ThreadFailure, suspendThatCannotUnlockOnceItWasTerminatedFails) {
    StartedThread thread([this] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        EXPECT_FALSE(self().terminate());
        {
            Fault const fault(inject_pthread_mutex_unlock, EPERM);
            EXPECT_TRUE(self().suspend(0));
        }
        EXPECT_TRUE(failed({INCONSISTENT, SUSPEND_FAILED}, EPERM));
        m_go.set();
    });
    EXPECT_TRUE(m_go.wait());
    EXPECT_EQ(Thread::DEAD, thread.getThreadState());
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
        m_go.set();
        EXPECT_TRUE(m_left.wait());
        ThreadFailure::TearDown();
    }

    /// Starts a thread and waits until it is in its body.
    void start(bool detached = false) {
        m_thread = std::make_unique<Thread>(run, &m_body, nullptr, Attr(), detached);
        EXPECT_FALSE(m_thread->start());
        EXPECT_TRUE(m_ready.wait());
    }
    void expectState(Thread::State state, int exits) {
        EXPECT_EQ(state, m_thread->getThreadState());
        EXPECT_EQ(exits, g_exits);
    }

    Event m_ready;
    Event m_left;
    Body m_body = [this] {
        SetAtEnd const end(m_left);
        Thread::registerExitHandler([](Thread::ThreadId const&, Thread::ExitReason) { ++g_exits; });
        m_ready.set();
        EXPECT_TRUE(m_go.wait());
    };
    std::unique_ptr<Thread> m_thread;
};

TEST_F(ThreadTerminateFailure, toLockLeavesTheThreadAlone) {
    start();
    Fault const cancels(inject_pthread_cancel, 0);
    EXPECT_TRUE(failOnce(inject_pthread_mutex_lock, EINVAL, [this] { return m_thread->terminate(); }));
    EXPECT_EQ(0, cancels.getCalls());
    EXPECT_TRUE(failed({INCONSISTENT, TERMINATE_FAILED}, EINVAL));
    expectState(Thread::RUNNING, 0);
    m_go.set();
    EXPECT_FALSE(m_thread->join());
    EXPECT_EQ(1, g_exits);
}

class ThreadCancelErrors : public ThreadTerminateFailure, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(All, ThreadCancelErrors, testing::Values(ESRCH, EPERM), NumberName());

TEST_P(ThreadCancelErrors, leaveADetachedThreadThatRunsOn) {
    start();
    leaveOlderReport();
    for (bool const first : {true, false}) {
        Fault const detaches(inject_pthread_detach, 0);
        Fault const fault(inject_pthread_cancel, GetParam());
        EXPECT_TRUE(m_thread->terminate());
        EXPECT_TRUE(!first || detaches.getCalls() == 1) << "before the cancellation";
        ExpectedReport const report = withErrno({TERMINATE_FAILED}, GetParam())[0];
        EXPECT_TRUE(first ? chainIs({SysErrorId::NO_SUCH_PROCESS, report}) : chainIs({report}))
            << "on top of what is pending";
    }
    expectState(Thread::RUNNING, 0);
    EXPECT_FALSE(m_thread->terminate()) << "a later one may succeed";
    expectState(Thread::DEAD, 1);
}

TEST_F(ThreadTerminateFailure, toDetachIsIgnored) {
    start();
    EXPECT_FALSE(failOnce(inject_pthread_detach, EINVAL, [this] { return m_thread->terminate(); }));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(Thread::DEAD, m_thread->getThreadState());
    m_go.set();
    EXPECT_EQ(0, pthread_detach(m_thread->getThreadId().getValue())) << "instead of the call that failed";
}

TEST_F(ThreadTerminateFailure, detachedThreadIsNotDetachedAgain) {
    start(true);
    Fault const detaches(inject_pthread_detach, 0);
    EXPECT_FALSE(m_thread->terminate());
    EXPECT_EQ(0, detaches.getCalls());
}

TEST_F(ThreadTerminateFailure, toUnlockHasTerminatedWithoutTheHandlers) {
    start();
    {
        // Behind that of the link.
        Fault const fault(inject_pthread_mutex_unlock, EPERM, 2);
        EXPECT_TRUE(m_thread->terminate());
    }
    EXPECT_TRUE(failed({INCONSISTENT, TERMINATE_FAILED}, EPERM));
    expectState(Thread::DEAD, 0);
}

// ---- the state ----

TEST_F(ThreadFailure, readingTheStateThatCannotLockIsAsserted) {
    for (Injected* const function : {LOCK, UNLOCK}) {
        Thread const thread(doNothing, nullptr);
        EventRecorder const recorder;
        {
            Fault const fault(*function, EINVAL);
            EXPECT_EQ(Thread::CREATED, thread.getThreadState());
        }
        EXPECT_EQ("ASSERT framework/src/vesk/posix/Thread getThreadState: ! error", recorder.getText());
        EXPECT_TRUE(causeIs(INCONSISTENT, EINVAL));
    }
}

// ---- the wrapper, where an abort that returns must leave a running thread ----

// The locks of a new thread that waits for its start: the state, the condition's own lock, then, behind the body, the
// link to claim the end, the state, and the link again to leave it.
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
    bool detached = false;
    bool unlocks = true;
    bool starts = true;
};

WrapperRow const WRAPPER_ROWS[] = {
    {"lock", LOCK, LOCK_STATE, "error getting state lock"},
    {"wait", &inject_pthread_cond_wait, 1, "error waiting on condition"},
    {"signal", &inject_pthread_cond_signal, 1, "wait failed", true},
    {"unlock", UNLOCK, UNLOCK_STATE, "error unlocking"},
    {"unlockThatLeavesTheLock", UNLOCK, UNLOCK_STATE, "error unlocking", false, false},
    {"unlockOfAThreadThatIsNotToRun", UNLOCK, UNLOCK_STATE, "error unlocking", false, true, false},
    {"lockAtTheEnd", LOCK, LOCK_TO_FINISH, "error locking"},
    {"unlockAtTheEnd", UNLOCK, UNLOCK_TO_FINISH, "error unlocking"},
    {"unlockAtTheEndThatLeavesTheLock", UNLOCK, UNLOCK_TO_FINISH, "error unlocking", false, false},
};

VESK_TEST_TABLE(
    ThreadWrapperRows, areFatalAndNeitherHangNorStopTheThreadIfTheyAreSurvived, ThreadFailure, WRAPPER_ROWS) {
    WrapperRow const& row = GetParam();
    g_failing_unlock_unlocks = row.unlocks;
    EventRecorder const recorder;
    std::atomic<int> runs{0};
    {
        Fault const fault(*row.function, EAGAIN, row.nth, 1, OTHERS);
        // Unless the fault is in the wait itself, the wait shows that the thread is there.
        std::unique_ptr<Fault> waits;
        if (row.function != &inject_pthread_cond_wait) {
            waits = std::make_unique<Fault>(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
        }
        TestThread thread([&runs] { ++runs; }, "wrapped", Attr(), row.detached);
        ASSERT_TRUE(thread.isValid());
        EXPECT_TRUE(eventually([&] { return (waits ? *waits : fault).getCalls() > (waits ? 0 : 1); }));
        EXPECT_FALSE(row.starts && thread.start());
        EXPECT_TRUE(!row.detached || eventually([&runs] { return runs == 1; }));
        EXPECT_FALSE(row.starts && !row.detached && thread.join());
        EXPECT_TRUE(!row.starts || eventually(areThreadsGone));
    }
    EXPECT_EQ(row.starts ? 1 : 0, runs);
    EXPECT_EQ(aborted("threadWrapper", row.text), recorder.getText());
}

// ---- the destructor ----

enum class Life { UNSTARTED, UNSTARTED_DETACHED, FINISHED, JOINED, ACTIVE };

struct DestructorRow {
    char const* name;
    Life life;
    Injected* function;
    int nth;
    char const* text;
    bool unlocks = true;
};

constexpr char const* NO_SIGNAL = "error unlocking and signaling";

// Locks of the destructor of a thread that was not started: the state, and, if detached, the state again.
DestructorRow const DESTRUCTOR_ROWS[] = {
    {"lock", Life::UNSTARTED, LOCK, 1, "error getting state lock"},
    {"signal", Life::UNSTARTED, &inject_pthread_cond_signal, 1, NO_SIGNAL},
    {"unlockBehindTheSignal", Life::UNSTARTED, UNLOCK, 1, NO_SIGNAL},
    {"unlockBehindTheSignalThatLeavesTheLock", Life::UNSTARTED, UNLOCK, 1, NO_SIGNAL, false},
    {"join", Life::UNSTARTED, JOIN, 1, "error joining non-detached thread"},
    {"lockOfADetachedOne", Life::UNSTARTED_DETACHED, LOCK, 2, "error locking"},
    {"joinOfAFinishedOne", Life::FINISHED, JOIN, 1, "error joining"},
    {"unlockOfAFinishedOne", Life::FINISHED, UNLOCK, 1, "error joining"},
    {"unlockOfAJoinedOne", Life::JOINED, UNLOCK, 1, "error unlocking"},
    {"unlockOfAJoinedOneThatLeavesTheLock", Life::JOINED, UNLOCK, 1, "error unlocking", false},
    {"unlockOfARunningOne", Life::ACTIVE, UNLOCK, 1, "error unlocking"},
};

VESK_TEST_TABLE(
    ThreadDestructorRows, areFatalAndNeitherHangNorLeaveTheThreadIfTheyAreSurvived, ThreadFailure,
    DESTRUCTOR_ROWS) {
    DestructorRow const& row = GetParam();
    g_failing_unlock_unlocks = row.unlocks;
    EventRecorder const recorder;
    Event begun;
    Event left;
    Body body = [&] {
        begun.set();
        m_wait();
        left.set();
    };
    std::string expected = aborted("~Thread", row.text);
    {
        Fault const waits(inject_pthread_cond_wait, 0, 1, 1, OTHERS);
        bool const detached = row.life == Life::UNSTARTED_DETACHED;
        auto thread = std::make_unique<Thread>(run, &body, "destroyed", Attr(), detached);
        EXPECT_TRUE(eventually([&waits] { return waits.getCalls() > 0; }));
        if (row.life != Life::UNSTARTED && row.life != Life::UNSTARTED_DETACHED) {
            EXPECT_FALSE(thread->start());
            EXPECT_TRUE(begun.wait());
        }
        if (row.life == Life::FINISHED || row.life == Life::JOINED) {
            m_go.set();
            EXPECT_TRUE(eventually([&] { return thread->getThreadState() == Thread::FINISHED; }));
            EXPECT_FALSE(row.life == Life::JOINED && thread->join());
        } else if (row.life == Life::ACTIVE) {
            expected += "\n" + aborted("~Thread", "thread still running");
            expected += "\nASSERT framework/src/vesk/posix/Thread ~Thread: "
                        "getThreadState() == DEAD || m_detached_mode";
        } else if (row.life == Life::UNSTARTED_DETACHED) {
            // The thread has ended when the destructor looks, which then need not wait for it.
            t_locks_to_hold = 3;
            t_threads_to_wait_for = countThreads() - 1;
        }
        Fault const fault(*row.function, EAGAIN, row.nth);
        thread.reset();
        EXPECT_LE(row.nth, fault.getCalls());
    }
    m_go.set();
    EXPECT_TRUE(!begun.isSet() || left.wait());
    EXPECT_TRUE(eventually(areThreadsGone));
    EXPECT_EQ(expected, recorder.getText());
    std::ErrorStorage::ack();
}

TEST_F(ThreadFailure, waitsOfTheDestructorThatFailAreFatalAndRepeated) {
    EventRecorder const recorder;
    int seen = 0;
    // Whether the destructor has to wait depends on timing, so this may take some rounds.
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
