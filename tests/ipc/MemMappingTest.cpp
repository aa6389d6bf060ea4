#include "support/Calls.h"
#include "support/CleanEnd.h"
#include "support/Emulation.h"
#include "support/FailOnce.h"
#include "support/NamedRow.h"
#include "support/Processes.h"
#include "support/TempFolder.h"
#include "support/calls/MapCalls.h"

#include <tarncommon/error/ErrorStorage.h>
#include <vesk/MemMapping.h>
#include <vesk/Vesk.h>

#include <deque>

namespace {

namespace CommonErrorId = std::CommonErrorId;
using namespace support;
using vesk::MemMapping;
using vesk::Vesk;
using MemAccessFlags = MemMapping::MemAccessFlags;

static_assert(!std::is_polymorphic_v<MemMapping> && std::is_trivially_copyable_v<MemMapping>);
static_assert(std::is_trivially_destructible_v<MemMapping>);
static_assert(
    sizeof(MemMapping) == (sizeof(void*) + 3 * 4 + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*));
static_assert(MemMapping::READ == 1 && MemMapping::WRITE == 2 && MemMapping::EXECUTE == 4);

void* const ALL_ONES = reinterpret_cast<void*>(UINTPTR_MAX);
constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;
constexpr bool HAS_LARGE_ADDRESS_SPACE = sizeof(void*) == 8;

char* bytesOf(MemMapping const& mapping) {
    return static_cast<char*>(mapping.getAddress());
}

/// A file of eight pages, each full of its letter.
class MemMappingTest : public testing::Test {
protected:
    MemMappingTest() : m_page(Vesk::s_sys_info.page_size) {
        std::string content;
        for (char letter = 'a'; letter < 'i'; ++letter) {
            content.append(m_page, letter);
        }
        m_path = m_folder.makeFile("object", content);
        m_fd = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    }
    ~MemMappingTest() override {
        for (MemMapping& mapping : m_mappings) {
            EXPECT_TRUE(!mapping.isValid() || !mapping.destroy());
        }
        EXPECT_EQ(0U, mappedBytes(m_path)) << "the test left a mapping";
        close(m_fd);
    }

    /// Makes a mapping that the fixture unmaps.
    MemMapping&
    map(MemAccessFlags flags, unsigned int length, unsigned int offset = 0, void* address = nullptr,
        bool ring = false) {
        m_mappings.emplace_back(m_fd, flags, length, offset, address, ring);
        EXPECT_TRUE(m_mappings.back().isValid());
        return m_mappings.back();
    }
    MemMapping& makeRing(unsigned int length, unsigned int offset = 0, void* address = nullptr) {
        return map(READ_WRITE, length, offset, address, true);
    }

