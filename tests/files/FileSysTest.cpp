#include "FileTests.h"

#include <vesk/FileSys.h>

#include <limits>
#include <list>
#include <pwd.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

VESK_INJECT_RESULT(
    getpwnam_r, (char const* name, passwd* entry, char* buffer, size_t size, passwd** found),
    (name, entry, buffer, size, found))
VESK_INJECT_ERRNO(int, -1, stat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, lstat, (char const* path, struct stat* info), (path, info))
VESK_INJECT_ERRNO(int, -1, chown, (char const* path, uid_t user, gid_t group), (path, user, group))
VESK_INJECT_ERRNO(char*, nullptr, getcwd, (char* buffer, size_t size), (buffer, size))

// Arguments of the last calls.
static size_t s_readlink_size = 0;
static mode_t s_chmod_mode = 0;

VESK_INJECT_NOTING(int, -1, chmod, (char const* path, mode_t mode), (path, mode), s_chmod_mode = mode)

/// A fault pretends a link with the target "x".
support::Injected inject_readlink("readlink");
extern "C" VESK_UNWATCHED ssize_t readlink(char const* path, char* buffer, size_t size) {
    s_readlink_size = size;
    if (inject_readlink.fails()) {
        buffer[0] = 'x';
        return 1;
    }
    // Past the sanitizers, which would look at the path themselves.
    return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
}

namespace {

using namespace support;
using namespace vesk;

struct stat infoOf(std::string const& path) {
    struct stat info {};
    EXPECT_EQ(0, lstat(path.c_str(), &info)) << path << ": " << strerror(errno);
    return info;
}

mode_t accessOf(std::string const& path) {
    return infoOf(path).st_mode & 07777;
}

bool exists(std::string const& path) {
    return FileSys::exists(path.c_str(), false) == 0;
}

std::string getWorkingDirectory() {
    std::string result = "a longer earlier text, which is replaced";
    EXPECT_FALSE(FileSys::currentWD(result));
    return result;
}

/// A folder with the file "file".
class FileSysTest : public FileTest {
protected:
    std::string at(std::string const& name) const { return m_folder / name; }
};

constexpr std::pair<int, int> STAT_ANSWERS[] = {{ENOENT, 1}, {ENOTDIR, 1}, {EOVERFLOW, 0}};
VESK_TEST_TABLE(FileSysExistsAnswers, isReturnedAndNothingIsReported, testing::Test, STAT_ANSWERS) {
    auto const& [error, result] = GetParam();
    Fault const fault(inject_stat, error);
    Fault const link_fault(inject_lstat, error);
    EXPECT_EQ(result, FileSys::exists("/some/path", true));
    EXPECT_EQ(result, FileSys::exists("/some/path", false));
}

struct Entry : NamedRow {
    char const* path;
    int if_followed;
    int if_not_followed;
};

Entry const FILE_SYS_EXISTS[] = {
    {"file", "file", 0, 0},         {"directory", "directory", 0, 0},
    {"missing", "missing", 1, 1},   {"danglingLink", "dangling", 1, 0},
    {"loopOfLinks", "loop", -1, 0}, {"belowAFile", "file/below", 1, 1},
    {"emptyPath", "", 1, 1},        {"largerThan2Gibibytes", "large", 0, 0},
};

VESK_TEST_TABLE(FileSysExists, answersForLinksAndTheirTargets, FileSysTest, FILE_SYS_EXISTS) {
    m_folder.makeFolder("directory");
    m_folder.makeLink("dangling", "missing");
    m_folder.makeLink("loop", "loop");
    // A size that needs 64 bits.
    std::string const large = m_folder.makeFile("large");
    ASSERT_EQ(0, truncate64(large.c_str(), 3LL << 30)) << strerror(errno);
    std::string const path = *GetParam().path == '\0' ? "" : at(GetParam().path);
    EXPECT_EQ(GetParam().if_followed, FileSys::exists(path.c_str(), true));
    EXPECT_TRUE(GetParam().if_followed == -1 ? badPath(ELOOP).isPending(path) : chainIs({}));
    EXPECT_EQ(GetParam().if_not_followed, FileSys::exists(path.c_str(), false));
}

TEST_F(FileSysTest, accessToANewDirectoryIsTheOwnersLessTheUmask) {
    for (auto const& [mask, access] : {std::pair(0U, 0700U), std::pair(0277U, 0500U)}) {
        ScopedUmask const scope(mask);
        std::string const path = at("new" + std::to_string(mask));
        EXPECT_FALSE(FileSys::createDir(path.c_str()));
        EXPECT_TRUE(S_ISDIR(infoOf(path).st_mode));
        EXPECT_EQ(access, accessOf(path));
        EXPECT_FALSE(FileSys::removeDir(path.c_str()));
        EXPECT_FALSE(exists(path));
        EXPECT_TRUE(chainIs({}));
    }
}

TEST_F(FileSysTest, removalOfALinkLeavesItsTarget) {
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::removeFile(link.c_str()));
    EXPECT_FALSE(exists(link));
    EXPECT_TRUE(exists(m_path));
    EXPECT_FALSE(FileSys::removeFile(m_path.c_str()));
    EXPECT_FALSE(exists(m_path));
    EXPECT_TRUE(FileSys::removeFile(m_path.c_str()));
    EXPECT_TRUE(isMissing(m_path));
}

