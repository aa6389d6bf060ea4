#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"
#include "support/TempFolder.h"

#include <vesk/FileAccessError.h>
#include <vesk/FileInfo.h>
#include <vesk/SysError.h>
#include <vesk/UnicodeString.h>

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <ostream>
#include <pwd.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/un.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

VESK_INJECT_ERRNO(int, -1, stat, (char const* path, struct stat* data), (path, data))
VESK_INJECT_ERRNO(int, -1, lstat, (char const* path, struct stat* data), (path, data))
VESK_INJECT_ERRNO(int, -1, utimes, (char const* path, timeval const* times), (path, times))
VESK_INJECT_RESULT(
    getpwuid_r, (uid_t id, passwd* entry, char* buffer, size_t size, passwd** found),
    (id, entry, buffer, size, found))
VESK_INJECT_RESULT(
    getgrgid_r, (gid_t id, group* entry, char* buffer, size_t size, group** found),
    (id, entry, buffer, size, found))

namespace {

using support::chainIs;
using support::ChildEnd;
using support::ExpectedReport;
using support::Fault;
using support::Injected;
using support::rowText;
using support::runInChild;
using support::systemText;
using support::TempFolder;
using vesk::FileAccess;
using vesk::FileAccessError;
using vesk::FileInfo;
using vesk::Group;
using vesk::SysError;
using vesk::UnicodeString;
using vesk::User;

using Type = FileInfo::Type;

static_assert(std::is_trivially_copyable_v<FileInfo>);

ExpectedReport sysReport(int row, int error) {
    return {SysError, row, rowText(SysError, row, systemText(error))};
}

ExpectedReport accessReport(int row, std::string const& path) {
    return {FileAccessError, row, rowText(FileAccessError, row, path)};
}

/// Has a child give up the rights of root before it goes on.
void dropRights() {
    ASSERT_EQ(0, setgroups(0, nullptr));
    ASSERT_EQ(0, setresgid(65534, 65534, 65534));
    ASSERT_EQ(0, setresuid(65534, 65534, 65534));
}

/// A text that the locale of these tests could not express, so that nothing is left of it.
UnicodeString unconvertible() {
    setlocale(LC_ALL, "C");
    UnicodeString text(std::wstring(L"\x20AC"));
    EXPECT_EQ(nullptr, text.c_str());
    return text;
}

/// What the system itself tells.
struct stat askBare(std::string const& path, bool follow) {
    struct stat data;
    memset(&data, 0, sizeof data);
    EXPECT_EQ(0, follow ? stat(path.c_str(), &data) : lstat(path.c_str(), &data));
    return data;
}

class FileInfoTest : public testing::Test {
protected:
    TempFolder m_folder;
};

// ---- What is told ----

TEST_F(FileInfoTest, tellsAllThatTheSystemTells) {
    std::string const path = m_folder.makeFile("file", "12345");
    struct stat const bare = askBare(path, true);
    for (bool const follow : {false, true}) {
        for (FileInfo const& info :
             {FileInfo(path.c_str(), follow), FileInfo(path, follow),
              FileInfo(UnicodeString(path), follow)}) {
            EXPECT_TRUE(info.isValid());
            EXPECT_EQ(0, memcmp(&bare, &info.getStat(), sizeof bare));
        }
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileInfoTest, answersWithTheFieldsOfTheRecord) {
    std::string const path = m_folder.makeFile("file", std::string(10000, 'x'));
    ASSERT_EQ(0, link(path.c_str(), (m_folder / "other name").c_str()));
    timeval const times[2] = {{1000000001, 500000}, {1000000002, 500000}};
    ASSERT_EQ(0, utimes(path.c_str(), times));
    struct stat const bare = askBare(path, true);
    FileInfo const info(path, true);
    EXPECT_EQ(10000, info.getSize());
    EXPECT_EQ(bare.st_blocks * 512LL, info.getAllocatedSize());
    EXPECT_GE(info.getAllocatedSize(), 10000);
    EXPECT_EQ(1000000001, info.getAccessTime());
    EXPECT_EQ(1000000002, info.getModTime());
    EXPECT_EQ(bare.st_ctim.tv_sec, info.getChangeTime());
    EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(info.getChangeTime()), 100);
    EXPECT_EQ(bare.st_ino, info.getInode());
    EXPECT_EQ(bare.st_dev, info.getDevice());
    EXPECT_EQ(2u, info.getLinkCount());
    EXPECT_EQ(info.getInode(), FileInfo(m_folder / "other name", true).getInode());
    EXPECT_EQ(makedev(1, 3), FileInfo("/dev/null", true).getSpecialDevice());
}

TEST_F(FileInfoTest, aLinkIsDescribedItselfOrByItsTarget) {
    m_folder.makeFile("file", "12345");
    std::string const path = m_folder.makeLink("link", "file");
    FileInfo const link(path, false);
    EXPECT_TRUE(link.isSymbolicLink());
    EXPECT_FALSE(link.isRegularFile());
    EXPECT_EQ(4, link.getSize());
    FileInfo const file(path, true);
    EXPECT_TRUE(file.isRegularFile());
    EXPECT_EQ(5, file.getSize());
}

TEST_F(FileInfoTest, tellsTheTypeOfRealFiles) {
    EXPECT_EQ(Type::REGULAR, FileInfo(m_folder.makeFile("file"), true).getType());
    EXPECT_EQ(Type::DIRECTORY, FileInfo(m_folder.getPath(), true).getType());
    EXPECT_TRUE(FileInfo(m_folder.getPath(), true).isDirectory());
    EXPECT_EQ(Type::SYMBOLIC_LINK, FileInfo(m_folder.makeLink("link", "file"), false).getType());
    EXPECT_EQ(Type::CHARACTER_DEVICE, FileInfo("/dev/null", true).getType());
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    EXPECT_EQ(Type::FIFO, FileInfo(fifo, true).getType());
    int const server = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string const path = m_folder / "socket";
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(Type::SOCKET, FileInfo(path, true).getType());
    close(server);
}

struct TypeRow {
    mode_t mode;
    Type type;
};

TEST(FileInfo, tellsEveryTypeThatTheSystemHas) {
    for (TypeRow const& row :
         {TypeRow{S_IFREG, Type::REGULAR}, TypeRow{S_IFDIR, Type::DIRECTORY},
          TypeRow{S_IFLNK, Type::SYMBOLIC_LINK}, TypeRow{S_IFCHR, Type::CHARACTER_DEVICE},
          TypeRow{S_IFBLK, Type::BLOCK_DEVICE}, TypeRow{S_IFIFO, Type::FIFO}, TypeRow{S_IFSOCK, Type::SOCKET},
          TypeRow{0, Type::UNKNOWN}}) {
        struct stat data = {};
        data.st_mode = row.mode | 07777;
        FileInfo const info(data);
        EXPECT_TRUE(info.isValid());
        EXPECT_EQ(row.type, info.getType()) << std::oct << row.mode;
        EXPECT_EQ(row.type == Type::REGULAR, info.isRegularFile());
        EXPECT_EQ(row.type == Type::DIRECTORY, info.isDirectory());
        EXPECT_EQ(row.type == Type::SYMBOLIC_LINK, info.isSymbolicLink());
    }
}

TEST(FileInfo, isInvalidAndZeroedWithoutAFile) {
    FileInfo const info;
    EXPECT_FALSE(info.isValid());
    struct stat zeros;
    memset(&zeros, 0, sizeof zeros);
    EXPECT_EQ(0, memcmp(&zeros, &info.getStat(), sizeof zeros));
    EXPECT_EQ(Type::UNKNOWN, info.getType());
    EXPECT_EQ(FileAccess::none, info.getAccess());
}

TEST_F(FileInfoTest, aCopyIsASnapshotOfItsOwn) {
    std::string const path = m_folder.makeFile("file", "12345");
    FileInfo info(path, true);
    FileInfo const copy(info);
    m_folder.makeFile("file", "1234567");
    EXPECT_EQ(5, info.getSize()) << "it is not kept up to date";
    info.init(path.c_str(), true);
    EXPECT_EQ(7, info.getSize());
    EXPECT_EQ(5, copy.getSize());
    info = copy;
    EXPECT_EQ(5, info.getSize());
}

TEST_F(FileInfoTest, aFileTooLargeForA32BitProgramIsNotDescribedToOne) {
    std::string const path = m_folder.makeFile("file");
    long long const size = 3LL << 30;
    ASSERT_EQ(0, truncate64(path.c_str(), size));
    FileInfo const info(path, true);
    if (sizeof(off_t) == 8) {
        EXPECT_EQ(size, info.getSize());
        EXPECT_EQ(0, info.getAllocatedSize());
        EXPECT_TRUE(chainIs({}));
    } else {
        EXPECT_FALSE(info.isValid());
        EXPECT_TRUE(chainIs({sysReport(19, EOVERFLOW), accessReport(9, path)}));
    }
}

// ---- Access, owner, group ----

TEST_F(FileInfoTest, accessOfASetUidFileHoldsThatBit) {
    std::string const path = m_folder.makeFile("file");
    ASSERT_EQ(0, chmod(path.c_str(), 04755));
    FileAccess const access = FileInfo(path, true).getAccess();
    EXPECT_EQ(FileAccess::set_uid, access & FileAccess::set_uid);
    EXPECT_EQ(04755u, access.getBits());
}

TEST_F(FileInfoTest, accessIsThePermissionsWithoutTheType) {
    std::string const path = m_folder.makeFolder("folder");
    for (unsigned int const bits : {0u, 0700u, 01777u, 02750u, 07777u}) {
        ASSERT_EQ(0, chmod(path.c_str(), bits));
        EXPECT_EQ(bits, FileInfo(path, true).getAccess().getBits());
    }
}

TEST_F(FileInfoTest, ownerAndGroupAreKnownByIdAndNotLookedUp) {
    std::string const path = m_folder.makeFile("file");
    if (chown(path.c_str(), 12345, 54321) != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    Fault const user_calls(inject_getpwuid_r, 0);
    Fault const group_calls(inject_getgrgid_r, 0);
    FileInfo const info(path, true);
    User const owner = info.getOwner();
    EXPECT_TRUE(owner.isIdKnown());
    EXPECT_EQ(12345, owner.getId());
    EXPECT_FALSE(owner.isNameKnown());
    EXPECT_EQ(User::BAD_NAME, owner.getKnownName());
    Group const group = info.getGroup();
    EXPECT_TRUE(group.isIdKnown());
    EXPECT_EQ(54321, group.getId());
    EXPECT_FALSE(group.isNameKnown());
    EXPECT_EQ(Group::BAD_NAME, group.getKnownName());
    EXPECT_EQ(0, user_calls.getCalls());
    EXPECT_EQ(0, group_calls.getCalls());
}

TEST(FileInfo, aLargeOwnerStaysPositive) {
    struct stat data = {};
    data.st_uid = 4294967294u;
    data.st_gid = 4294967293u;
    EXPECT_EQ(4294967294LL, FileInfo(data).getOwner().getId());
    EXPECT_EQ(4294967293LL, FileInfo(data).getGroup().getId());
}

TEST(FileInfo, theOwnerOfTheRootIsLookedUpWhenItIsAskedFor) {
    EXPECT_EQ("root", FileInfo("/", true).getOwner().getName());
    EXPECT_EQ("root", FileInfo("/", true).getGroup().getName());
}

// ---- Failures ----

TEST_F(FileInfoTest, aPathThatDoesNotExistIsBad) {
    std::string const path = m_folder / "nothing";
    FileInfo info(m_folder.getPath(), true);
    EXPECT_TRUE(info.isValid());
    for (bool const follow : {false, true}) {
        info.init(path.c_str(), follow);
        EXPECT_FALSE(info.isValid());
        EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, path)}));
    }
    info.init(m_folder.getPath().c_str(), true);
    EXPECT_TRUE(info.isValid()) << "it can be asked again";
    EXPECT_FALSE(FileInfo("", true).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT), accessReport(0, "")}));
}

