#include "support/EventRecorder.h"
#include "support/Privileges.h"
#include "support/calls/ShmCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/SharedMemoryClient.h>

#include <ostream>
#include <string>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::failureIs;
using support::Fault;
using support::mappedBytes;
using support::OpenRow;
using support::rowText;
using support::s_shm_calls;
using support::ShmName;
using vesk::FileAccessError;
using vesk::MemMapping;
using vesk::SharedMemoryBase;
using vesk::SharedMemoryClient;
using vesk::SysError;

using MemAccessFlags = MemMapping::MemAccessFlags;

static_assert(std::is_base_of_v<SharedMemoryBase, SharedMemoryClient>);
static_assert(sizeof(SharedMemoryClient) == sizeof(SharedMemoryBase));

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;

class SharedMemoryClientTest : public testing::Test {
protected:
    SharedMemoryClientTest() { m_name.make("abc" + std::string(4093, '\0')); }

    ShmName m_name;
    SharedMemoryClient m_shm;
};

struct FlagRow {
    unsigned int word;
    int system_flags;
};

void PrintTo(FlagRow const& row, std::ostream* out) {
    *out << "0x" << std::hex << row.word << std::dec;
}

class SharedMemoryClientFlags : public SharedMemoryClientTest, public testing::WithParamInterface<FlagRow> {};

TEST_P(SharedMemoryClientFlags, onlyTheWriteBitDecidesOnTheDirections) {
    EXPECT_FALSE(m_shm.attach(m_name.get(), MemAccessFlags(GetParam().word)));
    EXPECT_EQ(GetParam().system_flags, s_shm_calls.flags);
    EXPECT_EQ(0U, s_shm_calls.mode);
    EXPECT_EQ(m_name.getSystemName(), s_shm_calls.name);
    EXPECT_EQ(GetParam().system_flags, fcntl(m_shm.getDescriptor(), F_GETFL) & O_ACCMODE);
}

INSTANTIATE_TEST_SUITE_P(
    rows, SharedMemoryClientFlags,
    testing::Values(
        FlagRow{0, O_RDONLY}, FlagRow{1, O_RDONLY}, FlagRow{4, O_RDONLY}, FlagRow{5, O_RDONLY},
        FlagRow{2, O_RDWR}, FlagRow{3, O_RDWR}, FlagRow{7, O_RDWR}, FlagRow{0xFFFFFFFD, O_RDONLY},
        FlagRow{0xFFFFFFFF, O_RDWR}));

TEST_F(SharedMemoryClientTest, withOnlyTheReadBitNothingCanBeWritten) {
    EXPECT_FALSE(m_shm.attach(m_name.get(), MemMapping::READ));
    EXPECT_EQ(4096U, m_shm.getSize());
    MemMapping const reads = m_shm.addMapping(MemMapping::READ, 4096);
    ASSERT_TRUE(reads.isValid());
    EXPECT_EQ('b', static_cast<char*>(reads.getAddress())[1]);
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, 4096).isValid());
    EXPECT_TRUE(failureIs(EACCES, 7));
}

TEST_F(SharedMemoryClientTest, withOnlyTheWriteBitItCanBeReadToo) {
    EXPECT_FALSE(m_shm.attach(m_name.get(), MemMapping::WRITE));
    MemMapping const mapping = m_shm.addMapping(READ_WRITE, 4096);
    ASSERT_TRUE(mapping.isValid());
    auto* const bytes = static_cast<char*>(mapping.getAddress());
    EXPECT_EQ('a', bytes[0]);
    bytes[0] = 'X';
    EXPECT_EQ("Xbc", m_name.read(3));
}

TEST_F(SharedMemoryClientTest, ringOfSharedMemoryWraps) {
    EXPECT_FALSE(m_shm.attach(m_name.get(), READ_WRITE));
    MemMapping const ring = m_shm.addMapping(READ_WRITE, 4096, 0, nullptr, true);
    ASSERT_TRUE(ring.isValid());
    EXPECT_EQ('c', static_cast<char*>(ring.getAddress())[4098]);
    EXPECT_FALSE(m_shm.close());
    EXPECT_EQ(0U, mappedBytes(m_name.get())) << "both halves";
}

TEST_F(SharedMemoryClientTest, nameThatDoesNotExistFails) {
    ShmName const missing("missing");
    EXPECT_TRUE(m_shm.attach(missing.get(), READ_WRITE));
    EXPECT_TRUE(failureIs(ENOENT, 2, 0, missing.getSystemName()));
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_FALSE(missing.exists()) << "a client makes nothing";
}

TEST_F(SharedMemoryClientTest, memoryOfOthersIsDenied) {
    VESK_SKIP_UNLESS_ROOT();
    support::expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        for (auto const flags : {MemMapping::READ, MemMapping::WRITE}) {
            EXPECT_TRUE(m_shm.attach(m_name.get(), flags));
            EXPECT_TRUE(failureIs(EACCES, 7, 3, m_name.getSystemName()));
            EXPECT_FALSE(m_shm.isValid());
        }
    });
}

