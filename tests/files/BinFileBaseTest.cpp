#include "FileSteps.h"

#include <tarncommon/error/ErrorApi.h>

#include <iostream>

namespace {

using namespace support;
using vesk::FileInfo;

using OpenFlags = BinFileBase::OpenFlags;

static_assert(!std::is_copy_constructible_v<BinFileBase> && !std::is_copy_assignable_v<BinFileBase>);
static_assert(sizeof(OpenFlags) == 4 && sizeof(BinFileBase::ReadFlags) == 4);
static_assert(std::is_convertible_v<BinFileBase::WriteFlags, OpenFlags>);
static_assert(!std::is_convertible_v<BinFileBase::WriteFlags, BinFileBase::ReadFlags>);
static_assert(BinFileBase::DEFAULT_ACCESS.getBits() == 0660);

class BinFileBaseTest : public FileTest {
protected:
    BinFileBaseTest() : FileTest("abc") {
        m_steps.openBy([this](char const* path, unsigned int flags) { return open(path, OpenFlags(flags)); });
    }
    void run(StepList const& steps) { m_steps.run(m_file, steps); }

    bool open(std::string const& path, OpenFlags flags = BinFileBase::READ) {
        return m_file.open(path.c_str(), flags, FileAccess::none);
    }
    bool openAt(char const* name, bool follow = true) {
        return m_file.openAt(m_dir, name, follow, BinFileBase::READ, FileAccess::none);
    }
    /// Opens a file, which must succeed. Returns its descriptor.
    int getOpened(std::string const& path = "/dev/null", OpenFlags flags = BinFileBase::READ) {
        EXPECT_FALSE(open(path, flags));
        return m_file.getDescriptor();
    }

    /// Checks the descriptor, the flags and the error state of the file.
    testing::AssertionResult hasState(int fd, unsigned int flags, bool had_error = false) const {
        if (m_file.getDescriptor() == fd && m_file.isValid() == (fd != -1) && m_file.getFlags() == flags &&
            m_file.hadError() == had_error) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "descriptor " << m_file.getDescriptor() << ", flags "
                                           << m_file.getFlags() << ", hadError() " << m_file.hadError();
    }

