#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"
#include "support/calls/ShmCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <vesk/SharedMemoryBase.h>
#include <vesk/Vesk.h>

#include <map>
#include <new>
#include <ostream>
#include <string>
#include <sys/socket.h>
#include <type_traits>
#include <vector>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::accessAt;
using support::chainIs;
using support::failureIs;
using support::Fault;
using support::isOpen;
using support::MapCalls;
using support::mappedBytes;
using support::rowText;
using support::systemText;
using support::TempFolder;
using vesk::MemMapping;
using vesk::SharedMemoryBase;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::Vesk;

static_assert(
    !std::is_copy_constructible_v<SharedMemoryBase> && !std::is_copy_assignable_v<SharedMemoryBase>);
static_assert(std::has_virtual_destructor_v<SharedMemoryBase>);

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;

/// Takes any descriptor, and shows what only deriving classes see.
class Memory : public SharedMemoryBase {
public:
    Memory() = default;
    explicit Memory(int fd) { descriptor = fd; }

    size_t getMappingCount() const { return mappings.size(); }
    bool has(MemMapping const& mapping) const { return mappings.count(mapping.getAddress()) == 1; }
};

class SharedMemoryBaseTest : public testing::Test {
protected:
    SharedMemoryBaseTest()
        : m_page(Vesk::s_sys_info.page_size),
          m_path(m_folder.makeFile("object", std::string(4 * m_page, 'a'))),
          m_shm(openObject()) {}

    int openObject() const { return open(m_path.c_str(), O_RDWR | O_CLOEXEC); }

    MemMapping add(Memory& shm, unsigned int offset = 0) const {
        MemMapping const mapping = shm.addMapping(READ_WRITE, m_page, offset);
        EXPECT_TRUE(mapping.isValid());
        return mapping;
    }

    TempFolder m_folder;
    unsigned int m_page;
    std::string m_path;
    Memory m_shm;
};

TEST_F(SharedMemoryBaseTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(2, support::getSlot(&SharedMemoryBase::close)) << "behind the two destructors";
}

// ---- mappings ----

TEST_F(SharedMemoryBaseTest, keepsTheMappingsThatItMakes) {
    MemMapping const first = add(m_shm);
    MemMapping const second = m_shm.addMapping(MemMapping::READ, 2 * m_page, m_page);
    MemMapping const ring = m_shm.addMapping(READ_WRITE, m_page, 0, nullptr, true);
    EXPECT_EQ(3U, m_shm.getMappingCount());
    EXPECT_TRUE(m_shm.has(first) && m_shm.has(second) && m_shm.has(ring));
    EXPECT_EQ(2 * m_page, second.getSize());
    EXPECT_EQ(m_page, second.getOffset());
    EXPECT_EQ("r--s", accessAt(second.getAddress()));
    EXPECT_EQ(2 * m_page, ring.getSize());
    EXPECT_EQ(size_t{5} * m_page, mappedBytes(m_path));
}

TEST_F(SharedMemoryBaseTest, mappingThatFailsIsNotKept) {
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, 0).isValid());
    EXPECT_TRUE(failureIs(EINVAL, 8));
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, m_page + 1, 0, nullptr, true).isValid());
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
    EXPECT_EQ(0U, m_shm.getMappingCount());
}

TEST_F(SharedMemoryBaseTest, ringWhoseHalfFailsIsNotKeptAndLeavesItsRange) {
#if defined(__arm__)
    GTEST_SKIP() << "QEMU's user mode lists ranges of its own in /proc/self/maps";
#endif
    MapCalls const calls;
    Fault const fault(inject_mmap, ENOMEM, 3);
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, m_page, 0, nullptr, true).isValid());
    EXPECT_TRUE(failureIs(ENOMEM, 1));
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_FALSE(m_shm.close());
    void* const base = calls.get()[0].result;
    EXPECT_EQ("---p", accessAt(base));
    EXPECT_EQ(0, munmap(base, size_t{2} * m_page));
}

TEST_F(SharedMemoryBaseTest, closedObjectMapsNothing) {
    Memory shm;
    MapCalls const calls;
    EXPECT_FALSE(shm.addMapping(READ_WRITE, m_page).isValid());
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_FALSE(shm.addMapping(READ_WRITE, m_page, 0, nullptr, true).isValid());
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_EQ(0U, shm.getMappingCount());
    ASSERT_EQ(3U, calls.get().size());
    EXPECT_EQ(0, munmap(calls.get()[1].result, calls.get()[1].length));
}

