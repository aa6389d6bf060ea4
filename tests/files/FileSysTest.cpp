#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <vesk/FileAccessError.h>
#include <vesk/FileSys.h>
#include <vesk/SysError.h>

#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <list>
#include <optional>
#include <ostream>
#include <pwd.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <tuple>
#include <unistd.h>
#include <vector>

VESK_INJECT_RESULT(
    getpwnam_r, (char const* name, passwd* entry, char* buffer, size_t size, passwd** found),
    (name, entry, buffer, size, found))

namespace {
// What the last calls were given.
size_t s_readlink_size = 0;
mode_t s_chmod_mode = 0;
} // namespace

VESK_INJECT_ERRNO(int, -1, chown, (char const* path, uid_t user, gid_t group), (path, user, group))

support::Injected inject_chmod("chmod");
extern "C" VESK_UNWATCHED int chmod(char const* path, mode_t mode) {
    s_chmod_mode = mode;
    return reinterpret_cast<int (*)(char const*, mode_t)>(inject_chmod.getReal())(path, mode);
}

/// Fails with 0 to pretend a link with the target "x".
support::Injected inject_readlink("readlink");
extern "C" VESK_UNWATCHED ssize_t readlink(char const* path, char* buffer, size_t size) {
    s_readlink_size = size;
    int error = 0;
    if (inject_readlink.fails(error)) {
        buffer[0] = 'x';
        return 1;
    }
    // Past the sanitizers, which would look at the path themselves.
    return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
}

namespace {

using support::chainIs;
using support::contentOf;
using support::dropRights;
using support::ExpectedReport;
using support::expectInChild;
using support::Fault;
using support::mountMemory;
using support::rowText;
using support::separateMounts;
using support::systemText;
using support::TempFolder;
using vesk::FileAccess;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::FileSys;
using vesk::Group;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnicodeString;
using vesk::User;

/// The two reports of a failure about a path.
testing::AssertionResult failedWith(int error, int sys_id, int file_id, std::string const& path) {
    return chainIs(
        {{SysError, sys_id, rowText(SysError, sys_id, systemText(error))},
         {FileAccessError, file_id, rowText(FileAccessError, file_id, path)}});
}

/// The cause alone.
testing::AssertionResult failedWith(int error, int sys_id) {
    return chainIs({{SysError, sys_id, rowText(SysError, sys_id, systemText(error))}});
}

struct stat infoOf(std::string const& path) {
    struct stat info {};
    EXPECT_EQ(0, lstat(path.c_str(), &info)) << path << ": " << strerror(errno);
    return info;
}

mode_t accessOf(std::string const& path) {
    return infoOf(path).st_mode & 07777;
}

/// The umask of a scope.
class Umask {
public:
    explicit Umask(mode_t mask) : m_before(umask(mask)) {}
    ~Umask() { umask(m_before); }
    Umask(Umask const&) = delete;
    Umask& operator=(Umask const&) = delete;

private:
    mode_t m_before;
};

/// A variable of the environment for a scope.
class Variable {
public:
    Variable(char const* name, char const* value) : m_name(name) {
        if (char const* const before = getenv(name)) {
            m_before = before;
        }
        set(value);
    }
    ~Variable() { set(m_before ? m_before->c_str() : nullptr); }
    Variable(Variable const&) = delete;
    Variable& operator=(Variable const&) = delete;

private:
    void set(char const* value) { value != nullptr ? setenv(m_name, value, 1) : unsetenv(m_name); }

    char const* m_name;
    std::optional<std::string> m_before;
};

class FileSysTest : public testing::Test {
protected:
    std::string at(std::string const& name) const { return m_folder / name; }

