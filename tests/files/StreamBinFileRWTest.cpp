#include "StreamFiles.h"
#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/Directory.h>
#include <vesk/FileAccessError.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/SysError.h>
#include <vesk/UnicodeString.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::IBinInputStream;
using std::IBinOutputStream;
using std::IBinStreamBase;
using support::chainIs;
using support::contentOf;
using support::failureIs;
using support::Fault;
using support::getSlot;
using support::isOpen;
using support::New;
using support::NewFault;
using support::openIsRefused;
using support::readFrom;
using support::rowText;
using support::s_file_calls;
using support::streamFailureIs;
using support::systemText;
using support::TempFolder;
using support::writeTo;
using vesk::BinFileBase;
using vesk::Directory;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::StreamBinFileBase;
using vesk::StreamBinFileR;
using vesk::StreamBinFileRW;
using vesk::StreamBinFileW;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;
using vesk::UnicodeString;

using ReadWriteFlags = BinFileBase::ReadWriteFlags;

/// Shows what only deriving classes see.
class File : public StreamBinFileRW {
public:
    using StreamBinFileRW::checkReadBufferConsistency;
    using StreamBinFileRW::checkWriteBufferConsistency;
    using StreamBinFileRW::performFlush;
    using StreamBinFileRW::performRead;
    using StreamBinFileRW::performWrite;
    using StreamBinFileRW::StreamBinFileRW;

    bool isBlocking() const { return m_blocking; }
    bool isWriting() const { return m_last_op == WRITING; }
    unsigned int getReadAhead() const { return IBinInputStream::m_end - IBinInputStream::m_pos; }
    unsigned int getBuffered() const { return IBinOutputStream::m_end - IBinOutputStream::m_pos; }
};

class StreamBinFileRWTest : public support::StreamFileTest {
protected:
    StreamBinFileRWTest() : StreamFileTest("0123456789abcdef") {
        EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    }

    File m_file{10, 10};
};

TEST_F(StreamBinFileRWTest, hasItsOperationsInTheirSlots) {
    EXPECT_EQ(2, getSlot(&StreamBinFileRW::isValid));
    EXPECT_EQ(3, getSlot(&File::checkReadBufferConsistency));
    EXPECT_EQ(5, getSlot(&StreamBinFileRW::seek));
    EXPECT_EQ(6, getSlot(&StreamBinFileRW::close));
    EXPECT_EQ(7, getSlot(&File::checkWriteBufferConsistency));
    // The others are those of the two directions, each in its own part.
    EXPECT_EQ(4, getSlot(&File::performRead));
    EXPECT_EQ(4, getSlot(&File::performWrite));
    EXPECT_EQ(5, getSlot(&File::performFlush));
}

TEST_F(StreamBinFileRWTest, flushOfAClassThatDerivesStandsBehindAllOthers) {
    class Port : public StreamBinFileRW {
    public:
        bool performFlush() override { return false; }
    };
    EXPECT_EQ(8, getSlot(&Port::performFlush));
}

TEST_F(StreamBinFileRWTest, hasOneDescriptorAndOneStreamBaseForBothDirections) {
    StreamBinFileR& reader = m_file;
    StreamBinFileW& writer = m_file;
    EXPECT_EQ(static_cast<StreamBinFileBase*>(&reader), static_cast<StreamBinFileBase*>(&writer));
    EXPECT_EQ(static_cast<IBinStreamBase*>(&reader), static_cast<IBinStreamBase*>(&writer));
    EXPECT_EQ(reader.getDescriptor(), writer.getDescriptor());
}