TEST_F(FileSysTest, movedFileOrDirectoryKeepsItsContent) {
    std::string const other = m_folder.makeFile("other", "2");
    EXPECT_FALSE(FileSys::move(m_path.c_str(), other.c_str()));
    EXPECT_EQ("0123456789abcdef", contentOf(other));
    EXPECT_FALSE(exists(m_path));
    m_folder.makeFolder("dir");
    m_folder.makeFile("dir/file", "x");
    EXPECT_FALSE(FileSys::move(at("dir").c_str(), at("new").c_str()));
    EXPECT_EQ("x", contentOf(at("new/file")));
}

TEST_F(FileSysTest, workingDirectoryIsChangedForRelativePaths) {
    m_folder.makeFolder("dir");
    m_folder.makeFile("dir/inner");
    expectInChild([&] {
        EXPECT_FALSE(FileSys::changeWD(at("dir").c_str()));
        EXPECT_TRUE(exists("inner"));
        EXPECT_EQ(at("dir"), getWorkingDirectory());
        EXPECT_FALSE(FileSys::changeWD(".."));
        EXPECT_FALSE(exists("inner"));
    });
}

TEST(FileSysCurrentWD, isReadWithOneCall) {
    WorkingFolder const folder;
    Calls const calls(inject_getcwd, 2);
    EXPECT_EQ(folder.getCanonicalPath(), getWorkingDirectory());
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("/", getWorkingDirectory());
}

TEST(FileSysCurrentWD, removedDirectoryIsAnInvalidPath) {
    WorkingFolder const folder;
    expectInChild([] {
        ASSERT_EQ(0, mkdir("gone", 0700));
        ASSERT_EQ(0, chdir("gone"));
        ASSERT_EQ(0, rmdir("../gone"));
        std::string result = "before";
        EXPECT_TRUE(FileSys::currentWD(result));
        EXPECT_EQ("before", result);
        EXPECT_TRUE(causeIs(SysErrorId::INVALID_PATH, ENOENT));
    });
}

TEST(FileSysCurrentWD, pathOf4095BytesFitsAndALongerOneIsSpoiledIntegrity) {
    WorkingFolder const folder;
    std::string const path = folder.getCanonicalPath();
    expectInChild([&path] {
        std::string expected = path;
        std::string name;
        while (expected.size() < 4095) {
            size_t const left = 4095 - expected.size() - 1;
            // The last folder needs a name, too.
            name.assign(left <= 201 ? left : std::min<size_t>(left - 2, 200), 'd');
            ASSERT_EQ(0, mkdir(name.c_str(), 0700));
            ASSERT_EQ(0, chdir(name.c_str()));
            expected += "/" + name;
        }
        std::string result;
        EXPECT_FALSE(FileSys::currentWD(result));
        EXPECT_EQ(expected, result);
        ASSERT_EQ(0, rename(("../" + name).c_str(), ("../" + name + "d").c_str()));
        EXPECT_TRUE(FileSys::currentWD(result));
        EXPECT_EQ(expected, result);
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ERANGE));
    });
}

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

TEST_F(FileSysTest, componentLengthOfAFileSystemWithCountsOf64BitsIsReturned) {
    std::string const mount_point = m_folder.makeFolder("mount");
    for (char const* const limit : {"size=100t", "nr_inodes=5g"}) {
        bool const mounted = runWithMount(mount_point, limit, [&] {
            unsigned int length = 0;
            EXPECT_FALSE(FileSys::maxComponentLength(mount_point.c_str(), length));
            EXPECT_EQ(255U, length);
            EXPECT_TRUE(chainIs({}));
        });
        if (!mounted) {
            GTEST_SKIP() << "mounting needs a privilege, and " << limit << " a system that takes it";
        }
    }
}