TEST_F(SharedMemoryClientTest, nameThatIsNoneOpensNothing) {
    Fault const calls(inject_shm_open, 0);
    EXPECT_TRUE(m_shm.attach(nullptr, READ_WRITE));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::INVALID_ARGUMENT,
          rowText(CommonErrorId::INVALID_ARGUMENT, "null ptr. or zero size turned in")}}));
    EXPECT_TRUE(m_shm.attach(m_name.getSystemName().c_str(), READ_WRITE));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::INVALID_ARGUMENT,
          rowText(CommonErrorId::INVALID_ARGUMENT, "path separator found in IPC name")}}));
    EXPECT_TRUE(m_shm.attach(std::string(255, 'x').c_str(), READ_WRITE));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::UNSUPPORTED_VALUE,
          rowText(CommonErrorId::UNSUPPORTED_VALUE, "given IPC name is too long")}}));
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_TRUE(m_shm.attach("", READ_WRITE));
    EXPECT_TRUE(failureIs(EINVAL, 6));
}

class SharedMemoryClientRows : public SharedMemoryClientTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(SharedMemoryClientRows, failureToAttachIsReported) {
    Fault const fault(inject_shm_open, GetParam().error);
    EXPECT_TRUE(m_shm.attach(m_name.get(), READ_WRITE));
    EXPECT_TRUE(failureIs(GetParam(), m_name.getSystemName()));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_FALSE(m_shm.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    rows, SharedMemoryClientRows,
    testing::Values(
        OpenRow{ENOENT, 2, 0}, OpenRow{EACCES, 7, 3}, OpenRow{EEXIST, 19}, OpenRow{EINVAL, 6},
        OpenRow{ENOTSUP, 6}, OpenRow{ENFILE, 0}, OpenRow{EMFILE, 0}, OpenRow{ENOSPC, 19}, OpenRow{EPIPE, 19},
        OpenRow{ENOSYS, 19}, OpenRow{ENAMETOOLONG, 4, 0}, OpenRow{EPERM, 19}, OpenRow{ENOMEM, 19}));

TEST_F(SharedMemoryClientTest, interruptedAttachIsMadeAgain) {
    Fault const fault(inject_shm_open, EINTR, 1, 3);
    EXPECT_FALSE(m_shm.attach(m_name.get(), READ_WRITE));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(m_shm.isValid());
}

TEST_F(SharedMemoryClientTest, attachClosesWhatIsOpenFirst) {
    ShmName const other("other");
    other.make("xyz");
    EXPECT_FALSE(m_shm.attach(m_name.get(), READ_WRITE));
    int const fd = m_shm.getDescriptor();
    EXPECT_TRUE(m_shm.addMapping(READ_WRITE, 4096).isValid());
    EXPECT_FALSE(m_shm.attach(other.get(), READ_WRITE));
    EXPECT_EQ(fd, m_shm.getDescriptor()) << "the lowest number is free again";
    EXPECT_EQ(0U, mappedBytes(m_name.get()));
    EXPECT_EQ(3U, m_shm.getSize());
    EXPECT_TRUE(m_name.exists()) << "a client removes no name";
}

TEST_F(SharedMemoryClientTest, attachThatFailsLeavesTheObjectClosed) {
    EXPECT_FALSE(m_shm.attach(m_name.get(), READ_WRITE));
    EXPECT_TRUE(m_shm.attach(nullptr, READ_WRITE));
    EXPECT_FALSE(m_shm.isValid());
    std::ErrorStorage::ack();
}

TEST_F(SharedMemoryClientTest, attachStopsWhenTheOldMemoryCannotBeClosed) {
    EXPECT_FALSE(m_shm.attach(m_name.get(), READ_WRITE));
    int const fd = m_shm.getDescriptor();
    Fault const fault(inject_close, EIO);
    Fault const opens(inject_shm_open, 0);
    EXPECT_TRUE(m_shm.attach(m_name.get(), READ_WRITE));
    EXPECT_TRUE(failureIs(EIO, 10));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_EQ(fd, m_shm.getDescriptor());
}

TEST_F(SharedMemoryClientTest, destructorClosesAndKeepsTheName) {
    {
        SharedMemoryClient shm;
        EXPECT_FALSE(shm.attach(m_name.get(), READ_WRITE));
        EXPECT_TRUE(shm.addMapping(READ_WRITE, 4096).isValid());
    }
    EXPECT_EQ(0U, mappedBytes(m_name.get()));
    EXPECT_TRUE(m_name.exists());
}

TEST_F(SharedMemoryClientTest, destructorWarnsOfAFailure) {
    support::EventRecorder const events;
    {
        SharedMemoryClient shm;
        EXPECT_FALSE(shm.attach(m_name.get(), READ_WRITE));
        close(shm.getDescriptor());
    }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/SharedMemoryBase ~SharedMemoryBase: Error closing SharedMemory",
        events.getText());
    EXPECT_TRUE(chainIs({}));
}

} // namespace
