#include "support/EventRecorder.h"
#include "support/Privileges.h"
#include "support/VtableSlot.h"
#include "support/calls/ShmCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/SharedMemoryServer.h>

#include <cstring>
#include <ostream>
#include <string>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::failureIs;
using support::Fault;
using support::isOpen;
using support::mappedBytes;
using support::OpenRow;
using support::removalFailureIs;
using support::rowText;
using support::s_shm_calls;
using support::ShmName;
using support::systemText;
using vesk::Creatable;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::MemMapping;
using vesk::SharedMemoryBase;
using vesk::SharedMemoryServer;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using Strategy = Creatable::CreationStrategy;

static_assert(std::is_base_of_v<SharedMemoryBase, SharedMemoryServer>);
static_assert(std::is_base_of_v<Creatable, SharedMemoryServer>);
static_assert(!std::is_copy_constructible_v<SharedMemoryServer>);

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;
constexpr auto UNKNOWN = static_cast<Strategy>(99);

constexpr char const* SERVER_WARNING =
    "WARNING framework/src/vesk/posix/SharedMemoryServer ~SharedMemoryServer: Error closing SharedMemory";
constexpr char const* BASE_WARNING =
    "WARNING framework/src/vesk/posix/SharedMemoryBase ~SharedMemoryBase: Error closing SharedMemory";
constexpr char const* CREATE_WARNING = "WARNING framework/src/vesk/posix/SharedMemoryServer create: "
                                       "shm_open() okay, ftruncate() failed, close() failed!";

class SharedMemoryServerTest : public testing::Test {
protected:
    void create(unsigned int size = 4096, Strategy strategy = Creatable::CREATE_NEW) {
        ASSERT_FALSE(m_shm.create(m_name.get(), size, strategy));
        ASSERT_TRUE(m_shm.isValid());
    }

    ShmName m_name;
    SharedMemoryServer m_shm;
};

TEST_F(SharedMemoryServerTest, startsClosedAndWithoutAName) {
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_EQ(-1, m_shm.getDescriptor());
    EXPECT_STREQ("", m_shm.getName());
    EXPECT_FALSE(m_shm.isUnlinkOnClose());
    EXPECT_EQ(2, support::getSlot(&SharedMemoryServer::close));
}

TEST_F(SharedMemoryServerTest, makesMemoryFullOfZeros) {
    create(5000);
    EXPECT_EQ(5000U, m_shm.getSize());
    EXPECT_EQ(5000, m_name.getSize());
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
    EXPECT_EQ(0600U, s_shm_calls.mode);
    MemMapping const mapping = m_shm.addMapping(READ_WRITE, 5000);
    ASSERT_TRUE(mapping.isValid());
    auto* const bytes = static_cast<char*>(mapping.getAddress());
    EXPECT_EQ(std::string(5000, '\0'), std::string(bytes, 5000));
    bytes[4999] = 'X';
    EXPECT_EQ('X', m_name.read(5000)[4999]);
    EXPECT_FALSE(m_shm.close());
}

// ---- strategies ----

struct StrategyRow {
    Strategy strategy;
    int flags;
};

void PrintTo(StrategyRow const& row, std::ostream* out) {
    *out << static_cast<int>(row.strategy);
}

class SharedMemoryServerStrategy : public SharedMemoryServerTest,
                                   public testing::WithParamInterface<StrategyRow> {};

TEST_P(SharedMemoryServerStrategy, becomesFlagsOfTheSystemAndMakesWhatIsNotThere) {
    create(4096, GetParam().strategy);
    EXPECT_EQ(GetParam().flags, s_shm_calls.flags);
    EXPECT_EQ(0600U, s_shm_calls.mode);
    EXPECT_EQ(m_name.getSystemName(), s_shm_calls.name);
    EXPECT_EQ(4096U, m_shm.getSize());
}