TEST_F(FileSysTest, componentLengthIsTheLimitOfTheFileSystem) {
    struct statvfs info {};
    ASSERT_EQ(0, statvfs(m_folder.getPath().c_str(), &info)) << strerror(errno);
    unsigned int length = 0;
    EXPECT_FALSE(FileSys::maxComponentLength(m_folder.getPath().c_str(), length));
    EXPECT_EQ(info.f_namemax, length);
    EXPECT_FALSE(FileSys::createDir(at(std::string(length, 'a')).c_str()));
    std::string const longer = at(std::string(length + 1, 'a'));
    EXPECT_TRUE(FileSys::createDir(longer.c_str()));
    EXPECT_TRUE(badPath(ENAMETOOLONG).isPending(longer));
}

struct Variable : NamedRow {
    char const* name;
    char const* (*get)();
    char const* value;
    char const* expected;
};

Variable const FILE_SYS_PATHS[] = {
    {"temp", "TMPDIR", FileSys::getTempPath, "/some/where", "/some/where"},
    {"emptyTemp", "TMPDIR", FileSys::getTempPath, "", "/tmp"},
    {"noTemp", "TMPDIR", FileSys::getTempPath, nullptr, "/tmp"},
    {"home", "HOME", FileSys::getHomePath, "/home/user", "/home/user"},
    {"emptyHome", "HOME", FileSys::getHomePath, "", ""},
    {"noHome", "HOME", FileSys::getHomePath, nullptr, ""},
};

VESK_TEST_TABLE(FileSysPaths, areThoseOfTheEnvironment, testing::Test, FILE_SYS_PATHS) {
    expectInChild([] {
        auto const& row = GetParam();
        EXPECT_EQ(0, row.value != nullptr ? setenv(row.name, row.value, 1) : unsetenv(row.name));
        EXPECT_STREQ(row.expected, row.get());
    });
}

TEST_F(FileSysTest, createdLinkHoldsItsTargetEvenIfItIsMissing) {
    EXPECT_FALSE(FileSys::createLink("no/such/file", at("link").c_str()));
    EXPECT_TRUE(S_ISLNK(infoOf(at("link")).st_mode)) << "it is a symbolic link";
    char buffer[64];
    memset(buffer, '#', sizeof buffer);
    unsigned int size = sizeof buffer;
    EXPECT_FALSE(FileSys::readLink(at("link").c_str(), buffer, size));
    EXPECT_EQ(strlen("no/such/file"), size);
    EXPECT_STREQ("no/such/file", buffer);
    EXPECT_EQ('#', buffer[size + 1]) << "behind the NUL nothing is changed";
    EXPECT_TRUE(FileSys::createLink("", at("empty").c_str()));
    EXPECT_TRUE(badPath(ENOENT).isPending(at("empty")));
}

constexpr char const* TARGETS[] = {"12345678901234567890", "1234567"};
VESK_TEST_TABLE(FileSysReadLink, cutsTheTargetToTheBufferWithoutAReport, FileSysTest, TARGETS) {
    std::string const link = m_folder.makeLink("link", GetParam());
    char buffer[9];
    memset(buffer, '#', sizeof buffer);
    unsigned int size = 8;
    EXPECT_FALSE(FileSys::readLink(link.c_str(), buffer, size));
    EXPECT_EQ(7U, size);
    EXPECT_STREQ("1234567", buffer);
    EXPECT_EQ('#', buffer[8]) << "behind the buffer nothing is changed";
}

TEST_F(FileSysTest, bufferSizeOfZeroIsTheLargestSize) {
    {
        Fault const pretended(inject_readlink, EIO);
        unsigned int size = 0;
        char buffer[8] = "old";
        EXPECT_FALSE(FileSys::readLink("/some/link", buffer, size));
        EXPECT_EQ(size_t{UINT32_MAX}, s_readlink_size);
        EXPECT_EQ(1U, size);
        EXPECT_STREQ("x", buffer);
    }
    // The system refuses the size, with an error of its choice. One byte has no room for a target.
    std::string const link = m_folder.makeLink("link", "target");
    for (unsigned int size : {0U, 1U}) {
        char buffer[8] = "old";
        bool const has_size = size != 0;
        EXPECT_TRUE(FileSys::readLink(link.c_str(), buffer, size));
        EXPECT_EQ(0U, size);
        EXPECT_STREQ("", buffer);
        EXPECT_NE(nullptr, std::ErrorStorage::get());
        EXPECT_TRUE(!has_size || badPath(EINVAL).isPending(link));
        std::ErrorStorage::ack();
    }
}

