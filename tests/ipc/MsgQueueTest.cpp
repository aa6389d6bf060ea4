#include "IpcSupport.h"
#include "support/Processes.h"
#include "support/TempFolder.h"

#include <tarncommon/stream/IBinStreamBase.h>

#include <limits>

VESK_INJECT_ERRNO(long, -1, sysconf, (int name), (name))
VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))

VESK_INJECT_OPEN()

namespace {

using namespace support;
using namespace vesk;
using Message = MsgQueueBase::Message;

constexpr unsigned int MSG_SIZE = 16;
constexpr unsigned int MAX_MSGS = 3;

static_assert(offsetof(Message, buffer) == 0);
static_assert(offsetof(Message, size) == sizeof(char*));
static_assert(offsetof(Message, priority) == sizeof(char*) + 4);

/// Writes a text without waiting.
bool put(MsgQueueBase& queue, std::string text, unsigned int priority = 0) {
    Message const message{text.data(), static_cast<unsigned int>(text.size()), priority};
    return queue.writeMsgTimeout(&message, 0) == 0;
}

/// Returns the text of the next message, or "(none)".
std::string get(MsgQueueBase& queue, long long timeout = 0) {
    char buffer[MSG_SIZE];
    Message message{buffer, sizeof buffer, 0};
    return queue.readMsgTimeout(&message, timeout) == 0 ? std::string(buffer, message.size) : "(none)";
}

/// The queue of the test is created by `m_queue`.
class MsgQueueTest : public testing::Test {
protected:
    void SetUp() override {
        VESK_SKIP_WITHOUT_QUEUES();
        ASSERT_FALSE(create(m_queue));
    }

    bool
    create(MsgQueueServer& server, unsigned int msg_size = MSG_SIZE, unsigned int max_msgs = MAX_MSGS) const {
        return server.create(m_name, msg_size, max_msgs, Creatable::REPLACE);
    }
    std::string getText() const { return std::string(m_buffer, m_message.size); }

