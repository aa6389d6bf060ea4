#include "support/CleanEnd.h"
#include "support/NewFault.h"
#include "support/Testing.h"
#include "support/VtableSlot.h"

#include <tarncommon/filebuf_base.h>

#include <istream>

namespace {

namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::filebuf_base;
using std::ios_base;
using namespace support;

ios_base::openmode const BOTH = ios_base::in | ios_base::out;

using Log = std::vector<std::string>;

/// A file in memory with one position. It logs its calls, and can transfer less or fail.
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
    using filebuf_base::overflow;
    using filebuf_base::underflow;

    std::ptrdiff_t getUnread() const { return egptr() - gptr(); }
    std::ptrdiff_t getUnwritten() const { return pptr() - pbase(); }
    bool hasPutArea() const { return pbase() != nullptr || pptr() != nullptr || epptr() != nullptr; }
    bool hasEmptyGetArea() const { return eback() == m_buffer && gptr() == m_buffer && egptr() == m_buffer; }

    bool isOpen() override { return true; }

    std::string content;
    size_t position = 0;
    Log log;
    bool creation_failed = false;
    unsigned int most = 1U << 30; // The most bytes that one transfer moves.
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
        size_t const base = way == ios_base::beg ? 0 : way == ios_base::cur ? position : content.size();
        long long const target = static_cast<long long>(base) + offset;
        if (seek_fails || target < 0) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::UNSUPPORTED_VALUE, "seek");
            return 1;
        }
        position = static_cast<size_t>(target);
        result = std::streampos(target);
        return 0;
    }

    int actuallyFlush() override {
        log.push_back("flush");
        return flush_fails ? 1 : 0;
    }
};

// ---- the class ----

/// Gives access to protected operations.
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