    TempFolder m_folder;
};

// ---- exists ----

TEST_F(FileSysTest, fileAndDirectoryExistWhetherFollowedOrNot) {
    std::string const file = m_folder.makeFile("file");
    for (bool const follow : {false, true}) {
        EXPECT_EQ(0, FileSys::exists(file.c_str(), follow));
        EXPECT_EQ(0, FileSys::exists(m_folder.getPath().c_str(), follow));
        EXPECT_EQ(1, FileSys::exists(at("none").c_str(), follow));
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, danglingLinkExistsOnlyIfItIsNotFollowed) {
    std::string const link = m_folder.makeLink("link", "nowhere");
    EXPECT_EQ(1, FileSys::exists(link.c_str(), true));
    EXPECT_EQ(0, FileSys::exists(link.c_str(), false));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, loopOfLinksIsAFailureOnlyIfItIsFollowed) {
    std::string const loop = m_folder.makeLink("loop", "loop");
    EXPECT_EQ(0, FileSys::exists(loop.c_str(), false));
    EXPECT_EQ(-1, FileSys::exists(loop.c_str(), true));
    EXPECT_TRUE(failedWith(ELOOP, 2, 0, loop));
}

TEST_F(FileSysTest, nothingExistsBelowAPlainFileWhichIsNoFailure) {
    std::string const file = m_folder.makeFile("a");
    EXPECT_EQ(1, FileSys::exists((file + "/b").c_str(), true));
    EXPECT_EQ(1, FileSys::exists((file + "/b").c_str(), false));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, emptyPathDoesNotExist) {
    EXPECT_EQ(1, FileSys::exists("", true));
    EXPECT_EQ(1, FileSys::exists("", false));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, fileBeyondTwoGibibytesExists) {
    std::string const file = m_folder.makeFile("large");
    ASSERT_EQ(0, truncate64(file.c_str(), 3LL << 30)) << strerror(errno);
    EXPECT_EQ(0, FileSys::exists(file.c_str(), true));
    EXPECT_EQ(0, FileSys::exists(file.c_str(), false));
    EXPECT_TRUE(chainIs({}));
}

// ---- createDir, removeFile, removeDir ----

TEST_F(FileSysTest, newDirectoryIsItsOwnersAlone) {
    Umask const mask(0);
    std::string const path = at("new");
    EXPECT_FALSE(FileSys::createDir(path.c_str()));
    EXPECT_TRUE(S_ISDIR(infoOf(path).st_mode));
    EXPECT_EQ(0700U, accessOf(path));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, umaskTakesItsShareOfANewDirectory) {
    Umask const mask(0277);
    std::string const path = at("new");
    EXPECT_FALSE(FileSys::createDir(path.c_str()));
    EXPECT_EQ(0500U, accessOf(path));
}

TEST_F(FileSysTest, directoryThatExistsIsNotCreatedAgain) {
    std::string const path = at("new");
    EXPECT_FALSE(FileSys::createDir(path.c_str()));
    EXPECT_TRUE(FileSys::createDir(path.c_str()));
    EXPECT_TRUE(failedWith(EEXIST, 12, 4, path));
}

TEST_F(FileSysTest, noDirectoryIsCreatedAbove) {
    std::string const path = at("a/b");
    EXPECT_TRUE(FileSys::createDir(path.c_str()));
    EXPECT_TRUE(failedWith(ENOENT, 2, 0, path));
    EXPECT_EQ(1, FileSys::exists(at("a").c_str(), false));
}

TEST_F(FileSysTest, removedFileIsGoneAndALinkGoesAlone) {
    std::string const file = m_folder.makeFile("file");
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::removeFile(link.c_str()));
    EXPECT_EQ(1, FileSys::exists(link.c_str(), false));
    EXPECT_EQ(0, FileSys::exists(file.c_str(), false));
    EXPECT_FALSE(FileSys::removeFile(file.c_str()));
    EXPECT_EQ(1, FileSys::exists(file.c_str(), false));
    EXPECT_TRUE(FileSys::removeFile(file.c_str()));
    EXPECT_TRUE(failedWith(ENOENT, 2, 0, file));
}

TEST_F(FileSysTest, directoryIsNoFileToRemove) {
    std::string const path = m_folder.makeFolder("dir");
    EXPECT_TRUE(FileSys::removeFile(path.c_str()));
    // Linux says EISDIR; others may say EPERM.
    EXPECT_TRUE(failedWith(EISDIR, 2, 2, path));
    EXPECT_EQ(0, FileSys::exists(path.c_str(), false));
}

TEST_F(FileSysTest, onlyAnEmptyDirectoryIsRemoved) {
    std::string const path = m_folder.makeFolder("dir");
    std::string const file = m_folder.makeFile("dir/file");
    EXPECT_TRUE(FileSys::removeDir(path.c_str()));
    EXPECT_TRUE(failedWith(ENOTEMPTY, 14, 5, path));
    EXPECT_EQ(0, FileSys::exists(file.c_str(), false));
    EXPECT_FALSE(FileSys::removeFile(file.c_str()));
    EXPECT_FALSE(FileSys::removeDir(path.c_str()));
    EXPECT_EQ(1, FileSys::exists(path.c_str(), false));
}

TEST_F(FileSysTest, fileIsNoDirectoryToRemove) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_TRUE(FileSys::removeDir(path.c_str()));
    EXPECT_TRUE(failedWith(ENOTDIR, 2, 0, path));
}

TEST_F(FileSysTest, directoryIsNotRemovedAsItself) {
    std::string const path = m_folder.makeFolder("dir") + "/.";
    EXPECT_TRUE(FileSys::removeDir(path.c_str()));
    EXPECT_TRUE(failedWith(EINVAL, 19, 9, path));
}

// ---- move ----

TEST_F(FileSysTest, movedFileKeepsItsContentAndReplacesAnother) {
    std::string const one = m_folder.makeFile("one", "1");
    std::string const other = m_folder.makeFile("other", "2");
    EXPECT_FALSE(FileSys::move(one.c_str(), other.c_str()));
    EXPECT_EQ("1", contentOf(other));
    EXPECT_EQ(1, FileSys::exists(one.c_str(), false));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, directoryIsMovedWithWhatItHolds) {
    m_folder.makeFolder("dir");
    m_folder.makeFile("dir/file", "x");
    EXPECT_FALSE(FileSys::move(at("dir").c_str(), at("new").c_str()));
    EXPECT_EQ("x", contentOf(at("new/file")));
}

struct MoveRefusal {
    char const* name;
    char const* source;
    char const* destination;
    int error;
    int sys_id;
    int file_id;
};

void PrintTo(MoveRefusal const& refusal, std::ostream* out) {
    *out << refusal.name;
}

class FileSysMoveRefusals : public FileSysTest, public testing::WithParamInterface<MoveRefusal> {};

