#include "support/Chain.h"
#include "support/Privileges.h"
#include "support/calls/SemaphoreCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/FileAccessError.h>
#include <vesk/SemaphoreClient.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using support::chainIs;
using support::ExpectedReport;
using support::expectInChild;
using support::Fault;
using support::rowText;
using support::s_semaphore_calls;
using support::SemaphoreName;
using support::systemText;
using vesk::Creatable;
using vesk::FileAccessError;
using vesk::SemaphoreClient;
using vesk::SemaphoreCreator;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

ExpectedReport reported(int id, int error) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

/// A client tells names as they were given to it.
ExpectedReport forName(int id, char const* name) {
    return {FileAccessError, id, rowText(FileAccessError, id, name)};
}

/// A client whose `close` can be watched.
class WatchedClient : public SemaphoreClient {
public:
    bool close() override {
        ++closes;
        return SemaphoreClient::close();
    }

    int closes = 0;
};

class SemaphoreClientTest : public testing::Test {
protected:
    void makeSemaphore() { ASSERT_FALSE(m_creator.create(m_name, 1, Creatable::CREATE_NEW)); }

    SemaphoreName m_name;
    SemaphoreCreator m_creator;
    WatchedClient m_client;
};

TEST_F(SemaphoreClientTest, attachesToWhatTheCreatorMade) {
    makeSemaphore();
    EXPECT_FALSE(m_client.attach(m_name));
    EXPECT_TRUE(m_client.isValid());
    EXPECT_EQ(m_name.getSystemName(), s_semaphore_calls.open_name);
    EXPECT_EQ(0, s_semaphore_calls.open_flags);
    EXPECT_FALSE(m_client.take());
    EXPECT_EQ(1, m_creator.tryTake());
    EXPECT_FALSE(m_client.close());
    EXPECT_TRUE(m_name.exists());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreClientTest, missingSemaphoreIsABadPath) {
    EXPECT_TRUE(m_client.attach(m_name));
    EXPECT_TRUE(chainIs({reported(2, ENOENT), forName(0, m_name)}));
    EXPECT_FALSE(m_client.isValid());
    EXPECT_FALSE(m_name.exists());
}

TEST_F(SemaphoreClientTest, attachedObjectIsClosedFirst) {
    makeSemaphore();
    ASSERT_FALSE(m_client.attach(m_name));
    EXPECT_EQ(0, m_client.closes);
    EXPECT_FALSE(m_client.attach(m_name));
    EXPECT_EQ(1, m_client.closes);
    EXPECT_TRUE(m_client.attach("a/b"));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_EQ(2, m_client.closes);
    EXPECT_FALSE(m_client.isValid());
}

TEST_F(SemaphoreClientTest, attachingEndsWhenTheCloseFails) {
    makeSemaphore();
    ASSERT_FALSE(m_client.attach(m_name));
    Fault const opens(inject_sem_open, 0);
    {
        Fault const fault(inject_sem_close, EINVAL);
        EXPECT_TRUE(m_client.attach(m_name));
    }
    EXPECT_TRUE(chainIs({reported(10, EINVAL)}));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_FALSE(m_client.isValid());
    EXPECT_FALSE(m_client.attach(m_name)) << "another try goes on";
    // What the failed close left.
    sem_t* const semaphore = sem_open(m_name.getSystemName().c_str(), 0);
    EXPECT_EQ(0, sem_close(semaphore));
    EXPECT_EQ(0, sem_close(semaphore));
}

TEST_F(SemaphoreClientTest, impossibleNamesAreRefusedWithoutACall) {
    Fault const opens(inject_sem_open, 0);
    EXPECT_TRUE(m_client.attach(nullptr));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_client.attach("/leading"));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_client.attach(std::string(255, 'n').c_str()));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(0, opens.getCalls());
}

TEST_F(SemaphoreClientTest, nameThatIsTooLongForTheSystemAloneIsABadPath) {
    std::string const name(254, 'n');
    EXPECT_TRUE(m_client.attach(name.c_str()));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}, forName(0, name.c_str())}));
}

TEST_F(SemaphoreClientTest, emptyNameIsForTheSystemToRefuse) {
    EXPECT_TRUE(m_client.attach(""));
    EXPECT_EQ("/", s_semaphore_calls.open_name);
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}, forName(0, "")}));
}

TEST_F(SemaphoreClientTest, interruptedAttachingIsRepeated) {
    makeSemaphore();
    Fault const fault(inject_sem_open, EINTR, 1, 2);
    EXPECT_FALSE(m_client.attach(m_name));
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

struct OpenRow {
    int error;
    int id;
    int access_id;
};

void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class SemaphoreClientRows : public SemaphoreClientTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(SemaphoreClientRows, failureIsReported) {
    OpenRow const& row = GetParam();
    {
        Fault const fault(inject_sem_open, row.error);
        EXPECT_TRUE(m_client.attach(m_name));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({reported(row.id, row.error), forName(row.access_id, m_name)}));
    EXPECT_FALSE(m_client.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    Table, SemaphoreClientRows,
    testing::Values(
        OpenRow{EACCES, 7, 3}, OpenRow{ENOENT, 2, 0}, OpenRow{EINVAL, 2, 0}, OpenRow{ENAMETOOLONG, 2, 0},
        OpenRow{ENFILE, 0, 6}, OpenRow{EMFILE, 0, 6}, OpenRow{EEXIST, 10, 9}, OpenRow{ENOSPC, 10, 9},
        OpenRow{ENOMEM, 19, 9}, OpenRow{EPERM, 19, 9}));

TEST_F(SemaphoreClientTest, semaphoreOfAnotherUserIsOutOfReach) {
    VESK_SKIP_UNLESS_ROOT();
    makeSemaphore();
    // The process keeps what it has open, so a child asks that never opened it.
    ASSERT_FALSE(m_creator.close());
    expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        EXPECT_TRUE(m_client.attach(m_name));
        EXPECT_TRUE(chainIs({reported(7, EACCES), forName(3, m_name)}));
    });
}

} // namespace
