#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Privileges.h"
#include "support/Processes.h"
#include "support/calls/SemaphoreCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/FileAccessError.h>
#include <vesk/SemaphoreClient.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <memory>
#include <string>

namespace {

using support::chainIs;
using support::EventRecorder;
using support::ExpectedReport;
using support::expectInChild;
using support::Fault;
using support::Process;
using support::rowText;
using support::s_semaphore_calls;
using support::SemaphoreName;
using support::systemText;
using vesk::Creatable;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::SemaphoreBase;
using vesk::SemaphoreClient;
using vesk::SemaphoreCreator;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

ExpectedReport reported(int id, int error) {
    return {SysError, id, rowText(SysError, id, systemText(error))};
}

/// A creator tells the system's names.
ExpectedReport forName(int id, SemaphoreName const& name) {
    return {FileAccessError, id, rowText(FileAccessError, id, name.getSystemName())};
}

class SemaphoreCreatorTest : public testing::Test {
protected:
    bool create(Creatable::CreationStrategy strategy, unsigned int value = 2) {
        return m_creator.create(m_name, value, strategy);
    }
    /// Somebody else's semaphore of the name.
    void makeOther() {
        SemaphoreCreator other;
        ASSERT_FALSE(other.create(m_name, 5, Creatable::CREATE_NEW));
    }
    /// Does what a failed `sem_close` did not; the system counts how often a semaphore was opened.
    void closeForIt() {
        sem_t* const semaphore = sem_open(m_name.getSystemName().c_str(), 0);
        ASSERT_NE(SEM_FAILED, semaphore);
        EXPECT_EQ(0, sem_close(semaphore));
        EXPECT_EQ(0, sem_close(semaphore));
    }

    SemaphoreName m_name;
    SemaphoreCreator m_creator;
};

// ---- create ----

TEST_F(SemaphoreCreatorTest, createsASemaphoreForItsUser) {
    EXPECT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(m_creator.isValid());
    EXPECT_EQ(m_name.getSystemName(), s_semaphore_calls.open_name);
    EXPECT_EQ(0600U, s_semaphore_calls.open_mode);
    EXPECT_EQ(2U, s_semaphore_calls.value);
    EXPECT_EQ(2, m_name.getValue());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreCreatorTest, strategiesHaveTheirFlags) {
    EXPECT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_EQ(O_CREAT | O_EXCL, s_semaphore_calls.open_flags);
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(O_CREAT, s_semaphore_calls.open_flags);
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ(O_CREAT | O_EXCL, s_semaphore_calls.open_flags);
}

TEST_F(SemaphoreCreatorTest, newSemaphoreIsRefusedWhenTheNameExists) {
    makeOther();
    EXPECT_TRUE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({reported(12, EEXIST), forName(4, m_name)}));
    EXPECT_FALSE(m_creator.isValid());
    EXPECT_EQ(5, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, existingSemaphoreKeepsItsValue) {
    makeOther();
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(5, m_name.getValue());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreCreatorTest, missingSemaphoreIsCreatedByOpening) {
    EXPECT_FALSE(create(Creatable::OPEN_OR_CREATE));
    EXPECT_EQ(2, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, replacedSemaphoreIsANewOneWithItsOwnValue) {
    makeOther();
    SemaphoreClient client;
    ASSERT_FALSE(client.attach(m_name));
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(2, m_name.getValue());
    EXPECT_FALSE(client.take()) << "who has the old one keeps it";
    EXPECT_EQ(2, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, replacingGoesOnWhenTheNameWentOrCameMeanwhile) {
    Fault const opens(inject_sem_open, EEXIST, 1, 3);
    Fault const removals(inject_sem_unlink, 0);
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ(4, opens.getCalls());
    EXPECT_EQ(3, removals.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreCreatorTest, replacingEndsWhenTheNameCannotBeRemoved) {
    makeOther();
    Fault const opens(inject_sem_open, 0);
    {
        Fault const fault(inject_sem_unlink, EIO);
        EXPECT_TRUE(create(Creatable::REPLACE));
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name)}));
    EXPECT_EQ(1, opens.getCalls());
    EXPECT_FALSE(m_creator.isValid());
    EXPECT_EQ(5, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, otherStrategiesAreRefusedWithoutACall) {
    Fault const opens(inject_sem_open, 0);
    for (int const strategy : {3, 99, -1}) {
        EXPECT_TRUE(create(static_cast<Creatable::CreationStrategy>(strategy))) << strategy;
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::CONTRACT_BROKEN,
              rowText(std::CommonErrorId::CONTRACT_BROKEN, "Unsupported strategy passed")}}));
    }
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_FALSE(m_creator.isValid());
}