TEST_F(SharedMemoryBaseTest, mappingWithoutMemoryForItsEntryIsTakenDownAgain) {
    {
        support::NewFault const fault(support::New::SINGLE);
        EXPECT_THROW(m_shm.addMapping(READ_WRITE, m_page), std::bad_alloc);
    }
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ(0U, mappedBytes(m_path));
}

TEST_F(SharedMemoryBaseTest, addressThatWasGivenUpElsewhereIsThatOfTheNewMapping) {
    MemMapping copy = m_shm.addMapping(READ_WRITE, 3 * m_page);
    void* const address = copy.getAddress();
    EXPECT_FALSE(copy.destroy());
    MemMapping const second = m_shm.addMapping(READ_WRITE, m_page, 0, address);
    ASSERT_EQ(address, second.getAddress());
    EXPECT_EQ(1U, m_shm.getMappingCount());
    MapCalls const calls;
    EXPECT_FALSE(m_shm.removeMapping(second));
    ASSERT_EQ(1U, calls.get().size());
    EXPECT_EQ(m_page, calls.get()[0].length) << "what lies behind it now is not its own";
}

TEST_F(SharedMemoryBaseTest, removedMappingIsTakenDown) {
    MemMapping const first = add(m_shm);
    MemMapping const second = add(m_shm, m_page);
    EXPECT_FALSE(m_shm.removeMapping(first));
    EXPECT_EQ("", accessAt(first.getAddress()));
    EXPECT_EQ("rw-s", accessAt(second.getAddress()));
    EXPECT_EQ(1U, m_shm.getMappingCount());
    EXPECT_TRUE(m_shm.has(second));
}

TEST_F(SharedMemoryBaseTest, mappingThatIsNotRegisteredIsNotRemoved) {
    Memory other(openObject());
    MemMapping const foreign = add(other);
    MemMapping const gone = add(m_shm);
    EXPECT_FALSE(m_shm.removeMapping(gone));
    MemMapping const failed = m_shm.addMapping(READ_WRITE, 0);
    std::ErrorStorage::ack();
    MemMapping own(m_shm.getDescriptor(), READ_WRITE, m_page);
    Fault const calls(inject_munmap, 0);
    for (MemMapping const* const mapping : {&foreign, &gone, &failed, &static_cast<MemMapping const&>(own)}) {
        EXPECT_TRUE(m_shm.removeMapping(*mapping));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::CONTRACT_BROKEN,
              rowText(
                  CommonErrorId::CONTRACT_BROKEN, "Attempt to remove a mapping that isn't registered")}}));
    }
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ("rw-s", accessAt(foreign.getAddress()));
    EXPECT_FALSE(own.destroy());
}

TEST_F(SharedMemoryBaseTest, mappingThatCannotBeTakenDownIsGivenUpAllTheSame) {
    MemMapping mapping = add(m_shm);
    {
        Fault const fault(inject_munmap, ENOMEM);
        EXPECT_TRUE(m_shm.removeMapping(mapping));
    }
    EXPECT_TRUE(failureIs(ENOMEM, 10));
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ("rw-s", accessAt(mapping.getAddress()));
    EXPECT_FALSE(mapping.destroy());
}

// ---- close ----

TEST_F(SharedMemoryBaseTest, closeOfAClosedObjectDoesNothing) {
    EXPECT_FALSE(m_shm.close());
    EXPECT_FALSE(m_shm.isValid());
    Fault const calls(inject_close, 0);
    EXPECT_FALSE(m_shm.close());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(SharedMemoryBaseTest, closeTakesEveryMappingDown) {
    add(m_shm);
    add(m_shm, m_page);
    m_shm.addMapping(READ_WRITE, 2 * m_page, 0, nullptr, true);
    int const fd = m_shm.getDescriptor();
    EXPECT_FALSE(m_shm.close());
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ(-1, m_shm.getDescriptor());
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(SharedMemoryBaseTest, closeGoesOnBehindAMappingThatFails) {
    add(m_shm);
    add(m_shm, m_page);
    add(m_shm, 2 * m_page);
    MapCalls const calls;
    {
        Fault const fault(inject_munmap, ENOMEM, 2);
        EXPECT_TRUE(m_shm.close());
    }
    EXPECT_TRUE(failureIs(ENOMEM, 10));
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ(m_page, mappedBytes(m_path)) << "the one that failed";
    ASSERT_EQ(3U, calls.get().size());
    EXPECT_LT(calls.get()[0].address, calls.get()[1].address);
    EXPECT_LT(calls.get()[1].address, calls.get()[2].address);
    EXPECT_EQ(0, munmap(calls.get()[1].address, m_page));
}

TEST_F(SharedMemoryBaseTest, interruptedCloseIsMadeAgain) {
    Fault const fault(inject_close, EINTR, 1, 3);
    EXPECT_FALSE(m_shm.close());
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedMemoryBaseTest, descriptorThatIsNotOpenAnyMoreCountsAsClosed) {
    close(m_shm.getDescriptor());
    EXPECT_TRUE(m_shm.close());
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_FALSE(m_shm.isValid());
}

class SharedMemoryBaseClose : public SharedMemoryBaseTest, public testing::WithParamInterface<int> {};

TEST_P(SharedMemoryBaseClose, otherFailureLeavesTheObjectOpenWithoutMappings) {
    add(m_shm);
    int const fd = m_shm.getDescriptor();
    {
        Fault const fault(inject_close, GetParam());
        EXPECT_TRUE(m_shm.close());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(failureIs(GetParam(), 10));
    EXPECT_EQ(fd, m_shm.getDescriptor());
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_FALSE(m_shm.close());
}

TEST_P(SharedMemoryBaseClose, failureStandsOnTopOfWhatIsPending) {
    MemMapping mapping = add(m_shm);
    Fault const unmapping(inject_munmap, ENOMEM);
    {
        Fault const fault(inject_close, GetParam());
        EXPECT_TRUE(m_shm.close());
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::SPOILED_INTEGRITY, rowText(SysErrorId::SPOILED_INTEGRITY, systemText(ENOMEM))},
         {SysError, SysErrorId::SPOILED_INTEGRITY,
          rowText(SysErrorId::SPOILED_INTEGRITY, systemText(GetParam()))}}));
    EXPECT_FALSE(mapping.destroy());
}

