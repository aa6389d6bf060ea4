#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/Privileges.h"
#include "support/Processes.h"

#include "SignalSupport.h"

#include <vesk/SignalCatcher.h>
#include <vesk/SignalDispatcher.h>
#include <vesk/SysError.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

VESK_INJECT_RESULT(
    pthread_create,
    (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument),
    (thread, attributes, function, argument))
VESK_INJECT_ERRNO(ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size))

namespace {

using support::CallLog;
using support::chainIs;
using support::ChildEnd;
using support::countThreads;
using support::Fault;
using support::g_threads_at_start;
using support::runInChild;
using support::systemText;
using support::waitUntil;
using vesk::SignalCatcher;
using vesk::SignalDispatcher;
using vesk::SignalQueue;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Thread;
using Reference = std::SharedBase::Ptr<SignalDispatcher>;

/// How the thread of a dispatcher looks from its inside.
struct Looks {
    CallLog log;
    char name[16] = {};
    int policy = -1;
    int priority = -1;
    int nice = -100;

    static void look(int signal, void* data) {
        auto& self = *static_cast<Looks*>(data);
        pthread_getname_np(pthread_self(), self.name, sizeof self.name);
        sched_param param{};
        pthread_getschedparam(pthread_self(), &self.policy, &param);
        self.priority = param.sched_priority;
        errno = 0;
        self.nice = getpriority(PRIO_PROCESS, 0);
        CallLog::record(signal, &self.log);
    }
};

/// Has the thread of a dispatcher look at itself.
void askThread(SignalDispatcher& dispatcher, Looks& looks) {
    dispatcher.getQueue().sign_on(1, Looks::look, &looks);
    dispatcher.getQueue().push(1);
    EXPECT_TRUE(looks.log.waitFor(1));
    dispatcher.getQueue().sign_off(1);
}

class SignalDispatcherTest : public testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(haveThreadsGone()); }

    static bool haveThreadsGone() {
        return waitUntil([] { return countThreads() == g_threads_at_start; });
    }
};

TEST_F(SignalDispatcherTest, StartsItsThreadInTheConstructorAndEndsItInTheDestructor) {
    {
        SignalDispatcher dispatcher;
        EXPECT_EQ(g_threads_at_start + 1, countThreads());
        Looks looks;
        askThread(dispatcher, looks);
        EXPECT_NE(support::getThreadId(), looks.log.getCalls()[0].thread);
        EXPECT_STREQ("ignalDispatcher", looks.name);
    }
    EXPECT_TRUE(haveThreadsGone());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST_F(SignalDispatcherTest, GivesItsThreadTheNameAndTheAttributes) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(7);
    vesk::sched::Attr attributes;
    attributes.policy = vesk::sched::VESK_SCHED_POLICY_NORMAL;
    attributes.param.nice = 7;
    SignalDispatcher dispatcher("beacon", attributes);
    Looks looks;
    askThread(dispatcher, looks);
    EXPECT_STREQ("beacon", looks.name);
    EXPECT_EQ(SCHED_OTHER, looks.policy);
    EXPECT_EQ(7, looks.nice);
}

