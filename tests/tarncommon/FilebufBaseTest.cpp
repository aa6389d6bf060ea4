#include "support/Chain.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/filebuf_base.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <istream>
#include <iterator>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::filebuf_base;
using std::ios_base;
using support::chainIs;
using support::getSlot;
using support::New;
using support::NewFault;

ios_base::openmode const BOTH = ios_base::in | ios_base::out;

using Log = std::vector<std::string>;

/// A file in memory with one position. It logs what it is asked, and can be told to do less or to fail.
class MemoryBuffer : public filebuf_base {
public:
    explicit MemoryBuffer(
        ios_base::openmode mode, unsigned int size, std::string text = {}, char* external = nullptr)
        : content(std::move(text)) {
        m_buffer = external;
        m_buffer_size = size;
        m_open_mode = mode;
        m_external_buffer = external != nullptr;
        creation_failed = createBuffer();
    }

    using filebuf_base::m_buffer;
    using filebuf_base::m_buffer_size;
    using filebuf_base::m_reading;
    using filebuf_base::m_writing;

    std::ptrdiff_t getUnread() const { return egptr() - gptr(); }
    std::ptrdiff_t getUnwritten() const { return pptr() - pbase(); }
    bool hasPutArea() const { return pbase() != nullptr || pptr() != nullptr || epptr() != nullptr; }
    bool hasEmptyGetArea() const { return eback() == m_buffer && gptr() == m_buffer && egptr() == m_buffer; }

    bool isOpen() override { return true; }

    std::string content;
    size_t position = 0;
    Log log;
    bool creation_failed = false;
    unsigned int most = 1U << 30; // Bytes that one transfer moves at most.
    int read_result = 0;
    bool read_fails = false;
    bool write_fails = false;
    bool write_stalls = false;
    bool seek_fails = false;
    bool flush_fails = false;

protected:
    int actuallyRead(char* buffer, unsigned int size, unsigned int& read) override {
        log.push_back("read " + std::to_string(size));
        if (read_fails) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "broken");
            return 1;
        }
        size_t const rest = content.size() - std::min(position, content.size());
        read = static_cast<unsigned int>(std::min<size_t>({size, rest, most}));
        if (read != 0) {
            memcpy(buffer, content.data() + position, read);
        }
        position += read;
        return read_result;
    }

    int actuallyWrite(char const* buffer, unsigned int size, unsigned int& written) override {
        log.push_back("write " + std::string(buffer, size));
        if (write_stalls) {
            return 0;
        }
        written = std::min(size, most);
        content.resize(std::max(content.size(), position + written), ' ');
        content.replace(position, written, buffer, written);
        position += written;
        if (write_fails) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "full");
        }
        return write_fails ? 1 : 0;
    }

    int actuallySeek(long long offset, ios_base::seekdir way, std::streampos& result) override {
        char const* const name = way == ios_base::beg ? "beg" : way == ios_base::cur ? "cur" : "end";
        log.push_back("seek " + std::to_string(offset) + " " + name);
        long long base = 0;
        if (way == ios_base::cur) {
            base = static_cast<long long>(position);
        } else if (way == ios_base::end) {
            base = static_cast<long long>(content.size());
        }
        if (seek_fails || base + offset < 0) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::UNSUPPORTED_VALUE, "seek");
            return 1;
        }
        position = static_cast<size_t>(base + offset);
        result = std::streampos(static_cast<std::streamoff>(position));
        return 0;
    }

    int actuallyFlush() override {
        log.push_back("flush");
        return flush_fails ? 1 : 0;
    }
};

// ---- the class ----

/// Gives access to the operations that are for deriving classes alone.
class Slots : public filebuf_base {
public:
    using filebuf_base::actuallyFlush;
    using filebuf_base::actuallyRead;
    using filebuf_base::actuallySeek;
    using filebuf_base::actuallyWrite;
    using filebuf_base::overflow;
    using filebuf_base::seekoff;
    using filebuf_base::seekpos;
    using filebuf_base::sync;
    using filebuf_base::underflow;
};

