#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/TempFolder.h"

#include <vesk/Directory.h>
#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

VESK_INJECT_ERRNO(dirent*, nullptr, readdir, (DIR * dir), (dir))
VESK_INJECT_ERRNO(int, -1, closedir, (DIR * dir), (dir))
VESK_INJECT_ERRNO(
    int, -1, fstatat, (int fd, char const* path, struct stat* data, int flags), (fd, path, data, flags))

namespace {
// What the open or openat before had for flags, and the fdopendir for a result.
int s_flags = -1;
DIR* s_stream = nullptr;
// The descriptors that are closed while it is on.
std::vector<int>* s_closed = nullptr;
} // namespace

VESK_INJECT_OPEN(s_flags = flags)

support::Injected inject_openat("openat");
extern "C" VESK_UNWATCHED int openat(int fd, char const* path, int flags, ...) {
    int error = 0;
    if (inject_openat.fails(error)) {
        errno = error;
        return -1;
    }
    s_flags = flags;
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return reinterpret_cast<int (*)(int, char const*, int, ...)>(inject_openat.getReal())(
        fd, path, flags, mode);
}

support::Injected inject_fdopendir("fdopendir");
extern "C" VESK_UNWATCHED DIR* fdopendir(int fd) {
    int error = 0;
    if (inject_fdopendir.fails(error)) {
        errno = error;
        return nullptr;
    }
    s_stream = reinterpret_cast<DIR* (*)(int)>(inject_fdopendir.getReal())(fd);
    return s_stream;
}

support::Injected inject_close("close");
extern "C" VESK_UNWATCHED int close(int fd) {
    if (s_closed != nullptr) {
        s_closed->push_back(fd);
    }
    int error = 0;
    if (inject_close.fails(error)) {
        errno = error;
        return -1;
    }
    return reinterpret_cast<int (*)(int)>(inject_close.getReal())(fd);
}