TEST_F(FileInfoTest, aPathThroughAFileIsBad) {
    std::string const path = m_folder.makeFile("file") + "/entry";
    EXPECT_FALSE(FileInfo(path, true).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENOTDIR), accessReport(0, path)}));
}

TEST_F(FileInfoTest, aLoopOfLinksIsABadPathIfItIsFollowed) {
    m_folder.makeLink("a", "b");
    std::string const path = m_folder.makeLink("b", "a");
    EXPECT_TRUE(FileInfo(path, false).isValid());
    EXPECT_FALSE(FileInfo(path, true).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ELOOP), accessReport(0, path)}));
}

TEST_F(FileInfoTest, aNameThatIsTooLongIsABadPath) {
    std::string const path = m_folder / std::string(256, 'x');
    EXPECT_FALSE(FileInfo(path, true).isValid());
    EXPECT_TRUE(chainIs({sysReport(2, ENAMETOOLONG), accessReport(0, path)}));
}

TEST_F(FileInfoTest, whoeverMayNotSearchADirectoryIsDeniedItsEntries) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give up rights";
    }
    std::string const locked = m_folder.makeFolder("locked");
    std::string const path = m_folder.makeFile("locked/file");
    ASSERT_EQ(0, chmod(locked.c_str(), 0600));
    ChildEnd const end = runInChild([&path] {
        dropRights();
        EXPECT_FALSE(FileInfo(path, true).isValid());
        EXPECT_TRUE(chainIs({sysReport(7, EACCES), accessReport(3, path)}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

TEST(FileInfo, noPathIsAnswereredByTheSystem) {
    char const* const none = nullptr;
    for (bool const follow : {false, true}) {
        EXPECT_FALSE(FileInfo(none, follow).isValid());
        EXPECT_TRUE(chainIs({sysReport(10, EFAULT), accessReport(9, "(null)")}));
        EXPECT_FALSE(FileInfo(unconvertible(), follow).isValid());
        EXPECT_TRUE(chainIs({sysReport(10, EFAULT), accessReport(9, "(null)")}));
    }
}

/// A number of the look at a path, and what is reported of it.
struct InitRow {
    int error;
    int sys_row;
    int access_row;
};

void PrintTo(InitRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class FileInfoInitRows : public FileInfoTest, public testing::WithParamInterface<InitRow> {
protected:
    void expectFailure(Injected& function, bool follow) {
        InitRow const& row = GetParam();
        std::string const& path = m_folder.getPath();
        Fault const fault(function, row.error);
        FileInfo const info(path, follow);
        EXPECT_FALSE(info.isValid());
        EXPECT_TRUE(chainIs({sysReport(row.sys_row, row.error), accessReport(row.access_row, path)}));
        EXPECT_EQ(1, fault.getCalls()) << "nothing is repeated";
    }
};

TEST_P(FileInfoInitRows, ofAPathThatIsFollowed) {
    expectFailure(inject_stat, true);
}

TEST_P(FileInfoInitRows, ofAPathThatIsNotFollowed) {
    expectFailure(inject_lstat, false);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FileInfoInitRows,
    testing::Values(
        InitRow{ENOENT, 2, 0}, InitRow{ENOTDIR, 2, 0}, InitRow{ENAMETOOLONG, 2, 0}, InitRow{ELOOP, 2, 0}, //
        InitRow{EIO, 11, 8},                                                                              //
        InitRow{ENOMEM, 1, 9},                                                                            //
        InitRow{EACCES, 7, 3},                                                                            //
        InitRow{EFAULT, 10, 9},                                                                           //
        InitRow{EINTR, 19, 9}, InitRow{EOVERFLOW, 19, 9}, InitRow{EBADF, 19, 9}, InitRow{EPERM, 19, 9},
        InitRow{9999, 19, 9}));

// ---- setModTime ----

TEST_F(FileInfoTest, timeZeroSetsBothTimesToThePresent) {
    std::string const path = m_folder.makeFile("file");
    ASSERT_FALSE(FileInfo::setModTime(path, 1000000000));
    // The clock of files may lag behind by a tick.
    time_t const before = time(nullptr) - 1;
    EXPECT_FALSE(FileInfo::setModTime(path, 0));
    time_t const after = time(nullptr);
    FileInfo const info(path, true);
    EXPECT_LE(before, info.getModTime());
    EXPECT_GE(after, info.getModTime());
    timespec const& access = info.getStat().st_atim;
    timespec const& modification = info.getStat().st_mtim;
    EXPECT_EQ(access.tv_sec, modification.tv_sec);
    EXPECT_EQ(access.tv_nsec, modification.tv_nsec);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileInfoTest, anyOtherTimeIsSetInWholeSeconds) {
    std::string const path = m_folder.makeFile("file");
    for (long const seconds : {1L, -1L, 1000000000L, 0x7FFFFFFFL}) {
        EXPECT_FALSE(FileInfo::setModTime(path, seconds));
        FileInfo const info(path, true);
        EXPECT_EQ(seconds, info.getModTime());
        EXPECT_EQ(seconds, info.getAccessTime());
        EXPECT_EQ(0, info.getStat().st_mtim.tv_nsec);
        EXPECT_EQ(0, info.getStat().st_atim.tv_nsec);
    }
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileInfoTest, everyFormOfAPathIsTakenForItsTimes) {
    std::string const path = m_folder.makeFile("file");
    EXPECT_FALSE(FileInfo::setModTime(path.c_str(), 1));
    EXPECT_EQ(1, FileInfo(path, true).getModTime());
    EXPECT_FALSE(FileInfo::setModTime(path, 2));
    EXPECT_EQ(2, FileInfo(path, true).getModTime());
    EXPECT_FALSE(FileInfo::setModTime(UnicodeString(path.c_str()), 3));
    EXPECT_EQ(3, FileInfo(path, true).getModTime());
}

TEST_F(FileInfoTest, timesAreSetThroughALink) {
    std::string const path = m_folder.makeFile("file");
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileInfo::setModTime(link, 1000000000));
    EXPECT_EQ(1000000000, FileInfo(path, true).getModTime());
    EXPECT_NE(1000000000, FileInfo(link, false).getModTime());
}

TEST_F(FileInfoTest, timesOfWhatDoesNotExistCannotBeSet) {
    EXPECT_TRUE(FileInfo::setModTime(m_folder / "nothing", 0));
    EXPECT_TRUE(chainIs({sysReport(2, ENOENT)}));
    EXPECT_TRUE(FileInfo::setModTime(m_folder.makeFile("file") + "/entry", 1));
    EXPECT_TRUE(chainIs({sysReport(2, ENOTDIR)}));
    EXPECT_TRUE(FileInfo::setModTime(unconvertible(), 1));
    EXPECT_TRUE(chainIs({sysReport(19, EFAULT)}));
}

TEST_F(FileInfoTest, timesOfOthersFilesCannotBeSet) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give up rights";
    }
    std::string const path = m_folder.makeFile("file");
    ChildEnd const end = runInChild([&path] {
        dropRights();
        EXPECT_TRUE(FileInfo::setModTime(path, 0));
        EXPECT_TRUE(chainIs({sysReport(7, EACCES)}));
        EXPECT_TRUE(FileInfo::setModTime(path, 1));
        EXPECT_TRUE(chainIs({sysReport(7, EPERM)}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output;
}

struct TimeRow {
    int error;
    int row;
};

void PrintTo(TimeRow const& row, std::ostream* out) {
    *out << "errno " << row.error;
}

class FileInfoTimeRows : public FileInfoTest, public testing::WithParamInterface<TimeRow> {};

TEST_P(FileInfoTimeRows, areReportedWithoutAPath) {
    for (long const seconds : {0L, 1L}) {
        Fault const fault(inject_utimes, GetParam().error);
        EXPECT_TRUE(FileInfo::setModTime(m_folder.getPath(), seconds));
        EXPECT_TRUE(chainIs({sysReport(GetParam().row, GetParam().error)}));
        EXPECT_EQ(1, fault.getCalls()) << "nothing is repeated";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, FileInfoTimeRows,
    testing::Values(
        TimeRow{EPERM, 7}, TimeRow{EACCES, 7}, TimeRow{EROFS, 7},                             //
        TimeRow{ENOENT, 2}, TimeRow{ENOTDIR, 2}, TimeRow{ENAMETOOLONG, 2}, TimeRow{ELOOP, 2}, //
        TimeRow{EINTR, 19}, TimeRow{EFAULT, 19}, TimeRow{EIO, 19}, TimeRow{EINVAL, 19}));

} // namespace
