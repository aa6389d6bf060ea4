#include "FileTests.h"
#include "support/Chain.h"
#include "support/Child.h"
#include "support/EventRecorder.h"
#include "support/NewFault.h"
#include "support/TempFolder.h"
#include "support/calls/FileCalls.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <vesk/FileBuffer.h>
#include <vesk/Pipe.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/SysError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cwchar>
#include <istream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::IBinStreamBase;
using support::chainIs;
using support::failureIs;
using support::Fault;
using support::isOpen;
using support::s_file_calls;
using support::streamFailureIs;
using support::TempFolder;
using vesk::FileBuffer;
using vesk::Pipe;
using vesk::StreamBinFileR;

static_assert(std::is_base_of_v<std::filebuf_base, FileBuffer>);

/// Shows what only deriving classes see.
class Buffer : public FileBuffer {
public:
    using FileBuffer::actuallyFlush;
    using FileBuffer::actuallyRead;
    using FileBuffer::actuallySeek;
    using FileBuffer::actuallyWrite;
    using FileBuffer::FileBuffer;
    using FileBuffer::m_buffer_size;
    using FileBuffer::m_open_mode;
    using FileBuffer::m_out;
};

/// A sink that takes what it is told to, and notes what it is offered.
class Sink : public std::IBinOutputStream {
public:
    explicit Sink(std::vector<unsigned int> counts)
        : IBinOutputStream(false, 0), m_counts(std::move(counts)) {}

    bool isValid() const override { return is_valid; }

    std::vector<std::string> offers;
    int flushes = 0;
    bool is_valid = true;
    bool flush_fails = false;

protected:
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        size_t const turn = offers.size();
        offers.emplace_back(static_cast<char const*>(buffer), size);
        if (turn >= m_counts.size()) {
            std::ErrorOutput("test", __LINE__, true)(std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED);
            return true;
        }
        written = m_counts[turn];
        return false;
    }
    bool performFlush() override {
        ++flushes;
        return flush_fails;
    }

private:
    std::vector<unsigned int> m_counts;
};

class FileBufferTest : public testing::Test {
protected:
    FileBufferTest() : m_path(m_folder.makeFile("file", "0123456789abcdef")) {
        EXPECT_FALSE(m_file.open(m_path, m_file.READ));
    }

    TempFolder m_folder;
    std::string m_path;
    StreamBinFileR m_file;
};

TEST_F(FileBufferTest, standardStreamReadsTheFile) {
    EXPECT_FALSE(m_file.open(m_folder.makeFile("text", "12 word 3.5\n-7"), m_file.READ));
    FileBuffer buffer(&m_file, 4096, nullptr);
    std::istream stream(&buffer);
    unsigned int number = 0;
    std::string word;
    double fraction = 0;
    int negative = 0;
    stream >> number >> word >> fraction >> negative;
    EXPECT_EQ(12U, number);
    EXPECT_EQ("word", word);
    EXPECT_EQ(3.5, fraction);
    EXPECT_EQ(-7, negative);
    EXPECT_TRUE(stream.eof());
    EXPECT_FALSE(stream.fail());
    EXPECT_TRUE(chainIs({})) << "the end is no failure";
}

TEST_F(FileBufferTest, readsAsMuchAsTheBufferHolds) {
    Buffer buffer(&m_file, 7, nullptr);
    EXPECT_EQ(7U, buffer.m_buffer_size);
    EXPECT_EQ(8, static_cast<int>(buffer.m_open_mode));
    EXPECT_EQ(std::ios_base::in, buffer.m_open_mode);
    std::istream stream(&buffer);
    Fault const reads(inject_read, 0);
    std::string line;
    std::getline(stream, line);
    EXPECT_EQ("0123456789abcdef", line);
    EXPECT_EQ(4, reads.getCalls()) << "7, 7, 2 and the end";
}

TEST_F(FileBufferTest, sizeOfZeroReadsOneByteAtATime) {
    Buffer buffer(&m_file, 0, nullptr);
    EXPECT_EQ(1U, buffer.m_buffer_size);
    std::istream stream(&buffer);
    Fault const reads(inject_read, 0);
    std::string line;
    std::getline(stream, line);
    EXPECT_EQ("0123456789abcdef", line);
    EXPECT_EQ(17, reads.getCalls());
}

