#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"
#include "support/calls/FileCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <vesk/BinFileBase.h>
#include <vesk/Directory.h>
#include <vesk/FileAccessError.h>
#include <vesk/Pipe.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <iostream>
#include <new>
#include <ostream>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::contentOf;
using support::failureIs;
using support::Fault;
using support::getSlot;
using support::isOpen;
using support::rowText;
using support::s_file_calls;
using support::systemText;
using support::TempFolder;
using vesk::BinFileBase;
using vesk::Directory;
using vesk::FileAccess;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::FileInfo;
using vesk::Pipe;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

using OpenFlags = BinFileBase::OpenFlags;

static_assert(!std::is_copy_constructible_v<BinFileBase> && !std::is_copy_assignable_v<BinFileBase>);
static_assert(sizeof(OpenFlags) == 4 && sizeof(BinFileBase::ReadFlags) == 4);
static_assert(std::is_convertible_v<BinFileBase::WriteFlags, OpenFlags>);
static_assert(!std::is_convertible_v<BinFileBase::WriteFlags, BinFileBase::ReadFlags>);
static_assert(BinFileBase::DEFAULT_ACCESS.getBits() == 0660);

/// Shows what only deriving classes see.
class File : public BinFileBase {
public:
    uint32_t getFlags() const { return m_flags.getWord(); }
};

class BinFileBaseTest : public testing::Test {
protected:
    void openFile(BinFileBase& file, std::string const& path, OpenFlags flags) {
        ASSERT_FALSE(file.open(path.c_str(), flags, FileAccess::none));
    }

    TempFolder m_folder;
    File m_file;
};

TEST_F(BinFileBaseTest, startsClosed) {
    EXPECT_FALSE(m_file.isValid());
    EXPECT_EQ(-1, m_file.getDescriptor());
    EXPECT_EQ(0U, m_file.getFlags());
    EXPECT_FALSE(m_file.hadError());
    EXPECT_EQ("", m_file.getTempPath());
}

TEST_F(BinFileBaseTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(0, getSlot(&BinFileBase::isValid));
    EXPECT_EQ(1, getSlot(&BinFileBase::close));
}

TEST_F(BinFileBaseTest, wordOfADirectionStartsWithIt) {
    EXPECT_EQ(0U, OpenFlags().getWord());
    EXPECT_EQ(1U, BinFileBase::ReadFlags().getWord());
    EXPECT_EQ(2U, BinFileBase::WriteFlags().getWord());
    EXPECT_EQ(3U, BinFileBase::ReadWriteFlags().getWord());
    BinFileBase::WriteFlags const flags(BinFileBase::WRITE | BinFileBase::CREATE | BinFileBase::EXCLUSIVE);
    EXPECT_EQ(0x4AU, flags.getWord());
    EXPECT_TRUE(flags.has(BinFileBase::EXCLUSIVE));
    EXPECT_FALSE(flags.has(BinFileBase::NON_BLOCK));
    EXPECT_TRUE(OpenFlags(BinFileBase::READ) == OpenFlags(1U));
    EXPECT_TRUE(OpenFlags(BinFileBase::READ) != OpenFlags(2U));
}

// ---- the word, and what becomes of it ----

struct FlagRow {
    unsigned int word;
    int system_flags;
};

void PrintTo(FlagRow const& row, std::ostream* out) {
    *out << "0x" << std::hex << row.word << std::dec;
}

class BinFileBaseFlags : public testing::TestWithParam<FlagRow> {};

TEST_P(BinFileBaseFlags, becomeThoseOfTheSystem) {
    FlagRow const row = GetParam();
    unsigned int const mode = (row.system_flags & O_CREAT) != 0 ? 0640 : 0;
    File file;
    {
        Fault const fault(inject_open, ENOENT);
        EXPECT_TRUE(file.open("name", OpenFlags(row.word), FileAccess(0640)));
    }
    EXPECT_EQ(row.system_flags | O_CLOEXEC, s_file_calls.open_flags);
    EXPECT_EQ(mode, s_file_calls.open_mode);
    EXPECT_EQ(row.word, file.getFlags());

    TempFolder const folder;
    Directory const dir(folder.getPath(), true);
    {
        Fault const fault(inject_openat, ENOENT, 1, 2);
        EXPECT_TRUE(file.openAt(dir, "name", true, OpenFlags(row.word), FileAccess(0640)));
        EXPECT_EQ(row.system_flags | O_CLOEXEC, s_file_calls.open_flags);
        EXPECT_EQ(mode, s_file_calls.open_mode);
        EXPECT_TRUE(file.openAt(dir, "name", false, OpenFlags(row.word), FileAccess(0640)));
        EXPECT_EQ(row.system_flags | O_CLOEXEC | O_NOFOLLOW, s_file_calls.open_flags);
    }
    std::ErrorStorage::ack();
}

