#include "support/AllocationCounter.h"
#include "support/CleanEnd.h"
#include "support/NewFault.h"
#include "support/Testing.h"
#include "support/VtableSlot.h"

#include <tarncommon/stream/IBinInOutStream.h>

#include <deque>
#include <random>

namespace {

namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::ErrorStorage;
using std::IBinInOutStream;
using std::IBinInputStream;
using std::IBinOutputStream;
using std::IBinStreamBase;
using namespace support;

// ---- streams with a script ----

constexpr int SUCCESS = -1;

/// Returns the pending reports, the head first, in the words of the transcripts: "{end<cause}". Acknowledges
/// them.
std::string takeReports() {
    std::pair<std::string, char const*> const words[] = {
        {rowText(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "cause"), "cause"},
        {rowText(CommonErrorId::UNSUPPORTED_VALUE, "cannot seek"), "no seek"},
        {"Out of memory", "no memory"},
        {"Stream cannot be used", "unusable"},
        {"Stream transfer failed", "failure"},
        {"End of stream", "end"},
        {"Operation is not supported by the stream", "unsupported"},
        {"Unclassified stream failure", "unclassified"}};
    std::string text;
    if (ErrorStorage::isError(true)) {
        for (auto const* report = ErrorStorage::get(); report != nullptr; report = report->next) {
            auto const* const word = std::find_if(std::begin(words), std::end(words), [&](auto const& row) {
                return row.first == report->getText();
            });
            text += text.empty() ? " {" : "<";
            text += word == std::end(words) ? report->getText() : word->second;
        }
        text += "}";
    }
    ErrorStorage::ack();
    return text;
}

/// What the transfers and the hook of a stream do. Each word of the script is one transfer: the bytes to read
/// or their number to write, with "!" and the id of its failure behind them.
struct Script {
    explicit Script(char const* text) {
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            size_t const mark = std::min(word.find('!'), word.size());
            steps.emplace_back(word.substr(0, mark), mark == word.size() ? SUCCESS : word.back() - '0');
        }
    }

    bool enterHook() {
        log += '?';
        if (inconsistent) {
            ErrorOutput("test", __LINE__, true)(IBinStreamBase::TRANSFER_FAILED);
        }
        return inconsistent;
    }

    static bool end(int error) {
        if (error != SUCCESS) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "cause");
            ErrorOutput("test", __LINE__, false)(IBinStreamBase::StreamError, error);
        }
        return error != SUCCESS;
    }

    std::deque<std::pair<std::string, int>> steps;
    std::string log;           // The calls of the last operation, "?" for the hook.
    bool inconsistent = false; // The result of the hook.
};

/// A source that performs its script, and then is at its end. It logs "[n]" for a read of n bytes into the
/// stream's own buffer, "(n)" for one into the memory of the caller.
class Source : public Script, public IBinInputStream {
public:
    static constexpr char const* SOME_ACTIONS = "0 1 100";

    explicit Source(unsigned int buffer_size, bool blocking = true, char const* script = "")
        : Script(script), IBinInputStream(blocking, buffer_size) {}

    bool isValid() const override { return isReadBufferSound(); }
    bool isBuffered() const { return isInputBuffered(); }
    bool originalCheck() { return IBinInputStream::checkReadBufferConsistency(); }

    /// Reads so many bytes, and returns the result and the bytes: " 1 abc". "forbid" makes the hook fail, "drop"
    /// empties the buffer.
    std::string perform(std::string const& action) {
        inconsistent = inconsistent || action == "forbid";
        if (action == "drop") {
            m_pos = m_end = 0;
        }
        if (action == "drop" || action == "forbid") {
            return "";
        }
        auto const size = static_cast<unsigned int>(std::stoi(action));
        std::string block(size + 1, '#');
        unsigned int count = 12345;
        int const result = read(size != 0 ? &block[0] : nullptr, size, count);
        EXPECT_LE(count, size);
        EXPECT_EQ(std::string(size + 1 - count, '#'), block.substr(count)) << "bytes behind the count";
        return log + " " + std::to_string(result) + (count == 0 ? "" : " " + block.substr(0, count));
    }

    using IBinInputStream::m_blocking;
    using IBinInputStream::m_buffer;

protected:
    bool checkReadBufferConsistency() override { return enterHook(); }

    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        EXPECT_EQ(0U, read);
        bool const is_own = buffer != nullptr && buffer == m_buffer;
        log += (is_own ? '[' : '(') + std::to_string(size) + (is_own ? ']' : ')');
        if (steps.empty()) {
            if (size != 0) {
                ErrorOutput("test", __LINE__, true)(StreamErrorId::END_OF_STREAM);
            }
            return size != 0;
        }
        auto& [bytes, error] = steps.front();
        bytes = bytes == "-" ? "" : bytes;
        read = std::min(size, static_cast<unsigned int>(bytes.size()));
        if (read != 0) {
            memcpy(buffer, bytes.data(), read);
        }
        int const result = error;
        bytes.erase(0, read);
        if (bytes.empty()) {
            steps.pop_front();
        }
        return end(result);
    }
};

