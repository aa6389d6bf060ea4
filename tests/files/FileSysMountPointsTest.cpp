#include "support/Calls.h"
#include "support/CleanEnd.h"
#include "support/NamedRow.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <vesk/FileSys.h>

#include <algorithm>
#include <cstdio>
#include <list>
#include <mntent.h>

namespace {

/// Replaces /proc/mounts, and records how it is read.
struct FakeMounts {
    std::string path;                ///< The file to read in its place.
    std::vector<size_t> chunks = {}; ///< The most bytes of each read; the reads behind have no limit.
    int flags = 0;
    std::vector<size_t> reads = {}; ///< The requested sizes.

    /// Records a read. Returns the most bytes that it may read.
    size_t note(size_t size) {
        reads.push_back(size);
        return reads.size() <= chunks.size() ? std::min(size, chunks[reads.size() - 1]) : size;
    }
};
FakeMounts* s_fake = nullptr;

} // namespace

VESK_INJECT_OPEN(if (s_fake != nullptr) {
    s_fake->flags = flags;
    path = strcmp(path, "/proc/mounts") == 0 ? s_fake->path.c_str() : "";
})
VESK_INJECT_NOTING(
    ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size),
    size = s_fake != nullptr ? s_fake->note(size) : size)
VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))

namespace {

using namespace support;
using vesk::FileSys;

using List = std::list<std::string>;

class FileSysMountPointsTest : public testing::Test {
protected:
    /// Returns the mount points of a file with this content.
    /// @param fail_read  the number of the read that fails with EIO, counted from 1
    List parse(std::string const& content, std::vector<size_t> const& chunks = {}, int fail_read = 0) {
        m_fake = FakeMounts{m_folder.makeFile("mounts", content), chunks};
        s_fake = &m_fake;
        Fault const failed_read(inject_read, fail_read == 0 ? 0 : EIO, fail_read);
        Calls const closed(inject_close, 1);
        List list = FileSys::getMountPoints();
        s_fake = nullptr;
        EXPECT_EQ(O_RDONLY | O_CLOEXEC, m_fake.flags);
        EXPECT_TRUE(chainIs({}));
        return list;
    }

