#include "support/Chain.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <vesk/FileSys.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorOutput.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <mntent.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

/// What the file of the mounts is to be, instead of the real one.
struct FakeMounts {
    std::string path;                ///< A file to read in its place.
    std::vector<size_t> chunks = {}; ///< How much each read gives at most; those behind the last give all.
    int fail_read = 0;               ///< Which read fails with EIO, counted from 1.

    int fd = -1;
    int flags = 0;
    std::vector<size_t> reads = {}; ///< The sizes that were asked for.
    bool closed = false;
};
FakeMounts* s_fake = nullptr;

} // namespace

support::Injected inject_open("open");
extern "C" VESK_UNWATCHED int open(char const* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    int const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    auto const real = reinterpret_cast<int (*)(char const*, int, ...)>(inject_open.getReal());
    if (strcmp(path, "/proc/mounts") != 0) {
        return real(path, flags, mode);
    }
    int error = 0;
    if (inject_open.fails(error)) {
        errno = error;
        return -1;
    }
    if (s_fake == nullptr) {
        return real(path, flags, mode);
    }
    s_fake->flags = flags;
    s_fake->fd = real(s_fake->path.c_str(), flags, mode);
    return s_fake->fd;
}

support::Injected inject_read("read");
extern "C" VESK_UNWATCHED ssize_t read(int fd, void* buffer, size_t size) {
    if (s_fake != nullptr && fd == s_fake->fd) {
        size_t const index = s_fake->reads.size();
        s_fake->reads.push_back(size);
        if (index + 1 == static_cast<size_t>(s_fake->fail_read)) {
            errno = EIO;
            return -1;
        }
        if (index < s_fake->chunks.size()) {
            size = std::min(size, s_fake->chunks[index]);
        }
    }
    return reinterpret_cast<ssize_t (*)(int, void*, size_t)>(inject_read.getReal())(fd, buffer, size);
}

/// Closes first, and fails then.
support::Injected inject_close("close");
extern "C" VESK_UNWATCHED int close(int fd) {
    if (s_fake != nullptr && fd == s_fake->fd) {
        s_fake->closed = true;
    }
    int const result = reinterpret_cast<int (*)(int)>(inject_close.getReal())(fd);
    int error = 0;
    if (inject_close.fails(error)) {
        errno = error;
        return -1;
    }
    return result;
}

namespace {

using support::chainIs;
using support::EventRecorder;
using support::expectInChild;
using support::Fault;
using support::mountMemory;
using support::separateMounts;
using support::TempFolder;
using vesk::FileSys;

using List = std::list<std::string>;

/// The mount points of a file with this content.
class FileSysMountPointsTest : public testing::Test {
protected:
    ~FileSysMountPointsTest() override { s_fake = nullptr; }

    List parse(std::string const& content, std::vector<size_t> const& chunks = {}, int fail_read = 0) {
        m_fake = FakeMounts{m_folder.makeFile("mounts", content), chunks, fail_read};
        s_fake = &m_fake;
        List list = FileSys::getMountPoints();
        s_fake = nullptr;
        EXPECT_TRUE(m_fake.closed);
        EXPECT_TRUE(chainIs({}));
        return list;
    }