TEST_F(SemaphoreCreatorTest, nameIsLookedAtBeforeTheStrategy) {
    EXPECT_TRUE(m_creator.create("a/b", 0, Creatable::TRUNCATE));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
}

TEST_F(SemaphoreCreatorTest, impossibleNamesAreRefusedWithoutACall) {
    Fault const opens(inject_sem_open, 0);
    EXPECT_TRUE(m_creator.create(nullptr, 0, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_creator.create("/leading", 0, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(m_creator.create(std::string(255, 'n').c_str(), 0, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(0, opens.getCalls());
}

TEST_F(SemaphoreCreatorTest, nameThatIsTooLongForTheSystemAloneIsABadPath) {
    SemaphoreName const name(254);
    EXPECT_TRUE(m_creator.create(name, 0, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}, forName(0, name)}));
}

TEST_F(SemaphoreCreatorTest, emptyNameIsForTheSystemToRefuse) {
    EXPECT_TRUE(m_creator.create("", 0, Creatable::CREATE_NEW));
    EXPECT_EQ("/", s_semaphore_calls.open_name);
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH},
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, "/")}}));
}

TEST_F(SemaphoreCreatorTest, valueAboveTheHighestIsRefused) {
    EXPECT_TRUE(create(Creatable::CREATE_NEW, static_cast<unsigned int>(SEM_VALUE_MAX) + 1U));
    EXPECT_TRUE(chainIs({reported(2, EINVAL), forName(0, m_name)}));
    EXPECT_FALSE(m_name.exists());
    EXPECT_FALSE(create(Creatable::CREATE_NEW, SEM_VALUE_MAX));
    EXPECT_EQ(SEM_VALUE_MAX, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, interruptedCreationIsRepeated) {
    Fault const fault(inject_sem_open, EINTR, 1, 2);
    EXPECT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_EQ(3, fault.getCalls());
    EXPECT_TRUE(chainIs({}));
}

struct Row {
    int error;
    int id;
    int access_id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class SemaphoreCreatorRows : public SemaphoreCreatorTest, public testing::WithParamInterface<Row> {};

TEST_P(SemaphoreCreatorRows, failureOfCreationIsReported) {
    Row const& row = GetParam();
    {
        Fault const fault(inject_sem_open, row.error);
        EXPECT_TRUE(create(Creatable::CREATE_NEW));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({reported(row.id, row.error), forName(row.access_id, m_name)}));
    EXPECT_FALSE(m_creator.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    Table, SemaphoreCreatorRows,
    testing::Values(
        Row{EACCES, 7, 3}, Row{EEXIST, 12, 4}, Row{EINVAL, 2, 0}, Row{ENAMETOOLONG, 2, 0}, Row{ENFILE, 0, 6},
        Row{EMFILE, 0, 6}, Row{ENOSPC, 10, 9}, Row{ENOENT, 19, 9}, Row{ENOMEM, 19, 9}));

// ---- create on an open object ----

TEST_F(SemaphoreCreatorTest, openObjectIsClosedFirstAndItsNameStays) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    SemaphoreName const second;
    Fault const closes(inject_sem_close, 0);
    EXPECT_FALSE(m_creator.create(second, 1, Creatable::CREATE_NEW));
    EXPECT_EQ(1, closes.getCalls());
    EXPECT_TRUE(m_name.exists());
    EXPECT_TRUE(second.exists());
}

TEST_F(SemaphoreCreatorTest, openObjectThatIsToRemoveItsNameDoesSoFirst) {
    m_creator.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    SemaphoreName const second;
    EXPECT_FALSE(m_creator.create(second, 1, Creatable::CREATE_NEW));
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(second.exists());
}

TEST_F(SemaphoreCreatorTest, creationEndsWhenTheOldNameCannotBeRemovedAndTheOldSemaphoreIsClosed) {
    m_creator.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    SemaphoreName const second;
    {
        Fault const fault(inject_sem_unlink, EIO);
        EXPECT_TRUE(m_creator.create(second, 1, Creatable::CREATE_NEW));
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name)}));
    EXPECT_FALSE(m_creator.isValid());
    EXPECT_TRUE(m_name.exists());
    EXPECT_FALSE(second.exists());
}