TEST(FilebufBase, operationsHaveTheirSlots) {
    EXPECT_EQ(4, getSlot(&Slots::seekoff));
    EXPECT_EQ(5, getSlot(&Slots::seekpos));
    EXPECT_EQ(6, getSlot(&Slots::sync));
    EXPECT_EQ(9, getSlot(&Slots::underflow));
    EXPECT_EQ(13, getSlot(&Slots::overflow));
    EXPECT_EQ(14, getSlot(&Slots::actuallyRead));
    EXPECT_EQ(15, getSlot(&Slots::actuallyWrite));
    EXPECT_EQ(16, getSlot(&Slots::actuallySeek));
    EXPECT_EQ(17, getSlot(&Slots::actuallyFlush));
    EXPECT_EQ(18, getSlot(&filebuf_base::isOpen));
}

TEST(FilebufBase, fieldsStandInTheirOrderBehindThoseOfTheStandardBuffer) {
    class Fields : public filebuf_base {
    public:
        Fields() {
            char const* const start = reinterpret_cast<char const*>(this);
            char const* const places[] = {reinterpret_cast<char const*>(&m_buffer),
                                          reinterpret_cast<char const*>(&m_buffer_size),
                                          reinterpret_cast<char const*>(&m_open_mode),
                                          reinterpret_cast<char const*>(&m_external_buffer),
                                          reinterpret_cast<char const*>(&m_reading),
                                          reinterpret_cast<char const*>(&m_writing)};
            EXPECT_TRUE(std::is_sorted(std::begin(places), std::end(places)));
            EXPECT_EQ(static_cast<std::ptrdiff_t>(sizeof(std::streambuf)), places[0] - start);
            EXPECT_EQ(4, places[2] - places[1]);
            EXPECT_EQ(4, places[3] - places[2]);
            EXPECT_EQ(1, places[5] - places[4]);
            EXPECT_EQ(nullptr, m_buffer);
            EXPECT_EQ(1U, m_buffer_size);
            EXPECT_FALSE(m_external_buffer || m_reading || m_writing);
        }
        bool isOpen() override { return false; }

    protected:
        int actuallyRead(char*, unsigned int, unsigned int&) override { return 1; }
        int actuallyWrite(char const*, unsigned int, unsigned int&) override { return 1; }
        int actuallySeek(long long, ios_base::seekdir, std::streampos&) override { return 1; }
        int actuallyFlush() override { return 1; }
    };
    Fields const fields;
    EXPECT_FALSE(std::is_copy_constructible_v<MemoryBuffer>);
    EXPECT_FALSE(std::is_copy_assignable_v<MemoryBuffer>);
}

// ---- the buffer ----

TEST(FilebufBase, createBufferProvidesEmptyAreas) {
    MemoryBuffer buffer(BOTH, 8);
    EXPECT_FALSE(buffer.creation_failed);
    EXPECT_NE(nullptr, buffer.m_buffer);
    EXPECT_TRUE(buffer.hasEmptyGetArea());
    EXPECT_FALSE(buffer.hasPutArea());
    EXPECT_FALSE(buffer.m_reading || buffer.m_writing);
    EXPECT_EQ((Log{}), buffer.log);
}

TEST(FilebufBase, bufferOfSizeZeroGetsOneByte) {
    MemoryBuffer buffer(BOTH, 0, "ab");
    EXPECT_EQ(1U, buffer.m_buffer_size);
    EXPECT_EQ('a', buffer.sbumpc());
    EXPECT_EQ('b', buffer.sbumpc());
    EXPECT_EQ((Log{"read 1", "read 1"}), buffer.log);
}

TEST(FilebufBase, createBufferOnceMoreKeepsTheMemoryAndEmptiesTheAreas) {
    MemoryBuffer buffer(BOTH, 4, "abcdefgh");
    EXPECT_EQ('a', buffer.sbumpc());
    char const* const memory = buffer.m_buffer;
    EXPECT_FALSE(buffer.createBuffer());
    EXPECT_EQ(memory, buffer.m_buffer);
    EXPECT_TRUE(buffer.hasEmptyGetArea());
    EXPECT_FALSE(buffer.m_reading);
    EXPECT_EQ('e', buffer.sbumpc());
}