namespace {

using support::AllocationCounter;
using support::chainIs;
using support::ChildEnd;
using support::EventRecorder;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::runInChild;
using support::systemText;
using support::TempFolder;
using vesk::Directory;
using vesk::DirectoryHandle;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::FileInfo;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

static_assert(std::is_base_of_v<vesk::RefCounted, Directory>);
// The base, two flags, then the handle.
static_assert(sizeof(Directory) == sizeof(vesk::RefCounted) + sizeof(void*) + sizeof(DirectoryHandle));
static_assert(sizeof(DirectoryHandle) == 3 * sizeof(void*));

/// What is closed by `close` while it lives.
class Closed {
public:
    Closed() { s_closed = &m_fds; }
    ~Closed() { s_closed = nullptr; }
    std::vector<int> const& get() const { return m_fds; }

private:
    std::vector<int> m_fds;
};

/// The names as the system itself lists them.
std::vector<std::string> listBare(std::string const& path) {
    std::vector<std::string> names;
    DIR* const dir = opendir(path.c_str());
    EXPECT_NE(nullptr, dir);
    while (dirent const* const entry = readdir(dir)) {
        names.emplace_back(entry->d_name);
    }
    closedir(dir);
    return names;
}

/// The names from the current entry to the end.
std::vector<std::string> list(Directory& directory) {
    std::vector<std::string> names;
    while (!directory.atEnd()) {
        names.emplace_back(directory.curName());
        directory.next();
    }
    return names;
}

/// Moves to the entry with this name.
void moveTo(Directory& directory, std::string const& name) {
    while (!directory.atEnd() && name != directory.curName()) {
        directory.next();
    }
    ASSERT_FALSE(directory.atEnd()) << name;
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Has a child give up the rights of root before it goes on.
void dropRights() {
    ASSERT_EQ(0, setgroups(0, nullptr));
    ASSERT_EQ(0, setresgid(65534, 65534, 65534));
    ASSERT_EQ(0, setresuid(65534, 65534, 65534));
}

ExpectedReport sysReport(int row, int error) {
    return {SysError, row, rowText(SysError, row, systemText(error))};
}

ExpectedReport accessReport(int row, std::string const& path) {
    return {FileAccessError, row, rowText(FileAccessError, row, path)};
}

char const* const AT_END_INFO = "curInfo() called on directory with atEnd() == true";
char const* const AT_END_DIR = "curDir() called on directory with atEnd() == true";

ExpectedReport commonReport(std::string const& text) {
    return {
        std::CommonError, std::CommonErrorId::CONTRACT_BROKEN,
        rowText(std::CommonErrorId::CONTRACT_BROKEN, text)};
}

void expectInvalidAndZeroed(FileInfo const& info) {
    EXPECT_FALSE(info.isValid());
    struct stat zeros;
    memset(&zeros, 0, sizeof zeros);
    EXPECT_EQ(0, memcmp(&zeros, &info.getStat(), sizeof zeros));
}

class DirectoryTest : public testing::Test {
protected:
    TempFolder m_folder;
};

// ---- The walk ----

TEST_F(DirectoryTest, standsOnItsFirstEntryWhenItIsOpen) {
    m_folder.makeFile("file");
    Directory const directory(m_folder.getPath(), false);
    EXPECT_TRUE(directory.isValid());
    EXPECT_FALSE(directory.atEnd());
    EXPECT_EQ(listBare(m_folder.getPath()).front(), directory.curName());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, entriesComeInTheSystemsOrderAndNothingIsHidden) {
    std::set<std::string> names = {".", "..", ".hidden"};
    m_folder.makeFile(".hidden");
    for (int i = 0; i < 500; ++i) {
        std::string const name = "entry with a long name, so that they fill more than one buffer, " +
            std::to_string(i * 7919 % 500);
        m_folder.makeFile(name);
        names.insert(name);
    }
    Directory directory(m_folder.getPath(), false);
    std::vector<std::string> const listed = list(directory);
    EXPECT_EQ(listBare(m_folder.getPath()), listed);
    EXPECT_EQ(names.size(), listed.size());
    EXPECT_EQ(names, std::set<std::string>(listed.begin(), listed.end()));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, walkOfAnEmptyDirectoryGivesDotAndDotDotAndThenOne) {
    Directory directory(m_folder.getPath(), false);
    std::set<std::string> names = {directory.curName()};
    EXPECT_EQ(0, directory.next());
    EXPECT_FALSE(directory.atEnd());
    names.insert(directory.curName());
    EXPECT_EQ((std::set<std::string>{".", ".."}), names);
    EXPECT_EQ(1, directory.next());
    EXPECT_TRUE(directory.atEnd());
    EXPECT_TRUE(directory.isValid());
    EXPECT_TRUE(chainIs({})) << "an end is no failure";
}

TEST_F(DirectoryTest, theEndIsAskedForAgainAndKeepsTheLastName) {
    Directory directory(m_folder.getPath(), false);
    std::string last;
    while (!directory.atEnd()) {
        last = directory.curName();
        directory.next();
    }
    Fault const calls(inject_readdir, 0);
    EXPECT_EQ(1, directory.next());
    EXPECT_EQ(1, directory.next());
    EXPECT_EQ(2, calls.getCalls());
    EXPECT_EQ(last, directory.curName());
    EXPECT_TRUE(directory.atEnd());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, aNumberFromBeforeIsNoFailureAtTheEnd) {
    Directory directory(m_folder.getPath(), false);
    directory.next();
    errno = EIO;
    EXPECT_EQ(1, directory.next());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, processesAreFoundInProc) {
    Directory directory("/proc", false);
    ASSERT_TRUE(directory.isValid());
    moveTo(directory, std::to_string(getpid()));
    EXPECT_TRUE(directory.curInfo(false).isDirectory());
    Directory process(directory.curDir(false));
    moveTo(process, "stat");
    EXPECT_TRUE(process.curInfo(false).isRegularFile());
}

TEST_F(DirectoryTest, aWalkDoesNotUseTheHeap) {
    m_folder.makeFile("file");
    Directory directory(m_folder.getPath(), false);
    AllocationCounter const allocations;
    while (!directory.atEnd()) {
        EXPECT_TRUE(directory.curInfo(false).isValid());
        Directory const copy(directory);
        directory.next();
    }
    EXPECT_EQ(0, allocations.getCount());
}

// ---- Opening ----

TEST_F(DirectoryTest, isOpenedForReadingWithNoOtherFlag) {
    for (bool const no_effect : {false, true}) {
        Directory const directory(m_folder.getPath(), no_effect);
        EXPECT_TRUE(directory.isValid());
        EXPECT_EQ(O_RDONLY, s_flags);
    }
}

TEST_F(DirectoryTest, aPathThatIsALinkIsFollowed) {
    std::string const path = m_folder.makeFolder("folder");
    m_folder.makeLink("link", "folder");
    m_folder.makeFile("folder/file");
    for (bool const no_effect : {false, true}) {
        Directory directory(m_folder / "link", no_effect);
        ASSERT_TRUE(directory.isValid());
        EXPECT_EQ(listBare(path), list(directory));
    }
}

TEST_F(DirectoryTest, handleShowsDescriptorStreamAndEntry) {
    Directory directory(m_folder.getPath(), false);
    DirectoryHandle const& handle = directory.getHandle();
    EXPECT_EQ(s_stream, handle.dir);
    EXPECT_EQ(dirfd(handle.dir), handle.fd);
    EXPECT_EQ(directory.curName(), handle.entry->d_name);
    struct stat bare;
    ASSERT_EQ(0, stat(m_folder.getPath().c_str(), &bare));
    struct stat of_handle;
    ASSERT_EQ(0, fstat(handle.fd, &of_handle));
    EXPECT_EQ(bare.st_ino, of_handle.st_ino);
}

TEST_F(DirectoryTest, descriptorsStayOpenForANewProgram) {
    m_folder.makeFolder("folder");
    Directory by_path(m_folder.getPath(), false);
    Directory const by_name(by_path, "folder", true, false);
    moveTo(by_path, "folder");
    Directory const by_entry(by_path.curDir(false));
    for (Directory const* const directory : std::vector<Directory const*>{&by_path, &by_name, &by_entry}) {
        ASSERT_TRUE(directory->isValid());
        EXPECT_EQ(0, fcntl(directory->getHandle().fd, F_GETFD));
    }
    std::string const path = "/proc/self/fd/" + std::to_string(by_path.getHandle().fd);
    ChildEnd const end = runInChild([&path] { execlp("readlink", "readlink", path.c_str(), nullptr); });
    EXPECT_EQ(m_folder.getPath() + "\n", end.output) << end.errors;
}

TEST_F(DirectoryTest, aPlainFileIsNoDirectoryAndItsDescriptorIsClosedAgain) {
    std::string const path = m_folder.makeFile("file");
    Closed const closed;
    Directory const directory(path, false);
    EXPECT_TRUE(chainIs({sysReport(3, ENOTDIR), accessReport(1, path)}));
    EXPECT_FALSE(directory.isValid());
    EXPECT_FALSE(directory.atEnd());
    EXPECT_EQ(1u, closed.get().size());
    EXPECT_EQ(-1, directory.getHandle().fd);
}

TEST_F(DirectoryTest, aPathThatDoesNotExistIsBad) {
    std::string const path = m_folder / "nothing";
    EXPECT_FALSE(Directory(path, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, path)}));
    EXPECT_FALSE(Directory(std::string(), false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, "")}));
}

TEST_F(DirectoryTest, aLoopOfLinksIsABadPath) {
    m_folder.makeLink("a", "b");
    std::string const path = m_folder.makeLink("b", "a");
    EXPECT_FALSE(Directory(path, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ELOOP), accessReport(0, path)}));
    Directory const parent(m_folder.getPath(), false);
    EXPECT_FALSE(Directory(parent, "a", true, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ELOOP), accessReport(0, "a")}));
}