TEST_F(SemaphoreCreatorTest, creationEndsWhenTheCloseFails) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    SemaphoreName const second;
    {
        Fault const fault(inject_sem_close, EINVAL);
        EXPECT_TRUE(m_creator.create(second, 1, Creatable::CREATE_NEW));
    }
    EXPECT_TRUE(chainIs({reported(10, EINVAL)}));
    EXPECT_FALSE(second.exists());
    closeForIt();
}

// ---- close ----

TEST_F(SemaphoreCreatorTest, nameStaysWhenNothingElseIsTold) {
    EXPECT_FALSE(m_creator.isUnlinkOnClose());
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(m_creator.close());
    EXPECT_FALSE(m_creator.isValid());
    EXPECT_EQ(2, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, closeRemovesTheNameWhenToldTo) {
    m_creator.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    SemaphoreBase& base = m_creator;
    EXPECT_FALSE(base.close());
    EXPECT_FALSE(m_creator.isValid());
    EXPECT_FALSE(m_name.exists());
}

TEST_F(SemaphoreCreatorTest, closingAClosedObjectMakesNoCall) {
    m_creator.setUnlinkOnClose(true);
    Fault const removals(inject_sem_unlink, 0);
    Fault const closes(inject_sem_close, 0);
    EXPECT_FALSE(m_creator.close());
    EXPECT_EQ(0, removals.getCalls() + closes.getCalls());
}

TEST_F(SemaphoreCreatorTest, closeFailsWhenTheNameCannotBeRemovedAndClosesAllTheSame) {
    m_creator.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const fault(inject_sem_unlink, EACCES);
        EXPECT_TRUE(m_creator.close());
    }
    EXPECT_TRUE(chainIs({reported(7, EACCES), forName(3, m_name)}));
    EXPECT_FALSE(m_creator.isValid());
    EXPECT_TRUE(m_name.exists());
}

TEST_F(SemaphoreCreatorTest, bothFailuresOfACloseStandInOneChain) {
    m_creator.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const removal(inject_sem_unlink, EIO);
        Fault const closing(inject_sem_close, EINVAL);
        EXPECT_TRUE(m_creator.close());
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name), reported(10, EINVAL)}));
    closeForIt();
}

TEST_F(SemaphoreCreatorTest, destructorClosesAsTheObjectWasTold) {
    EventRecorder const recorder;
    SemaphoreName const second;
    {
        SemaphoreCreator keeping;
        ASSERT_FALSE(keeping.create(m_name, 1, Creatable::CREATE_NEW));
        SemaphoreCreator removing;
        removing.setUnlinkOnClose(true);
        ASSERT_FALSE(removing.create(second, 1, Creatable::CREATE_NEW));
    }
    EXPECT_TRUE(m_name.exists());
    EXPECT_FALSE(second.exists());
    EXPECT_EQ("", recorder.getText());
}

TEST_F(SemaphoreCreatorTest, destructorWarnsAboutAFailedCloseAndAcknowledgesIt) {
    EventRecorder const recorder;
    auto creator = std::make_unique<SemaphoreCreator>();
    ASSERT_FALSE(creator->create(m_name, 1, Creatable::CREATE_NEW));
    {
        Fault const fault(inject_sem_close, EINVAL, 1, Fault::FOREVER);
        creator.reset();
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/SemaphoreCreator ~SemaphoreCreator: error closing semaphore",
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
    closeForIt();
}

TEST_F(SemaphoreCreatorTest, destructorWarnsAboutANameThatItCannotRemove) {
    EventRecorder const recorder;
    auto creator = std::make_unique<SemaphoreCreator>();
    creator->setUnlinkOnClose(true);
    ASSERT_FALSE(creator->create(m_name, 1, Creatable::CREATE_NEW));
    {
        Fault const fault(inject_sem_unlink, EIO);
        creator.reset();
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/SemaphoreCreator ~SemaphoreCreator: error closing semaphore",
        recorder.getText());
    EXPECT_TRUE(chainIs({}));
}

// ---- deleteName ----

TEST_F(SemaphoreCreatorTest, deletesItsNameAndKeepsTheSemaphore) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(m_creator.deleteName());
    EXPECT_FALSE(m_name.exists());
    EXPECT_FALSE(m_creator.take());
}