TEST(FilebufBase, destroyedBufferGivesNothingAndCreateBufferMakesItUsableAgain) {
    MemoryBuffer buffer(BOTH, 4, "abcdefgh");
    EXPECT_EQ('a', buffer.sbumpc());
    buffer.destroyBuffer();
    EXPECT_EQ(nullptr, buffer.m_buffer);
    EXPECT_EQ(EOF, buffer.sgetc());
    EXPECT_EQ(EOF, buffer.sputc('x'));
    EXPECT_EQ((Log{"read 4"}), buffer.log);
    buffer.destroyBuffer();
    EXPECT_FALSE(buffer.createBuffer());
    EXPECT_EQ('e', buffer.sbumpc());
    EXPECT_EQ("abcdefgh", buffer.content);
}

TEST(FilebufBase, destroyBufferDropsWhatIsNotWritten) {
    MemoryBuffer buffer(BOTH, 4);
    EXPECT_EQ('x', buffer.sputc('x'));
    buffer.destroyBuffer();
    EXPECT_FALSE(buffer.hasPutArea());
    EXPECT_FALSE(buffer.m_writing);
    EXPECT_FALSE(buffer.createBuffer());
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ("", buffer.content);
}

TEST(FilebufBase, memoryOfTheCallerIsUsedAndLeftAlone) {
    char memory[4] = {'#', '#', '#', '#'};
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
        MemoryBuffer buffer(BOTH, 3, "abcdef", memory);
        EXPECT_FALSE(buffer.creation_failed);
        EXPECT_EQ(memory, buffer.m_buffer);
        EXPECT_EQ('a', buffer.sbumpc());
        EXPECT_EQ(0, memcmp(memory, "abc#", 4));
        buffer.destroyBuffer();
        EXPECT_EQ(memory, buffer.m_buffer);
        EXPECT_EQ(0, memcmp(memory, "abc#", 4));
        EXPECT_FALSE(buffer.createBuffer());
        EXPECT_EQ('d', buffer.sbumpc());
    }
    EXPECT_EQ(0, memcmp(memory, "def#", 4));
}

TEST(FilebufBase, withoutMemoryNothingCanBeReadOrWritten) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    MemoryBuffer buffer(BOTH, 4, "abc");
    EXPECT_TRUE(buffer.creation_failed);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY, "Out of memory"}}));
    EXPECT_EQ(EOF, buffer.sgetc());
    EXPECT_EQ(EOF, buffer.sputc('x'));
    EXPECT_EQ((Log{}), buffer.log);
}

// ---- reading ----

class FilebufBaseSizes : public testing::TestWithParam<unsigned int> {};

TEST_P(FilebufBaseSizes, streamReadsNumbersAndLines) {
    MemoryBuffer buffer(ios_base::in, GetParam(), "10 8192\na line\nlast");
    std::istream in(&buffer);
    int small = 0;
    int large = 0;
    std::string rest;
    std::string line;
    in >> small >> large;
    EXPECT_EQ(10, small);
    EXPECT_EQ(8192, large);
    EXPECT_TRUE(std::getline(in, rest) && rest.empty());
    EXPECT_TRUE(std::getline(in, line));
    EXPECT_EQ("a line", line);
    EXPECT_TRUE(std::getline(in, line));
    EXPECT_EQ("last", line);
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(std::getline(in, line));
    EXPECT_TRUE(chainIs({}));
}

TEST_P(FilebufBaseSizes, streamWritesWhatItReads) {
    std::string text;
    for (int i = 0; i < 500; ++i) {
        text += std::to_string(i * 7919) + ' ';
    }
    for (unsigned int const most : {1U, 3U, 1U << 30}) {
        MemoryBuffer source(ios_base::in, GetParam(), text);
        MemoryBuffer sink(ios_base::out, GetParam());
        source.most = most;
        sink.most = most;
        std::istream in(&source);
        std::ostream out(&sink);
        int value = 0;
        while (in >> value) {
            out << value << ' ';
        }
        out.flush();
        EXPECT_TRUE(out.good());
        EXPECT_EQ(text, sink.content);
        EXPECT_EQ("flush", sink.log.back());
    }
}

