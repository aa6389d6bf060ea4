#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/stream/IBinOutputStream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <sstream>
#include <string>
#include <type_traits>

namespace {

namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::IBinOutputStream;
using std::IBinStreamBase;
using namespace support;

/// What one `performWrite` of the test's sink does: it takes up to `most` bytes, and may fail then.
struct Step {
    unsigned int most;
    bool fails = false;
};

/// A sink that performs its steps, one a call, and then takes everything. It logs the calls: "?" for the
/// hook, "[abc]" for the bytes offered by a `performWrite`, "!" behind it if that is part of a flush, "FLUSH"
/// for a `performFlush`.
class ScriptedSink : public IBinOutputStream {
public:
    explicit ScriptedSink(unsigned int buffer_size, std::deque<Step> steps = {}, bool blocking = true)
        : IBinOutputStream(blocking, buffer_size), m_steps(std::move(steps)) {}

    bool isValid() const override { return is_open && isWriteBufferSound(); }

    bool is_open = true;
    std::string log;           // The calls of the last operation.
    bool inconsistent = false; // The result of the hook.
    bool flush_fails = false;

    using IBinOutputStream::m_blocking;
    using IBinOutputStream::m_buffer;
    std::string getHeld() const {
        return {reinterpret_cast<char const*>(m_buffer) + m_pos, static_cast<size_t>(m_end - m_pos)};
    }
    bool originalCheck() { return IBinOutputStream::checkWriteBufferConsistency(); }

protected:
    bool checkWriteBufferConsistency() override {
        log += "?";
        if (inconsistent) {
            ErrorOutput("test", __LINE__, true)(StreamErrorId::TRANSFER_FAILED);
        }
        return inconsistent;
    }

    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        EXPECT_EQ(0U, written);
        std::string const offered(static_cast<char const*>(buffer), size);
        log += "[" + offered + (m_flushing ? "]!" : "]");
        Step step{size};
        if (!m_steps.empty()) {
            step = m_steps.front();
            m_steps.pop_front();
        }
        written = std::min(size, step.most);
        if (step.fails) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "cause");
            ErrorOutput("test", __LINE__, false)(StreamErrorId::UNCLASSIFIED);
        }
        return step.fails;
    }

    bool performFlush() override {
        log += "FLUSH";
        if (flush_fails) {
            ErrorOutput("test", __LINE__, true)(StreamErrorId::NOT_SUPPORTED);
        }
        return flush_fails;
    }

private:
    std::deque<Step> m_steps;
};

constexpr char const* FLUSH = "flush";
constexpr char const* FLUSH_BUFFER = "flush-buffer";
constexpr char const* NOTHING = "nothing";

/// Flushes, or writes any other text or nothing. Returns the calls of the sink, the result with the count of
/// a write, and the bytes held by the stream: "?[abc] 1/3 +de".
std::string perform(ScriptedSink& sink, std::string action) {
    action = action == NOTHING ? "" : action;
    sink.log.clear();
    std::string seen;
    if (action == FLUSH || action == FLUSH_BUFFER) {
        seen = sink.flush(action == FLUSH_BUFFER) ? " failed" : " done";
    } else {
        unsigned int written = 12345;
        int const result = sink.write(action.data(), static_cast<unsigned int>(action.size()), written);
        seen = " " + std::to_string(result) + "/" + std::to_string(written);
    }
    return sink.log + seen + (sink.getHeld().empty() ? "" : " +" + sink.getHeld());
}

/// Gives access to protected operations.
class Slots : public IBinOutputStream {
public:
    using IBinOutputStream::checkWriteBufferConsistency;
    using IBinOutputStream::performFlush;
    using IBinOutputStream::performWrite;
};

TEST(IBinOutputStream, operationsHaveTheirSlots) {
    EXPECT_EQ(2, getSlot(&IBinOutputStream::isValid)) << "behind the two of the destructor";
    EXPECT_EQ(3, getSlot(&Slots::checkWriteBufferConsistency));
    EXPECT_EQ(4, getSlot(&Slots::performWrite));
    EXPECT_EQ(5, getSlot(&Slots::performFlush));
}

TEST(IBinOutputStream, isNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<ScriptedSink> || std::is_copy_assignable_v<ScriptedSink>);
}