INSTANTIATE_TEST_SUITE_P(
    rows, BinFileBaseFlags,
    testing::Values(
        FlagRow{0x01, O_RDONLY}, FlagRow{0x02, O_WRONLY}, FlagRow{0x03, O_RDWR}, FlagRow{0x00, O_RDWR},
        FlagRow{0x05, O_RDONLY | O_NONBLOCK}, FlagRow{0x0A, O_WRONLY | O_CREAT},
        FlagRow{0x12, O_WRONLY | O_TRUNC}, FlagRow{0x22, O_WRONLY | O_APPEND},
        FlagRow{0x42, O_WRONLY | O_CREAT | O_EXCL}, FlagRow{0x08, O_RDWR | O_CREAT},
        FlagRow{0x7F, O_RDWR | O_NONBLOCK | O_CREAT | O_TRUNC | O_APPEND | O_EXCL},
        FlagRow{0xFFFFFF81, O_RDONLY}));

TEST_F(BinFileBaseTest, accessIsPassedOnUnmasked) {
    Fault const fault(inject_open, ENOENT);
    EXPECT_TRUE(m_file.open("name", BinFileBase::WRITE | BinFileBase::CREATE, FileAccess(0177777)));
    EXPECT_EQ(0177777U, s_file_calls.open_mode);
    std::ErrorStorage::ack();
}

TEST_F(BinFileBaseTest, fileThatIsMadeHasTheAccessLessTheMaskOfTheProcess) {
    mode_t const mask = umask(027);
    std::string const path = m_folder / "new";
    EXPECT_FALSE(
        m_file.open(path.c_str(), BinFileBase::WRITE | BinFileBase::CREATE, BinFileBase::DEFAULT_ACCESS));
    umask(mask);
    EXPECT_EQ(0640U, m_file.getFileInfo().getAccess().getBits());
}

TEST_F(BinFileBaseTest, descriptorIsClosedByExec) {
    openFile(m_file, m_folder.makeFile("file"), BinFileBase::READ);
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_file.getDescriptor(), F_GETFD) & FD_CLOEXEC);
    EXPECT_FALSE(m_file.close());
    Directory const dir(m_folder.getPath(), true);
    EXPECT_FALSE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_file.getDescriptor(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(BinFileBaseTest, wordWithoutADirectionOpensForBoth) {
    std::string const path = m_folder.makeFile("file", "abc");
    openFile(m_file, path, OpenFlags(0U));
    char block[3];
    EXPECT_EQ(3, read(m_file.getDescriptor(), block, 3));
    EXPECT_EQ(1, write(m_file.getDescriptor(), "d", 1));
    EXPECT_EQ("abcd", contentOf(path));
}

TEST_F(BinFileBaseTest, exclusiveAloneMakesTheFileAndRefusesOneThatIsThere) {
    std::string const path = m_folder / "new";
    EXPECT_FALSE(m_file.open(path.c_str(), BinFileBase::EXCLUSIVE, BinFileBase::DEFAULT_ACCESS));
    EXPECT_TRUE(m_file.isValid());
    EXPECT_EQ("", contentOf(path));
    EXPECT_TRUE(m_file.open(path.c_str(), BinFileBase::EXCLUSIVE, BinFileBase::DEFAULT_ACCESS));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::IN_USE, rowText(SysErrorId::IN_USE, systemText(EEXIST))},
         {FileAccessError, FileAccessErrorId::ALREADY_EXISTS,
          rowText(FileAccessErrorId::ALREADY_EXISTS, path)}}));
    EXPECT_FALSE(m_file.isValid());
}

TEST_F(BinFileBaseTest, appendWritesBehindTheFileAndTruncateEmptiesIt) {
    std::string const path = m_folder.makeFile("file", "abc");
    openFile(m_file, path, BinFileBase::WRITE | BinFileBase::APPEND);
    EXPECT_EQ(1, write(m_file.getDescriptor(), "d", 1));
    EXPECT_EQ("abcd", contentOf(path));
    openFile(m_file, path, BinFileBase::WRITE | BinFileBase::TRUNCATE);
    EXPECT_EQ("", contentOf(path));
}

// ---- open ----