    std::deque<MemMapping> m_mappings;
    unsigned int m_page;
    TempFolder m_folder;
    std::string m_path;
    int m_fd;
};

// ---- the plain form ----

TEST_F(MemMappingTest, showsAndChangesTheBytesOfTheObjectAndIsInaccessibleWithoutAnyFlag) {
    MemMapping& mapping = map(READ_WRITE, 2 * m_page);
    EXPECT_EQ('a', bytesOf(mapping)[0]);
    EXPECT_EQ('b', bytesOf(mapping)[2 * m_page - 1]);
    EXPECT_EQ("rw-s", accessAt(mapping.getAddress()));
    bytesOf(mapping)[1] = 'X';
    EXPECT_FALSE(mapping.destroy());
    EXPECT_EQ("aXa", contentOf(m_path).substr(0, 3));
    EXPECT_EQ("---s", accessAt(map(MemAccessFlags(), m_page).getAddress())) << "without any flag";
}

TEST_F(MemMappingTest, returnsItsArguments) {
    MemMapping& mapping = map(MemMapping::READ, 100, m_page);
    EXPECT_EQ(m_page, mapping.getOffset());
    EXPECT_EQ(100U, mapping.getSize());
    EXPECT_TRUE(MemAccessFlags(MemMapping::READ) == mapping.getFlags());
    EXPECT_EQ('b', bytesOf(mapping)[0]);
    EXPECT_EQ(m_page, mappedBytes(m_path));
    void* first_field = nullptr;
    memcpy(&first_field, static_cast<void const*>(&mapping), sizeof first_field);
    EXPECT_EQ(mapping.getAddress(), first_field);
}

TEST_F(MemMappingTest, isSeenByAnotherMappingAndByAnotherProcess) {
    MemMapping& first = map(READ_WRITE, m_page);
    MemMapping& second = map(MemMapping::READ, m_page);
    ASSERT_TRUE(first.isValid() && second.isValid());
    EXPECT_NE(first.getAddress(), second.getAddress());
    bytesOf(first)[7] = '1';
    EXPECT_EQ('1', bytesOf(second)[7]);
    Process child([&] { bytesOf(first)[7] = '2'; });
    EXPECT_EQ(0, child.join());
    EXPECT_EQ('2', bytesOf(second)[7]);
}

TEST_F(MemMappingTest, outlivesItsDescriptorAndACopyRefersToTheSameMapping) {
    int const fd = dup(m_fd);
    MemMapping mapping(fd, MemMapping::READ, m_page);
    close(fd);
    EXPECT_EQ('a', bytesOf(mapping)[0]);
    MemMapping const copy = mapping;
    EXPECT_EQ(mapping.getAddress(), copy.getAddress());
    EXPECT_EQ(m_page, mappedBytes(m_path));
    EXPECT_FALSE(mapping.destroy());
    EXPECT_TRUE(copy.isValid()) << "the copy is not notified";
    EXPECT_EQ(0U, mappedBytes(m_path));
}

/// The flags as a number, and those of the system.
using FlagRow = std::pair<unsigned int, int>;

FlagRow const FLAG_ROWS[] = {{0, PROT_NONE},          {1, PROT_READ},
                             {2, PROT_WRITE},         {3, PROT_READ | PROT_WRITE},
                             {4, PROT_EXEC},          {7, PROT_READ | PROT_WRITE | PROT_EXEC},
                             {0xFFFFFFF8, PROT_NONE}, {0xFFFFFFF9, PROT_READ}};
VESK_TEST_TABLE(MemMappingFlags, arePassedOnBitByBit, testing::Test, FLAG_ROWS) {
    auto const [word, protection] = GetParam();
    Fault const fault(inject_mmap, ENOMEM);
    MapCalls const calls;
    auto* const hint = reinterpret_cast<void*>(uintptr_t{0x10000000});
    MemMapping const mapping(77, MemAccessFlags(word), 12345, 0x80001000, hint, false);
    EXPECT_TRUE(causeIs(SysErrorId::OUT_OF_MEMORY, ENOMEM));
    ASSERT_EQ(1U, calls.get().size());
    EXPECT_TRUE(
        (calls.get()[0] ==
         MapCall{hint, 12345, protection, MAP_SHARED, 77, static_cast<off_t>(0x80001000), MAP_FAILED}));
    EXPECT_EQ(word, mapping.getFlags().getWord()) << "the word is kept unchanged";
}

TEST_F(MemMappingTest, refusalOfTheSystemIsReported) {
    int const reader = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    struct {
        char const* what;
        int fd;
        MemAccessFlags flags;
        unsigned int length;
        unsigned int offset;
        ErrnoCase report;
    } const rows[] = {
        {"length 0", m_fd, MemMapping::READ, 0, 0, {EINVAL, SysErrorId::INVALID_PARAMETER}},
        {"offset within a page", m_fd, MemMapping::READ, m_page, 1, {EINVAL, SysErrorId::INVALID_PARAMETER}},
        {"closed", -1, MemMapping::READ, m_page, 0, {EBADF, SysErrorId::SPOILED_INTEGRITY}},
        {"read-only", reader, MemMapping::WRITE, m_page, 0, {EACCES, SysErrorId::PERMISSION_DENIED}},
        {"a pipe", ends[0], MemMapping::READ, m_page, 0, {ENODEV, SysErrorId::NOT_IMPLEMENTED}},
    };
    for (auto const& row : rows) {
        MemMapping const mapping(row.fd, row.flags, row.length, row.offset);
        EXPECT_FALSE(mapping.isValid()) << row.what;
        EXPECT_EQ(ALL_ONES, mapping.getAddress()) << row.what;
        EXPECT_TRUE(chainIs(reportsOf(row.report))) << row.what;
    }
    for (int const fd : {reader, ends[0], ends[1]}) {
        close(fd);
    }
}

// ---- failures of mmap ----

/// The call that fails: that of a plain mapping, or one of those of a ring.
enum Step { PLAIN = 1, SECOND_HALF, FIRST_HALF };

using MapCase = std::tuple<Step, ErrnoCase>;

class MemMappingFailure : public MemMappingTest, public testing::WithParamInterface<MapCase> {};

TEST_P(MemMappingFailure, isReportedAndGivesAnAddressOfAllOnes) {
    auto const [step, row] = GetParam();
    bool const ring = step != PLAIN;
    if (ring && IS_EMULATED) {
        GTEST_SKIP() << "QEMU's user mode lists ranges of its own in /proc/self/maps";
    }
    MapCalls const calls;
    Fault const fault(inject_mmap, row.error, step);
    MemMapping mapping(m_fd, READ_WRITE, m_page, 0, nullptr, ring);
    EXPECT_TRUE(causeIs(row.cause, row.error));
    EXPECT_EQ(step, fault.getCalls()) << "no call follows a failure";
    EXPECT_EQ(ALL_ONES, mapping.getAddress());
    EXPECT_FALSE(mapping.isValid());
    EXPECT_EQ(ring ? 2 * m_page : m_page, mapping.getSize());
    EXPECT_FALSE(mapping.destroy());
    if (ring) {
        void* const base = calls.get()[0].result;
        EXPECT_EQ("---p", accessAt(base)) << "the range stays reserved";
        EXPECT_EQ(step == SECOND_HALF ? "---p" : "rw-s", accessAt(static_cast<char*>(base) + m_page));
        EXPECT_EQ(0, munmap(base, size_t{2} * m_page));
    }
}

auto const stepAndError = [](testing::TestParamInfo<MapCase> const& test) {
    char const* const steps[] = {"plain_", "secondHalf_", "firstHalf_"};
    return std::string(steps[std::get<Step>(test.param) - PLAIN]) +
        strerrorname_np(std::get<ErrnoCase>(test.param).error);
};

INSTANTIATE_TEST_SUITE_P(
    rows, MemMappingFailure,
    testing::Combine(
        testing::Values(PLAIN, SECOND_HALF, FIRST_HALF),
        testing::ValuesIn(rowsOf(
            {{{ENXIO, EBADF, ENOTSUP}, SysErrorId::SPOILED_INTEGRITY},
             {{EAGAIN, ENOMEM}, SysErrorId::OUT_OF_MEMORY},
             {{EACCES}, SysErrorId::PERMISSION_DENIED},
             {{ENODEV}, SysErrorId::NOT_IMPLEMENTED},
             {{EINVAL, EOVERFLOW}, SysErrorId::INVALID_PARAMETER},
             {{EMFILE}, SysErrorId::RESOURCES_EXHAUSTED},
             {{EPERM, EINTR, ENFILE}, SysErrorId::UNCLASSIFIED}}))),
    stepAndError);

class MemMappingReservation : public MemMappingTest, public testing::WithParamInterface<int> {};

TEST_P(MemMappingReservation, failureIsAlwaysReportedAsNotImplemented) {
    Fault const fault(inject_mmap, GetParam());
    MemMapping mapping(m_fd, READ_WRITE, m_page, 0, nullptr, true);
    EXPECT_TRUE(causeIs(SysErrorId::NOT_IMPLEMENTED, GetParam()));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_EQ(ALL_ONES, mapping.getAddress());
    EXPECT_FALSE(mapping.destroy());
}

INSTANTIATE_TEST_SUITE_P(
    errors, MemMappingReservation, testing::Values(ENOMEM, EAGAIN, EINVAL, EBADF, EPERM), RowName());

// ---- the ring buffer ----

TEST_F(MemMappingTest, ringShowsTheSamePagesTwiceFromItsOffsetOn) {
    MemMapping& ring = makeRing(2 * m_page);
    unsigned int const length = 2 * m_page;
    char* const bytes = bytesOf(ring);
    EXPECT_EQ(2 * length, ring.getSize());
    bytes[0] = '0';
    EXPECT_EQ('0', bytes[length]) << "written at 0, read at n";
    bytes[2 * length - 1] = '1';
    EXPECT_EQ('1', bytes[length - 1]);
    memcpy(bytes + length - 3, "across", 6);
    EXPECT_EQ("acr", std::string(bytes + 2 * length - 3, 3));
    EXPECT_EQ("oss", std::string(bytes, 3));
    EXPECT_EQ("across", std::string(bytes + length - 3, 6));
    EXPECT_EQ(size_t{2} * length, mappedBytes(m_path));
    EXPECT_FALSE(ring.destroy());
    EXPECT_EQ(nullptr, ring.getAddress());
    EXPECT_EQ(0U, mappedBytes(m_path)) << "both halves";
    std::string const content = contentOf(m_path);
    EXPECT_EQ("oss", content.substr(0, 3));
    EXPECT_EQ("acr", content.substr(length - 3, 3));
    MemMapping const& other = makeRing(m_page, 3 * m_page);
    EXPECT_EQ('d', bytesOf(other)[0]);
    EXPECT_EQ('d', bytesOf(other)[m_page]);
    EXPECT_EQ(3 * m_page, other.getOffset());
}

TEST_F(MemMappingTest, ringReservesItsRangeAndMapsTheSecondHalfFirst) {
    MapCalls const recorder;
    size_t const length = size_t{2} * m_page;
    MemMapping& ring = map(MemMapping::READ, 2 * m_page, m_page, nullptr, true);
    std::vector<MapCall> const calls = recorder.get();
    ASSERT_EQ(3U, calls.size());
    auto* const base = static_cast<char*>(ring.getAddress());
    int const reserved = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    EXPECT_TRUE((calls[0] == MapCall{nullptr, 2 * length, PROT_NONE, reserved, -1, 0, base}));
    for (size_t const half : {1U, 2U}) {
        char* const at = half == 1 ? base + length : base;
        EXPECT_TRUE((calls[half] == MapCall{at, length, PROT_READ, MAP_SHARED | MAP_FIXED, m_fd, m_page, at}))
            << half;
    }
}

TEST_F(MemMappingTest, impossibleRingIsRefusedWithoutMappingARange) {
    std::string const part_of_a_page = rowText(
        CommonErrorId::CONTRACT_BROKEN,
        "requested ringbuffer but size is not a multiple of system page size");
    auto const refuse = [this](unsigned int length, std::vector<ExpectedReport> const& reports) {
        MemMapping mapping(m_fd, READ_WRITE, length, 0, nullptr, true);
        EXPECT_TRUE(chainIs(reports)) << length;
        EXPECT_EQ(ALL_ONES, mapping.getAddress()) << length;
        EXPECT_FALSE(mapping.destroy());
        return mapping.getSize();
    };
    Fault const calls(inject_mmap, 0);
    for (unsigned int const length : {1U, m_page - 1, m_page + 1, 2 * m_page + m_page / 2, UINT32_MAX}) {
        EXPECT_EQ(length, refuse(length, {{CommonErrorId::CONTRACT_BROKEN, part_of_a_page}}));
    }
    // A size beyond 32 bits.
    for (unsigned int const length : {0x80000000U, 0x80000000U + m_page, 0U - m_page}) {
        refuse(length, reportsOf({ENOMEM, SysErrorId::NOT_IMPLEMENTED}));
    }
    EXPECT_EQ(0, calls.getCalls());
    refuse(0, reportsOf({EINVAL, SysErrorId::NOT_IMPLEMENTED}));
}

TEST_F(MemMappingTest, largestRingIsMappedAndUnmappedWhole) {
    unsigned int const length = 0x80000000U - m_page;
    MemMapping ring(m_fd, READ_WRITE, length, 0, nullptr, true);
    if (!HAS_LARGE_ADDRESS_SPACE) {
        EXPECT_TRUE(causeIs(SysErrorId::NOT_IMPLEMENTED, ENOMEM));
        return;
    }
    ASSERT_TRUE(ring.isValid());
    EXPECT_EQ(2 * length, ring.getSize());
    bytesOf(ring)[0] = 'X';
    EXPECT_EQ('X', bytesOf(ring)[length]);
    EXPECT_FALSE(ring.destroy());
    EXPECT_EQ(0U, mappedBytes(m_path));
}

TEST_F(MemMappingTest, ringOverlapsNoOtherMapping) {
    auto const before = mappedRanges();
    ASSERT_LT(10U, before.size());
    MemMapping const rings[] = {makeRing(m_page), makeRing(4 * m_page), makeRing(8 * m_page)};
    for (MemMapping const& ring : rings) {
        auto const begin = reinterpret_cast<uintptr_t>(ring.getAddress());
        for (Range const& range : before) {
            EXPECT_TRUE(begin + ring.getSize() <= range.begin || range.end <= begin) << range.path;
        }
        for (MemMapping const& other : rings) {
            auto const other_begin = reinterpret_cast<uintptr_t>(other.getAddress());
            EXPECT_TRUE(
                &ring == &other || begin + ring.getSize() <= other_begin ||
                other_begin + other.getSize() <= begin);
        }
    }
}

TEST_F(MemMappingTest, usedAddressIsNotMappedOverAndAFreeOneIsUsed) {
    MemMapping& there = map(READ_WRITE, m_page);
    bytesOf(there)[0] = '!';
    MemMapping const& ring = makeRing(m_page, 4 * m_page, there.getAddress());
    MemMapping& plain = map(MemMapping::READ, m_page, 5 * m_page, there.getAddress());
    EXPECT_NE(there.getAddress(), ring.getAddress());
    EXPECT_NE(there.getAddress(), plain.getAddress());
    EXPECT_EQ('!', bytesOf(there)[0]);
    EXPECT_EQ('e', bytesOf(ring)[0]);
    EXPECT_EQ('f', bytesOf(plain)[0]);
    void* const free_range = mmap(nullptr, size_t{4} * m_page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_EQ(0, munmap(free_range, size_t{4} * m_page));
    EXPECT_EQ(free_range, makeRing(2 * m_page, 0, free_range).getAddress());
}

// ---- destroy ----

TEST_F(MemMappingTest, destroyOfAFailedMappingDoesNothing) {
    MemMapping mapping(-1, MemMapping::READ, m_page);
    std::ErrorStorage::ack();
    Calls const calls(inject_munmap, 0);
    EXPECT_FALSE(mapping.destroy());
    EXPECT_FALSE(mapping.destroy());
    EXPECT_EQ(ALL_ONES, mapping.getAddress()) << "unlike that of a destroyed one";
}

TEST_F(MemMappingTest, secondDestroyUnmapsNothingAndFails) {
    for (bool const ringbuffer : {false, true}) {
        SCOPED_TRACE(ringbuffer ? "ring" : "plain");
        MemMapping mapping(m_fd, MemMapping::READ, m_page, 0, nullptr, ringbuffer);
        EXPECT_FALSE(mapping.destroy());
        EXPECT_EQ(nullptr, mapping.getAddress());
        EXPECT_FALSE(mapping.isValid());
        EXPECT_EQ(0U, mapping.getSize());
        MapCalls const calls;
        for (int i = 0; i < 2; ++i) {
            EXPECT_TRUE(mapping.destroy());
            EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EINVAL));
        }
        ASSERT_EQ(2U, calls.get().size());
        EXPECT_EQ(nullptr, calls.get()[0].address);
        EXPECT_EQ(0U, calls.get()[0].length);
    }
}