    IpcName m_name{QUEUE};
    MsgQueueServer m_queue;
    char m_buffer[MSG_SIZE] = {};
    Message m_message{m_buffer, MSG_SIZE, 0};
    Message const m_empty{m_buffer, 0, 0};
};

// ---- messages ----

TEST_F(MsgQueueTest, messageArrivesWholeAlsoAnEmptyOne) {
    char text[] = "tea";
    Message const sent{text, 3, 7};
    EXPECT_FALSE(m_queue.writeMsg(&sent));
    EXPECT_EQ(1U, m_queue.availMsgs());
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ("tea", getText());
    EXPECT_EQ(7U, m_message.priority);
    EXPECT_EQ(0U, m_queue.availMsgs());
    EXPECT_FALSE(m_queue.writeMsg(&m_empty));
    m_message.size = MSG_SIZE;
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ(0U, m_message.size);
}

TEST_F(MsgQueueTest, oldestMessageOfTheHighestPriorityComesFirst) {
    EXPECT_TRUE(put(m_queue, "low", 1) && put(m_queue, "high", 9) && put(m_queue, "later", 9));
    for (char const* const expected : {"high", "later", "low"}) {
        EXPECT_EQ(expected, get(m_queue));
    }
}

TEST_F(MsgQueueTest, threadsShareOneObject) {
    constexpr int THREADS = 3;
    constexpr int ROUNDS = 200;
    std::atomic<int> sum{0};
    runInThreads(2 * THREADS, [this, &sum](int thread) {
        for (int round = 1; round <= ROUNDS; ++round) {
            int value = round;
            char buffer[MSG_SIZE];
            if (thread % 2 == 0) {
                Message const message{reinterpret_cast<char*>(&value), sizeof value, 0};
                EXPECT_FALSE(m_queue.writeMsg(&message));
            } else {
                Message message{buffer, sizeof buffer, 0};
                EXPECT_FALSE(m_queue.readMsg(&message));
                memcpy(&value, buffer, sizeof value);
                sum += value;
            }
        }
    });
    EXPECT_EQ(THREADS * ROUNDS * (ROUNDS + 1) / 2, sum);
}

TEST_F(MsgQueueTest, serverAndClientAreDifferentProcesses) {
    IpcName const orders(QUEUE);
    Process server([&] {
        MsgQueueServer queue;
        EXPECT_FALSE(queue.create(orders, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
        EXPECT_TRUE(put(m_queue, "ready"));
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ("order " + std::to_string(i), get(queue, 30000));
        }
        queue.setUnlinkOnClose(true);
        EXPECT_FALSE(queue.close());
    });
    ASSERT_EQ("ready", get(m_queue, 30000));
    Process client([&] {
        MsgQueueClient queue;
        EXPECT_FALSE(queue.attach(orders));
        for (int i = 0; i < 100; ++i) {
            std::string text = "order " + std::to_string(i);
            Message const message{text.data(), static_cast<unsigned int>(text.size()), 0};
            EXPECT_FALSE(queue.writeMsg(&message));
        }
    });
    EXPECT_EQ(0, client.join());
    EXPECT_EQ(0, server.join());
    EXPECT_FALSE(orders.exists());
}

// ---- creation ----

TEST_F(MsgQueueTest, serverAndClientOpenTheQueueForReadingAndWritingAndSeeItsAttributes) {
    EXPECT_EQ(static_cast<long>(MAX_MSGS), s_queue_attributes.mq_maxmsg);
    EXPECT_EQ(static_cast<long>(MSG_SIZE), s_queue_attributes.mq_msgsize);
    EXPECT_EQ(0, s_queue_attributes.mq_flags);
    EXPECT_EQ(0, s_queue_attributes.mq_curmsgs);
    MsgQueueClient client;
    EXPECT_FALSE(client.attach(m_name));
    EXPECT_EQ(m_name.getSystemName(), s_queue_open.name);
    EXPECT_EQ(O_RDWR, s_queue_open.flags);
    for (unsigned int const count : {0U, 1U, 2U}) {
        for (MsgQueueBase* const queue : std::initializer_list<MsgQueueBase*>{&m_queue, &client}) {
            SCOPED_TRACE((queue == &client ? "client " : "server ") + std::to_string(count));
            EXPECT_EQ(MSG_SIZE, queue->maxMsgSize());
            EXPECT_EQ(MAX_MSGS, queue->maxMsgCount());
            EXPECT_EQ(count, queue->availMsgs());
            EXPECT_TRUE(put(*queue, "tea", 1)); // Before the messages that stay.
            EXPECT_EQ("tea", get(*queue));
        }
        EXPECT_TRUE(put(m_queue, "more"));
    }
    EXPECT_EQ(MAX_MSGS, client.availMsgs());
    EXPECT_FALSE(put(client, "too many"));
}

TEST_F(MsgQueueTest, replacedQueueStaysUsableByItsUsers) {
    MsgQueueClient client;
    EXPECT_TRUE(put(m_queue, "old"));
    ASSERT_FALSE(client.attach(m_name));
    EXPECT_FALSE(create(m_queue));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("(none)", get(m_queue));
    EXPECT_EQ("old", get(client));
    EXPECT_TRUE(put(client, "apart"));
    EXPECT_EQ("(none)", get(m_queue));
    EXPECT_FALSE(client.attach(m_name));
    EXPECT_TRUE(put(client, "together"));
    EXPECT_EQ("together", get(m_queue));
}

TEST_F(MsgQueueTest, invalidSizesAreRefused) {
    constexpr unsigned int MAX = std::numeric_limits<unsigned int>::max();
    struct {
        unsigned int msg_size, max_msgs;
    } const rows[] = {{0, MAX_MSGS}, {MSG_SIZE, 0}, {0, 0}, {MAX, MAX_MSGS}, {MSG_SIZE, MAX}};
    EXPECT_FALSE(m_queue.deleteName());
    for (auto const& row : rows) {
        EXPECT_TRUE(create(m_queue, row.msg_size, row.max_msgs));
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL)) << row.msg_size << " " << row.max_msgs;
        EXPECT_FALSE(m_queue.isValid());
        EXPECT_FALSE(m_name.exists());
    }
}