TEST_P(FileSysMoveRefusals, namesBothPathsAndLeavesTheSource) {
    MoveRefusal const& refusal = GetParam();
    m_folder.makeFile("file", "x");
    m_folder.makeFolder("dir");
    m_folder.makeFolder("full");
    m_folder.makeFile("full/file");
    std::string const source = at(refusal.source);
    std::string const destination = at(refusal.destination);
    int const before = FileSys::exists(source.c_str(), false);
    EXPECT_TRUE(FileSys::move(source.c_str(), destination.c_str()));
    EXPECT_TRUE(failedWith(refusal.error, refusal.sys_id, refusal.file_id, source + " or " + destination));
    EXPECT_EQ(before, FileSys::exists(source.c_str(), false));
    EXPECT_EQ("x", contentOf(at("file")));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysMoveRefusals,
    testing::Values(
        MoveRefusal{"nothing to move", "none", "new", ENOENT, 2, 0},
        MoveRefusal{"no directory to move to", "file", "none/new", ENOENT, 2, 0},
        MoveRefusal{"below a file", "file", "full/file/new", ENOTDIR, 2, 0},
        MoveRefusal{"directory to a file", "dir", "file", ENOTDIR, 2, 0},
        MoveRefusal{"file to a directory", "file", "dir", EISDIR, 2, 0},
        MoveRefusal{"directory into itself", "dir", "dir/new", EINVAL, 2, 0},
        MoveRefusal{"directory to a full one", "dir", "full", ENOTEMPTY, 13, 5},
        MoveRefusal{"directory as itself", "dir/.", "new", EBUSY, 13, 5}));

TEST_F(FileSysTest, longPathsOfAMoveAreCutAsEveryReportIs) {
    std::string const source = at(std::string(300, 'a'));
    std::string const destination = at(std::string(300, 'b'));
    EXPECT_TRUE(FileSys::move(source.c_str(), destination.c_str()));
    ASSERT_NE(nullptr, std::ErrorStorage::get());
    std::string text = rowText(FileAccessErrorId::BAD_PATH, source + " or " + destination);
    text = text.substr(0, std::ErrorObject::TEXT_SIZE - 1 - 3) + "...";
    EXPECT_EQ(text, std::ErrorStorage::get()->getText());
    EXPECT_TRUE(chainIs({{SysErrorId::INVALID_PATH}, {FileAccessError, FileAccessErrorId::BAD_PATH}}));

    // As long as fits, with nothing to spare.
    std::string const near(std::ErrorObject::TEXT_SIZE - 1 - strlen("Bad path '/no/a or '"), 'b');
    EXPECT_TRUE(FileSys::move("/no/a", near.c_str()));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH},
         {FileAccessError, FileAccessErrorId::BAD_PATH, "Bad path '/no/a or " + near + "'"}}));
}

// ---- changeWD ----

TEST_F(FileSysTest, workingDirectoryIsChangedForRelativePaths) {
    m_folder.makeFolder("dir");
    m_folder.makeFile("dir/file");
    expectInChild([&] {
        EXPECT_FALSE(FileSys::changeWD(at("dir").c_str()));
        EXPECT_EQ(0, FileSys::exists("file", false));
        std::string directory;
        EXPECT_FALSE(FileSys::currentWD(directory));
        EXPECT_EQ(at("dir"), directory);
        EXPECT_FALSE(FileSys::changeWD(".."));
        EXPECT_EQ(1, FileSys::exists("file", false));
    });
}

TEST_F(FileSysTest, accessToAMissingWorkingDirectoryIsDenied) {
    std::string const path = at("none");
    EXPECT_TRUE(FileSys::changeWD(path.c_str()));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, "Invalid path specified: " + systemText(ENOENT)},
         {FileAccessError, FileAccessErrorId::ACCESS_DENIED, "Access to path '" + path + "' denied"}}));
}

TEST_F(FileSysTest, fileIsNoWorkingDirectory) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_TRUE(FileSys::changeWD(path.c_str()));
    EXPECT_TRUE(failedWith(ENOTDIR, 3, 1, path));
}

// ---- Queries ----

TEST(FileSysEntryPoints, areTheRootAlone) {
    EXPECT_EQ(std::list<std::string>{"/"}, FileSys::getEntryPoints());
    std::list<UnicodeString> points;
    points.emplace_back("old", 4U);
    points.emplace_back("older", 6U);
    FileSys::getEntryPoints(points);
    ASSERT_EQ(1U, points.size());
    EXPECT_STREQ("/", points.front().c_str());
    EXPECT_EQ(2U, points.front().getSize());
    char const* const text = points.front().c_str();
    FileSys::getEntryPoints(points);
    EXPECT_EQ(text, points.front().c_str()) << "it is borrowed from one constant text";
}

TEST_F(FileSysTest, componentLengthOfAFileSystemWhoseCountsNeed64BitsIsTold) {
    constexpr int NO_RIGHT = 77;
    std::string const mount_point = m_folder.makeFolder("mount");
    for (char const* const limit : {"size=100t", "nr_inodes=5g"}) {
        auto const end = support::runInChild([&] {
            if (unshare(CLONE_NEWNS) != 0 ||
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("none", mount_point.c_str(), "tmpfs", 0, limit) != 0) {
                _exit(NO_RIGHT);
            }
            unsigned int length = 0;
            EXPECT_FALSE(FileSys::maxComponentLength(mount_point.c_str(), length));
            EXPECT_EQ(255U, length);
            EXPECT_TRUE(support::chainIs({}));
        });
        if (end.exit_code == NO_RIGHT) {
            GTEST_SKIP() << "mounting needs a privilege, and " << limit << " a system that takes it";
        }
        EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    }
}