TEST_P(FilebufBaseSizes, bothDirectionsShareOnePosition) {
    MemoryBuffer buffer(BOTH, GetParam(), "0123456789");
    EXPECT_EQ('0', buffer.sbumpc());
    EXPECT_EQ('1', buffer.sbumpc());
    EXPECT_EQ('A', buffer.sputc('A'));
    EXPECT_EQ('B', buffer.sputc('B'));
    EXPECT_EQ('4', buffer.sbumpc());
    EXPECT_EQ("01AB456789", buffer.content);
    EXPECT_EQ('C', buffer.sputc('C'));
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ("01AB4C6789", buffer.content);
    EXPECT_EQ('6', buffer.sgetc());
}

TEST_P(FilebufBaseSizes, tellGivesTheReadersPosition) {
    MemoryBuffer buffer(ios_base::in, GetParam(), "0123456789");
    std::istream in(&buffer);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(i, in.tellg());
        EXPECT_EQ('0' + i, in.get());
    }
    EXPECT_EQ(10, in.tellg());
}

INSTANTIATE_TEST_SUITE_P(All, FilebufBaseSizes, testing::Values(1U, 2U, 7U, 8192U));

TEST(FilebufBase, underflowAsksForTheWholeBufferAndSetsReading) {
    MemoryBuffer buffer(ios_base::in, 4, "abcdef");
    EXPECT_EQ('a', buffer.sgetc());
    EXPECT_TRUE(buffer.m_reading);
    EXPECT_EQ(4, buffer.getUnread());
    EXPECT_EQ('a', buffer.sgetc());
    EXPECT_EQ((Log{"read 4"}), buffer.log);
}

TEST(FilebufBase, onlyTheCountTellsWhatWasRead) {
    for (int const result : {0, 1, -1}) {
        MemoryBuffer buffer(ios_base::in, 4, "abc");
        buffer.read_result = result;
        EXPECT_EQ('a', buffer.sbumpc());
        EXPECT_EQ('b', buffer.sbumpc());
        EXPECT_EQ('c', buffer.sbumpc());
        EXPECT_EQ(EOF, buffer.sbumpc());
        EXPECT_FALSE(buffer.m_reading);
    }
}

TEST(FilebufBase, failedReadIsTheEndAndItsReportStays) {
    MemoryBuffer buffer(ios_base::in, 4, "abc");
    buffer.read_fails = true;
    std::istream in(&buffer);
    EXPECT_EQ(EOF, in.get());
    EXPECT_TRUE(in.eof());
    EXPECT_TRUE(chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}}));
}

TEST(FilebufBase, byteWithTheTopBitIsNotTheEnd) {
    MemoryBuffer buffer(ios_base::in, 1, "\xFF");
    EXPECT_EQ(0xFF, buffer.sbumpc());
    EXPECT_EQ(EOF, buffer.sbumpc());
    MemoryBuffer sink(ios_base::out, 1);
    EXPECT_EQ(0xFF, sink.sputc('\xFF'));
    EXPECT_EQ(0, sink.pubsync());
    EXPECT_EQ("\xFF", sink.content);
}

TEST(FilebufBase, directionThatIsNotOpenDoesNothing) {
    MemoryBuffer source(ios_base::in, 4, "abc");
    EXPECT_EQ(EOF, source.sputc('x'));
    EXPECT_EQ(0, source.pubsync());
    EXPECT_EQ((Log{}), source.log);
    MemoryBuffer sink(ios_base::out, 4, "abc");
    EXPECT_EQ(EOF, sink.sgetc());
    EXPECT_EQ((Log{}), sink.log);
}

// ---- writing ----

TEST(FilebufBase, overflowPassesAFullPutAreaOn) {
    MemoryBuffer buffer(ios_base::out, 3);
    for (char const c : {'a', 'b', 'c'}) {
        EXPECT_EQ(c, buffer.sputc(c));
    }
    EXPECT_TRUE(buffer.m_writing);
    EXPECT_EQ((Log{}), buffer.log);
    EXPECT_EQ('d', buffer.sputc('d'));
    EXPECT_EQ((Log{"write abc"}), buffer.log);
    EXPECT_EQ(1, buffer.getUnwritten());
}

TEST(FilebufBase, syncPassesThePutAreaOnAndFlushes) {
    MemoryBuffer buffer(BOTH, 8);
    EXPECT_EQ(3, buffer.sputn("abc", 3));
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ((Log{"write abc", "flush"}), buffer.log);
    EXPECT_EQ(0, buffer.getUnwritten());
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ((Log{"write abc", "flush", "flush"}), buffer.log);
}

