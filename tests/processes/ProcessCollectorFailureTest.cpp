#include "processes/ProcessSupport.h"

#include "support/NewFault.h"
#include "support/UnlockFault.h"

#include <vesk/Mutex.h>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
VESK_INJECT_RESULT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
VESK_INJECT_RESULT(pthread_cond_signal, (pthread_cond_t * c), (c))
VESK_INJECT_RESULT(
    pthread_create, (pthread_t * t, pthread_attr_t const* a, void* (*start)(void*), void* arg),
    (t, a, start, arg))
VESK_INJECT_RESULT(pthread_join, (pthread_t thread, void** result), (thread, result))
VESK_INJECT_RESULT(pthread_rwlock_init, (pthread_rwlock_t * l, pthread_rwlockattr_t const* a), (l, a))
VESK_INJECT_RESULT(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
VESK_INJECT_RESULT(pthread_rwlock_unlock, (pthread_rwlock_t * l), (l))

namespace {

using namespace support;
using vesk::Thread;
using vesk::Vesk;
namespace CommonErrorId = std::CommonErrorId;

constexpr char const* ABORTED_START = "ABORT framework/src/vesk/common/vesk Vesk: Error initializing VESK";

/// Expects that nothing can be started after a failed set-up. Only the object that ran the set-up reported
/// its failure.
void expectNoCollector() {
    EXPECT_TRUE(haveCollectorsGone());
    EventRecorder recorder;
    ProcessTNG process;
    EXPECT_TRUE(process.isValid());
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(-1, process.start());
    EXPECT_EQ(NO_START, recorder.getText());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}, {ProcessTNG::ErrorId::START_FAILED}}));
    ProcessTNG::exit();
}

struct SetUpRow : NamedRow {
    bool has_memory;
    Injected& function;
    int error;
    int nth;
    std::vector<ExpectedReport> chain;
};

std::vector<ExpectedReport> const START_FAILED = {
    {vesk::Mutex::ErrorId::INCONSISTENT}, {Thread::Error, Thread::ErrorId::START_FAILED}};

// The second lock of this thread is that of the thread's start; the first one is that of the lazy set-up.
SetUpRow const SET_UPS[] = {
    {"memory", false, inject_pthread_create, 0, 1, {{CommonErrorId::OUT_OF_MEMORY, "Out of memory"}}},
    {"aThread", true, inject_pthread_create, EAGAIN, 1, {{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}},
    {"theLockOfTheStart", true, inject_pthread_mutex_lock, EINVAL, 2, START_FAILED},
};

VESK_TEST_TABLE(ProcessSetUpRows, failsAndLeavesNothingBehind, testing::Test, SET_UPS) {
    Vesk const vesk(true, false);
    EventRecorder recorder;
    {
        NewFault const memory(New::NOTHROW_SINGLE, 1, GetParam().has_memory ? 0 : 1);
        Fault const fault(GetParam().function, GetParam().error, GetParam().nth);
        ProcessTNG const process;
        EXPECT_FALSE(process.isValid());
    }
    EXPECT_TRUE(chainIs(GetParam().chain));
    EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
    expectNoCollector();
}

TEST(ProcessSetUp, keepsAThreadThatRunsAlthoughItsStartFailed) {
    Vesk const vesk(true, false);
    {
        std::unique_ptr<ProcessTNG> process;
        {
            // The unlock of the start, which follows the change of the state.
            Fault const fault(inject_pthread_mutex_unlock, EINVAL, 1, 1);
            EventRecorder recorder;
            process = std::make_unique<ProcessTNG>();
            if (recorder.getCount() == 0) {
                EXPECT_FALSE(process->isValid());
                EXPECT_TRUE(chainIs(START_FAILED));
            }
            std::ErrorStorage::ack();
        }
        EXPECT_TRUE(runsExit(*process, 0));
    }
    ProcessTNG::exit();
}

TEST(ProcessSetUp, ofTheOwnNameFailsWithoutMemoryOrALockAndLeavesNothingBehind) {
    Vesk const vesk(true, false);
    for (bool const has_memory : {false, true}) {
        SCOPED_TRACE(has_memory ? "without a lock" : "without memory");
        {
            NewFault const memory(New::NOTHROW_SINGLE, 1, has_memory ? 0 : 1);
            Fault const fault(inject_pthread_rwlock_init, has_memory ? ENOMEM : 0);
            EXPECT_EQ("", ProcessTNG::getOwnProcessName());
        }
        ExpectedReport const failed(Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL);
        EXPECT_TRUE(
            chainIs({has_memory ? failed : ExpectedReport(CommonErrorId::OUT_OF_MEMORY, "Out of memory")}));
        EXPECT_EQ("", ProcessTNG::getOwnProcessName());
        EXPECT_TRUE(chainIs({failed}));
        ProcessTNG::exit();
        EXPECT_FALSE(ProcessTNG::init(true));
    }
    ProcessTNG::exit();
}

TEST(ProcessSetUp, thatFailsEagerlyFailsTheStartUp) {
    EventRecorder recorder;
    Fault const fault(inject_pthread_create, EAGAIN);
    Vesk const vesk(false, false);
    EXPECT_EQ(ABORTED_START, recorder.getText());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}));
}

