#include "FileTests.h"
#include "support/NewFault.h"

#include <vesk/FileSys.h>

#include <list>

/// Writes for the base library. A fault makes it write one byte less, which no base library does.
support::Injected inject_writeSlowly("_ZNSt16IBinOutputStream11writeSlowlyEPKvjRj");
int std::IBinOutputStream::writeSlowly(void const* buffer, unsigned int size, unsigned int& written) {
    int error = 0;
    if (inject_writeSlowly.fails(error)) {
        --size;
    }
    using Real = int (*)(IBinOutputStream*, void const*, unsigned int, unsigned int&);
    return reinterpret_cast<Real>(inject_writeSlowly.getReal())(this, buffer, size, written);
}

namespace {

using namespace support;
using namespace vesk;

constexpr char const* NOTHING = "(none)";

/// Returns bytes that differ from their neighbors.
std::string makeBytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 31 + i / 256);
    }
    return bytes;
}

/// Returns the reports of a failed transfer of a stream.
std::vector<ExpectedReport> failedTransfer(SysErrorId::Id id, int error) {
    return failure(id, error, StreamErrorId::TRANSFER_FAILED);
}

class FileSysCopyTest : public testing::Test {
protected:
    void makeSource(std::string const& content, mode_t access = 0644) {
        m_folder.makeFile("source", content, access);
    }

    bool copy(unsigned int buffer_size, void* buffer = nullptr) const {
        return FileSys::copy(m_source, m_destination, buffer_size, buffer);
    }

    /// Compares without printing the bytes.
    void expectCopied(std::string const& content) const {
        std::string const copied = contentOf(m_destination);
        EXPECT_TRUE(content == copied) << copied.size();
    }

    mode_t modeOfCopy() const {
        struct stat info {};
        EXPECT_EQ(0, lstat(m_destination.c_str(), &info));
        return info.st_mode;
    }

    TempFolder m_folder;
    // The first handle of a process makes the pool of the counters.
    UnicodeString m_first_handle{"", 1};
    std::string m_source = m_folder / "source";
    std::string m_destination = m_folder / "destination";
};

class FileSysCopySizes : public FileSysCopyTest,
                         public testing::WithParamInterface<std::tuple<size_t, unsigned int, bool>> {};

TEST_P(FileSysCopySizes, everyByteIsCopied) {
    auto const [size, buffer_size, own_buffer] = GetParam();
    std::string const content = makeBytes(size);
    makeSource(content);
    std::vector<unsigned char> buffer(buffer_size);
    EXPECT_FALSE(copy(buffer_size, own_buffer ? nullptr : buffer.data()));
    expectCopied(content);
    EXPECT_TRUE(content == contentOf(m_source));
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysCopySizes,
    testing::Combine(
        testing::Values<size_t>(0, 1, 4095, 4096, 4097, 20000), testing::Values(1U, 7U, 4096U, 65536U),
        testing::Bool()));

TEST_F(FileSysCopyTest, ownerAndGroupHaveAccessToTheCopyOfAnySource) {
    makeSource("x", 04755);
    for (auto const& [mask, access] : {std::pair(0U, 0660U), std::pair(027U, 0640U)}) {
        ScopedUmask const scope(mask);
        EXPECT_FALSE(copy(16));
        EXPECT_EQ(access, modeOfCopy() & 07777);
        EXPECT_EQ(0, unlink(m_destination.c_str()));
    }
}

TEST_F(FileSysCopyTest, targetOfALinkIsCopiedAsAFile) {
    makeSource("content");
    m_source = m_folder.makeLink("link", "source");
    EXPECT_FALSE(copy(16));
    EXPECT_EQ("content", contentOf(m_destination));
    EXPECT_TRUE(S_ISREG(modeOfCopy()));
}

TEST_F(FileSysCopyTest, bufferSizeOfZeroIsRefusedBeforeAnyFileIsOpened) {
    makeSource("x");
    char buffer[1];
    Calls const none(inject_open, 0);
    for (void* const given : {static_cast<void*>(nullptr), static_cast<void*>(buffer)}) {
        leaveOlderReport();
        EXPECT_TRUE(copy(0, given));
        EXPECT_TRUE(isContractBroken("zero bufsize given"));
    }
}

TEST_F(FileSysCopyTest, missingBufferIsAllocatedOnceBeforeAnyFileIsOpened) {
    makeSource("x");
    {
        Calls const none(inject_open, 0);
        NewFault const fault(New::NOTHROW_ARRAY);
        EXPECT_TRUE(copy(12345));
    }
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    NewFault const counted(New::NOTHROW_ARRAY, 1, 0);
    EXPECT_FALSE(copy(12345));
    EXPECT_EQ(std::vector<size_t>{12345}, counted.getSizes());
}

