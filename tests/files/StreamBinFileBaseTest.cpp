#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/TempFolder.h"
#include "support/VtableSlot.h"
#include "support/calls/FileCalls.h"

#include <tarncommon/error/CommonError.h>
#include <vesk/FileAccessError.h>
#include <vesk/Pipe.h>
#include <vesk/StreamBinFileBase.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <climits>
#include <ostream>
#include <string>
#include <unistd.h>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using support::chainIs;
using support::failureIs;
using support::Fault;
using support::getSlot;
using support::rowText;
using support::s_file_calls;
using support::TempFolder;
using vesk::BinFileBase;
using vesk::FileAccess;
using vesk::FileAccessError;
namespace FileAccessErrorId = vesk::FileAccessErrorId;
using vesk::Pipe;
using vesk::StreamBinFileBase;
using vesk::SysError;
namespace SysErrorId = vesk::SysErrorId;

class File : public StreamBinFileBase {};

static_assert(
    StreamBinFileBase::Current == 0 && StreamBinFileBase::Begin == 1 && StreamBinFileBase::End == 2);
static_assert(sizeof(File) == sizeof(BinFileBase), "it adds no data");

class StreamBinFileBaseTest : public testing::Test {
protected:
    StreamBinFileBaseTest() {
        m_path = m_folder.makeFile("file", "0123456789");
        EXPECT_FALSE(m_file.open(m_path.c_str(), BinFileBase::READ_WRITE, FileAccess::none));
    }

    TempFolder m_folder;
    std::string m_path;
    File m_file;
    unsigned int m_position = 12345;
};

TEST_F(StreamBinFileBaseTest, seekStandsBehindTheOperationsOfTheBase) {
    EXPECT_EQ(0, getSlot(&StreamBinFileBase::isValid));
    EXPECT_EQ(1, getSlot(&StreamBinFileBase::close));
    EXPECT_EQ(4, getSlot(&StreamBinFileBase::seek));
}

TEST_F(StreamBinFileBaseTest, seekCountsFromTheBeginThePresentPlaceOrTheEnd) {
    EXPECT_FALSE(m_file.seek(4, StreamBinFileBase::Begin, m_position));
    EXPECT_EQ(4U, m_position);
    EXPECT_EQ(SEEK_SET, s_file_calls.seek_whence);
    EXPECT_FALSE(m_file.seek(3, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(7U, m_position);
    EXPECT_EQ(SEEK_CUR, s_file_calls.seek_whence);
    EXPECT_FALSE(m_file.seek(-2, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(5U, m_position);
    EXPECT_FALSE(m_file.seek(-1, StreamBinFileBase::End, m_position));
    EXPECT_EQ(9U, m_position);
    EXPECT_EQ(SEEK_END, s_file_calls.seek_whence);
    EXPECT_FALSE(m_file.seek(5, StreamBinFileBase::End, m_position)) << "a place behind the end";
    EXPECT_EQ(15U, m_position);
    EXPECT_FALSE(m_file.hadError());
}

TEST_F(StreamBinFileBaseTest, seekOnAClosedObjectFails) {
    EXPECT_FALSE(m_file.close());
    Fault const calls(inject_lseek, 0);
    EXPECT_TRUE(m_file.seek(0, StreamBinFileBase::Begin, m_position));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::CONTRACT_BROKEN,
          rowText(CommonErrorId::CONTRACT_BROKEN, "Attempt to seek on invalid file object")}}));
    EXPECT_TRUE(m_file.hadError());
    EXPECT_EQ(0U, m_position);
    EXPECT_EQ(0, calls.getCalls());
}

struct Row {
    int error;
    int id;
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << strerrorname_np(row.error);
}

class StreamBinFileBaseSeek : public testing::TestWithParam<Row> {};

TEST_P(StreamBinFileBaseSeek, failureIsReported) {
    File file;
    EXPECT_FALSE(file.open("/dev/null", BinFileBase::READ, FileAccess::none));
    unsigned int position = 12345;
    {
        Fault const fault(inject_lseek, GetParam().error);
        EXPECT_TRUE(file.seek(0, StreamBinFileBase::Begin, position));
        EXPECT_EQ(1, fault.getCalls());
    }
    EXPECT_TRUE(failureIs(GetParam().error, GetParam().id));
    EXPECT_EQ(0U, position);
    EXPECT_TRUE(file.hadError());
    EXPECT_FALSE(file.seek(0, StreamBinFileBase::Begin, position));
    EXPECT_FALSE(file.hadError());
}

INSTANTIATE_TEST_SUITE_P(
    rows, StreamBinFileBaseSeek,
    testing::Values(
        Row{EBADF, 10}, Row{ESPIPE, 10}, Row{EOVERFLOW, 10}, Row{EINVAL, 8}, Row{ENXIO, 19}, Row{EINTR, 19},
        Row{EIO, 19}));