TEST_F(StreamBinFileRWTest, isOneFileThroughEachOfItsBases) {
    IBinInputStream& reader = m_file;
    StreamBinFileW& writer = m_file;
    StreamBinFileBase& base = m_file;
    EXPECT_EQ("0", readFrom(reader, 1));
    writeTo(writer, "X");
    EXPECT_FALSE(base.seek(0, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(2U, m_position);
    EXPECT_EQ("2", readFrom(reader, 1));
    EXPECT_FALSE(writer.seek(0, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(3U, m_position);
    EXPECT_FALSE(writer.close());
    EXPECT_FALSE(reader.isValid());
    EXPECT_EQ("0X23456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, startsClosedUnbufferedAndReading) {
    File const file;
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.isBlocking());
    EXPECT_FALSE(file.isInputBuffered());
    EXPECT_FALSE(file.isOutputBuffered());
    EXPECT_FALSE(file.isWriting());
    EXPECT_TRUE(File(1, 0).isInputBuffered());
    EXPECT_TRUE(File(0, 1).isOutputBuffered());
}

// ---- open ----

TEST_F(StreamBinFileRWTest, opensAPathInEachForm) {
    File file;
    EXPECT_FALSE(file.open(m_path.c_str(), ReadWriteFlags()));
    EXPECT_EQ("0", readFrom(file, 1));
    EXPECT_FALSE(file.open(UnicodeString(m_path.c_str()), file.READ_WRITE | file.APPEND));
    writeTo(file, "X");
    EXPECT_FALSE(file.close());
    Directory const dir(m_folder.getPath(), true);
    EXPECT_FALSE(file.openAt(dir, "file", true, file.READ_WRITE));
    EXPECT_EQ("0123456789abcdefX", readFrom(file, 20));
    EXPECT_FALSE(file.open("", file.READ_WRITE));
    EXPECT_FALSE(file.isValid());
    mode_t const mask = umask(0);
    EXPECT_FALSE(file.open(m_folder / "new", file.READ_WRITE | file.CREATE));
    umask(mask);
    EXPECT_EQ(0660U, file.getFileInfo().getAccess().getBits());
}

TEST_F(StreamBinFileRWTest, failedOpenIsReportedAsInTheBase) {
    File file;
    std::string const missing = m_folder / "missing";
    EXPECT_TRUE(file.open(missing, file.READ_WRITE));
    EXPECT_TRUE(chainIs(
        {{SysErrorId::INVALID_PATH, rowText(SysErrorId::INVALID_PATH, systemText(ENOENT))},
         {FileAccessError, FileAccessErrorId::BAD_PATH, rowText(FileAccessErrorId::BAD_PATH, missing)}}));
    EXPECT_FALSE(file.isValid());
}

TEST_F(StreamBinFileRWTest, withoutMemoryForOneOfItsBuffersItCannotBeOpened) {
    Directory const dir(m_folder.getPath(), true);
    support::EventRecorder const events; // An invalid object with an open file warns at its end.
    for (int const nth : {1, 2}) {
        NewFault const fault(New::NOTHROW_ARRAY, nth);
        File file(16, 16);
        EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
        EXPECT_TRUE(file.open(m_path, file.READ_WRITE | file.TRUNCATE));
        EXPECT_TRUE(openIsRefused());
        EXPECT_TRUE(file.openAt(dir, "file", true, file.READ_WRITE | file.TRUNCATE));
        EXPECT_TRUE(openIsRefused());
        EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.READ_WRITE, vesk::FileAccess::none));
        EXPECT_FALSE(file.isValid()) << "it needs both";
    }
    EXPECT_EQ("0123456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, flagsDecideWhetherItBlocks) {
    EXPECT_TRUE(m_file.isBlocking());
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE | m_file.NON_BLOCK));
    EXPECT_FALSE(m_file.isBlocking());
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    EXPECT_TRUE(m_file.isBlocking());
}

TEST_F(StreamBinFileRWTest, reopeningEmptiesBothBuffersAndKeepsTheDirection) {
    EXPECT_EQ("0", readFrom(m_file, 1));
    EXPECT_EQ(9U, m_file.getReadAhead());
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    EXPECT_EQ(0U, m_file.getReadAhead());
    writeTo(m_file, "X");
    EXPECT_TRUE(m_file.isWriting());
    EXPECT_EQ(1U, m_file.getBuffered());
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    EXPECT_EQ(0U, m_file.getBuffered());
    EXPECT_TRUE(m_file.isWriting());
    EXPECT_EQ("X1", readFrom(m_file, 2));
    EXPECT_FALSE(m_file.isWriting());
}

// ---- one position ----

TEST_F(StreamBinFileRWTest, writeBehindAReadLandsAtTheReadersPlace) {
    EXPECT_EQ("0", readFrom(m_file, 1));
    EXPECT_EQ(9U, m_file.getReadAhead());
    writeTo(m_file, "X");
    EXPECT_EQ(0U, m_file.getReadAhead());
    EXPECT_TRUE(m_file.isWriting());
    EXPECT_FALSE(m_file.flush(true));
    EXPECT_EQ("0X23456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, writtenBytesAreInTheFileBeforeARead) {
    writeTo(m_file, "AB");
    EXPECT_EQ("0123456789abcdef", contentOf(m_path));
    Fault const syncs(inject_fsync, 0);
    EXPECT_EQ("23", readFrom(m_file, 2));
    EXPECT_EQ("AB23456789abcdef", contentOf(m_path));
    EXPECT_EQ(1, syncs.getCalls()) << "and on its medium";
    EXPECT_FALSE(m_file.isWriting());
}

TEST_F(StreamBinFileRWTest, turningWithEmptyBuffersIsNoSystemCall) {
    File file(4, 4);
    EXPECT_FALSE(file.open(m_path, file.READ_WRITE));
    EXPECT_EQ("0123", readFrom(file, 4));
    Fault const seeks(inject_lseek, 0);
    Fault const syncs(inject_fsync, 0);
    writeTo(file, "WXYZ");
    EXPECT_EQ("89ab", readFrom(file, 4));
    EXPECT_EQ(0, seeks.getCalls());
    EXPECT_EQ(0, syncs.getCalls());
}

TEST_F(StreamBinFileRWTest, unbufferedDirectionsShareThePositionToo) {
    File file;
    EXPECT_FALSE(file.open(m_path, file.READ_WRITE));
    EXPECT_EQ("01", readFrom(file, 2));
    writeTo(file, "XY");
    EXPECT_EQ("45", readFrom(file, 2));
    EXPECT_EQ("01XY456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, flushWhileReadingKeepsTheReadAhead) {
    EXPECT_EQ("0", readFrom(m_file, 1));
    EXPECT_FALSE(m_file.flush(false));
    EXPECT_EQ(9U, m_file.getReadAhead());
    EXPECT_FALSE(m_file.isWriting());
    EXPECT_EQ("123", readFrom(m_file, 3));
}

TEST_F(StreamBinFileRWTest, readFailsWhileSomethingWrittenIsLeftInTheBuffer) {
    writeTo(m_file, "AB");
    Fault const reads(inject_read, 0);
    {
        Fault const fault(inject_write, ENOSPC);
        EXPECT_EQ("", readFrom(m_file, 2, -1));
    }
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_EQ(0, reads.getCalls());
    EXPECT_TRUE(m_file.isWriting());
    EXPECT_EQ(2U, m_file.getBuffered());
    EXPECT_EQ("23", readFrom(m_file, 2)) << "it may be tried again";
    EXPECT_EQ("AB23456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, readGoesOnWhenOnlyTheMediumFails) {
    writeTo(m_file, "AB");
    Fault const fault(inject_fsync, EIO);
    EXPECT_EQ("23", readFrom(m_file, 2));
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    EXPECT_FALSE(m_file.isWriting());
}

TEST_F(StreamBinFileRWTest, writeFailsWhereTheReadAheadCannotBeGivenBackAndLosesIt) {
    std::string const fifo = m_folder / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    File file(8, 0);
    EXPECT_FALSE(file.open(fifo, file.READ_WRITE)) << "on Linux one process may have both ends";
    writeTo(file, "abcd");
    EXPECT_EQ("a", readFrom(file, 1));
    EXPECT_EQ(3U, file.getReadAhead());
    unsigned int written = 12345;
    EXPECT_EQ(-1, file.write("X", 1, written));
    EXPECT_EQ(0U, written);
    EXPECT_TRUE(failureIs(ESPIPE, 10));
    EXPECT_FALSE(file.isWriting());
    EXPECT_EQ(0U, file.getReadAhead());
    writeTo(file, "Y");
    EXPECT_TRUE(file.isWriting());
    EXPECT_EQ("Y", readFrom(file, 8));
}

TEST_F(StreamBinFileRWTest, readAheadIsGivenBackThroughTheSeekOfAClassThatDerives) {
    class Lazy : public File {
    public:
        using File::File;
        bool seek(int offset, SeekDirection direction, unsigned int& position) override {
            EXPECT_EQ(0, offset);
            EXPECT_EQ(Current, direction);
            position = 0;
            ++seeks;
            return fails;
        }
        int seeks = 0;
        bool fails = true;
    } file(10, 10);
    EXPECT_FALSE(file.open(m_path, file.READ_WRITE));
    EXPECT_EQ("0", readFrom(file, 1));
    unsigned int written = 0;
    EXPECT_EQ(-1, file.write("X", 1, written));
    EXPECT_TRUE(file.hadError());
    EXPECT_FALSE(file.isWriting());
    EXPECT_EQ(9U, file.getReadAhead());
    file.fails = false;
    writeTo(file, "X");
    EXPECT_TRUE(file.isWriting());
    EXPECT_EQ(0U, file.getReadAhead()) << "it is emptied whatever that seek does";
    EXPECT_EQ(2, file.seeks);
}

TEST_F(StreamBinFileRWTest, hooksToldDirectlyOnlyTurnWhatIsBuffered) {
    EXPECT_FALSE(m_file.checkWriteBufferConsistency());
    EXPECT_TRUE(m_file.isWriting());
    EXPECT_FALSE(m_file.checkReadBufferConsistency());
    EXPECT_FALSE(m_file.isWriting());
    writeTo(m_file, "AB");
    EXPECT_FALSE(m_file.checkWriteBufferConsistency()) << "it is the direction already";
    EXPECT_EQ(2U, m_file.getBuffered());
    EXPECT_FALSE(m_file.checkReadBufferConsistency());
    EXPECT_EQ(0U, m_file.getBuffered());
}

// ---- seek ----

TEST_F(StreamBinFileRWTest, seekBehindAReadCountsFromTheReadersPlace) {
    EXPECT_EQ("012", readFrom(m_file, 3));
    EXPECT_FALSE(m_file.seek(0, m_file.Current, m_position));
    EXPECT_EQ(3U, m_position);
    EXPECT_EQ(-7, s_file_calls.seek_offset);
    EXPECT_EQ("3", readFrom(m_file, 1));
    EXPECT_FALSE(m_file.seek(5, m_file.Begin, m_position));
    EXPECT_EQ(5, s_file_calls.seek_offset);
    EXPECT_EQ("5", readFrom(m_file, 1));
}

TEST_F(StreamBinFileRWTest, seekBehindAWriteFlushesFirst) {
    writeTo(m_file, "AB");
    Fault const syncs(inject_fsync, 0);
    EXPECT_FALSE(m_file.seek(1, m_file.Current, m_position));
    EXPECT_EQ(3U, m_position);
    EXPECT_EQ("AB23456789abcdef", contentOf(m_path));
    EXPECT_EQ(1, syncs.getCalls());
    EXPECT_FALSE(m_file.isWriting());
    EXPECT_FALSE(m_file.checkWriteBufferConsistency());
    EXPECT_FALSE(m_file.seek(0, m_file.End, m_position));
    EXPECT_EQ(16U, m_position);
    EXPECT_EQ(1, syncs.getCalls()) << "there was nothing to flush";
    EXPECT_TRUE(m_file.isWriting());
}

TEST_F(StreamBinFileRWTest, seekStopsWhileSomethingWrittenIsLeftInTheBuffer) {
    writeTo(m_file, "AB");
    Fault const seeks(inject_lseek, 0);
    Fault const fault(inject_write, ENOSPC);
    EXPECT_TRUE(m_file.seek(5, m_file.Begin, m_position));
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_EQ(0, seeks.getCalls());
    EXPECT_EQ(2U, m_file.getBuffered());
    EXPECT_TRUE(m_file.isWriting());
}

TEST_F(StreamBinFileRWTest, seekGoesOnWhenOnlyTheMediumFails) {
    writeTo(m_file, "AB");
    Fault const fault(inject_fsync, EIO);
    EXPECT_FALSE(m_file.seek(5, m_file.Begin, m_position));
    EXPECT_EQ(5U, m_position);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileRWTest, seekOnAClosedObjectFails) {
    EXPECT_FALSE(m_file.close());
    EXPECT_TRUE(m_file.seek(0, m_file.Begin, m_position));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Attempt to seek on invalid file object")}}));
}

// ---- close and the end of the object ----

TEST_F(StreamBinFileRWTest, closeAndFailedOpenLeaveNothingOfTheOldFile) {
    EXPECT_FALSE(m_file.open("/dev/full", m_file.READ_WRITE));
    writeTo(m_file, "AB");
    EXPECT_TRUE(m_file.close());
    EXPECT_TRUE(m_file.hadError());
    EXPECT_EQ(0U, m_file.getBuffered());
    unsigned int written = 12345;
    EXPECT_EQ(-1, m_file.write("C", 1, written));
    EXPECT_TRUE(support::closedFileIsTold("write"));
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    EXPECT_EQ("0", readFrom(m_file, 1));
    EXPECT_TRUE(m_file.open(m_folder / "missing", m_file.READ_WRITE));
    EXPECT_EQ(0U, m_file.getReadAhead());
    std::ErrorStorage::ack();
    EXPECT_EQ("0123456789abcdef", contentOf(m_path));
}

TEST_F(StreamBinFileRWTest, closeFlushesFirstAndClosesInAnyCase) {
    writeTo(m_file, "AB");
    int const fd = m_file.getDescriptor();
    EXPECT_FALSE(m_file.close());
    EXPECT_EQ("AB23456789abcdef", contentOf(m_path));
    EXPECT_FALSE(isOpen(fd));
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.open("/dev/full", m_file.READ_WRITE));
    writeTo(m_file, "AB");
    EXPECT_TRUE(m_file.close());
    EXPECT_TRUE(streamFailureIs(ENOSPC, 15, 1));
    EXPECT_FALSE(m_file.isValid());
}

TEST_F(StreamBinFileRWTest, destructorFlushesAndClosesThroughEveryBase) {
    support::EventRecorder const events;
    auto const expect = [this](std::string const& bytes, auto const& destroy) {
        auto* const file = new StreamBinFileRW(16, 16);
        EXPECT_FALSE(file->open(m_path, file->READ_WRITE | file->TRUNCATE));
        int const fd = file->getDescriptor();
        writeTo(*file, bytes);
        destroy(file);
        EXPECT_FALSE(isOpen(fd));
        EXPECT_EQ(bytes, contentOf(m_path));
    };
    expect("a", [](StreamBinFileRW* file) { delete file; });
    expect("b", [](StreamBinFileR* file) { delete file; });
    expect("c", [](StreamBinFileW* file) { delete file; });
    expect("d", [](IBinOutputStream* file) { delete file; });
    expect("e", [](IBinStreamBase* file) { delete file; });
    expect("f", [](BinFileBase* file) { delete file; });
    { StreamBinFileRW const closed; }
    EXPECT_EQ("", events.getText());
}

constexpr char const* WARNING =
    "WARNING framework/src/vesk/posix/StreamBinFileRW ~StreamBinFileRW: Error closing BinFileW";

TEST_F(StreamBinFileRWTest, destructorWarnsAboutAFailedFlushOrClose) {
    support::EventRecorder const events;
    {
        StreamBinFileRW file(16, 16);
        EXPECT_FALSE(file.open("/dev/full", file.READ_WRITE));
        writeTo(file, "abc");
    }
    EXPECT_EQ(WARNING, events.getText());
    EXPECT_TRUE(chainIs({})) << "it is acknowledged";
    {
        StreamBinFileRW file;
        EXPECT_FALSE(file.open(m_path, file.READ_WRITE));
        close(file.getDescriptor());
    }
    EXPECT_EQ(std::string(WARNING) + "\n" + WARNING, events.getText());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileRWTest, everyLevelTriesToCloseAFileThatStaysOpen) {
    auto const end = support::runInChild([&] {
        support::EventRecorder const events;
        auto* const file = new StreamBinFileRW;
        EXPECT_FALSE(file->open(m_path, file->READ_WRITE));
        {
            Fault const fault(inject_close, EIO, 1, Fault::FOREVER);
            delete file;
            EXPECT_EQ(3, fault.getCalls());
        }
        EXPECT_EQ(
            std::string(WARNING) +
                "\nWARNING framework/src/vesk/posix/StreamBinFileW ~StreamBinFileW: Error closing BinFileW",
            events.getText());
        EXPECT_TRUE(chainIs({}));
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0U, end.errors.find("~BinFileBase|Warning: Error closing BinFile: ")) << end.errors;
}

TEST_F(StreamBinFileRWTest, destructorOfAnObjectWithoutItsWriteBufferOnlyCloses) {
    support::EventRecorder const events;
    Fault const syncs(inject_fsync, 0);
    {
        NewFault const fault(New::NOTHROW_ARRAY, 2);
        StreamBinFileRW file(16, 16);
        std::ErrorStorage::ack();
        EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.READ_WRITE, vesk::FileAccess::none));
    }
    EXPECT_EQ(0, syncs.getCalls());
    EXPECT_EQ("", events.getText());
}

TEST_F(StreamBinFileRWTest, destructorOfAnObjectWithoutItsReadBufferFailsToFlush) {
    support::EventRecorder const events;
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1);
        StreamBinFileRW file(16, 16);
        std::ErrorStorage::ack();
        EXPECT_FALSE(file.BinFileBase::open(m_path.c_str(), file.READ_WRITE, vesk::FileAccess::none));
    }
    EXPECT_EQ(WARNING, events.getText()) << "without it the object is not valid";
    EXPECT_TRUE(chainIs({}));
}

