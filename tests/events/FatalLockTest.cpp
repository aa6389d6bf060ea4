#include "support/Aborts.h"
#include "support/ErrnoRows.h"
#include "support/EventRecorder.h"
#include "support/UnlockFault.h"

#include <tarncommon/error/ErrorStorage.h>
#include <vesk/Dispatcher.h>
#include <vesk/Poller.h>
#include <vesk/SignalQueue.h>

/// What happens if the locks of dispatchers, queues, notifiers and pollers fail.

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace support;
using namespace vesk;

struct IgnoringNotifier : Dispatcher::Notifier {
    void wait() override {}
    void signal() override { ++signals; }
    int signals = 0;
};

struct Handler : Message::Handler {
    void handle(Message&) override { ++count; }
    int count = 0;
};

struct KeptMessage : Message {
    void get_handled_by(Message::Handler* by) override { by->handle(*this); }
    void invoke() override { ++invoked; }
    void dismiss() override {}
    int invoked = 0;
};

struct SilentClient : Poller::Client {
    void error(int) override {}
};

void ignoreSignal(int, void*) {}

/// One object of each class with a lock.
struct Objects {
    Objects() {
        dispatcher.add_handler(present_handler);
        full_queue.push(&message);
        signaled_notifier.signal();
        poller.add(client, -1);
        poller.remove(5);
        signal_queue.sign_on(5, ignoreSignal, nullptr);
    }

    IgnoringNotifier notifier;
    Handler handler;
    Handler present_handler;
    KeptMessage message;
    SilentClient client;
    Dispatcher dispatcher{notifier};
    Dispatcher::VanillaQueue queue{notifier};
    Dispatcher::VanillaQueue full_queue{notifier};
    Dispatcher::VanillaNotifier vanilla_notifier;
    Dispatcher::VanillaNotifier signaled_notifier;
    Poller poller;
    SignalQueue signal_queue{notifier};
};

/// An operation that locks.
struct Operation {
    char const* name;
    char const* place; ///< In the text of the fatal error.
    void (*run)(Objects&);
    /// Checks the effect after a failure, and locks again, which is fatal and releases a lock that is still
    /// held.
    void (*check)(Objects&) = nullptr;
};

void checkDispatcher(Objects& objects) {
    objects.dispatcher.remove_handler(objects.handler);
}

void checkPoller(Objects& objects) {
    objects.poller.remove(objects.client);
}

Operation const OPERATIONS[] = {
    {"Dispatcher_dispatch", "Dispatcher dispatch",
     [](Objects& o) {
         o.dispatcher.dispatch(&o.message);
         EXPECT_EQ(1, o.present_handler.count) << "the code after a fatal error continues";
         EXPECT_EQ(1, o.message.invoked);
     },
     checkDispatcher},
    {"Dispatcher_add_handler", "Dispatcher add_handler",
     [](Objects& o) { o.dispatcher.add_handler(o.handler); }, checkDispatcher},
    {"Dispatcher_remove_handler", "Dispatcher remove_handler",
     [](Objects& o) { o.dispatcher.remove_handler(o.handler); }, checkDispatcher},
    {"VanillaQueue_push", "Dispatcher push",
     [](Objects& o) {
         int const signals = o.notifier.signals;
         o.queue.push(&o.message);
         EXPECT_EQ(signals + 1, o.notifier.signals);
     },
     [](Objects& o) {
         EXPECT_EQ(&o.message, o.queue.pop_nonblock());
         EXPECT_EQ(nullptr, o.queue.pop_nonblock());
     }},
    {"VanillaQueue_pop", "Dispatcher pop_nonblock",
     [](Objects& o) { EXPECT_EQ(&o.message, o.full_queue.pop_nonblock()); },
     [](Objects& o) { EXPECT_EQ(nullptr, o.full_queue.pop_nonblock()); }},
    {"VanillaNotifier_wait", "Dispatcher wait", [](Objects& o) { o.signaled_notifier.wait(); },
     [](Objects& o) { o.signaled_notifier.signal(); }},
    {"VanillaNotifier_signal", "Dispatcher signal", [](Objects& o) { o.vanilla_notifier.signal(); },
     [](Objects& o) { o.vanilla_notifier.wait(); }},
    {"Poller_add", "posix/Poller add", [](Objects& o) { o.poller.add(o.client, 5); }, checkPoller},
    {"Poller_removeClient", "posix/Poller remove", [](Objects& o) { o.poller.remove(o.client); },
     checkPoller},
    {"Poller_removeDescriptor", "posix/Poller remove", [](Objects& o) { o.poller.remove(5); }, checkPoller},
    {"Poller_poll", "posix/Poller poll", [](Objects& o) { o.poller.poll(); }, checkPoller},
    {"SignalQueue_sign_on", "SignalQueuePosixBase sign_on",
     [](Objects& o) { o.signal_queue.sign_on(6, ignoreSignal, nullptr); }},
    {"SignalQueue_sign_off", "SignalQueuePosixBase sign_off", [](Objects& o) { o.signal_queue.sign_off(5); }},
    {"SignalQueue_pop", "SignalQueuePosixBase pop_nonblock",
     [](Objects& o) { EXPECT_EQ(nullptr, o.signal_queue.pop_nonblock()); }},
};

