#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/Inject.h"
#include "support/NewFault.h"
#include "support/Privileges.h"
#include "support/TempFolder.h"

#include <vesk/FileAccessError.h>
#include <vesk/FileSys.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/stream/IBinOutputStream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

VESK_INJECT_ERRNO(int, -1, fsync, (int fd), (fd))
VESK_INJECT_ERRNO(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
VESK_INJECT_ERRNO(ssize_t, -1, write, (int fd, void const* buffer, size_t size), (fd, buffer, size))
VESK_INJECT_ERRNO(int, -1, close, (int fd), (fd))

VESK_INJECT_OPEN()

/// The base library's own way of writing. "Fails" by writing a byte less, as no base library should.
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

using support::chainIs;
using support::ChildEnd;
using support::contentOf;
using support::EventRecorder;
using support::expectInChild;
using support::Fault;
using support::mountMemory;
using support::New;
using support::NewFault;
using support::rowText;
using support::runInChild;
using support::separateMounts;
using support::systemText;
using support::TempFolder;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::FileSys;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using StreamBase = std::IBinStreamBase;

constexpr char const* NOTHING = "(none)";

/// Bytes that differ from their neighbours.
std::string makeBytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 31 + i / 256);
    }
    return bytes;
}

class FileSysCopyTest : public testing::Test {
protected:
    void makeSource(std::string const& content, mode_t access = 0644) {
        m_folder.makeFile("source", content, access);
    }

    bool copy(unsigned int buffer_size, void* buffer = nullptr) const {
        return FileSys::copy(m_source, m_destination, buffer_size, buffer);
    }

    mode_t accessOfCopy() const {
        struct stat info {};
        EXPECT_EQ(0, stat(m_destination.c_str(), &info));
        return info.st_mode & 07777;
    }

    /// A child copies, and comes to its end over it.
    template <typename Body>
    static void expectAbort(Body const& body) {
        ChildEnd const end = runInChild([&] {
            body();
            ADD_FAILURE() << "it survived";
        });
        EXPECT_EQ(SIGABRT, end.signal) << end.output;
        EXPECT_NE(std::string::npos, end.errors.find("framework/src/vesk/common/FileSys")) << end.errors;
        EXPECT_NE(std::string::npos, end.errors.find("Error closing src/dst file(s)")) << end.errors;
    }

    static constexpr char const* ABORT =
        "ABORT framework/src/vesk/common/FileSys copy: Error closing src/dst file(s)";

    TempFolder m_folder;
    // The first handle of a process makes the pool of the counters.
    vesk::UnicodeString m_first_handle{"", 1};
    std::string m_source = m_folder / "source";
    std::string m_destination = m_folder / "destination";
};

// ---- What is copied ----

class FileSysCopySizes : public FileSysCopyTest,
                         public testing::WithParamInterface<std::tuple<size_t, unsigned int, bool>> {};

TEST_P(FileSysCopySizes, copyEveryByte) {
    auto const [size, buffer_size, own_buffer] = GetParam();
    std::string const content = makeBytes(size);
    makeSource(content);
    std::vector<unsigned char> buffer(buffer_size);
    EXPECT_FALSE(copy(buffer_size, own_buffer ? nullptr : buffer.data()));
    EXPECT_TRUE(content == contentOf(m_destination)) << contentOf(m_destination).size();
    EXPECT_TRUE(content == contentOf(m_source));
    EXPECT_TRUE(chainIs({})) << "the end of the source is acknowledged";
}

INSTANTIATE_TEST_SUITE_P(
    All, FileSysCopySizes,
    testing::Combine(
        testing::Values<size_t>(0, 1, 4095, 4096, 4097, 20000), testing::Values(1U, 7U, 4096U, 65536U),
        testing::Bool()));

TEST_F(FileSysCopyTest, emptyFileMakesAnEmptyCopy) {
    makeSource("");
    EXPECT_FALSE(copy(4096));
    EXPECT_EQ("", contentOf(m_destination));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysCopyTest, copyIsForOwnerAndGroupWhateverTheSourceIs) {
    makeSource("x", 04755);
    mode_t const before = umask(0);
    EXPECT_FALSE(copy(16));
    EXPECT_EQ(0660U, accessOfCopy());
    EXPECT_EQ(0, unlink(m_destination.c_str()));
    umask(027);
    EXPECT_FALSE(copy(16));
    EXPECT_EQ(0640U, accessOfCopy());
    umask(before);
}