TEST_F(StreamBinFileBaseTest, seekOnAPipeFails) {
    Pipe pipe;
    EXPECT_FALSE(m_file.open(pipe, false));
    EXPECT_TRUE(m_file.seek(0, StreamBinFileBase::Current, m_position));
    EXPECT_TRUE(failureIs(ESPIPE, 10));
    EXPECT_TRUE(m_file.hadError());
    EXPECT_TRUE(m_file.isValid());
}

TEST_F(StreamBinFileBaseTest, seekBeforeTheBeginFailsAndLeavesThePosition) {
    EXPECT_FALSE(m_file.seek(5, StreamBinFileBase::Begin, m_position));
    EXPECT_TRUE(m_file.seek(-6, StreamBinFileBase::Current, m_position));
    EXPECT_TRUE(failureIs(EINVAL, 8));
    EXPECT_TRUE(m_file.seek(INT_MIN, StreamBinFileBase::Begin, m_position));
    EXPECT_TRUE(failureIs(EINVAL, 8));
    EXPECT_FALSE(m_file.seek(0, StreamBinFileBase::Current, m_position));
    EXPECT_EQ(5U, m_position);
}

TEST_F(StreamBinFileBaseTest, seekOnADescriptorThatIsNotOpenAnyMoreFails) {
    close(m_file.getDescriptor());
    EXPECT_TRUE(m_file.seek(0, StreamBinFileBase::Begin, m_position));
    EXPECT_TRUE(failureIs(EBADF, 10));
    EXPECT_TRUE(m_file.close());
    std::ErrorStorage::ack();
}

TEST_F(StreamBinFileBaseTest, positionBeyondTwoGibibytesFailsInEveryBuild) {
    EXPECT_FALSE(m_file.seek(INT_MAX, StreamBinFileBase::Begin, m_position));
    EXPECT_EQ(2147483647U, m_position);
    EXPECT_TRUE(m_file.seek(1, StreamBinFileBase::Current, m_position));
    EXPECT_TRUE(failureIs(EOVERFLOW, 10));
    EXPECT_EQ(0U, m_position);
    EXPECT_TRUE(m_file.hadError());
    EXPECT_TRUE(m_file.seek(INT_MAX, StreamBinFileBase::End, m_position));
    EXPECT_TRUE(failureIs(EOVERFLOW, 10));
    EXPECT_FALSE(m_file.seek(0, StreamBinFileBase::Begin, m_position));
    EXPECT_FALSE(m_file.hadError());
}

TEST_F(StreamBinFileBaseTest, fileBeyondTwoGibibytesFailsAtTheLatestWhereItsPositionIsWanted) {
    EXPECT_FALSE(m_file.close());
    if (truncate64(m_path.c_str(), 3LL << 30) != 0) {
        GTEST_SKIP() << "the file system has no large files";
    }
    bool const failed = m_file.open(m_path.c_str(), BinFileBase::READ, FileAccess::none);
    if (sizeof(off_t) == 4 && failed) {
        EXPECT_TRUE(chainIs(
            {{SysErrorId::UNCLASSIFIED, rowText(SysErrorId::UNCLASSIFIED, support::systemText(EOVERFLOW))},
             {FileAccessError, FileAccessErrorId::UNCLASSIFIED,
              rowText(FileAccessErrorId::UNCLASSIFIED, m_path)}}));
        return;
    }
    // A 64-bit system opens it, also for a 32-bit program that it emulates.
    EXPECT_FALSE(failed);
    EXPECT_TRUE(m_file.seek(0, StreamBinFileBase::End, m_position));
    EXPECT_TRUE(failureIs(EOVERFLOW, 10));
    EXPECT_EQ(0U, m_position);
}

TEST_F(StreamBinFileBaseTest, directionThatIsNoneEndsTheProcess) {
    auto const end = support::runInChild(
        [this] { m_file.seek(0, static_cast<StreamBinFileBase::SeekDirection>(3), m_position); });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("BinFileBase::seek(): Invalid value for direction"));
}

TEST_F(StreamBinFileBaseTest, directionThatIsNoneCountsFromThePresentPlaceIfTheProcessGoesOn) {
    EXPECT_FALSE(m_file.seek(4, StreamBinFileBase::Begin, m_position));
    support::EventRecorder const events;
    EXPECT_FALSE(m_file.seek(2, static_cast<StreamBinFileBase::SeekDirection>(-1), m_position));
    EXPECT_EQ(6U, m_position);
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/StreamBinFileBase seek: BinFileBase::seek(): Invalid value for "
        "direction",
        events.getText());
}

} // namespace