    TempFolder m_folder;
    FakeMounts m_fake;
};

// ---- Lines ----

TEST_F(FileSysMountPointsTest, areTheSecondFieldsInTheOrderOfTheFile) {
    EXPECT_EQ(
        (List{"/", "/proc", "/a"}),
        parse("/dev/root / ext4 rw 0 0\nproc /proc proc rw 0 0\nnone /a tmpfs rw,size=64k 0 0\n"));
    EXPECT_EQ(O_RDONLY | O_CLOEXEC, m_fake.flags);
    EXPECT_EQ((std::vector<size_t>{4096, 4096}), m_fake.reads);
}

TEST_F(FileSysMountPointsTest, blankInAMountPointStaysEscaped) {
    EXPECT_EQ(
        (List{"/a\\040b", "/tab\\011\\134"}),
        parse("none /a\\040b tmpfs rw 0 0\nx /tab\\011\\134 t r 0 0\n"));
}

TEST_F(FileSysMountPointsTest, sameMountPointTwiceIsListedTwice) {
    EXPECT_EQ((List{"/a", "/a"}), parse("x /a t r 0 0\ny /a t r 0 0\n"));
}

TEST_F(FileSysMountPointsTest, emptyFileHasNone) {
    EXPECT_EQ(List{}, parse(""));
    EXPECT_EQ(1U, m_fake.reads.size());
}

TEST_F(FileSysMountPointsTest, lastLineNeedsNoEnd) {
    EXPECT_EQ((List{"/a", "/b"}), parse("x /a t r 0 0\ny /b t r 0 0"));
    EXPECT_EQ((List{"/a", "/b"}), parse("x /a t r 0 0\ny /b "));
    EXPECT_EQ((List{"/a", "/b"}), parse("x /a t r 0 0\ny /b"));
    EXPECT_EQ((List{"/a"}), parse("x /a t r 0 0\ny "));
    EXPECT_EQ((List{"/a"}), parse("x /a t r 0 0\ny"));
}

TEST_F(FileSysMountPointsTest, emptySecondFieldIsNoMountPoint) {
    EXPECT_EQ((List{"/b"}), parse("x  t r 0 0\ny /b t r 0 0\nz  t\n"));
}

TEST_F(FileSysMountPointsTest, fieldsEndOnlyWithABlank) {
    EXPECT_EQ((List{"/a"}), parse("no-blank\n\nx /a t r 0 0\n"))
        << "the first field goes on over the ends of lines";
    EXPECT_EQ((List{"/a\ny"}), parse("x /a\ny t r 0 0\n")) << "and so does the second one";
    EXPECT_EQ((List{"/a\tb"}), parse("x /a\tb t r 0 0\n")) << "a tabulator is no blank";
}

// ---- Borders of chunks ----

TEST_F(FileSysMountPointsTest, manyLinesComeThroughManyChunksThatEndWithALine) {
    // As the kernel gives them.
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
    std::string const before = "none /first t r 0 0\nnone ";
    std::string const after = " tmpfs rw 0 0\nx /last t r 0 0\n";
    std::string const content = before + "/mnt" + after;
    for (size_t border = 1; border < content.size(); ++border) {
        List expected{"/first", "/mnt", "/last"};
        auto const split = [&](char const* whole) {
            size_t const start = content.find(whole);
            if (border > start && border < start + strlen(whole)) {
                auto const at = std::find(expected.begin(), expected.end(), whole);
                expected.insert(at, content.substr(start, border - start));
                *at = content.substr(border, start + strlen(whole) - border);
            }
        };
        split("/first");
        split("/mnt");
        split("/last");
        EXPECT_EQ(expected, parse(content, {border})) << "border at " << border;
    }
}

TEST_F(FileSysMountPointsTest, everyBorderInAMountPointSplitsItAgain) {
    EXPECT_EQ((List{"/", "a", "b", "/c"}), parse("x /ab t\ny /c t\n", {3, 1, 1}));
}

TEST_F(FileSysMountPointsTest, borderOfARealChunkSplitsToo) {
    std::string const device(4096 - 3, 'd');
    EXPECT_EQ((List{"/m", "nt", "/a"}), parse(device + " /mnt t r 0 0\nx /a t r 0 0\n"));
}

TEST_F(FileSysMountPointsTest, lineMayBeLongerThanAChunk) {
    std::string const options(10000, 'o');
    EXPECT_EQ((List{"/a", "/b"}), parse("x /a t " + options + " 0 0\ny /b t r 0 0\n"));
    std::string const device(10000, 'd');
    EXPECT_EQ((List{"/a"}), parse(device + " /a t r 0 0\n"));
}

// ---- Failures ----

TEST_F(FileSysMountPointsTest, withoutTheFileTheListIsEmptyAndNothingIsReported) {
    for (int const error : {ENOENT, EACCES, EMFILE, EINTR}) {
        Fault const fault(inject_open, error);
        EXPECT_EQ(List{}, FileSys::getMountPoints());
        EXPECT_EQ(1, fault.getCalls());
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(FileSysMountPointsTest, pendingErrorStaysAsItWas) {
    std::ErrorOutput("older", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
    {
        Fault const fault(inject_open, ENOENT);
        EXPECT_EQ(List{}, FileSys::getMountPoints());
    }
    EXPECT_TRUE(chainIs({{vesk::SysErrorId::NO_SUCH_PROCESS}}));
}

TEST_F(FileSysMountPointsTest, errorWhileReadingIsTakenForTheEnd) {
    std::string const content = "x /a t r 0 0\ny /b t r 0 0\n";
    EXPECT_EQ(List{}, parse(content, {}, 1));
    EXPECT_EQ((List{"/a"}), parse(content, {13}, 2)) << "between two lines";
    EXPECT_EQ((List{"/"}), parse(content, {3}, 2)) << "in the midst of a mount point";
    EXPECT_EQ(2U, m_fake.reads.size()) << "and that is the end";
}

TEST_F(FileSysMountPointsTest, failedCloseTripsAnAssertionAndTheListIsGivenAllTheSame) {
    m_fake.path = m_folder.makeFile("mounts", "x /a t r 0 0\n");
    s_fake = &m_fake;
    EventRecorder const recorder;
    Fault const fault(inject_close, EIO);
    List const list = FileSys::getMountPoints();
    s_fake = nullptr;
    EXPECT_EQ(List{"/a"}, list);
    ASSERT_EQ(1U, recorder.getCount());
    support::RecordedEvent const event = recorder.getEvents().front();
    EXPECT_EQ(std::GlobalErrorHandler::Kind::ASSERT, event.kind);
    EXPECT_EQ("mount_fd == 0", event.expression);
    EXPECT_EQ("framework/src/vesk/linux/FileSys", event.file);
    EXPECT_EQ("getMountPoints", event.function);
    EXPECT_EQ("", event.message);
    EXPECT_TRUE(chainIs({}));
}

// ---- The real file ----

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

TEST(FileSysMountPoints, realMountPointWithABlankIsShownEscaped) {
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

TEST(FileSysMountPoints, areNoneWithoutProc) {
    VESK_SKIP_WITHOUT_MOUNTS();
    expectInChild([] {
        ASSERT_TRUE(separateMounts() && mountMemory("/proc")) << strerror(errno);
        EXPECT_EQ(List{}, FileSys::getMountPoints());
        EXPECT_TRUE(chainIs({}));
    });
}

} // namespace