TEST_F(FileSysTest, componentLengthIsWhatTheFileSystemAllows) {
    struct statvfs info {};
    ASSERT_EQ(0, statvfs(m_folder.getPath().c_str(), &info)) << strerror(errno);
    unsigned int length = 0;
    EXPECT_FALSE(FileSys::maxComponentLength(m_folder.getPath().c_str(), length));
    EXPECT_EQ(info.f_namemax, length);
    EXPECT_FALSE(FileSys::createDir(at(std::string(length, 'a')).c_str()));
    EXPECT_TRUE(FileSys::createDir(at(std::string(length + 1, 'a')).c_str()));
    EXPECT_TRUE(failedWith(ENAMETOOLONG, 2, 0, at(std::string(length + 1, 'a'))));
}

TEST(FileSysTempPath, isThatOfTheEnvironmentUnlessItIsEmpty) {
    {
        Variable const variable("TMPDIR", "/some/where");
        EXPECT_STREQ("/some/where", FileSys::getTempPath());
    }
    {
        Variable const variable("TMPDIR", "");
        EXPECT_STREQ("/tmp", FileSys::getTempPath());
    }
    Variable const variable("TMPDIR", nullptr);
    EXPECT_STREQ("/tmp", FileSys::getTempPath());
}

TEST(FileSysHomePath, isThatOfTheEnvironmentAsItComes) {
    {
        Variable const variable("HOME", "/home/somebody");
        EXPECT_STREQ("/home/somebody", FileSys::getHomePath());
    }
    {
        Variable const variable("HOME", "");
        EXPECT_STREQ("", FileSys::getHomePath());
    }
    Variable const variable("HOME", nullptr);
    EXPECT_STREQ("", FileSys::getHomePath());
}

// ---- Links ----

TEST_F(FileSysTest, createdLinkHoldsItsTargetWhetherItExistsOrNot) {
    EXPECT_FALSE(FileSys::createLink("no/such/file", at("link").c_str()));
    EXPECT_TRUE(S_ISLNK(infoOf(at("link")).st_mode)) << "it is a symbolic link";
    char buffer[64];
    memset(buffer, '#', sizeof buffer);
    unsigned int size = sizeof buffer;
    EXPECT_FALSE(FileSys::readLink(at("link").c_str(), buffer, size));
    EXPECT_EQ(strlen("no/such/file"), size);
    EXPECT_STREQ("no/such/file", buffer);
    EXPECT_EQ('#', buffer[size + 1]) << "behind the NUL nothing is touched";
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, linkThatExistsIsNotCreatedAgain) {
    std::string const link = m_folder.makeLink("link", "a");
    EXPECT_TRUE(FileSys::createLink("b", link.c_str()));
    EXPECT_TRUE(failedWith(EEXIST, 12, 4, link));
}

TEST_F(FileSysTest, emptyTargetIsABadPathOfTheLink) {
    EXPECT_TRUE(FileSys::createLink("", at("link").c_str()));
    EXPECT_TRUE(failedWith(ENOENT, 2, 0, at("link")));
}

TEST_F(FileSysTest, targetThatIsTooLongForTheBufferIsCutWithoutAReport) {
    std::string const target = "12345678901234567890";
    std::string const link = m_folder.makeLink("link", target);
    char buffer[9];
    memset(buffer, '#', sizeof buffer);
    unsigned int size = 8;
    EXPECT_FALSE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_EQ(7U, size);
    EXPECT_STREQ("1234567", buffer);
    EXPECT_EQ('#', buffer[8]) << "behind the buffer nothing is touched";
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, targetThatFillsTheBufferIsNotCut) {
    std::string const link = m_folder.makeLink("link", "1234567");
    char buffer[8];
    unsigned int size = sizeof buffer;
    EXPECT_FALSE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_EQ(7U, size);
    EXPECT_STREQ("1234567", buffer);
}

TEST_F(FileSysTest, fileIsNoLinkToRead) {
    std::string const path = m_folder.makeFile("file");
    char buffer[8] = "old";
    unsigned int size = sizeof buffer;
    EXPECT_TRUE(FileSys::readLink(path.c_str(), buffer, size));
    EXPECT_TRUE(failedWith(EINVAL, 2, 0, path));
    EXPECT_EQ(0U, size);
    EXPECT_STREQ("", buffer);
}

TEST_F(FileSysTest, bufferOfNothingCountsAsTheLargestOfAll) {
    char buffer[8] = "old";
    {
        Fault const pretended(inject_readlink, 1);
        unsigned int size = 0;
        EXPECT_FALSE(FileSys::readLink("/some/link", buffer, size));
        EXPECT_EQ(size_t{UINT32_MAX}, s_readlink_size);
        EXPECT_EQ(1U, size);
        EXPECT_STREQ("x", buffer);
    }
    // What the system makes of it is its affair; it is no success here.
    std::string const link = m_folder.makeLink("link", "target");
    unsigned int size = 0;
    EXPECT_TRUE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_EQ(0U, size);
    EXPECT_STREQ("", buffer);
    EXPECT_NE(nullptr, std::ErrorStorage::get());
    std::ErrorStorage::ack();
}