/// A sink that performs its script, and then takes everything. It logs "[abc]" for the bytes offered by a
/// `performWrite`, "!" behind it if that is part of a flush, "FLUSH" for a `performFlush`.
class Sink : public Script, public IBinOutputStream {
public:
    static constexpr char const* SOME_ACTIONS = "nothing a longer-than-the-buffer flush flush-buffer";

    explicit Sink(unsigned int buffer_size, bool blocking = true, char const* script = "")
        : Script(script), IBinOutputStream(blocking, buffer_size) {}

    bool isValid() const override { return m_open && isWriteBufferSound(); }
    bool isBuffered() const { return isOutputBuffered(); }
    bool originalCheck() { return IBinOutputStream::checkWriteBufferConsistency(); }

    /// Flushes, or writes any other text or nothing. Returns the result with the count of a write, and the bytes
    /// held by the stream: " 1/3 +de". "forbid" makes the hook fail, "jam" the flush of the sink, "close" makes it
    /// invalid.
    std::string perform(std::string const& action) {
        inconsistent = inconsistent || action == "forbid";
        m_jammed = m_jammed || action == "jam";
        m_open = m_open && action != "close";
        if (action == "forbid" || action == "jam" || action == "close") {
            return "";
        }
        std::string seen;
        if (action.find("flush") == 0) {
            seen = flush(action == "flush-buffer") ? " failed" : " done";
        } else {
            bool const is_empty = action == "nothing";
            unsigned int written = 12345;
            int const result = write(
                is_empty ? nullptr : action.data(), is_empty ? 0 : static_cast<unsigned int>(action.size()),
                written);
            seen = " " + std::to_string(result) + "/" + std::to_string(written);
        }
        std::string const held(
            reinterpret_cast<char const*>(m_buffer) + m_pos, static_cast<size_t>(m_end - m_pos));
        return log + seen + (held.empty() ? "" : " +" + held);
    }

    using IBinOutputStream::m_blocking;
    using IBinOutputStream::m_buffer;

protected:
    bool checkWriteBufferConsistency() override { return enterHook(); }

    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        EXPECT_EQ(0U, written);
        log += "[" + std::string(static_cast<char const*>(buffer), size) + (m_flushing ? "]!" : "]");
        written = size;
        int error = SUCCESS;
        if (!steps.empty()) {
            written = std::min(size, static_cast<unsigned int>(std::stoi(steps.front().first)));
            error = steps.front().second;
            steps.pop_front();
        }
        return end(error);
    }

    bool performFlush() override {
        log += "FLUSH";
        if (m_jammed) {
            ErrorOutput("test", __LINE__, true)(StreamErrorId::NOT_SUPPORTED);
        }
        return m_jammed;
    }

private:
    bool m_open = true;
    bool m_jammed = false;
};

/// Performs all actions. Returns what each one returns, with the calls of the stream before it and the reports
/// behind it.
template <typename Stream>
std::string play(Stream& stream, std::string const& actions) {
    std::istringstream words(actions);
    std::string all;
    for (std::string action; words >> action;) {
        stream.log.clear();
        std::string seen = stream.perform(action);
        seen += takeReports();
        if (!seen.empty()) {
            all += (all.empty() ? "" : ", ") + seen.substr(seen.find_first_not_of(' '));
        }
    }
    return all;
}

// ---- the family and the classes ----

TEST(StreamError, hasItsTexts) {
    expectRows(
        IBinStreamBase::StreamError,
        {"Stream cannot be used", "Stream transfer failed", "End of stream",
         "Operation is not supported by the stream", "Unclassified stream failure"},
        0, false);
    EXPECT_FALSE(IBinStreamBase::StreamError.isA(std::CommonError));
}

/// Gives access to protected operations.
class Slots : public IBinInOutStream {
public:
    using IBinInOutStream::checkReadBufferConsistency;
    using IBinInOutStream::checkWriteBufferConsistency;
    using IBinInOutStream::performFlush;
    using IBinInOutStream::performRead;
    using IBinInOutStream::performWrite;
};

TEST(IBinStream, operationsHaveTheirSlotsInEachDirection) {
    EXPECT_EQ(2, getSlot(&IBinStreamBase::isValid)) << "behind the two of the destructor";
    EXPECT_EQ(2, getSlot(&IBinInputStream::isValid));
    EXPECT_EQ(3, getSlot(&Slots::checkReadBufferConsistency));
    EXPECT_EQ(4, getSlot(&Slots::performRead));
    EXPECT_EQ(2, getSlot(&IBinOutputStream::isValid));
    EXPECT_EQ(3, getSlot(&Slots::checkWriteBufferConsistency));
    EXPECT_EQ(4, getSlot(&Slots::performWrite));
    EXPECT_EQ(5, getSlot(&Slots::performFlush));
    EXPECT_EQ(2, getSlot(&IBinInOutStream::isValid));
}

static_assert(!std::is_copy_constructible_v<Source> && !std::is_copy_assignable_v<Source>);
static_assert(!std::is_copy_constructible_v<Sink> && !std::is_copy_assignable_v<Sink>);
static_assert(std::is_convertible_v<IBinInputStream*, IBinStreamBase*>);
static_assert(std::has_virtual_destructor_v<IBinStreamBase>);