TEST(ProcessSetUp, thatFailsEagerlyForTheOwnNameFailsTheStartUp) {
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_rwlock_init, EAGAIN);
        Vesk const vesk(false, false);
    }
    EXPECT_EQ(ABORTED_START, recorder.getText());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL}}));
    ProcessTNG::exit();
}

TEST(ProcessSetUp, omitsTheNameIfTheCollectorHasFailed) {
    Fault const no_thread(inject_pthread_create, EAGAIN);
    Fault const locks(inject_pthread_rwlock_init, 0);
    EXPECT_TRUE(ProcessTNG::init(false));
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}));
    ProcessTNG::exit();
}

constexpr char const* LOCKING =
    "ABORT framework/src/vesk/posix/ProcessQueries getOwnProcessName: error locking";

class ProcessOwnNameLock : public ProcessTest {
protected:
    static void expectAbort(Injected& function, char const* event) {
        EventRecorder recorder;
        {
            Fault const fault(function, EINVAL);
            EXPECT_NE("", ProcessTNG::getOwnProcessName());
        }
        EXPECT_EQ(event, recorder.getText());
        std::ErrorStorage::ack();
        restart(); // The lock stays locked or broken.
        std::ErrorStorage::ack();
    }
};

TEST_F(ProcessOwnNameLock, abortsOnAFailure) {
    expectAbort(inject_pthread_rwlock_wrlock, LOCKING); // Of the first caller.
    ASSERT_NE("", ProcessTNG::getOwnProcessName());
    expectAbort(inject_pthread_rwlock_rdlock, LOCKING);
    ASSERT_NE("", ProcessTNG::getOwnProcessName());
    expectAbort(
        inject_pthread_rwlock_unlock,
        "ABORT framework/include/vesk/common/ScopedLock ~ScopedLock: error unlocking");
    ASSERT_NE("", ProcessTNG::getOwnProcessName());
}

TEST_F(ProcessOwnNameLock, warnsIfItCannotBeDestroyed) {
    ASSERT_NE("", ProcessTNG::getOwnProcessName());
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_rwlock_destroy, EBUSY);
        ProcessTNG::exit();
    }
    EXPECT_EQ(
        "WARNING framework/include/vesk/posix/RWLock ~RWLock: Error destroying RWLock!", recorder.getText());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(ProcessTNG::init(true));
}

/// Waits until the collector waits for a start.
void makeIdle() {
    ProcessTNG const process;
    waitForCollector();
}

/// Sets a fault that the collector meets first after `action`, and waits for the end of the process.
template <typename Action>
void failAfter(Injected& function, int nth, Action action, Fault::Threads threads = Fault::Threads::OTHERS) {
    Fault const fault(function, EINVAL, nth, 1, threads);
    action();
    for (;;) {
        pause();
    }
}

void failFromTheStartOn(Injected& function, int nth) {
    makeIdle();
    ProcessTNG process;
    setExit(process, 0);
    failAfter(function, nth, [&] { process.start(); });
}

/// With or without a wait for the child before, after which there is a condition to signal.
template <bool WAITS>
void failFromTheEndOn(Injected& function, int nth) {
    makeIdle();
    HeldChild child;
    ExitState state;
    EXPECT_FALSE(WAITS && child.process.wait(state, true, 1)); // Binds the condition.
    waitForCollector();
    failAfter(function, nth, [&] { child.release(); });
}

template <Fault::Threads THREADS>
void failFromExitOn(Injected& function, int nth) {
    makeIdle();
    failAfter(
        function, nth, [] { ProcessTNG::exit(); }, THREADS);
}