TEST_F(BinFileBaseTest, openWithoutAPathSucceedsAndStaysClosed) {
    Fault const calls(inject_open, 0);
    for (char const* const path : {static_cast<char const*>(nullptr), ""}) {
        EXPECT_FALSE(m_file.open(path, BinFileBase::READ, FileAccess::none));
        EXPECT_FALSE(m_file.isValid());
        EXPECT_FALSE(m_file.hadError());
        EXPECT_EQ(0U, m_file.getFlags());
    }
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(BinFileBaseTest, openWithoutAPathClosesWhatIsOpen) {
    openFile(m_file, m_folder.makeFile("file"), BinFileBase::READ);
    int const fd = m_file.getDescriptor();
    EXPECT_FALSE(m_file.open("", BinFileBase::WRITE, FileAccess::none));
    EXPECT_FALSE(m_file.isValid());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(1U, m_file.getFlags()) << "the word is kept";
}

TEST_F(BinFileBaseTest, openClosesWhatIsOpenFirst) {
    openFile(m_file, m_folder.makeFile("first", "1"), BinFileBase::READ);
    int const fd = m_file.getDescriptor();
    openFile(m_file, m_folder.makeFile("second", "2"), BinFileBase::READ_WRITE);
    EXPECT_EQ(fd, m_file.getDescriptor()) << "the lowest number is free again";
    EXPECT_EQ(3U, m_file.getFlags());
    char c = 0;
    EXPECT_EQ(1, read(m_file.getDescriptor(), &c, 1));
    EXPECT_EQ('2', c);
}

TEST_F(BinFileBaseTest, openStopsWhenTheOldFileCannotBeClosed) {
    std::string const path = m_folder.makeFile("file");
    openFile(m_file, path, BinFileBase::READ);
    int const fd = m_file.getDescriptor();
    Fault const fault(inject_close, EIO);
    Fault const opens(inject_open, 0);
    EXPECT_TRUE(m_file.open(path.c_str(), BinFileBase::WRITE, FileAccess::none));
    EXPECT_TRUE(failureIs(EIO, 11));
    EXPECT_EQ(0, opens.getCalls());
    EXPECT_EQ(fd, m_file.getDescriptor());
    EXPECT_EQ(1U, m_file.getFlags());
    EXPECT_TRUE(m_file.hadError());
}

TEST_F(BinFileBaseTest, openClosesThroughTheClassThatDerives) {
    class Careful : public BinFileBase {
    public:
        bool close() override {
            ++closes;
            return fails || BinFileBase::close();
        }
        int closes = 0;
        bool fails = false;
    } file;
    std::string const path = m_folder.makeFile("file");
    openFile(file, path, BinFileBase::READ);
    EXPECT_EQ(0, file.closes);
    openFile(file, path, BinFileBase::READ);
    EXPECT_EQ(1, file.closes);
    file.fails = true;
    EXPECT_TRUE(file.open(path.c_str(), BinFileBase::READ, FileAccess::none));
    EXPECT_TRUE(file.isValid());
    EXPECT_TRUE(file.hadError());
    Pipe pipe;
    EXPECT_TRUE(file.open(pipe, false));
    EXPECT_NE(-1, pipe.getReadEnd());
    EXPECT_EQ(3, file.closes);
}

TEST_F(BinFileBaseTest, openForgetsThatTheCloseBeforeWasInterrupted) {
    Pipe pipe;
    for (auto const& open : std::initializer_list<std::function<bool()>>{
             [&] { return m_file.open("/dev/null", BinFileBase::READ, FileAccess::none); },
             [&] { return m_file.open(pipe, false); },
             [&] { return m_file.open("", BinFileBase::READ, FileAccess::none); }}) {
        openFile(m_file, "/dev/null", BinFileBase::READ);
        Fault const fault(inject_close, EINTR);
        EXPECT_FALSE(open());
        EXPECT_EQ(2, fault.getCalls());
        EXPECT_FALSE(m_file.hadError());
    }
}

TEST_F(BinFileBaseTest, failedOpenLeavesTheObjectClosedWithTheNewWord) {
    std::string const path = m_folder.makeFile("file");
    openFile(m_file, path, BinFileBase::READ);
    std::string const missing = m_folder / "missing";
    EXPECT_TRUE(m_file.open(missing.c_str(), BinFileBase::WRITE, FileAccess::none));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, missing)}}));
    EXPECT_FALSE(m_file.isValid());
    EXPECT_EQ(-1, m_file.getDescriptor());
    EXPECT_EQ(2U, m_file.getFlags());
    EXPECT_TRUE(m_file.hadError());
    openFile(m_file, path, BinFileBase::READ);
    EXPECT_FALSE(m_file.hadError());
}

struct OpenRow {
    int error;
    int cause;
    int on_top;
};