/// A stream of one direction.
template <typename Stream>
class IBinStreamDirection : public testing::Test {};

using Directions = testing::Types<Source, Sink>;
TYPED_TEST_SUITE(IBinStreamDirection, Directions, TypeName);

TYPED_TEST(IBinStreamDirection, constructorSetsModeAndBuffer) {
    for (unsigned int const size : {16U, 0U}) {
        TypeParam stream(size, size == 0);
        EXPECT_EQ(size == 0, stream.m_blocking);
        EXPECT_EQ(size != 0, stream.isBuffered());
        EXPECT_EQ(size != 0, stream.m_buffer != nullptr);
        EXPECT_TRUE(stream.isValid());
        EXPECT_FALSE(stream.originalCheck()) << "the default hook allows every access";
    }
}

TYPED_TEST(IBinStreamDirection, needsMemoryOnlyForABuffer) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    EXPECT_TRUE(TypeParam(0).isValid());
    EXPECT_EQ("", takeReports());
    TypeParam stream(16);
    EXPECT_EQ(" {no memory}", takeReports());
    EXPECT_FALSE(stream.isValid());
    EXPECT_EQ(nullptr, stream.m_buffer);
    EXPECT_TRUE(stream.isBuffered()) << "the requested mode";
    std::istringstream actions(TypeParam::SOME_ACTIONS);
    for (std::string action; actions >> action;) {
        std::string const result = std::is_same_v<TypeParam, Source> ? "-1"
            : action.find("flush") == 0                              ? "failed"
                                                                     : "-1/0";
        EXPECT_EQ(result + " {unusable<no memory}", play(stream, action));
    }
}

// ---- transcripts ----

constexpr bool BLOCKING = true;
constexpr bool NON_BLOCKING = false;

/// The actions on one stream with its script, and what `play` returns for them.
struct Transcript : NamedRow {
    template <typename Stream>
    void expectFrom() const {
        Stream stream(buffer_size, blocking, script);
        EXPECT_EQ(seen, play(stream, actions));
    }

    unsigned int buffer_size;
    bool blocking;
    char const* script;
    char const* actions;
    char const* seen;
};

Transcript const READS[] = {
    {"readAheadOneBufferAndReturnItInPieces", 8, BLOCKING, "abcdefghijkl", "3 2 3 2",
     "?[8] 1 abc, 1 de, 1 fgh, ?[8] 1 ij"},
    {"returnTheBufferedBytesWithoutWaitingForMore", 8, BLOCKING, "abcdefgh ij", "6 100",
     "?[8] 1 abcdef, 1 gh"},
    {"returnTheBytesOfOneCallWithoutWaitingForMore", 8, BLOCKING, "ab cd", "5 5", "?[8] 1 ab, ?[8] 1 cd"},
    {"asLargeAsTheBufferBypassIt", 4, BLOCKING, "abcdefghijklmnop", "4 6 3 1",
     "?(4) 1 abcd, ?(6) 1 efghij, ?[4] 1 klm, 1 n"},
    {"withoutABufferAllReachTheSource", 0, BLOCKING, "abcdef", "1 3", "?(1) 1 a, ?(3) 1 bcd"},
    {"workWithABufferOfOneByte", 1, BLOCKING, "abc", "1 2 1", "?(1) 1 a, ?(2) 1 bc, ?(1) 0 {end}"},
    {"atTheEndReturnZeroAndReport", 8, BLOCKING, "", "3 100", "?[8] 0 {end}, ?(100) 0 {end}"},
    {"atTheEndReturnZeroAndReportUnbuffered", 0, BLOCKING, "", "3 100", "?(3) 0 {end}, ?(100) 0 {end}"},
    {"ofNothingSucceedAtTheEnd", 8, BLOCKING, "", "0", "(0) 1"},
    {"ofNothingSucceedAtTheEndUnbuffered", 0, BLOCKING, "", "0", "(0) 1"},
    {"ofNothingNeedNoMemoryAndConsumeNothing", 8, BLOCKING, "abc", "0 1 0 5", "(0) 1, ?[8] 1 a, (0) 1, 1 bc"},
    {"withoutDataSucceedInNonBlockingMode", 8, NON_BLOCKING, "- ab", "3 3", "?[8] 1, ?[8] 1 ab"},
    {"withoutDataSucceedInNonBlockingModeUnbuffered", 0, NON_BLOCKING, "- ab", "3 3", "?(3) 1, ?(3) 1 ab"},
    {"deliverTheBytesBeforeTheEnd", 8, BLOCKING, "ab!2", "3", "?[8] 0 ab {end<cause}"},
    {"deliverTheBytesBeforeTheEndUnbuffered", 0, BLOCKING, "ab!2", "3", "?(3) 0 ab {end<cause}"},
    {"deliverTheBytesBeforeAFailureAndThoseThatWereReadAhead", 8, BLOCKING, "abcde!1 fg", "2 5 5",
     "?[8] -1 ab {failure<cause}, 1 cde, ?[8] 1 fg"},
    {"callTheHookOnlyBeforeAnAccessToTheSource", 4, BLOCKING, "abcdef", "1 1 9 1",
     "?[4] 1 a, 1 b, 1 cd, ?[4] 1 e"},
    {"failWithTheReportsOfTheSource", 8, BLOCKING, "!0 !1 !3 !4 ab", "3 3 3 3 3",
     "?[8] -1 {unusable<cause}, ?[8] -1 {failure<cause}, ?[8] -1 {unsupported<cause}, "
     "?[8] -1 {unclassified<cause}, ?[8] 1 ab"},
    {"failWithTheReportsOfTheSourceUnbuffered", 0, BLOCKING, "!0 !1 !3 !4 ab", "3 3 3 3 3",
     "?(3) -1 {unusable<cause}, ?(3) -1 {failure<cause}, ?(3) -1 {unsupported<cause}, "
     "?(3) -1 {unclassified<cause}, ?(3) 1 ab"},
    {"failIfTheHookForbidsThem", 4, BLOCKING, "abcdef", "forbid 2", "? -1 {failure}"},
    {"failIfTheHookForbidsThemUnbuffered", 0, BLOCKING, "abcdef", "forbid 2", "? -1 {failure}"},
    {"fillABufferAgainThatADerivedClassHasEmptied", 4, BLOCKING, "abcdefgh", "2 drop 2",
     "?[4] 1 ab, ?[4] 1 ef"}};

