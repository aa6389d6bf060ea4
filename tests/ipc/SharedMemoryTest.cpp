#include "IpcSupport.h"
#include "support/Emulation.h"
#include "support/NewFault.h"
#include "support/Processes.h"
#include "support/TempFolder.h"
#include "support/calls/MapCalls.h"

#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/Vesk.h>

#include <sys/socket.h>

namespace {

using namespace support;
using namespace vesk;
using Strategy = Creatable::CreationStrategy;

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;
constexpr auto UNKNOWN = static_cast<Strategy>(99);

testing::AssertionResult isMisuse(char const* text) {
    return chainIs({reportOf(CommonErrorId::CONTRACT_BROKEN, text)});
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Uses any descriptor, and shows the protected members.
class Memory : public SharedMemoryBase {
public:
    Memory() = default;
    explicit Memory(int fd) { descriptor = fd; }

    size_t getMappingCount() const { return mappings.size(); }
    bool has(MemMapping const& mapping) const { return mappings.count(mapping.getAddress()) == 1; }
};

/// Memory of four pages in a file.
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

// ---- mappings ----

TEST_F(SharedMemoryBaseTest, registersItsMappingsAndUnmapsThemWhenTheyAreRemovedOrItIsClosed) {
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
    EXPECT_FALSE(m_shm.removeMapping(first));
    EXPECT_NE("rw-s", accessAt(first.getAddress()));
    EXPECT_EQ("r--s", accessAt(second.getAddress()));
    EXPECT_EQ(2U, m_shm.getMappingCount());
    EXPECT_TRUE(m_shm.has(second) && m_shm.has(ring));
    int const fd = m_shm.getDescriptor();
    EXPECT_FALSE(m_shm.close());
    EXPECT_EQ(0U, mappedBytes(m_path));
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ(-1, m_shm.getDescriptor());
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(SharedMemoryBaseTest, failedMappingIsNotRegistered) {
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, 0).isValid());
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, m_page + 1, 0, nullptr, true).isValid());
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
    {
        NewFault const fault(New::SINGLE);
        EXPECT_THROW(m_shm.addMapping(READ_WRITE, m_page), std::bad_alloc);
    }
    EXPECT_EQ(0U, mappedBytes(m_path)) << "a mapping without memory for its entry is unmapped again";
    EXPECT_EQ(0U, m_shm.getMappingCount());
}

TEST_F(SharedMemoryBaseTest, ringWithAFailedHalfIsNotRegisteredAndLeavesItsRangeReserved) {
    if (IS_EMULATED) {
        GTEST_SKIP() << "QEMU's user mode lists ranges of its own in /proc/self/maps";
    }
    MapCalls const calls;
    Fault const fault(inject_mmap, ENOMEM, 3);
    EXPECT_FALSE(m_shm.addMapping(READ_WRITE, m_page, 0, nullptr, true).isValid());
    EXPECT_TRUE(causeIs(SysErrorId::OUT_OF_MEMORY, ENOMEM));
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_FALSE(m_shm.close());
    void* const base = calls.get()[0].result;
    EXPECT_EQ("---p", accessAt(base));
    EXPECT_EQ(0, munmap(base, size_t{2} * m_page));
}

TEST_F(SharedMemoryBaseTest, closedObjectMapsNothing) {
    Memory shm;
    MapCalls const calls;
    for (bool const ring : {false, true}) {
        EXPECT_FALSE(shm.addMapping(READ_WRITE, m_page, 0, nullptr, ring).isValid()) << ring;
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
    }
    EXPECT_EQ(0U, shm.getMappingCount());
    ASSERT_EQ(3U, calls.get().size());
    EXPECT_EQ(0, munmap(calls.get()[1].result, calls.get()[1].length));
}