TEST(FilebufBase, syncWhileReadingKeepsWhatWasRead) {
    MemoryBuffer buffer(BOTH, 8, "abcdef");
    EXPECT_EQ('a', buffer.sbumpc());
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ(5, buffer.getUnread());
    EXPECT_EQ('b', buffer.sbumpc());
    EXPECT_EQ((Log{"read 8", "flush"}), buffer.log);
}

TEST(FilebufBase, shortWriteGoesOnWithTheRest) {
    MemoryBuffer buffer(ios_base::out, 8);
    buffer.most = 2;
    EXPECT_EQ(5, buffer.sputn("abcde", 5));
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ((Log{"write abcde", "write cde", "write e", "flush"}), buffer.log);
    EXPECT_EQ("abcde", buffer.content);
}

TEST(FilebufBase, failedWriteKeepsWhatWasNotTaken) {
    MemoryBuffer buffer(ios_base::out, 4);
    std::ostream out(&buffer);
    EXPECT_EQ(4, buffer.sputn("abcd", 4));
    buffer.most = 1;
    buffer.write_fails = true;
    EXPECT_EQ(EOF, buffer.sputc('e'));
    EXPECT_EQ(3, buffer.getUnwritten());
    EXPECT_TRUE(chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}}));
    EXPECT_EQ(-1, buffer.pubsync());
    EXPECT_TRUE(chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}}));
    EXPECT_EQ((Log{"write abcd", "write bcd"}), buffer.log) << "nothing is flushed";
    out.flush();
    EXPECT_TRUE(out.bad());
    EXPECT_TRUE(chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}}));
    buffer.write_fails = false;
    EXPECT_EQ('e', buffer.sputc('e'));
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ("abcde", buffer.content);
}

TEST(FilebufBase, writeThatTakesNothingIsAFailure) {
    MemoryBuffer buffer(ios_base::out, 4);
    EXPECT_EQ('a', buffer.sputc('a'));
    buffer.write_stalls = true;
    EXPECT_EQ(-1, buffer.pubsync());
    EXPECT_EQ(1, buffer.getUnwritten());
    buffer.write_stalls = false;
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ("a", buffer.content);
}

TEST(FilebufBase, failedFlushIsAFailure) {
    MemoryBuffer buffer(ios_base::out, 4);
    buffer.flush_fails = true;
    EXPECT_EQ('a', buffer.sputc('a'));
    EXPECT_EQ(-1, buffer.pubsync());
    EXPECT_EQ("a", buffer.content);
    EXPECT_EQ(0, buffer.getUnwritten());
}

TEST(FilebufBase, readingIsTheEndIfWhatIsWrittenCannotBePassedOn) {
    MemoryBuffer buffer(BOTH, 4, "0123");
    EXPECT_EQ('a', buffer.sputc('a'));
    buffer.write_stalls = true;
    EXPECT_EQ(EOF, buffer.sgetc());
    EXPECT_EQ(1, buffer.getUnwritten());
    buffer.write_stalls = false;
    EXPECT_EQ('1', buffer.sgetc());
    EXPECT_EQ("a123", buffer.content);
}

