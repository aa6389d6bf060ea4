#include "SignalSupport.h"
#include "support/ErrnoRows.h"
#include "support/SyscallFault.h"

#include <vesk/SignalCatcher.h>
#include <vesk/SignalDispatcher.h>
#include <vesk/Vesk.h>

VESK_INJECT_RESULT(
    pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument),
    (thread, attributes, function, argument))

namespace {

using namespace support;
using namespace vesk;
using Reference = std::SharedBase::Ptr<SignalDispatcher>;

/// What the thread of a dispatcher finds out about itself.
struct ThreadState {
    pid_t id = 0;
    char name[16] = {};
    int policy = -1;
    int priority = -1;
    int nice = -100;
};

ThreadState getThreadState(SignalDispatcher& dispatcher) {
    ThreadState state;
    CallLog log;
    Callback callback{[&](int signal) {
        state.id = getThreadId();
        pthread_getname_np(pthread_self(), state.name, sizeof state.name);
        sched_param param{};
        pthread_getschedparam(pthread_self(), &state.policy, &param);
        state.priority = param.sched_priority;
        errno = 0;
        state.nice = getpriority(PRIO_PROCESS, 0);
        CallLog::record(signal, &log);
    }};
    dispatcher.getQueue().sign_on(1, Callback::run, &callback);
    dispatcher.getQueue().push(1);
    EXPECT_TRUE(log.waitFor(1));
    dispatcher.getQueue().sign_off(1);
    return state;
}

class SignalDispatcherTest : public testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(haveThreadsGone()); }

    static bool haveThreadsGone() { return hasThreads(g_threads_at_start); }
};

TEST_F(SignalDispatcherTest, startsItsThreadInTheConstructorAndEndsItInTheDestructor) {
    {
        SignalDispatcher dispatcher;
        EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
        ThreadState const state = getThreadState(dispatcher);
        EXPECT_NE(getThreadId(), state.id);
        EXPECT_STREQ("ignalDispatcher", state.name);
    }
    EXPECT_TRUE(haveThreadsGone());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST_F(SignalDispatcherTest, givesItsThreadTheNameAndTheAttributes) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(7);
    vesk::sched::Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    attributes.param.nice = 7;
    SignalDispatcher dispatcher("beacon", attributes);
    ThreadState const state = getThreadState(dispatcher);
    EXPECT_STREQ("beacon", state.name);
    EXPECT_EQ(SCHED_OTHER, state.policy);
    EXPECT_EQ(7, state.nice);
}

TEST_F(SignalDispatcherTest, withoutAttributesIsScheduledAsTheMainThreadWasAtTheStart) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(5, 9, 5);
    expectInChild([] {
        EXPECT_EQ(0, setpriority(PRIO_PROCESS, 0, 5));
        vesk::Vesk const library(true, false);
        EXPECT_EQ(0, setpriority(PRIO_PROCESS, 0, 9));
        SignalDispatcher dispatcher;
        EXPECT_EQ(5, getThreadState(dispatcher).nice);
    });
}

TEST_F(SignalDispatcherTest, withAPriorityKeepsThePolicyOfItsCreatorAndWithZeroInheritsItsScheduling) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(4, 5);
    expectInChild([] {
        for (int const priority : {4, 0}) {
            SCOPED_TRACE(priority);
            EXPECT_TRUE(priority != 0 || setpriority(PRIO_PROCESS, 0, 5) == 0);
            SignalDispatcher dispatcher("older", priority);
            ThreadState const state = getThreadState(dispatcher);
            EXPECT_STREQ("older", state.name);
            EXPECT_EQ(SCHED_OTHER, state.policy);
            EXPECT_EQ(priority == 0 ? 5 : priority, state.nice);
        }
    });
}