void PrintTo(OpenRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class BinFileBaseOpen : public testing::TestWithParam<OpenRow> {
protected:
    void expectReports(char const* path) const {
        OpenRow const row = GetParam();
        EXPECT_TRUE(chainIs(
            {{SysError, row.cause, rowText(SysError, row.cause, systemText(row.error))},
             {FileAccessError, row.on_top, rowText(FileAccessError, row.on_top, path)}}));
    }
};

TEST_P(BinFileBaseOpen, failureTellsItsCauseAndThePath) {
    File file;
    Fault const fault(inject_open, GetParam().error);
    EXPECT_TRUE(file.open("some/path", BinFileBase::READ, FileAccess::none));
    expectReports("some/path");
    EXPECT_EQ(-1, file.getDescriptor());
    EXPECT_EQ(1, fault.getCalls());
}

TEST_P(BinFileBaseOpen, failureOfAnEntryTellsItsCauseAndTheName) {
    TempFolder const folder;
    Directory const dir(folder.getPath(), true);
    File file;
    Fault const fault(inject_openat, GetParam().error);
    EXPECT_TRUE(file.openAt(dir, "name", true, BinFileBase::WRITE, FileAccess::none));
    expectReports("name");
    EXPECT_EQ(-1, file.getDescriptor());
    EXPECT_EQ(2U, file.getFlags());
    EXPECT_EQ(1, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    rows, BinFileBaseOpen,
    testing::Values(
        OpenRow{EPERM, 7, 3}, OpenRow{EACCES, 7, 3}, OpenRow{EROFS, 7, 3}, OpenRow{ENOENT, 2, 0},
        OpenRow{ENOTDIR, 2, 0}, OpenRow{EISDIR, 2, 0}, OpenRow{ENAMETOOLONG, 2, 0}, OpenRow{ELOOP, 2, 0},
        OpenRow{ENXIO, 16, 8}, OpenRow{ENODEV, 16, 8}, OpenRow{ENOMEM, 1, 9}, OpenRow{EEXIST, 13, 4},
        OpenRow{ENFILE, 0, 6}, OpenRow{EMFILE, 0, 6}, OpenRow{ETXTBSY, 13, 5}, OpenRow{EFBIG, 19, 9},
        OpenRow{EOVERFLOW, 19, 9}, OpenRow{ENOSPC, 15, 7}, OpenRow{EAGAIN, 10, 9}, OpenRow{EIO, 10, 9}));

TEST_F(BinFileBaseTest, openIsRepeatedWhileItIsInterrupted) {
    std::string const path = m_folder.makeFile("file");
    {
        Fault const fault(inject_open, EINTR, 1, 3);
        EXPECT_FALSE(m_file.open(path.c_str(), BinFileBase::READ, FileAccess::none));
        EXPECT_EQ(4, fault.getCalls());
    }
    EXPECT_TRUE(m_file.isValid());
    EXPECT_FALSE(m_file.close());
    Directory const dir(m_folder.getPath(), true);
    Fault const fault(inject_openat, EINTR, 1, 3);
    EXPECT_FALSE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(m_file.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(BinFileBaseTest, whatTheSystemDoesNotOpenIsReported) {
    auto const expect = [this](std::string const& path, OpenFlags flags, int error, int cause, int on_top) {
        EXPECT_TRUE(m_file.open(path.c_str(), flags, BinFileBase::DEFAULT_ACCESS)) << path;
        EXPECT_TRUE(chainIs(
            {{SysError, cause, rowText(SysError, cause, systemText(error))},
             {FileAccessError, on_top, rowText(FileAccessError, on_top, path)}}))
            << path;
        EXPECT_FALSE(m_file.isValid()) << path;
    };
    std::string const file = m_folder.makeFile("file");
    expect(m_folder / "missing", BinFileBase::READ, ENOENT, 2, 0);
    expect(file + "/below", BinFileBase::READ, ENOTDIR, 2, 0);
    expect(m_folder.getPath(), BinFileBase::WRITE, EISDIR, 2, 0);
    expect(m_folder / std::string(256, 'n'), BinFileBase::READ, ENAMETOOLONG, 2, 0);
    expect(m_folder.makeLink("loop", "loop"), BinFileBase::READ, ELOOP, 2, 0);
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    expect(fifo, BinFileBase::WRITE | BinFileBase::NON_BLOCK, ENXIO, 16, 8);
}

TEST_F(BinFileBaseTest, openWithoutTheRightsIsDenied) {
    std::string const path = m_folder.makeFile("secret", "x", 0);
    auto const end = support::runInChild([&] {
        support::becomeNobody();
        EXPECT_TRUE(m_file.open(path.c_str(), BinFileBase::READ, FileAccess::none));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EACCES))},
             {FileAccessError, FileAccessErrorId::ACCESS_DENIED,
              rowText(FileAccessErrorId::ACCESS_DENIED, path)}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(BinFileBaseTest, openWithoutDescriptorsLeftFails) {
    std::string const path = m_folder.makeFile("file");
    auto const end = support::runInChild([&] {
        // A sanitizer takes descriptors for its first look at an object.
        EXPECT_FALSE(m_file.open("", BinFileBase::READ, FileAccess::none));
        rlimit const limit{3, 3};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_TRUE(m_file.open(path.c_str(), BinFileBase::READ, FileAccess::none));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::RESOURCES_EXHAUSTED, rowText(SysErrorId::RESOURCES_EXHAUSTED, systemText(EMFILE))},
             {FileAccessError, FileAccessErrorId::NO_DESCRIPTOR,
              rowText(FileAccessErrorId::NO_DESCRIPTOR, path)}}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

TEST_F(BinFileBaseTest, readOnlyFileSystemDeniesWriting) {
    constexpr int NO_RIGHT = 77;
    std::string const mount_point = m_folder.makeFolder("mount");
    auto const end = support::runInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", mount_point.c_str(), "tmpfs", 0, nullptr) != 0) {
            _exit(NO_RIGHT);
        }
        std::string const path = m_folder.makeFile("mount/file", "x");
        ASSERT_EQ(0, mount(nullptr, mount_point.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
        EXPECT_FALSE(m_file.open(path.c_str(), BinFileBase::READ, FileAccess::none));
        EXPECT_TRUE(m_file.open(path.c_str(), BinFileBase::READ_WRITE, FileAccess::none));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EROFS))},
             {FileAccessError, FileAccessErrorId::ACCESS_DENIED,
              rowText(FileAccessErrorId::ACCESS_DENIED, path)}}));
    });
    if (end.exit_code == NO_RIGHT) {
        GTEST_SKIP() << "mounting needs a privilege";
    }
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
}