TEST_F(FileSysTest, bitsOfTheMaskAreSetAsAccessToTheTarget) {
    for (unsigned int const bits : {0701U, 0U, 07777U}) {
        EXPECT_FALSE(FileSys::changeAccess(m_path.c_str(), FileAccess(bits)));
        EXPECT_EQ(bits, accessOf(m_path));
    }
    EXPECT_FALSE(FileSys::changeAccess(m_path.c_str(), FileAccess(0xFFFFF000U | 0640U)));
    EXPECT_EQ((0xFFFFF000U & 07777U) | 0640U, s_chmod_mode);
    EXPECT_EQ(0640U, accessOf(m_path));
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileSys::changeAccess(link.c_str(), FileAccess::owner_read));
    EXPECT_EQ(0400U, accessOf(m_path));
}

class FileSysOwnerTest : public FileSysTest {
protected:
    void SetUp() override { VESK_SKIP_UNLESS_ROOT(); }

    bool change(User const& user, Group const& group) const {
        return FileSys::changeOwnerGroup(m_path, user, group);
    }

    void expectOwner(uid_t user, gid_t group) const {
        struct stat const info = infoOf(m_path);
        EXPECT_EQ(user, info.st_uid);
        EXPECT_EQ(group, info.st_gid);
    }
};

TEST_F(FileSysOwnerTest, idsAreSetWithoutALookUpAndForTheTargetOfALink) {
    std::string const link = m_folder.makeLink("link", "file");
    Calls const none(inject_getpwnam_r, 0);
    EXPECT_FALSE(FileSys::changeOwnerGroup(link, User(4711LL), Group(4712LL)));
    expectOwner(4711, 4712);
    EXPECT_EQ(0U, infoOf(link).st_uid);
}

TEST_F(FileSysOwnerTest, nameIsLookedUpOnceAndItsIdKept) {
    std::string name;
    uid_t id = 0;
    setpwent();
    while (passwd const* const entry = name.empty() ? getpwent() : nullptr) {
        if (entry->pw_uid != 0) {
            name = entry->pw_name;
            id = entry->pw_uid;
        }
    }
    endpwent();
    if (name.empty()) {
        GTEST_SKIP() << "the system has no user but root";
    }
    User const user(name);
    EXPECT_FALSE(user.isIdKnown());
    {
        Calls const look_ups(inject_getpwnam_r, 1);
        Calls const changes(inject_chown, 4, EINTR, 3);
        EXPECT_FALSE(change(user, Group(std::string("root"))));
    }
    expectOwner(id, 0);
    EXPECT_TRUE(user.isIdKnown());
    EXPECT_EQ(id, user.getKnownId());
}

TEST_F(FileSysOwnerTest, groupIsLookedUpByItsNameToo) {
    ASSERT_FALSE(change(User(4711LL), Group(4712LL)));
    Group const group(std::string("root"));
    EXPECT_FALSE(change(User(User::BAD_ID), group));
    expectOwner(4711, 0);
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(0, group.getKnownId());
}

TEST_F(FileSysOwnerTest, unknownNamesLeaveTheOwnerUnchanged) {
    ASSERT_FALSE(change(User(4711LL), Group(4712LL)));
    User const user(std::string("vesk-no-such-user"));
    Group const group(std::string("vesk-no-such-group"));
    EXPECT_FALSE(change(user, group));
    expectOwner(4711, 4712);
    EXPECT_TRUE(user.isIdKnown()) << "the failed look-up is kept";
    EXPECT_EQ(User::BAD_ID, user.getKnownId());
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(Group::BAD_ID, group.getKnownId());
}

TEST_F(FileSysOwnerTest, impossibleIdIsRefusedAndNotCut) {
    Calls const calls(inject_chown, 1);
    ErrnoCase const refused = {EINVAL, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
    for (long long const id : {1LL << 32, (1LL << 32) + 1, -2LL, std::numeric_limits<long long>::min()}) {
        EXPECT_TRUE(change(User(id), Group(0LL)));
        EXPECT_TRUE(refused.isPending(m_path));
        EXPECT_TRUE(change(User(0LL), Group(id)));
        EXPECT_TRUE(refused.isPending(m_path));
    }
    EXPECT_FALSE(change(User(0xFFFFFFFELL), Group(0xFFFFFFFELL)));
    expectOwner(0xFFFFFFFE, 0xFFFFFFFE);
}

} // namespace