INSTANTIATE_TEST_SUITE_P(errors, SharedMemoryBaseClose, testing::Values(EIO, ENOSPC, EDQUOT));

TEST_F(SharedMemoryBaseTest, destructorClosesAndWarnsOfAFailure) {
    support::EventRecorder const events;
    int const fd = openObject();
    {
        Memory shm(fd);
        add(shm);
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_EQ("", events.getText());
    { Memory const shm(fd); }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/SharedMemoryBase ~SharedMemoryBase: Error closing SharedMemory",
        events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    { Memory const shm; }
    EXPECT_EQ(1U, events.getCount());
}

// ---- getSize ----

TEST_F(SharedMemoryBaseTest, tellsTheSize) {
    EXPECT_EQ(4 * m_page, m_shm.getSize());
    ASSERT_EQ(0, ftruncate(m_shm.getDescriptor(), 12345));
    EXPECT_EQ(12345U, m_shm.getSize());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(SharedMemoryBaseTest, sizeOfAClosedObjectIsAnError) {
    EXPECT_FALSE(m_shm.close());
    Fault const calls(inject_fstat, 0);
    EXPECT_EQ(0U, m_shm.getSize());
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "size of invalid SHM object requested")}}));
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(SharedMemoryBaseTest, sizeThatTheSystemDoesNotTellIsZeroWithoutAReport) {
    for (int const error : {EBADF, EIO, EOVERFLOW, EINTR}) {
        Fault const fault(inject_fstat, error);
        EXPECT_EQ(0U, m_shm.getSize());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(SharedMemoryBaseTest, onlyWhatHasTheModeOfAFileOrOfASymbolicLinkHasASize) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    int const link = open(
        m_folder.makeLink("link", "a target of 29 characters, no").c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct {
        char const* what;
        int fd;
        unsigned int size;
    } const rows[] = {
        {"a directory", open(m_folder.getPath().c_str(), O_RDONLY | O_CLOEXEC), 0},
        {"a pipe", ends[0], 0},
        {"the other end", ends[1], 0},
        {"a device", open("/dev/null", O_RDONLY | O_CLOEXEC), 0},
        {"a socket", socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), 0},
        {"a link", link, 29},
    };
    for (auto const& row : rows) {
        Memory const shm(row.fd);
        EXPECT_EQ(row.size, shm.getSize()) << row.what;
        EXPECT_TRUE(chainIs({})) << row.what;
    }
}

#if defined(__LP64__)
TEST_F(SharedMemoryBaseTest, sizeThatA32BitSystemCouldNotTellIsZero) {
    ASSERT_EQ(0, ftruncate(m_shm.getDescriptor(), 0x7FFFFFFF));
    EXPECT_EQ(0x7FFFFFFFU, m_shm.getSize());
    ASSERT_EQ(0, ftruncate(m_shm.getDescriptor(), 0x80000000));
    EXPECT_EQ(0U, m_shm.getSize());
    ASSERT_EQ(0, ftruncate(m_shm.getDescriptor(), 0x100001000));
    EXPECT_EQ(0U, m_shm.getSize());
    EXPECT_TRUE(chainIs({}));
}
#endif

} // namespace