TEST_P(SharedMemoryServerStrategy, sizeOfZeroMakesEmptyMemory) {
    create(0, GetParam().strategy);
    EXPECT_EQ(0U, m_shm.getSize());
    EXPECT_EQ(0, m_name.getSize());
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    rows, SharedMemoryServerStrategy,
    testing::Values(
        StrategyRow{Creatable::CREATE_NEW, 0xC2}, StrategyRow{Creatable::OPEN_OR_CREATE, 0x42},
        StrategyRow{Creatable::REPLACE, 0xC2}, StrategyRow{Creatable::TRUNCATE, 0x242},
        StrategyRow{UNKNOWN, 0x42}, StrategyRow{static_cast<Strategy>(-1), 0x42},
        StrategyRow{static_cast<Strategy>(4), 0x42}));

TEST_F(SharedMemoryServerTest, createNewFailsWhenTheNameIsTaken) {
    m_name.make("old");
    Fault const unlinks(inject_shm_unlink, 0);
    m_shm.setUnlinkOnClose(true);
    EXPECT_TRUE(m_shm.create(m_name.get(), 8192, Creatable::CREATE_NEW));
    EXPECT_TRUE(failureIs(EEXIST, 12, 4, m_name.getSystemName()));
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_FALSE(m_shm.close());
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_EQ(0, unlinks.getCalls()) << "the name is somebody else's";
    EXPECT_EQ("old", m_name.read(3));
    EXPECT_EQ(3, m_name.getSize());
}

TEST_F(SharedMemoryServerTest, openOrCreateKeepsTheSizeOfWhatIsThere) {
    m_name.make("old" + std::string(4093, '\0'));
    create(8192, Creatable::OPEN_OR_CREATE);
    EXPECT_EQ(4096U, m_shm.getSize());
    EXPECT_EQ("old", m_name.read(3));
}

TEST_F(SharedMemoryServerTest, openOrCreateSetsTheSizeOfWhatIsThereEmpty) {
    m_name.make();
    create(8192, Creatable::OPEN_OR_CREATE);
    EXPECT_EQ(8192U, m_shm.getSize());
}

TEST_F(SharedMemoryServerTest, truncateEmptiesWhatIsThereAndSetsTheNewSize) {
    m_name.make(std::string(8192, 'x'));
    create(4096, Creatable::TRUNCATE);
    EXPECT_EQ(4096U, m_shm.getSize());
    EXPECT_EQ(std::string(4096, '\0'), m_name.read(4096));
}

TEST_F(SharedMemoryServerTest, unknownStrategyOpensWhatIsThereAndSetsTheNewSize) {
    m_name.make("old" + std::string(4093, '\0'));
    create(8192, UNKNOWN);
    EXPECT_EQ(8192U, m_shm.getSize());
    EXPECT_EQ("old", m_name.read(3));
}

TEST_F(SharedMemoryServerTest, replaceTakesTheNameAndLeavesTheOldMemoryToItsUsers) {
    create();
    SharedMemoryServer second;
    EXPECT_FALSE(second.create(m_name.get(), 8192, Creatable::REPLACE));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(8192, m_name.getSize());
    EXPECT_EQ(4096U, m_shm.getSize());
    EXPECT_TRUE(m_shm.addMapping(READ_WRITE, 4096).isValid());
}

TEST_F(SharedMemoryServerTest, replaceTriesUntilTheNameIsItsOwn) {
    Fault const opens(inject_shm_open, EEXIST, 1, 3);
    Fault const unlinks(inject_shm_unlink, 0);
    create(4096, Creatable::REPLACE);
    EXPECT_EQ(4, opens.getCalls());
    EXPECT_EQ(3, unlinks.getCalls()) << "that there is none to remove is no failure";
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedMemoryServerTest, replaceFailsWhenTheOldNameCannotBeRemoved) {
    m_name.make("old");
    for (int const error : {EACCES, EPERM, EIO}) {
        Fault const fault(inject_shm_unlink, error);
        EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::REPLACE));
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(removalFailureIs(error, m_name.getSystemName())) << "what was in the way is acknowledged";
        EXPECT_FALSE(m_shm.isValid());
        EXPECT_EQ("old", m_name.read(3));
    }
}

TEST_F(SharedMemoryServerTest, replaceRemovesNothingForAnotherFailure) {
    m_name.make("old");
    Fault const fault(inject_shm_open, EACCES);
    Fault const unlinks(inject_shm_unlink, 0);
    EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::REPLACE));
    EXPECT_TRUE(failureIs(EACCES, 7, 3, m_name.getSystemName()));
    EXPECT_EQ(0, unlinks.getCalls());
}