TEST_F(SharedMemoryBaseTest, newMappingAtAnAddressThatWasUnmappedElsewhereReplacesTheEntry) {
    MemMapping copy = m_shm.addMapping(READ_WRITE, 3 * m_page);
    void* const address = copy.getAddress();
    EXPECT_FALSE(copy.destroy());
    MemMapping const second = m_shm.addMapping(READ_WRITE, m_page, 0, address);
    ASSERT_EQ(address, second.getAddress());
    EXPECT_EQ(1U, m_shm.getMappingCount());
    MapCalls const calls;
    EXPECT_FALSE(m_shm.removeMapping(second));
    ASSERT_EQ(1U, calls.get().size());
    EXPECT_EQ(m_page, calls.get()[0].length) << "the pages behind it may belong to another mapping";
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
        SCOPED_TRACE(mapping->getAddress());
        EXPECT_TRUE(m_shm.removeMapping(*mapping));
        EXPECT_TRUE(isMisuse("Attempt to remove a mapping that isn't registered"));
    }
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ("rw-s", accessAt(foreign.getAddress()));
    EXPECT_FALSE(own.destroy());
}

TEST_F(SharedMemoryBaseTest, mappingThatCannotBeUnmappedIsNotRegisteredAnyMore) {
    MemMapping mapping = add(m_shm);
    EXPECT_TRUE(failOnce(inject_munmap, ENOMEM, [&] { return m_shm.removeMapping(mapping); }));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ENOMEM));
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ("rw-s", accessAt(mapping.getAddress()));
    EXPECT_FALSE(mapping.destroy());
}

// ---- close ----

TEST_F(SharedMemoryBaseTest, closeContinuesAfterAMappingThatFails) {
    add(m_shm);
    add(m_shm, m_page);
    add(m_shm, 2 * m_page);
    MapCalls const calls;
    {
        Fault const fault(inject_munmap, ENOMEM, 2);
        EXPECT_TRUE(m_shm.close());
    }
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ENOMEM));
    EXPECT_FALSE(m_shm.isValid());
    EXPECT_EQ(0U, m_shm.getMappingCount());
    EXPECT_EQ(m_page, mappedBytes(m_path)) << "the one that failed";
    ASSERT_EQ(3U, calls.get().size());
    EXPECT_LT(calls.get()[0].address, calls.get()[1].address);
    EXPECT_LT(calls.get()[1].address, calls.get()[2].address);
    EXPECT_EQ(0, munmap(calls.get()[1].address, m_page));
}

class SharedMemoryBaseClose : public SharedMemoryBaseTest, public testing::WithParamInterface<int> {};

TEST_P(SharedMemoryBaseClose, failureLeavesTheObjectOpenWithoutMappingsAndIsReportedOnTopOfThatOfAMapping) {
    int const fd = m_shm.getDescriptor();
    for (int const unmapping_error : {0, ENOMEM}) {
        SCOPED_TRACE(unmapping_error);
        MemMapping mapping = add(m_shm);
        Fault const unmapping(inject_munmap, unmapping_error);
        EXPECT_TRUE(failOnce(inject_close, GetParam(), [&] { return m_shm.close(); }));
        std::vector<ExpectedReport> expected = reportsOf({GetParam(), SysErrorId::SPOILED_INTEGRITY});
        if (unmapping_error != 0) {
            expected.insert(expected.begin(), reportsOf({ENOMEM, SysErrorId::SPOILED_INTEGRITY})[0]);
            EXPECT_FALSE(mapping.destroy());
        }
        EXPECT_TRUE(chainIs(expected));
        EXPECT_EQ(fd, m_shm.getDescriptor());
        EXPECT_EQ(0U, m_shm.getMappingCount());
        EXPECT_EQ(0U, mappedBytes(m_path));
    }
    EXPECT_FALSE(m_shm.close());
}

INSTANTIATE_TEST_SUITE_P(errors, SharedMemoryBaseClose, testing::Values(EIO, ENOSPC, EDQUOT), RowName());

