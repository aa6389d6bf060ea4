#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Privileges.h"
#include "support/Processes.h"
#include "support/calls/QueueCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <vesk/FileAccessError.h>
#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <csignal>
#include <limits>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::expectInChild;
using support::Fault;
using support::Process;
using support::QueueName;
using support::rowText;
using support::s_queue_calls;
using support::systemText;
using vesk::Creatable;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::MsgQueueBase;
using vesk::MsgQueueClient;
using vesk::MsgQueueServer;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

static_assert(Creatable::CREATE_NEW == 0 && Creatable::OPEN_OR_CREATE == 1 && Creatable::REPLACE == 2);
static_assert(Creatable::TRUNCATE == 3);

constexpr unsigned int MSG_SIZE = 16;
constexpr unsigned int MAX_MSGS = 3;

ExpectedReport reported(int id, int error) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

ExpectedReport forName(int id, QueueName const& name) {
    return {FileAccessError, id, rowText(FileAccessError, id, name.getSystemName())};
}

ExpectedReport refused(char const* text) {
    return {
        std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
        rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}

/// What a removal without the right reports.
std::vector<ExpectedReport> deniedRemoval(int error, QueueName const& name) {
    return {reported(7, error), forName(3, name), reported(19, error), forName(9, name)};
}

bool put(MsgQueueBase& queue, std::string text) {
    MsgQueueBase::Message const message{text.data(), static_cast<unsigned int>(text.size()), 0};
    return queue.writeMsgTimeout(&message, 0) == 0;
}

/// The text of the next message; "(none)" without one.
std::string get(MsgQueueBase& queue, long long timeout = 0) {
    char buffer[MSG_SIZE];
    MsgQueueBase::Message message{buffer, sizeof buffer, 0};
    return queue.readMsgTimeout(&message, timeout) == 0 ? std::string(buffer, message.size) : "(none)";
}

class MsgQueueServerTest : public support::QueueTest {
protected:
    bool create(Creatable::CreationStrategy strategy) {
        return m_server.create(m_name, MSG_SIZE, MAX_MSGS, strategy);
    }
    /// Somebody else's queue of the name, with a message in it.
    void makeOther() {
        MsgQueueServer other;
        ASSERT_FALSE(other.create(m_name, MSG_SIZE, 1, Creatable::CREATE_NEW));
        ASSERT_TRUE(put(other, "old"));
    }

    QueueName m_name;
    MsgQueueServer m_server;
};

// ---- create ----

TEST_F(MsgQueueServerTest, createsAQueueForReadingAndWritingByItsUser) {
    EXPECT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(m_server.isValid());
    EXPECT_EQ(m_name.getSystemName(), s_queue_calls.open_name);
    EXPECT_EQ(0600U, s_queue_calls.open_mode);
    EXPECT_EQ(static_cast<long>(MAX_MSGS), s_queue_calls.attributes.mq_maxmsg);
    EXPECT_EQ(static_cast<long>(MSG_SIZE), s_queue_calls.attributes.mq_msgsize);
    EXPECT_EQ(0, s_queue_calls.attributes.mq_flags);
    EXPECT_EQ(0, s_queue_calls.attributes.mq_curmsgs);
    EXPECT_TRUE(put(m_server, "tea"));
    EXPECT_EQ("tea", get(m_server));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueServerTest, strategiesHaveTheirFlags) {
    EXPECT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_EQ(O_CREAT | O_EXCL | O_RDWR, s_queue_calls.open_flags);
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(O_CREAT | O_RDWR, s_queue_calls.open_flags);
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ(O_CREAT | O_EXCL | O_RDWR, s_queue_calls.open_flags);
}

TEST_F(MsgQueueServerTest, newQueueIsRefusedWhenTheNameExists) {
    makeOther();
    EXPECT_TRUE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({reported(12, EEXIST), forName(4, m_name)}));
    EXPECT_FALSE(m_server.isValid());
    MsgQueueClient client;
    EXPECT_FALSE(client.attach(m_name));
    EXPECT_EQ("old", get(client));
}

TEST_F(MsgQueueServerTest, existingQueueIsOpenedAsItIs) {
    makeOther();
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(1U, m_server.maxMsgCount());
    EXPECT_EQ("old", get(m_server));
}