TEST(FilebufBase, fieldsFollowThoseOfTheStandardBufferInTheirOrder) {
    class Fields : public filebuf_base {
    public:
        Fields() {
            std::ptrdiff_t places[6];
            void const* const fields[] = {&m_buffer,          &m_buffer_size, &m_open_mode,
                                          &m_external_buffer, &m_reading,     &m_writing};
            std::transform(std::begin(fields), std::end(fields), places, [this](void const* field) {
                return static_cast<char const*>(field) - reinterpret_cast<char const*>(this);
            });
            EXPECT_TRUE(std::is_sorted(std::begin(places), std::end(places)));
            EXPECT_EQ(static_cast<std::ptrdiff_t>(sizeof(std::streambuf)), places[0]);
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

/// Returns the state of the buffer and the content of the file.
std::string stateOf(MemoryBuffer const& buffer) {
    EXPECT_FALSE(buffer.m_reading && buffer.m_writing);
    std::string const state = buffer.m_reading ? "reading " + std::to_string(buffer.getUnread())
        : buffer.m_writing                     ? "writing " + std::to_string(buffer.getUnwritten())
        : buffer.hasPutArea()                  ? "idle with a put area"
        : !buffer.hasEmptyGetArea()            ? "idle with a get area"
                                               : "idle";
    return state + " " + buffer.content;
}

TEST(FilebufBase, createBufferProvidesEmptyAreas) {
    MemoryBuffer buffer(BOTH, 8);
    EXPECT_FALSE(buffer.creation_failed);
    EXPECT_NE(nullptr, buffer.m_buffer);
    EXPECT_EQ("idle ", stateOf(buffer));
    EXPECT_EQ((Log{}), buffer.log);
}

TEST(FilebufBase, memoryOfTheCallerIsUsedAndNotFreed) {
    char memory[] = "####";
    {
        NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
        MemoryBuffer buffer(BOTH, 3, "abcdef", memory);
        EXPECT_FALSE(buffer.creation_failed);
        EXPECT_EQ(memory, buffer.m_buffer);
        EXPECT_EQ('a', buffer.sbumpc());
        EXPECT_STREQ("abc#", memory);
        buffer.destroyBuffer();
        EXPECT_EQ(memory, buffer.m_buffer);
        EXPECT_STREQ("abc#", memory);
        EXPECT_FALSE(buffer.createBuffer());
        EXPECT_EQ('d', buffer.sbumpc());
    }
    EXPECT_STREQ("def#", memory);
}

TEST(FilebufBase, readsNothingWhileItHasCharacters) {
    MemoryBuffer buffer(BOTH, 4, "abcdef");
    EXPECT_EQ('a', buffer.underflow());
    EXPECT_EQ('a', buffer.underflow());
    EXPECT_EQ((Log{"read 4"}), buffer.log);
}

TEST(FilebufBase, overflowWithoutACharacterWritesNone) {
    MemoryBuffer buffer(BOTH, 4);
    EXPECT_NE(EOF, buffer.overflow(EOF));
    EXPECT_EQ(0, buffer.getUnwritten());
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
    in >> small >> large;
    EXPECT_EQ(10, small);
    EXPECT_EQ(8192, large);
    std::string line;
    for (char const* const expected : {"", "a line", "last"}) {
        EXPECT_TRUE(std::getline(in, line));
        EXPECT_EQ(expected, line);
    }
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(std::getline(in, line));
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

TEST_P(FilebufBaseSizes, tellgReturnsTheReadersPosition) {
    MemoryBuffer buffer(ios_base::in, GetParam(), "0123456789");
    std::istream in(&buffer);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(i, in.tellg());
        EXPECT_EQ('0' + i, in.get());
    }
    EXPECT_EQ(10, in.tellg());
}

INSTANTIATE_TEST_SUITE_P(All, FilebufBaseSizes, testing::Values(1U, 2U, 7U, 8192U));

TEST(FilebufBase, failedReadIsTheEndAndFailedWriteMakesAStreamBadAndTheReportsStay) {
    MemoryBuffer source(ios_base::in, 4, "abc");
    source.read_fails = true;
    std::istream in(&source);
    EXPECT_EQ(EOF, in.get());
    EXPECT_TRUE(in.eof());
    EXPECT_TRUE(chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}}));
    MemoryBuffer sink(ios_base::out, 4);
    std::ostream out(&sink);
    out << "abc";
    sink.write_fails = true;
    out.flush();
    EXPECT_TRUE(out.bad());
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

// ---- sequences of operations ----

/// Performs one operation. Returns its result. The operations are "get", "peek", "put" of each character
/// behind it, "sync", seeks "beg", "cur", "end" by the number behind them and "pos" to it, "create" and
/// "destroy" of the buffer, and the faults "fail" and "repair" of an operation, "most" and "result" of a
/// transfer.
std::string perform(MemoryBuffer& buffer, std::string const& operation) {
    std::string const name = operation.substr(0, operation.find(':'));
    std::string const argument = operation.substr(std::min(name.size() + 1, operation.size()));
    auto const textOf = [](int character) {
        return character == EOF ? std::string("EOF") : std::string(1, static_cast<char>(character));
    };
    if (name == "get" || name == "peek") {
        return textOf(name == "get" ? buffer.sbumpc() : buffer.sgetc());
    }
    if (name == "put") {
        std::string results;
        for (char const character : argument) {
            results += textOf(buffer.sputc(character));
        }
        return results;
    }
    if (name == "sync") {
        return std::to_string(buffer.pubsync());
    }
    if (name == "beg" || name == "cur" || name == "end") {
        auto const way = name == "beg" ? ios_base::beg : name == "cur" ? ios_base::cur : ios_base::end;
        return std::to_string(std::streamoff(buffer.pubseekoff(std::stoll(argument), way, ios_base::out)));
    }
    if (name == "pos") {
        return std::to_string(std::streamoff(buffer.pubseekpos(std::stoll(argument), ios_base::out)));
    }
    if (name == "create") {
        char const* const memory = buffer.m_buffer;
        EXPECT_FALSE(buffer.createBuffer());
        EXPECT_TRUE(buffer.hasEmptyGetArea());
        return buffer.m_buffer == memory ? "kept" : "new";
    }
    if (name == "destroy") {
        buffer.destroyBuffer();
        return buffer.m_buffer == nullptr ? "null" : "kept";
    }
    if (name == "most") {
        buffer.most = static_cast<unsigned int>(std::stoi(argument));
    } else if (name == "result") {
        buffer.read_result = std::stoi(argument);
    } else {
        std::map<std::string, bool*> const faults = {
            {"write", &buffer.write_fails},
            {"stalled", &buffer.write_stalls},
            {"seek", &buffer.seek_fails},
            {"flush", &buffer.flush_fails}};
        *faults.at(argument) = name == "fail";
    }
    return "";
}

/// Performs all operations. Returns their results, with the calls of the file before them and "!" behind them
/// if a report is pending, then the state of the buffer and the content of the file.
std::string performAll(MemoryBuffer& buffer, std::string const& operations) {
    std::istringstream words(operations);
    std::string seen;
    for (std::string operation; words >> operation;) {
        buffer.log.clear();
        std::string const result = perform(buffer, operation);
        for (std::string const& call : buffer.log) {
            seen += "[" + call + "]";
        }
        seen += result;
        if (std::ErrorStorage::isError(true)) {
            bool const is_seek =
                result == "-1" ? buffer.seek_fails : operation.find("put") == 0 && buffer.seek_fails;
            EXPECT_TRUE(
                is_seek ? chainIs({{CommonErrorId::UNSUPPORTED_VALUE}})
                        : chainIs({{CommonErrorId::OPEN_FILE_OPERATION_FAILED}}));
            seen += "!";
        }
        seen += result.empty() ? "" : " ";
    }
    return seen + stateOf(buffer);
}

struct Sequence : NamedRow {
    ios_base::openmode mode;
    unsigned int size;
    char const* content;
    char const* operations;
    char const* seen;
};

auto const IN = ios_base::in;
auto const OUT = ios_base::out;

Sequence const SEQUENCES[] = {
    {"bufferOfSizeZeroGetsOneByte", BOTH, 0, "ab", "get get", "[read 1]a [read 1]b reading 0 ab"},
    {"secondCreateBufferKeepsTheMemoryAndEmptiesTheAreas", BOTH, 4, "abcdefgh", "get create get",
     "[read 4]a kept [read 4]e reading 3 abcdefgh"},
    {"destroyedBufferIsUnusableUntilCreateBuffer", BOTH, 4, "abcdefgh",
     "get destroy peek put:x destroy create get",
     "[read 4]a null EOF EOF null new [read 4]e reading 3 abcdefgh"},
    {"destroyBufferDropsUnwrittenBytes", BOTH, 4, "", "put:x destroy create sync",
     "x null new [flush]0 idle "},
    {"underflowReadsTheWholeBufferAndSetsReading", IN, 4, "abcdef", "peek peek",
     "[read 4]a a reading 4 abcdef"},
    {"onlyTheCountOfAReadMatters", IN, 4, "abc", "get get get get", "[read 4]a b c [read 4]EOF idle abc"},
    {"onlyTheCountOfAReadMattersWithResult1", IN, 4, "abc", "result:1 get get get get",
     "[read 4]a b c [read 4]EOF idle abc"},
    {"onlyTheCountOfAReadMattersWithResultMinus1", IN, 4, "abc", "result:-1 get get get get",
     "[read 4]a b c [read 4]EOF idle abc"},
    {"inputRefusesToWrite", IN, 4, "abc", "put:x sync", "EOF 0 idle abc"},
    {"outputRefusesToRead", OUT, 4, "abc", "peek", "EOF idle abc"},
    {"overflowPassesAFullPutAreaOn", OUT, 3, "", "put:abc put:d", "abc [write abc]d writing 1 abc"},
    {"fullPutAreaIsNotPassedOnYet", OUT, 3, "", "put:abc", "abc writing 3 "},
    {"syncPassesThePutAreaOnAndFlushes", BOTH, 8, "", "put:abc sync sync",
     "abc [write abc][flush]0 [flush]0 writing 0 abc"},
    {"syncWhileReadingKeepsTheReadBytes", BOTH, 8, "abcdef", "get sync get",
     "[read 8]a [flush]0 b reading 4 abcdef"},
    {"shortWriteContinuesWithTheRest", OUT, 8, "", "most:2 put:abcde sync",
     "abcde [write abcde][write cde][write e][flush]0 writing 0 abcde"},
    {"failedWriteKeepsTheRest", OUT, 4, "",
     "put:abcd most:1 fail:write put:e sync sync repair:write put:e sync",
     "abcd [write abcd]EOF! [write bcd]-1! [write cd]-1! e [write de][write e][flush]0 writing 0 "
     "abcde"},
    {"writeThatTakesNothingFails", OUT, 4, "", "put:a fail:stalled sync", "a [write a]-1 writing 1 "},
    {"writeThatTookNothingCanBeRepeated", OUT, 4, "", "put:a fail:stalled sync repair:stalled sync",
     "a [write a]-1 [write a][flush]0 writing 0 a"},
    {"failedFlushFails", OUT, 4, "", "fail:flush put:a sync", "a [write a][flush]-1 writing 0 a"},
    {"readingReturnsTheEndIfWrittenBytesCannotBePassedOn", BOTH, 4, "0123",
     "put:a fail:stalled peek repair:stalled peek", "a [write a]EOF [write a][read 4]1 reading 3 a123"},
    {"writingFailsIfReadAheadCannotBeUndone", BOTH, 4, "0123", "get fail:seek put:a get get get put:a sync",
     "[read 4]0 [seek -3 cur]EOF! 1 2 3 a [write a][flush]0 writing 0 0123a"},
    {"seekFromTheCurrentPositionCountsUnreadBytes", BOTH, 4, "0123456789", "get cur:0 get cur:2 peek",
     "[read 4]0 [seek -3 cur]1 [read 4]1 [seek -1 cur]4 [read 4]4 reading 4 0123456789"},
    {"seekEmptiesTheGetArea", BOTH, 4, "0123456789", "get cur:0", "[read 4]0 [seek -3 cur]1 idle 0123456789"},
    {"seekFromTheEndsIgnoresUnreadBytes", BOTH, 4, "0123456789", "get beg:7 get end:-2 peek",
     "[read 4]0 [seek 7 beg]7 [read 4]7 [seek -2 end]8 [read 4]8 reading 2 0123456789"},
    {"seekToAPositionIgnoresUnreadBytes", BOTH, 4, "0123456789", "get cur:0 get get pos:1 get",
     "[read 4]0 [seek -3 cur]1 [read 4]1 2 [seek 1 beg]1 [read 4]1 reading 3 0123456789"},
    {"seekToAPositionEmptiesTheGetArea", BOTH, 4, "0123456789", "get pos:1",
     "[read 4]0 [seek 1 beg]1 idle 0123456789"},
    {"seekIgnoresTheMode", IN, 4, "0123456789", "beg:5 pos:3 peek",
     "[seek 5 beg]5 [seek 3 beg]3 [read 4]3 reading 4 0123456789"},
    {"seekDropsUnwrittenBytes", BOTH, 4, "0123456789", "put:a beg:5", "a [seek 5 beg]5 idle 0123456789"},
    {"seekToAPositionDropsUnwrittenBytes", BOTH, 4, "0123456789", "put:b pos:2",
     "b [seek 2 beg]2 idle 0123456789"},
    {"seekDropsUnwrittenBytesForGood", BOTH, 4, "0123456789", "put:a beg:5 sync put:b pos:2 peek",
     "a [seek 5 beg]5 [flush]0 b [seek 2 beg]2 [read 4]2 reading 4 0123456789"},
    {"failedSeekIsMinusOneAndChangesNothing", BOTH, 4, "0123456789", "get fail:seek cur:0 pos:5 get",
     "[read 4]0 [seek -3 cur]-1! [seek 5 beg]-1! 1 reading 2 0123456789"},
    {"offsetsHave64Bits", BOTH, 4, "0123456789", "get cur:4294967296 pos:4886718345",
     "[read 4]0 [seek 4294967293 cur]4294967297 [seek 4886718345 beg]4886718345 idle 0123456789"}};

VESK_TEST_TABLE(FilebufBaseSequences, haveTheirResults, testing::Test, SEQUENCES) {
    MemoryBuffer buffer(GetParam().mode, GetParam().size, GetParam().content);
    EXPECT_EQ(GetParam().seen, performAll(buffer, GetParam().operations)) << GetParam().operations;
}

} // namespace