// ---- failures of create ----

class SharedMemoryServerRows : public SharedMemoryServerTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(SharedMemoryServerRows, failureToCreateIsReported) {
    Fault const fault(inject_shm_open, GetParam().error);
    EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
    EXPECT_TRUE(failureIs(GetParam(), m_name.getSystemName()));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_STREQ("", m_shm.getName());
    EXPECT_FALSE(m_name.exists());
}

INSTANTIATE_TEST_SUITE_P(
    rows, SharedMemoryServerRows,
    testing::Values(
        OpenRow{ENOENT, 19}, OpenRow{EACCES, 7, 3}, OpenRow{EEXIST, 12, 4}, OpenRow{EINVAL, 6},
        OpenRow{ENOTSUP, 6}, OpenRow{ENFILE, 0}, OpenRow{EMFILE, 0}, OpenRow{ENOSPC, 15, 7},
        OpenRow{EPIPE, 16}, OpenRow{ENOSYS, 16}, OpenRow{ENAMETOOLONG, 4, 0}, OpenRow{EPERM, 19},
        OpenRow{ENOMEM, 19}, OpenRow{EROFS, 19}));

TEST_F(SharedMemoryServerTest, interruptedCallsAreMadeAgain) {
    Fault const opens(inject_shm_open, EINTR, 1, 3);
    Fault const sizes(inject_ftruncate, EINTR, 1, 2);
    create(4096);
    EXPECT_EQ(4, opens.getCalls());
    EXPECT_EQ(3, sizes.getCalls());
    EXPECT_EQ(4096U, m_shm.getSize());
}

TEST_F(SharedMemoryServerTest, nameThatIsNoneOpensNothing) {
    struct {
        char const* name;
        int id;
        char const* text;
    } const rows[] = {
        {nullptr, 5, "null ptr. or zero size turned in"},
        {"/vesk", 5, "path separator found in IPC name"},
        {"ve/sk", 5, "path separator found in IPC name"},
    };
    Fault const calls(inject_shm_open, 0);
    Fault const unlinks(inject_shm_unlink, 0);
    m_shm.setUnlinkOnClose(true);
    for (auto const& row : rows) {
        EXPECT_TRUE(m_shm.create(row.name, 4096, Creatable::REPLACE));
        EXPECT_TRUE(chainIs({{CommonError, row.id, rowText(CommonError, row.id, row.text)}}));
        EXPECT_STREQ("", m_shm.getName());
        EXPECT_FALSE(m_shm.close());
        EXPECT_TRUE(SharedMemoryServer::deleteName(row.name));
        EXPECT_TRUE(chainIs({{CommonError, row.id, rowText(CommonError, row.id, row.text)}}));
    }
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(0, unlinks.getCalls());
}

TEST_F(SharedMemoryServerTest, nameHas254CharactersAtMost) {
    std::string end(254, 'n');
    end.erase(0, std::string(ShmName().get()).size());
    ShmName const longest(end);
    ASSERT_EQ(254U, strlen(longest.get()));
    EXPECT_FALSE(m_shm.create(longest.get(), 4096, Creatable::CREATE_NEW));
    EXPECT_TRUE(longest.exists());
    EXPECT_EQ(longest.getSystemName(), m_shm.getName());
    ShmName const too_long(end + "n");
    EXPECT_TRUE(m_shm.create(too_long.get(), 4096, Creatable::CREATE_NEW));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::UNSUPPORTED_VALUE,
          rowText(CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long")}}));
    EXPECT_TRUE(SharedMemoryServer::deleteName(too_long.get()));
    EXPECT_TRUE(chainIs({{CommonErrorId::UNSUPPORTED_VALUE}}));
}

TEST_F(SharedMemoryServerTest, emptyNameIsOneThatTheSystemRefuses) {
    EXPECT_TRUE(m_shm.create("", 4096, Creatable::CREATE_NEW));
    EXPECT_TRUE(failureIs(EINVAL, 6));
    EXPECT_EQ("/", s_shm_calls.name);
    EXPECT_FALSE(m_shm.isValid());
}

TEST_F(SharedMemoryServerTest, withoutTheRightToWriteOthersNamesNothingIsTaken) {
    VESK_SKIP_UNLESS_ROOT();
    m_name.make("old");
    support::expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        for (Strategy const strategy : {Creatable::OPEN_OR_CREATE, Creatable::TRUNCATE}) {
            EXPECT_TRUE(m_shm.create(m_name.get(), 4096, strategy));
            EXPECT_TRUE(failureIs(EACCES, 7, 3, m_name.getSystemName()));
        }
        EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::REPLACE));
        EXPECT_TRUE(removalFailureIs(EACCES, m_name.getSystemName()));
        EXPECT_TRUE(SharedMemoryServer::deleteName(m_name.get()));
        EXPECT_TRUE(removalFailureIs(EACCES, m_name.getSystemName()));
        EXPECT_FALSE(m_shm.isValid());
    });
    EXPECT_EQ("old", m_name.read(3));
}