class FatalLock : public testing::TestWithParam<Operation> {
protected:
    /// Whether the lock checks its owner. A plain mutex does not notice that it is not locked.
    static bool checksOwner() { return GetParam().check != nullptr; }
    static std::string text(char const* message) {
        return std::string("ABORT framework/src/vesk/") + GetParam().place + ": " + message;
    }
    void TearDown() override { g_failing_unlock_unlocks = true; }
    static bool isOfDispatcher() { return std::string(GetParam().name).find("Dispatcher") == 0; }

    EventRecorder m_recorder;
    Objects m_objects;
};

TEST_P(FatalLock, failureToLockIsFatalAndTheOperationContinues) {
    {
        Fault const lock(inject_pthread_mutex_lock, EINVAL);
        // The first unlock is that of the recorder. A plain mutex that is not locked must not be unlocked.
        g_failing_unlock_unlocks = false;
        Fault const unlock(inject_pthread_mutex_unlock, checksOwner() ? 0 : EPERM, 2);
        GetParam().run(m_objects);
    }
    EXPECT_EQ(text("error locking") + "\n" + text("error unlocking"), m_recorder.getText());
    if (isOfDispatcher()) {
        EXPECT_TRUE(chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}})) << "the mutex has reported first";
    }
    std::ErrorStorage::ack();
    if (checksOwner()) {
        GetParam().check(m_objects);
    }
    EXPECT_EQ(2U, m_recorder.getCount());
}

TEST_P(FatalLock, failureToUnlockIsFatal) {
    {
        g_failing_unlock_unlocks = !checksOwner(); // Else it is destroyed while it is locked.
        Fault const fault(inject_pthread_mutex_unlock, checksOwner() ? EPERM : EINVAL);
        GetParam().run(m_objects);
    }
    EXPECT_EQ(text("error unlocking"), m_recorder.getText().substr(0, text("error unlocking").size()));
    if (isOfDispatcher()) {
        EXPECT_TRUE(chainIs({{vesk::Mutex::ErrorId::INCONSISTENT}}));
    }
    if (checksOwner() && m_recorder.getCount() == 1) {
        GetParam().check(m_objects);
    }
    EXPECT_EQ(checksOwner() ? 2U : 1U, m_recorder.getCount()) << m_recorder.getText();
    std::ErrorStorage::ack();
}

TEST_P(FatalLock, failureEndsTheProcess) {
    EXPECT_TRUE(abortsWith("error locking", [this] {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        GetParam().run(m_objects);
    }));
}

INSTANTIATE_TEST_SUITE_P(All, FatalLock, testing::ValuesIn(OPERATIONS), RowName());

TEST(DispatcherLock, isTakenToDispatchOnlyWhileThereAreHandlers) {
    IgnoringNotifier notifier;
    Dispatcher dispatcher(notifier);
    Handler handler;
    KeptMessage message;
    auto const countLocks = [&] {
        Fault const locks(inject_pthread_mutex_lock, 0);
        dispatcher.dispatch(&message);
        return locks.getCalls();
    };
    EXPECT_EQ(0, countLocks());
    dispatcher.add_handler(handler);
    dispatcher.add_handler(handler);
    EXPECT_EQ(1, countLocks());
    EXPECT_EQ(2, handler.count);
    dispatcher.remove_handler(handler);
    EXPECT_EQ(0, countLocks());
    EXPECT_EQ(3, message.invoked);
}

TEST(VanillaNotifierLock, isNotTakenToSignalWhileAWakeUpIsPending) {
    Dispatcher::VanillaNotifier notifier;
    notifier.signal();
    Fault const locks(inject_pthread_mutex_lock, 0);
    notifier.signal();
    EXPECT_EQ(0, locks.getCalls());
    notifier.wait();
    notifier.signal();
    EXPECT_EQ(2, locks.getCalls()) << "of the wait, and of the new wake-up";
}

TEST(DispatcherLock, isNotTakenToAddASource) {
    Dispatcher::VanillaNotifier notifier;
    Dispatcher dispatcher(notifier);
    Dispatcher::VanillaQueue queue(notifier);
    Fault const locks(inject_pthread_mutex_lock, 0);
    dispatcher.add_source(queue);
    EXPECT_EQ(0, locks.getCalls());
}

} // namespace