class MemMappingDestroy : public MemMappingTest, public testing::WithParamInterface<int> {};

TEST_P(MemMappingDestroy, failureLeavesTheMappingUsable) {
    MemMapping& mapping = map(MemMapping::READ, m_page);
    void* const address = mapping.getAddress();
    EXPECT_TRUE(failOnce(inject_munmap, GetParam(), [&] { return mapping.destroy(); }));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, GetParam()));
    EXPECT_EQ(address, mapping.getAddress());
    EXPECT_EQ("r--s", accessAt(address));
    EXPECT_FALSE(mapping.destroy()) << "it can be tried again";
    EXPECT_NE("r--s", accessAt(address));
}

INSTANTIATE_TEST_SUITE_P(errors, MemMappingDestroy, testing::Values(EINVAL, ENOMEM, EINTR), RowName());

// ---- sync ----

TEST_F(MemMappingTest, syncTakesALengthAndThenAnOffset) {
    MemMapping& mapping = map(READ_WRITE, 4 * m_page);
    bytesOf(mapping)[3 * m_page] = 'X';
    EXPECT_FALSE(mapping.sync(4 * m_page, 0));
    EXPECT_FALSE(mapping.sync(m_page, 3 * m_page));
    EXPECT_FALSE(mapping.sync(1, 2 * m_page));
    EXPECT_TRUE(mapping.sync(m_page, 1)) << "within a page";
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
}

