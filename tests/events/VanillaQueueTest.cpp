#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"

#include <vesk/Dispatcher.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <new>
#include <pthread.h>
#include <thread>
#include <type_traits>
#include <vector>

VESK_INJECT_RESULT(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VESK_INJECT_RESULT(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))

namespace {

using support::EventRecorder;
using support::Fault;
using support::runInChild;
using vesk::Message;
using VanillaQueue = vesk::Dispatcher::VanillaQueue;

/// A notifier that nobody sleeps on.
class CountingNotifier : public vesk::Dispatcher::Notifier {
public:
    void wait() override {}
    void signal() override {
        ++signals;
        if (on_signal) {
            on_signal();
        }
    }

    std::atomic<int> signals{0};
    std::function<void()> on_signal;
};

class TracedMessage : public Message {
public:
    struct Trace {
        int invoked = 0;
        int dismissed = 0;
        int deleted = 0;
    };

    explicit TracedMessage(Trace& trace) : m_trace(trace) {}
    ~TracedMessage() override { ++m_trace.deleted; }
    void invoke() override { ++m_trace.invoked; }
    void dismiss() override { ++m_trace.dismissed; }

private:
    Trace& m_trace;
};

class VanillaQueueTest : public testing::Test {
protected:
    CountingNotifier m_notifier;
    VanillaQueue m_queue{m_notifier};
};

TEST_F(VanillaQueueTest, emptyOneGivesNull) {
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
    EXPECT_EQ(0, m_notifier.signals);
}

TEST_F(VanillaQueueTest, firstInIsFirstOut) {
    std::vector<Message> messages(1000);
    for (Message& message : messages) {
        m_queue.push(&message);
    }
    for (Message& message : messages) {
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

TEST_F(VanillaQueueTest, oneMessagePushedTwiceComesTwice) {
    Message message;
    m_queue.push(&message);
    m_queue.push(&message);
    EXPECT_EQ(&message, m_queue.pop_nonblock());
    EXPECT_EQ(&message, m_queue.pop_nonblock());
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

TEST_F(VanillaQueueTest, everyPushSignalsOnce) {
    Message message;
    m_queue.push(&message);
    EXPECT_EQ(1, m_notifier.signals);
    m_queue.push(&message);
    EXPECT_EQ(2, m_notifier.signals);
}

TEST_F(VanillaQueueTest, signalComesAfterTheUnlockWithTheMessageInside) {
    EventRecorder const recorder;
    Message message;
    Message* popped = nullptr;
    m_notifier.on_signal = [&] { popped = m_queue.pop_nonblock(); };
    m_queue.push(&message);
    EXPECT_EQ(&message, popped);
    EXPECT_EQ("", recorder.getText()) << "a held lock would not have been had";
}

TEST(VanillaQueue, messagesStillInItAtItsEndAreNeitherInvokedNorDismissedNorDeleted) {
    CountingNotifier notifier;
    TracedMessage::Trace trace;
    auto const first = std::make_unique<TracedMessage>(trace);
    auto const second = std::make_unique<TracedMessage>(trace);
    {
        VanillaQueue queue(notifier);
        queue.push(first.get());
        queue.push(second.get());
    }
    EXPECT_EQ(0, trace.invoked);
    EXPECT_EQ(0, trace.dismissed);
    EXPECT_EQ(0, trace.deleted);
}

TEST_F(VanillaQueueTest, severalThreadsPopEachMessageOnceAndInOrder) {
    constexpr int THREADS = 3;
    constexpr int MESSAGES = 3000;
    std::vector<Message> messages(MESSAGES);
    std::vector<std::atomic<int>> seen(MESSAGES);
    std::atomic<int> left{MESSAGES};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            Message* last = nullptr;
            while (left > 0) {
                if (Message* const message = m_queue.pop_nonblock()) {
                    EXPECT_GT(message, last);
                    last = message;
                    ++seen[static_cast<size_t>(message - messages.data())];
                    --left;
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (Message& message : messages) {
        m_queue.push(&message);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::atomic<int> const& count : seen) {
        EXPECT_EQ(1, count);
    }
    EXPECT_EQ(MESSAGES, m_notifier.signals);
}

TEST_F(VanillaQueueTest, withoutMemoryTheMessageStaysTheCallersAndTheQueueWorks) {
    Message message;
    int pushed = 0;
    bool refused = false;
    while (!refused && pushed < 100000) {
        try {
            support::NewFault const no_memory(support::New::SINGLE, 1, support::NewFault::FOREVER);
            m_queue.push(&message);
            ++pushed;
        } catch (std::bad_alloc const&) {
            refused = true;
        }
    }
    ASSERT_TRUE(refused);
    EXPECT_EQ(pushed, m_notifier.signals) << "no signal for what is not inside";
    m_queue.push(&message);
    for (int i = 0; i < pushed + 1; ++i) {
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

// ---- The lock fails ----

TEST_F(VanillaQueueTest, pushWithoutItsLockIsFatal) {
    EventRecorder const recorder;
    Message message;
    {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        m_queue.push(&message);
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/Dispatcher push: error locking\n"
        "ABORT framework/src/vesk/Dispatcher push: error unlocking",
        recorder.getText());
    EXPECT_EQ(1, m_notifier.signals) << "the code behind a fatal error goes on";
    EXPECT_EQ(&message, m_queue.pop_nonblock());
}

TEST_F(VanillaQueueTest, pushThatCannotUnlockIsFatal) {
    EventRecorder const recorder;
    Message message;
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        m_queue.push(&message);
    }
    EXPECT_EQ("ABORT framework/src/vesk/Dispatcher push: error unlocking", recorder.getText());
    EXPECT_EQ(&message, m_queue.pop_nonblock()) << "whose unlock frees the lock, its own locking being fatal";
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
    EXPECT_EQ(
        "ABORT framework/src/vesk/Dispatcher push: error unlocking\n"
        "ABORT framework/src/vesk/Dispatcher pop_nonblock: error locking",
        recorder.getText());
}

TEST_F(VanillaQueueTest, popWithoutItsLockIsFatal) {
    EventRecorder const recorder;
    Message message;
    m_queue.push(&message);
    {
        Fault const fault(inject_pthread_mutex_lock, EAGAIN);
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(
        "ABORT framework/src/vesk/Dispatcher pop_nonblock: error locking\n"
        "ABORT framework/src/vesk/Dispatcher pop_nonblock: error unlocking",
        recorder.getText());
}

TEST_F(VanillaQueueTest, popThatCannotUnlockIsFatal) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_pthread_mutex_unlock, EPERM);
        EXPECT_EQ(nullptr, m_queue.pop_nonblock());
    }
    EXPECT_EQ("ABORT framework/src/vesk/Dispatcher pop_nonblock: error unlocking", recorder.getText());
    EXPECT_EQ(nullptr, m_queue.pop_nonblock()); // Frees the lock.
}

TEST_F(VanillaQueueTest, fatalMeansThatTheProcessEnds) {
    support::ChildEnd const end = runInChild([this] {
        Fault const fault(inject_pthread_mutex_lock, EINVAL);
        m_queue.pop_nonblock();
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("error locking")) << end.errors;
}

TEST(VanillaQueueClass, isASourceAndASinkThatAddNothing) {
    EXPECT_TRUE((std::is_base_of_v<Message::Source, vesk::Dispatcher::Queue>));
    EXPECT_TRUE((std::is_base_of_v<Message::Sink, vesk::Dispatcher::Queue>));
    EXPECT_TRUE((std::is_base_of_v<vesk::Dispatcher::Queue, VanillaQueue>));
    EXPECT_TRUE(std::is_abstract_v<vesk::Dispatcher::Queue>);
    EXPECT_EQ(2 * sizeof(void*), sizeof(vesk::Dispatcher::Queue));
}

TEST(VanillaQueueClass, canBeDeletedAsASourceAndAsASink) {
    CountingNotifier notifier;
    delete static_cast<Message::Source*>(new VanillaQueue(notifier));
    delete static_cast<Message::Sink*>(new VanillaQueue(notifier));
    EXPECT_EQ(0, notifier.signals);
}

} // namespace