TEST_F(MsgQueueTest, userWithoutPrivilegesIsSubjectToTheLimitsOfTheSystem) {
    VESK_SKIP_UNLESS_ROOT();
    EXPECT_FALSE(m_queue.deleteName());
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        MsgQueueServer server;
        EXPECT_TRUE(create(server, MSG_SIZE, MsgQueueBase::systemMaxMsgCount() + 1));
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
        EXPECT_TRUE(create(server, MsgQueueBase::systemMaxMsgSize() + 1, 1));
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
        EXPECT_FALSE(create(server, MSG_SIZE, MsgQueueBase::systemMaxMsgCount()));
        EXPECT_FALSE(server.deleteName());
    });
}

TEST_F(MsgQueueTest, bytesForQueuesRunOutLikeDescriptors) {
    EXPECT_FALSE(m_queue.deleteName());
    expectInChild([&] {
        rlimit const none{0, 0};
        ASSERT_EQ(0, setrlimit(RLIMIT_MSGQUEUE, &none));
        EXPECT_TRUE(create(m_queue));
        EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE));
        EXPECT_FALSE(m_name.exists());
    });
}

TEST_F(MsgQueueTest, descriptorsRunOut) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own look at the type of an object needs descriptors";
#endif
    expectInChild([&] {
        MsgQueueClient client;
        rlimit const none{0, 0};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
        EXPECT_TRUE(client.attach(m_name));
        EXPECT_TRUE(causeIs(SysErrorId::RESOURCES_EXHAUSTED, EMFILE));
    });
}

// ---- priorities, attributes and limits of the system ----

TEST_F(MsgQueueTest, highestPriorityIsOneBelowTheLimit) {
    EXPECT_EQ(0, MsgQueueBase::getMinPrio());
    EXPECT_EQ(sysconf(_SC_MQ_PRIO_MAX), MsgQueueBase::getMaxPrio());
    auto const limit = static_cast<unsigned int>(MsgQueueBase::getMaxPrio());
    EXPECT_TRUE(put(m_queue, "tea", limit - 1));
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ(limit - 1, m_message.priority);
    m_message.priority = limit;
    EXPECT_TRUE(m_queue.writeMsg(&m_message));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EINVAL));
    EXPECT_EQ(1, m_queue.writeMsgTimeout(&m_message, 0));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EINVAL));
    Fault const fault(inject_sysconf, EINVAL);
    EXPECT_EQ(-1, MsgQueueBase::getMaxPrio()) << "a missing limit of the system is passed on";
}

unsigned int numberIn(char const* path) {
    return static_cast<unsigned int>(std::stoul(contentOf(path)));
}

TEST_F(MsgQueueTest, limitsOfTheSystemAreThoseInProc) {
    unsigned int const size = numberIn("/proc/sys/fs/mqueue/msgsize_max");
    unsigned int const count = numberIn("/proc/sys/fs/mqueue/msg_max");
    ASSERT_TRUE(size != 0 && count != 0);
    EXPECT_EQ(size, MsgQueueBase::systemMaxMsgSize());
    EXPECT_EQ(count, MsgQueueBase::systemMaxMsgCount());
}

TEST_F(MsgQueueTest, limitThatCannotBeOpenedOrReadIs0AndOnlyTheReadIsReported) {
    std::vector<ExpectedReport> unreadable = reportsOf({EIO, SysErrorId::INPUT_OUTPUT});
    unreadable.emplace_back(
        std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED);
    for (auto const getLimit : {MsgQueueBase::systemMaxMsgSize, MsgQueueBase::systemMaxMsgCount}) {
        SCOPED_TRACE(getLimit == MsgQueueBase::systemMaxMsgSize ? "size" : "count");
        EXPECT_EQ(0U, failOnce(inject_open, EACCES, getLimit));
        EXPECT_TRUE(chainIs({}));
        Fault const fault(inject_read, EIO, 1, Fault::FOREVER);
        EXPECT_EQ(0U, getLimit());
        EXPECT_TRUE(chainIs(unreadable));
    }
}

TEST_F(MsgQueueTest, limitIsReturnedIfTheFileCannotBeClosed) {
    Fault const fault(inject_close, EIO);
    EXPECT_EQ(numberIn("/proc/sys/fs/mqueue/msgsize_max"), MsgQueueBase::systemMaxMsgSize());
    EXPECT_EQ(2, fault.getCalls()) << "the destructor of the file tries again";
}

} // namespace