TEST_F(StreamBinFileRWTest, transfersOfNothingLeaveTheOtherDirectionAlone) {
    EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE));
    readFrom(m_file, 1);
    unsigned int const read_ahead = m_file.getReadAhead();
    EXPECT_NE(0U, read_ahead);
    writeTo(m_file, "");
    EXPECT_EQ(read_ahead, m_file.getReadAhead());
    writeTo(m_file, "ab");
    EXPECT_EQ("", readFrom(m_file, 0));
    EXPECT_EQ(2U, m_file.getBuffered());
}

TEST_F(StreamBinFileRWTest, readingAndWritingInTurnAllocatesNothing) {
    if (!support::COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    s_file_calls.syncs_for_nothing = true;
    char block[40] = {};
    unsigned int count = 0;
    support::AllocationCounter const counter;
    for (unsigned int i = 0; i < 100; ++i) {
        EXPECT_FALSE(m_file.seek(static_cast<int>(i % 8), m_file.Begin, m_position));
        EXPECT_EQ(1, m_file.read(block, 1 + i % 8, count));
        EXPECT_EQ(1, m_file.write(block, 1 + i % 40, count));
    }
    EXPECT_EQ(0, counter.getCount());
}

// ---- against a model ----

/// How the system answers: all at once, or in pieces of any size.
enum class Mood { WHOLE, SHORT };

void PrintTo(Mood mood, std::ostream* out) {
    *out << (mood == Mood::WHOLE ? "WHOLE" : "SHORT");
}

using Setting = std::tuple<unsigned int, unsigned int, Mood>;

/// What every caller may rely on: one text and one position in it, no buffers.
class StreamBinFileRWModel : public testing::TestWithParam<Setting> {
protected:
    StreamBinFileRWModel()
        : m_path(m_folder / "file"), m_file(std::get<0>(GetParam()), std::get<1>(GetParam())) {
        s_file_calls.syncs_for_nothing = true;
        EXPECT_FALSE(m_file.open(m_path, m_file.READ_WRITE | m_file.CREATE));
    }

    unsigned int pick(unsigned int least, unsigned int most) {
        return std::uniform_int_distribution<unsigned int>(least, most)(m_random);
    }

    /// Mostly small requests, with some around the sizes of the buffers.
    unsigned int pickSize() {
        switch (pick(0, 3)) {
        case 0:
            return pick(0, 3);
        case 1:
            return pick(0, 20);
        case 2:
            return std::max(1U, std::get<0>(GetParam())) + pick(0, 2) - 1;
        default:
            return std::max(1U, std::get<1>(GetParam())) + pick(0, 2) - 1;
        }
    }

    void read() {
        unsigned int const size = pickSize();
        std::string block(size, '#');
        unsigned int count = 12345;
        int const result = m_file.read(&block[0], size, count);
        ASSERT_LE(count, size);
        if (result == 0) {
            ASSERT_EQ(0U, count);
            ASSERT_GE(m_place, m_content.size());
            ASSERT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
            return;
        }
        ASSERT_EQ(1, result);
        if (size == 0) {
            return;
        }
        ASSERT_NE(0U, count);
        ASSERT_LE(m_place + count, m_content.size());
        ASSERT_EQ(m_content.substr(m_place, count), block.substr(0, count));
        m_place += count;
    }

    void write() {
        std::string bytes(pickSize(), ' ');
        std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>('a' + pick(0, 25)); });
        unsigned int written = 12345;
        ASSERT_EQ(1, m_file.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written));
        ASSERT_EQ(bytes.size(), written);
        if (bytes.empty()) {
            return;
        }
        if (m_content.size() < m_place + bytes.size()) {
            m_content.resize(m_place + bytes.size());
        }
        m_content.replace(m_place, bytes.size(), bytes);
        m_place += bytes.size();
    }

    void seek() {
        int const size = static_cast<int>(m_content.size());
        int const target = static_cast<int>(pick(0, static_cast<unsigned int>(size) + 20));
        int const place = static_cast<int>(m_place);
        unsigned int position = 12345;
        switch (pick(0, 3)) {
        case 0:
            ASSERT_FALSE(m_file.seek(target, m_file.Begin, position));
            break;
        case 1:
            ASSERT_FALSE(m_file.seek(target - size, m_file.End, position)) << "from " << m_place;
            break;
        case 2:
            ASSERT_FALSE(m_file.seek(target - place, m_file.Current, position));
            break;
        default:
            ASSERT_FALSE(m_file.seek(0, m_file.Current, position));
            ASSERT_EQ(m_place, position);
            return;
        }
        ASSERT_EQ(static_cast<unsigned int>(target), position);
        m_place = position;
    }

    void flush() {
        ASSERT_FALSE(m_file.flush(pick(0, 1) == 0));
        ASSERT_EQ(m_content, contentOf(m_path));
    }

    void act() {
        if (std::get<2>(GetParam()) == Mood::SHORT) {
            s_file_calls.most = pick(1, 12);
        }
        switch (pick(0, 9)) {
        case 0:
            seek();
            break;
        case 1:
            flush();
            break;
        case 2:
        case 3:
        case 4:
        case 5:
            read();
            break;
        default:
            write();
        }
        s_file_calls.most = SIZE_MAX;
    }

    TempFolder m_folder;
    std::string m_path;
    File m_file;
    std::string m_content;
    size_t m_place = 0;
    std::mt19937 m_random{20240229};
};

TEST_P(StreamBinFileRWModel, randomSequenceKeepsOnePositionAndOneContent) {
    for (int i = 0; i < 3000; ++i) {
        ASSERT_NO_FATAL_FAILURE(act()) << "step " << i;
    }
    EXPECT_FALSE(m_file.close());
    EXPECT_EQ(m_content, contentOf(m_path));
}

INSTANTIATE_TEST_SUITE_P(
    sizes, StreamBinFileRWModel,
    testing::Combine(
        testing::Values(0U, 1U, 7U, 64U), testing::Values(0U, 1U, 5U, 64U),
        testing::Values(Mood::WHOLE, Mood::SHORT)));

} // namespace
