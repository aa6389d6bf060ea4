#include "support/Chain.h"
#include "support/Privileges.h"
#include "support/calls/QueueCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/FileAccessError.h>
#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using support::chainIs;
using support::ExpectedReport;
using support::expectInChild;
using support::Fault;
using support::QueueName;
using support::rowText;
using support::s_queue_calls;
using support::systemText;
using vesk::Creatable;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::MsgQueueClient;
using vesk::MsgQueueServer;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

ExpectedReport reported(int id, int error) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

ExpectedReport forName(int id, QueueName const& name) {
    return {FileAccessError, id, rowText(FileAccessError, id, name.getSystemName())};
}

/// A client whose `close` can be watched.
class WatchedClient : public MsgQueueClient {
public:
    bool close() override {
        ++closes;
        return MsgQueueClient::close();
    }

    int closes = 0;
};

class MsgQueueClientTest : public support::QueueTest {
protected:
    void makeQueue() { ASSERT_FALSE(m_server.create(m_name, 16, 3, Creatable::CREATE_NEW)); }

    QueueName m_name;
    MsgQueueServer m_server;
    WatchedClient m_client;
};

TEST_F(MsgQueueClientTest, attachesForReadingAndWriting) {
    makeQueue();
    EXPECT_FALSE(m_client.attach(m_name));
    EXPECT_TRUE(m_client.isValid());
    EXPECT_EQ(m_name.getSystemName(), s_queue_calls.open_name);
    EXPECT_EQ(O_RDWR, s_queue_calls.open_flags);
    char buffer[16] = "tea";
    vesk::MsgQueueBase::Message message{buffer, 3, 0};
    EXPECT_FALSE(m_client.writeMsg(&message));
    message.size = sizeof buffer;
    EXPECT_FALSE(m_client.readMsg(&message));
    EXPECT_EQ(3U, message.size);
    EXPECT_EQ(0, m_client.closes);
    EXPECT_FALSE(m_client.close());
    EXPECT_TRUE(m_name.exists());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueClientTest, missingQueueIsABadPath) {
    EXPECT_TRUE(m_client.attach(m_name));
    EXPECT_TRUE(chainIs({reported(2, ENOENT), forName(0, m_name)}));
    EXPECT_FALSE(m_client.isValid());
    EXPECT_FALSE(m_name.exists());
}

TEST_F(MsgQueueClientTest, attachedObjectIsClosedFirst) {
    makeQueue();
    ASSERT_FALSE(m_client.attach(m_name));
    EXPECT_FALSE(m_client.attach(m_name));
    EXPECT_EQ(1, m_client.closes);
    EXPECT_TRUE(m_client.attach("a/b"));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_EQ(2, m_client.closes);
    EXPECT_FALSE(m_client.isValid());
}

TEST_F(MsgQueueClientTest, attachingEndsWhenTheOpenQueueCannotBeClosed) {
    makeQueue();
    ASSERT_FALSE(m_client.attach(m_name));
    Fault const opens(inject_mq_open, 0);
    {
        Fault const fault(inject_mq_close, EIO);
        EXPECT_TRUE(m_client.attach(m_name));
    }
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_EQ(16U, m_client.maxMsgSize()) << "it is still open";
}

TEST_F(MsgQueueClientTest, impossibleNamesAreRefusedWithoutACall) {
    Fault const opens(inject_mq_open, 0);
    EXPECT_TRUE(m_client.attach(nullptr));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_client.attach("/leading"));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_client.attach(std::string(255, 'n').c_str()));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(0, opens.getCalls());
}

TEST_F(MsgQueueClientTest, emptyNameIsForTheSystemToRefuse) {
    EXPECT_TRUE(m_client.attach(""));
    EXPECT_EQ("/", s_queue_calls.open_name);
    EXPECT_TRUE(chainIs(
        {reported(2, ENOENT),
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, "/")}}));
}

TEST_F(MsgQueueClientTest, interruptedAttachingIsRepeated) {
    makeQueue();
    Fault const fault(inject_mq_open, EINTR, 1, 2);
    EXPECT_FALSE(m_client.attach(m_name));
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

struct OpenRow {
    int error;
    int id;
    int access_id; // -1: no report on top.
};

void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class MsgQueueClientRows : public MsgQueueClientTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(MsgQueueClientRows, failureIsReported) {
    OpenRow const& row = GetParam();
    {
        Fault const fault(inject_mq_open, row.error);
        EXPECT_TRUE(m_client.attach(m_name));
        EXPECT_EQ(1, fault.getCalls());
    }
    std::vector<ExpectedReport> expected{reported(row.id, row.error)};
    if (row.access_id != -1) {
        expected.push_back(forName(row.access_id, m_name));
    }
    EXPECT_TRUE(chainIs(expected));
    EXPECT_FALSE(m_client.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    Table, MsgQueueClientRows,
    testing::Values(
        OpenRow{ENOENT, 2, 0}, OpenRow{EACCES, 8, 3}, OpenRow{EEXIST, 19, -1}, OpenRow{EINVAL, 19, -1},
        OpenRow{ENFILE, 0, -1}, OpenRow{EMFILE, 0, -1}, OpenRow{ENOSPC, 19, -1}, OpenRow{ENOMEM, 19, -1},
        OpenRow{EPERM, 19, -1}));

TEST_F(MsgQueueClientTest, nameTooLongForTheSystemIsReportedWithItsLength) {
    Fault const fault(inject_mq_open, ENAMETOOLONG);
    EXPECT_TRUE(m_client.attach(m_name));
    std::string const name = m_name.getSystemName();
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PATH_TOO_LONG,
          "Given path exceeds system maximum: " + name + " (" + std::to_string(name.size()) +
              " chars encountered, only max ? chars allowed)"},
         forName(0, m_name)}));
}

TEST_F(MsgQueueClientTest, queueOfAnotherUserIsABadParameter) {
    VESK_SKIP_UNLESS_ROOT();
    makeQueue();
    expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        EXPECT_TRUE(m_client.attach(m_name));
        EXPECT_TRUE(chainIs({reported(8, EACCES), forName(3, m_name)}));
    });
}

TEST_F(MsgQueueClientTest, descriptorsRunOut) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own look at the type of an object needs descriptors";
#endif
    makeQueue();
    expectInChild([&] {
        rlimit const none{0, 0};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
        EXPECT_TRUE(m_client.attach(m_name));
        EXPECT_TRUE(chainIs({reported(0, EMFILE)}));
    });
}

} // namespace