TEST_F(MsgQueueServerTest, missingQueueIsCreatedByOpening) {
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(MAX_MSGS, m_server.maxMsgCount());
    EXPECT_TRUE(m_name.exists());
}

TEST_F(MsgQueueServerTest, replacedQueueLivesOnForThoseWhoHaveIt) {
    makeOther();
    MsgQueueClient client;
    ASSERT_FALSE(client.attach(m_name));
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(MAX_MSGS, m_server.maxMsgCount());
    EXPECT_EQ("(none)", get(m_server));
    EXPECT_EQ("old", get(client));
    EXPECT_TRUE(put(client, "apart"));
    EXPECT_EQ("(none)", get(m_server));
    EXPECT_FALSE(client.attach(m_name));
    EXPECT_TRUE(put(client, "together"));
    EXPECT_EQ("together", get(m_server));
}

TEST_F(MsgQueueServerTest, missingQueueIsReplacedByANewOne) {
    Fault const removals(inject_mq_unlink, 0);
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ(0, removals.getCalls());
    EXPECT_TRUE(m_name.exists());
}

TEST_F(MsgQueueServerTest, replacingGoesOnWhenTheNameWentOrCameMeanwhile) {
    Fault const opens(inject_mq_open, EEXIST, 1, 3);
    Fault const removals(inject_mq_unlink, 0);
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ(4, opens.getCalls());
    EXPECT_EQ(3, removals.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueServerTest, replacingEndsWhenTheNameCannotBeRemoved) {
    makeOther();
    Fault const opens(inject_mq_open, 0);
    {
        Fault const fault(inject_mq_unlink, EIO);
        EXPECT_TRUE(create(Creatable::REPLACE));
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name)}));
    EXPECT_EQ(1, opens.getCalls());
    EXPECT_FALSE(m_server.isValid());
    EXPECT_TRUE(m_name.exists());
}

TEST_F(MsgQueueServerTest, otherStrategiesAreRefusedWithoutACall) {
    Fault const opens(inject_mq_open, 0);
    for (int const strategy : {3, 99, -1}) {
        EXPECT_TRUE(create(static_cast<Creatable::CreationStrategy>(strategy))) << strategy;
        EXPECT_TRUE(chainIs({refused("Unsupported strategy passed")})) << strategy;
    }
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_FALSE(m_server.isValid());
}