TEST(IBinOutputStream, constructorSetsModeAndBuffer) {
    ScriptedSink const buffered(16, {}, false);
    EXPECT_FALSE(buffered.m_blocking);
    EXPECT_TRUE(buffered.isOutputBuffered());
    EXPECT_NE(nullptr, buffered.m_buffer);
    ScriptedSink const unbuffered(0, {}, true);
    EXPECT_TRUE(unbuffered.m_blocking);
    EXPECT_FALSE(unbuffered.isOutputBuffered());
    EXPECT_EQ(nullptr, unbuffered.m_buffer);
    EXPECT_TRUE(unbuffered.isValid());
}

TEST(IBinOutputStream, defaultHookAllowsEveryAccess) {
    EXPECT_FALSE(ScriptedSink(0).originalCheck());
}

constexpr bool BLOCKING = true;
constexpr bool NON_BLOCKING = false;

/// The actions on one stream and what `perform` returns for each. The steps of the sink are the numbers of
/// bytes that it takes, with "!" if it fails then.
struct Actions {
    char const* name;
    unsigned int buffer_size;
    bool blocking;
    char const* steps;
    char const* actions;
    char const* seen;
};

void PrintTo(Actions const& row, std::ostream* out) {
    *out << row.name;
}

class IBinOutputStreamActions : public testing::TestWithParam<Actions> {};

ExpectedReport const CAUSE(CommonErrorId::OPEN_FILE_OPERATION_FAILED);
ExpectedReport const UNCLASSIFIED(IBinStreamBase::UNCLASSIFIED, "Unclassified stream failure");
ExpectedReport const NOT_NOW(IBinStreamBase::TRANSFER_FAILED, "Stream transfer failed");

TEST_P(IBinOutputStreamActions, reachTheSink) {
    std::istringstream steps(GetParam().steps);
    std::deque<Step> sink_steps;
    for (std::string step; steps >> step;) {
        sink_steps.push_back({static_cast<unsigned int>(std::stoi(step)), step.back() == '!'});
    }
    ScriptedSink sink(GetParam().buffer_size, sink_steps, GetParam().blocking);
    std::istringstream actions(GetParam().actions);
    std::string all;
    for (std::string action; actions >> action;) {
        std::string const seen = perform(sink, action);
        all += (all.empty() ? "" : ", ") + seen.substr(seen.find_first_not_of(' '));
        if (seen.find("-1/") == std::string::npos && seen.find("failed") == std::string::npos) {
            EXPECT_TRUE(chainIs({})) << action;
        } else {
            EXPECT_TRUE(GetParam().blocking ? chainIs({CAUSE, UNCLASSIFIED}) : chainIs({NOT_NOW})) << action;
        }
    }
    EXPECT_EQ(GetParam().seen, all);
}