// ---- open on a pipe ----

TEST_F(BinFileBaseTest, endOfAPipeMovesIntoTheFile) {
    Pipe pipe;
    int const read_end = pipe.getReadEnd();
    int const write_end = pipe.getWriteEnd();
    EXPECT_FALSE(m_file.open(pipe, false));
    EXPECT_EQ(read_end, m_file.getDescriptor());
    EXPECT_EQ(1U, m_file.getFlags());
    EXPECT_EQ(-1, pipe.getReadEnd());
    EXPECT_EQ(write_end, pipe.getWriteEnd());
    File writer;
    EXPECT_FALSE(writer.open(pipe, true));
    EXPECT_EQ(write_end, writer.getDescriptor());
    EXPECT_EQ(2U, writer.getFlags());
    EXPECT_EQ(-1, pipe.getWriteEnd());
}

TEST_F(BinFileBaseTest, secondOpenOnTheSameEndOfAPipeLeavesTheObjectClosed) {
    Pipe pipe;
    EXPECT_FALSE(m_file.open(pipe, false));
    int const fd = m_file.getDescriptor();
    EXPECT_FALSE(m_file.open(pipe, false));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_FALSE(m_file.isValid());
    EXPECT_EQ(1U, m_file.getFlags());
    EXPECT_FALSE(m_file.open(pipe, true));
    EXPECT_TRUE(m_file.isValid());
    EXPECT_EQ(2U, m_file.getFlags());
}

TEST_F(BinFileBaseTest, openOnAPipeStopsWhenTheOldFileCannotBeClosed) {
    openFile(m_file, "/dev/null", BinFileBase::READ_WRITE);
    int const fd = m_file.getDescriptor();
    Pipe pipe;
    Fault const fault(inject_close, EIO);
    EXPECT_TRUE(m_file.open(pipe, false));
    EXPECT_TRUE(failureIs(EIO, 11));
    EXPECT_EQ(fd, m_file.getDescriptor());
    EXPECT_EQ(3U, m_file.getFlags());
    EXPECT_NE(-1, pipe.getReadEnd());
}

TEST_F(BinFileBaseTest, openOnAPipeClearsTheError) {
    EXPECT_TRUE(m_file.open("/missing", BinFileBase::READ, FileAccess::none));
    std::ErrorStorage::ack();
    EXPECT_TRUE(m_file.hadError());
    Pipe pipe;
    EXPECT_FALSE(m_file.open(pipe, false));
    EXPECT_FALSE(m_file.hadError());
}

// ---- openAt ----

TEST_F(BinFileBaseTest, entryIsOpenedWhereverItsDirectoryIsNow) {
    m_folder.makeFolder("before");
    m_folder.makeFile("before/file", "abc");
    Directory const dir(m_folder / "before", true);
    ASSERT_EQ(0, rename((m_folder / "before").c_str(), (m_folder / "after").c_str()));
    EXPECT_FALSE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(3, m_file.getFileInfo().getSize());
    EXPECT_EQ(1U, m_file.getFlags());
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.openAt(dir, "new", true, BinFileBase::EXCLUSIVE, FileAccess(0600)));
    EXPECT_EQ("", contentOf(m_folder / "after/new"));
}