TEST_F(DirectoryTest, aNameThatIsTooLongIsABadPath) {
    // Reports are shorter than that.
    std::string const path = m_folder / std::string(5000, 'x');
    EXPECT_FALSE(Directory(path, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENAMETOOLONG), {FileAccessError, FileAccessErrorId::BAD_PATH}}));
    Directory const parent(m_folder.getPath(), false);
    std::string const name(256, 'y');
    EXPECT_FALSE(Directory(parent, name, true, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENAMETOOLONG), accessReport(0, name)}));
}

TEST_F(DirectoryTest, whoeverMayNotReadADirectoryIsDeniedIt) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give up rights";
    }
    std::string const locked = m_folder.makeFolder("locked");
    ASSERT_EQ(0, chmod(locked.c_str(), 0));
    ChildEnd const end = runInChild([&] {
        Directory parent(m_folder.getPath(), false);
        dropRights();
        EXPECT_FALSE(Directory(locked, false).isValid());
        EXPECT_TRUE(chainIs({sysReport(7, EACCES), accessReport(3, locked)}));
        EXPECT_FALSE(Directory(parent, "locked", true, false).isValid());
        EXPECT_TRUE(chainIs({sysReport(7, EACCES), accessReport(3, "locked")}));
        moveTo(parent, "locked");
        EXPECT_FALSE(parent.curDir(false).isValid());
        EXPECT_TRUE(chainIs({sysReport(7, EACCES)}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST_F(DirectoryTest, whoeverMayOnlyListADirectoryIsToldNothingOfItsEntries) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give up rights";
    }
    std::string const listed = m_folder.makeFolder("listed");
    m_folder.makeFile("listed/file");
    ASSERT_EQ(0, chmod(listed.c_str(), 0444));
    ChildEnd const end = runInChild([&] {
        dropRights();
        Directory directory(listed, false);
        ASSERT_TRUE(directory.isValid());
        moveTo(directory, "file");
        expectInvalidAndZeroed(directory.curInfo(false));
        EXPECT_TRUE(chainIs({sysReport(19, EACCES)}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST_F(DirectoryTest, aProcessOutOfDescriptorsCannotOpenADirectory) {
    m_folder.makeFolder("folder");
    ChildEnd const end = runInChild([&] {
        Directory directory(m_folder.getPath(), false);
        moveTo(directory, "folder");
        auto const openAll = [&](std::vector<ExpectedReport> const& of_path, auto const& of_name) {
            EXPECT_EQ(of_path.empty(), Directory(m_folder.getPath(), false).isValid());
            EXPECT_TRUE(chainIs(of_path));
            EXPECT_EQ(of_path.empty(), Directory(directory, "folder", true, false).isValid());
            EXPECT_TRUE(chainIs(of_name));
            EXPECT_EQ(of_path.empty(), directory.curDir(true).isValid());
            EXPECT_TRUE(chainIs(of_path.empty() ? of_path : std::vector{of_path[0]}));
        };
        // Also for the sanitizers, which need descriptors when they meet a type for the first time.
        openAll({}, std::vector<ExpectedReport>());
        int const next = dup(STDIN_FILENO);
        close(next);
        rlimit limit;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        limit.rlim_cur = static_cast<rlim_t>(next);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        openAll(
            {sysReport(0, EMFILE), accessReport(6, m_folder.getPath())},
            std::vector{sysReport(0, EMFILE), accessReport(6, "folder")});
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

/// A number of an open, and what is reported of it.
struct OpenRow {
    int error;
    int sys_row;
    int access_row;
};

void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class DirectoryOpenRows : public DirectoryTest, public testing::WithParamInterface<OpenRow> {
protected:
    void expectReports(std::string const& path) {
        OpenRow const& row = GetParam();
        EXPECT_TRUE(chainIs({sysReport(row.sys_row, row.error), accessReport(row.access_row, path)}));
    }
    static void expectInvalid(Directory const& directory) {
        EXPECT_FALSE(directory.isValid());
        EXPECT_FALSE(directory.atEnd());
        EXPECT_EQ(-1, directory.getHandle().fd);
        EXPECT_STREQ("", directory.curName());
    }
};

TEST_P(DirectoryOpenRows, ofAPathThatCannotBeOpened) {
    Closed const closed;
    Fault const fault(inject_open, GetParam().error);
    Directory const directory(m_folder.getPath(), false);
    expectReports(m_folder.getPath());
    expectInvalid(directory);
    EXPECT_EQ(1, fault.getCalls()) << "nothing is repeated";
    EXPECT_TRUE(closed.get().empty());
}

TEST_P(DirectoryOpenRows, ofAPathThatGivesNoStream) {
    Closed const closed;
    Fault const fault(inject_fdopendir, GetParam().error);
    Directory const directory(m_folder.getPath(), false);
    expectReports(m_folder.getPath());
    expectInvalid(directory);
    EXPECT_EQ(1, fault.getCalls());
    ASSERT_EQ(1u, closed.get().size());
    EXPECT_FALSE(isOpen(closed.get()[0]));
}

TEST_P(DirectoryOpenRows, ofANameThatCannotBeOpened) {
    Directory const parent(m_folder.getPath(), false);
    Closed const closed;
    Fault const fault(inject_openat, GetParam().error);
    Directory const directory(parent, ".", true, false);
    expectReports(".");
    expectInvalid(directory);
    EXPECT_EQ(1, fault.getCalls()) << "nothing is repeated";
    EXPECT_TRUE(closed.get().empty());
}

TEST_P(DirectoryOpenRows, ofANameThatGivesNoStream) {
    Directory const parent(m_folder.getPath(), false);
    Closed const closed;
    Fault const fault(inject_fdopendir, GetParam().error);
    Directory const directory(parent, ".", true, false);
    expectReports(".");
    expectInvalid(directory);
    EXPECT_EQ(1, fault.getCalls());
    ASSERT_EQ(1u, closed.get().size());
    EXPECT_FALSE(isOpen(closed.get()[0]));
}

INSTANTIATE_TEST_SUITE_P(
    Table, DirectoryOpenRows,
    testing::Values(
        OpenRow{ENOENT, 2, 0}, OpenRow{ENAMETOOLONG, 2, 0}, OpenRow{ELOOP, 2, 0}, //
        OpenRow{EACCES, 7, 3},                                                    //
        OpenRow{ENOTDIR, 3, 1},                                                   //
        OpenRow{ENFILE, 0, 6}, OpenRow{EMFILE, 0, 6},                             //
        OpenRow{EINTR, 19, 9}, OpenRow{EPERM, 19, 9}, OpenRow{ENOMEM, 19, 9}, OpenRow{EIO, 19, 9},
        OpenRow{ENXIO, 19, 9}, OpenRow{EOVERFLOW, 19, 9}, OpenRow{9999, 19, 9}));

TEST_F(DirectoryTest, aDescriptorThatCannotBeClosedAfterAFailureEndsTheProcess) {
    std::string const path = m_folder.makeFile("file");
    for (int const error : {EIO, EINTR}) {
        EventRecorder const events;
        Closed const closed;
        {
            Fault const fault(inject_close, error);
            EXPECT_FALSE(Directory(path, false).isValid());
            EXPECT_EQ(1, fault.getCalls());
        }
        EXPECT_EQ(
            "ABORT framework/src/vesk/posix/Directory Directory: Error closing dir FD", events.getText());
        EXPECT_TRUE(chainIs({sysReport(3, ENOTDIR), accessReport(1, path)}));
        ASSERT_EQ(1u, closed.get().size());
        EXPECT_EQ(0, close(closed.get()[0]));
    }
    ChildEnd const end = runInChild([&path] {
        Fault const fault(inject_close, EIO);
        Directory const directory(path, false);
    });
    EXPECT_EQ(SIGABRT, end.signal);
}

// ---- Opening within a directory ----

TEST_F(DirectoryTest, anEntryOfADirectoryIsOpenedByItsName) {
    m_folder.makeFolder("folder");
    m_folder.makeFile("folder/file");
    Directory const parent(m_folder.getPath(), false);
    std::string const current = parent.curName();
    for (bool const no_effect : {false, true}) {
        for (bool const follow : {false, true}) {
            Directory directory(parent, "folder", follow, no_effect);
            EXPECT_TRUE(directory.isValid());
            EXPECT_EQ(follow ? 0 : O_NOFOLLOW, s_flags);
            EXPECT_EQ(listBare(m_folder / "folder"), list(directory));
        }
    }
    EXPECT_EQ(current, parent.curName()) << "the parent does not move";
    EXPECT_TRUE(Directory(parent, "..", false, false).isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, aParentMayHaveBeenRenamedAndBeAtItsEnd) {
    m_folder.makeFolder("before");
    m_folder.makeFolder("before/child");
    Directory parent(m_folder / "before", false);
    list(parent);
    ASSERT_TRUE(parent.atEnd());
    std::filesystem::rename(m_folder / "before", m_folder / "after");
    EXPECT_TRUE(Directory(parent, "child", true, false).isValid());
}

TEST_F(DirectoryTest, aChildLivesOnWithoutItsParent) {
    m_folder.makeFolder("folder");
    m_folder.makeFile("folder/file");
    auto parent = std::make_unique<Directory>(m_folder.getPath(), false);
    Directory by_name(*parent, "folder", true, false);
    moveTo(*parent, "folder");
    Directory by_entry(parent->curDir(true));
    parent.reset();
    EXPECT_EQ(listBare(m_folder / "folder"), list(by_name));
    EXPECT_EQ(listBare(m_folder / "folder"), list(by_entry));
}

TEST_F(DirectoryTest, aNameThatIsALinkIsFollowedOnlyIfItIsToBe) {
    m_folder.makeFolder("folder");
    m_folder.makeLink("link", "folder");
    Directory const parent(m_folder.getPath(), false);
    EXPECT_TRUE(Directory(parent, "link", true, false).isValid());
    EXPECT_FALSE(Directory(parent, "link", false, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ELOOP), accessReport(0, "link")}));
}

TEST_F(DirectoryTest, aNameThatIsAFileIsNoDirectory) {
    m_folder.makeFile("file");
    Directory const parent(m_folder.getPath(), false);
    EXPECT_FALSE(Directory(parent, "file", true, false).isValid());
    EXPECT_TRUE(chainIs({sysReport(3, ENOTDIR), accessReport(1, "file")}));
}

TEST_F(DirectoryTest, anEntryNameIsOneComponent) {
    Directory const parent(m_folder.getPath(), false);
    Fault const calls(inject_openat, 0);
    for (char const* const name : {"", "/", "a/b", "/tmp", "./", "a/"}) {
        Directory const directory(parent, name, true, false);
        EXPECT_TRUE(chainIs({commonReport("Directory c'tor called on invalid entry-name.")})) << name;
        EXPECT_FALSE(directory.isValid());
        EXPECT_FALSE(directory.atEnd());
    }
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(DirectoryTest, aParentIsValid) {
    Directory const parent(m_folder / "nothing", false);
    std::ErrorStorage::ack();
    Fault const calls(inject_openat, 0);
    Directory const directory(parent, "a", true, false);
    EXPECT_TRUE(chainIs({commonReport("Directory c'tor called on invalid directory.")}));
    EXPECT_FALSE(directory.isValid());
    EXPECT_FALSE(directory.atEnd());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(DirectoryTest, theNameIsLookedAtBeforeTheParent) {
    Directory const parent(m_folder / "nothing", false);
    std::ErrorStorage::ack();
    Directory const directory(parent, "a/b", true, false);
    EXPECT_TRUE(chainIs({commonReport("Directory c'tor called on invalid entry-name.")}));
}

// ---- Taking over a descriptor ----

TEST_F(DirectoryTest, aDescriptorIsTakenOver) {
    m_folder.makeFile("file");
    DirectoryHandle handle;
    handle.fd = open(m_folder.getPath().c_str(), O_RDONLY);
    handle.dir = reinterpret_cast<DIR*>(&handle); // Nobody looks at it.
    int const fd = handle.fd;
    {
        Directory directory(&handle);
        EXPECT_TRUE(directory.isValid());
        EXPECT_FALSE(directory.atEnd());
        EXPECT_EQ(fd, directory.getHandle().fd);
        EXPECT_EQ(s_stream, directory.getHandle().dir);
        handle.fd = -1;
        EXPECT_EQ(listBare(m_folder.getPath()), list(directory));
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, aDescriptorOfAFileStaysTheCallers) {
    DirectoryHandle handle;
    handle.fd = open(m_folder.makeFile("file").c_str(), O_RDONLY);
    {
        Closed const closed;
        Directory const directory(&handle);
        EXPECT_TRUE(chainIs({sysReport(3, ENOTDIR)}));
        EXPECT_FALSE(directory.isValid());
        EXPECT_FALSE(directory.atEnd());
        EXPECT_TRUE(closed.get().empty());
    }
    EXPECT_EQ(0, close(handle.fd));
}

TEST_F(DirectoryTest, noDescriptorIsNoDirectory) {
    DirectoryHandle const handle;
    EXPECT_FALSE(Directory(&handle).isValid());
    EXPECT_TRUE(chainIs({sysReport(19, EBADF)}));
}

/// A number, and the row of the one report that is made of it.
struct SysRow {
    int error;
    int row;
};

void PrintTo(SysRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class DirectoryTakeOverRows : public DirectoryTest, public testing::WithParamInterface<SysRow> {};

TEST_P(DirectoryTakeOverRows, areReportedWithoutAPathAndLeaveTheDescriptorOpen) {
    DirectoryHandle handle;
    handle.fd = open(m_folder.getPath().c_str(), O_RDONLY);
    {
        Closed const closed;
        Fault const fault(inject_fdopendir, GetParam().error);
        Directory const directory(&handle);
        EXPECT_TRUE(chainIs({sysReport(GetParam().row, GetParam().error)}));
        EXPECT_FALSE(directory.isValid());
        EXPECT_FALSE(directory.atEnd());
        EXPECT_TRUE(closed.get().empty());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_EQ(0, close(handle.fd));
}

INSTANTIATE_TEST_SUITE_P(
    Table, DirectoryTakeOverRows,
    testing::Values(
        SysRow{EACCES, 7},                    //
        SysRow{ENOTDIR, 3},                   //
        SysRow{ENFILE, 0}, SysRow{EMFILE, 0}, //
        SysRow{EBADF, 19}, SysRow{ENOENT, 19}, SysRow{ELOOP, 19}, SysRow{ENOMEM, 19}, SysRow{EINTR, 19}));

// ---- next ----

class DirectoryNextRows : public DirectoryTest, public testing::WithParamInterface<SysRow> {};

TEST_P(DirectoryNextRows, endTheWalkAndKeepTheEntry) {
    Directory directory(m_folder.getPath(), false);
    std::string const name = directory.curName();
    Fault const fault(inject_readdir, GetParam().error);
    EXPECT_EQ(-1, directory.next());
    EXPECT_TRUE(chainIs({sysReport(GetParam().row, GetParam().error)}));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(directory.atEnd());
    EXPECT_TRUE(directory.isValid());
    EXPECT_EQ(name, directory.curName());
    EXPECT_FALSE(directory.curInfo(false).isValid());
    EXPECT_TRUE(chainIs({commonReport(AT_END_INFO)}));
}

TEST_P(DirectoryNextRows, leaveADirectoryInvalidWhoseFirstEntryTheyConcern) {
    m_folder.makeFolder("folder");
    Directory parent(m_folder.getPath(), false);
    moveTo(parent, "folder");
    DirectoryHandle handle;
    handle.fd = open(m_folder.getPath().c_str(), O_RDONLY);
    std::vector<ExpectedReport> const reports = {sysReport(GetParam().row, GetParam().error)};

    auto const expectGivenUp = [&](auto make) {
        EventRecorder const events;
        Closed const closed;
        Fault const calls(inject_closedir, 0);
        Fault const fault(inject_readdir, GetParam().error);
        {
            Directory const directory(make());
            EXPECT_TRUE(chainIs(reports)) << "as it was before the clean-up";
            EXPECT_FALSE(directory.isValid());
            EXPECT_TRUE(directory.atEnd());
            EXPECT_EQ(-1, directory.getHandle().fd);
            EXPECT_STREQ("", directory.curName());
        }
        EXPECT_EQ(1, calls.getCalls());
        // The stream has closed the descriptor, which is closed all the same.
        ASSERT_EQ(1u, closed.get().size());
        EXPECT_FALSE(isOpen(closed.get()[0]));
        EXPECT_EQ("WARNING framework/src/vesk/posix/Directory init: error closing dir-fd", events.getText());
        EXPECT_TRUE(chainIs({}));
    };
    expectGivenUp([&] { return Directory(m_folder.getPath(), false); });
    expectGivenUp([&] { return Directory(parent, "folder", true, false); });
    expectGivenUp([&] { return Directory(&handle); });
    expectGivenUp([&] { return parent.curDir(true); });
}

INSTANTIATE_TEST_SUITE_P(
    Table, DirectoryNextRows,
    testing::Values(
        SysRow{EBADF, 10}, SysRow{EOVERFLOW, 10}, SysRow{ENOENT, 10}, //
        SysRow{EIO, 19}, SysRow{EINTR, 19}, SysRow{EFAULT, 19}, SysRow{EINVAL, 19}, SysRow{ENOTDIR, 19},
        SysRow{9999, 19}));

TEST_F(DirectoryTest, aStreamThatCannotBeClosedAfterAFailureStillLosesItsDescriptor) {
    EventRecorder const events;
    {
        Fault const failed_close(inject_closedir, EIO);
        Fault const fault(inject_readdir, EIO);
        EXPECT_FALSE(Directory(m_folder.getPath(), false).isValid());
        EXPECT_EQ(1, failed_close.getCalls());
    }
    EXPECT_TRUE(chainIs({sysReport(19, EIO)}));
    EXPECT_EQ("WARNING framework/src/vesk/posix/Directory init: error closing dir", events.getText());
    EXPECT_EQ(-1, closedir(s_stream)) << "its descriptor was closed";
}

TEST_F(DirectoryTest, nothingThatFailsToCloseAfterAFailureGoesUntold) {
    EventRecorder const events;
    {
        Fault const failed_closedir(inject_closedir, EINTR);
        Fault const failed_close(inject_close, EINTR);
        Fault const fault(inject_readdir, EOVERFLOW);
        EXPECT_FALSE(Directory(m_folder.getPath(), false).isValid());
        EXPECT_EQ(1, failed_closedir.getCalls());
        EXPECT_EQ(1, failed_close.getCalls());
    }
    EXPECT_TRUE(chainIs({sysReport(10, EOVERFLOW)}));
    EXPECT_EQ(
        "WARNING framework/src/vesk/posix/Directory init: error closing dir\n"
        "WARNING framework/src/vesk/posix/Directory init: error closing dir-fd",
        events.getText());
    EXPECT_EQ(0, closedir(s_stream));
}

TEST_F(DirectoryTest, aDirectoryThatCouldNotBeOpenedIsAtItsEndOnceItIsAskedFor) {
    Directory directory(m_folder / "nothing", false);
    std::ErrorStorage::ack();
    EXPECT_EQ(-1, directory.next());
    EXPECT_TRUE(chainIs({sysReport(10, EBADF)}));
    EXPECT_TRUE(directory.atEnd());
    EXPECT_FALSE(directory.isValid());
}

// ---- curInfo ----

TEST_F(DirectoryTest, theCurrentEntryIsDescribed) {
    std::string const path = m_folder.makeFile("file", "12345");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "file");
    for (bool const follow : {false, true}) {
        FileInfo const info = directory.curInfo(follow);
        struct stat bare;
        ASSERT_EQ(0, stat(path.c_str(), &bare));
        EXPECT_TRUE(info.isValid());
        EXPECT_EQ(5, info.getSize());
        EXPECT_EQ(0, memcmp(&bare, &info.getStat(), sizeof bare));
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, aLinkIsDescribedItselfOrByItsTarget) {
    m_folder.makeFile("file", "12345");
    m_folder.makeLink("link", "file");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "link");
    FileInfo const link = directory.curInfo(false);
    EXPECT_TRUE(link.isSymbolicLink());
    EXPECT_EQ(4, link.getSize());
    FileInfo const file = directory.curInfo(true);
    EXPECT_TRUE(file.isRegularFile());
    EXPECT_EQ(5, file.getSize());
}

TEST_F(DirectoryTest, aLinkThatLeadsNowhereHasNoTargetToDescribe) {
    m_folder.makeLink("link", "nothing");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "link");
    EXPECT_TRUE(directory.curInfo(false).isValid());
    expectInvalidAndZeroed(directory.curInfo(true));
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, "link")}));
    EXPECT_FALSE(directory.atEnd()) << "the walk goes on";
}

TEST_F(DirectoryTest, anEntryThatIsGoneIsNotDescribed) {
    std::string const path = m_folder.makeFile("file");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "file");
    ASSERT_EQ(0, unlink(path.c_str()));
    expectInvalidAndZeroed(directory.curInfo(false));
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, "file")}));
}

TEST_F(DirectoryTest, thereIsNothingToDescribeAtTheEnd) {
    Directory directory(m_folder.getPath(), false);
    list(directory);
    Fault const calls(inject_fstatat, 0);
    expectInvalidAndZeroed(directory.curInfo(true));
    EXPECT_TRUE(chainIs({commonReport(AT_END_INFO)}));
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(DirectoryTest, thereIsNothingToDescribeInWhatCouldNotBeOpened) {
    Directory const directory(m_folder / "nothing", false);
    std::ErrorStorage::ack();
    expectInvalidAndZeroed(directory.curInfo(true));
    EXPECT_TRUE(chainIs({commonReport(AT_END_INFO)}));
    EXPECT_FALSE(directory.atEnd());
}

/// A number of the look at an entry; a row of -1 is none.
class DirectoryCurInfoRows : public DirectoryTest, public testing::WithParamInterface<OpenRow> {};

TEST_P(DirectoryCurInfoRows, giveAnInvalidAnswer) {
    OpenRow const& row = GetParam();
    Directory const directory(m_folder.getPath(), false);
    for (bool const follow : {false, true}) {
        Fault const fault(inject_fstatat, row.error);
        expectInvalidAndZeroed(directory.curInfo(follow));
        std::vector<ExpectedReport> reports = {sysReport(row.sys_row, row.error)};
        if (row.access_row >= 0) {
            reports.push_back(accessReport(row.access_row, directory.curName()));
        }
        EXPECT_TRUE(chainIs(reports));
        EXPECT_EQ(1, fault.getCalls()) << "nothing is repeated";
    }
    EXPECT_FALSE(directory.atEnd());
}

INSTANTIATE_TEST_SUITE_P(
    Table, DirectoryCurInfoRows,
    testing::Values(
        OpenRow{ENOENT, 2, 0},                                                     //
        OpenRow{EBADF, 10, -1}, OpenRow{ENOTDIR, 10, -1}, OpenRow{EINVAL, 10, -1}, //
        OpenRow{EACCES, 19, -1}, OpenRow{ELOOP, 19, -1}, OpenRow{EIO, 19, -1}, OpenRow{EINTR, 19, -1},
        OpenRow{EOVERFLOW, 19, -1}, OpenRow{ENOMEM, 19, -1}));

// ---- curDir ----

TEST_F(DirectoryTest, theCurrentEntryIsOpened) {
    m_folder.makeFolder("folder");
    m_folder.makeFile("folder/file");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "folder");
    for (bool const no_effect : {false, true}) {
        for (bool const follow : {false, true}) {
            Directory child = directory.curDir(follow, no_effect);
            EXPECT_TRUE(child.isValid());
            EXPECT_FALSE(child.atEnd());
            EXPECT_EQ(follow ? 0 : O_NOFOLLOW, s_flags);
            EXPECT_EQ(listBare(m_folder / "folder"), list(child));
        }
    }
    EXPECT_STREQ("folder", directory.curName());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, theShortFormFollowsLinksWhateverItsArgument) {
    m_folder.makeFolder("folder");
    m_folder.makeFile("folder/file");
    m_folder.makeLink("link", "folder");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "link");
    for (bool const flag : {false, true}) {
        Directory child = directory.curDir(flag);
        EXPECT_TRUE(child.isValid());
        EXPECT_EQ(listBare(m_folder / "folder"), list(child));
    }
}

TEST_F(DirectoryTest, theLongFormRefusesALinkThatIsNotToBeFollowed) {
    m_folder.makeFolder("folder");
    m_folder.makeLink("link", "folder");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "link");
    for (bool const no_effect : {false, true}) {
        Directory const child = directory.curDir(false, no_effect);
        EXPECT_TRUE(chainIs({sysReport(2, ELOOP)}));
        EXPECT_FALSE(child.isValid());
        EXPECT_TRUE(child.atEnd());
        EXPECT_TRUE(directory.curDir(true, no_effect).isValid());
    }
}

TEST_F(DirectoryTest, anEntryThatIsNoDirectoryIsClosedAgain) {
    m_folder.makeFile("file");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "file");
    Closed const closed;
    Directory const child = directory.curDir(true);
    EXPECT_TRUE(chainIs({sysReport(3, ENOTDIR)}));
    EXPECT_FALSE(child.isValid());
    EXPECT_FALSE(child.atEnd());
    ASSERT_EQ(1u, closed.get().size());
    EXPECT_FALSE(isOpen(closed.get()[0]));
}