TEST_F(FileSysCopyTest, givenBufferIsUsedAndNothingIsAllocated) {
    makeSource("content");
    char buffer[16] = {};
    UnicodeString const source(m_source);
    UnicodeString const destination(m_destination);
    for (New const kind : {New::NOTHROW_ARRAY, New::SINGLE}) {
        unlink(m_destination.c_str());
        NewFault const allocations(kind, 1, 0);
        EXPECT_FALSE(FileSys::copy(source, destination, sizeof buffer, buffer));
        EXPECT_EQ(0, allocations.getCalls());
    }
    EXPECT_EQ(0, memcmp("content", buffer, 7));
    EXPECT_EQ("content", contentOf(m_destination));
}

TEST_F(FileSysCopyTest, existingDestinationIsNotOverwritten) {
    makeSource("new");
    m_folder.makeFile("file", "old");
    m_folder.makeLink("dangling", "nowhere");
    for (char const* const name : {"file", "dangling", "source"}) {
        m_destination = m_folder / name;
        EXPECT_TRUE(copy(16));
        EXPECT_TRUE(FILE_EXISTS.isPending(m_destination)) << name;
    }
    EXPECT_EQ("old", contentOf(m_folder / "file"));
    EXPECT_EQ(NOTHING, contentOf(m_folder / "nowhere"));
    EXPECT_EQ("new", contentOf(m_source));
}

TEST_F(FileSysCopyTest, missingSourceMakesNoCopyAndADirectoryAnEmptyOne) {
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(badPath(ENOENT).isPending(m_source));
    EXPECT_EQ(NOTHING, contentOf(m_destination));
    m_source = m_folder.makeFolder("dir");
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(chainIs(failedTransfer(SysErrorId::INVALID_PATH, EISDIR)));
    EXPECT_EQ("", contentOf(m_destination));
}

constexpr char const* NO_PATHS[] = {"", nullptr};
VESK_TEST_TABLE(FileSysCopyWithoutPath, failsWithoutAReport, FileSysCopyTest, NO_PATHS) {
    makeSource("content");
    UnicodeString const none(GetParam(), GetParam() != nullptr ? 1 : 0);
    EXPECT_TRUE(FileSys::copy(none, m_destination, 16, nullptr));
    EXPECT_EQ(NOTHING, contentOf(m_destination));
    EXPECT_TRUE(FileSys::copy(m_source, none, 16, nullptr));
}

TEST_F(FileSysCopyTest, fullFileSystemHoldsTheBytesThatFitAndAReadOnlyOneDeniesTheCopy) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const content = makeBytes(1 << 20);
    makeSource(content);
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where, "size=64k")) << strerror(errno);
        m_destination = where + "/copy";
        EXPECT_TRUE(copy(10000));
        EXPECT_TRUE(chainIs(failedTransfer(SysErrorId::NO_SPACE, ENOSPC)));
        expectCopied(content.substr(0, 65536));
        ASSERT_TRUE(mountMemory(where, "", MS_REMOUNT | MS_RDONLY)) << strerror(errno);
        m_destination = where + "/other";
        EXPECT_TRUE(copy(16));
        EXPECT_TRUE(accessDenied(EROFS).isPending(m_destination));
    });
}

TEST_F(FileSysCopyTest, copyOfASourceOfAnotherUserIsDenied) {
    VESK_SKIP_UNLESS_ROOT();
    makeSource("secret", 0600);
    expectInChild([&] {
        ASSERT_TRUE(dropRights());
        EXPECT_TRUE(copy(16));
        EXPECT_TRUE(accessDenied(EACCES).isPending(m_source));
    });
}

struct FinalCall : NamedRow {
    Injected* call;
    int nth;
};

FinalCall const FILE_SYS_COPY_END[] = {
    {"closeOfTheSource", &inject_close, 1},
    {"synchronization", &inject_fsync, 1},
    {"closeOfTheDestination", &inject_close, 2},
};

VESK_TEST_TABLE(FileSysCopyEnd, failureEndsTheProcess, FileSysCopyTest, FILE_SYS_COPY_END) {
    makeSource("content");
    ChildEnd const end = runInChild([&] {
        Fault const fault(*GetParam().call, EIO, GetParam().nth);
        copy(16);
        ADD_FAILURE() << "the process goes on";
    });
    EXPECT_EQ(SIGABRT, end.signal) << end.output;
    EXPECT_NE(std::string::npos, end.errors.find("framework/src/vesk/common/FileSys")) << end.errors;
    EXPECT_NE(std::string::npos, end.errors.find("Error closing src/dst file(s)")) << end.errors;
}