TEST_F(FileBufferTest, memoryOfTheCallerIsUsedAndStaysHis) {
    char memory[8] = {};
    {
        FileBuffer buffer(&m_file, 4, memory);
        EXPECT_EQ('0', buffer.sgetc());
        EXPECT_STREQ("0123", memory);
    }
    EXPECT_STREQ("0123", memory);
}

TEST_F(FileBufferTest, withoutMemoryNothingIsRead) {
    support::NewFault const fault(support::New::NOTHROW_ARRAY);
    FileBuffer buffer(&m_file, 16, nullptr);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_EQ(std::char_traits<char>::eof(), buffer.sgetc());
}

TEST_F(FileBufferTest, sourceWithABufferOfItsOwnIsABrokenContract) {
    StreamBinFileR buffered(16);
    support::EventRecorder const events;
    FileBuffer const buffer(&buffered, 16, nullptr);
    ASSERT_EQ(1U, events.getCount());
    auto const event = events.getEvents()[0];
    EXPECT_EQ(std::GlobalErrorHandler::Kind::ASSERT, event.kind);
    EXPECT_EQ("in && ! in->isInputBuffered()", event.expression);
    EXPECT_EQ("framework/src/vesk/posix/FileBuffer", event.file);
    EXPECT_EQ("FileBuffer", event.function);
}