TEST_F(FileSysTest, bufferOfOneByteHasNoRoomForAnyTarget) {
    std::string const link = m_folder.makeLink("link", "target");
    char buffer[2] = "x";
    unsigned int size = 1;
    EXPECT_TRUE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_TRUE(failedWith(EINVAL, 2, 0, link));
    EXPECT_EQ(0U, size);
    EXPECT_EQ('\0', buffer[0]);
}

// ---- Access and ownership ----

TEST_F(FileSysTest, accessIsSetAsGiven) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess::owner_all | FileAccess::others_exec));
    EXPECT_EQ(0701U, accessOf(path));
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess::none));
    EXPECT_EQ(0U, accessOf(path));
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess::mask));
    EXPECT_EQ(07777U, accessOf(path));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysTest, ofAnAccessOnlyTheMasksBitsReachTheSystem) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_FALSE(FileSys::changeAccess(path.c_str(), FileAccess(0xFFFFF000U | 0640U)));
    EXPECT_EQ((0xFFFFF000U & 07777U) | 0640U, s_chmod_mode);
    EXPECT_EQ(0640U, accessOf(path));
}

TEST_F(FileSysTest, accessOfALinkIsThatOfItsTarget) {
    std::string const path = m_folder.makeFile("file");
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::changeAccess(link.c_str(), FileAccess::owner_read));
    EXPECT_EQ(0400U, accessOf(path));
}

/// A user of the system's data base who is not root.
struct Somebody {
    Somebody() {
        setpwent();
        while (passwd const* const entry = getpwent()) {
            if (entry->pw_uid != 0) {
                name = entry->pw_name;
                id = entry->pw_uid;
                break;
            }
        }
        endpwent();
    }
    std::string name;
    uid_t id = 0;
};

class FileSysOwnerTest : public FileSysTest {
protected:
    void SetUp() override {
        VESK_SKIP_UNLESS_ROOT();
        m_path = m_folder.makeFile("file");
    }

    bool change(User const& user, Group const& group) const {
        return FileSys::changeOwnerGroup(m_path, user, group);
    }

    void expectOwner(uid_t user, gid_t group) const {
        struct stat const info = infoOf(m_path);
        EXPECT_EQ(user, info.st_uid);
        EXPECT_EQ(group, info.st_gid);
    }

    std::string m_path;
};

TEST_F(FileSysOwnerTest, idsAreSetAsGivenWithoutALookUp) {
    Fault const counted(inject_getpwnam_r, 0);
    EXPECT_FALSE(change(User(4711LL), Group(4712LL)));
    expectOwner(4711, 4712);
    EXPECT_EQ(0, counted.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysOwnerTest, nameIsLookedUpOnceAndItsIdKept) {
    Somebody const somebody;
    if (somebody.name.empty()) {
        GTEST_SKIP() << "the system knows nobody but root";
    }
    User const user(somebody.name);
    EXPECT_FALSE(user.isIdKnown());
    {
        Fault const counted(inject_getpwnam_r, 0);
        Fault const interrupted(inject_chown, EINTR, 1, 3);
        EXPECT_FALSE(change(user, Group(std::string("root"))));
        EXPECT_EQ(4, interrupted.getCalls());
        EXPECT_EQ(1, counted.getCalls());
    }
    expectOwner(somebody.id, 0);
    EXPECT_TRUE(user.isIdKnown());
    EXPECT_EQ(somebody.id, user.getKnownId());
}

TEST_F(FileSysOwnerTest, groupIsLookedUpByItsNameToo) {
    ASSERT_FALSE(change(User(4711LL), Group(4712LL)));
    Group const group(std::string("root"));
    EXPECT_FALSE(change(User(User::BAD_ID), group));
    expectOwner(4711, 0);
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(0, group.getKnownId());
}

TEST_F(FileSysOwnerTest, unknownNamesLeaveTheOwnerAsItIs) {
    ASSERT_FALSE(change(User(4711LL), Group(4712LL)));
    User const user(std::string("vesk-no-such-user"));
    Group const group(std::string("vesk-no-such-group"));
    EXPECT_FALSE(change(user, group));
    expectOwner(4711, 4712);
    EXPECT_TRUE(user.isIdKnown()) << "that there is none is known now";
    EXPECT_EQ(User::BAD_ID, user.getKnownId());
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(Group::BAD_ID, group.getKnownId());
}

TEST_F(FileSysOwnerTest, idThatNoUserCanHaveIsRefusedAndNotCut) {
    Fault const counted(inject_chown, 0);
    for (long long const id : {1LL << 32, (1LL << 32) + 1, -2LL, std::numeric_limits<long long>::min()}) {
        EXPECT_TRUE(change(User(id), Group(0LL)));
        EXPECT_TRUE(failedWith(EINVAL, 10, 9, m_path));
        EXPECT_TRUE(change(User(0LL), Group(id)));
        EXPECT_TRUE(failedWith(EINVAL, 10, 9, m_path));
    }
    EXPECT_EQ(0, counted.getCalls());
    EXPECT_FALSE(change(User(0xFFFFFFFELL), Group(0xFFFFFFFELL)));
    expectOwner(0xFFFFFFFE, 0xFFFFFFFE);
}

TEST_F(FileSysOwnerTest, ownerOfALinkIsThatOfItsTarget) {
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::changeOwnerGroup(link, User(4711LL), Group(4712LL)));
    expectOwner(4711, 4712);
    EXPECT_EQ(0U, infoOf(link).st_uid);
}