TEST_F(SignalDispatcherTest, OfTheProcessIsScheduledAsTheMainThreadWasAtTheStart) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(5, 9, 5);
    ChildEnd const end = runInChild([] {
        EXPECT_EQ(0, setpriority(PRIO_PROCESS, 0, 5));
        vesk::Vesk const library(true, false);
        EXPECT_EQ(0, setpriority(PRIO_PROCESS, 0, 9));
        SignalDispatcher dispatcher;
        Looks looks;
        askThread(dispatcher, looks);
        EXPECT_EQ(5, looks.nice);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(SignalDispatcherTest, WithThePriorityZeroInheritsItsScheduling) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(5);
    ChildEnd const end = runInChild([] {
        EXPECT_EQ(0, setpriority(PRIO_PROCESS, 0, 5));
        int const priority = 0;
        SignalDispatcher dispatcher("older", priority);
        Looks looks;
        askThread(dispatcher, looks);
        EXPECT_STREQ("older", looks.name);
        EXPECT_EQ(SCHED_OTHER, looks.policy);
        EXPECT_EQ(5, looks.nice);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(SignalDispatcherTest, WithAPriorityKeepsThePolicyOfItsMaker) {
    VESK_SKIP_UNLESS_NICE_MAY_BE(4);
    ChildEnd const end = runInChild([] {
        SignalDispatcher dispatcher("older", 4);
        Looks looks;
        askThread(dispatcher, looks);
        EXPECT_STREQ("older", looks.name);
        EXPECT_EQ(SCHED_OTHER, looks.policy);
        EXPECT_EQ(4, looks.nice);
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(SignalDispatcherTest, WithAPriorityOfARealTimeThreadKeepsThePolicyOfItsMaker) {
    ChildEnd const end = runInChild([] {
        sched_param param{};
        param.sched_priority = 3;
        if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) != 0) {
            printf("no right");
            return;
        }
        SignalDispatcher dispatcher("older", 2);
        Looks looks;
        askThread(dispatcher, looks);
        EXPECT_EQ(SCHED_RR, looks.policy);
        EXPECT_EQ(2, looks.priority);
    });
    if (end.output == "no right") {
        GTEST_SKIP() << "real-time scheduling needs a privilege";
    }
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(SignalDispatcherTest, OfTheProcessLivesAsLongAsThereAreReferences) {
    for (int i = 0; i < 2; ++i) {
        {
            auto first = std::make_unique<Reference>(SignalDispatcher::DEFAULT);
            Reference const second(*first);
            EXPECT_EQ(g_threads_at_start + 1, countThreads());
            EXPECT_EQ(first->get(), second.get());
            first.reset();
            EXPECT_EQ(g_threads_at_start + 1, countThreads());
            Looks looks;
            askThread(*second, looks);
        }
        EXPECT_TRUE(haveThreadsGone());
    }
}

TEST_F(SignalDispatcherTest, KeepsItsCallbacksApartFromThoseOfOthers) {
    struct Held {
        std::atomic<bool> entered{false};
        std::atomic<bool> released{false};
        CallLog log;
    } held;
    CallLog log;
    SignalDispatcher dispatcher("held", vesk::sched::Attr());
    SignalCatcher const slow(
        SIGUSR1, dispatcher.getQueue(),
        [](int signal, void* data) {
            auto& self = *static_cast<Held*>(data);
            self.entered = true;
            EXPECT_TRUE(waitUntil([&] { return self.released.load(); }));
            CallLog::record(signal, &self.log);
        },
        &held);
    SignalCatcher const other(SIGUSR2, CallLog::record, &log);
    raise(SIGUSR1);
    EXPECT_TRUE(waitUntil([&] { return held.entered.load(); }));
    raise(SIGUSR2);
    EXPECT_TRUE(log.waitFor(1));
    EXPECT_EQ(0u, held.log.getCount());
    held.released = true;
    EXPECT_TRUE(held.log.waitFor(1));
    EXPECT_NE(log.getCalls()[0].thread, held.log.getCalls()[0].thread);
}

TEST_F(SignalDispatcherTest, StopsOnce) {
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
        Fault const writes(inject_write, 0);
        dispatcher->stop();
        dispatcher.reset();
        EXPECT_EQ(0, writes.getCalls());
    }
    EXPECT_EQ(1u, log.getCount());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
}

TEST_F(SignalDispatcherTest, WaitsInStopForTheCallbackThatIsUnderWayAndMakesNoOther) {
    struct Held {
        std::atomic<bool> entered{false};
        std::atomic<bool> released{false};
        std::atomic<int> calls{0};
    } held;
    SignalDispatcher dispatcher("held", vesk::sched::Attr());
    dispatcher.getQueue().sign_on(
        1,
        [](int, void* data) {
            auto& self = *static_cast<Held*>(data);
            self.entered = true;
            EXPECT_TRUE(waitUntil([&] { return self.released.load(); }));
            ++self.calls;
        },
        &held);
    dispatcher.getQueue().push(1);
    dispatcher.getQueue().push(1);
    EXPECT_TRUE(waitUntil([&] { return held.entered.load(); }));
    std::atomic<pid_t> stopper{0};
    std::atomic<bool> stopped{false};
    std::thread thread([&] {
        stopper = support::getThreadId();
        dispatcher.stop();
        stopped = true;
    });
    EXPECT_TRUE(waitUntil([&] { return stopper != 0; }));
    support::waitUntilAsleep(getpid(), stopper);
    EXPECT_FALSE(stopped);
    held.released = true;
    thread.join();
    EXPECT_EQ(1, held.calls);
}

TEST_F(SignalDispatcherTest, WithoutAThreadLeavesTheErrorPendingAndEndsQuietly) {
    CallLog log;
    {
        Fault const fault(inject_pthread_create, EAGAIN, 1, Fault::FOREVER);
        auto const catcher = std::make_unique<SignalCatcher>(SIGUSR1, CallLog::record, &log);
        EXPECT_TRUE(chainIs(
            {{SysErrorId::RESOURCES_EXHAUSTED,
              support::rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EAGAIN))},
             {Thread::Error, Thread::ErrorId::CREATE_FAILED,
              "Thread creation failed: thread creation failed"},
             {std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
              "Contract broken by the caller: start() called in invalid state"}}));
        // It is caught all the same.
        raise(SIGUSR1);
    }
    EXPECT_EQ(0u, log.getCount());
    EXPECT_FALSE(std::ErrorStorage::isError(true));
    // The next one tries again.
    SignalCatcher const catcher(SIGUSR1, CallLog::record, &log);
    raise(SIGUSR1);
    EXPECT_TRUE(log.waitFor(1));
}

TEST_F(SignalDispatcherTest, IsJoinedAlsoByAThreadThatIsCancelled) {
    pthread_t thread{};
    std::atomic<bool> destroyed{false};
    ASSERT_EQ(
        0,
        pthread_create(
            &thread, nullptr,
            [](void* argument) -> void* {
                CallLog log;
                auto catcher = std::make_unique<SignalCatcher>(SIGUSR1, CallLog::record, &log);
                pthread_cancel(pthread_self());
                catcher.reset();
                *static_cast<std::atomic<bool>*>(argument) = true;
                pthread_testcancel();
                return nullptr;
            },
            &destroyed));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(haveThreadsGone());
}

TEST_F(SignalDispatcherTest, IsNoValue) {
    static_assert(!std::is_copy_constructible_v<SignalDispatcher>);
    static_assert(!std::is_polymorphic_v<SignalDispatcher>);
}

} // namespace