TEST_F(BinFileBaseTest, nameThatIsNoEntryIsRefusedWhateverTheDirectory) {
    Directory const dir(m_folder.getPath(), true);
    Directory const invalid(m_folder / "missing", true);
    std::ErrorStorage::ack();
    Fault const calls(inject_openat, 0);
    for (Directory const* const directory : {&dir, &invalid}) {
        for (char const* const name : {static_cast<char const*>(nullptr), "", "/", "a/b", "/etc", "a/"}) {
            errno = EDOM;
            EXPECT_TRUE(m_file.openAt(*directory, name, true, BinFileBase::READ, FileAccess::none));
            EXPECT_TRUE(chainIs(
                {{CommonErrorId::OPEN_FILE_OPERATION_FAILED,
                  rowText(CommonErrorId::OPEN_FILE_OPERATION_FAILED, systemText(EDOM))}}));
        }
    }
    EXPECT_EQ(0, calls.getCalls());
    EXPECT_EQ(0U, m_file.getFlags());
}

TEST_F(BinFileBaseTest, invalidDirectoryIsRefused) {
    Directory const dir(m_folder / "missing", true);
    std::ErrorStorage::ack();
    errno = EDOM;
    EXPECT_TRUE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::OPEN_FILE_OPERATION_FAILED,
          rowText(CommonErrorId::OPEN_FILE_OPERATION_FAILED, systemText(EDOM))}}));
    EXPECT_FALSE(m_file.isValid());
}

TEST_F(BinFileBaseTest, symbolicLinkIsFollowedOnlyIfWanted) {
    m_folder.makeFile("target", "abc");
    m_folder.makeLink("link", "target");
    Directory const dir(m_folder.getPath(), true);
    EXPECT_TRUE(m_file.openAt(dir, "link", false, BinFileBase::READ, FileAccess::none));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ELOOP))},
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, "link")}}));
    EXPECT_FALSE(m_file.openAt(dir, "link", true, BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(3, m_file.getFileInfo().getSize());
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.openAt(dir, "target", false, BinFileBase::READ, FileAccess::none));
}

TEST_F(BinFileBaseTest, openAtOverwritesTheDescriptorAndKeepsTheErrorOfTheCallBefore) {
    m_folder.makeFile("file");
    Directory const dir(m_folder.getPath(), true);
    EXPECT_TRUE(m_file.open("/missing", BinFileBase::READ, FileAccess::none));
    std::ErrorStorage::ack();
    EXPECT_FALSE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    EXPECT_TRUE(m_file.hadError());
    int const first = m_file.getDescriptor();
    EXPECT_FALSE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    int const second = m_file.getDescriptor();
    EXPECT_NE(first, second);
    EXPECT_TRUE(isOpen(first));
    EXPECT_TRUE(m_file.openAt(dir, "missing", true, BinFileBase::READ, FileAccess::none));
    std::ErrorStorage::ack();
    EXPECT_EQ(-1, m_file.getDescriptor());
    EXPECT_TRUE(isOpen(second));
    close(first);
    close(second);
}

// ---- close ----

TEST_F(BinFileBaseTest, closeOfAClosedObjectSucceedsAndClearsTheError) {
    EXPECT_TRUE(m_file.open("/missing", BinFileBase::READ, FileAccess::none));
    std::ErrorStorage::ack();
    Fault const calls(inject_close, 0);
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.hadError());
    EXPECT_EQ(0, calls.getCalls());
}

TEST_F(BinFileBaseTest, closeGivesTheDescriptorBack) {
    openFile(m_file, "/dev/null", BinFileBase::READ);
    int const fd = m_file.getDescriptor();
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.isValid());
    EXPECT_FALSE(m_file.hadError());
    EXPECT_FALSE(isOpen(fd));
    openFile(m_file, "/dev/null", BinFileBase::READ);
    EXPECT_TRUE(m_file.isValid()) << "it can be opened again";
}

struct CloseRow {
    int error;
    int id;
    bool stays_open;
};