// ---- the size ----

struct SizeRow {
    int error;
    int id;
};

void PrintTo(SizeRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class SharedMemoryServerSize : public SharedMemoryServerTest, public testing::WithParamInterface<SizeRow> {};

TEST_P(SharedMemoryServerSize, failureClosesTheMemoryAgain) {
    support::EventRecorder const events;
    Fault const fault(inject_ftruncate, GetParam().error);
    EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_TRUE(m_name.exists()) << "the name stays, as it does after any close";
    EXPECT_EQ("", events.getText());
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_FALSE(m_name.exists());
}

TEST_P(SharedMemoryServerSize, failureRemovesANameThatGoesWithClose) {
    m_shm.setUnlinkOnClose(true);
    Fault const fault(inject_ftruncate, GetParam().error);
    EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_FALSE(m_name.exists());
    EXPECT_STREQ("", m_shm.getName());
}

TEST_P(SharedMemoryServerSize, failureWithOneOfCloseOnTopIsWarnedOf) {
    support::EventRecorder const events;
    Fault const fault(inject_ftruncate, GetParam().error);
    {
        Fault const closing(inject_close, EIO);
        EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
    }
    EXPECT_EQ(CREATE_WARNING, events.getText());
    EXPECT_TRUE(chainIs(
        {{SysError, GetParam().id, rowText(SysError, GetParam().id, systemText(GetParam().error))},
         {SysError, SysErrorId::SPOILED_INTEGRITY,
          rowText(SysErrorId::SPOILED_INTEGRITY, systemText(EIO))}}));
    EXPECT_TRUE(m_shm.isValid());
    EXPECT_FALSE(m_shm.close());
}

INSTANTIATE_TEST_SUITE_P(
    rows, SharedMemoryServerSize,
    testing::Values(
        SizeRow{EINVAL, 8}, SizeRow{EFBIG, 8}, SizeRow{EIO, 10}, SizeRow{EPERM, 10}, SizeRow{EBADF, 10}));

TEST_F(SharedMemoryServerTest, nameThatCannotBeRemovedAfterAFailedSizeIsWarnedOf) {
    support::EventRecorder const events;
    m_shm.setUnlinkOnClose(true);
    Fault const fault(inject_ftruncate, EFBIG);
    Fault const unlinking(inject_shm_unlink, EIO);
    EXPECT_TRUE(m_shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
    EXPECT_EQ(CREATE_WARNING, events.getText());
    EXPECT_TRUE(removalFailureIs(EIO, m_name.getSystemName()));
    EXPECT_FALSE(m_shm.isValid());
}

TEST_F(SharedMemoryServerTest, sizeBeyond2GibIsRefused) {
    for (unsigned int const size : {0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_TRUE(m_shm.create(m_name.get(), size, Creatable::REPLACE));
        EXPECT_TRUE(failureIs(EINVAL, 8));
        EXPECT_LT(s_shm_calls.length, 0);
        EXPECT_FALSE(m_shm.isValid());
    }
    create(0x7FFFFFFF, Creatable::REPLACE);
    EXPECT_EQ(0x7FFFFFFFU, m_shm.getSize());
}

// ---- create on an open object ----

TEST_F(SharedMemoryServerTest, createClosesWhatIsOpenFirst) {
    ShmName const other("other");
    m_shm.setUnlinkOnClose(true);
    create();
    EXPECT_TRUE(m_shm.addMapping(READ_WRITE, 4096).isValid());
    int const fd = m_shm.getDescriptor();
    EXPECT_FALSE(m_shm.create(other.get(), 8192, Creatable::CREATE_NEW));
    EXPECT_FALSE(m_name.exists()) << "close removed it";
    EXPECT_EQ(0U, mappedBytes(m_name.get() + std::string(" "))) << "and took the mapping down";
    EXPECT_EQ(0U, mappedBytes(m_name.get()));
    EXPECT_EQ(fd, m_shm.getDescriptor()) << "the lowest number is free again";
    EXPECT_EQ(other.getSystemName(), m_shm.getName());
}

TEST_F(SharedMemoryServerTest, createStopsWhenTheOldMemoryCannotBeClosed) {
    ShmName const other("other");
    create();
    int const fd = m_shm.getDescriptor();
    Fault const fault(inject_close, EIO);
    Fault const opens(inject_shm_open, 0);
    EXPECT_TRUE(m_shm.create(other.get(), 8192, Creatable::CREATE_NEW));
    EXPECT_TRUE(failureIs(EIO, 10));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_EQ(fd, m_shm.getDescriptor());
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
}

// ---- the name ----

TEST_F(SharedMemoryServerTest, deleteNameOfAnObjectWithoutOneDoesNothing) {
    Fault const calls(inject_shm_unlink, 0);
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(SharedMemoryServerTest, deleteNameRemovesTheNameOnce) {
    create();
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_FALSE(m_name.exists());
    EXPECT_STREQ("", m_shm.getName());
    EXPECT_TRUE(m_shm.isValid()) << "the memory stays";
    Fault const calls(inject_shm_unlink, 0);
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(SharedMemoryServerTest, nameThatIsGoneAlreadyNeedNotBeRemoved) {
    create();
    ASSERT_EQ(0, shm_unlink(m_name.getSystemName().c_str()));
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_STREQ("", m_shm.getName());
    EXPECT_FALSE(SharedMemoryServer::deleteName(m_name.get()));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedMemoryServerTest, deleteNameOfAnyNameRemovesIt) {
    m_name.make();
    EXPECT_FALSE(SharedMemoryServer::deleteName(m_name.get()));
    EXPECT_FALSE(m_name.exists());
}

class SharedMemoryServerRemoval : public SharedMemoryServerTest, public testing::WithParamInterface<int> {};

TEST_P(SharedMemoryServerRemoval, failureIsReportedInOneChainAndKeepsTheName) {
    create();
    std::ErrorOutput("file", 1, true)(CommonErrorId::CONTRACT_BROKEN, "an older chain, which is given up");
    Fault const fault(inject_shm_unlink, GetParam(), 1, 2);
    EXPECT_TRUE(m_shm.deleteName());
    EXPECT_TRUE(removalFailureIs(GetParam(), m_name.getSystemName()));
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
    EXPECT_TRUE(SharedMemoryServer::deleteName(m_name.get()));
    EXPECT_TRUE(removalFailureIs(GetParam(), m_name.getSystemName()));
    EXPECT_EQ(2, fault.getCalls()) << "nothing is repeated";
    EXPECT_TRUE(m_name.exists());
}

INSTANTIATE_TEST_SUITE_P(
    errors, SharedMemoryServerRemoval, testing::Values(EACCES, EPERM, EIO, EINTR, ENAMETOOLONG, EINVAL));

// ---- close ----

TEST_F(SharedMemoryServerTest, closeLeavesTheNameUnlessItIsToRemoveIt) {
    create();
    EXPECT_FALSE(m_shm.close());
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_TRUE(m_name.exists());
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
    m_shm.setUnlinkOnClose(true);
    EXPECT_FALSE(m_shm.close()) << "the object is closed, its name is not gone";
    EXPECT_FALSE(m_name.exists());
    EXPECT_STREQ("", m_shm.getName());
}

TEST_F(SharedMemoryServerTest, closeRemovesTheNameOnRequest) {
    m_shm.setUnlinkOnClose(true);
    create();
    EXPECT_TRUE(m_shm.addMapping(READ_WRITE, 4096).isValid());
    EXPECT_FALSE(m_shm.close());
    EXPECT_FALSE(m_name.exists());
    EXPECT_EQ(0U, mappedBytes(m_name.get()));
    EXPECT_FALSE(m_shm.close());
}

TEST_F(SharedMemoryServerTest, closeFailsWithTheNameAndClosesAllTheSame) {
    m_shm.setUnlinkOnClose(true);
    create();
    Fault const fault(inject_shm_unlink, EIO);
    EXPECT_TRUE(m_shm.close());
    EXPECT_TRUE(removalFailureIs(EIO, m_name.getSystemName()));
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_TRUE(m_name.exists());
}

TEST_F(SharedMemoryServerTest, closeThatFailsTwiceReportsOneOnTopOfTheOther) {
    m_shm.setUnlinkOnClose(true);
    create();
    {
        Fault const unlinking(inject_shm_unlink, EIO);
        Fault const closing(inject_close, ENOSPC);
        EXPECT_TRUE(m_shm.close());
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, systemText(EIO))},
         {FileAccessError, FileAccessErrorId::UNCLASSIFIED,
          rowText(FileAccessErrorId::UNCLASSIFIED, m_name.getSystemName())},
         {SysError, SysErrorId::SPOILED_INTEGRITY,
          rowText(SysErrorId::SPOILED_INTEGRITY, systemText(ENOSPC))}}));
    EXPECT_TRUE(m_shm.isValid());
}

// ---- the destructor ----

TEST_F(SharedMemoryServerTest, destructorRemovesTheNameOnRequest) {
    for (bool const unlinks : {false, true}) {
        int fd = -1;
        {
            SharedMemoryServer shm;
            shm.setUnlinkOnClose(unlinks);
            ASSERT_FALSE(shm.create(m_name.get(), 4096, Creatable::REPLACE));
            EXPECT_TRUE(shm.addMapping(READ_WRITE, 4096).isValid());
            fd = shm.getDescriptor();
        }
        EXPECT_FALSE(isOpen(fd));
        EXPECT_EQ(0U, mappedBytes(m_name.get()));
        EXPECT_EQ(!unlinks, m_name.exists());
    }
}

TEST_F(SharedMemoryServerTest, destructorOfAClosedObjectRemovesNoName) {
    {
        SharedMemoryServer shm;
        ASSERT_FALSE(shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
        EXPECT_FALSE(shm.close());
        shm.setUnlinkOnClose(true);
    }
    EXPECT_TRUE(m_name.exists());
}

TEST_F(SharedMemoryServerTest, destructorWarnsOfAFailure) {
    support::EventRecorder const events;
    {
        SharedMemoryServer shm;
        shm.setUnlinkOnClose(true);
        ASSERT_FALSE(shm.create(m_name.get(), 4096, Creatable::CREATE_NEW));
        Fault const fault(inject_shm_unlink, EIO);
        shm.~SharedMemoryServer();
        EXPECT_EQ(1, fault.getCalls());
        new (&shm) SharedMemoryServer;
    }
    EXPECT_EQ(SERVER_WARNING, events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_TRUE(m_name.exists());
}

TEST_F(SharedMemoryServerTest, destructorsOfBothLevelsTryToCloseWhatStaysOpen) {
    support::EventRecorder const events;
    auto* const shm = new SharedMemoryServer;
    ASSERT_FALSE(shm->create(m_name.get(), 4096, Creatable::CREATE_NEW));
    int const fd = shm->getDescriptor();
    {
        Fault const fault(inject_close, EIO, 1, 2);
        delete shm;
        EXPECT_EQ(2, fault.getCalls());
    }
    EXPECT_EQ(std::string(SERVER_WARNING) + "\n" + BASE_WARNING, events.getText());
    EXPECT_TRUE(chainIs({}));
    close(fd);
}

} // namespace