// ---- What the system refuses, for real ----

struct Operation {
    char const* name;
    /// True on failure.
    bool (*run)(char const* path);
};

bool existsFails(char const* path) {
    return FileSys::exists(path, true) == -1;
}
// Where it would be in the same file system.
char const* s_new_path = "/new";
bool moveFails(char const* path) {
    return FileSys::move(path, s_new_path);
}
bool moveToFails(char const* path) {
    return FileSys::move("/proc/self/exe", path);
}
bool maxComponentLengthFails(char const* path) {
    unsigned int length = 0;
    return FileSys::maxComponentLength(path, length);
}
bool readLinkFails(char const* path) {
    char buffer[8];
    unsigned int size = sizeof buffer;
    return FileSys::readLink(path, buffer, size);
}
bool createLinkFails(char const* path) {
    return FileSys::createLink("target", path);
}
bool changeAccessFails(char const* path) {
    return FileSys::changeAccess(path, FileAccess::owner_all);
}
bool changeOwnerGroupFails(char const* path) {
    return FileSys::changeOwnerGroup(UnicodeString(path, 0), User(0LL), Group(0LL));
}

constexpr Operation EXISTS{"exists", existsFails};
constexpr Operation CREATE_DIR{"createDir", FileSys::createDir};
constexpr Operation REMOVE_FILE{"removeFile", FileSys::removeFile};
constexpr Operation REMOVE_DIR{"removeDir", FileSys::removeDir};
constexpr Operation MOVE{"move", moveFails};
constexpr Operation MOVE_TO{"move to", moveToFails};
constexpr Operation CHANGE_WD{"changeWD", FileSys::changeWD};
constexpr Operation MAX_COMPONENT_LENGTH{"maxComponentLength", maxComponentLengthFails};
constexpr Operation READ_LINK{"readLink", readLinkFails};
constexpr Operation CREATE_LINK{"createLink", createLinkFails};
constexpr Operation CHANGE_ACCESS{"changeAccess", changeAccessFails};
constexpr Operation CHANGE_OWNER_GROUP{"changeOwnerGroup", changeOwnerGroupFails};

/// In place of a row of `FileAccessError`: none on top of the cause.
constexpr int ALONE = -1;

/// An operation with the rows that it reports.
struct Refusal {
    Operation operation;
    int error;
    int sys_id;
    int file_id;
};

void PrintTo(Refusal const& refusal, std::ostream* out) {
    *out << refusal.operation.name << " " << strerrorname_np(refusal.error);
}

/// What reports show for a path of the operation.
std::string shown(Operation const& operation, char const* path) {
    std::string const text = path != nullptr ? path : "(null)";
    return operation.run == moveFails  ? text + " or " + s_new_path
        : operation.run == moveToFails ? "/proc/self/exe or " + text
                                       : text;
}

void expectRefusal(Refusal const& refusal, char const* path) {
    EXPECT_TRUE(refusal.operation.run(path)) << refusal.operation.name;
    EXPECT_TRUE(
        refusal.file_id == ALONE
            ? failedWith(refusal.error, refusal.sys_id)
            : failedWith(refusal.error, refusal.sys_id, refusal.file_id, shown(refusal.operation, path)))
        << refusal.operation.name;
}

class FileSysBadPaths : public FileSysTest, public testing::WithParamInterface<Refusal> {};

