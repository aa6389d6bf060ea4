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
#include <string>
#include <type_traits>
#include <vector>

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

/// A sink that performs its steps, one a call, and then takes everything. It logs the calls: "?" for the hook, "[abc]"
/// for the bytes offered by a `performWrite`, "!" behind it if that is part of a flush, "FLUSH" for a `performFlush`.
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
constexpr char const* FLUSH_BUFFER = "flush the buffer";

/// Flushes, or writes any other text. Returns the calls of the sink, the result with the count of a write, and the bytes
/// held by the stream: "?[abc] 1/3 +de".
std::string perform(ScriptedSink& sink, std::string const& action) {
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

/// One action and the text that `perform` returns for it.
struct Action {
    char const* action;
    char const* seen;
};

/// The actions on one stream. Those that fail make `reports`.
struct Actions {
    Actions(
        char const* row_name, unsigned int size, std::deque<Step> sink_steps, std::vector<Action> all_actions,
        std::vector<ExpectedReport> all_reports = {}, bool is_blocking = true)
        : name(row_name),
          buffer_size(size),
          steps(std::move(sink_steps)),
          actions(std::move(all_actions)),
          reports(std::move(all_reports)),
          blocking(is_blocking) {}

    char const* name;
    unsigned int buffer_size;
    std::deque<Step> steps;
    std::vector<Action> actions;
    std::vector<ExpectedReport> reports;
    bool blocking;
};

void PrintTo(Actions const& row, std::ostream* out) {
    *out << row.name;
}

class IBinOutputStreamActions : public testing::TestWithParam<Actions> {};

TEST_P(IBinOutputStreamActions, reachTheSink) {
    ScriptedSink sink(GetParam().buffer_size, GetParam().steps, GetParam().blocking);
    for (auto const& [action, seen] : GetParam().actions) {
        EXPECT_EQ(seen, perform(sink, action)) << action;
        std::string const text = seen;
        bool const fails = text.find("-1/") != std::string::npos || text.find("failed") != std::string::npos;
        EXPECT_TRUE(chainIs(fails ? GetParam().reports : std::vector<ExpectedReport>())) << seen;
    }
}

ExpectedReport const CAUSE(CommonErrorId::OPEN_FILE_OPERATION_FAILED);
ExpectedReport const UNCLASSIFIED(IBinStreamBase::UNCLASSIFIED, "Unclassified stream failure");
ExpectedReport const NOT_NOW(IBinStreamBase::TRANSFER_FAILED, "Stream transfer failed");

INSTANTIATE_TEST_SUITE_P(
    Writing, IBinOutputStreamActions,
    testing::Values(
        Actions(
            "collectWhatFits", 8, {},
            {{"abc", "? 1/3 +abc"},
             {"def", " 1/3 +abcdef"},
             {"gh", " 1/2 +abcdefgh"},
             {"i", "?[abcdefgh] 1/1 +i"}}),
        Actions(
            "passTheBufferOnBeforeBytesThatDoNotFit", 8, {},
            {{"abcdef", "? 1/6 +abcdef"}, {"ghi", "?[abcdef] 1/3 +ghi"}}),
        Actions(
            "asLargeAsTheBufferBypassIt", 4, {},
            {{"abcd", "?[abcd] 1/4"}, {"e", "? 1/1 +e"}, {"fghij", "?[e][fghij] 1/5"}}),
        Actions("withoutABufferAllReachTheSink", 0, {}, {{"a", "?[a] 1/1"}, {"bcd", "?[bcd] 1/3"}}),
        Actions(
            "workWithABufferOfOneByte", 1, {},
            {{"a", "?[a] 1/1"}, {"bc", "?[bc] 1/2"}, {FLUSH, "FLUSH done"}}),
        Actions(
            "ofNothingAreCheckedByTheSinkAndLeaveTheBufferAlone", 4, {},
            {{"abc", "? 1/3 +abc"}, {"", "[] 1/0 +abc"}}),
        Actions(
            "ofNothingAreCheckedByTheSinkWithoutTheHook", 4, {{0}, {0, true}},
            {{"", "[] 1/0"}, {"", "[] -1/0"}}, {CAUSE, UNCLASSIFIED}),
        Actions(
            "ofNothingAreCheckedByTheSinkWithoutTheHookUnbuffered", 0, {{0}, {0, true}},
            {{"", "[] 1/0"}, {"", "[] -1/0"}}, {CAUSE, UNCLASSIFIED}),
        Actions(
            "callTheHookAgainAfterAFailureWithRoomInTheBuffer", 8, {{1, true}, {0, true}, {0, true}},
            {{"abc", "? 1/3 +abc"},
             {FLUSH_BUFFER, "?[abc]! failed +bc"},
             {"d", "? 1/1 +bcd"},
             {"efghijklm", "?[bcd] -1/0 +bcd"},
             {"e", "? 1/1 +bcde"},
             {FLUSH_BUFFER, "?[bcde]! failed +bcde"},
             {FLUSH_BUFFER, "?[bcde]! done"}},
            {CAUSE, UNCLASSIFIED}),
        Actions(
            "callTheHookBeforeTheFirstBufferedByte", 8, {},
            {{"a", "? 1/1 +a"}, {"b", " 1/1 +ab"}, {FLUSH, "?[ab]!FLUSH done"}, {"c", "? 1/1 +c"}}),
        Actions(
            "inBlockingModeContinueAfterShortWrites", 4, {{2}, {1}, {0}, {0}, {3}, {3}, {1}, {0}},
            {{"abcdefghi", "?[abcdefghi][cdefghi][defghi][defghi][defghi][ghi] 1/9"},
             {"jkl", "? 1/3 +jkl"},
             {"mn", "?[jkl][kl][kl] 1/2 +mn"}}),
        Actions(
            "inNonBlockingModeBufferWhatStillFits", 4, {{2}, {0}, {0}, {1}, {0}, {4}},
            {{"abcdefghi", "?[abcdefghi][cdefghi] 1/6 +cdef"},
             {"g", "?[cdef] 1/0 +cdef"},
             {"ghi", "?[cdef][def] 1/1 +defg"},
             {"hi", "?[defg] 1/2 +hi"},
             {FLUSH, "?[hi]!FLUSH done"}},
            {}, false),
        Actions(
            "inNonBlockingModeWithoutABufferAreShort", 0, {{2}, {0}, {0}},
            {{"abc", "?[abc][c] 1/2"}, {"c", "?[c] 1/0"}}, {}, false),
        Actions(
            "doNotOvertakeTheBytesThatANonBlockingSinkLeft", 4, {{0}},
            {{"ab", "? 1/2 +ab"}, {"cdefgh", "?[ab] 1/2 +abcd"}, {"efgh", "?[abcd][efgh] 1/4"}}, {}, false),
        Actions(
            "useTheRoomAtTheFrontWithoutAccessToTheSink", 4, {{2}, {0}},
            {{"abc", "? 1/3 +abc"}, {FLUSH_BUFFER, "?[abc]![c]! failed +c"}, {"def", "? 1/3 +cdef"}},
            {NOT_NOW}, false),
        Actions(
            "reportWhatWasTakenBeforeAFailure", 4, {{2}, {3, true}},
            {{"abcdefghi", "?[abcdefghi][cdefghi] -1/5"}, {"fghi", "?[fghi] 1/4"}}, {CAUSE, UNCLASSIFIED}),
        Actions(
            "reportWhatWasTakenBeforeAFailureUnbuffered", 0, {{2}, {3, true}},
            {{"abcdefghi", "?[abcdefghi][cdefghi] -1/5"}, {"fghi", "?[fghi] 1/4"}}, {CAUSE, UNCLASSIFIED}),
        Actions(
            "thatFailLoseNoBufferedByte", 4, {{2, true}, {0, true}},
            {{"abc", "? 1/3 +abc"},
             {"de", "?[abc] -1/0 +c"},
             {"defgh", "?[c] -1/0 +c"},
             {"de", "? 1/2 +cde"},
             {FLUSH, "?[cde]!FLUSH done"}},
            {CAUSE, UNCLASSIFIED})),
    [](auto const& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Flushing, IBinOutputStreamActions,
    testing::Values(
        Actions(
            "passesTheBufferOnAndThenFlushesTheSink", 8, {},
            {{"abc", "? 1/3 +abc"}, {FLUSH, "?[abc]!FLUSH done"}}),
        Actions(
            "ofTheBufferOnlyLeavesTheSinkAlone", 8, {},
            {{FLUSH_BUFFER, " done"}, {"abc", "? 1/3 +abc"}, {FLUSH_BUFFER, "?[abc]! done"}}),
        Actions(
            "thatCannotPassTheBufferOnKeepsTheRest", 8, {{1}, {1, true}},
            {{"abc", "? 1/3 +abc"}, {FLUSH, "?[abc]![bc]! failed +c"}, {FLUSH, "?[c]!FLUSH done"}},
            {CAUSE, UNCLASSIFIED}),
        Actions(
            "inBlockingModeContinuesAfterShortWrites", 8, {{1}, {0}, {1}},
            {{"abc", "? 1/3 +abc"}, {FLUSH, "?[abc]![bc]![bc]![c]!FLUSH done"}}),
        Actions(
            "inNonBlockingModeFailsIfItIsIncomplete", 8, {{1}, {1}, {0}},
            {{"abc", "? 1/3 +abc"}, {FLUSH, "?[abc]![bc]![c]! failed +c"}, {FLUSH, "?[c]!FLUSH done"}},
            {NOT_NOW}, false),
        Actions(
            "ofTheBufferInNonBlockingModeFailsIfItIsIncomplete", 8, {{1}, {1}, {0}},
            {{"abc", "? 1/3 +abc"},
             {FLUSH_BUFFER, "?[abc]![bc]![c]! failed +c"},
             {FLUSH_BUFFER, "?[c]! done"}},
            {NOT_NOW}, false),
        Actions(
            "marksItsWritesSoThatTheSinkMustTakeSomething", 4, {{0}, {3}, {0}, {3}},
            {{"abc", "? 1/3 +abc"},
             {FLUSH_BUFFER, "?[abc]![abc]! done"},
             {"defgh", "?[defgh][defgh][gh] 1/5"}}),
        Actions(
            "inNonBlockingModeMarksItsWritesSoThatTheSinkMustTakeSomething", 4, {{0}, {0}, {3}},
            {{"abc", "? 1/3 +abc"}, {FLUSH_BUFFER, "?[abc]! failed +abc"}, {"defgh", "?[abc] 1/1 +abcd"}},
            {NOT_NOW}, false)),
    [](auto const& row) { return row.param.name; });

TEST(IBinOutputStream, pendingReportIsReplacedByThatOfAnIncompleteFlush) {
    ScriptedSink sink(8, {{1}, {1}, {0}}, false);
    ErrorOutput("older", 1, true)(CommonErrorId::CONTRACT_BROKEN, "older");
    perform(sink, "abc");
    perform(sink, FLUSH);
    EXPECT_TRUE(chainIs({NOT_NOW}));
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