TEST_F(FileSysCopyTest, sourceBehindALinkIsCopiedAsAFile) {
    makeSource("content");
    m_source = m_folder.makeLink("link", "source");
    EXPECT_FALSE(copy(16));
    EXPECT_EQ("content", contentOf(m_destination));
    struct stat info {};
    EXPECT_EQ(0, lstat(m_destination.c_str(), &info));
    EXPECT_TRUE(S_ISREG(info.st_mode));
}

TEST_F(FileSysCopyTest, dataIsOnTheMediumAndBothFilesAreClosedOnce) {
    makeSource("content");
    Fault const synchronised(inject_fsync, 0);
    Fault const closed(inject_close, 0);
    EXPECT_FALSE(copy(16));
    EXPECT_EQ(1, synchronised.getCalls());
    EXPECT_EQ(2, closed.getCalls());
}

TEST_F(FileSysCopyTest, readsAndWritesAsMuchAtATimeAsTheBufferHolds) {
    makeSource(makeBytes(10000));
    Fault const read(inject_read, 0);
    Fault const written(inject_write, 0);
    EXPECT_FALSE(copy(4096));
    EXPECT_EQ(3 + 1, read.getCalls()) << "three with data, one for the end";
    EXPECT_EQ(3, written.getCalls());
}

TEST_F(FileSysCopyTest, interruptionsAreWaitedOut) {
    makeSource(makeBytes(10000));
    {
        Fault const open_interrupted(inject_open, EINTR, 1, 2);
        Fault const read_interrupted(inject_read, EINTR, 2, 3);
        Fault const write_interrupted(inject_write, EINTR, 1, 2);
        Fault const sync_interrupted(inject_fsync, EINTR, 1, 2);
        Fault const close_interrupted(inject_close, EINTR, 1, 2);
        EXPECT_FALSE(copy(4096));
    }
    EXPECT_TRUE(makeBytes(10000) == contentOf(m_destination));
    EXPECT_TRUE(chainIs({}));
}

// ---- The buffer ----

TEST_F(FileSysCopyTest, bufferOfNothingIsRefusedBeforeAnyFileIsOpened) {
    makeSource("x");
    char buffer[1];
    Fault const opened(inject_open, 0);
    for (void* const given : {static_cast<void*>(nullptr), static_cast<void*>(buffer)}) {
        std::ErrorOutput("older", 1, true)(SysErrorId::NO_SUCH_PROCESS);
        EXPECT_TRUE(copy(0, given));
        EXPECT_TRUE(chainIs(
            {{std::CommonErrorId::CONTRACT_BROKEN,
              rowText(std::CommonErrorId::CONTRACT_BROKEN, "zero bufsize given")}}));
    }
    EXPECT_EQ(0, opened.getCalls());
}

TEST_F(FileSysCopyTest, missingBufferIsAllocatedOnce) {
    makeSource("x");
    NewFault const counted(New::NOTHROW_ARRAY, 1, 0);
    EXPECT_FALSE(copy(12345));
    EXPECT_EQ(std::vector<size_t>{12345}, counted.getSizes());
}

TEST_F(FileSysCopyTest, withoutMemoryForABufferNothingIsTouched) {
    makeSource("x");
    Fault const opened(inject_open, 0);
    {
        NewFault const fault(New::NOTHROW_ARRAY);
        EXPECT_TRUE(copy(4096));
    }
    EXPECT_TRUE(chainIs({{std::CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_EQ(0, opened.getCalls());
}

TEST_F(FileSysCopyTest, givenBufferIsUsedAndNothingIsAllocated) {
    makeSource("content");
    char buffer[16] = {};
    vesk::UnicodeString const source(m_source);
    vesk::UnicodeString const destination(m_destination);
    {
        NewFault const arrays(New::NOTHROW_ARRAY, 1, 0);
        EXPECT_FALSE(FileSys::copy(source, destination, sizeof buffer, buffer));
        EXPECT_EQ(0, arrays.getCalls());
    }
    EXPECT_EQ(0, unlink(m_destination.c_str()));
    {
        NewFault const objects(New::SINGLE, 1, 0);
        EXPECT_FALSE(FileSys::copy(source, destination, sizeof buffer, buffer));
        EXPECT_EQ(0, objects.getCalls());
    }
    EXPECT_EQ(0, memcmp("content", buffer, 7));
    EXPECT_EQ("content", contentOf(m_destination));
}

// ---- What is not copied ----

TEST_F(FileSysCopyTest, existingDestinationIsNotOverwritten) {
    makeSource("new");
    m_folder.makeFile("destination", "old");
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::IN_USE, rowText(SysErrorId::IN_USE, systemText(EEXIST))},
         {FileAccessError, FileAccessErrorId::ALREADY_EXISTS,
          "'" + m_destination + "' is already existing"}}));
    EXPECT_EQ("old", contentOf(m_destination));
}