VESK_TEST_TABLE(IBinInputStreamReads, returnTheBytesOfTheSource, testing::Test, READS) {
    GetParam().expectFrom<Source>();
}

TEST(IBinInputStream, secondIdOfAnotherFamilyIsNoEnd) {
    struct Failing : Source {
        Failing() : Source(0) {}
        bool performRead(void*, unsigned int, unsigned int&) override {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::INTERNAL_FAILURE);
            return true;
        }
    } source;
    EXPECT_EQ("? -1", source.perform("3"));
    EXPECT_TRUE(chainIs({{CommonErrorId::INTERNAL_FAILURE}}));
}

Transcript const ACTIONS[] = {
    {"collectWhatFits", 8, BLOCKING, "", "abc def gh i",
     "? 1/3 +abc, 1/3 +abcdef, 1/2 +abcdefgh, ?[abcdefgh] 1/1 +i"},
    {"passTheBufferOnBeforeBytesThatDoNotFit", 8, BLOCKING, "", "abcdef ghi",
     "? 1/6 +abcdef, ?[abcdef] 1/3 +ghi"},
    {"asLargeAsTheBufferBypassIt", 4, BLOCKING, "", "abcd e fghij", "?[abcd] 1/4, ? 1/1 +e, ?[e][fghij] 1/5"},
    {"withoutABufferAllReachTheSink", 0, BLOCKING, "", "a bcd", "?[a] 1/1, ?[bcd] 1/3"},
    {"workWithABufferOfOneByte", 1, BLOCKING, "", "a bc flush", "?[a] 1/1, ?[bc] 1/2, FLUSH done"},
    {"ofNothingAreCheckedByTheSinkAndLeaveTheBufferAlone", 4, BLOCKING, "", "abc nothing",
     "? 1/3 +abc, [] 1/0 +abc"},
    {"ofNothingAreCheckedByTheSinkWithoutTheHook", 4, BLOCKING, "0 0!4", "nothing nothing",
     "[] 1/0, [] -1/0 {unclassified<cause}"},
    {"ofNothingAreCheckedByTheSinkWithoutTheHookUnbuffered", 0, BLOCKING, "0 0!4", "nothing nothing",
     "[] 1/0, [] -1/0 {unclassified<cause}"},
    {"callTheHookAgainAfterAFailureWithRoomInTheBuffer", 8, BLOCKING, "1!4 0!4 0!4",
     "abc flush-buffer d efghijklm e flush-buffer flush-buffer",
     "? 1/3 +abc, ?[abc]! failed +bc {unclassified<cause}, ? 1/1 +bcd, ?[bcd] -1/0 +bcd "
     "{unclassified<cause}, ? 1/1 +bcde, ?[bcde]! failed +bcde {unclassified<cause}, ?[bcde]! done"},
    {"callTheHookBeforeTheFirstBufferedByte", 8, BLOCKING, "", "a b flush c",
     "? 1/1 +a, 1/1 +ab, ?[ab]!FLUSH done, ? 1/1 +c"},
    {"inBlockingModeContinueAfterShortWrites", 4, BLOCKING, "2 1 0 0 3 3 1 0", "abcdefghi jkl mn",
     "?[abcdefghi][cdefghi][defghi][defghi][defghi][ghi] 1/9, ? 1/3 +jkl, ?[jkl][kl][kl] 1/2 +mn"},
    {"inNonBlockingModeBufferWhatStillFits", 4, NON_BLOCKING, "2 0 0 1 0 4", "abcdefghi g ghi hi flush",
     "?[abcdefghi][cdefghi] 1/6 +cdef, ?[cdef] 1/0 +cdef, ?[cdef][def] 1/1 +defg, ?[defg] 1/2 +hi, "
     "?[hi]!FLUSH done"},
    {"inNonBlockingModeWithoutABufferAreShort", 0, NON_BLOCKING, "2 0 0", "abc c", "?[abc][c] 1/2, ?[c] 1/0"},
    {"doNotOvertakeTheBytesThatANonBlockingSinkLeft", 4, NON_BLOCKING, "0", "ab cdefgh efgh",
     "? 1/2 +ab, ?[ab] 1/2 +abcd, ?[abcd][efgh] 1/4"},
    {"useTheRoomAtTheFrontWithoutAccessToTheSink", 4, NON_BLOCKING, "2 0", "abc flush-buffer def",
     "? 1/3 +abc, ?[abc]![c]! failed +c {failure}, ? 1/3 +cdef"},
    {"reportWhatWasTakenBeforeAFailure", 4, BLOCKING, "2 3!4", "abcdefghi fghi",
     "?[abcdefghi][cdefghi] -1/5 {unclassified<cause}, ?[fghi] 1/4"},
    {"reportWhatWasTakenBeforeAFailureUnbuffered", 0, BLOCKING, "2 3!4", "abcdefghi fghi",
     "?[abcdefghi][cdefghi] -1/5 {unclassified<cause}, ?[fghi] 1/4"},
    {"thatFailLoseNoBufferedByte", 4, BLOCKING, "2!4 0!4", "abc de defgh de flush",
     "? 1/3 +abc, ?[abc] -1/0 +c {unclassified<cause}, ?[c] -1/0 +c {unclassified<cause}, ? 1/2 +cde, "
     "?[cde]!FLUSH done"},
    {"passesTheBufferOnAndThenFlushesTheSink", 8, BLOCKING, "", "abc flush", "? 1/3 +abc, ?[abc]!FLUSH done"},
    {"ofTheBufferOnlyLeavesTheSinkAlone", 8, BLOCKING, "", "flush-buffer abc flush-buffer",
     "done, ? 1/3 +abc, ?[abc]! done"},
    {"thatCannotPassTheBufferOnKeepsTheRest", 8, BLOCKING, "1 1!4", "abc flush flush",
     "? 1/3 +abc, ?[abc]![bc]! failed +c {unclassified<cause}, ?[c]!FLUSH done"},
    {"inBlockingModeContinuesAfterShortWrites", 8, BLOCKING, "1 0 1", "abc flush",
     "? 1/3 +abc, ?[abc]![bc]![bc]![c]!FLUSH done"},
    {"inNonBlockingModeFailsIfItIsIncomplete", 8, NON_BLOCKING, "1 1 0", "abc flush flush",
     "? 1/3 +abc, ?[abc]![bc]![c]! failed +c {failure}, ?[c]!FLUSH done"},
    {"ofTheBufferInNonBlockingModeFailsIfItIsIncomplete", 8, NON_BLOCKING, "1 1 0",
     "abc flush-buffer flush-buffer", "? 1/3 +abc, ?[abc]![bc]![c]! failed +c {failure}, ?[c]! done"},
    {"marksItsWritesSoThatTheSinkMustTakeSomething", 4, BLOCKING, "0 3 0 3", "abc flush-buffer defgh",
     "? 1/3 +abc, ?[abc]![abc]! done, ?[defgh][defgh][gh] 1/5"},
    {"inNonBlockingModeMarksItsWritesSoThatTheSinkMustTakeSomething", 4, NON_BLOCKING, "0 0 3",
     "abc flush-buffer defgh", "? 1/3 +abc, ?[abc]! failed +abc {failure}, ?[abc] 1/1 +abcd"},
    {"ofAClosedSinkAreNotKept", 4, BLOCKING, "0!4 0!4", "close a abcdef",
     "[a] -1/0 {unclassified<cause}, [abcdef] -1/0 {unclassified<cause}"},
    {"areForbiddenByTheHookThatIsNotCalledWithoutBytes", 4, BLOCKING, "", "forbid ab abcdef flush nothing",
     "? -1/0 {failure}, ? -1/0 {failure}, FLUSH done, [] 1/0"},
    {"areForbiddenByTheHookThatIsNotCalledWithoutBytesUnbuffered", 0, BLOCKING, "",
     "forbid ab abcdef flush nothing", "? -1/0 {failure}, ? -1/0 {failure}, FLUSH done, [] 1/0"},
    {"flushIsForbiddenByTheHook", 4, BLOCKING, "", "ab forbid flush", "? 1/2 +ab, ? failed +ab {failure}"},
    {"flushFailsWithTheReportOfTheSink", 8, BLOCKING, "", "abc jam flush",
     "? 1/3 +abc, ?[abc]!FLUSH failed {unsupported}"}};

