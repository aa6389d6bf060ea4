#include "support/CleanEnd.h"
#include "support/NewFault.h"
#include "support/RunInThreads.h"

#include <vesk/Dispatcher.h>

#include <atomic>
#include <functional>
#include <thread>
#include <type_traits>

namespace {

using support::runInThreads;
using vesk::Message;
using VanillaQueue = vesk::Dispatcher::VanillaQueue;

/// A notifier without waiters.
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
    explicit TracedMessage(int& calls) : m_calls(calls) {}
    ~TracedMessage() override { ++m_calls; }
    void invoke() override { ++m_calls; }
    void dismiss() override { ++m_calls; }

private:
    int& m_calls;
};

class VanillaQueueTest : public testing::Test {
protected:
    CountingNotifier m_notifier;
    VanillaQueue m_queue{m_notifier};
};

TEST_F(VanillaQueueTest, firstInIsFirstOutAndEveryPushSignalsOnce) {
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
    EXPECT_EQ(0, m_notifier.signals);
    std::vector<Message> messages(1000);
    int pushes = 0;
    for (Message& message : messages) {
        m_queue.push(&message);
        EXPECT_EQ(++pushes, m_notifier.signals);
    }
    m_queue.push(&messages[0]); // Once more.
    for (Message& message : messages) {
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(&messages[0], m_queue.pop_nonblock());
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

TEST_F(VanillaQueueTest, signalFollowsTheUnlockWithTheMessageInTheQueue) {
    Message message;
    Message* popped = nullptr; // An event would show that the lock is not free.
    m_notifier.on_signal = [&] { popped = m_queue.pop_nonblock(); };
    m_queue.push(&message);
    EXPECT_EQ(&message, popped);
}

TEST(VanillaQueue, destructorNeitherInvokesNorDismissesNorDeletesQueuedMessages) {
    CountingNotifier notifier;
    int calls = 0;
    TracedMessage first(calls);
    TracedMessage second(calls);
    {
        VanillaQueue queue(notifier);
        queue.push(&first);
        queue.push(&second);
    }
    EXPECT_EQ(0, calls);
}

TEST_F(VanillaQueueTest, severalThreadsPopEachMessageOnceAndInOrder) {
    constexpr int THREADS = 3;
    constexpr int MESSAGES = 3000;
    std::vector<Message> messages(MESSAGES);
    std::vector<std::atomic<int>> seen(MESSAGES);
    std::atomic<int> left{MESSAGES};
    runInThreads(THREADS + 1, [&](int thread) {
        if (thread == THREADS) {
            for (Message& message : messages) {
                m_queue.push(&message);
            }
        }
        Message* last = nullptr;
        while (thread < THREADS && left > 0) {
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
    for (std::atomic<int> const& count : seen) {
        EXPECT_EQ(1, count);
    }
    EXPECT_EQ(MESSAGES, m_notifier.signals);
}

TEST_F(VanillaQueueTest, withoutMemoryAPushThrowsAndLeavesTheMessageToTheCaller) {
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
    EXPECT_EQ(pushed, m_notifier.signals) << "a refused message is not signaled";
    m_queue.push(&message);
    for (int i = 0; i < pushed + 1; ++i) {
        EXPECT_EQ(&message, m_queue.pop_nonblock());
    }
    EXPECT_EQ(nullptr, m_queue.pop_nonblock());
}

TEST(VanillaQueueClass, isASourceAndASinkWithoutMembersAndCanBeDeletedAsBoth) {
    CountingNotifier notifier;
    delete static_cast<Message::Source*>(new VanillaQueue(notifier));
    delete static_cast<Message::Sink*>(new VanillaQueue(notifier));
    EXPECT_EQ(0, notifier.signals);
    EXPECT_TRUE((std::is_base_of_v<Message::Source, vesk::Dispatcher::Queue>));
    EXPECT_TRUE((std::is_base_of_v<Message::Sink, vesk::Dispatcher::Queue>));
    EXPECT_TRUE((std::is_base_of_v<vesk::Dispatcher::Queue, VanillaQueue>));
    EXPECT_TRUE(std::is_abstract_v<vesk::Dispatcher::Queue>);
    EXPECT_EQ(2 * sizeof(void*), sizeof(vesk::Dispatcher::Queue));
}

} // namespace