TEST_F(FileSysCopyTest, fileIsNotCopiedOntoItself) {
    makeSource("content");
    m_destination = m_source;
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(chainIs({{SysErrorId::IN_USE}, {FileAccessError, FileAccessErrorId::ALREADY_EXISTS}}));
    EXPECT_EQ("content", contentOf(m_source));
}

TEST_F(FileSysCopyTest, danglingLinkAtTheDestinationIsInTheWay) {
    makeSource("content");
    m_folder.makeLink("destination", "nowhere");
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(chainIs({{SysErrorId::IN_USE}, {FileAccessError, FileAccessErrorId::ALREADY_EXISTS}}));
    EXPECT_EQ(NOTHING, contentOf(m_folder / "nowhere"));
}

TEST_F(FileSysCopyTest, missingSourceMakesNoCopy) {
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, m_source)}}));
    EXPECT_EQ(NOTHING, contentOf(m_destination));
}

TEST_F(FileSysCopyTest, emptyPathFailsWithoutAReport) {
    makeSource("content");
    EXPECT_TRUE(FileSys::copy(std::string(), m_destination, 16, nullptr));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(NOTHING, contentOf(m_destination));
    EXPECT_TRUE(FileSys::copy(m_source, std::string(), 16, nullptr));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysCopyTest, pathWithoutATextFailsWithoutAReport) {
    makeSource("content");
    EXPECT_TRUE(FileSys::copy(vesk::UnicodeString(nullptr, 0), m_destination, 16, nullptr));
    EXPECT_TRUE(FileSys::copy(m_source, vesk::UnicodeString(nullptr, 0), 16, nullptr));
    EXPECT_TRUE(chainIs({}));
    EXPECT_EQ(NOTHING, contentOf(m_destination));
}

TEST_F(FileSysCopyTest, directoryCannotBeReadAndLeavesAnEmptyCopy) {
    m_source = m_folder.makeFolder("dir");
    EXPECT_TRUE(copy(16));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(EISDIR))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_EQ("", contentOf(m_destination));
}

// ---- Failures on the way ----