VESK_TEST_TABLE(IBinOutputStreamActions, reachTheSink, testing::Test, ACTIONS) {
    GetParam().expectFrom<Sink>();
}

TEST(IBinOutputStream, pendingReportIsReplacedByThatOfAnIncompleteFlush) {
    for (char const* const flush : {"flush", "flush-buffer"}) {
        Sink sink(8, NON_BLOCKING, "1 1 0");
        ErrorOutput("older", 1, true)(CommonErrorId::CONTRACT_BROKEN, "older");
        sink.perform("abc");
        sink.perform(flush);
        EXPECT_EQ(" {failure}", takeReports());
    }
}

TEST(IBinOutputStream, destructorDropsTheHeldBytesWithoutACallOfTheDestroyedSink) {
    Sink sink(4);
    EXPECT_EQ("? 1/2 +ab", play(sink, "ab"));
}

// ---- both directions ----

enum class From { CURRENT, BEGIN, END };

/// How the file transfers: completely, in pieces, or in non-blocking mode, sometimes nothing.
enum class Mode { WHOLE, SHORT, PARTIAL };

/// A file in memory with one position for both directions. The hooks and `seek` synchronize the two buffers:
/// written bytes reach the file before a read, and read-ahead is undone before a write.
class MemoryFile : public IBinInOutStream {
public:
    MemoryFile(unsigned int read_buffer, unsigned int write_buffer, Mode mode = Mode::WHOLE)
        : IBinInOutStream(mode != Mode::PARTIAL, read_buffer, write_buffer), m_mode(mode) {
        content.reserve(65536);
    }

