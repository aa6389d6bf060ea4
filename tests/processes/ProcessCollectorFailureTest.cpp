#include "processes/ProcessSupport.h"

#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/Processes.h"
#include "support/UnlockFault.h"

#include <vesk/Mutex.h>
#include <vesk/RWLock.h>
#include <vesk/SysError.h>
#include <vesk/Thread.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <csignal>
#include <pthread.h>

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

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::EventRecorder;
using support::eventually;
using support::Fault;
using support::findCollector;
using support::hasExitedWith;
using support::HeldProbe;
using support::New;
using support::NewFault;
using support::run;
using support::setProbe;
using support::waitFor;
using vesk::ProcessTNG;
using vesk::SysError;
using vesk::Vesk;
using ExitState = ProcessTNG::ExitState;

constexpr Fault::Threads OTHERS = Fault::Threads::OTHERS;
constexpr char const* NO_IMPL = "Unable to initialize VESK: \"process impl. object is invalid\" failed";
constexpr char const* NO_STATIC_IMPL =
    "Unable to initialize VESK: \"process static impl. object is invalid\" failed";

/// After a set-up that has failed: nobody is told again, and nothing can be started.
void expectNoCollector() {
    EXPECT_TRUE(support::haveCollectorsGone());
    EventRecorder recorder;
    ProcessTNG process;
    EXPECT_TRUE(process.isValid()); // Only the object that ran the set-up saw it fail.
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(-1, process.start());
    EXPECT_EQ("ASSERT framework/src/vesk/posix/ProcessTNG start: g_process_impl", recorder.getText());
    EXPECT_TRUE(chainIs(
        {{Vesk::ErrorId::INIT_FAILED, NO_IMPL}, {ProcessTNG::Error, ProcessTNG::ErrorId::START_FAILED}}));
    ProcessTNG::exit();
}

// ---- the set-up ----

TEST(ProcessSetUp, failsWithoutMemory) {
    Vesk const vesk(true, false);
    {
        NewFault const fault(New::NOTHROW_SINGLE);
        ProcessTNG const process;
        EXPECT_FALSE(process.isValid());
    }
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY, "Out of memory"}}));
    expectNoCollector();
}

TEST(ProcessSetUp, failsWithoutAThreadAndLeavesNothingBehind) {
    Vesk const vesk(true, false);
    {
        Fault const fault(inject_pthread_create, EAGAIN);
        ProcessTNG const process;
        EXPECT_FALSE(process.isValid());
    }
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}));
    expectNoCollector();
}

TEST(ProcessSetUp, failsWhenTheThreadCannotBeStartedAndLeavesNothingBehind) {
    // The locks of this thread: of the lazy set-up, of making the thread none, of its start one.
    Vesk const vesk(true, false);
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL, 2);
        ProcessTNG const process;
        EXPECT_FALSE(process.isValid());
    }
    EXPECT_TRUE(chainIs(
        {{vesk::Mutex::ErrorId::INCONSISTENT}, {vesk::Thread::Error, vesk::Thread::ErrorId::START_FAILED}}));
    EXPECT_EQ(0U, recorder.getCount()) << recorder.getText();
    expectNoCollector();
}

TEST(ProcessSetUp, keepsAThreadThatRunsThoughItsStartFailed) {
    Vesk const vesk(true, false);
    ProcessTNG* process = nullptr;
    {
        // The start's own unlock: the state was changed by then.
        Fault const probe(inject_pthread_mutex_unlock, EINVAL, 1, 1);
        EventRecorder recorder;
        process = new ProcessTNG;
        if (recorder.getCount() == 0) {
            EXPECT_FALSE(process->isValid());
            EXPECT_TRUE(chainIs(
                {{vesk::Mutex::ErrorId::INCONSISTENT},
                 {vesk::Thread::Error, vesk::Thread::ErrorId::START_FAILED}}));
        }
        std::ErrorStorage::ack();
    }
    setProbe(*process, {"exit", "0"});
    EXPECT_TRUE(hasExitedWith(run(*process), 0));
    delete process;
    ProcessTNG::exit();
}

TEST(ProcessSetUp, ofTheOwnNameFailsWithoutMemory) {
    Vesk const vesk(true, false);
    {
        NewFault const fault(New::NOTHROW_SINGLE);
        EXPECT_EQ("", ProcessTNG::getOwnProcessName());
    }
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY, "Out of memory"}}));
    EXPECT_EQ("", ProcessTNG::getOwnProcessName());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL}}));
}

TEST(ProcessSetUp, ofTheOwnNameFailsWithoutALockAndLeavesNothingBehind) {
    Vesk const vesk(true, false);
    {
        Fault const fault(inject_pthread_rwlock_init, ENOMEM);
        EXPECT_EQ("", ProcessTNG::getOwnProcessName());
    }
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL}}));
    EXPECT_EQ("", ProcessTNG::getOwnProcessName());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL}}));
    ProcessTNG::exit();
}