struct FatalRow : NamedRow {
    void (*body)(Injected& function, int nth);
    Injected& function;
    int nth;
    char const* text;
};

FatalRow const FATAL_ROWS[] = {
    {"unlockForWaiting", failFromTheStartOn, inject_pthread_mutex_unlock, 1,
     "processCollector: fatal: error unlocking"},
    {"lockBehindTheEnd", failFromTheEndOn<false>, inject_pthread_mutex_lock, 1,
     "waitChild: fatal: error locking"},
    {"unlockBeforeTheHandOver", failFromTheEndOn<false>, inject_pthread_mutex_unlock, 1,
     "waitChild: fatal: error unlocking"},
    {"lockOfTheObject", failFromTheEndOn<false>, inject_pthread_mutex_lock, 2,
     "processExited: fatal: error locking"},
    {"signal", failFromTheEndOn<true>, inject_pthread_cond_signal, 1,
     "processExited: fatal: error signaling condition"},
    {"unlockOfTheObject", failFromTheEndOn<false>, inject_pthread_mutex_unlock, 2,
     "processExited: fatal: error unlocking"},
    {"lockBehindTheHandOver", failFromTheEndOn<false>, inject_pthread_mutex_lock, 3,
     "waitChild: fatal: error locking"},
    {"waitForTheNextChild", failFromTheEndOn<false>, inject_pthread_cond_wait, 1,
     "processCollector: fatal: error waiting on condition"},
    {"unlockAtTheEnd", failFromExitOn<Fault::Threads::OTHERS>, inject_pthread_mutex_unlock, 1,
     "processCollector: fatal: error unlocking"},
    {"lockOfExit", failFromExitOn<Fault::Threads::MINE>, inject_pthread_mutex_lock, 1,
     "exit: fatal: error locking"},
    {"signalOfExit", failFromExitOn<Fault::Threads::MINE>, inject_pthread_cond_signal, 1,
     "exit: fatal: error signaling condition"},
    {"unlockOfExit", failFromExitOn<Fault::Threads::MINE>, inject_pthread_mutex_unlock, 1,
     "exit: fatal: error unlocking"},
    {"joinOfExit", failFromExitOn<Fault::Threads::MINE>, inject_pthread_join, 1,
     "exit: fatal: error joining"}};

VESK_TEST_TABLE(ProcessFatalRows, endTheProcess, ProcessTest, FATAL_ROWS) {
    FatalRow const& row = GetParam();
    ChildEnd const end = runInChild([&] { row.body(row.function, row.nth); });
    EXPECT_EQ(SIGABRT, end.signal) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("framework/src/vesk/posix/ProcessImpl:")) << end.errors;
    std::string const expected = std::string(": ") + row.text + "\n";
    EXPECT_EQ(end.errors.size() - expected.size(), end.errors.find(expected)) << end.errors;
}

// How many locks the thread takes before, one or two, depends on the scheduling.
TEST_F(ProcessFatalRows, includeTheFirstLockOfTheCollector) {
    bool found = false;
    for (int round = 0; round < 100 && !found; ++round) {
        ChildEnd const end = runInChild([&] {
            Fault const fault(inject_pthread_mutex_lock, EINVAL, 2 + round % 2, 1, Fault::Threads::OTHERS);
            makeIdle();
        });
        found = end.signal == SIGABRT && contains(end.errors, ": processCollector: fatal: error locking\n");
    }
    EXPECT_TRUE(found);
}

// The thread cannot be joined, and the end continues: with a child left in the list.
TEST(ProcessBroken, aCollectorThatEndsWithAChildLeftIsAnAssertion) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "what is left of such a process is a data race";
#endif
    Vesk const vesk(true, false);
    expectInChild([] {
        HeldChild child;
        EventRecorder recorder;
        Fault const fault(inject_pthread_join, EINVAL);
        ProcessTNG::exit();
        EXPECT_EQ(
            0U,
            recorder.getText().find("ABORT framework/src/vesk/posix/ProcessImpl exit: error joining\n"
                                    "ASSERT framework/src/vesk/posix/ProcessImpl ~ProcessImpl: "
                                    "proc_obj_map.empty()\n"))
            << recorder.getText();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0); // The collector still uses the list, which is destroyed.
    });
}

} // namespace