    FlaggedFile m_file;
    Pipe m_pipe;
    Steps m_steps{m_folder, m_dir};
};

TEST_F(BinFileBaseTest, startsClosed) {
    EXPECT_TRUE(hasState(-1, 0));
    EXPECT_EQ("", m_file.getTempPath());
    EXPECT_EQ(0, getSlot(&BinFileBase::isValid));
    EXPECT_EQ(1, getSlot(&BinFileBase::close));
}

TEST_F(BinFileBaseTest, flagsOfADirectionStartWithItsBits) {
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

/// The flags of a file, and those of the system.
using FlagRow = std::pair<unsigned int, int>;

FlagRow const FLAG_ROWS[] = {
    {0x01, O_RDONLY},
    {0x02, O_WRONLY},
    {0x03, O_RDWR},
    {0x00, O_RDWR},
    {0x05, O_RDONLY | O_NONBLOCK},
    {0x0A, O_WRONLY | O_CREAT},
    {0x12, O_WRONLY | O_TRUNC},
    {0x22, O_WRONLY | O_APPEND},
    {0x42, O_WRONLY | O_CREAT | O_EXCL},
    {0x08, O_RDWR | O_CREAT},
    {0x7F, O_RDWR | O_NONBLOCK | O_CREAT | O_TRUNC | O_APPEND | O_EXCL},
    {0xFFFFFF81, O_RDONLY}};
VESK_TEST_TABLE(BinFileBaseFlags, areTranslatedForTheSystem, BinFileBaseTest, FLAG_ROWS) {
    auto const [word, system_flags] = GetParam();
    auto const expect_call = [mode = (system_flags & O_CREAT) != 0 ? 0640U : 0U](int flags) {
        EXPECT_EQ(flags | O_CLOEXEC, s_file_calls.open_flags);
        EXPECT_EQ(mode, s_file_calls.open_mode);
    };
    Fault const fault(inject_open, ENOENT);
    EXPECT_TRUE(m_file.open("name", OpenFlags(word), FileAccess(0640)));
    expect_call(system_flags);
    EXPECT_EQ(word, m_file.getFlags());
    Fault const entry_fault(inject_openat, ENOENT, 1, 2);
    EXPECT_TRUE(m_file.openAt(m_dir, "name", true, OpenFlags(word), FileAccess(0640)));
    expect_call(system_flags);
    EXPECT_TRUE(m_file.openAt(m_dir, "name", false, OpenFlags(word), FileAccess(0640)));
    expect_call(system_flags | O_NOFOLLOW);
    EXPECT_TRUE(isMissing("name"));
}

TEST_F(BinFileBaseTest, accessIsPassedOnAndTheSystemAppliesTheUmask) {
    ScopedUmask const mask(027);
    Fault const fault(inject_open, ENOENT);
    EXPECT_TRUE(m_file.open("name", BinFileBase::WRITE | BinFileBase::CREATE, FileAccess(0177777)));
    EXPECT_EQ(0177777U, s_file_calls.open_mode);
    EXPECT_TRUE(isMissing("name"));
    EXPECT_FALSE(m_file.open(
        m_missing.c_str(), BinFileBase::WRITE | BinFileBase::CREATE, BinFileBase::DEFAULT_ACCESS));
    EXPECT_EQ(0640U, m_file.getFileInfo().getAccess().getBits());
}

TEST_F(BinFileBaseTest, flagsTakeEffectInTheSystem) {
    int const fd = getOpened(m_path, OpenFlags(0U));
    char block[3];
    EXPECT_EQ(3, read(fd, block, 3)) << "without a direction it is open for both";
    EXPECT_EQ(1, write(fd, "d", 1));
    EXPECT_EQ("abcd", contentOf(m_path));
    EXPECT_EQ(1, write(getOpened(m_path, BinFileBase::WRITE | BinFileBase::APPEND), "e", 1));
    EXPECT_EQ("abcde", contentOf(m_path));
    EXPECT_FALSE(open(m_path, BinFileBase::WRITE | BinFileBase::TRUNCATE));
    EXPECT_EQ("", contentOf(m_path));
    EXPECT_FALSE(m_file.open(m_missing.c_str(), BinFileBase::EXCLUSIVE, BinFileBase::DEFAULT_ACCESS));
    EXPECT_TRUE(m_file.isValid()) << "exclusive alone creates the file";
    EXPECT_EQ("", contentOf(m_missing));
    EXPECT_TRUE(m_file.open(m_missing.c_str(), BinFileBase::EXCLUSIVE, BinFileBase::DEFAULT_ACCESS));
    EXPECT_TRUE(FILE_EXISTS.isPending(m_missing));
    EXPECT_FALSE(m_file.isValid());
}

TEST_F(BinFileBaseTest, descriptorIsClosedByExec) {
    for (bool const by_name : {false, true}) {
        EXPECT_FALSE(by_name ? openAt("file") : open(m_path));
        EXPECT_EQ(FD_CLOEXEC, fcntl(m_file.getDescriptor(), F_GETFD) & FD_CLOEXEC);
        EXPECT_FALSE(m_file.close());
    }
}

TEST_F(BinFileBaseTest, openWithoutAPathSucceedsAndOnlyClosesTheOpenFile) {
    int const fd = getOpened();
    Calls const none(inject_open, 0);
    for (char const* const path : {static_cast<char const*>(nullptr), ""}) {
        EXPECT_FALSE(m_file.open(path, BinFileBase::WRITE, FileAccess::none));
        EXPECT_TRUE(hasState(-1, 1)) << "the flags are kept";
        EXPECT_FALSE(isOpen(fd));
    }
}

TEST_F(BinFileBaseTest, openClosesTheOpenFileFirst) {
    int const fd = getOpened();
    EXPECT_FALSE(open(m_path, BinFileBase::READ_WRITE));
    EXPECT_TRUE(hasState(fd, 3)) << "the lowest number is free again";
    char c = 0;
    EXPECT_EQ(1, read(fd, &c, 1));
    EXPECT_EQ('a', c);
    EXPECT_TRUE(open(m_missing));
    EXPECT_TRUE(isMissing(m_missing));
    EXPECT_TRUE(hasState(-1, 1, true)) << "closed with the new flags";
}

TEST_F(BinFileBaseTest, openStopsWhenTheOldFileCannotBeClosed) {
    int const fd = getOpened();
    Calls const none(inject_open, 0);
    Fault const fault(inject_close, EIO, 1, 2);
    EXPECT_TRUE(open(m_path, BinFileBase::WRITE));
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(hasState(fd, 1, true));
    EXPECT_TRUE(m_file.open(m_pipe, true));
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(hasState(fd, 1, true));
    EXPECT_NE(-1, m_pipe.getWriteEnd());
}

TEST_F(BinFileBaseTest, openClosesThroughTheDerivedClass) {
    class Careful : public BinFileBase {
    public:
        bool close() override {
            ++closes;
            return fails || BinFileBase::close();
        }
        int closes = 0;
        bool fails = false;
    } file;
    EXPECT_FALSE(file.open(m_path.c_str(), BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(0, file.closes);
    EXPECT_FALSE(file.open(m_path.c_str(), BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(1, file.closes);
    file.fails = true;
    EXPECT_TRUE(file.open(m_path.c_str(), BinFileBase::READ, FileAccess::none));
    EXPECT_TRUE(file.isValid());
    EXPECT_TRUE(file.hadError());
    EXPECT_TRUE(file.open(m_pipe, false));
    EXPECT_NE(-1, m_pipe.getReadEnd());
    EXPECT_EQ(3, file.closes);
}

TEST_F(BinFileBaseTest, openClearsTheErrorOfTheCallBeforeAndOfAnInterruptedClose) {
    for (auto const& reopen : std::initializer_list<std::function<bool()>>{
             [&] { return open("/dev/null"); },
             [&] { return m_file.open(m_pipe, m_pipe.getReadEnd() == -1); }, [&] { return open(""); }}) {
        EXPECT_TRUE(open(m_missing));
        EXPECT_TRUE(isMissing(m_missing));
        EXPECT_TRUE(m_file.hadError());
        EXPECT_FALSE(reopen());
        EXPECT_FALSE(m_file.hadError());
        getOpened();
        Calls const calls(inject_close, 2, EINTR);
        EXPECT_FALSE(reopen());
        EXPECT_FALSE(m_file.hadError());
    }
}

TEST_F(BinFileBaseTest, interruptedCallsAreRepeated) {
    run(
        {"fail open EINTR 3", "open file read", "calls open 4", "valid", "close", "fail openat EINTR 3",
         "at file", "calls openat 4", "valid", "open file write", "fail truncate EINTR 3", "truncate 1",
         "calls truncate 4", "content file a"});
}

TEST_F(BinFileBaseTest, fifoWithoutAReaderIsNotOpenedForWriting) {
    ASSERT_EQ(0, mkfifo(m_missing.c_str(), 0600));
    EXPECT_TRUE(open(m_missing, BinFileBase::WRITE | BinFileBase::NON_BLOCK));
    ErrnoCase const no_reader = {ENXIO, SysErrorId::NO_DEVICE, FileAccessErrorId::NO_DEVICE};
    EXPECT_TRUE(no_reader.isPending(m_missing));
    EXPECT_FALSE(m_file.isValid());
}

TEST_F(BinFileBaseTest, openWithoutDescriptorsLeftFails) {
    expectInChild([&] {
        // A sanitizer opens descriptors when it first looks at an object.
        EXPECT_FALSE(open(""));
        rlimit const limit{3, 3};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_TRUE(open(m_path));
        EXPECT_TRUE(EXHAUSTED.isPending(m_path));
    });
}

TEST_F(BinFileBaseTest, endOfAPipeMovesIntoTheFileAndIsMissingForASecondOpen) {
    int const read_end = m_pipe.getReadEnd();
    int const write_end = m_pipe.getWriteEnd();
    EXPECT_FALSE(m_file.open(m_pipe, false));
    EXPECT_TRUE(hasState(read_end, 1));
    EXPECT_EQ(-1, m_pipe.getReadEnd());
    EXPECT_EQ(write_end, m_pipe.getWriteEnd());
    EXPECT_FALSE(m_file.open(m_pipe, false));
    EXPECT_TRUE(hasState(-1, 1));
    EXPECT_FALSE(isOpen(read_end));
    EXPECT_FALSE(m_file.open(m_pipe, true));
    EXPECT_TRUE(hasState(write_end, 2));
    EXPECT_EQ(-1, m_pipe.getWriteEnd());
}

TEST_F(BinFileBaseTest, entryIsOpenedAfterItsDirectoryHasMoved) {
    m_folder.makeFolder("before");
    m_folder.makeFile("before/file", "abc");
    Directory const dir(m_folder / "before", true);
    ASSERT_EQ(0, rename((m_folder / "before").c_str(), (m_folder / "after").c_str()));
    EXPECT_FALSE(m_file.openAt(dir, "file", true, BinFileBase::READ, FileAccess::none));
    EXPECT_EQ(3, m_file.getFileInfo().getSize());
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.openAt(dir, "new", true, BinFileBase::EXCLUSIVE, FileAccess(0600)));
    EXPECT_EQ("", contentOf(m_folder / "after/new"));
}

TEST_F(BinFileBaseTest, nameThatIsNoEntryAndInvalidDirectoryAreRefusedWithTheTextOfErrno) {
    Directory const invalid(m_missing, true);
    std::ErrorStorage::ack();
    Calls const none(inject_openat, 0);
    auto const expect_refusal = [this](Directory const& dir, char const* name) {
        errno = EDOM;
        EXPECT_TRUE(m_file.openAt(dir, name, true, BinFileBase::READ, FileAccess::none));
        EXPECT_TRUE(causeIs(CommonErrorId::OPEN_FILE_OPERATION_FAILED, EDOM));
    };
    for (char const* const name : {static_cast<char const*>(nullptr), "", "/", "a/b", "/etc", "a/"}) {
        expect_refusal(m_dir, name);
        expect_refusal(invalid, name);
    }
    expect_refusal(invalid, "file");
    EXPECT_TRUE(hasState(-1, 0));
}

TEST_F(BinFileBaseTest, symbolicLinkIsFollowedOnlyIfRequested) {
    m_folder.makeLink("link", "file");
    run({"at link nofollow FAILS INVALID_PATH ELOOP BAD_PATH", "at link"});
    EXPECT_EQ(3, m_file.getFileInfo().getSize());
    run({"close", "at file nofollow"});
}

TEST_F(BinFileBaseTest, openAtOverwritesTheDescriptorAndKeepsThePreviousError) {
    EXPECT_TRUE(open(m_missing));
    EXPECT_TRUE(isMissing(m_missing));
    EXPECT_FALSE(openAt("file"));
    EXPECT_TRUE(m_file.hadError());
    int const first = m_file.getDescriptor();
    EXPECT_FALSE(openAt("file"));
    int const second = m_file.getDescriptor();
    EXPECT_NE(first, second);
    EXPECT_TRUE(isOpen(first));
    EXPECT_TRUE(openAt("missing"));
    EXPECT_TRUE(isMissing("missing"));
    EXPECT_EQ(-1, m_file.getDescriptor());
    EXPECT_TRUE(isOpen(second));
    close(first);
    close(second);
}

TEST_F(BinFileBaseTest, closeClosesTheDescriptorOnceAndClearsTheError) {
    getOpened();
    Calls const calls(inject_close, 1);
    EXPECT_FALSE(m_file.close());
    EXPECT_TRUE(hasState(-1, 1));
    EXPECT_TRUE(open(m_missing));
    EXPECT_TRUE(isMissing(m_missing));
    EXPECT_FALSE(m_file.close());
    EXPECT_TRUE(hasState(-1, 1));
    EXPECT_FALSE(openAt("file")) << "it can be opened again";
    EXPECT_TRUE(m_file.isValid());
}

struct CloseRow {
    std::vector<int> errors;
    SysErrorId::Id cause;
    bool stays_open;
    int error = 0;
    char const* name = "close";
};

auto const CLOSE_ROWS = eachErrno<CloseRow>({
    {{EBADF}, SysErrorId::SPOILED_INTEGRITY, false},
    {{ESRCH}, SysErrorId::NO_SUCH_PROCESS, false},
    {{EIO}, SysErrorId::INPUT_OUTPUT, true},
    {{ENOSPC, EAGAIN}, SysErrorId::UNCLASSIFIED, true},
});
VESK_TEST_TABLE(
    BinFileBaseClose, failureIsReportedAndLeavesTheObjectOpenOrClosed, BinFileBaseTest, CLOSE_ROWS) {
    auto const& [errors, cause, stays_open, error, name] = GetParam();
    int const fd = getOpened();
    Fault const fault(inject_close, error);
    EXPECT_TRUE(m_file.close());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(causeIs(cause, error));
    EXPECT_TRUE(hasState(stays_open ? fd : -1, 1, true));
    EXPECT_FALSE(m_file.close()) << "it can be tried again";
    EXPECT_EQ(!stays_open, isOpen(fd));
    close(fd);
}

TEST_F(BinFileBaseTest, interruptedCloseSucceedsButCountsAsAnError) {
    int const fd = getOpened();
    Calls const calls(inject_close, 4, EINTR, 3);
    EXPECT_FALSE(m_file.close());
    EXPECT_TRUE(hasState(-1, 1, true));
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(BinFileBaseTest, descriptorThatIsNoLongerOpenFailsEachOperation) {
    close(getOpened());
    EXPECT_FALSE(m_file.getFileInfo().isValid());
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EBADF));
    run({"truncate 1 FAILS SPOILED_INTEGRITY EBADF", "close FAILS SPOILED_INTEGRITY EBADF", "invalid"});
}

struct Operation {
    Injected* call;
    char const* text; ///< How it fails on a closed object.
    bool (*fails)(BinFileBase& file);
};

bool failsToGetFileInfo(BinFileBase& file) {
    FileInfo const info = file.getFileInfo();
    EXPECT_TRUE(info.isValid() || isZeroed(info));
    return !info.isValid();
}

Operation const GET_INFO{
    &inject_fstat, "Attempted to obtain FileInfo object from invalid BinFileBase()", failsToGetFileInfo};
Operation const TRUNCATE{
    &inject_ftruncate, "Tried to truncate invalid file", [](auto& file) { return file.truncateSize(1); }};

class BinFileBaseRows : public BinFileBaseTest,
                        public testing::WithParamInterface<std::tuple<Operation, ErrnoCase>> {};

TEST_P(BinFileBaseRows, failureIsReportedWithoutAPath) {
    auto const& [operation, reports] = GetParam();
    Calls const calls(*operation.call, 1, reports.error);
    EXPECT_TRUE(operation.fails(m_file));
    EXPECT_TRUE(isContractBroken(operation.text)) << "on a closed object";
    EXPECT_FALSE(m_file.hadError());
    getOpened("/dev/null", BinFileBase::WRITE);
    EXPECT_TRUE(operation.fails(m_file));
    EXPECT_TRUE(reports.isPending());
    EXPECT_TRUE(m_file.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    getFileInfo, BinFileBaseRows,
    testing::Combine(
        testing::Values(GET_INFO),
        eachErrno({
            {{EIO}, SysErrorId::INPUT_OUTPUT},
            {{EBADF, EFAULT}, SysErrorId::SPOILED_INTEGRITY},
            {{ENOMEM}, SysErrorId::OUT_OF_MEMORY},
            {{EOVERFLOW, EINTR}, SysErrorId::UNCLASSIFIED},
        })));

INSTANTIATE_TEST_SUITE_P(
    truncateSize, BinFileBaseRows,
    testing::Combine(
        testing::Values(TRUNCATE),
        eachErrno({
            {{EIO}, SysErrorId::INPUT_OUTPUT},
            {{EBADF, EINVAL}, SysErrorId::SPOILED_INTEGRITY},
            {{EFBIG}, SysErrorId::NO_SPACE},
            {{EROFS}, SysErrorId::PERMISSION_DENIED},
            {{EPERM, ENOSPC}, SysErrorId::UNCLASSIFIED},
        })));

TEST_F(BinFileBaseTest, fileInfoIsThatOfTheOpenFile) {
    ASSERT_EQ(0, chmod(m_path.c_str(), 0604));
    getOpened(m_path);
    FileInfo const by_path(m_path, true);
    ASSERT_EQ(0, unlink(m_path.c_str())) << "the path is not used";
    FileInfo const info = m_file.getFileInfo();
    EXPECT_TRUE(info.isValid());
    EXPECT_EQ(3, info.getSize());
    EXPECT_EQ(0604U, info.getAccess().getBits());
    EXPECT_EQ(by_path.getInode(), info.getInode());
}

TEST_F(BinFileBaseTest, truncateSizeCutsAndExtendsButRefusesSizesWithTheHighestBit) {
    getOpened(m_path, BinFileBase::WRITE);
    EXPECT_FALSE(m_file.truncateSize(2));
    EXPECT_EQ("ab", contentOf(m_path));
    EXPECT_FALSE(m_file.truncateSize(4));
    EXPECT_EQ(std::string("ab\0\0", 4), contentOf(m_path));
    EXPECT_FALSE(m_file.truncateSize(0));
    EXPECT_EQ("", contentOf(m_path));
    EXPECT_FALSE(m_file.truncateSize(0x7FFFFFFF));
    EXPECT_EQ(0x7FFFFFFF, m_file.getFileInfo().getSize());
    for (unsigned int const size : {0x80000000, 0xFFFFFFFF}) {
        EXPECT_TRUE(m_file.truncateSize(size));
        EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EINVAL));
        EXPECT_EQ(size - (1LL << 32), s_file_calls.length);
    }
    EXPECT_EQ(0x7FFFFFFF, m_file.getFileInfo().getSize());
}

TEST_F(BinFileBaseTest, truncateSizeFailsWhereTheSystemRefuses) {
    getOpened(m_path);
    EXPECT_TRUE(m_file.truncateSize(1));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EINVAL)) << "it is not open for writing";
    getOpened(m_path, BinFileBase::WRITE);
    expectInChild([&] {
        limitFileSize(16);
        EXPECT_TRUE(m_file.truncateSize(17));
        EXPECT_TRUE(causeIs(SysErrorId::NO_SPACE, EFBIG));
        EXPECT_FALSE(m_file.truncateSize(16));
    });
}

/// Replaces the buffer of `std::cerr`, and counts how often it is flushed.
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

TEST_F(BinFileBaseTest, destructorClosesTheFileSilentlyWithoutTheCloseOfTheDerivedClass) {
    static int s_closes = 0;
    class Counting : public BinFileBase {
    public:
        bool close() override {
            ++s_closes;
            return BinFileBase::close();
        }
    };
    CapturedErrors const errors;
    BinFileBase* const file = new Counting;
    EXPECT_FALSE(file->open("/dev/null", BinFileBase::READ, FileAccess::none));
    delete file;
    { BinFileBase const closed; }
    EXPECT_EQ("", errors.str());
    EXPECT_EQ(0, s_closes);
}

TEST_F(BinFileBaseTest, destructorReportsAFailureOnlyOnStandardError) {
    CapturedErrors const errors;
    auto* const file = new BinFileBase;
    EXPECT_FALSE(file->open("/dev/null", BinFileBase::READ, FileAccess::none));
    int const fd = file->getDescriptor();
    Fault const fault(inject_close, EIO);
    delete file;
    EXPECT_EQ(1, fault.getCalls());
    std::string const reasons = tarn_error.getReasonList();
    EXPECT_NE(std::string::npos, reasons.find(systemText(EIO)));
    EXPECT_EQ("~BinFileBase|Warning: Error closing BinFile: " + reasons + "\n", errors.str());
    EXPECT_LE(1, errors.syncs);
    close(fd);
}

} // namespace