TEST(ProcessSetUp, thatFailsEagerlyFailsTheStartUp) {
    EventRecorder recorder;
    Fault const fault(inject_pthread_create, EAGAIN);
    Vesk const vesk(false, false);
    EXPECT_EQ("ABORT framework/src/vesk/common/vesk Vesk: Error initializing VESK", recorder.getText());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}));
}

TEST(ProcessSetUp, thatFailsEagerlyForTheOwnNameFailsTheStartUp) {
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_rwlock_init, EAGAIN);
        Vesk const vesk(false, false);
    }
    EXPECT_EQ("ABORT framework/src/vesk/common/vesk Vesk: Error initializing VESK", recorder.getText());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_STATIC_IMPL}}));
    ProcessTNG::exit();
}

TEST(ProcessSetUp, isNotAskedForTheNameWhenTheCollectorHasFailed) {
    Fault const no_thread(inject_pthread_create, EAGAIN);
    Fault const locks(inject_pthread_rwlock_init, 0);
    EXPECT_TRUE(ProcessTNG::init(false));
    EXPECT_EQ(0, locks.getCalls());
    EXPECT_TRUE(chainIs({{Vesk::ErrorId::INIT_FAILED, NO_IMPL}}));
    ProcessTNG::exit();
}

// ---- the lock of the own name ----

class ProcessOwnNameLock : public support::ProcessTest {};

TEST_F(ProcessOwnNameLock, failsLoudly) {
    ASSERT_NE("", ProcessTNG::getOwnProcessName());
    struct Row {
        support::Injected& function;
        char const* event;
    };
    Row const rows[] = {
        {inject_pthread_rwlock_rdlock,
         "ABORT framework/src/vesk/posix/ProcessQueries getOwnProcessName: error locking"},
        {inject_pthread_rwlock_unlock,
         "ABORT framework/include/vesk/common/ScopedLock ~ScopedLock: error unlocking"},
    };
    for (Row const& row : rows) {
        EventRecorder recorder;
        {
            Fault const fault(row.function, EINVAL);
            EXPECT_NE("", ProcessTNG::getOwnProcessName());
        }
        EXPECT_EQ(row.event, recorder.getText());
        std::ErrorStorage::ack();
        ProcessTNG::exit(); // A lock that is held or broken does not come back.
        EXPECT_FALSE(ProcessTNG::init(true));
        std::ErrorStorage::ack();
        ASSERT_NE("", ProcessTNG::getOwnProcessName());
    }
}