TEST(FilebufBase, writingFailsIfWhatIsReadAheadCannotBeGivenBack) {
    MemoryBuffer buffer(BOTH, 4, "0123");
    EXPECT_EQ('0', buffer.sbumpc());
    buffer.seek_fails = true;
    EXPECT_EQ(EOF, buffer.sputc('a'));
    EXPECT_TRUE(chainIs({{CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ('1', buffer.sbumpc());
    EXPECT_EQ('2', buffer.sbumpc());
    EXPECT_EQ('3', buffer.sbumpc());
    EXPECT_EQ('a', buffer.sputc('a')) << "with nothing unread there is nothing to give back";
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ("0123a", buffer.content);
}

// ---- seeking ----

TEST(FilebufBase, seekFromTheCurrentPositionCountsWhatIsUnread) {
    MemoryBuffer buffer(BOTH, 4, "0123456789");
    EXPECT_EQ('0', buffer.sbumpc());
    EXPECT_EQ(1, buffer.pubseekoff(0, ios_base::cur));
    EXPECT_EQ((Log{"read 4", "seek -3 cur"}), buffer.log);
    EXPECT_TRUE(buffer.hasEmptyGetArea());
    EXPECT_FALSE(buffer.m_reading);
    EXPECT_EQ('1', buffer.sbumpc());
    EXPECT_EQ(4, buffer.pubseekoff(2, ios_base::cur));
    EXPECT_EQ('4', buffer.sgetc());
}

TEST(FilebufBase, seekFromTheEndsDoesNotCountWhatIsUnread) {
    MemoryBuffer buffer(BOTH, 4, "0123456789");
    EXPECT_EQ('0', buffer.sbumpc());
    EXPECT_EQ(7, buffer.pubseekoff(7, ios_base::beg));
    EXPECT_EQ('7', buffer.sbumpc());
    EXPECT_EQ(8, buffer.pubseekoff(-2, ios_base::end));
    EXPECT_EQ('8', buffer.sgetc());
    EXPECT_EQ((Log{"read 4", "seek 7 beg", "read 4", "seek -2 end", "read 4"}), buffer.log);
}

TEST(FilebufBase, seekToAToldPosition) {
    MemoryBuffer buffer(BOTH, 4, "0123456789");
    EXPECT_EQ('0', buffer.sbumpc());
    std::streampos const told = buffer.pubseekoff(0, ios_base::cur);
    EXPECT_EQ('1', buffer.sbumpc());
    EXPECT_EQ('2', buffer.sbumpc());
    EXPECT_EQ(told, buffer.pubseekpos(told));
    EXPECT_EQ("seek 1 beg", buffer.log.back()) << "without a look at what is unread";
    EXPECT_TRUE(buffer.hasEmptyGetArea());
    EXPECT_FALSE(buffer.m_reading);
    EXPECT_EQ('1', buffer.sbumpc());
}

TEST(FilebufBase, seekIgnoresTheMode) {
    MemoryBuffer buffer(ios_base::in, 4, "0123456789");
    EXPECT_EQ(5, buffer.pubseekoff(5, ios_base::beg, ios_base::out));
    EXPECT_EQ(3, buffer.pubseekpos(3, ios_base::out));
    EXPECT_EQ('3', buffer.sgetc());
}

TEST(FilebufBase, seekDropsWhatIsNotWritten) {
    MemoryBuffer buffer(BOTH, 4, "0123456789");
    EXPECT_EQ('a', buffer.sputc('a'));
    EXPECT_EQ(5, buffer.pubseekoff(5, ios_base::beg));
    EXPECT_FALSE(buffer.hasPutArea());
    EXPECT_FALSE(buffer.m_writing);
    EXPECT_EQ(0, buffer.pubsync());
    EXPECT_EQ("0123456789", buffer.content);
    EXPECT_EQ('b', buffer.sputc('b'));
    EXPECT_EQ(2, buffer.pubseekpos(2));
    EXPECT_FALSE(buffer.hasPutArea());
    EXPECT_EQ('2', buffer.sgetc());
    EXPECT_EQ("0123456789", buffer.content);
}

TEST(FilebufBase, failedSeekIsMinusOneAndChangesNothing) {
    MemoryBuffer buffer(BOTH, 4, "0123456789");
    EXPECT_EQ('0', buffer.sbumpc());
    buffer.seek_fails = true;
    EXPECT_EQ(-1, buffer.pubseekoff(0, ios_base::cur));
    EXPECT_TRUE(chainIs({{CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_EQ(-1, buffer.pubseekpos(5));
    EXPECT_TRUE(chainIs({{CommonErrorId::UNSUPPORTED_VALUE}}));
    EXPECT_TRUE(buffer.m_reading);
    EXPECT_EQ(3, buffer.getUnread());
    EXPECT_EQ('1', buffer.sbumpc());
}

TEST(FilebufBase, offsetsHave64Bits) {
    MemoryBuffer buffer(BOTH, 4, "0123456789");
    EXPECT_EQ('0', buffer.sbumpc());
    buffer.pubseekoff(0x100000000LL, ios_base::cur);
    EXPECT_EQ("seek 4294967293 cur", buffer.log.back());
    buffer.pubseekpos(std::streampos(0x123456789LL));
    EXPECT_EQ("seek 4886718345 beg", buffer.log.back());
}

} // namespace