void PrintTo(CloseRow const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class BinFileBaseClose : public testing::TestWithParam<CloseRow> {};

TEST_P(BinFileBaseClose, failureIsReportedAndLeavesTheObjectOpenOrClosed) {
    CloseRow const row = GetParam();
    File file;
    EXPECT_FALSE(file.open("/dev/null", BinFileBase::READ, FileAccess::none));
    int const fd = file.getDescriptor();
    {
        Fault const fault(inject_close, row.error);
        EXPECT_TRUE(file.close());
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(failureIs(row.error, row.id));
    EXPECT_TRUE(file.hadError());
    EXPECT_EQ(row.stays_open ? fd : -1, file.getDescriptor());
    EXPECT_EQ(row.stays_open, file.isValid());
    if (row.stays_open) {
        EXPECT_FALSE(file.close()) << "it may be tried again";
        EXPECT_FALSE(isOpen(fd));
    } else {
        close(fd);
    }
}

INSTANTIATE_TEST_SUITE_P(
    rows, BinFileBaseClose,
    testing::Values(
        CloseRow{EBADF, 10, false}, CloseRow{ESRCH, 18, false}, CloseRow{EIO, 11, true},
        CloseRow{ENOSPC, 19, true}, CloseRow{EAGAIN, 19, true}));

TEST_F(BinFileBaseTest, closeThatWasInterruptedSucceedsButCountsAsAnError) {
    openFile(m_file, "/dev/null", BinFileBase::READ);
    int const fd = m_file.getDescriptor();
    Fault const fault(inject_close, EINTR, 1, 3);
    EXPECT_FALSE(m_file.close());
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_TRUE(m_file.hadError());
    EXPECT_FALSE(m_file.isValid());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(BinFileBaseTest, descriptorThatIsNotOpenAnyMoreFailsToClose) {
    openFile(m_file, "/dev/null", BinFileBase::READ);
    close(m_file.getDescriptor());
    EXPECT_TRUE(m_file.close());
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_FALSE(m_file.isValid());
}

// ---- getFileInfo ----

bool isZeroed(FileInfo const& info) {
    struct stat const zeros{};
    return memcmp(&zeros, &info.getStat(), sizeof zeros) == 0;
}

TEST_F(BinFileBaseTest, fileInfoIsThatOfTheOpenFile) {
    std::string const path = m_folder.makeFile("file", "abc", 0604);
    openFile(m_file, path, BinFileBase::READ);
    FileInfo const by_path(path, true);
    ASSERT_EQ(0, unlink(path.c_str())) << "the path is not asked";
    FileInfo const info = m_file.getFileInfo();
    EXPECT_TRUE(info.isValid());
    EXPECT_EQ(3, info.getSize());
    EXPECT_EQ(0604U, info.getAccess().getBits());
    EXPECT_EQ(by_path.getInode(), info.getInode());
}

TEST_F(BinFileBaseTest, fileInfoOfAClosedObjectIsInvalid) {
    FileInfo const info = m_file.getFileInfo();
    EXPECT_FALSE(info.isValid());
    EXPECT_TRUE(isZeroed(info));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(
              CommonErrorId::CONTRACT_BROKEN,
              "Attempted to obtain FileInfo object from invalid BinFileBase()")}}));
}