TEST_F(FileSysCopyTest, failedReadLeavesWhatWasCopiedUntilThen) {
    makeSource(makeBytes(10000));
    EventRecorder const recorder;
    {
        Fault const fault(inject_read, EIO, 3);
        EXPECT_TRUE(copy(4096));
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_TRUE(makeBytes(10000).substr(0, 8192) == contentOf(m_destination));
    EXPECT_EQ("", recorder.getText()) << "nothing of it is fatal";
}

TEST_F(FileSysCopyTest, failedWriteLeavesWhatWasCopiedUntilThen) {
    makeSource(makeBytes(10000));
    EventRecorder const recorder;
    {
        Fault const fault(inject_write, ENOSPC, 2);
        EXPECT_TRUE(copy(4096));
    }
    EXPECT_TRUE(chainIs(
        {{SysErrorId::NO_SPACE, rowText(SysErrorId::NO_SPACE, systemText(ENOSPC))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_TRUE(makeBytes(10000).substr(0, 4096) == contentOf(m_destination));
    EXPECT_EQ("", recorder.getText());
}

TEST_F(FileSysCopyTest, firstFailureIsToldWhateverBecomesOfTheCleanUp) {
    makeSource(makeBytes(10000));
    for (support::Injected* const clean_up : {&inject_fsync, &inject_close}) {
        EventRecorder const recorder;
        {
            Fault const fault(inject_write, ENOSPC);
            Fault const unclean(*clean_up, EIO);
            EXPECT_TRUE(copy(4096));
            EXPECT_NE(0, unclean.getCalls());
        }
        EXPECT_TRUE(chainIs(
            {{SysErrorId::NO_SPACE, rowText(SysErrorId::NO_SPACE, systemText(ENOSPC))},
             {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_NE("", recorder.getText()) << "the other one is a warning";
        EXPECT_EQ(0, unlink(m_destination.c_str()));
    }
}

TEST_F(FileSysCopyTest, readThatBringsNothingIsTheEnd) {
    makeSource(makeBytes(10000));
    {
        // As of a source in non-blocking mode.
        Fault const fault(inject_read, EAGAIN, 2);
        EXPECT_FALSE(copy(4096));
    }
    EXPECT_TRUE(makeBytes(10000).substr(0, 4096) == contentOf(m_destination));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileSysCopyTest, writeThatTakesLessTripsAnAssertionAndGoesOn) {
    makeSource(makeBytes(8192));
    EventRecorder const recorder;
    {
        Fault const short_write(inject_writeSlowly, 1);
        EXPECT_FALSE(copy(4096));
    }
    ASSERT_EQ(1U, recorder.getCount()) << recorder.getText();
    support::RecordedEvent const event = recorder.getEvents().front();
    EXPECT_EQ(std::GlobalErrorHandler::Kind::ASSERT, event.kind);
    EXPECT_EQ("written_bytes == read_bytes", event.expression);
    EXPECT_EQ("copy", event.function);
    EXPECT_TRUE(makeBytes(8192).erase(4095, 1) == contentOf(m_destination));
}

TEST_F(FileSysCopyTest, fullFileSystemLeavesWhatItHadRoomFor) {
    VESK_SKIP_WITHOUT_MOUNTS();
    std::string const content = makeBytes(1 << 20);
    makeSource(content);
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where, "size=64k")) << strerror(errno);
        m_destination = where + "/copy";
        EXPECT_TRUE(copy(10000));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::NO_SPACE, rowText(SysErrorId::NO_SPACE, systemText(ENOSPC))},
             {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_TRUE(content.substr(0, 65536) == contentOf(m_destination));
    });
}

TEST_F(FileSysCopyTest, readOnlyFileSystemTakesNoCopy) {
    VESK_SKIP_WITHOUT_MOUNTS();
    makeSource("content");
    std::string const where = m_folder.makeFolder("mount");
    expectInChild([&] {
        ASSERT_TRUE(separateMounts() && mountMemory(where)) << strerror(errno);
        ASSERT_TRUE(mountMemory(where, "", MS_REMOUNT | MS_RDONLY)) << strerror(errno);
        m_destination = where + "/copy";
        EXPECT_TRUE(copy(16));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED, rowText(SysErrorId::PERMISSION_DENIED, systemText(EROFS))},
             {FileAccessError, FileAccessErrorId::ACCESS_DENIED,
              rowText(FileAccessErrorId::ACCESS_DENIED, m_destination)}}));
    });
}

TEST_F(FileSysCopyTest, sourceOfSomebodyElseIsNotRead) {
    VESK_SKIP_UNLESS_ROOT();
    makeSource("secret", 0600);
    expectInChild([&] {
        ASSERT_TRUE(support::dropRights());
        EXPECT_TRUE(copy(16));
        EXPECT_TRUE(chainIs(
            {{SysErrorId::PERMISSION_DENIED},
             {FileAccessError, FileAccessErrorId::ACCESS_DENIED,
              rowText(FileAccessErrorId::ACCESS_DENIED, m_source)}}));
    });
}

// ---- Failures at the end ----

TEST_F(FileSysCopyTest, sourceThatCannotBeClosedEndsTheProcess) {
    makeSource("content");
    expectAbort([&] {
        Fault const fault(inject_close, EIO);
        copy(16);
    });
}

TEST_F(FileSysCopyTest, dataThatCannotBeBroughtToTheMediumEndsTheProcess) {
    makeSource("content");
    expectAbort([&] {
        Fault const fault(inject_fsync, EIO);
        copy(16);
    });
}

TEST_F(FileSysCopyTest, destinationThatCannotBeClosedEndsTheProcess) {
    makeSource("content");
    expectAbort([&] {
        Fault const fault(inject_close, EIO, 2);
        copy(16);
    });
}

TEST_F(FileSysCopyTest, whoeverSurvivesAFailedCloseOfTheSourceGetsTheDestinationClosedByItsOwner) {
    makeSource("content");
    EventRecorder const recorder;
    {
        Fault const closed(inject_close, EIO);
        Fault const synchronised(inject_fsync, 0);
        EXPECT_FALSE(copy(16)) << "it is no failure of the call";
        EXPECT_EQ(1, synchronised.getCalls()) << "of the destination's destructor";
        EXPECT_EQ(3, closed.getCalls()) << "the one that failed, and one of each destructor";
    }
    EXPECT_EQ(ABORT, recorder.getText());
    EXPECT_TRUE(chainIs({{SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))}}));
    EXPECT_EQ("content", contentOf(m_destination));
}

TEST_F(FileSysCopyTest, failedFlushDoesNotKeepTheDestinationFromBeingClosed) {
    makeSource("content");
    EventRecorder const recorder;
    {
        Fault const synchronised(inject_fsync, EIO);
        Fault const closed(inject_close, 0);
        EXPECT_FALSE(copy(16));
        EXPECT_EQ(1, synchronised.getCalls()) << "no destructor tries again";
        EXPECT_EQ(2, closed.getCalls());
    }
    EXPECT_EQ(ABORT, recorder.getText());
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INPUT_OUTPUT, rowText(SysErrorId::INPUT_OUTPUT, systemText(EIO))},
         {StreamBase::StreamError, std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
}

} // namespace