TEST_F(DirectoryTest, anEntryThatIsNoDirectoryAndCannotBeClosedIsToldOf) {
    m_folder.makeFile("file");
    Directory directory(m_folder.getPath(), false);
    moveTo(directory, "file");
    EventRecorder const events;
    Closed const closed;
    {
        Fault const fault(inject_close, EIO);
        EXPECT_FALSE(directory.curDir(true).isValid());
    }
    EXPECT_TRUE(chainIs({sysReport(3, ENOTDIR)}));
    EXPECT_EQ("WARNING framework/src/vesk/posix/Directory curDir: error closing dir-fd", events.getText());
    ASSERT_EQ(1u, closed.get().size());
    EXPECT_EQ(0, close(closed.get()[0]));
}

TEST_F(DirectoryTest, thereIsNothingToOpenAtTheEnd) {
    Directory directory(m_folder.getPath(), false);
    list(directory);
    Fault const calls(inject_openat, 0);
    for (bool const flag : {false, true}) {
        for (Directory const& child : {directory.curDir(flag), directory.curDir(flag, flag)}) {
            EXPECT_FALSE(child.isValid());
            EXPECT_TRUE(child.atEnd());
        }
        EXPECT_TRUE(chainIs({commonReport(AT_END_DIR)}));
    }
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(DirectoryTest, thereIsNothingToOpenInWhatCouldNotBeOpened) {
    Directory const directory(m_folder / "nothing", false);
    std::ErrorStorage::ack();
    Directory const child = directory.curDir(true);
    EXPECT_TRUE(chainIs({commonReport(AT_END_DIR)}));
    EXPECT_FALSE(child.isValid());
    EXPECT_TRUE(child.atEnd());
}

class DirectoryCurDirRows : public DirectoryTest, public testing::WithParamInterface<SysRow> {};

TEST_P(DirectoryCurDirRows, areReportedWithoutAPath) {
    Directory const directory(m_folder.getPath(), false);
    for (bool const follow : {false, true}) {
        Fault const fault(inject_openat, GetParam().error);
        Directory const child = directory.curDir(follow, false);
        EXPECT_TRUE(chainIs({sysReport(GetParam().row, GetParam().error)}));
        EXPECT_FALSE(child.isValid());
        EXPECT_TRUE(child.atEnd());
        EXPECT_EQ(1, fault.getCalls()) << "nothing is repeated";
    }
    EXPECT_FALSE(directory.atEnd());
}

INSTANTIATE_TEST_SUITE_P(
    Table, DirectoryCurDirRows,
    testing::Values(
        SysRow{ENOENT, 2}, SysRow{ENAMETOOLONG, 2}, SysRow{ELOOP, 2}, //
        SysRow{EACCES, 7},                                            //
        SysRow{ENOTDIR, 3},                                           //
        SysRow{ENFILE, 0}, SysRow{EMFILE, 0},                         //
        SysRow{EPERM, 19}, SysRow{EINTR, 19}, SysRow{EBADF, 19}, SysRow{ENOMEM, 19}, SysRow{ENXIO, 19}));

// ---- Copies, and the end of the last one ----

TEST_F(DirectoryTest, copiesShareOneStreamThatTheLastOneClosesOnce) {
    Fault const calls(inject_closedir, 0);
    Closed const closed;
    {
        auto first = std::make_unique<Directory>(m_folder.getPath(), false);
        auto second = std::make_unique<Directory>(*first);
        auto third = std::make_unique<Directory>(*second);
        EXPECT_EQ(first->getHandle().dir, third->getHandle().dir);
        first.reset();
        third.reset();
        EXPECT_EQ(0, calls.getCalls());
        EXPECT_TRUE(second->isValid());
        EXPECT_EQ(0, second->next());
    }
    EXPECT_EQ(1, calls.getCalls());
    EXPECT_TRUE(closed.get().empty()) << "the stream closes its descriptor itself";
}

TEST_F(DirectoryTest, copiesShareOnePosition) {
    for (int i = 0; i < 5; ++i) {
        m_folder.makeFile(std::to_string(i));
    }
    std::vector<std::string> const bare = listBare(m_folder.getPath());
    Directory first(m_folder.getPath(), false);
    Directory second(first);
    EXPECT_EQ(bare[0], second.curName()) << "a copy stands where the original does";
    EXPECT_EQ(0, first.next());
    EXPECT_EQ(bare[1], first.curName());
    EXPECT_EQ(0, second.next());
    EXPECT_EQ(bare[2], second.curName());
    EXPECT_EQ(0, first.next());
    EXPECT_EQ(bare[3], first.curName());
    list(first);
    EXPECT_FALSE(second.atEnd()) << "as far as it knows";
    EXPECT_EQ(1, second.next());
    EXPECT_TRUE(second.atEnd());
}

TEST_F(DirectoryTest, aDirectoryGivenByValueIsClosedOnce) {
    Fault const calls(inject_closedir, 0);
    Directory const directory(m_folder.getPath(), false);
    {
        std::vector<Directory> children;
        for (int i = 0; i < 3; ++i) {
            children.push_back(directory.curDir(true));
        }
        EXPECT_EQ(0, calls.getCalls());
        for (Directory& child : children) {
            EXPECT_TRUE(child.isValid());
            EXPECT_EQ(0, child.next());
        }
    }
    EXPECT_EQ(3, calls.getCalls());
}

TEST_F(DirectoryTest, assignmentLetsGoOfOneStreamAndSharesTheOther) {
    m_folder.makeFolder("folder");
    Fault const calls(inject_closedir, 0);
    Directory other(m_folder / "folder", false);
    DIR* const stream = other.getHandle().dir;
    {
        Directory directory(m_folder.getPath(), false);
        Directory const copy(directory);
        directory = other;
        EXPECT_EQ(0, calls.getCalls()) << "the copy has it still";
        EXPECT_EQ(stream, directory.getHandle().dir);
        other = copy;
        Directory& same = other;
        other = same;
        EXPECT_EQ(0, calls.getCalls());
        directory = copy;
        EXPECT_EQ(1, calls.getCalls());
        EXPECT_EQ(0, directory.next());
    }
    EXPECT_EQ(1, calls.getCalls());
    EXPECT_TRUE(other.isValid());
    EXPECT_EQ(0, other.next());
    EXPECT_EQ(1, other.next());
}

TEST_F(DirectoryTest, copiesMayEndInDifferentThreads) {
    Fault const calls(inject_closedir, 0, 1, 1, Fault::Threads::ALL);
    for (int round = 0; round < 50; ++round) {
        auto first = std::make_unique<Directory>(m_folder.getPath(), false);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([copy = std::make_unique<Directory>(*first)]() mutable { copy.reset(); });
        }
        first.reset();
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(round + 1, calls.getCalls());
    }
}

