#include "FileTests.h"

#include <vesk/FileInfo.h>
#include <vesk/UnicodeString.h>

#include <clocale>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/un.h>

VESK_INJECT_RESULT(
    getpwuid_r, (uid_t id, passwd* entry, char* buffer, size_t size, passwd** found),
    (id, entry, buffer, size, found))
VESK_INJECT_RESULT(
    getgrgid_r, (gid_t id, group* entry, char* buffer, size_t size, group** found),
    (id, entry, buffer, size, found))

namespace {

using namespace support;
using namespace vesk;

using Type = FileInfo::Type;

static_assert(std::is_trivially_copyable_v<FileInfo>);

/// Returns a text that the locale cannot express, which leaves a null text.
UnicodeString makeNullText() {
    setlocale(LC_ALL, "C");
    UnicodeString text(std::wstring(L"\x20AC"));
    EXPECT_EQ(nullptr, text.c_str());
    return text;
}

struct stat statOf(std::string const& path) {
    struct stat data;
    memset(&data, 0, sizeof data);
    EXPECT_EQ(0, stat(path.c_str(), &data));
    return data;
}

using FileInfoTest = FileTest;

TEST_F(FileInfoTest, holdsTheRecordOfTheSystem) {
    std::string const path = m_folder.makeFile("file", "12345");
    struct stat const bare = statOf(path);
    for (bool const follow : {false, true}) {
        for (FileInfo const& info :
             {FileInfo(path.c_str(), follow), FileInfo(path, follow),
              FileInfo(UnicodeString(path), follow)}) {
            EXPECT_TRUE(info.isValid());
            EXPECT_EQ(0, memcmp(&bare, &info.getStat(), sizeof bare));
        }
    }
}

TEST_F(FileInfoTest, accessorsReturnTheFieldsOfTheRecord) {
    std::string const path = m_folder.makeFile("file", std::string(10000, 'x'));
    ASSERT_EQ(0, link(path.c_str(), (m_folder / "other name").c_str()));
    timeval const times[2] = {{1000000001, 500000}, {1000000002, 500000}};
    ASSERT_EQ(0, utimes(path.c_str(), times));
    struct stat const bare = statOf(path);
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

TEST_F(FileInfoTest, linkOrItsTargetIsDescribed) {
    m_folder.makeFile("file", "12345");
    std::string const path = m_folder.makeLink("link", "file");
    FileInfo const link(path, false);
    EXPECT_TRUE(link.isSymbolicLink());
    EXPECT_FALSE(link.isRegularFile());
    EXPECT_EQ(4, link.getSize());
    FileInfo const file(path, true);
    EXPECT_TRUE(file.isRegularFile());
    EXPECT_EQ(5, file.getSize());
    EXPECT_TRUE(FileInfo(m_folder.makeLink("loop", "loop"), false).isValid()) << "the link is not followed";
}

TEST_F(FileInfoTest, realFilesHaveTheirTypes) {
    EXPECT_EQ(Type::REGULAR, FileInfo(m_folder.makeFile("file"), true).getType());
    EXPECT_EQ(Type::DIRECTORY, FileInfo(m_folder.getPath(), true).getType());
    EXPECT_TRUE(FileInfo(m_folder.getPath(), true).isDirectory());
    EXPECT_EQ(Type::SYMBOLIC_LINK, FileInfo(m_folder.makeLink("link", "file"), false).getType());
    EXPECT_EQ(Type::CHARACTER_DEVICE, FileInfo("/dev/null", true).getType());
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    EXPECT_EQ(Type::FIFO, FileInfo(fifo, true).getType());
    int const server = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {AF_UNIX, ""};
    std::string const path = m_folder / "socket";
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(Type::SOCKET, FileInfo(path, true).getType());
    close(server);
}

TEST(FileInfo, everyTypeOfTheSystemIsRecognized) {
    for (auto const& [mode, type] :
         {std::pair(S_IFREG, Type::REGULAR), std::pair(S_IFDIR, Type::DIRECTORY),
          std::pair(S_IFLNK, Type::SYMBOLIC_LINK), std::pair(S_IFCHR, Type::CHARACTER_DEVICE),
          std::pair(S_IFBLK, Type::BLOCK_DEVICE), std::pair(S_IFIFO, Type::FIFO),
          std::pair(S_IFSOCK, Type::SOCKET), std::pair(0, Type::UNKNOWN)}) {
        struct stat data = {};
        data.st_mode = static_cast<mode_t>(mode) | 07777;
        FileInfo const info(data);
        EXPECT_TRUE(info.isValid());
        EXPECT_EQ(type, info.getType()) << std::oct << mode;
        EXPECT_EQ(type == Type::REGULAR, info.isRegularFile());
        EXPECT_EQ(type == Type::DIRECTORY, info.isDirectory());
        EXPECT_EQ(type == Type::SYMBOLIC_LINK, info.isSymbolicLink());
    }
}

TEST(FileInfo, isInvalidAndZeroedWithoutAFile) {
    FileInfo const info;
    EXPECT_FALSE(info.isValid());
    EXPECT_TRUE(isZeroed(info));
    EXPECT_EQ(Type::UNKNOWN, info.getType());
    EXPECT_EQ(FileAccess::none, info.getAccess());
}

TEST_F(FileInfoTest, copyIsASnapshot) {
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

TEST_F(FileInfoTest, sizeBeyond32BitsIsDescribedOnlyTo64BitPrograms) {
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
        ErrnoCase const reports{EOVERFLOW, SysErrorId::UNCLASSIFIED, FileAccessErrorId::UNCLASSIFIED};
        EXPECT_TRUE(reports.isPending(path));
    }
}

TEST_F(FileInfoTest, accessIsThePermissionsWithoutTheType) {
    std::string const path = m_folder.makeFolder("folder");
    for (unsigned int const bits : {0u, 0700u, 01777u, 02750u, 07777u}) {
        ASSERT_EQ(0, chmod(path.c_str(), bits));
        EXPECT_EQ(bits, FileInfo(path, true).getAccess().getBits());
    }
    FileAccess const of_file = FileInfo(m_folder.makeFile("file", "", 04755), true).getAccess();
    EXPECT_EQ(FileAccess::set_uid, of_file & FileAccess::set_uid);
    EXPECT_EQ(04755u, of_file.getBits());
}

TEST_F(FileInfoTest, ownerAndGroupAreKnownByIdAndNotLookedUp) {
    if (chown(m_path.c_str(), 12345, 54321) != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    Calls const no_users(inject_getpwuid_r, 0);
    Calls const no_groups(inject_getgrgid_r, 0);
    FileInfo const info(m_path, true);
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
}

TEST(FileInfo, ownerHasAPositiveIdAndANameOnRequest) {
    struct stat data = {};
    data.st_uid = 4294967294u;
    data.st_gid = 4294967293u;
    EXPECT_EQ(4294967294LL, FileInfo(data).getOwner().getId());
    EXPECT_EQ(4294967293LL, FileInfo(data).getGroup().getId());
    EXPECT_EQ("root", FileInfo("/", true).getOwner().getName());
    EXPECT_EQ("root", FileInfo("/", true).getGroup().getName());
}

TEST_F(FileInfoTest, missingPathIsBadUntilTheNextInit) {
    FileInfo info(m_path, true);
    EXPECT_TRUE(info.isValid());
    info.init(m_missing.c_str(), true);
    EXPECT_FALSE(info.isValid());
    EXPECT_TRUE(isMissing(m_missing));
    info.init(m_path.c_str(), true);
    EXPECT_TRUE(info.isValid());
}

TEST(FileInfo, nullTextIsRefusedByTheSystem) {
    ErrnoCase const reports{EFAULT, SysErrorId::SPOILED_INTEGRITY, FileAccessErrorId::UNCLASSIFIED};
    for (bool const follow : {false, true}) {
        EXPECT_FALSE(FileInfo(makeNullText(), follow).isValid());
        EXPECT_TRUE(reports.isPending("(null)"));
    }
    EXPECT_TRUE(FileInfo::setModTime(makeNullText(), 1));
    EXPECT_TRUE(causeIs(SysErrorId::UNCLASSIFIED, EFAULT));
}

TEST_F(FileInfoTest, timeZeroSetsBothTimesToThePresent) {
    ASSERT_FALSE(FileInfo::setModTime(m_path, 1000000000));
    // The clock of files may lag behind by a tick.
    time_t const before = time(nullptr) - 1;
    EXPECT_FALSE(FileInfo::setModTime(m_path, 0));
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &after); // Unlike time(), this clock does not lag behind that of files.
    FileInfo const info(m_path, true);
    EXPECT_LE(before, info.getModTime());
    EXPECT_GE(after.tv_sec, info.getModTime());
    timespec const& access = info.getStat().st_atim;
    timespec const& modification = info.getStat().st_mtim;
    EXPECT_EQ(access.tv_sec, modification.tv_sec);
    EXPECT_EQ(access.tv_nsec, modification.tv_nsec);
}

TEST_F(FileInfoTest, anyOtherTimeIsSetInWholeSecondsForEveryFormOfAPath) {
    auto const expectTime = [this](long seconds) {
        FileInfo const info(m_path, true);
        EXPECT_EQ(seconds, info.getModTime());
        EXPECT_EQ(seconds, info.getAccessTime());
        EXPECT_EQ(0, info.getStat().st_mtim.tv_nsec);
        EXPECT_EQ(0, info.getStat().st_atim.tv_nsec);
    };
    for (long const seconds : {1L, -1L, 1000000000L, 0x7FFFFFFFL}) {
        EXPECT_FALSE(FileInfo::setModTime(m_path, seconds));
        expectTime(seconds);
    }
    EXPECT_FALSE(FileInfo::setModTime(m_path.c_str(), 2));
    expectTime(2);
    EXPECT_FALSE(FileInfo::setModTime(UnicodeString(m_path.c_str()), 3));
    expectTime(3);
    std::string const link = m_folder.makeLink("link", "file");
    EXPECT_FALSE(FileInfo::setModTime(link, 1000000000));
    EXPECT_EQ(1000000000, FileInfo(m_path, true).getModTime());
    EXPECT_NE(1000000000, FileInfo(link, false).getModTime());
}

} // namespace
