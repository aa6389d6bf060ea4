#include "FileTests.h"
#include "support/NewFault.h"

#include <vesk/FileBuffer.h>
#include <vesk/FmtFileWrapper.h>

#include <cwchar>
#include <istream>

namespace {

using namespace support;
using vesk::FileBuffer;
using vesk::StreamBinFileR;

static_assert(std::is_base_of_v<std::filebuf_base, FileBuffer>);

constexpr int END = std::char_traits<char>::eof();

/// Makes protected members visible.
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

/// A sink that accepts as much as requested, and records what it is offered.
class Sink : public IBinOutputStream {
public:
    Sink() : IBinOutputStream(false, 0) {}

    bool isValid() const override { return is_valid; }

    std::vector<unsigned int> counts; ///< How much each write accepts. Further writes fail.
    std::vector<std::string> offers;
    int flushes = 0;
    bool is_valid = true;
    bool flush_fails = false;

protected:
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        size_t const turn = offers.size();
        offers.emplace_back(static_cast<char const*>(buffer), size);
        if (turn >= counts.size()) {
            std::ErrorOutput("test", __LINE__, true)(StreamErrorId::TRANSFER_FAILED);
            return true;
        }
        written = counts[turn];
        return false;
    }
    bool performFlush() override {
        ++flushes;
        return flush_fails;
    }
};

class FileBufferTest : public FileTest {
protected:
    FileBufferTest() { EXPECT_FALSE(m_file.open(m_path, m_file.READ)); }

    /// Connects the buffer to the sink.
    void connect(std::vector<unsigned int> counts = {}) {
        m_sink.counts = std::move(counts);
        m_buffer.m_out = &m_sink;
    }

    StreamBinFileR m_file;
    Sink m_sink;
    Buffer m_buffer{&m_file, 10, nullptr};
    std::istream m_stream{&m_buffer};
    unsigned int m_count = 12345; ///< For reads and writes.
};

TEST_F(FileBufferTest, standardStreamReadsTheFile) {
    EXPECT_FALSE(m_file.open(m_folder.makeFile("text", "12 word 3.5\n-7"), m_file.READ));
    FileBuffer buffer(&m_file, 4096, nullptr);
    std::istream stream(&buffer);
    unsigned int number = 0;
    std::string word;
    double fraction = 0;
    int negative = 0;
    EXPECT_TRUE(stream >> number >> word >> fraction >> negative);
    EXPECT_EQ(12U, number);
    EXPECT_EQ("word", word);
    EXPECT_EQ(3.5, fraction);
    EXPECT_EQ(-7, negative);
    EXPECT_TRUE(stream.eof());
}

TEST_F(FileBufferTest, readsAsMuchAsTheBufferHoldsWhichIsAtLeastOneByte) {
    struct Row {
        unsigned int size;
        unsigned int buffer_size;
        int reads;
    };
    for (auto const& [size, buffer_size, reads] : {Row{7, 7, 4}, Row{0, 1, 17}}) {
        EXPECT_FALSE(m_file.open(m_path, m_file.READ));
        Buffer buffer(&m_file, size, nullptr);
        EXPECT_EQ(buffer_size, buffer.m_buffer_size);
        EXPECT_EQ(8, static_cast<int>(buffer.m_open_mode));
        EXPECT_EQ(std::ios_base::in, buffer.m_open_mode);
        std::istream stream(&buffer);
        Calls const calls(inject_read, reads);
        std::string line;
        std::getline(stream, line);
        EXPECT_EQ("0123456789abcdef", line);
    }
}

TEST_F(FileBufferTest, memoryIsThatOfTheCallerOrNothingIsReadWithoutIt) {
    char memory[8] = {};
    {
        FileBuffer buffer(&m_file, 4, memory);
        EXPECT_EQ('0', buffer.sgetc());
        EXPECT_STREQ("0123", memory);
    }
    EXPECT_STREQ("0123", memory);
    NewFault const fault(New::NOTHROW_ARRAY);
    FileBuffer buffer(&m_file, 16, nullptr);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY}}));
    EXPECT_EQ(END, buffer.sgetc());
}