TEST_F(ProcessOwnNameLock, failsLoudlyForTheFirstCaller) {
    EventRecorder recorder;
    {
        Fault const fault(inject_pthread_rwlock_wrlock, EINVAL);
        EXPECT_NE("", ProcessTNG::getOwnProcessName());
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/ProcessQueries getOwnProcessName: error locking", recorder.getText());
    std::ErrorStorage::ack();
}

TEST_F(ProcessOwnNameLock, thatCannotBeDestroyedIsAWarning) {
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

// ---- what the collector cannot go on without ----

/// Waits until the collector waits for children to be started.
void makeIdle() {
    ProcessTNG const process;
    pid_t collector = 0;
    EXPECT_TRUE(eventually([&] { return (collector = findCollector()) != 0; }));
    support::waitUntilAsleep(getpid(), collector);
}

[[noreturn]] void waitForAbort() {
    for (;;) {
        pause();
    }
}

/// Starts a child with the collector being idle, and sets the fault before the collector gets to know of it.
void failFromTheStartOn(support::Injected& function, int nth) {
    makeIdle();
    ProcessTNG process;
    setProbe(process, {"exit", "0"});
    Fault const fault(function, EINVAL, nth, 1, OTHERS);
    process.start();
    waitForAbort();
}

/// Starts a child, and sets the fault while the collector waits for its end.
void failFromTheEndOn(support::Injected& function, int nth) {
    makeIdle();
    HeldProbe held;
    ProcessTNG process;
    held.set(process);
    process.start();
    held.waitUntilBegun();
    support::waitUntilAsleep(getpid(), findCollector());
    Fault const fault(function, EINVAL, nth, 1, OTHERS);
    held.release();
    waitForAbort();
}

/// The same with somebody waiting for the child, so that there is something to be signalled.
void failTheSignal(support::Injected& function, int nth) {
    ProcessTNG process;
    HeldProbe held;
    held.set(process);
    process.start();
    ExitState state;
    process.wait(state, true, 1); // Binds the condition.
    held.waitUntilBegun();
    support::waitUntilAsleep(getpid(), findCollector());
    Fault const fault(function, EINVAL, nth, 1, OTHERS);
    held.release();
    waitForAbort();
}

void failTheEndOfTheCollector(support::Injected& function, int nth) {
    makeIdle();
    Fault const fault(function, EINVAL, nth, 1, OTHERS);
    ProcessTNG::exit();
    waitForAbort();
}

void failExit(support::Injected& function, int nth) {
    makeIdle();
    Fault const fault(function, EINVAL, nth);
    ProcessTNG::exit();
    waitForAbort();
}

struct FatalRow {
    char const* name;
    void (*body)(support::Injected& function, int nth);
    support::Injected& function;
    int nth; // Between them come those of the condition.
    char const* text;
};

void PrintTo(FatalRow const& row, std::ostream* out) {
    *out << row.name;
}

class ProcessFatalRows : public support::ProcessTest, public testing::WithParamInterface<FatalRow> {};

TEST_P(ProcessFatalRows, endTheProcess) {
    FatalRow const& row = GetParam();
    support::ChildEnd const end = support::runInChild([&] { row.body(row.function, row.nth); });
    EXPECT_EQ(SIGABRT, end.signal) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("framework/src/vesk/posix/ProcessImpl:")) << end.errors;
    std::string const expected = std::string(": ") + row.text + "\n";
    EXPECT_EQ(end.errors.size() - expected.size(), end.errors.find(expected)) << end.errors;
}

INSTANTIATE_TEST_SUITE_P(
    All, ProcessFatalRows,
    testing::Values(
        FatalRow{
            "unlock for waiting", failFromTheStartOn, inject_pthread_mutex_unlock, 1,
            "processCollector: fatal: error unlocking"},
        FatalRow{
            "lock behind the end", failFromTheEndOn, inject_pthread_mutex_lock, 1,
            "waitChild: fatal: error locking"},
        FatalRow{
            "unlock before the hand-over", failFromTheEndOn, inject_pthread_mutex_unlock, 1,
            "waitChild: fatal: error unlocking"},
        FatalRow{
            "lock of the object", failFromTheEndOn, inject_pthread_mutex_lock, 2,
            "processExited: fatal: error locking"},
        FatalRow{
            "signal", failTheSignal, inject_pthread_cond_signal, 1,
            "processExited: fatal: error signaling condition"},
        FatalRow{
            "unlock of the object", failFromTheEndOn, inject_pthread_mutex_unlock, 3,
            "processExited: fatal: error unlocking"},
        FatalRow{
            "lock behind the hand-over", failFromTheEndOn, inject_pthread_mutex_lock, 4,
            "waitChild: fatal: error locking"},
        FatalRow{
            "wait for the next child", failFromTheEndOn, inject_pthread_cond_wait, 1,
            "processCollector: fatal: error waiting on condition"},
        FatalRow{
            "unlock at the end", failTheEndOfTheCollector, inject_pthread_mutex_unlock, 1,
            "processCollector: fatal: error unlocking"},
        FatalRow{"lock of exit", failExit, inject_pthread_mutex_lock, 1, "exit: fatal: error locking"},
        FatalRow{
            "signal of exit", failExit, inject_pthread_cond_signal, 1,
            "exit: fatal: error signaling condition"},
        FatalRow{"unlock of exit", failExit, inject_pthread_mutex_unlock, 2, "exit: fatal: error unlocking"},
        FatalRow{"join of exit", failExit, inject_pthread_join, 1, "exit: fatal: error joining"}));

TEST_F(ProcessFatalRows, theFirstLockOfTheCollectorIsAmongThem) {
    // How many locks its thread takes on its way there, one or two, depends on who is faster.
    bool found = false;
    for (int round = 0; round < 100 && !found; ++round) {
        support::ChildEnd const end = support::runInChild([&] {
            Fault const fault(inject_pthread_mutex_lock, EINVAL, 2 + round % 2, 1, OTHERS);
            makeIdle();
        });
        found = end.signal == SIGABRT &&
            end.errors.find(": processCollector: fatal: error locking\n") != std::string::npos;
    }
    EXPECT_TRUE(found);
}

// ---- a broken invariant ----

TEST(ProcessBroken, aCollectorThatHasGoneWithAChildLeftIsAnAssertion) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "what is left of such a process is a data race";
#endif
    // Its thread cannot be joined, and the end goes on all the same: with the flag down but the child in the list.
    Vesk const vesk(true, false);
    support::ChildEnd const end = support::runInChild([] {
        HeldProbe held;
        ProcessTNG process;
        held.set(process);
        process.start();
        held.waitUntilBegun();
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
        _exit(testing::Test::HasFailure() ? 1 : 0); // The collector is still in its list, which is gone.
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

} // namespace