Actions const ACTIONS[] = {
    {"collectWhatFits", 8, BLOCKING, "", "abc def gh i",
     "? 1/3 +abc, 1/3 +abcdef, 1/2 +abcdefgh, ?[abcdefgh] 1/1 +i"},
    {"passTheBufferOnBeforeBytesThatDoNotFit", 8, BLOCKING, "", "abcdef ghi",
     "? 1/6 +abcdef, ?[abcdef] 1/3 +ghi"},
    {"asLargeAsTheBufferBypassIt", 4, BLOCKING, "", "abcd e fghij", "?[abcd] 1/4, ? 1/1 +e, ?[e][fghij] 1/5"},
    {"withoutABufferAllReachTheSink", 0, BLOCKING, "", "a bcd", "?[a] 1/1, ?[bcd] 1/3"},
    {"workWithABufferOfOneByte", 1, BLOCKING, "", "a bc flush", "?[a] 1/1, ?[bc] 1/2, FLUSH done"},
    {"ofNothingAreCheckedByTheSinkAndLeaveTheBufferAlone", 4, BLOCKING, "", "abc nothing",
     "? 1/3 +abc, [] 1/0 +abc"},
    {"ofNothingAreCheckedByTheSinkWithoutTheHook", 4, BLOCKING, "0 0!", "nothing nothing", "[] 1/0, [] -1/0"},
    {"ofNothingAreCheckedByTheSinkWithoutTheHookUnbuffered", 0, BLOCKING, "0 0!", "nothing nothing",
     "[] 1/0, [] -1/0"},
    {"callTheHookAgainAfterAFailureWithRoomInTheBuffer", 8, BLOCKING, "1! 0! 0!",
     "abc flush-buffer d efghijklm e flush-buffer flush-buffer",
     "? 1/3 +abc, ?[abc]! failed +bc, ? 1/1 +bcd, ?[bcd] -1/0 +bcd, ? 1/1 +bcde, "
     "?[bcde]! failed +bcde, ?[bcde]! done"},
    {"callTheHookBeforeTheFirstBufferedByte", 8, BLOCKING, "", "a b flush c",
     "? 1/1 +a, 1/1 +ab, ?[ab]!FLUSH done, ? 1/1 +c"},
    {"inBlockingModeContinueAfterShortWrites", 4, BLOCKING, "2 1 0 0 3 3 1 0", "abcdefghi jkl mn",
     "?[abcdefghi][cdefghi][defghi][defghi][defghi][ghi] 1/9, ? 1/3 +jkl, ?[jkl][kl][kl] 1/2 +mn"},
    {"inNonBlockingModeBufferWhatStillFits", 4, NON_BLOCKING, "2 0 0 1 0 4", "abcdefghi g ghi hi flush",
     "?[abcdefghi][cdefghi] 1/6 +cdef, ?[cdef] 1/0 +cdef, ?[cdef][def] 1/1 +defg, "
     "?[defg] 1/2 +hi, ?[hi]!FLUSH done"},
    {"inNonBlockingModeWithoutABufferAreShort", 0, NON_BLOCKING, "2 0 0", "abc c", "?[abc][c] 1/2, ?[c] 1/0"},
    {"doNotOvertakeTheBytesThatANonBlockingSinkLeft", 4, NON_BLOCKING, "0", "ab cdefgh efgh",
     "? 1/2 +ab, ?[ab] 1/2 +abcd, ?[abcd][efgh] 1/4"},
    {"useTheRoomAtTheFrontWithoutAccessToTheSink", 4, NON_BLOCKING, "2 0", "abc flush-buffer def",
     "? 1/3 +abc, ?[abc]![c]! failed +c, ? 1/3 +cdef"},
    {"reportWhatWasTakenBeforeAFailure", 4, BLOCKING, "2 3!", "abcdefghi fghi",
     "?[abcdefghi][cdefghi] -1/5, ?[fghi] 1/4"},
    {"reportWhatWasTakenBeforeAFailureUnbuffered", 0, BLOCKING, "2 3!", "abcdefghi fghi",
     "?[abcdefghi][cdefghi] -1/5, ?[fghi] 1/4"},
    {"thatFailLoseNoBufferedByte", 4, BLOCKING, "2! 0!", "abc de defgh de flush",
     "? 1/3 +abc, ?[abc] -1/0 +c, ?[c] -1/0 +c, ? 1/2 +cde, ?[cde]!FLUSH done"},
    {"passesTheBufferOnAndThenFlushesTheSink", 8, BLOCKING, "", "abc flush", "? 1/3 +abc, ?[abc]!FLUSH done"},
    {"ofTheBufferOnlyLeavesTheSinkAlone", 8, BLOCKING, "", "flush-buffer abc flush-buffer",
     "done, ? 1/3 +abc, ?[abc]! done"},
    {"thatCannotPassTheBufferOnKeepsTheRest", 8, BLOCKING, "1 1!", "abc flush flush",
     "? 1/3 +abc, ?[abc]![bc]! failed +c, ?[c]!FLUSH done"},
    {"inBlockingModeContinuesAfterShortWrites", 8, BLOCKING, "1 0 1", "abc flush",
     "? 1/3 +abc, ?[abc]![bc]![bc]![c]!FLUSH done"},
    {"inNonBlockingModeFailsIfItIsIncomplete", 8, NON_BLOCKING, "1 1 0", "abc flush flush",
     "? 1/3 +abc, ?[abc]![bc]![c]! failed +c, ?[c]!FLUSH done"},
    {"ofTheBufferInNonBlockingModeFailsIfItIsIncomplete", 8, NON_BLOCKING, "1 1 0",
     "abc flush-buffer flush-buffer", "? 1/3 +abc, ?[abc]![bc]![c]! failed +c, ?[c]! done"},
    {"marksItsWritesSoThatTheSinkMustTakeSomething", 4, BLOCKING, "0 3 0 3", "abc flush-buffer defgh",
     "? 1/3 +abc, ?[abc]![abc]! done, ?[defgh][defgh][gh] 1/5"},
    {"inNonBlockingModeMarksItsWritesSoThatTheSinkMustTakeSomething", 4, NON_BLOCKING, "0 0 3",
     "abc flush-buffer defgh", "? 1/3 +abc, ?[abc]! failed +abc, ?[abc] 1/1 +abcd"}};