constexpr char const* BROKEN_CONTRACT =
    "ASSERT framework/src/vesk/posix/FileBuffer FileBuffer: in && ! in->isInputBuffered()";

TEST_F(FileBufferTest, missingSourceOrOneWithItsOwnBufferIsABrokenContract) {
    StreamBinFileR buffered(16);
    EventRecorder const events;
    FileBuffer const accepted(&m_file, 16, nullptr);
    EXPECT_EQ("", events.getText());
    FileBuffer const refused(&buffered, 16, nullptr);
    EXPECT_EQ(BROKEN_CONTRACT, events.getText());
    Buffer buffer(nullptr, 16, nullptr);
    EXPECT_EQ(BROKEN_CONTRACT + ("\n" + std::string(BROKEN_CONTRACT)), events.getText());
    EXPECT_TRUE(buffer.isOpen()) << "there is no file that could be closed";
    EXPECT_EQ(END, buffer.sgetc());
    EXPECT_EQ(std::streampos(-1), buffer.pubseekoff(0, std::ios_base::beg));
    std::streampos position;
    EXPECT_EQ(1, buffer.actuallySeek(0, std::ios_base::beg, position));
    char c = 0;
    EXPECT_EQ(1, buffer.actuallyRead(&c, 1, m_count));
    EXPECT_EQ(0U, m_count);
}

TEST_F(FileBufferTest, endOfTheFileSetsOnlyTheStateOfTheStreamAndOtherFailuresStayPending) {
    char block[100];
    m_stream.read(block, sizeof block);
    EXPECT_EQ(16, m_stream.gcount());
    EXPECT_TRUE(m_stream.eof());
    EXPECT_FALSE(m_stream.bad());
    EXPECT_TRUE(chainIs({}));
    m_stream.clear();
    EXPECT_FALSE(m_file.open(m_folder.getPath(), m_file.READ));
    EXPECT_EQ(END, m_stream.get());
    EXPECT_TRUE(m_stream.eof());
    EXPECT_TRUE(hasFailed(m_file, SysErrorId::INVALID_PATH, EISDIR, StreamErrorId::TRANSFER_FAILED));
}

TEST_F(FileBufferTest, resultOfAReadIsAlwaysTheSame) {
    char block[100];
    EXPECT_EQ(1, m_buffer.actuallyRead(block, sizeof block, m_count));
    EXPECT_EQ(16U, m_count);
    EXPECT_EQ(1, m_buffer.actuallyRead(block, sizeof block, m_count));
    EXPECT_EQ(0U, m_count);
    EXPECT_TRUE(chainIs({})) << "at the end";
    Fault const fault(inject_read, EIO);
    EXPECT_EQ(1, m_buffer.actuallyRead(block, sizeof block, m_count));
    EXPECT_EQ(0U, m_count);
    EXPECT_TRUE(hasFailed(m_file, SysErrorId::INPUT_OUTPUT, EIO, StreamErrorId::TRANSFER_FAILED));
}

TEST_F(FileBufferTest, seeksFromThePositionOfTheReaderTheBeginningAndTheEnd) {
    char block[3];
    m_stream.read(block, sizeof block);
    EXPECT_EQ(std::streampos(3), m_stream.tellg());
    EXPECT_EQ(-7, s_file_calls.seek_offset);
    EXPECT_EQ('3', m_stream.get());
    EXPECT_EQ(std::streampos(6), m_buffer.pubseekoff(2, std::ios_base::cur));
    EXPECT_EQ('6', m_stream.get());
    m_stream.seekg(12, std::ios_base::beg);
    EXPECT_EQ('c', m_stream.get());
    m_stream.seekg(-2, std::ios_base::end);
    EXPECT_EQ('e', m_stream.get());
    std::streampos const position = m_buffer.pubseekpos(5);
    EXPECT_EQ(std::streampos(5), position);
    EXPECT_EQ('5', m_stream.get());
    mbstate_t const zeros{};
    mbstate_t const state = position.state();
    EXPECT_EQ(0, memcmp(&zeros, &state, sizeof zeros));
}