TEST_F(MemMappingTest, syncOfARangeThatIsNotMappedFails) {
    if (IS_EMULATED) {
        GTEST_SKIP() << "QEMU's user mode does not refuse it";
    }
    MemMapping& mapping = map(READ_WRITE, 2 * m_page);
    EXPECT_EQ(0, munmap(bytesOf(mapping) + m_page, m_page));
    EXPECT_TRUE(mapping.sync(m_page, m_page));
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, ENOMEM));
    EXPECT_FALSE(mapping.destroy());
    EXPECT_TRUE(mapping.sync(m_page, 0)) << "of a destroyed mapping";
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, ENOMEM));
    MemMapping failed(-1, MemMapping::READ, m_page);
    std::ErrorStorage::ack();
    EXPECT_TRUE(failed.sync(m_page, 0));
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL));
}

class MemMappingSync : public MemMappingTest, public testing::WithParamInterface<ErrnoCase> {};

TEST_P(MemMappingSync, failureIsReported) {
    MemMapping& mapping = map(READ_WRITE, m_page);
    EXPECT_TRUE(failOnce(inject_msync, GetParam().error, [&] { return mapping.sync(m_page, 0); }));
    EXPECT_TRUE(causeIs(GetParam().cause, GetParam().error));
    EXPECT_FALSE(mapping.sync(m_page, 0));
}

INSTANTIATE_TEST_SUITE_P(
    rows, MemMappingSync,
    testing::ValuesIn(rowsOf(
        {{{EBUSY}, SysErrorId::SPOILED_INTEGRITY},
         {{EINVAL, ENOMEM}, SysErrorId::INVALID_PARAMETER},
         {{EIO, EINTR}, SysErrorId::UNCLASSIFIED}})),
    RowName());

} // namespace