TEST_P(FileSysBadPaths, areReported) {
    m_folder.makeFile("file");
    m_folder.makeLink("loop", "loop");
    int const error = GetParam().error;
    std::string const path = error == ENOENT ? at("none/x")
        : error == ENOTDIR                   ? at("file/x")
        : error == ENAMETOOLONG              ? at(std::string(256, 'a'))
                                             : at("loop/x");
    std::string const new_path = at("new");
    s_new_path = new_path.c_str();
    expectRefusal(GetParam(), path.c_str());
    s_new_path = "/new";
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysBadPaths,
    testing::Values(
        Refusal{EXISTS, ENAMETOOLONG, 2, 0}, Refusal{EXISTS, ELOOP, 2, 0}, //
        Refusal{CREATE_DIR, ENOENT, 2, 0}, Refusal{CREATE_DIR, ENOTDIR, 2, 0},
        Refusal{CREATE_DIR, ENAMETOOLONG, 2, 0}, Refusal{CREATE_DIR, ELOOP, 2, 0}, //
        Refusal{REMOVE_FILE, ENOENT, 2, 0}, Refusal{REMOVE_FILE, ENOTDIR, 2, 0},
        Refusal{REMOVE_FILE, ENAMETOOLONG, 2, 0}, Refusal{REMOVE_FILE, ELOOP, 2, 0}, //
        Refusal{REMOVE_DIR, ENOENT, 2, 0}, Refusal{REMOVE_DIR, ENOTDIR, 2, 0},
        Refusal{REMOVE_DIR, ENAMETOOLONG, 2, 0}, Refusal{REMOVE_DIR, ELOOP, 2, 0}, //
        Refusal{MOVE, ENOENT, 2, 0}, Refusal{MOVE, ENOTDIR, 2, 0}, Refusal{MOVE, ENAMETOOLONG, 2, 0},
        Refusal{MOVE, ELOOP, 2, 0}, //
        Refusal{CHANGE_WD, ENOENT, 2, 3}, Refusal{CHANGE_WD, ENOTDIR, 3, 1},
        Refusal{CHANGE_WD, ENAMETOOLONG, 2, 3}, Refusal{CHANGE_WD, ELOOP, 2, 3}, //
        Refusal{MAX_COMPONENT_LENGTH, ENOENT, 2, 0}, Refusal{MAX_COMPONENT_LENGTH, ENOTDIR, 2, 0},
        Refusal{MAX_COMPONENT_LENGTH, ENAMETOOLONG, 2, 0}, Refusal{MAX_COMPONENT_LENGTH, ELOOP, 2, 0}, //
        Refusal{READ_LINK, ENOENT, 2, 0}, Refusal{READ_LINK, ENOTDIR, 2, 0},
        Refusal{READ_LINK, ENAMETOOLONG, 2, 0}, Refusal{READ_LINK, ELOOP, 2, 0}, //
        Refusal{CREATE_LINK, ENOENT, 2, 0}, Refusal{CREATE_LINK, ENOTDIR, 2, 0},
        Refusal{CREATE_LINK, ENAMETOOLONG, 2, 0}, Refusal{CREATE_LINK, ELOOP, 2, 0}, //
        Refusal{CHANGE_ACCESS, ENOENT, 2, 0}, Refusal{CHANGE_ACCESS, ENOTDIR, 2, 0},
        Refusal{CHANGE_ACCESS, ENAMETOOLONG, 2, 0}, Refusal{CHANGE_ACCESS, ELOOP, 2, 0}, //
        Refusal{CHANGE_OWNER_GROUP, ENOENT, 2, 0}, Refusal{CHANGE_OWNER_GROUP, ENOTDIR, 2, 0},
        Refusal{CHANGE_OWNER_GROUP, ENAMETOOLONG, 2, 0}, Refusal{CHANGE_OWNER_GROUP, ELOOP, 2, 0}));

class FileSysNullPaths : public FileSysTest, public testing::WithParamInterface<Refusal> {};

TEST_P(FileSysNullPaths, areTheSystemsToRefuse) {
    expectRefusal(GetParam(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysNullPaths,
    testing::Values(
        Refusal{EXISTS, EFAULT, 10, ALONE},           //
        Refusal{CREATE_DIR, EFAULT, 19, 9},           //
        Refusal{REMOVE_FILE, EFAULT, 10, 9},          //
        Refusal{REMOVE_DIR, EFAULT, 10, 9},           //
        Refusal{MOVE, EFAULT, 19, 9},                 //
        Refusal{MOVE_TO, EFAULT, 19, 9},              //
        Refusal{CHANGE_WD, EFAULT, 10, 9},            //
        Refusal{MAX_COMPONENT_LENGTH, EFAULT, 19, 9}, //
        Refusal{READ_LINK, EFAULT, 19, 9},            //
        Refusal{CREATE_LINK, EFAULT, 19, 9},          //
        Refusal{CHANGE_ACCESS, EFAULT, 10, 9},        //
        Refusal{CHANGE_OWNER_GROUP, EFAULT, 10, 9}));

class FileSysEmptyPaths : public FileSysTest, public testing::WithParamInterface<Refusal> {};

TEST_P(FileSysEmptyPaths, areBadPaths) {
    expectRefusal(GetParam(), "");
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysEmptyPaths,
    testing::Values(
        Refusal{CREATE_DIR, ENOENT, 2, 0},           //
        Refusal{REMOVE_FILE, ENOENT, 2, 0},          //
        Refusal{REMOVE_DIR, ENOENT, 2, 0},           //
        Refusal{MOVE, ENOENT, 2, 0},                 //
        Refusal{MOVE_TO, ENOENT, 2, 0},              //
        Refusal{CHANGE_WD, ENOENT, 2, 3},            //
        Refusal{MAX_COMPONENT_LENGTH, ENOENT, 2, 0}, //
        Refusal{READ_LINK, ENOENT, 2, 0},            //
        Refusal{CREATE_LINK, ENOENT, 2, 0},          //
        Refusal{CHANGE_ACCESS, ENOENT, 2, 0},        //
        Refusal{CHANGE_OWNER_GROUP, ENOENT, 2, 0}));

class FileSysWithoutRights : public FileSysTest, public testing::WithParamInterface<Refusal> {};

TEST_P(FileSysWithoutRights, isDenied) {
    VESK_SKIP_UNLESS_ROOT();
    m_folder.makeFolder("closed", 0700);
    m_folder.makeFile("closed/x");
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        expectRefusal(GetParam(), at("closed/x").c_str());
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysWithoutRights,
    testing::Values(
        Refusal{EXISTS, EACCES, 7, 3},               //
        Refusal{CREATE_DIR, EACCES, 7, 3},           //
        Refusal{REMOVE_FILE, EACCES, 7, 3},          //
        Refusal{REMOVE_DIR, EACCES, 7, 3},           //
        Refusal{MOVE, EACCES, 7, 3},                 //
        Refusal{CHANGE_WD, EACCES, 7, 3},            //
        Refusal{MAX_COMPONENT_LENGTH, EACCES, 7, 3}, //
        Refusal{READ_LINK, EACCES, 7, 3},            //
        Refusal{CREATE_LINK, EACCES, 7, 3},          //
        Refusal{CHANGE_ACCESS, EACCES, 7, 3},        //
        Refusal{CHANGE_OWNER_GROUP, EACCES, 7, 3}));

TEST_F(FileSysTest, anothersFileIsNotToBeChangedOrRemovedByEverybody) {
    VESK_SKIP_UNLESS_ROOT();
    // As /tmp is: whoever wants makes files, and only owners remove them.
    m_folder.makeFolder("sticky", 01777);
    m_folder.makeFile("sticky/file");
    m_folder.makeFolder("sticky/dir");
    std::string const file = at("sticky/file");
    std::string const directory = at("sticky/dir");
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        expectRefusal({REMOVE_FILE, EPERM, 7, 3}, file.c_str());
        expectRefusal({REMOVE_DIR, EPERM, 7, 3}, directory.c_str());
        expectRefusal({CHANGE_ACCESS, EPERM, 7, 3}, file.c_str());
        expectRefusal({CHANGE_OWNER_GROUP, EPERM, 7, 3}, file.c_str());
        EXPECT_TRUE(FileSys::move(file.c_str(), at("sticky/new").c_str()));
        EXPECT_TRUE(failedWith(EPERM, 7, 3, file + " or " + at("sticky/new")));
    });
}