TEST_F(FileBufferTest, seekOnAPipeFailsAndLeavesTheBuffer) {
    Pipe pipe;
    ASSERT_EQ(3, write(pipe.getWriteEnd(), "abc", 3));
    EXPECT_FALSE(m_file.open(pipe));
    EXPECT_EQ('a', m_buffer.sbumpc());
    EXPECT_EQ(std::streampos(-1), m_buffer.pubseekoff(0, std::ios_base::cur));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ESPIPE));
    EXPECT_EQ(std::streampos(-1), m_buffer.pubseekpos(0));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, ESPIPE));
    EXPECT_EQ('b', m_buffer.sbumpc());
    EXPECT_EQ('c', m_buffer.sbumpc());
}

TEST_F(FileBufferTest, offsetThatDoesNotFitFailsAndLeavesTheBuffer) {
    EXPECT_EQ('0', m_buffer.sbumpc());
    constexpr long long MOST = INT32_MAX;
    constexpr long long LEAST = INT32_MIN;
    Fault const seeks(inject_lseek, 0);
    for (long long const offset :
         {MOST + 1, LEAST - 1, (1LL << 32) + 3, 0xFFFFFFFFLL, LLONG_MAX, LLONG_MIN}) {
        for (auto const way : {std::ios_base::beg, std::ios_base::cur, std::ios_base::end}) {
            std::streampos position(77);
            EXPECT_NE(0, m_buffer.actuallySeek(offset, way, position)) << offset;
            EXPECT_EQ(EOVERFLOW, errno);
            EXPECT_TRUE(hasFailed(m_file, SysErrorId::SPOILED_INTEGRITY, EOVERFLOW));
            EXPECT_EQ(std::streampos(77), position);
        }
    }
    EXPECT_EQ(std::streampos(-1), m_buffer.pubseekpos((1LL << 32) + 3));
    EXPECT_TRUE(causeIs(SysErrorId::SPOILED_INTEGRITY, EOVERFLOW));
    EXPECT_EQ(0, seeks.getCalls());
    EXPECT_EQ('1', m_buffer.sbumpc());
    std::streampos position;
    EXPECT_EQ(0, m_buffer.actuallySeek(MOST, std::ios_base::beg, position));
    EXPECT_EQ(std::streampos(MOST), position);
    EXPECT_FALSE(m_file.hadError());
    EXPECT_NE(0, m_buffer.actuallySeek(LEAST, std::ios_base::end, position));
    EXPECT_TRUE(causeIs(SysErrorId::INVALID_PARAMETER, EINVAL)) << "before the begin";
    EXPECT_FALSE(m_file.close());
    EXPECT_NE(0, m_buffer.actuallySeek(1LL << 32, std::ios_base::beg, position));
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}}));
}

TEST_F(FileBufferTest, unknownDirectionEndsTheProcessOrCountsFromTheEnd) {
    auto const way = static_cast<std::ios_base::seekdir>(7);
    std::streampos position;
    EXPECT_TRUE(abortsWith("invalid way specified", [&] { m_buffer.actuallySeek(0, way, position); }));
    EventRecorder const events;
    EXPECT_EQ(0, m_buffer.actuallySeek(-1, way, position));
    EXPECT_EQ(std::streampos(15), position) << "if it goes on, from the end";
    EXPECT_EQ(
        "ABORT framework/src/vesk/posix/FileBuffer actuallySeek: invalid way specified", events.getText());
}