    bool isValid() const override { return isReadBufferSound() && isWriteBufferSound(); }

    bool seek(int offset, From from, unsigned int& position) {
        if (m_writing) {
            if (IBinOutputStream::m_pos != IBinOutputStream::m_end && checkReadBufferConsistency()) {
                return true;
            }
        } else {
            offset -=
                from == From::CURRENT ? static_cast<int>(IBinInputStream::m_end - IBinInputStream::m_pos) : 0;
            IBinInputStream::m_pos = IBinInputStream::m_end = 0;
        }
        size_t const bases[] = {m_position, 0, content.size()};
        long long const target = static_cast<long long>(bases[static_cast<int>(from)]) + offset;
        if (target < 0) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::UNSUPPORTED_VALUE, "negative position");
            return true;
        }
        m_position = static_cast<size_t>(target);
        position = static_cast<unsigned int>(target);
        return false;
    }

    bool isBlocking() const { return m_blocking; }
    bool isWriting() const { return m_writing; }
    size_t getSystemPosition() const { return m_position; }

    std::string content;
    int reads = 0;
    int writes = 0;
    int flushes = 0;
    bool write_fails = false;
    bool is_pipe = false;

protected:
    bool checkReadBufferConsistency() override {
        if (m_writing && IBinOutputStream::m_pos != IBinOutputStream::m_end && flush(false)) {
            if (IBinOutputStream::m_pos != IBinOutputStream::m_end) {
                return true;
            }
            ErrorStorage::ack();
        }
        m_writing = false;
        return false;
    }

    bool checkWriteBufferConsistency() override {
        unsigned int position = 0;
        if (is_pipe) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::UNSUPPORTED_VALUE, "cannot seek");
            return true;
        }
        if (!m_writing && IBinInputStream::m_pos != IBinInputStream::m_end &&
            seek(0, From::CURRENT, position)) {
            return true;
        }
        m_writing = true;
        return false;
    }

    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        if (size == 0) {
            return false;
        }
        EXPECT_EQ(IBinOutputStream::m_pos, IBinOutputStream::m_end) << "written bytes come first";
        ++reads;
        size_t const rest = content.size() - std::min(m_position, content.size());
        if (rest == 0) {
            ErrorOutput("test", __LINE__, true)(StreamErrorId::END_OF_STREAM);
            return true;
        }
        read = limit(std::min(size, static_cast<unsigned int>(rest)));
        memcpy(buffer, content.data() + m_position, read);
        m_position += read;
        return false;
    }

    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        if (size == 0) {
            return false;
        }
        EXPECT_EQ(IBinInputStream::m_pos, IBinInputStream::m_end) << "read-ahead is undone first";
        ++writes;
        if (write_fails) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "cause");
            ErrorOutput("test", __LINE__, false)(StreamErrorId::TRANSFER_FAILED);
            return true;
        }
        written = limit(size);
        if (content.size() < m_position + written) {
            content.resize(m_position + written);
        }
        if (written != 0) {
            memcpy(&content[m_position], buffer, written);
        }
        m_position += written;
        return false;
    }

    bool performFlush() override {
        ++flushes;
        return false;
    }

private:
    unsigned int limit(unsigned int count) {
        if (m_mode == Mode::WHOLE || count == 0) {
            return count;
        }
        unsigned int const least = m_mode == Mode::SHORT ? 1 : 0;
        return std::uniform_int_distribution<unsigned int>(least, count)(m_random);
    }

    Mode m_mode;
    size_t m_position = 0;
    bool m_writing = false;
    std::mt19937 m_random{20240229};
};

TEST(IBinInOutStream, hasOneBaseForBothDirectionsAndPassesThemTheArgumentsOfItsConstructor) {
    for (bool const input : {true, false}) {
        MemoryFile file(input ? 4 : 0, input ? 0 : 4, input ? Mode::WHOLE : Mode::PARTIAL);
        EXPECT_EQ(input, file.isInputBuffered());
        EXPECT_EQ(!input, file.isOutputBuffered());
        EXPECT_EQ(input, file.isBlocking());
        IBinInputStream& reader = file;
        IBinOutputStream& writer = file;
        EXPECT_EQ(static_cast<IBinStreamBase*>(&reader), static_cast<IBinStreamBase*>(&writer));
        EXPECT_TRUE(reader.isValid() && writer.isValid());
    }
}