TEST_F(MsgQueueServerTest, nameIsLookedAtBeforeTheStrategy) {
    EXPECT_TRUE(m_server.create("a/b", MSG_SIZE, MAX_MSGS, Creatable::TRUNCATE));
    EXPECT_TRUE(chainIs(
        {{std::CommonErrorId::INVALID_ARGUMENT,
          rowText(std::CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")}}));
}

TEST_F(MsgQueueServerTest, impossibleNamesAreRefusedWithoutACall) {
    Fault const opens(inject_mq_open, 0);
    EXPECT_TRUE(m_server.create(nullptr, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_server.create("/leading", MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_server.create(std::string(255, 'n').c_str(), MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(0, opens.getCalls());
}

TEST_F(MsgQueueServerTest, longestNameWorks) {
    QueueName const name(254);
    EXPECT_FALSE(m_server.create(name, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    MsgQueueClient client;
    EXPECT_FALSE(client.attach(name));
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_FALSE(name.exists());
}

TEST_F(MsgQueueServerTest, emptyNameIsForTheSystemToRefuse) {
    EXPECT_TRUE(m_server.create("", MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    EXPECT_EQ("/", s_queue_calls.open_name);
    EXPECT_TRUE(chainIs({reported(19, ENOENT)}));
}

TEST_F(MsgQueueServerTest, sizesThatNoQueueHasAreRefused) {
    constexpr unsigned int MAX = std::numeric_limits<unsigned int>::max();
    struct {
        unsigned int msg_size, max_msgs;
    } const rows[] = {{0, MAX_MSGS}, {MSG_SIZE, 0}, {0, 0}, {MAX, MAX_MSGS}, {MSG_SIZE, MAX}};
    for (auto const& row : rows) {
        EXPECT_TRUE(m_server.create(m_name, row.msg_size, row.max_msgs, Creatable::CREATE_NEW));
        EXPECT_TRUE(chainIs({reported(8, EINVAL)})) << row.msg_size << " " << row.max_msgs;
        EXPECT_FALSE(m_server.isValid());
        EXPECT_FALSE(m_name.exists());
    }
}

TEST_F(MsgQueueServerTest, interruptedCreationIsRepeated) {
    Fault const fault(inject_mq_open, EINTR, 1, 2);
    EXPECT_FALSE(create(Creatable::CREATE_NEW));
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

class MsgQueueServerRows : public MsgQueueServerTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(MsgQueueServerRows, failureOfCreationIsReported) {
    OpenRow const& row = GetParam();
    {
        Fault const fault(inject_mq_open, row.error);
        EXPECT_TRUE(create(Creatable::CREATE_NEW));
        EXPECT_EQ(1, fault.getCalls());
    }
    std::vector<ExpectedReport> expected{reported(row.id, row.error)};
    if (row.access_id != -1) {
        expected.push_back(forName(row.access_id, m_name));
    }
    EXPECT_TRUE(chainIs(expected));
    EXPECT_FALSE(m_server.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    Table, MsgQueueServerRows,
    testing::Values(
        OpenRow{ENOENT, 19, -1}, OpenRow{EACCES, 7, 3}, OpenRow{EEXIST, 12, 4}, OpenRow{EINVAL, 8, -1},
        OpenRow{ENFILE, 0, -1}, OpenRow{EMFILE, 0, -1}, OpenRow{ENOSPC, 15, 7}, OpenRow{ENOMEM, 19, -1},
        OpenRow{EPERM, 19, -1}));

TEST_F(MsgQueueServerTest, nameTooLongForTheSystemIsReportedWithItsLength) {
    Fault const fault(inject_mq_open, ENAMETOOLONG);
    EXPECT_TRUE(create(Creatable::CREATE_NEW));
    std::string const name = m_name.getSystemName();
    EXPECT_TRUE(chainIs(
        {{SysErrorId::PATH_TOO_LONG,
          "Given path exceeds system maximum: " + name + " (" + std::to_string(name.size()) +
              " chars encountered, only max ? chars allowed)"},
         forName(0, m_name)}));
}

// ---- create on an open object ----

TEST_F(MsgQueueServerTest, openObjectIsClosedFirst) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    QueueName const second;
    Fault const closes(inject_mq_close, 0);
    EXPECT_FALSE(m_server.create(second, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_TRUE(m_name.exists());
    EXPECT_TRUE(second.exists());
}

TEST_F(MsgQueueServerTest, openObjectThatIsToRemoveItsNameDoesSoFirst) {
    m_server.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    QueueName const second;
    EXPECT_FALSE(m_server.create(second, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(second.exists());
}

TEST_F(MsgQueueServerTest, creationEndsWhenTheOpenQueueCannotBeClosed) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    QueueName const second;
    {
        Fault const fault(inject_mq_close, EIO);
        EXPECT_TRUE(m_server.create(second, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    }
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
    EXPECT_FALSE(second.exists());
    EXPECT_TRUE(put(m_server, "still open"));
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_FALSE(m_name.exists()) << "and has its name";
}

// ---- close ----

TEST_F(MsgQueueServerTest, nameStaysWhenNothingElseIsTold) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(m_server.close());
    EXPECT_FALSE(m_server.isValid());
    EXPECT_TRUE(m_name.exists());
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_FALSE(m_name.exists()) << "the closed object knows it";
}

TEST_F(MsgQueueServerTest, closeRemovesTheNameWhenToldTo) {
    m_server.setUnlinkOnClose(true);
    EXPECT_TRUE(m_server.isUnlinkOnClose());
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    MsgQueueBase& base = m_server;
    EXPECT_FALSE(base.close());
    EXPECT_FALSE(m_server.isValid());
    EXPECT_FALSE(m_name.exists());
    Fault const removals(inject_mq_unlink, 0);
    EXPECT_FALSE(m_server.close());
    EXPECT_EQ(0, removals.getCalls());
}

TEST_F(MsgQueueServerTest, closeFailsWhenTheNameCannotBeRemovedAndClosesAllTheSame) {
    m_server.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const fault(inject_mq_unlink, EIO);
        EXPECT_TRUE(m_server.close());
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name)}));
    EXPECT_FALSE(m_server.isValid());
    EXPECT_TRUE(m_name.exists());
    EXPECT_FALSE(m_server.close()) << "removes it now";
    EXPECT_FALSE(m_name.exists());
}

TEST_F(MsgQueueServerTest, bothFailuresOfACloseStandInOneChain) {
    m_server.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const removal(inject_mq_unlink, EIO);
        Fault const closing(inject_mq_close, ENOMEM);
        EXPECT_TRUE(m_server.close());
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name), reported(10, ENOMEM)}));
    EXPECT_FALSE(m_server.close());
}

TEST_F(MsgQueueServerTest, failedCloseAloneIsReported) {
    m_server.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const fault(inject_mq_close, EIO);
        EXPECT_TRUE(m_server.close());
    }
    EXPECT_TRUE(chainIs({reported(10, EIO)}));
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(m_server.isValid());
}

TEST_F(MsgQueueServerTest, destructorNeverRemovesTheName) {
    EventRecorder const recorder;
    {
        MsgQueueServer server;
        server.setUnlinkOnClose(true);
        ASSERT_FALSE(server.create(m_name, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    }
    EXPECT_TRUE(m_name.exists());
    EXPECT_EQ("", recorder.getText());
}

// ---- deleteName ----

TEST_F(MsgQueueServerTest, deletesItsNameAndKeepsTheQueue) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(put(m_server, "tea"));
    Fault const removals(inject_mq_unlink, 0);
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_EQ(0, removals.getCalls()) << "there is no name any more";
}

TEST_F(MsgQueueServerTest, objectWithoutANameDeletesNothing) {
    Fault const removals(inject_mq_unlink, 0);
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_EQ(0, removals.getCalls());
}

TEST_F(MsgQueueServerTest, failedDeletionKeepsTheNameForAnotherTry) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const fault(inject_mq_unlink, EIO);
        EXPECT_TRUE(m_server.deleteName());
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name)}));
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_FALSE(m_name.exists());
}

TEST_F(MsgQueueServerTest, deletingANameThatIsGoneAlreadySucceeds) {
    EXPECT_FALSE(MsgQueueServer::deleteName(m_name));
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(MsgQueueServer::deleteName(m_name));
    EXPECT_FALSE(m_name.exists());
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(MsgQueueServerTest, deletingAnImpossibleNameFails) {
    Fault const removals(inject_mq_unlink, 0);
    EXPECT_TRUE(MsgQueueServer::deleteName(nullptr));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(MsgQueueServer::deleteName("a/b"));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(MsgQueueServer::deleteName(std::string(255, 'n').c_str()));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(0, removals.getCalls());
}

TEST_F(MsgQueueServerTest, failedCreationLeavesNoNameOfSomebodyElseToDelete) {
    makeOther();
    m_server.setUnlinkOnClose(true);
    EXPECT_TRUE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{SysErrorId::FILE_EXISTS}, {FileAccessError, FileAccessErrorId::ALREADY_EXISTS}}));
    EXPECT_TRUE(create(Creatable::TRUNCATE));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_TRUE(m_server.create((std::string(m_name) + "/").c_str(), 1, 1, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_FALSE(m_server.close());
    EXPECT_FALSE(m_server.deleteName());
    EXPECT_TRUE(m_name.exists());
}

class MsgQueueServerRemovalRows : public MsgQueueServerTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(MsgQueueServerRemovalRows, failureOfRemovalOpensAChain) {
    OpenRow const& row = GetParam();
    std::ErrorOutput(__FILE__, __LINE__, true)(SysErrorId::INPUT_OUTPUT, "earlier");
    {
        Fault const fault(inject_mq_unlink, row.error);
        EXPECT_TRUE(MsgQueueServer::deleteName(m_name));
        EXPECT_EQ(1, fault.getCalls());
    }
    if (row.id == 7) {
        EXPECT_TRUE(chainIs(deniedRemoval(row.error, m_name)));
    } else {
        EXPECT_TRUE(chainIs({reported(row.id, row.error), forName(row.access_id, m_name)}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, MsgQueueServerRemovalRows,
    testing::Values(
        OpenRow{EACCES, 7, 3}, OpenRow{EPERM, 7, 3}, OpenRow{EIO, 19, 9}, OpenRow{ENAMETOOLONG, 19, 9},
        OpenRow{EINTR, 19, 9}));

// ---- processes ----

TEST_F(MsgQueueServerTest, serverAndClientAreDifferentProcesses) {
    QueueName const answers;
    MsgQueueServer ready;
    ASSERT_FALSE(ready.create(answers, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
    Process server([&] {
        MsgQueueServer queue;
        EXPECT_FALSE(queue.create(m_name, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
        EXPECT_TRUE(put(ready, "ready"));
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ("order " + std::to_string(i), get(queue, 30000));
        }
        queue.setUnlinkOnClose(true);
        EXPECT_FALSE(queue.close());
    });
    ASSERT_EQ("ready", get(ready, 30000));
    Process client([&] {
        MsgQueueClient queue;
        EXPECT_FALSE(queue.attach(m_name));
        for (int i = 0; i < 100; ++i) {
            std::string text = "order " + std::to_string(i);
            MsgQueueBase::Message const message{text.data(), static_cast<unsigned int>(text.size()), 0};
            EXPECT_FALSE(queue.writeMsg(&message));
        }
    });
    EXPECT_EQ(0, client.join());
    EXPECT_EQ(0, server.join());
    EXPECT_FALSE(m_name.exists());
}

TEST_F(MsgQueueServerTest, queueOutlivesAnOwnerThatCrashed) {
    Process owner([&] {
        MsgQueueServer queue;
        queue.setUnlinkOnClose(true);
        EXPECT_FALSE(queue.create(m_name, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
        EXPECT_TRUE(put(queue, "last words"));
        raise(SIGKILL);
    });
    EXPECT_EQ(-1, owner.join());
    EXPECT_TRUE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{SysErrorId::FILE_EXISTS}, {FileAccessError, FileAccessErrorId::ALREADY_EXISTS}}));
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ("last words", get(m_server));
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ("(none)", get(m_server));
}

TEST_F(MsgQueueServerTest, queueOfAnotherUserIsOutOfReach) {
    VESK_SKIP_UNLESS_ROOT();
    makeOther();
    expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        MsgQueueServer server;
        EXPECT_TRUE(server.create(m_name, MSG_SIZE, MAX_MSGS, Creatable::OPEN_OR_CREATE));
        EXPECT_TRUE(chainIs({reported(7, EACCES), forName(3, m_name)}));
        EXPECT_TRUE(server.create(m_name, MSG_SIZE, MAX_MSGS, Creatable::CREATE_NEW));
        EXPECT_TRUE(chainIs({reported(12, EEXIST), forName(4, m_name)}));
        EXPECT_TRUE(server.create(m_name, MSG_SIZE, MAX_MSGS, Creatable::REPLACE));
        EXPECT_TRUE(chainIs(deniedRemoval(EACCES, m_name)));
        EXPECT_TRUE(MsgQueueServer::deleteName(m_name));
        EXPECT_TRUE(chainIs(deniedRemoval(EACCES, m_name)));
        EXPECT_FALSE(server.isValid());
    });
    EXPECT_TRUE(m_name.exists());
}

TEST_F(MsgQueueServerTest, userWithoutPrivilegesIsHeldToTheLimitsOfTheSystem) {
    VESK_SKIP_UNLESS_ROOT();
    expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        MsgQueueServer server;
        EXPECT_TRUE(
            server.create(m_name, MSG_SIZE, MsgQueueBase::systemMaxMsgCount() + 1, Creatable::CREATE_NEW));
        EXPECT_TRUE(chainIs({reported(8, EINVAL)}));
        EXPECT_TRUE(server.create(m_name, MsgQueueBase::systemMaxMsgSize() + 1, 1, Creatable::CREATE_NEW));
        EXPECT_TRUE(chainIs({reported(8, EINVAL)}));
        EXPECT_FALSE(
            server.create(m_name, MSG_SIZE, MsgQueueBase::systemMaxMsgCount(), Creatable::CREATE_NEW));
        EXPECT_FALSE(server.deleteName());
    });
}

TEST_F(MsgQueueServerTest, bytesForQueuesRunOutLikeDescriptors) {
    expectInChild([&] {
        rlimit const none{0, 0};
        ASSERT_EQ(0, setrlimit(RLIMIT_MSGQUEUE, &none));
        EXPECT_TRUE(create(Creatable::CREATE_NEW));
        EXPECT_TRUE(chainIs({reported(0, EMFILE)}));
        EXPECT_FALSE(m_name.exists());
    });
}

} // namespace
