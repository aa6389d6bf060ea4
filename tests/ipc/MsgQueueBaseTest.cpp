#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Processes.h"
#include "support/VtableSlot.h"
#include "support/calls/QueueCalls.h"

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/stream/IBinStreamBase.h>
#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

VESK_INJECT_ERRNO(long, -1, sysconf, (int name), (name))
VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))
VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))

VESK_INJECT_OPEN()

namespace {

using support::chainIs;
using support::EventRecorder;
using support::Fault;
using support::getSlot;
using support::Injected;
using support::Process;
using support::QueueName;
using support::rowText;
using support::s_queue_calls;
using support::systemText;
using vesk::Creatable;
using vesk::MsgQueueBase;
using vesk::MsgQueueClient;
using vesk::MsgQueueServer;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using Clock = std::chrono::steady_clock;

constexpr unsigned int MSG_SIZE = 16;
constexpr unsigned int MAX_MSGS = 3;

static_assert(!std::is_copy_constructible_v<MsgQueueServer> && std::has_virtual_destructor_v<MsgQueueBase>);
static_assert(offsetof(MsgQueueBase::Message, buffer) == 0);
static_assert(offsetof(MsgQueueBase::Message, size) == sizeof(char*));
static_assert(offsetof(MsgQueueBase::Message, priority) == sizeof(char*) + 4);

support::ExpectedReport reported(int id, int error) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

/// A queue whose descriptor can be looked at.
struct OpenQueue : MsgQueueServer {
    using MsgQueueBase::queue;
};

class MsgQueueBaseTest : public support::QueueTest {
protected:
    void SetUp() override {
        QueueTest::SetUp();
        if (!IsSkipped()) {
            m_name = std::make_unique<QueueName>();
            ASSERT_FALSE(m_queue.create(*m_name, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
            s_queue_calls.deadlines.clear();
        }
    }

    /// Writes a text without waiting.
    void put(std::string text, unsigned int priority = 0) {
        MsgQueueBase::Message const message{text.data(), static_cast<unsigned int>(text.size()), priority};
        EXPECT_EQ(0, m_queue.writeMsgTimeout(&message, 0));
    }
    void fill() {
        for (unsigned int i = 0; i < MAX_MSGS; ++i) {
            put("full");
        }
    }
    std::string getText() const { return std::string(m_buffer, m_message.size); }

    std::unique_ptr<QueueName> m_name;
    OpenQueue m_queue;
    char m_buffer[MSG_SIZE] = {};
    MsgQueueBase::Message m_message{m_buffer, MSG_SIZE, 0};
};

// ---- the object ----

TEST_F(MsgQueueBaseTest, closeIsTheSlotBehindTheDestructors) {
    EXPECT_EQ(2, getSlot(&MsgQueueBase::close));
}

TEST_F(MsgQueueBaseTest, newObjectIsClosed) {
    OpenQueue closed;
    EXPECT_FALSE(closed.isValid());
    EXPECT_EQ(-1, closed.queue);
    EXPECT_FALSE(closed.isUnlinkOnClose());
}

TEST_F(MsgQueueBaseTest, everyOperationOnAClosedObjectIsRefusedByTheSystem) {
    MsgQueueClient closed;
    EXPECT_TRUE(closed.readMsg(&m_message));
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    MsgQueueBase::Message const sent{m_buffer, 0, 0}; // Emulators set the priority also in a failed read.
    EXPECT_TRUE(closed.writeMsg(&sent));
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(-1, closed.readMsgTimeout(&m_message, 0));
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(1, closed.writeMsgTimeout(&sent, 0));
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(0U, closed.maxMsgSize());
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(0U, closed.maxMsgCount());
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(0U, closed.availMsgs());
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(MSG_SIZE, m_message.size);
}

// ---- close ----

TEST_F(MsgQueueBaseTest, closesAndClosesOnceOnly) {
    Fault const closes(inject_mq_close, 0);
    EXPECT_FALSE(m_queue.MsgQueueBase::close());
    EXPECT_EQ(-1, m_queue.queue);
    EXPECT_FALSE(m_queue.MsgQueueBase::close());
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, interruptedCloseIsRepeated) {
    Fault const fault(inject_mq_close, EINTR, 1, 2);
    EXPECT_FALSE(m_queue.MsgQueueBase::close());
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_FALSE(m_queue.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, failedCloseLeavesTheQueueOpen) {
    mqd_t const open = m_queue.queue;
    {
        Fault const fault(inject_mq_close, EIO);
        EXPECT_TRUE(m_queue.MsgQueueBase::close());
    }
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
    EXPECT_EQ(open, m_queue.queue);
    EXPECT_FALSE(m_queue.MsgQueueBase::close());
}

TEST_F(MsgQueueBaseTest, closeOfAnUnknownDescriptorClosesTheObject) {
    mqd_t const open = m_queue.queue;
    {
        Fault const fault(inject_mq_close, EBADF);
        EXPECT_TRUE(m_queue.MsgQueueBase::close());
    }
    EXPECT_TRUE(chainIs({reported(10, EBADF)}));
    EXPECT_EQ(-1, m_queue.queue);
    EXPECT_EQ(0, mq_close(open));
}

TEST_F(MsgQueueBaseTest, failedCloseIsReportedOnTopOfWhatIsPending) {
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    {
        Fault const fault(inject_mq_close, EIO);
        EXPECT_TRUE(m_queue.MsgQueueBase::close());
    }
    EXPECT_TRUE(chainIs({{SysErrorId::INPUT_OUTPUT}, reported(10, EIO)}));
}

TEST_F(MsgQueueBaseTest, destructorWarnsAboutAFailedCloseAndAcknowledgesIt) {
    EventRecorder const recorder;
    auto client = std::make_unique<MsgQueueClient>();
    ASSERT_FALSE(client->attach(*m_name));
    {
        Fault const fault(inject_mq_close, EBADF, 1, Fault::FOREVER);
        mqd_t const open = m_queue.queue;
        auto moved = std::make_unique<OpenQueue>();
        moved->queue = open;
        m_queue.queue = -1;
        moved.reset();
        m_queue.queue = open;
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/MsgQueueBase ~MsgQueueBase: error closing message queue",
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, destructorOfAClosedObjectMakesNoCall) {
    EventRecorder const recorder;
    Fault const closes(inject_mq_close, 0);
    { MsgQueueClient const client; }
    EXPECT_EQ(0, closes.getCalls());
    EXPECT_EQ("", recorder.getText());
}

// ---- reading and writing ----

TEST_F(MsgQueueBaseTest, messageArrivesWhole) {
    char text[] = "tea";
    MsgQueueBase::Message const sent{text, 3, 7};
    EXPECT_FALSE(m_queue.writeMsg(&sent));
    EXPECT_EQ(1U, m_queue.availMsgs());
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ("tea", getText());
    EXPECT_EQ(7U, m_message.priority);
    EXPECT_EQ(0U, m_queue.availMsgs());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, emptyMessageIsAMessage) {
    MsgQueueBase::Message const sent{m_buffer, 0, 0};
    EXPECT_FALSE(m_queue.writeMsg(&sent));
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ(0U, m_message.size);
}

TEST_F(MsgQueueBaseTest, highestPriorityComesFirstAndOldestOfThese) {
    put("low", 1);
    put("high", 9);
    put("later", 9);
    for (char const* const expected : {"high", "later", "low"}) {
        m_message.size = MSG_SIZE;
        EXPECT_FALSE(m_queue.readMsg(&m_message));
        EXPECT_EQ(expected, getText());
    }
}

TEST_F(MsgQueueBaseTest, bufferSmallerThanTheQueuesMessagesIsRefusedWhateverThereIsToRead) {
    put("tea");
    m_message.size = MSG_SIZE - 1;
    EXPECT_TRUE(m_queue.readMsg(&m_message));
    EXPECT_TRUE(chainIs({reported(8, EMSGSIZE)}));
    EXPECT_EQ(-1, m_queue.readMsgTimeout(&m_message, 0));
    EXPECT_TRUE(chainIs({reported(8, EMSGSIZE)}));
    m_message.size = 0;
    EXPECT_TRUE(m_queue.readMsg(&m_message));
    EXPECT_TRUE(chainIs({reported(8, EMSGSIZE)}));
    EXPECT_EQ(0U, m_message.size);
    EXPECT_EQ(1U, m_queue.availMsgs());
}

TEST_F(MsgQueueBaseTest, messageLargerThanTheQueueTakesIsRefused) {
    char text[MSG_SIZE + 1] = {};
    MsgQueueBase::Message const message{text, sizeof text, 0};
    EXPECT_TRUE(m_queue.writeMsg(&message));
    EXPECT_TRUE(chainIs({reported(8, EMSGSIZE)}));
    EXPECT_EQ(-1, m_queue.writeMsgTimeout(&message, 0));
    EXPECT_TRUE(chainIs({reported(8, EMSGSIZE)}));
    EXPECT_EQ(0U, m_queue.availMsgs());
}

TEST_F(MsgQueueBaseTest, missingBufferIsRefusedByTheSystem) {
    put("tea");
    MsgQueueBase::Message message{nullptr, MSG_SIZE, 0};
    EXPECT_TRUE(m_queue.writeMsg(&message));
    EXPECT_TRUE(chainIs({reported(10, EFAULT)}));
    EXPECT_EQ(1, m_queue.writeMsgTimeout(&message, 0));
    EXPECT_TRUE(chainIs({reported(10, EFAULT)}));
    EXPECT_EQ(1U, m_queue.availMsgs());
    EXPECT_TRUE(m_queue.readMsg(&message));
    EXPECT_TRUE(chainIs({reported(10, EFAULT)}));
}

TEST_F(MsgQueueBaseTest, interruptedReadAndWriteAreRepeated) {
    put("tea");
    {
        Fault const fault(inject_mq_receive, EINTR, 1, 2);
        EXPECT_FALSE(m_queue.readMsg(&m_message));
        EXPECT_EQ(3, fault.getCalls());
    }
    EXPECT_EQ("tea", getText());
    Fault const fault(inject_mq_send, EINTR, 1, 2);
    EXPECT_FALSE(m_queue.writeMsg(&m_message));
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_EQ(1U, m_queue.availMsgs());
    EXPECT_TRUE(chainIs({}));
}

struct TransferRow {
    int error;
    int id;         // -1: nothing is reported.
    int timed_read; // What the timed forms give.
    int timed_write;
};

void PrintTo(TransferRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class MsgQueueBaseTransferRows : public MsgQueueBaseTest, public testing::WithParamInterface<TransferRow> {
protected:
    void expectReport() {
        TransferRow const& row = GetParam();
        EXPECT_TRUE(chainIs({reported(row.id, row.error)}));
    }
};

TEST_P(MsgQueueBaseTransferRows, readAndWriteReport) {
    TransferRow const& row = GetParam();
    {
        Fault const fault(inject_mq_receive, row.error);
        EXPECT_TRUE(m_queue.readMsg(&m_message));
    }
    expectReport();
    EXPECT_EQ(MSG_SIZE, m_message.size);
    {
        Fault const fault(inject_mq_send, row.error);
        EXPECT_TRUE(m_queue.writeMsg(&m_message));
    }
    expectReport();
}

TEST_P(MsgQueueBaseTransferRows, timedReadAndWriteReport) {
    TransferRow const& row = GetParam();
    {
        Fault const fault(inject_mq_timedreceive, row.error);
        EXPECT_EQ(row.timed_read, m_queue.readMsgTimeout(&m_message, 1000));
        EXPECT_EQ(1, fault.getCalls());
    }
    expectReport();
    EXPECT_EQ(MSG_SIZE, m_message.size);
    {
        Fault const fault(inject_mq_timedsend, row.error);
        EXPECT_EQ(row.timed_write, m_queue.writeMsgTimeout(&m_message, 1000));
        EXPECT_EQ(1, fault.getCalls());
    }
    expectReport();
}

INSTANTIATE_TEST_SUITE_P(
    Table, MsgQueueBaseTransferRows,
    testing::Values(
        TransferRow{EMSGSIZE, 8, -1, -1}, TransferRow{EBADF, 10, -1, 1}, TransferRow{EINVAL, 10, -1, 1},
        TransferRow{EAGAIN, 10, -1, 1}, TransferRow{EIO, 10, -1, 1}));

TEST_F(MsgQueueBaseTest, timeOutIsNoFailureToReport) {
    Fault const read(inject_mq_timedreceive, ETIMEDOUT);
    EXPECT_EQ(1, m_queue.readMsgTimeout(&m_message, 1000));
    Fault const write(inject_mq_timedsend, ETIMEDOUT);
    EXPECT_EQ(1, m_queue.writeMsgTimeout(&m_message, 1000));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, timedCallsReportAClockThatCannotBeRead) {
    Fault const reads(inject_mq_timedreceive, 0);
    Fault const writes(inject_mq_timedsend, 0);
    {
        Fault const fault(inject_clock_gettime, EINVAL);
        EXPECT_EQ(-1, m_queue.readMsgTimeout(&m_message, 1000));
    }
    EXPECT_TRUE(chainIs({reported(19, EINVAL)}));
    {
        Fault const fault(inject_clock_gettime, EPERM);
        EXPECT_EQ(-1, m_queue.writeMsgTimeout(&m_message, 1000));
    }
    EXPECT_TRUE(chainIs({reported(19, EPERM)}));
    EXPECT_EQ(0, reads.getCalls() + writes.getCalls());
}

TEST_F(MsgQueueBaseTest, deadlineIsOnTheWallClockAndStaysTheSameWhenSignalsInterrupt) {
    timespec before{};
    ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &before));
    put("tea");
    s_queue_calls.deadlines.clear();
    {
        Fault const fault(inject_mq_timedreceive, EINTR, 1, 2);
        EXPECT_EQ(0, m_queue.readMsgTimeout(&m_message, 3600999));
        EXPECT_EQ(3, fault.getCalls());
    }
    EXPECT_EQ("tea", getText());
    {
        Fault const fault(inject_mq_timedsend, EINTR, 1, 2);
        EXPECT_EQ(0, m_queue.writeMsgTimeout(&m_message, 3600999));
        EXPECT_EQ(3, fault.getCalls());
    }
    ASSERT_EQ(6U, s_queue_calls.deadlines.size());
    auto const toMs = [](timespec const& time) {
        return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
    };
    for (size_t i = 0; i < 6; ++i) {
        timespec const& deadline = s_queue_calls.deadlines[i];
        timespec const& first = s_queue_calls.deadlines[i < 3 ? 0 : 3];
        EXPECT_TRUE(deadline.tv_sec == first.tv_sec && deadline.tv_nsec == first.tv_nsec) << i;
        EXPECT_GE(toMs(deadline), toMs(before) + 3600999);
        EXPECT_LE(toMs(deadline), toMs(before) + 3600999 + 60000);
        EXPECT_TRUE(deadline.tv_nsec >= 0 && deadline.tv_nsec < 1000000000);
    }
}

// ---- waiting ----

TEST_F(MsgQueueBaseTest, timedReadOfAnEmptyQueueGivesUpAtOnceWithATimeoutOf0) {
    auto const begin = Clock::now();
    EXPECT_EQ(1, m_queue.readMsgTimeout(&m_message, 0));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(MSG_SIZE, m_message.size);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, timedWriteToAFullQueueGivesUpAtOnceWithATimeoutOf0) {
    fill();
    EXPECT_EQ(1, m_queue.writeMsgTimeout(&m_message, 0));
    EXPECT_EQ(MAX_MSGS, m_queue.availMsgs());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, negativeTimeoutIsOver) {
    for (long long const timeout : {-1LL, -999LL, -1500LL, std::numeric_limits<long long>::min()}) {
        EXPECT_EQ(1, m_queue.readMsgTimeout(&m_message, timeout)) << timeout;
    }
    fill();
    for (long long const timeout : {-1LL, -999LL, -1500LL, std::numeric_limits<long long>::min()}) {
        MsgQueueBase::Message const sent{m_buffer, 0, 0};
        EXPECT_EQ(1, m_queue.writeMsgTimeout(&sent, timeout)) << timeout;
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, whatIsThereIsReadAndWhatFitsIsWrittenWhateverTheTimeout) {
    long long const timeouts[] = {
        std::numeric_limits<long long>::min(), 0, std::numeric_limits<long long>::max()};
    for (long long const timeout : timeouts) {
        m_message.size = 0;
        EXPECT_EQ(0, m_queue.writeMsgTimeout(&m_message, timeout)) << timeout;
        m_message.size = MSG_SIZE;
        EXPECT_EQ(0, m_queue.readMsgTimeout(&m_message, timeout)) << timeout;
        EXPECT_EQ(0U, m_message.size);
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, timedCallsWaitForTheirTime) {
    auto begin = Clock::now();
    EXPECT_EQ(1, m_queue.readMsgTimeout(&m_message, 30));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(29));
    fill();
    begin = Clock::now();
    MsgQueueBase::Message const sent{m_buffer, 0, 0};
    EXPECT_EQ(1, m_queue.writeMsgTimeout(&sent, 30));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(29));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, signalsDoNotLengthenATimedRead) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
    std::atomic<bool> done{false};
    signed char result = -1;
    std::thread reader([&] {
        result = m_queue.readMsgTimeout(&m_message, 200);
        done = true;
    });
    auto const end = Clock::now() + std::chrono::seconds(30);
    while (!done && Clock::now() < end) {
        pthread_kill(reader.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(done) << "it would wait as long as signals come";
    if (!done) {
        put("end");
    }
    reader.join();
    EXPECT_EQ(1, result);
    EXPECT_EQ(0, sigaction(SIGUSR1, &previous, nullptr));
}

TEST_F(MsgQueueBaseTest, readWaitsForAMessageOfAnotherProcess) {
    Process writer([&] {
        MsgQueueClient client;
        EXPECT_FALSE(client.attach(*m_name));
        support::waitUntilAsleep(getppid(), getppid());
        char text[] = "tea";
        MsgQueueBase::Message const message{text, 3, 5};
        EXPECT_FALSE(client.writeMsg(&message));
    });
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ("tea", getText());
    EXPECT_EQ(5U, m_message.priority);
    EXPECT_EQ(0, writer.join());
}

TEST_F(MsgQueueBaseTest, writeWaitsForRoomThatAnotherProcessMakes) {
    fill();
    Process reader([&] {
        MsgQueueClient client;
        EXPECT_FALSE(client.attach(*m_name));
        support::waitUntilAsleep(getppid(), getppid());
        EXPECT_FALSE(client.readMsg(&m_message));
        EXPECT_EQ("full", getText());
    });
    EXPECT_FALSE(m_queue.writeMsg(&m_message));
    EXPECT_EQ(0, reader.join());
    EXPECT_EQ(MAX_MSGS, m_queue.availMsgs());
}

TEST_F(MsgQueueBaseTest, timedCallsAreWokenByAnotherProcess) {
    Process peer([&] {
        MsgQueueClient client;
        EXPECT_FALSE(client.attach(*m_name));
        support::waitUntilAsleep(getppid(), getppid());
        EXPECT_FALSE(client.writeMsg(&m_message));
    });
    EXPECT_EQ(0, m_queue.readMsgTimeout(&m_message, 60000));
    EXPECT_EQ(0, peer.join());
    fill();
    Process reader([&] {
        MsgQueueClient client;
        EXPECT_FALSE(client.attach(*m_name));
        support::waitUntilAsleep(getppid(), getppid());
        EXPECT_FALSE(client.readMsg(&m_message));
    });
    EXPECT_EQ(0, m_queue.writeMsgTimeout(&m_message, 60000));
    EXPECT_EQ(0, reader.join());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, threadsShareOneObject) {
    constexpr int THREADS = 3;
    constexpr int ROUNDS = 200;
    std::atomic<int> sum{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this] {
            for (int round = 1; round <= ROUNDS; ++round) {
                MsgQueueBase::Message const message{reinterpret_cast<char*>(&round), sizeof round, 0};
                EXPECT_FALSE(m_queue.writeMsg(&message));
            }
        });
        threads.emplace_back([this, &sum] {
            for (int round = 0; round < ROUNDS; ++round) {
                char buffer[MSG_SIZE];
                MsgQueueBase::Message message{buffer, sizeof buffer, 0};
                EXPECT_FALSE(m_queue.readMsg(&message));
                int value = 0;
                memcpy(&value, buffer, sizeof value);
                sum += value;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(THREADS * ROUNDS * (ROUNDS + 1) / 2, sum);
}

// ---- priorities ----

TEST_F(MsgQueueBaseTest, highestPriorityIsOneBelowTheLimit) {
    EXPECT_EQ(0, MsgQueueBase::getMinPrio());
    EXPECT_EQ(sysconf(_SC_MQ_PRIO_MAX), MsgQueueBase::getMaxPrio());
    auto const limit = static_cast<unsigned int>(MsgQueueBase::getMaxPrio());
    put("tea", limit - 1);
    EXPECT_FALSE(m_queue.readMsg(&m_message));
    EXPECT_EQ(limit - 1, m_message.priority);
    m_message.priority = limit;
    EXPECT_TRUE(m_queue.writeMsg(&m_message));
    EXPECT_TRUE(chainIs({reported(10, EINVAL)}));
    EXPECT_EQ(1, m_queue.writeMsgTimeout(&m_message, 0));
    EXPECT_TRUE(chainIs({reported(10, EINVAL)}));
}

TEST_F(MsgQueueBaseTest, priorityLimitOfASystemThatHasNoneIsPassedOn) {
    Fault const fault(inject_sysconf, EINVAL);
    EXPECT_EQ(-1, MsgQueueBase::getMaxPrio());
    EXPECT_TRUE(chainIs({}));
}

// ---- attributes ----

TEST_F(MsgQueueBaseTest, attributesAreThoseOfTheQueue) {
    EXPECT_EQ(MSG_SIZE, m_queue.maxMsgSize());
    EXPECT_EQ(MAX_MSGS, m_queue.maxMsgCount());
    EXPECT_EQ(0U, m_queue.availMsgs());
    put("1");
    put("2");
    EXPECT_EQ(2U, m_queue.availMsgs());
    MsgQueueClient client;
    ASSERT_FALSE(client.attach(*m_name));
    EXPECT_EQ(MSG_SIZE, client.maxMsgSize());
    EXPECT_EQ(MAX_MSGS, client.maxMsgCount());
    EXPECT_EQ(2U, client.availMsgs());
}

TEST_F(MsgQueueBaseTest, attributesThatCannotBeHadAreReportedAndGive0) {
    put("1");
    Fault const fault(inject_mq_getattr, EIO, 1, 3);
    EXPECT_EQ(0U, m_queue.maxMsgSize());
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
    EXPECT_EQ(0U, m_queue.maxMsgCount());
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
    EXPECT_EQ(0U, m_queue.availMsgs());
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
}

// ---- limits of the system ----

unsigned int numberIn(char const* path) {
    unsigned int number = 0;
    std::ifstream(path) >> number;
    return number;
}

TEST_F(MsgQueueBaseTest, limitsOfTheSystemAreThoseInProc) {
    unsigned int const size = numberIn("/proc/sys/fs/mqueue/msgsize_max");
    unsigned int const count = numberIn("/proc/sys/fs/mqueue/msg_max");
    ASSERT_NE(0U, size);
    ASSERT_NE(0U, count);
    EXPECT_EQ(size, MsgQueueBase::systemMaxMsgSize());
    EXPECT_EQ(count, MsgQueueBase::systemMaxMsgCount());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, limitThatCannotBeOpenedIs0AndNotReported) {
    Fault const fault(inject_open, EACCES, 1, 2);
    EXPECT_EQ(0U, MsgQueueBase::systemMaxMsgSize());
    EXPECT_EQ(0U, MsgQueueBase::systemMaxMsgCount());
    EXPECT_EQ(2, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueBaseTest, limitThatCannotBeReadIs0AndReported) {
    Fault const fault(inject_read, EIO, 1, Fault::FOREVER);
    EXPECT_EQ(0U, MsgQueueBase::systemMaxMsgSize());
    EXPECT_TRUE(chainIs(
        {reported(11, EIO),
         {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_EQ(0U, MsgQueueBase::systemMaxMsgCount());
    EXPECT_TRUE(chainIs(
        {reported(11, EIO),
         {std::IBinStreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
}

TEST_F(MsgQueueBaseTest, limitStandsWhenTheFileCannotBeClosed) {
    EventRecorder const recorder;
    {
        Fault const fault(inject_close, EIO);
        EXPECT_EQ(numberIn("/proc/sys/fs/mqueue/msgsize_max"), MsgQueueBase::systemMaxMsgSize());
        EXPECT_EQ(2, fault.getCalls()) << "the file's end tries it once more";
    }
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ("", recorder.getText());
}

} // namespace