TEST_F(SemaphoreCreatorTest, deletedNameIsNotDeletedAgainThoughSomebodyElseHasIt) {
    m_creator.setUnlinkOnClose(true);
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(m_creator.deleteName());
    makeOther();
    EXPECT_FALSE(m_creator.deleteName());
    EXPECT_FALSE(m_creator.close());
    EXPECT_EQ(5, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, closedObjectDeletesNothing) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    ASSERT_FALSE(m_creator.close());
    EXPECT_FALSE(m_creator.deleteName());
    EXPECT_TRUE(m_name.exists());
}

TEST_F(SemaphoreCreatorTest, failedDeletionKeepsTheNameForAnotherTry) {
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    {
        Fault const fault(inject_sem_unlink, EIO);
        EXPECT_TRUE(m_creator.deleteName());
    }
    EXPECT_TRUE(chainIs({reported(19, EIO), forName(9, m_name)}));
    EXPECT_FALSE(m_creator.deleteName());
    EXPECT_FALSE(m_name.exists());
}

TEST_F(SemaphoreCreatorTest, deletingAMissingNameSucceeds) {
    EXPECT_FALSE(SemaphoreCreator::deleteName(m_name));
    ASSERT_FALSE(create(Creatable::CREATE_NEW));
    EXPECT_FALSE(SemaphoreCreator::deleteName(m_name));
    EXPECT_FALSE(m_name.exists());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SemaphoreCreatorTest, deletingAnImpossibleNameFails) {
    Fault const removals(inject_sem_unlink, 0);
    EXPECT_TRUE(SemaphoreCreator::deleteName(nullptr));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(SemaphoreCreator::deleteName("a/b"));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::INVALID_ARGUMENT}}));
    EXPECT_TRUE(SemaphoreCreator::deleteName(std::string(255, 'n').c_str()));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(0, removals.getCalls());
}

class SemaphoreCreatorRemovalRows : public SemaphoreCreatorTest, public testing::WithParamInterface<Row> {};

TEST_P(SemaphoreCreatorRemovalRows, failureOfRemovalIsReported) {
    Row const& row = GetParam();
    {
        Fault const fault(inject_sem_unlink, row.error);
        EXPECT_TRUE(SemaphoreCreator::deleteName(m_name));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(chainIs({reported(row.id, row.error), forName(row.access_id, m_name)}));
}

INSTANTIATE_TEST_SUITE_P(
    Table, SemaphoreCreatorRemovalRows,
    testing::Values(Row{EACCES, 7, 3}, Row{EPERM, 19, 9}, Row{EINTR, 19, 9}, Row{ENAMETOOLONG, 19, 9}));

// ---- processes ----

TEST_F(SemaphoreCreatorTest, semaphoreOutlivesAnOwnerThatCrashed) {
    Process owner([&] {
        SemaphoreCreator creator;
        creator.setUnlinkOnClose(true);
        EXPECT_FALSE(creator.create(m_name, 5, Creatable::CREATE_NEW));
        EXPECT_FALSE(creator.take());
        raise(SIGKILL);
    });
    EXPECT_EQ(-1, owner.join());
    EXPECT_EQ(4, m_name.getValue());
    EXPECT_TRUE(create(Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs({{SysErrorId::FILE_EXISTS}, {FileAccessError, FileAccessErrorId::ALREADY_EXISTS}}));
    EXPECT_FALSE(create(Creatable::REPLACE));
    EXPECT_EQ(2, m_name.getValue());
}

TEST_F(SemaphoreCreatorTest, semaphoreOfAnotherUserIsOutOfReach) {
    VESK_SKIP_UNLESS_ROOT();
    makeOther();
    expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        EXPECT_TRUE(create(Creatable::OPEN_OR_CREATE));
        EXPECT_TRUE(chainIs({reported(7, EACCES), forName(3, m_name)}));
        EXPECT_TRUE(create(Creatable::CREATE_NEW));
        EXPECT_TRUE(chainIs({reported(12, EEXIST), forName(4, m_name)}));
        EXPECT_TRUE(create(Creatable::REPLACE));
        EXPECT_TRUE(chainIs({reported(7, EACCES), forName(3, m_name)}));
        EXPECT_TRUE(SemaphoreCreator::deleteName(m_name));
        EXPECT_TRUE(chainIs({reported(7, EACCES), forName(3, m_name)}));
    });
    EXPECT_EQ(5, m_name.getValue());
}

} // namespace