TEST_F(FileBufferTest, missingSourceIsABrokenContractAndReadsNothing) {
    support::EventRecorder const events;
    Buffer buffer(nullptr, 16, nullptr);
    ASSERT_EQ(1U, events.getCount());
    EXPECT_EQ("in && ! in->isInputBuffered()", events.getEvents()[0].expression);
    EXPECT_TRUE(buffer.isOpen()) << "there is no file that could be closed";
    EXPECT_EQ(std::char_traits<char>::eof(), buffer.sgetc());
    EXPECT_EQ(std::streampos(-1), buffer.pubseekoff(0, std::ios_base::beg));
    std::streampos position;
    EXPECT_EQ(1, buffer.actuallySeek(0, std::ios_base::beg, position));
    char c = 0;
    unsigned int count = 12345;
    EXPECT_EQ(1, buffer.actuallyRead(&c, 1, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileBufferTest, soundSourceIsAccepted) {
    support::EventRecorder const events;
    FileBuffer const buffer(&m_file, 16, nullptr);
    EXPECT_EQ("", events.getText());
}

// ---- reading ----

TEST_F(FileBufferTest, endOfTheFileSetsOnlyTheStateOfTheStream) {
    FileBuffer buffer(&m_file, 100, nullptr);
    std::istream stream(&buffer);
    char block[100];
    stream.read(block, sizeof block);
    EXPECT_EQ(16, stream.gcount());
    EXPECT_TRUE(stream.eof());
    EXPECT_FALSE(stream.bad());
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileBufferTest, otherFailuresStayPending) {
    EXPECT_FALSE(m_file.open(m_folder.getPath(), m_file.READ));
    FileBuffer buffer(&m_file, 100, nullptr);
    std::istream stream(&buffer);
    EXPECT_EQ(std::char_traits<char>::eof(), stream.get());
    EXPECT_TRUE(stream.eof());
    EXPECT_TRUE(streamFailureIs(EISDIR, 2, 1));
}

TEST_F(FileBufferTest, resultOfAReadIsAlwaysTheSame) {
    Buffer buffer(&m_file, 100, nullptr);
    char block[100];
    unsigned int count = 12345;
    EXPECT_EQ(1, buffer.actuallyRead(block, sizeof block, count));
    EXPECT_EQ(16U, count);
    EXPECT_EQ(1, buffer.actuallyRead(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs({}));
    Fault const fault(inject_read, EIO);
    EXPECT_EQ(1, buffer.actuallyRead(block, sizeof block, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(streamFailureIs(EIO, 11, 1));
}

// ---- seeking ----

TEST_F(FileBufferTest, currentPositionIsThatOfTheReader) {
    FileBuffer buffer(&m_file, 10, nullptr);
    std::istream stream(&buffer);
    char block[3];
    stream.read(block, sizeof block);
    EXPECT_EQ(std::streampos(3), stream.tellg());
    EXPECT_EQ(-7, s_file_calls.seek_offset);
    EXPECT_EQ('3', stream.get());
    EXPECT_EQ(std::streampos(6), buffer.pubseekoff(2, std::ios_base::cur));
    EXPECT_EQ('6', stream.get());
}

TEST_F(FileBufferTest, seeksFromTheBeginAndTheEnd) {
    FileBuffer buffer(&m_file, 10, nullptr);
    std::istream stream(&buffer);
    EXPECT_EQ('0', stream.get());
    stream.seekg(12, std::ios_base::beg);
    EXPECT_EQ('c', stream.get());
    stream.seekg(-2, std::ios_base::end);
    EXPECT_EQ('e', stream.get());
    std::streampos const position = buffer.pubseekpos(5);
    EXPECT_EQ(std::streampos(5), position);
    EXPECT_EQ('5', stream.get());
    mbstate_t const zeros{};
    mbstate_t const state = position.state();
    EXPECT_EQ(0, memcmp(&zeros, &state, sizeof zeros));
}

TEST_F(FileBufferTest, seekOnAPipeFailsAndLeavesTheBuffer) {
    Pipe pipe;
    ASSERT_EQ(3, write(pipe.getWriteEnd(), "abc", 3));
    EXPECT_FALSE(m_file.open(pipe));
    FileBuffer buffer(&m_file, 10, nullptr);
    EXPECT_EQ('a', buffer.sbumpc());
    EXPECT_EQ(std::streampos(-1), buffer.pubseekoff(0, std::ios_base::cur));
    EXPECT_TRUE(failureIs(ESPIPE, 10));
    EXPECT_EQ(std::streampos(-1), buffer.pubseekpos(0));
    EXPECT_TRUE(failureIs(ESPIPE, 10));
    EXPECT_EQ('b', buffer.sbumpc());
    EXPECT_EQ('c', buffer.sbumpc());
}

TEST_F(FileBufferTest, offsetThatDoesNotFitFailsAndLeavesTheBuffer) {
    Buffer buffer(&m_file, 10, nullptr);
    EXPECT_EQ('0', buffer.sbumpc());
    constexpr long long MOST = INT32_MAX;
    constexpr long long LEAST = INT32_MIN;
    Fault const seeks(inject_lseek, 0);
    for (long long const offset :
         {MOST + 1, LEAST - 1, (1LL << 32) + 3, 0xFFFFFFFFLL, LLONG_MAX, LLONG_MIN}) {
        for (auto const way : {std::ios_base::beg, std::ios_base::cur, std::ios_base::end}) {
            std::streampos position(77);
            EXPECT_NE(0, buffer.actuallySeek(offset, way, position)) << offset;
            EXPECT_TRUE(failureIs(EOVERFLOW, 10));
            EXPECT_EQ(EOVERFLOW, errno);
            EXPECT_TRUE(m_file.hadError());
            EXPECT_EQ(std::streampos(77), position);
        }
    }
    EXPECT_EQ(std::streampos(-1), buffer.pubseekpos((1LL << 32) + 3));
    EXPECT_TRUE(failureIs(EOVERFLOW, 10));
    EXPECT_EQ(0, seeks.getCalls());
    EXPECT_EQ('1', buffer.sbumpc());
    std::streampos position;
    EXPECT_EQ(0, buffer.actuallySeek(MOST, std::ios_base::beg, position));
    EXPECT_EQ(std::streampos(MOST), position);
    EXPECT_FALSE(m_file.hadError());
    EXPECT_NE(0, buffer.actuallySeek(LEAST, std::ios_base::end, position));
    EXPECT_TRUE(failureIs(EINVAL, 8)) << "before the begin";
}

TEST_F(FileBufferTest, offsetThatDoesNotFitInAClosedFileIsTheClosedFilesFailure) {
    Buffer buffer(&m_file, 10, nullptr);
    EXPECT_FALSE(m_file.close());
    std::streampos position;
    EXPECT_NE(0, buffer.actuallySeek(1LL << 32, std::ios_base::beg, position));
    EXPECT_TRUE(chainIs({{std::CommonErrorId::CONTRACT_BROKEN}}));
}

TEST_F(FileBufferTest, wayThatIsNoneEndsTheProcess) {
    Buffer buffer(&m_file, 10, nullptr);
    auto const way = static_cast<std::ios_base::seekdir>(7);
    std::streampos position;
    auto const end = support::runInChild([&] { buffer.actuallySeek(0, way, position); });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("invalid way specified")) << end.errors;

    support::EventRecorder const events;
    EXPECT_EQ(0, buffer.actuallySeek(-1, way, position));
    EXPECT_EQ(std::streampos(15), position) << "if it goes on, from the end";
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/FileBuffer actuallySeek: invalid way specified", events.getText());
}

// ---- writing, which only a deriving class gives a sink for ----

TEST_F(FileBufferTest, withoutASinkNothingIsWrittenOrFlushed) {
    Buffer buffer(&m_file, 10, nullptr);
    unsigned int written = 12345;
    EXPECT_EQ(1, buffer.actuallyWrite("abc", 3, written));
    EXPECT_EQ(0U, written);
    EXPECT_EQ(1, buffer.actuallyFlush());
    EXPECT_EQ(std::char_traits<char>::eof(), buffer.sputc('x'));
    EXPECT_TRUE(chainIs({}));
}

TEST_F(FileBufferTest, sinkThatTakesAllGetsItOnce) {
    Buffer buffer(&m_file, 10, nullptr);
    Sink sink({3});
    buffer.m_out = &sink;
    unsigned int written = 12345;
    EXPECT_EQ(0, buffer.actuallyWrite("abc", 3, written));
    EXPECT_EQ(3U, written);
    EXPECT_EQ(std::vector<std::string>({"abc"}), sink.offers);
    EXPECT_EQ(0, buffer.actuallyWrite("", 0, written));
    EXPECT_EQ(0U, written);
    EXPECT_EQ(1U, sink.offers.size());
}

TEST_F(FileBufferTest, sinkThatTakesLessGetsTheWholeAgain) {
    Buffer buffer(&m_file, 10, nullptr);
    Sink sink({2, 0, 3, 0});
    buffer.m_out = &sink;
    unsigned int written = 12345;
    EXPECT_EQ(0, buffer.actuallyWrite("abcde", 5, written));
    EXPECT_EQ(5U, written);
    EXPECT_EQ(std::vector<std::string>({"abcde", "cde", "abcde", "de"}), sink.offers);
}

TEST_F(FileBufferTest, failedWriteTellsWhatWasTakenBefore) {
    Buffer buffer(&m_file, 10, nullptr);
    Sink sink({2, 0});
    buffer.m_out = &sink;
    unsigned int written = 12345;
    EXPECT_EQ(1, buffer.actuallyWrite("abcde", 5, written));
    EXPECT_EQ(2U, written);
    EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
}

TEST_F(FileBufferTest, flushGoesAllTheWay) {
    Buffer buffer(&m_file, 10, nullptr);
    Sink sink({});
    buffer.m_out = &sink;
    EXPECT_EQ(0, buffer.actuallyFlush());
    EXPECT_EQ(1, sink.flushes);
    sink.flush_fails = true;
    EXPECT_EQ(1, buffer.actuallyFlush());
}

// ---- life ----

TEST_F(FileBufferTest, isOpenAsLongAsTheFileIs) {
    Buffer buffer(&m_file, 10, nullptr);
    EXPECT_TRUE(buffer.isOpen());
    Sink sink({});
    buffer.m_out = &sink;
    EXPECT_TRUE(buffer.isOpen());
    sink.is_valid = false;
    EXPECT_FALSE(buffer.isOpen());
    sink.is_valid = true;
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(buffer.isOpen());
}

TEST_F(FileBufferTest, destructorNeitherClosesNorFlushesTheFile) {
    Sink sink({});
    {
        Buffer buffer(&m_file, 10, nullptr);
        buffer.m_out = &sink;
        EXPECT_EQ('0', buffer.sgetc());
    }
    EXPECT_TRUE(m_file.isValid());
    EXPECT_TRUE(isOpen(m_file.getDescriptor()));
    EXPECT_EQ(0, sink.flushes);
}

TEST_F(FileBufferTest, bufferThatIsMadeAgainReadsOn) {
    FileBuffer buffer(&m_file, 4, nullptr);
    EXPECT_EQ('0', buffer.sgetc());
    buffer.destroyBuffer();
    EXPECT_EQ(std::char_traits<char>::eof(), buffer.sgetc());
    EXPECT_FALSE(buffer.createBuffer());
    EXPECT_EQ('4', buffer.sgetc());
}

} // namespace