    TempFolder m_folder;
    FakeMounts m_fake;
};

struct MountsRow : NamedRow {
    std::string content;
    List expected;
    std::vector<size_t> chunks = {};
    int fail_read = 0;
};

class FileSysMountPointsRows : public FileSysMountPointsTest,
                               public testing::WithParamInterface<MountsRow> {};

TEST_P(FileSysMountPointsRows, areTheSecondFieldsInTheOrderOfTheFile) {
    EXPECT_EQ(GetParam().expected, parse(GetParam().content, GetParam().chunks, GetParam().fail_read));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, FileSysMountPointsRows,
    rowsOf<MountsRow>({
        {"blankStaysEscaped", "none /a\\040b tmpfs rw 0 0\n", {"/a\\040b"}},
        {"tabAndBackslashStayEscaped", "x /tab\\011\\134 t r 0 0\n", {"/tab\\011\\134"}},
        {"samePointTwice", "x /a t r 0 0\ny /a t r 0 0\n", {"/a", "/a"}},
        {"noEndOfTheLastLine", "x /a t r 0 0\ny /b t r 0 0", {"/a", "/b"}},
        {"lastLineEndsBehindTheSecondField", "x /a t r 0 0\ny /b ", {"/a", "/b"}},
        {"lastLineEndsWithTheSecondField", "x /a t r 0 0\ny /b", {"/a", "/b"}},
        {"lastLineEndsBehindTheFirstField", "x /a t r 0 0\ny ", {"/a"}},
        {"lastLineEndsWithTheFirstField", "x /a t r 0 0\ny", {"/a"}},
        {"emptySecondField", "x  t r 0 0\ny /b t r 0 0\nz  t\n", {"/b"}},
        {"firstFieldOverSeveralLines", "no-blank\n\nx /a t r 0 0\n", {"/a"}},
        {"secondFieldOverSeveralLines", "x /a\ny t r 0 0\n", {"/a\ny"}},
        {"tabIsNoBlank", "x /a\tb t r 0 0\n", {"/a\tb"}},
        {"longOptions", "x /a t " + std::string(10000, 'o') + " 0 0\ny /b t r 0 0\n", {"/a", "/b"}},
        {"longDevice", std::string(10000, 'd') + " /a t r 0 0\n", {"/a"}},
    }),
    byName);

INSTANTIATE_TEST_SUITE_P(
    Chunks, FileSysMountPointsRows,
    rowsOf<MountsRow>({
        {"everyBorderSplits", "x /ab t\ny /c t\n", {"/", "a", "b", "/c"}, {3, 1, 1}},
        {"borderOfARealChunkSplits",
         std::string(4096 - 3, 'd') + " /mnt t r 0 0\nx /a t r 0 0\n",
         {"/m", "nt", "/a"}},
        {"firstReadFails", "x /a t r 0 0\ny /b t r 0 0\n", {}, {}, 1},
        {"readBetweenTwoLinesFails", "x /a t r 0 0\ny /b t r 0 0\n", {"/a"}, {13}, 2},
        {"readWithinAMountPointFails", "x /a t r 0 0\ny /b t r 0 0\n", {"/"}, {3}, 2},
    }),
    byName);

TEST_F(FileSysMountPointsTest, fileIsReadInChunksUntilItsEndOrAnError) {
    EXPECT_EQ(
        (List{"/", "/proc", "/a"}),
        parse("/dev/root / ext4 rw 0 0\nproc /proc proc rw 0 0\nnone /a tmpfs rw,size=64k 0 0\n"));
    EXPECT_EQ((std::vector<size_t>{4096, 4096}), m_fake.reads);
    EXPECT_EQ(List{}, parse(""));
    EXPECT_EQ(1U, m_fake.reads.size());
    EXPECT_EQ((List{"/"}), parse("x /a t r 0 0\n", {3}, 2));
    EXPECT_EQ(2U, m_fake.reads.size());
}

TEST_F(FileSysMountPointsTest, manyLinesAreReadInChunksThatEndWithALine) {
    // Like the chunks of the kernel.
    std::string content;
    std::vector<size_t> chunks;
    List expected;
    size_t chunk = 0;
    for (int i = 0; i < 1000; ++i) {
        std::string const line = "none /mnt/" + std::to_string(i) + " tmpfs rw 0 0\n";
        if (chunk + line.size() > 4096) {
            chunks.push_back(chunk);
            chunk = 0;
        }
        content += line;
        chunk += line.size();
        expected.push_back("/mnt/" + std::to_string(i));
    }
    EXPECT_EQ(expected, parse(content, chunks));
    EXPECT_LT(5U, m_fake.reads.size());
}

TEST_F(FileSysMountPointsTest, borderSplitsAMountPointAndNothingElse) {
    std::string const content = "none /first t r 0 0\nnone /mnt tmpfs rw 0 0\nx /last t r 0 0\n";
    for (size_t border = 1; border < content.size(); ++border) {
        List expected;
        for (std::string const whole : {"/first", "/mnt", "/last"}) {
            size_t const start = content.find(whole);
            if (border > start && border < start + whole.size()) {
                expected.push_back(whole.substr(0, border - start));
                expected.push_back(whole.substr(border - start));
            } else {
                expected.push_back(whole);
            }
        }
        EXPECT_EQ(expected, parse(content, {border})) << "border at " << border;
    }
}

TEST_F(FileSysMountPointsTest, listIsEmptyWithoutTheFileAndPendingReportsAreKept) {
    leaveOlderReport();
    for (int const error : {ENOENT, EACCES, EMFILE, EINTR}) {
        Calls const calls(inject_open, 1, error);
        EXPECT_EQ(List{}, FileSys::getMountPoints());
    }
    EXPECT_TRUE(onlyOlderIsPending());
}

TEST_F(FileSysMountPointsTest, failedCloseTripsAnAssertionAndKeepsTheList) {
    EventRecorder const recorder;
    m_fake.path = m_folder.makeFile("mounts", "x /a t r 0 0\n");
    int const next = dup(STDIN_FILENO);
    close(next);
    s_fake = &m_fake;
    {
        Calls const fault(inject_close, 1, EIO);
        EXPECT_EQ(List{"/a"}, FileSys::getMountPoints());
    }
    s_fake = nullptr;
    EXPECT_EQ(0, close(next));
    EXPECT_EQ("ASSERT framework/src/vesk/linux/FileSys getMountPoints: mount_fd == 0", recorder.getText());
}

TEST(FileSysMountPoints, areThoseOfTheProcess) {
    List expected;
    FILE* const file = setmntent("/proc/self/mounts", "re");
    ASSERT_NE(nullptr, file);
    while (mntent const* const entry = getmntent(file)) {
        expected.emplace_back(entry->mnt_dir);
    }
    endmntent(file);
    EXPECT_FALSE(expected.empty());
    if (std::none_of(expected.begin(), expected.end(), [](std::string const& path) {
            return path.find_first_of(" \t\n\\") != std::string::npos;
        })) {
        EXPECT_EQ(expected, FileSys::getMountPoints());
    }
    EXPECT_EQ(expected.size(), FileSys::getMountPoints().size());
}

TEST(FileSysMountPoints, realMountPointWithABlankStaysEscaped) {
    VESK_SKIP_WITHOUT_MOUNTS();
    TempFolder const folder;
    std::string const where = folder.makeFolder("a b");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        List const list = FileSys::getMountPoints();
        EXPECT_EQ(1, std::count(list.begin(), list.end(), folder / "a\\040b"));
        EXPECT_EQ(0, std::count(list.begin(), list.end(), where));
    });
}

TEST(FileSysMountPoints, manyRealMountsAreNeverSplit) {
    VESK_SKIP_WITHOUT_MOUNTS();
    TempFolder const folder;
    std::string const where = folder.makeFolder(std::string(100, 'm'));
    expectInChild([&] {
        ASSERT_TRUE(separateMounts());
        constexpr int MANY = 100;
        for (int i = 0; i < MANY; ++i) {
            ASSERT_TRUE(mountMemory(where)) << strerror(errno);
        }
        List const list = FileSys::getMountPoints();
        EXPECT_EQ(MANY, std::count(list.begin(), list.end(), where));
    });
}

TEST(FileSysMountPoints, listIsEmptyWithoutProc) {
    VESK_SKIP_WITHOUT_MOUNTS();
    expectInChild([] {
        ASSERT_TRUE(separateMounts() && mountMemory("/proc")) << strerror(errno);
        EXPECT_EQ(List{}, FileSys::getMountPoints());
        EXPECT_TRUE(chainIs({}));
    });
}

} // namespace