TEST_F(SignalDispatcherTest, withAPriorityOfARealTimeThreadKeepsThePolicyOfItsCreator) {
    ChildEnd const end = runInChild([] {
        sched_param param{};
        param.sched_priority = 3;
        if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) != 0) {
            printf("no right");
            return;
        }
        SignalDispatcher dispatcher("older", 2);
        ThreadState const state = getThreadState(dispatcher);
        EXPECT_EQ(SCHED_RR, state.policy);
        EXPECT_EQ(2, state.priority);
    });
    if (end.output == "no right") {
        GTEST_SKIP() << "real-time scheduling needs a privilege";
    }
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(SignalDispatcherTest, ofTheProcessExistsAsLongAsThereAreReferences) {
    for (int i = 0; i < 2; ++i) {
        {
            auto first = std::make_unique<Reference>(SignalDispatcher::DEFAULT);
            Reference const second(*first);
            EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
            EXPECT_EQ(first->get(), second.get());
            first.reset();
            EXPECT_TRUE(hasThreads(g_threads_at_start + 1));
            EXPECT_NE(0, getThreadState(*second).id);
        }
        EXPECT_TRUE(haveThreadsGone());
    }
}

TEST_F(SignalDispatcherTest, runsItsCallbacksBesideThoseOfOtherDispatchers) {
    HeldCallback held;
    CallLog log;
    SignalDispatcher dispatcher("held", vesk::sched::Attr());
    SignalCatcher const slow(SIGUSR1, dispatcher.getQueue(), HeldCallback::run, &held);
    SignalCatcher const other(SIGUSR2, CallLog::record, &log);
    raise(SIGUSR1);
    held.awaitEntry();
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_EQ(0u, held.log.getCount());
    held.released = true;
    EXPECT_TRUE(held.log.waitFor(1));
    EXPECT_NE(log.getCalls()[0].thread, held.log.getCalls()[0].thread);
}

TEST_F(SignalDispatcherTest, stopsOnce) {
    CallLog log;
    auto dispatcher = std::make_unique<SignalDispatcher>();
    SignalQueue& queue = dispatcher->getQueue();
    queue.sign_on(1, CallLog::record, &log);
    queue.push(1);
    EXPECT_TRUE(log.waitFor(1));
    dispatcher->stop();
    EXPECT_TRUE(haveThreadsGone());
    // Catchers may still be there.
    queue.push(1);
    {
        g_failing_syscall = SYS_write;
        Fault const writes(inject_syscall, 0);
        dispatcher->stop();
        dispatcher.reset();
        EXPECT_EQ(0, writes.getCalls());
    }
    EXPECT_EQ(1u, log.getCount());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST_F(SignalDispatcherTest, stopWaitsForTheRunningCallbackAndMakesNoOther) {
    HeldCallback held;
    SignalDispatcher dispatcher("held", vesk::sched::Attr());
    dispatcher.getQueue().sign_on(1, HeldCallback::run, &held);
    dispatcher.getQueue().push(1);
    dispatcher.getQueue().push(1);
    held.awaitEntry();
    Sleeper stopper([&] { dispatcher.stop(); });
    stopper.awaitSleep();
    EXPECT_FALSE(stopper.isDone());
    held.released = true;
    stopper.join();
    EXPECT_EQ(1u, held.log.getCount());
}

TEST_F(SignalDispatcherTest, withoutAThreadLeavesTheErrorPendingAndEndsWithoutAReport) {
    CallLog log;
    {
        Fault const fault(inject_pthread_create, EAGAIN, 1, Fault::FOREVER);
        auto const catcher = std::make_unique<SignalCatcher>(SIGUSR1, CallLog::record, &log);
        EXPECT_TRUE(chainIs(
            {reportsOf({EAGAIN, SysErrorId::RESOURCES_EXHAUSTED})[0],
             {Thread::Error, Thread::ErrorId::CREATE_FAILED,
              "Thread creation failed: thread creation failed"},
             {std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
              "Contract broken by the caller: start() called in invalid state"}}));
        raise(SIGUSR1); // It is caught, but no thread calls back.
    }
    EXPECT_EQ(0u, log.getCount());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
    // The next one tries again.
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
}

TEST_F(SignalDispatcherTest, isJoinedAlsoByAThreadThatIsCanceled) {
    EXPECT_FALSE(isCanceled([] {
        CallLog log;
        SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    }));
    EXPECT_TRUE(haveThreadsGone());
}

TEST_F(SignalDispatcherTest, isNotCopyable) {
    static_assert(!std::is_copy_constructible_v<SignalDispatcher>);
    static_assert(!std::is_polymorphic_v<SignalDispatcher>);
}

} // namespace