TEST(IBinInOutStream, withoutMemoryForABufferFailsInThatDirectionOnly) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    unsigned int count = 0;
    char block[4] = {};
    for (bool const input : {true, false}) {
        MemoryFile file(input ? 4 : 0, input ? 0 : 4);
        EXPECT_EQ(" {no memory}", takeReports());
        EXPECT_FALSE(file.isValid());
        EXPECT_EQ(-1, input ? file.read(block, 4, count) : file.write(block, 4, count));
        EXPECT_EQ(" {unusable<no memory}", takeReports());
        EXPECT_EQ(input ? 1 : 0, input ? file.write(block, 4, count) : file.read(block, 4, count));
        EXPECT_EQ(input ? "" : " {end}", takeReports());
    }
}

/// Steps with a file of 16 bytes and two buffers of ten: "r2" reads bytes, "w..." writes, "flush" flushes, "jam",
/// "free" and "pipe" set whether the file cannot be written or positioned. `seen` is what each step returns and
/// the system's position then, the content of the file and how often it was read and flushed.
struct Turns : NamedRow {
    char const* steps;
    char const* seen;
};

Turns const TURNS[] = {
    {"writeAfterReadStartsAtTheReadersPosition", "r1 wX flush r3",
     "1:0@10 1:1@1w done@2w 1:234@12 0X23456789abcdef 2/1"},
    {"writtenBytesReachTheFileBeforeARead", "wAB r2", "1:2@0w 1:23@12 AB23456789abcdef 1/1"},
    {"writtenBytesStayInTheBuffer", "wAB", "1:2@0w 0123456789abcdef 0/0"},
    {"readFailsIfWrittenBytesCannotBePassedOn", "wAB jam r2 free r2",
     "1:2@0w -1: {failure<cause}@0w 1:23@12 AB23456789abcdef 1/1"},
    {"flushWhileReadingKeepsTheReadAhead", "r1 flush r3", "1:0@10 done@10 1:123@10 0123456789abcdef 1/1"},
    {"failedSeekBeforeAWriteFailsTheWriteAndKeepsTheReadAhead", "r1 pipe wX r3",
     "1:0@10 -1:0 {no seek}@10 1:123@10 0123456789abcdef 1/0"}};

VESK_TEST_TABLE(IBinInOutStreamTurns, shareOnePosition, testing::Test, TURNS) {
    MemoryFile file(10, 10);
    file.content = "0123456789abcdef";
    std::istringstream steps(GetParam().steps);
    std::string seen;
    for (std::string step; steps >> step;) {
        char block[10];
        unsigned int count = 12345;
        if (step == "flush") {
            seen += file.flush(false) ? "failed" : "done";
        } else if (step[0] == 'r') {
            int const result = file.read(block, static_cast<unsigned int>(std::stoi(step.substr(1))), count);
            seen += std::to_string(result) + ":" + std::string(block, count);
        } else if (step[0] == 'w') {
            int const result = file.write(step.data() + 1, static_cast<unsigned int>(step.size() - 1), count);
            seen += std::to_string(result) + ":" + std::to_string(count);
        } else {
            file.write_fails = step == "jam";
            file.is_pipe = step == "pipe";
            continue;
        }
        seen +=
            takeReports() + "@" + std::to_string(file.getSystemPosition()) + (file.isWriting() ? "w " : " ");
    }
    seen += file.content + " " + std::to_string(file.reads) + "/" + std::to_string(file.flushes);
    EXPECT_EQ(GetParam().seen, seen);
}

TEST(IBinInOutStream, readingAndWritingAllocateNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    MemoryFile input(64, 64);
    MemoryFile output(64, 64);
    MemoryFile file(16, 16);
    input.content.assign(8192, '.');
    file.content.assign(4096, '.');
    char block[100] = {};
    unsigned int count = 0;
    unsigned int sum = 0;
    unsigned int position = 0;
    AllocationCounter const counter;
    for (unsigned int size = 0; size <= sizeof block; ++size) {
        input.read(block, size, count);
        sum += count;
        output.write(block, size, count);
    }
    output.flush(false);
    for (unsigned int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(file.seek(static_cast<int>(i), From::BEGIN, position));
        EXPECT_EQ(1, file.read(block, 1 + i % 40, count));
        EXPECT_EQ(1, file.write(block, 1 + i % 37, count));
    }
    EXPECT_FALSE(file.seek(0, From::END, position));
    EXPECT_EQ(0, file.read(block, 1, count));
    EXPECT_EQ(0, counter.getCount());
    EXPECT_EQ(" {end}", takeReports());
    EXPECT_GT(sum, 1000U);
    EXPECT_EQ(5050U, output.content.size());
}

// ---- against a model ----

using Setting = std::tuple<unsigned int, unsigned int, Mode>;

