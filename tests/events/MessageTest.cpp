#include "support/VtableSlot.h"

#include <vesk/Message.h>

#include <type_traits>

namespace {

using support::getSlot;
using vesk::Message;

class CountingMessage : public Message {
public:
    explicit CountingMessage(int& deleted) : m_deleted(deleted) {}
    ~CountingMessage() override { ++m_deleted; }

private:
    int& m_deleted;
};

class CountingHandler : public Message::Handler {
public:
    void handle(Message& message) override {
        ++count;
        last = &message;
    }

    int count = 0;
    Message* last = nullptr;
};

/// Dismisses a message that may be null. The compiler neither sees the value nor checks the call.
__attribute__((noinline, no_sanitize("undefined"))) void dismissPossiblyNull(Message* volatile pointer) {
    Message* const message = pointer;
    message->Message::dismiss();
}

class MessageTest : public testing::Test {
protected:
    int m_deleted = 0;
    Message* m_message = new CountingMessage(m_deleted);
};

TEST_F(MessageTest, dismissOnANullPointerReturnsWithoutEffect) {
    dismissPossiblyNull(nullptr);
    EXPECT_EQ(0, m_deleted);
    dismissPossiblyNull(m_message);
    EXPECT_EQ(1, m_deleted);
}

TEST_F(MessageTest, baseInvokesNothingAndAbortsWithZeroAndStaysUntilItIsDismissed) {
    m_message->invoke();
    EXPECT_EQ(0, m_message->abort());
    EXPECT_EQ(0, m_deleted);
    m_message->dismiss();
    EXPECT_EQ(1, m_deleted) << "through its virtual destructor";
}

TEST(Message, aMessageThatOverridesDismissStays) {
    class Static : public Message {
    public:
        void dismiss() override { ++dismissed; }
        int dismissed = 0;
    } message;
    static_cast<Message&>(message).dismiss();
    EXPECT_EQ(1, message.dismissed);
}

TEST(Message, onlyADerivedMessagePassesItselfToTheHandler) {
    class Shown : public Message {
        void get_handled_by(Handler* handler) override { handler->handle(*this); }
    } shown;
    Message base;
    Message& message = shown;
    CountingHandler handler;
    base.get_handled_by(&handler);
    EXPECT_EQ(0, handler.count);
    message.get_handled_by(&handler);
    EXPECT_EQ(1, handler.count);
    EXPECT_EQ(&message, handler.last);
}

TEST(MessageCallback, invokeCallsTheFunctionWithItsData) {
    int calls = 0;
    Message* const message = new Message::Callback([](void* data) { ++*static_cast<int*>(data); }, &calls);
    EXPECT_EQ(0, calls);
    message->invoke();
    message->invoke();
    EXPECT_EQ(2, calls);
    message->dismiss();
    EXPECT_EQ(2, calls);
    static void const* s_seen = &calls;
    Message::Callback callback([](void* data) { s_seen = data; }, nullptr);
    static_cast<Message&>(callback).invoke();
    EXPECT_EQ(nullptr, s_seen);
    EXPECT_EQ(sizeof(Message) + 2 * sizeof(void*), sizeof(Message::Callback));
}

TEST(MessageSlots, interfacesArePureAndVirtualOperationsFollowTheirDestructorsInOrder) {
    EXPECT_EQ(2, getSlot(&Message::get_handled_by));
    EXPECT_EQ(3, getSlot(&Message::invoke));
    EXPECT_EQ(4, getSlot(&Message::dismiss));
    EXPECT_EQ(5, getSlot(&Message::abort));
    EXPECT_EQ(2, getSlot(&Message::Source::pop_nonblock));
    EXPECT_EQ(2, getSlot(&Message::Sink::push));
    EXPECT_EQ(2, getSlot(&Message::Handler::handle));
    EXPECT_TRUE(
        std::is_abstract_v<Message::Source> && std::is_abstract_v<Message::Sink> &&
        std::is_abstract_v<Message::Handler>);
    EXPECT_FALSE(std::is_abstract_v<Message>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message::Source>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message::Sink>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message::Handler>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Message>);
}

} // namespace