TEST_F(FileBufferTest, withoutASinkNothingIsWrittenOrFlushed) {
    EXPECT_EQ(1, m_buffer.actuallyWrite("abc", 3, m_count));
    EXPECT_EQ(0U, m_count);
    EXPECT_EQ(1, m_buffer.actuallyFlush());
    EXPECT_EQ(END, m_buffer.sputc('x'));
}

TEST_F(FileBufferTest, sinkThatAcceptsLessIsOfferedTheWholeBlockAgain) {
    connect({2, 0, 3, 0, 3, 2, 0});
    EXPECT_EQ(0, m_buffer.actuallyWrite("abcde", 5, m_count));
    EXPECT_EQ(5U, m_count);
    EXPECT_EQ(0, m_buffer.actuallyWrite("ABC", 3, m_count));
    EXPECT_EQ(3U, m_count);
    EXPECT_EQ(0, m_buffer.actuallyWrite("", 0, m_count));
    EXPECT_EQ(0U, m_count);
    EXPECT_EQ(1, m_buffer.actuallyWrite("vwxyz", 5, m_count));
    EXPECT_EQ(2U, m_count) << "what was accepted before the failure";
    EXPECT_TRUE(chainIs({{StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_EQ(
        (std::vector<std::string>{"abcde", "cde", "abcde", "de", "ABC", "vwxyz", "xyz", "vwxyz"}),
        m_sink.offers);
}

TEST_F(FileBufferTest, flushReachesTheSink) {
    connect();
    EXPECT_EQ(0, m_buffer.actuallyFlush());
    EXPECT_EQ(1, m_sink.flushes);
    m_sink.flush_fails = true;
    EXPECT_EQ(1, m_buffer.actuallyFlush());
}

TEST_F(FileBufferTest, isOpenAsLongAsTheFileAndTheSinkAre) {
    EXPECT_TRUE(m_buffer.isOpen());
    connect();
    EXPECT_TRUE(m_buffer.isOpen());
    m_sink.is_valid = false;
    EXPECT_FALSE(m_buffer.isOpen());
    m_sink.is_valid = true;
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_buffer.isOpen());
}

TEST_F(FileBufferTest, destructorNeitherClosesNorFlushesTheFile) {
    {
        Buffer buffer(&m_file, 10, nullptr);
        buffer.m_out = &m_sink;
        EXPECT_EQ('0', buffer.sgetc());
    }
    EXPECT_TRUE(m_file.isValid());
    EXPECT_TRUE(isOpen(m_file.getDescriptor()));
    EXPECT_EQ(0, m_sink.flushes);
}

TEST_F(FileBufferTest, recreatedBufferContinuesReading) {
    FileBuffer buffer(&m_file, 4, nullptr);
    EXPECT_EQ('0', buffer.sgetc());
    buffer.destroyBuffer();
    EXPECT_EQ(END, buffer.sgetc());
    EXPECT_FALSE(buffer.createBuffer());
    EXPECT_EQ('4', buffer.sgetc());
}

using TextFile = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

static_assert(std::is_base_of_v<std::istream, TextFile> && std::has_virtual_destructor_v<TextFile>);
static_assert(!std::is_copy_constructible_v<TextFile>);

class FmtFileWrapperTest : public FileTest {
protected:
    FmtFileWrapperTest() : FileTest("8192 words\n-3\n") {}

    TextFile m_file{m_path.c_str(), BinFileBase::READ};
    unsigned int m_number = 12345;
    std::string m_word;
};

TEST_F(FmtFileWrapperTest, readsNumbersAndWords) {
    EXPECT_TRUE(m_file.isValid());
    EXPECT_TRUE(m_file.good());
    int negative = 0;
    EXPECT_TRUE(m_file >> m_number >> m_word >> negative);
    EXPECT_EQ(8192U, m_number);
    EXPECT_EQ("words", m_word);
    EXPECT_EQ(-3, negative);
    EXPECT_FALSE(m_file >> m_word);
    EXPECT_TRUE(m_file.eof());
    EXPECT_FALSE(m_file.bad());
    EXPECT_TRUE(chainIs({}));
    EXPECT_FALSE(m_file.close());
    TextFile system_file("/proc/sys/fs/file-max", BinFileBase::READ);
    unsigned long long value = 0;
    EXPECT_TRUE(system_file >> value);
    EXPECT_NE(0U, value);
}

TEST_F(FmtFileWrapperTest, hasOneBufferOf8192Bytes) {
    m_folder.makeFile("file", std::string(20000, 'x'));
    Fault const reads(inject_read, 0);
    EXPECT_EQ('x', m_file.get());
    EXPECT_EQ(8191, m_file.rdbuf()->in_avail());
    EXPECT_EQ(1, reads.getCalls());
    EXPECT_TRUE(m_file >> m_word);
    EXPECT_EQ(19999U, m_word.size());
    EXPECT_EQ(4, reads.getCalls());
}

TEST_F(FmtFileWrapperTest, seeksInTheFile) {
    m_file.seekg(5);
    EXPECT_EQ('w', m_file.get());
    EXPECT_EQ(std::streampos(6), m_file.tellg());
}

TEST_F(FmtFileWrapperTest, missingPathOrFileMakesTheStreamBad) {
    TextFile const none(nullptr, BinFileBase::READ);
    EXPECT_FALSE(none.isValid());
    EXPECT_TRUE(none.bad());
    EXPECT_TRUE(chainIs({}));
    TextFile file(m_missing.c_str(), BinFileBase::READ);
    EXPECT_FALSE(file.isValid());
    EXPECT_TRUE(file.bad());
    EXPECT_TRUE(isMissing(m_missing));
    EXPECT_FALSE(file >> m_number);
}

TEST_F(FmtFileWrapperTest, flagsAndAccessReachTheFile) {
    ScopedUmask const mask(0);
    TextFile const file(m_missing.c_str(), BinFileBase::READ | BinFileBase::CREATE, FileAccess(0440));
    EXPECT_TRUE(file.isValid());
    struct stat data {};
    ASSERT_EQ(0, stat(m_missing.c_str(), &data));
    EXPECT_EQ(0440U, data.st_mode & 07777U);
}

TEST_F(FmtFileWrapperTest, closedObjectHasAGoodStreamAndNothingToRead) {
    EXPECT_TRUE(m_file >> m_number);
    EXPECT_FALSE(m_file >> m_number) << "the state before does not matter";
    EXPECT_FALSE(m_file.close());
    EXPECT_FALSE(m_file.isValid());
    EXPECT_TRUE(m_file.good());
    EXPECT_EQ(END, m_file.get());
    EXPECT_TRUE(chainIs({{CommonErrorId::CONTRACT_BROKEN}, {StreamErrorId::UNUSABLE}}));
    EXPECT_FALSE(m_file.close());
}

TEST_F(FmtFileWrapperTest, failedCloseIsReported) {
    Fault const fault(inject_close, EIO);
    EXPECT_TRUE(m_file.close());
    EXPECT_EQ(1, fault.getCalls());
    EXPECT_TRUE(causeIs(SysErrorId::INPUT_OUTPUT, EIO));
    EXPECT_TRUE(m_file.good());
    EXPECT_FALSE(m_file.close()) << "it can be tried again";
}

TEST_F(FmtFileWrapperTest, destructorClosesTheFileAndWarnsAboutAFailure) {
    EventRecorder const events;
    auto const destroy = [this](int error, int calls) {
        std::istream* const file = new TextFile(m_path.c_str(), BinFileBase::READ);
        Calls const closes(inject_close, calls, error);
        delete file;
    };
    destroy(0, 1);
    EXPECT_EQ("", events.getText());
    destroy(EIO, 2); // The file itself tries it once more.
    EXPECT_EQ(
        "WARNING framework/include/vesk/FmtFileWrapper ~FmtFileWrapper: Error closing underlying file",
        events.getText());
}

} // namespace