class FileSysReadOnly : public FileSysTest, public testing::WithParamInterface<Refusal> {};

TEST_P(FileSysReadOnly, isDenied) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        m_folder.makeFile("mount/file");
        m_folder.makeFolder("mount/dir");
        ASSERT_TRUE(mountMemory(where, "", MS_REMOUNT | MS_RDONLY)) << strerror(errno);
        bool (*const run)(char const*) = GetParam().operation.run;
        bool const creates = run == CREATE_DIR.run || run == CREATE_LINK.run;
        expectRefusal(
            GetParam(),
            at(creates                     ? "mount/new"
                   : run == REMOVE_DIR.run ? "mount/dir"
                                           : "mount/file")
                .c_str());
    });
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysReadOnly,
    testing::Values(
        Refusal{CREATE_DIR, EROFS, 7, 3},    //
        Refusal{REMOVE_FILE, EROFS, 7, 3},   //
        Refusal{REMOVE_DIR, EROFS, 7, 3},    //
        Refusal{CREATE_LINK, EROFS, 7, 3},   //
        Refusal{CHANGE_ACCESS, EROFS, 7, 3}, //
        Refusal{CHANGE_OWNER_GROUP, EROFS, 7, 3}));

TEST_F(FileSysTest, moveWithinAReadOnlyFileSystemIsDenied) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        std::string const file = m_folder.makeFile("mount/file");
        ASSERT_TRUE(mountMemory(where, "", MS_REMOUNT | MS_RDONLY)) << strerror(errno);
        EXPECT_TRUE(FileSys::move(file.c_str(), at("mount/new").c_str()));
        EXPECT_TRUE(failedWith(EROFS, 7, 3, file + " or " + at("mount/new")));
    });
}

TEST_F(FileSysTest, moveBetweenTwoFileSystemsIsNotImplementedAndLosesNothing) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const file = m_folder.makeFile("file", "content");
    std::string const where = m_folder.makeFolder("mount");
    std::string const other = at("mount/new");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        EXPECT_TRUE(FileSys::move(file.c_str(), other.c_str()));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::NOT_IMPLEMENTED, "Function not implemented: " + systemText(EXDEV)},
             {FileAccessError, FileAccessErrorId::UNCLASSIFIED,
              "Unclassified open/access error occured for path '" + file + " or " + other + "'"}}));
        EXPECT_EQ("content", contentOf(file));
        EXPECT_EQ(1, FileSys::exists(other.c_str(), false)) << "nothing is copied";
    });
}

TEST_F(FileSysTest, mountPointIsInUse) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const where = m_folder.makeFolder("mount");
    std::string const file = m_folder.makeFile("file");
    std::string const over = m_folder.makeFile("over");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        ASSERT_EQ(0, mount(file.c_str(), over.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
        expectRefusal({REMOVE_DIR, EBUSY, 13, 5}, where.c_str());
        expectRefusal({REMOVE_FILE, EBUSY, 13, 5}, over.c_str());
        EXPECT_TRUE(FileSys::move(where.c_str(), at("new").c_str()));
        EXPECT_TRUE(failedWith(EBUSY, 13, 5, where + " or " + at("new")));
    });
}

TEST_F(FileSysTest, fullFileSystemHasNoRoomForALinkOrADirectory) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where, "size=64k,nr_inodes=2")) << strerror(errno);
        m_folder.makeFile("mount/last");
        expectRefusal({CREATE_LINK, ENOSPC, 15, 7}, at("mount/link").c_str());
        expectRefusal({CREATE_DIR, ENOSPC, 19, 9}, at("mount/dir").c_str());
    });
}

TEST_F(FileSysTest, fileSystemWithoutSymbolicLinksHasNotImplementedThem) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts());
        // The one of terminals knows no links.
        ASSERT_EQ(0, mount("devpts", where.c_str(), "devpts", 0, "")) << strerror(errno);
        expectRefusal({CREATE_LINK, EPERM, 6, 9}, at("mount/link").c_str());
    });
}

} // namespace