TEST_F(DirectoryTest, whatCouldNotBeOpenedClosesNothing) {
    Fault const calls(inject_closedir, 0);
    {
        Directory const directory(m_folder / "nothing", false);
        Directory const copy(directory);
        EXPECT_FALSE(copy.isValid());
    }
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, m_folder / "nothing")}));
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(DirectoryTest, aCloseThatIsInterruptedIsRepeated) {
    EventRecorder const events;
    Fault const calls(inject_closedir, EINTR, 1, 3);
    { Directory const directory(m_folder.getPath(), false); }
    EXPECT_EQ(4, calls.getCalls());
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(DirectoryTest, aCloseThatFailsIsAWarningAndLeavesNothingPending) {
    for (int const error : {EIO, EBADF, ENOSPC}) {
        EventRecorder const events;
        char text[200];
        {
            Fault const calls(inject_closedir, error, 1, Fault::FOREVER);
            auto copy = std::make_unique<Directory>(m_folder.getPath(), false);
            auto directory = std::make_unique<Directory>(*copy);
            copy.reset();
            EXPECT_EQ(0, calls.getCalls());
            snprintf(
                text, sizeof text,
                "WARNING framework/src/vesk/posix/Directory destroy: Error closing directory @%p; a file "
                "descriptor may have leaked!",
                static_cast<void*>(directory.get()));
            directory.reset();
            EXPECT_EQ(1, calls.getCalls());
        }
        EXPECT_EQ(text, events.getText());
        EXPECT_FALSE(std::ErrorStorage::isError(false));
        // What was acknowledged can still be read.
        EXPECT_NE(
            std::string::npos,
            tarn_error.getReasonList().find(rowText(SysErrorId::UNCLASSIFIED, systemText(error))));
        EXPECT_EQ(0, closedir(s_stream));
    }
}

TEST_F(DirectoryTest, aStreamThatIsLostIsABrokenInvariant) {
    EventRecorder const events;
    DIR* stream = nullptr;
    {
        Directory directory(m_folder.getPath(), false);
        stream = std::exchange(const_cast<DirectoryHandle&>(directory.getHandle()).dir, nullptr);
    }
    std::vector<support::RecordedEvent> const recorded = events.getEvents();
    ASSERT_EQ(2u, recorded.size()) << events.getText();
    EXPECT_EQ("m_handle.dir != NULL", recorded[0].expression);
    EXPECT_EQ("destroy", recorded[0].function);
    EXPECT_EQ("framework/src/vesk/posix/Directory", recorded[0].file);
    EXPECT_EQ(0u, recorded[1].message.rfind("Error closing directory @", 0)) << recorded[1].message;
    EXPECT_NE(std::string::npos, tarn_error.getReasonList().find(systemText(EINVAL)));
    EXPECT_FALSE(std::ErrorStorage::isError(false));
    EXPECT_EQ(0, closedir(stream));
}

} // namespace