/// A copy of 10000 bytes through a buffer of 4096 bytes while calls of the system fail.
struct CopyRow : NamedRow {
    struct Call {
        Injected* call;
        int calls; ///< Expected.
        int error = 0;
        int nth = 1;
        int times = 1;
    };
    std::vector<Call> calls;
    bool fails = false;
    std::vector<ExpectedReport> reports = {};
    std::string copied = makeBytes(10000);
    std::string events = "";
};

constexpr char const* WARNING =
    "WARNING framework/src/vesk/posix/StreamBinFileW ~StreamBinFileW: Error closing BinFileW";
constexpr char const* ABORT = "ABORT framework/src/vesk/common/FileSys copy: Error closing src/dst file(s)";

CopyRow const FILE_SYS_COPY_CALLS[] = {
    {"eachTransferFillsTheBuffer", {{&inject_read, 3 + 1}, {&inject_write, 3}}},
    {"dataIsSynchronizedAndBothFilesAreClosedOnce", {{&inject_fsync, 1}, {&inject_close, 2}}},
    {"interruptedCallsAreRepeated",
     {{&inject_open, 2 + 2, EINTR, 1, 2},
      {&inject_read, 4 + 3, EINTR, 2, 3},
      {&inject_write, 3 + 2, EINTR, 1, 2},
      {&inject_fsync, 1 + 2, EINTR, 1, 2},
      {&inject_close, 2 + 2, EINTR, 1, 2}}},
    {"failedRead",
     {{&inject_read, 3, EIO, 3}},
     true,
     failedTransfer(SysErrorId::INPUT_OUTPUT, EIO),
     makeBytes(8192)},
    {"failedWrite",
     {{&inject_write, 2, ENOSPC, 2}},
     true,
     failedTransfer(SysErrorId::NO_SPACE, ENOSPC),
     makeBytes(4096)},
    {"failedWriteAndSynchronization",
     {{&inject_write, 1, ENOSPC}, {&inject_fsync, 1, EIO}},
     true,
     failedTransfer(SysErrorId::NO_SPACE, ENOSPC),
     "",
     WARNING},
    {"failedWriteAndClose",
     {{&inject_write, 1, ENOSPC}, {&inject_close, 3, EIO}},
     true,
     failedTransfer(SysErrorId::NO_SPACE, ENOSPC),
     "",
     WARNING},
    // As of a source in non-blocking mode.
    {"readWithoutBytesIsTheEnd", {{&inject_read, 2, EAGAIN, 2}}, false, {}, makeBytes(4096)},
    {"shortWriteTripsAnAssertion",
     {{&inject_writeSlowly, 3, 1}},
     false,
     {},
     makeBytes(10000).erase(4095, 1),
     "ASSERT framework/src/vesk/common/FileSys copy: written_bytes == read_bytes"},
    // The abort returns. The destructors close both files, and synchronize the destination.
    {"failedCloseOfTheSource",
     {{&inject_close, 3, EIO}, {&inject_fsync, 1}},
     false,
     failure(SysErrorId::INPUT_OUTPUT, EIO),
     makeBytes(10000),
     ABORT},
    {"failedSynchronizationIsNotRepeated",
     {{&inject_fsync, 1, EIO}, {&inject_close, 2}},
     false,
     failedTransfer(SysErrorId::INPUT_OUTPUT, EIO),
     makeBytes(10000),
     ABORT},
};

VESK_TEST_TABLE(
    FileSysCopyCalls, haveTheirReportsEventsAndCopiedBytes, FileSysCopyTest, FILE_SYS_COPY_CALLS) {
    makeSource(makeBytes(10000));
    EventRecorder const recorder;
    {
        std::list<Fault> faults;
        for (auto const& [call, calls, error, nth, times] : GetParam().calls) {
            faults.emplace_back(*call, error, nth, times);
        }
        EXPECT_EQ(GetParam().fails, copy(4096));
        for (auto const& row : GetParam().calls) {
            EXPECT_EQ(row.calls, faults.front().getCalls());
            faults.pop_front();
        }
    }
    EXPECT_TRUE(chainIs(GetParam().reports));
    expectCopied(GetParam().copied);
    EXPECT_EQ(GetParam().events, recorder.getText());
}

} // namespace