struct Row {
    int error;
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class BinFileBaseInfo : public testing::TestWithParam<Row> {};

TEST_P(BinFileBaseInfo, failureIsReportedWithoutAPath) {
    File file;
    EXPECT_FALSE(file.open("/dev/null", BinFileBase::READ, FileAccess::none));
    Fault const fault(inject_fstat, GetParam().error);
    FileInfo const info = file.getFileInfo();
    EXPECT_FALSE(info.isValid());
    EXPECT_TRUE(isZeroed(info));
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_EQ(1, fault.getCalls());
}

INSTANTIATE_TEST_SUITE_P(
    rows, BinFileBaseInfo,
    testing::Values(
        Row{EIO, 11}, Row{EBADF, 10}, Row{EFAULT, 10}, Row{ENOMEM, 1}, Row{EOVERFLOW, 19}, Row{EINTR, 19}));

TEST_F(BinFileBaseTest, fileInfoOfADescriptorThatIsNotOpenAnyMoreIsInvalid) {
    openFile(m_file, "/dev/null", BinFileBase::READ);
    close(m_file.getDescriptor());
    EXPECT_FALSE(m_file.getFileInfo().isValid());
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_TRUE(m_file.close());
    std::ErrorStorage::ack();
}

// ---- truncateSize ----

TEST_F(BinFileBaseTest, truncateSizeCutsAndExtends) {
    std::string const path = m_folder.makeFile("file", "abcdef");
    openFile(m_file, path, BinFileBase::WRITE);
    EXPECT_FALSE(m_file.truncateSize(3));
    EXPECT_EQ("abc", contentOf(path));
    EXPECT_FALSE(m_file.truncateSize(5));
    EXPECT_EQ(std::string("abc\0\0", 5), contentOf(path));
    EXPECT_FALSE(m_file.truncateSize(0));
    EXPECT_EQ("", contentOf(path));
    EXPECT_FALSE(m_file.truncateSize(0x7FFFFFFF));
    EXPECT_EQ(0x7FFFFFFF, m_file.getFileInfo().getSize());
}

TEST_F(BinFileBaseTest, truncateSizeOfAClosedObjectFails) {
    EXPECT_TRUE(m_file.truncateSize(1));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Tried to truncate invalid file")}}));
    EXPECT_FALSE(m_file.hadError());
}

TEST_F(BinFileBaseTest, sizeWithTheHighestBitIsNegativeToTheSystem) {
    std::string const path = m_folder.makeFile("file", "abc");
    openFile(m_file, path, BinFileBase::WRITE);
    EXPECT_TRUE(m_file.truncateSize(0x80000000));
    EXPECT_TRUE(failureIs(EINVAL, 10));
    EXPECT_EQ(-0x80000000LL, s_file_calls.length);
    EXPECT_TRUE(m_file.truncateSize(0xFFFFFFFF));
    EXPECT_TRUE(failureIs(EINVAL, 10));
    EXPECT_EQ(-1, s_file_calls.length);
    EXPECT_EQ("abc", contentOf(path));
}

class BinFileBaseTruncate : public testing::TestWithParam<Row> {};

TEST_P(BinFileBaseTruncate, failureIsReported) {
    File file;
    EXPECT_FALSE(file.open("/dev/null", BinFileBase::WRITE, FileAccess::none));
    Fault const fault(inject_ftruncate, GetParam().error);
    EXPECT_TRUE(file.truncateSize(1));
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(file.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    rows, BinFileBaseTruncate,
    testing::Values(
        Row{EIO, 11}, Row{EBADF, 10}, Row{EINVAL, 10}, Row{EFBIG, 15}, Row{EROFS, 7}, Row{EPERM, 19},
        Row{ENOSPC, 19}));

TEST_F(BinFileBaseTest, truncateSizeIsRepeatedWhileItIsInterrupted) {
    std::string const path = m_folder.makeFile("file", "abc");
    openFile(m_file, path, BinFileBase::WRITE);
    Fault const fault(inject_ftruncate, EINTR, 1, 3);
    EXPECT_FALSE(m_file.truncateSize(1));
    EXPECT_EQ(4, fault.getCalls());
    EXPECT_EQ("a", contentOf(path));
}

TEST_F(BinFileBaseTest, truncateSizeFailsWhereTheSystemRefuses) {
    std::string const path = m_folder.makeFile("file", "abc");
    openFile(m_file, path, BinFileBase::READ);
    EXPECT_TRUE(m_file.truncateSize(1));
    EXPECT_TRUE(failureIs(EINVAL, 10)) << "it is not open for writing";
    openFile(m_file, path, BinFileBase::WRITE);
    auto const end = support::runInChild([&] {
        support::limitFileSize(16);
        EXPECT_TRUE(m_file.truncateSize(17));
        EXPECT_TRUE(failureIs(EFBIG, 15));
        EXPECT_FALSE(m_file.truncateSize(16));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    close(m_file.getDescriptor());
    EXPECT_TRUE(m_file.truncateSize(1));
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_TRUE(m_file.close());
    std::ErrorStorage::ack();
}

// ---- the end of the object ----

/// Takes the place of the buffer of `std::cerr`, and counts how often it is flushed.
class CapturedErrors : public std::stringbuf {
public:
    CapturedErrors() : m_previous(std::cerr.rdbuf(this)) {}
    ~CapturedErrors() override { std::cerr.rdbuf(m_previous); }

    int syncs = 0;

protected:
    int sync() override {
        ++syncs;
        return std::stringbuf::sync();
    }

private:
    std::streambuf* m_previous;
};

TEST_F(BinFileBaseTest, destructorClosesTheFileSilently) {
    CapturedErrors const errors;
    int fd = -1;
    {
        BinFileBase file;
        openFile(file, "/dev/null", BinFileBase::READ);
        fd = file.getDescriptor();
    }
    EXPECT_FALSE(isOpen(fd));
    { BinFileBase const closed; }
    EXPECT_EQ("", errors.str());
}

TEST_F(BinFileBaseTest, destructorTellsAFailureOnStandardErrorOnly) {
    CapturedErrors const errors;
    support::EventRecorder const events;
    auto* const file = new BinFileBase;
    openFile(*file, "/dev/null", BinFileBase::READ);
    int const fd = file->getDescriptor();
    {
        Fault const fault(inject_close, EIO);
        delete file;
        EXPECT_EQ(1, fault.getCalls());
    }
    std::string const reasons = tarn_error.getReasonList();
    EXPECT_NE(std::string::npos, reasons.find(systemText(EIO)));
    EXPECT_EQ("~BinFileBase|Warning: Error closing BinFile: " + reasons + "\n", errors.str());
    EXPECT_LE(1, errors.syncs);
    EXPECT_EQ("", events.getText());
    EXPECT_TRUE(chainIs({})) << "nothing is pending";
    close(fd);
}

TEST_F(BinFileBaseTest, destructorDoesNotCallTheCloseOfTheClassThatDerived) {
    static int s_closes = 0;
    class Counting : public BinFileBase {
    public:
        bool close() override {
            ++s_closes;
            return BinFileBase::close();
        }
    };
    {
        Counting file;
        openFile(file, "/dev/null", BinFileBase::READ);
    }
    EXPECT_EQ(0, s_closes);
}

TEST_F(BinFileBaseTest, isDestroyedThroughItsBase) {
    BinFileBase* const file = new File;
    openFile(*file, "/dev/null", BinFileBase::READ);
    int const fd = file->getDescriptor();
    delete file;
    EXPECT_FALSE(isOpen(fd));
}

} // namespace