TEST_F(SharedMemoryBaseTest, destructorUnmapsAndClosesAndWarnsOfAFailure) {
    EventRecorder const events;
    int const fd = openObject();
    {
        Memory shm(fd);
        add(shm);
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(0U, mappedBytes(m_path));
    { Memory const shm(fd); }
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/SharedMemoryBase ~SharedMemoryBase: Error closing SharedMemory",
        events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
}

// ---- getSize ----

TEST_F(SharedMemoryBaseTest, sizeIsThatOfTheFileOr0IfA32BitSystemCannotReturnIt) {
    EXPECT_EQ(4 * m_page, m_shm.getSize());
    for (off_t const size : {off_t{12345}, off_t{0x7FFFFFFF}}) {
        ASSERT_EQ(0, ftruncate(m_shm.getDescriptor(), size));
        EXPECT_EQ(size, m_shm.getSize());
    }
#if defined(__LP64__)
    for (off_t const size : {0x80000000L, 0x100001000L}) {
        ASSERT_EQ(0, ftruncate(m_shm.getDescriptor(), size));
        EXPECT_EQ(0U, m_shm.getSize()) << size;
    }
#endif
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(m_shm.close());
    Calls const calls(inject_fstat, 0);
    EXPECT_EQ(0U, m_shm.getSize());
    EXPECT_TRUE(isMisuse("size of invalid SHM object requested"));
}

TEST_F(SharedMemoryBaseTest, sizeThatTheSystemRefusesIsZeroWithoutAReport) {
    for (int const error : {EBADF, EIO, EOVERFLOW, EINTR}) {
        EXPECT_EQ(0U, failOnce(inject_fstat, error, [this] { return m_shm.getSize(); })) << error;
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(SharedMemoryBaseTest, onlyFilesAndSymbolicLinksHaveASize) {
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

// ---- the server ----

class SharedMemoryServerTest : public testing::Test {
protected:
    void create(unsigned int size = 4096, Strategy strategy = Creatable::CREATE_NEW) {
        ASSERT_FALSE(m_shm.create(m_name, size, strategy));
        ASSERT_TRUE(m_shm.isValid());
    }
    /// Makes memory of the name, of a page that begins with a text, which is closed when the function
    /// returns.
    void makeOther(std::string text = "old", unsigned int size = 4096) const {
        SharedMemoryServer other;
        ASSERT_FALSE(other.create(m_name, size, Creatable::CREATE_NEW));
        if (!text.empty()) {
            memcpy(other.addMapping(READ_WRITE, size).getAddress(), text.data(), text.size());
        }
    }
    long long getSystemSize() const { return std::stoll(m_name.getState()); }

    IpcName m_name{MEMORY};
    SharedMemoryServer m_shm;
};

TEST_F(SharedMemoryServerTest, newMemoryIsFullOfZeros) {
    create(5000);
    EXPECT_EQ(5000U, m_shm.getSize());
    EXPECT_EQ(5000, getSystemSize());
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
    MemMapping const mapping = m_shm.addMapping(READ_WRITE, 5000);
    ASSERT_TRUE(mapping.isValid());
    auto* const bytes = static_cast<char*>(mapping.getAddress());
    EXPECT_EQ(std::string(5000, '\0'), std::string(bytes, 5000));
    bytes[4999] = 'X';
    SharedMemoryClient client;
    EXPECT_FALSE(client.attach(m_name, MemMapping::READ));
    EXPECT_EQ('X', static_cast<char*>(client.addMapping(MemMapping::READ, 5000).getAddress())[4999]);
}

struct StrategyRow {
    char const* name;
    int strategy;
    std::optional<std::string> old; ///< The text and the size of memory that exists.
    unsigned int old_size;
    unsigned int size;
    char const* state_after;
};

StrategyRow const STRATEGY_ROWS[] = {
    {"newMemoryOfSize0", Creatable::CREATE_NEW, {}, 0, 0, "0 bytes: "},
    {"openOrCreateWithSize0", Creatable::OPEN_OR_CREATE, {}, 0, 0, "0 bytes: "},
    {"replaceWithSize0", Creatable::REPLACE, {}, 0, 0, "0 bytes: "},
    {"truncateWithSize0", Creatable::TRUNCATE, {}, 0, 0, "0 bytes: "},
    {"unknownStrategy99WithSize0", 99, {}, 0, 0, "0 bytes: "},
    {"unknownStrategyMinus1WithSize0", -1, {}, 0, 0, "0 bytes: "},
    {"unknownStrategy4WithSize0", 4, {}, 0, 0, "0 bytes: "},
    {"openOrCreateKeepsTheSizeOfExistingMemory", Creatable::OPEN_OR_CREATE, "old", 4096, 8192,
     "4096 bytes: old"},
    {"openOrCreateSetsTheSizeOfExistingEmptyMemory", Creatable::OPEN_OR_CREATE, "", 0, 8192, "8192 bytes: "},
    {"truncateEmptiesExistingMemoryAndSetsTheNewSize", Creatable::TRUNCATE, std::string(8192, 'x'), 8192,
     4096, "4096 bytes: "},
    {"unknownStrategyOpensExistingMemoryAndSetsTheNewSize", 99, "old", 4096, 8192, "8192 bytes: old"}};
VESK_TEST_TABLE(
    SharedMemoryServerStrategy, decidesAboutSizeAndContent, SharedMemoryServerTest, STRATEGY_ROWS) {
    StrategyRow const& row = GetParam();
    if (row.old) {
        makeOther(*row.old, row.old_size);
    }
    create(row.size, static_cast<Strategy>(row.strategy));
    EXPECT_EQ(row.state_after, m_name.getState());
    unsigned int const size = m_shm.getSize();
    EXPECT_EQ(getSystemSize(), size);
    if (size > 0 && row.old != "old") {
        auto const* const bytes = static_cast<char*>(m_shm.addMapping(MemMapping::READ, size).getAddress());
        EXPECT_EQ(std::string(size, '\0'), std::string(bytes, size));
    }
}

TEST_F(SharedMemoryServerTest, replacedMemoryStaysUsableByItsUsers) {
    makeOther();
    SharedMemoryClient client;
    ASSERT_FALSE(client.attach(m_name, MemMapping::READ));
    MemMapping const old = client.addMapping(MemMapping::READ, 4096);
    create(8192, Creatable::REPLACE);
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(8192, getSystemSize());
    EXPECT_EQ(4096U, client.getSize());
    EXPECT_EQ(0, memcmp("old", old.getAddress(), 3));
    EXPECT_TRUE(client.addMapping(MemMapping::READ, 4096).isValid());
}

TEST_F(SharedMemoryServerTest, nameIsKnownUntilItIsRemovedAndNotAfterAFailedCreation) {
    EXPECT_EQ(-1, m_shm.getDescriptor());
    EXPECT_STREQ("", m_shm.getName());
    create();
    EXPECT_TRUE(failOnce(inject_shm_unlink, EIO, [&] { return m_shm.deleteName(); }));
    EXPECT_TRUE(chainIs(
        reportsOf({EIO, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED}, m_name.getSystemName())));
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
    EXPECT_FALSE(m_shm.deleteName());
    EXPECT_STREQ("", m_shm.getName());
    create();
    EXPECT_FALSE(m_shm.close());
    EXPECT_EQ(m_name.getSystemName(), m_shm.getName());
    m_shm.setUnlinkOnClose(true);
    EXPECT_FALSE(m_shm.close());
    EXPECT_STREQ("", m_shm.getName());
    for (Strategy const strategy : {Creatable::CREATE_NEW, UNKNOWN}) {
        Fault const fault(inject_shm_open, EACCES);
        EXPECT_TRUE(m_shm.create(m_name, 4096, strategy)) << strategy;
        EXPECT_STREQ("", m_shm.getName()) << strategy;
    }
    EXPECT_TRUE(m_shm.create("ve/sk", 4096, Creatable::REPLACE));
    EXPECT_STREQ("", m_shm.getName());
    std::ErrorStorage::ack();
}

/// Expects that `release` unmaps and closes the memory of an open object.
template <typename T, typename Release>
void expectRelease(std::optional<T>& shm, IpcName const& name, Release release) {
    EXPECT_TRUE(shm->addMapping(READ_WRITE, 4096).isValid());
    int const fd = shm->getDescriptor();
    release();
    EXPECT_EQ(0U, mappedBytes(name.getSystemName()));
    // Another object has the lowest number again.
    EXPECT_EQ(shm && shm->isValid(), isOpen(fd));
    EXPECT_TRUE(!isOpen(fd) || fd == shm->getDescriptor());
}

TEST_F(SharedMemoryServerTest, anotherCreationCloseAndDestructorUnmapAndCloseTheOldMemory) {
    IpcName const other(MEMORY);
    std::optional<SharedMemoryServer> shm;
    auto const createAgain = [&] {
        EXPECT_FALSE(shm->create(other, 8192, Creatable::CREATE_NEW));
        EXPECT_EQ(other.getSystemName(), shm->getName());
    };
    std::pair<char const*, std::function<void()>> const ways[] = {
        {"creation", createAgain}, {"close", [&] { EXPECT_FALSE(shm->close()); }}, {"destructor", [&] {
                                                                                        shm.reset();
                                                                                    }}};
    for (auto const& [way, release] : ways) {
        SCOPED_TRACE(way);
        shm.emplace().setUnlinkOnClose(true);
        ASSERT_FALSE(shm->create(m_name, 4096, Creatable::CREATE_NEW));
        expectRelease(shm, m_name, release);
    }
}

// ---- the size of new memory ----

class SharedMemoryServerSize : public SharedMemoryServerTest,
                               public testing::WithParamInterface<ErrnoCase> {};

constexpr char const* CREATE_WARNING = "WARNING framework/src/vesk/posix/SharedMemoryServer create: "
                                       "shm_open() okay, ftruncate() failed, close() failed!";

TEST_P(SharedMemoryServerSize, failureClosesTheMemoryAndRemovesItsNameOnRequest) {
    for (bool const unlinks : {false, true}) {
        SCOPED_TRACE(unlinks ? "with the request" : "without the request");
        m_shm.setUnlinkOnClose(unlinks);
        EXPECT_TRUE(failOnce(inject_ftruncate, GetParam().error, [&] {
            return m_shm.create(m_name, 4096, Creatable::CREATE_NEW);
        }));
        EXPECT_TRUE(chainIs(reportsOf(GetParam())));
        EXPECT_FALSE(m_shm.isValid());
        EXPECT_EQ(!unlinks, m_name.exists());
        EXPECT_EQ(unlinks ? "" : m_name.getSystemName(), m_shm.getName());
        EXPECT_FALSE(m_shm.deleteName());
        EXPECT_FALSE(m_name.exists());
    }
}

TEST_P(SharedMemoryServerSize, failureThatIsFollowedByAFailedCloseIsAWarning) {
    EventRecorder const events;
    Fault const fault(inject_ftruncate, GetParam().error);
    {
        Fault const closing(inject_close, EIO);
        EXPECT_TRUE(m_shm.create(m_name, 4096, Creatable::CREATE_NEW));
    }
    EXPECT_EQ(CREATE_WARNING, events.getText());
    EXPECT_TRUE(chainIs({reportsOf(GetParam())[0], reportsOf({EIO, SysErrorId::SPOILED_INTEGRITY})[0]}));
    EXPECT_TRUE(m_shm.isValid());
    EXPECT_FALSE(m_shm.close());
}

INSTANTIATE_TEST_SUITE_P(
    rows, SharedMemoryServerSize,
    testing::ValuesIn(rowsOf(
        {{{EINVAL, EFBIG}, SysErrorId::INVALID_PARAMETER},
         {{EIO, EPERM, EBADF}, SysErrorId::SPOILED_INTEGRITY}})),
    RowName());

TEST_F(SharedMemoryServerTest, nameThatCannotBeRemovedAfterAFailedSizeIsAWarning) {
    EventRecorder const events;
    m_shm.setUnlinkOnClose(true);
    Fault const fault(inject_ftruncate, EFBIG);
    Fault const unlinking(inject_shm_unlink, EIO);
    EXPECT_TRUE(m_shm.create(m_name, 4096, Creatable::CREATE_NEW));
    EXPECT_EQ(CREATE_WARNING, events.getText());
    EXPECT_TRUE(chainIs(
        reportsOf({EIO, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED}, m_name.getSystemName())));
    EXPECT_FALSE(m_shm.isValid());
}

TEST_F(SharedMemoryServerTest, interruptedSizeIsRepeated) {
    Fault const sizes(inject_ftruncate, EINTR, 1, 2);
    create(4096);
    EXPECT_EQ(3, sizes.getCalls());
    EXPECT_EQ(4096U, m_shm.getSize());
}

TEST_F(SharedMemoryServerTest, sizeBeyond2GibIsRefused) {
    for (unsigned int const size : {0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_TRUE(m_shm.create(m_name, size, Creatable::REPLACE)) << size;
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
        EXPECT_LT(s_shm_length, 0);
        EXPECT_FALSE(m_shm.isValid());
    }
    create(0x7FFFFFFF, Creatable::REPLACE);
    EXPECT_EQ(0x7FFFFFFFU, m_shm.getSize());
}

// ---- the client ----

class SharedMemoryClientTest : public SharedMemoryServerTest {
protected:
    void SetUp() override { makeOther("abc"); }

    SharedMemoryClient m_client;
};

/// The flags of an attach as a number, and those of the system.
using FlagRow = std::pair<unsigned int, int>;

FlagRow const FLAG_ROWS[] = {{0, O_RDONLY},       {1, O_RDONLY}, {4, O_RDONLY}, {5, O_RDONLY},
                             {2, O_RDWR},         {3, O_RDWR},   {7, O_RDWR},   {0xFFFFFFFD, O_RDONLY},
                             {0xFFFFFFFF, O_RDWR}};
VESK_TEST_TABLE(
    SharedMemoryClientFlags, onlyTheWriteBitSelectsTheDirections, SharedMemoryClientTest, FLAG_ROWS) {
    auto const [word, system_flags] = GetParam();
    EXPECT_FALSE(m_client.attach(m_name, MemMapping::MemAccessFlags(word)));
    EXPECT_EQ(system_flags, s_shm_open.flags);
    EXPECT_EQ(0U, s_shm_open.mode);
    EXPECT_EQ(m_name.getSystemName(), s_shm_open.name);
    EXPECT_EQ(system_flags, fcntl(m_client.getDescriptor(), F_GETFL) & O_ACCMODE);
}

TEST_F(SharedMemoryClientTest, withOnlyTheReadBitCannotWrite) {
    EXPECT_FALSE(m_client.attach(m_name, MemMapping::READ));
    EXPECT_EQ(4096U, m_client.getSize());
    MemMapping const reads = m_client.addMapping(MemMapping::READ, 4096);
    ASSERT_TRUE(reads.isValid());
    EXPECT_EQ('b', static_cast<char*>(reads.getAddress())[1]);
    EXPECT_FALSE(m_client.addMapping(READ_WRITE, 4096).isValid());
    EXPECT_TRUE(causeIs(SysErrorId::PERMISSION_DENIED, EACCES));
}

TEST_F(SharedMemoryClientTest, withOnlyTheWriteBitCanReadTooAndMapARing) {
    EXPECT_FALSE(m_client.attach(m_name, MemMapping::WRITE));
    MemMapping const ring = m_client.addMapping(READ_WRITE, 4096, 0, nullptr, true);
    ASSERT_TRUE(ring.isValid());
    auto* const bytes = static_cast<char*>(ring.getAddress());
    EXPECT_EQ('a', bytes[0]);
    EXPECT_EQ('c', bytes[4098]);
    bytes[0] = 'X';
    EXPECT_EQ("4096 bytes: Xbc", m_name.getState());
    EXPECT_FALSE(m_client.close());
    EXPECT_EQ(0U, mappedBytes(m_name.getSystemName())) << "both halves";
}

TEST_F(SharedMemoryClientTest, memoryOfAnotherUserCannotBeReadOrWritten) {
    VESK_SKIP_UNLESS_ROOT();
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        for (auto const flags : {MemMapping::READ, MemMapping::WRITE}) {
            SCOPED_TRACE(flags == MemMapping::READ ? "reading" : "writing");
            EXPECT_TRUE(m_client.attach(m_name, flags));
            EXPECT_TRUE(chainIs(reportsOf(DENIED, m_name.getSystemName())));
            EXPECT_FALSE(m_client.isValid());
        }
    });
}

TEST_F(SharedMemoryClientTest, anotherAttachAndTheDestructorUnmapAndCloseTheOldMemoryAndKeepItsName) {
    IpcName const other(MEMORY);
    ASSERT_FALSE(m_shm.create(other, 3, Creatable::CREATE_NEW));
    std::optional<SharedMemoryClient> shm;
    auto const attachAgain = [&] {
        EXPECT_FALSE(shm->attach(other, READ_WRITE));
        EXPECT_EQ(3U, shm->getSize());
    };
    std::pair<char const*, std::function<void()>> const ways[] = {
        {"attach", attachAgain}, {"destructor", [&] { shm.reset(); }}};
    for (auto const& [way, release] : ways) {
        SCOPED_TRACE(way);
        EXPECT_FALSE(shm.emplace().attach(m_name, READ_WRITE));
        expectRelease(shm, m_name, release);
        EXPECT_TRUE(m_name.exists());
    }
}

// ---- processes ----

constexpr unsigned int TOTAL = 200000;

/// The page before the ring.
struct Header {
    vesk::ShmMutex mutex;
    vesk::ShmCondition changed;
    unsigned int written = 0;
    unsigned int consumed = 0;
};

char byteAt(unsigned int position) {
    return static_cast<char>(position * 31 + position / 253);
}

/// Transfers blocks until `position` is the end: waits until `may` holds, and adds the result of `transfer`.
template <typename May, typename Transfer>
void stream(Header& header, unsigned int& position, May may, Transfer transfer) {
    while (position < TOTAL) {
        vesk::ShmMutexLock const lock(header.mutex);
        while (!may()) {
            ASSERT_FALSE(header.changed.wait(header.mutex));
        }
        position += transfer(position);
        EXPECT_FALSE(header.changed.signal());
    }
}

TEST_F(SharedMemoryServerTest, serverAndClientStreamThroughARing) {
    unsigned int const length = Vesk::s_sys_info.page_size;
    create(2 * length);
    MemMapping const front = m_shm.addMapping(READ_WRITE, length);
    ASSERT_TRUE(front.isValid());
    auto* const header = new (front.getAddress()) Header;
    ASSERT_TRUE(header->mutex.isValid());

    Process writer([&] {
        MemMapping const ring = m_shm.addMapping(READ_WRITE, length, length, nullptr, true);
        ASSERT_TRUE(ring.isValid());
        auto* const bytes = static_cast<char*>(ring.getAddress());
        constexpr unsigned int BLOCK = 701;
        auto const mayWrite = [&] { return length - (header->written - header->consumed) >= BLOCK; };
        stream(*header, header->written, mayWrite, [&](unsigned int at) {
            unsigned int const count = std::min(BLOCK, TOTAL - at);
            for (unsigned int i = 0; i < count; ++i) {
                bytes[at % length + i] = byteAt(at + i);
            }
            return count;
        });
    });
    Process reader([&] {
        SharedMemoryClient client;
        ASSERT_FALSE(client.attach(m_name, READ_WRITE));
        MemMapping const mine = client.addMapping(READ_WRITE, length);
        MemMapping const ring = client.addMapping(MemMapping::READ, length, length, nullptr, true);
        ASSERT_TRUE(mine.isValid() && ring.isValid());
        auto* const shared = static_cast<Header*>(mine.getAddress());
        auto const* const bytes = static_cast<char const*>(ring.getAddress());
        auto const mayRead = [&] { return shared->written != shared->consumed; };
        stream(*shared, shared->consumed, mayRead, [&](unsigned int at) {
            unsigned int const count = shared->written - at;
            for (unsigned int i = 0; i < count && !HasFailure(); ++i) {
                EXPECT_EQ(byteAt(at + i), bytes[at % length + i]) << at + i;
            }
            return count;
        });
    });
    EXPECT_EQ(0, writer.join());
    EXPECT_EQ(0, reader.join());
    header->~Header();
}

TEST_F(SharedMemoryServerTest, contentOfAnEndedServerIsReadByAClientInAnotherProcess) {
    EXPECT_EQ(0, Process([&] { makeOther("hello"); }).join());
    expectInChild([&] {
        SharedMemoryClient shm;
        ASSERT_FALSE(shm.attach(m_name, MemMapping::READ));
        MemMapping const mapping = shm.addMapping(MemMapping::READ, shm.getSize());
        ASSERT_TRUE(mapping.isValid());
        EXPECT_EQ(0, memcmp("hello", mapping.getAddress(), 5));
    });
}

} // namespace