class IBinInOutStreamModel : public testing::TestWithParam<Setting> {
protected:
    unsigned int pick(unsigned int least, unsigned int most) {
        return std::uniform_int_distribution<unsigned int>(least, most)(m_random);
    }

    /// Mostly small requests, with some around the sizes of the buffers.
    unsigned int pickSize() {
        auto const [read_buffer, write_buffer, mode] = GetParam();
        unsigned int const sizes[] = {
            pick(0, 3), pick(0, 20), std::max(1U, read_buffer) + pick(0, 2) - 1,
            std::max(1U, write_buffer) + pick(0, 2) - 1};
        return sizes[pick(0, 3)];
    }

    bool isNonBlocking() const { return std::get<2>(GetParam()) == Mode::PARTIAL; }

    /// Only a non-blocking file may refuse, with a report and without a change.
    void expectNotNow() {
        ASSERT_TRUE(isNonBlocking());
        ASSERT_EQ(" {failure}", takeReports());
    }

    void read() {
        unsigned int const size = pickSize();
        std::string block(size, '#');
        unsigned int count = 12345;
        int const result = m_file.read(&block[0], size, count);
        ASSERT_LE(count, size);
        if (result == 1) {
            ASSERT_TRUE(count != 0 || size == 0 || isNonBlocking());
            ASSERT_EQ(
                m_content.substr(std::min(m_position, m_content.size()), count), block.substr(0, count));
            m_position += count;
            return;
        }
        ASSERT_EQ(0U, count);
        if (result == -1) {
            expectNotNow();
            return;
        }
        ASSERT_EQ(0, result);
        ASSERT_GE(m_position, m_content.size());
        ASSERT_EQ(" {end}", takeReports());
    }

    void write() {
        std::string bytes(pickSize(), '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(pick('!', '~'));
        }
        unsigned int written = 12345;
        ASSERT_EQ(1, m_file.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written));
        ASSERT_TRUE(written == bytes.size() || (isNonBlocking() && written < bytes.size()));
        m_content.replace(m_position, written, bytes, 0, written);
        m_position += written;
    }

    void seek() {
        unsigned int const from = pick(0, 2);
        int const size = static_cast<int>(m_content.size());
        int const bases[] = {static_cast<int>(m_position), 0, size};
        int const least[] = {-20, 0, -40};
        int const most[] = {20, 120, 0};
        int const offset = std::uniform_int_distribution<int>(least[from], most[from])(m_random);
        // Not beyond the end: the content there does not depend on streams.
        int const target = std::clamp(bases[from] + offset, 0, size);
        unsigned int position = 0;
        if (m_file.seek(target - bases[from], static_cast<From>(from), position)) {
            expectNotNow();
        } else {
            ASSERT_EQ(static_cast<unsigned int>(target), position);
            m_position = position;
        }
    }

    void flush() {
        bool const buffer_only = pick(0, 1) == 0;
        int const flushes = m_file.flushes;
        if (m_file.flush(buffer_only)) {
            expectNotNow();
            ASSERT_EQ(flushes, m_file.flushes);
        } else {
            ASSERT_EQ(m_content, m_file.content);
            ASSERT_EQ(flushes + (buffer_only ? 0 : 1), m_file.flushes);
        }
    }

    MemoryFile m_file{std::get<0>(GetParam()), std::get<1>(GetParam()), std::get<2>(GetParam())};
    // The behavior that callers rely on: one text and one position in it, without buffers.
    std::string m_content;
    size_t m_position = 0;
    std::mt19937 m_random{std::get<0>(GetParam()) * 31 + std::get<1>(GetParam()) + 7};
};

TEST_P(IBinInOutStreamModel, behavesAsOneFileWithOnePosition) {
    for (int i = 0; i < 3000 && !HasFatalFailure(); ++i) {
        SCOPED_TRACE(i);
        unsigned int const action = pick(0, 9);
        if (action == 0) {
            seek();
        } else if (action == 1) {
            flush();
        } else if (action < 6) {
            write();
        } else {
            read();
        }
        ASSERT_EQ("", takeReports());
    }
    while (m_file.flush(false)) {
        expectNotNow();
    }
    EXPECT_EQ(m_content, m_file.content);
    EXPECT_GT(m_file.content.size(), 100U);
    EXPECT_GT(m_file.reads, 5);
    EXPECT_GT(m_file.writes, 5);
}

char const* const MODES[] = {"whole", "short", "nonBlocking"};

INSTANTIATE_TEST_SUITE_P(
    All, IBinInOutStreamModel,
    testing::Combine(
        testing::Values(1U, 2U, 7U, 16U, 4096U, 0U), testing::Values(1U, 2U, 7U, 16U, 4096U, 0U),
        testing::Values(Mode::WHOLE, Mode::SHORT, Mode::PARTIAL)),
    [](testing::TestParamInfo<Setting> const& instance) {
        return "read" + std::to_string(std::get<0>(instance.param)) + "write" +
            std::to_string(std::get<1>(instance.param)) +
            MODES[static_cast<int>(std::get<2>(instance.param))];
    });

} // namespace