INSTANTIATE_TEST_SUITE_P(All, IBinOutputStreamActions, testing::ValuesIn(ACTIONS), [](auto const& row) {
    return row.param.name;
});

TEST(IBinOutputStream, pendingReportIsReplacedByThatOfAnIncompleteFlush) {
    for (char const* const flush : {FLUSH, FLUSH_BUFFER}) {
        ScriptedSink sink(8, {{1}, {1}, {0}}, false);
        ErrorOutput("older", 1, true)(CommonErrorId::CONTRACT_BROKEN, "older");
        perform(sink, "abc");
        perform(sink, flush);
        EXPECT_TRUE(chainIs({NOT_NOW}));
    }
}

TEST(IBinOutputStream, closedSinkKeepsNothing) {
    ScriptedSink sink(4, {{0, true}, {0, true}});
    sink.is_open = false;
    for (std::string const bytes : {"a", "abcdef"}) {
        EXPECT_EQ("[" + bytes + "] -1/0", perform(sink, bytes));
        EXPECT_TRUE(chainIs({CAUSE, UNCLASSIFIED})) << "the sink reports the reason";
    }
}

TEST(IBinOutputStream, hookCanForbidWritingAndIsNotCalledWithoutBytes) {
    for (unsigned int const size : {0U, 4U}) {
        ScriptedSink sink(size);
        sink.inconsistent = true;
        for (char const* const bytes : {"ab", "abcdef"}) {
            EXPECT_EQ("? -1/0", perform(sink, bytes));
            EXPECT_TRUE(chainIs({NOT_NOW}));
        }
        EXPECT_EQ("FLUSH done", perform(sink, FLUSH));
        unsigned int written = 12345;
        EXPECT_EQ(1, sink.write(nullptr, 0, written));
        EXPECT_EQ(0U, written);
    }
}

TEST(IBinOutputStream, hookCanForbidFlushing) {
    ScriptedSink sink(4);
    perform(sink, "ab");
    sink.inconsistent = true;
    EXPECT_EQ("? failed +ab", perform(sink, FLUSH));
    EXPECT_TRUE(chainIs({NOT_NOW}));
}

TEST(IBinOutputStream, flushOfTheSinkCanFail) {
    ScriptedSink sink(8);
    perform(sink, "abc");
    sink.flush_fails = true;
    EXPECT_EQ("?[abc]!FLUSH failed", perform(sink, FLUSH));
    EXPECT_TRUE(chainIs({{IBinStreamBase::NOT_SUPPORTED, "Operation is not supported by the stream"}}));
}

TEST(IBinOutputStream, destructorDropsTheHeldBytesWithoutACallOfTheDestroyedSink) {
    {
        ScriptedSink sink(4);
        EXPECT_EQ("? 1/2 +ab", perform(sink, "ab"));
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinOutputStream, withoutMemoryForItsBufferIsInvalid) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    ExpectedReport const no_memory(CommonErrorId::OUT_OF_MEMORY, "Out of memory");
    ScriptedSink sink(16);
    EXPECT_TRUE(chainIs({no_memory}));
    EXPECT_FALSE(sink.isValid());
    EXPECT_EQ(nullptr, sink.m_buffer);
    EXPECT_TRUE(sink.isOutputBuffered()) << "the requested mode";
    for (std::string const action : {"", "a", "a text that is longer than the buffer", FLUSH, FLUSH_BUFFER}) {
        EXPECT_EQ(action.find("flush") == 0 ? " failed" : " -1/0", perform(sink, action));
        EXPECT_TRUE(chainIs({no_memory, {IBinStreamBase::UNUSABLE, "Stream cannot be used"}}));
    }
}

TEST(IBinOutputStream, writingAllocatesNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    class Nowhere : public IBinOutputStream {
    public:
        Nowhere() : IBinOutputStream(true, 64) {}
        bool isValid() const override { return true; }
        unsigned int sum = 0;

    protected:
        bool performWrite(void const*, unsigned int size, unsigned int& written) override {
            written = size;
            sum += size;
            return false;
        }
        bool performFlush() override { return false; }
    } sink;
    char const block[100] = {};
    unsigned int written = 0;
    AllocationCounter const counter;
    for (unsigned int size = 0; size <= sizeof block; ++size) {
        sink.write(block, size, written);
    }
    sink.flush(false);
    EXPECT_EQ(0, counter.getCount());
    EXPECT_EQ(5050U, sink.sum);
}

} // namespace
