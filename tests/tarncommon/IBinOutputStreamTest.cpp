#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/stream/IBinOutputStream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::IBinOutputStream;
using std::IBinStreamBase;
using support::AllocationCounter;
using support::chainIs;
using support::getSlot;
using support::New;
using support::NewFault;

/// What one `performWrite` of the test's sink does: it takes up to `most` bytes, and perhaps fails then.
struct Step {
    unsigned int most;
    bool fails = false;
};

using Calls = std::vector<std::string>;

/// A sink that plays its steps, one a call, and then takes everything.
class ScriptedSink : public IBinOutputStream {
public:
    explicit ScriptedSink(unsigned int buffer_size, std::deque<Step> steps = {}, bool blocking = true)
        : IBinOutputStream(blocking, buffer_size), m_steps(std::move(steps)) {}

    bool isValid() const override { return is_open && isWriteBufferSound(); }

    bool is_open = true;
    std::string taken;         // What the sink has.
    Calls calls;               // The bytes offered by each `performWrite`, "FLUSH" for each `performFlush`.
    int checks = 0;            // Calls of the hook.
    bool inconsistent = false; // What the hook says.
    bool flush_fails = false;
    int flushing = 0; // Calls of `performWrite` out of a flush.

    void script(std::deque<Step> steps) { m_steps = std::move(steps); }
    bool getBlocking() const { return m_blocking; }
    std::string getHeld() const {
        return {reinterpret_cast<char const*>(m_buffer) + m_pos, static_cast<size_t>(m_end - m_pos)};
    }
    bool isEmpty() const { return m_pos == m_end; }
    bool hasBuffer() const { return m_buffer != nullptr; }
    bool originalCheck() { return IBinOutputStream::checkWriteBufferConsistency(); }

protected:
    bool checkWriteBufferConsistency() override {
        ++checks;
        if (inconsistent) {
            ErrorOutput("test", __LINE__, true)(std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED);
        }
        return inconsistent;
    }

    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override {
        EXPECT_EQ(0U, written);
        EXPECT_TRUE(size == 0 || checks != 0 || !is_open) << "the hook comes first";
        std::string const offered(static_cast<char const*>(buffer), size);
        calls.push_back(offered);
        flushing += m_flushing ? 1 : 0;
        Step const step = m_steps.empty() ? Step{size} : m_steps.front();
        if (!m_steps.empty()) {
            m_steps.pop_front();
        }
        written = std::min(size, step.most);
        taken += offered.substr(0, written);
        if (step.fails) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "cause");
            ErrorOutput("test", __LINE__, false)(std::IBinStreamBase::StreamErrorId::UNCLASSIFIED);
        }
        return step.fails;
    }

    bool performFlush() override {
        calls.push_back("FLUSH");
        if (flush_fails) {
            ErrorOutput("test", __LINE__, true)(std::IBinStreamBase::StreamErrorId::NOT_SUPPORTED);
        }
        return flush_fails;
    }

private:
    std::deque<Step> m_steps;
};

/// The result of one `write` with the count that it told.
struct Put {
    int result;
    unsigned int written;

    bool operator==(Put const& other) const { return result == other.result && written == other.written; }
};

void PrintTo(Put const& put, std::ostream* out) {
    *out << put.result << " written " << put.written;
}

Put writeTo(IBinOutputStream& stream, std::string const& bytes) {
    unsigned int written = 12345;
    int const result = stream.write(bytes.data(), static_cast<unsigned int>(bytes.size()), written);
    return {result, written};
}

/// Gives access to the operations that are for deriving classes alone.
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
    EXPECT_FALSE(std::is_copy_constructible_v<ScriptedSink>);
    EXPECT_FALSE(std::is_copy_assignable_v<ScriptedSink>);
}

TEST(IBinOutputStream, constructorTellsModeAndBuffer) {
    ScriptedSink const buffered(16, {}, false);
    EXPECT_FALSE(buffered.getBlocking());
    EXPECT_TRUE(buffered.isOutputBuffered());
    EXPECT_TRUE(buffered.hasBuffer());
    ScriptedSink const unbuffered(0, {}, true);
    EXPECT_TRUE(unbuffered.getBlocking());
    EXPECT_FALSE(unbuffered.isOutputBuffered());
    EXPECT_FALSE(unbuffered.hasBuffer());
    EXPECT_TRUE(unbuffered.isValid());
}

TEST(IBinOutputStream, ownHookLetsEverythingPass) {
    ScriptedSink sink(0);
    EXPECT_FALSE(sink.originalCheck());
}

TEST(IBinOutputStream, collectsWhatFits) {
    ScriptedSink sink(8);
    EXPECT_EQ((Put{1, 3}), writeTo(sink, "abc"));
    EXPECT_EQ((Put{1, 3}), writeTo(sink, "def"));
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "gh"));
    EXPECT_EQ("abcdefgh", sink.getHeld());
    EXPECT_EQ((Calls{}), sink.calls);
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "i"));
    EXPECT_EQ((Calls{"abcdefgh"}), sink.calls);
    EXPECT_EQ("i", sink.getHeld());
}

TEST(IBinOutputStream, passesTheBufferOnBeforeWhatDoesNotFit) {
    ScriptedSink sink(8);
    writeTo(sink, "abcdef");
    EXPECT_EQ((Put{1, 3}), writeTo(sink, "ghi"));
    EXPECT_EQ((Calls{"abcdef"}), sink.calls);
    EXPECT_EQ("ghi", sink.getHeld());
}

TEST(IBinOutputStream, requestAsLargeAsTheBufferBypassesIt) {
    ScriptedSink sink(4);
    EXPECT_EQ((Put{1, 4}), writeTo(sink, "abcd"));
    EXPECT_EQ((Calls{"abcd"}), sink.calls);
    EXPECT_TRUE(sink.isEmpty());
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "e"));
    EXPECT_EQ((Put{1, 5}), writeTo(sink, "fghij"));
    EXPECT_EQ((Calls{"abcd", "e", "fghij"}), sink.calls);
    EXPECT_TRUE(sink.isEmpty());
}

TEST(IBinOutputStream, unbufferedOnePassesEveryRequestOn) {
    ScriptedSink sink(0);
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "a"));
    EXPECT_EQ((Put{1, 3}), writeTo(sink, "bcd"));
    EXPECT_EQ((Calls{"a", "bcd"}), sink.calls);
    EXPECT_EQ(2, sink.checks);
}

TEST(IBinOutputStream, writingNothingIsCheckedByTheSinkAndLeavesTheBufferAlone) {
    for (unsigned int const size : {0U, 4U}) {
        ScriptedSink sink(size, {{0}, {0, true}});
        sink.inconsistent = true;
        unsigned int written = 12345;
        EXPECT_EQ(1, sink.write(nullptr, 0, written));
        EXPECT_EQ(0U, written);
        EXPECT_TRUE(chainIs({}));
        EXPECT_EQ((Put{-1, 0}), writeTo(sink, "")) << "as on a closed one";
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
        EXPECT_EQ((Calls{"", ""}), sink.calls);
        EXPECT_EQ(0, sink.checks);
    }
    ScriptedSink sink(4);
    writeTo(sink, "abc");
    EXPECT_EQ((Put{1, 0}), writeTo(sink, ""));
    EXPECT_EQ((Calls{""}), sink.calls);
    EXPECT_EQ("abc", sink.getHeld());
}

TEST(IBinOutputStream, oneThatIsNotOpenKeepsNothing) {
    ScriptedSink sink(4, {{0, true}, {0, true}});
    sink.is_open = false;
    for (std::string const bytes : {"a", "abcdef"}) {
        EXPECT_EQ((Put{-1, 0}), writeTo(sink, bytes));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::StreamErrorId::UNCLASSIFIED}}))
            << "the sink tells why";
        EXPECT_TRUE(sink.isEmpty());
        EXPECT_EQ(0, sink.checks);
    }
}

TEST(IBinOutputStream, flushTellsItsSinkThatTakingNothingIsAFailure) {
    for (bool const blocking : {true, false}) {
        ScriptedSink sink(4, {{0}}, blocking);
        writeTo(sink, "abc");
        EXPECT_EQ(!blocking, sink.flush(true));
        EXPECT_EQ(!blocking, chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_EQ(blocking ? 2 : 1, sink.flushing);
        sink.script({{0}, {3}});
        writeTo(sink, "defgh");
        EXPECT_EQ(blocking ? 2 : 1, sink.flushing) << "a write may be short";
    }
}

TEST(IBinOutputStream, hookIsAskedAgainBehindAFailureWithRoomInTheBuffer) {
    ScriptedSink sink(8);
    writeTo(sink, "abc");
    sink.script({{1, true}, {0, true}});
    EXPECT_TRUE(sink.flush(true));
    int checks = sink.checks;
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "d"));
    EXPECT_EQ(checks + 1, sink.checks);
    EXPECT_EQ((Put{-1, 0}), writeTo(sink, "efghijklm"));
    checks = sink.checks;
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "e"));
    EXPECT_EQ(checks + 1, sink.checks);
    std::ErrorStorage::ack();
    EXPECT_FALSE(sink.flush(true));
    EXPECT_EQ("abcde", sink.taken);
}

TEST(IBinOutputStream, bufferOfOneByteWorks) {
    ScriptedSink sink(1);
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "a"));
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "bc"));
    EXPECT_FALSE(sink.flush(false));
    EXPECT_EQ("abc", sink.taken);
}

TEST(IBinOutputStream, blockingOneGoesOnAfterShortWrites) {
    ScriptedSink sink(4, {{2}, {1}, {0}, {0}, {3}});
    EXPECT_EQ((Put{1, 9}), writeTo(sink, "abcdefghi"));
    EXPECT_EQ("abcdefghi", sink.taken);
    EXPECT_EQ((Calls{"abcdefghi", "cdefghi", "defghi", "defghi", "defghi", "ghi"}), sink.calls);
    sink.calls.clear();
    writeTo(sink, "jkl");
    sink.script({{1}, {0}});
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "mn"));
    EXPECT_EQ((Calls{"jkl", "kl", "kl"}), sink.calls);
    EXPECT_EQ("mn", sink.getHeld());
}

TEST(IBinOutputStream, nonBlockingOneBuffersWhatStillFits) {
    ScriptedSink sink(4, {{2}, {0}}, false);
    EXPECT_EQ((Put{1, 6}), writeTo(sink, "abcdefghi"));
    EXPECT_EQ("ab", sink.taken);
    EXPECT_EQ("cdef", sink.getHeld());
    sink.script({{0}});
    EXPECT_EQ((Put{1, 0}), writeTo(sink, "g")) << "full, and the sink takes nothing";
    sink.script({{1}, {0}});
    EXPECT_EQ((Put{1, 1}), writeTo(sink, "ghi"));
    EXPECT_EQ("defg", sink.getHeld()) << "room made by what was passed on";
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "hi"));
    EXPECT_EQ("abcdefg", sink.taken);
    EXPECT_FALSE(sink.flush(false));
    EXPECT_EQ("abcdefghi", sink.taken);
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinOutputStream, nonBlockingOneWithoutABufferIsShort) {
    ScriptedSink sink(0, {{2}, {0}, {0}}, false);
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "abc"));
    EXPECT_EQ((Put{1, 0}), writeTo(sink, "c"));
    EXPECT_EQ("ab", sink.taken);
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinOutputStream, largeRequestDoesNotOvertakeWhatANonBlockingSinkLeft) {
    ScriptedSink sink(4, {{0}}, false);
    writeTo(sink, "ab");
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "cdefgh"));
    EXPECT_EQ((Calls{"ab"}), sink.calls);
    EXPECT_EQ("abcd", sink.getHeld());
    EXPECT_EQ((Put{1, 4}), writeTo(sink, "efgh"));
    EXPECT_EQ("abcdefgh", sink.taken);
}

TEST(IBinOutputStream, roomAtTheFrontIsUsedWithoutAskingTheSink) {
    ScriptedSink sink(4, {{2}, {0}}, false);
    writeTo(sink, "abc");
    EXPECT_TRUE(sink.flush(true));
    EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    sink.calls.clear();
    EXPECT_EQ((Put{1, 3}), writeTo(sink, "def"));
    EXPECT_EQ((Calls{}), sink.calls);
    EXPECT_EQ("cdef", sink.getHeld());
}

TEST(IBinOutputStream, failureTellsWhatWasTakenOfTheRequest) {
    for (unsigned int const size : {0U, 4U}) {
        ScriptedSink sink(size, {{2}, {3, true}});
        EXPECT_EQ((Put{-1, 5}), writeTo(sink, "abcdefghi"));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OPEN_FILE_OPERATION_FAILED},
             {IBinStreamBase::StreamErrorId::UNCLASSIFIED, "Unclassified stream failure"}}));
        EXPECT_EQ("abcde", sink.taken);
        EXPECT_TRUE(sink.isEmpty());
        EXPECT_EQ((Put{1, 4}), writeTo(sink, "fghi"));
        EXPECT_EQ("abcdefghi", sink.taken);
    }
}

TEST(IBinOutputStream, failureLosesNothingThatWasBuffered) {
    ScriptedSink sink(4);
    writeTo(sink, "abc");
    sink.script({{2, true}});
    EXPECT_EQ((Put{-1, 0}), writeTo(sink, "de"));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
    EXPECT_EQ("c", sink.getHeld());
    sink.script({{0, true}});
    EXPECT_EQ((Put{-1, 0}), writeTo(sink, "defgh"));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
    EXPECT_EQ("c", sink.getHeld());
    EXPECT_EQ((Put{1, 2}), writeTo(sink, "de"));
    EXPECT_FALSE(sink.flush(false));
    EXPECT_EQ("abcde", sink.taken);
}

TEST(IBinOutputStream, flushPassesTheBufferOnAndThenFlushesTheSink) {
    ScriptedSink sink(8);
    writeTo(sink, "abc");
    EXPECT_FALSE(sink.flush(false));
    EXPECT_EQ((Calls{"abc", "FLUSH"}), sink.calls);
    EXPECT_TRUE(sink.isEmpty());
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinOutputStream, flushOfTheBufferOnlyLeavesTheSinkAlone) {
    ScriptedSink sink(8);
    EXPECT_FALSE(sink.flush(true));
    EXPECT_EQ((Calls{}), sink.calls);
    writeTo(sink, "abc");
    EXPECT_FALSE(sink.flush(true));
    EXPECT_EQ((Calls{"abc"}), sink.calls);
}

TEST(IBinOutputStream, flushWithNothingHeldFlushesTheSinkAndDoesNotAskTheHook) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSink sink(size);
        sink.inconsistent = true;
        EXPECT_FALSE(sink.flush(false));
        EXPECT_EQ((Calls{"FLUSH"}), sink.calls);
        EXPECT_EQ(0, sink.checks);
    }
}

TEST(IBinOutputStream, flushOfTheSinkCanFail) {
    ScriptedSink sink(8);
    writeTo(sink, "abc");
    sink.flush_fails = true;
    EXPECT_TRUE(sink.flush(false));
    EXPECT_TRUE(chainIs(
        {{IBinStreamBase::StreamErrorId::NOT_SUPPORTED, "Operation is not supported by the stream"}}));
    EXPECT_EQ("abc", sink.taken);
    EXPECT_TRUE(sink.isEmpty());
}

TEST(IBinOutputStream, flushThatCannotPassTheBufferOnKeepsTheRest) {
    ScriptedSink sink(8, {{1}, {1, true}});
    writeTo(sink, "abc");
    EXPECT_TRUE(sink.flush(false));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::StreamErrorId::UNCLASSIFIED}}));
    EXPECT_EQ("c", sink.getHeld());
    EXPECT_EQ((Calls{"abc", "bc"}), sink.calls) << "the sink is not flushed";
    EXPECT_FALSE(sink.flush(false));
    EXPECT_EQ("abc", sink.taken);
}

TEST(IBinOutputStream, flushOfABlockingOneGoesOnAfterShortWrites) {
    ScriptedSink sink(8, {{1}, {0}, {1}});
    writeTo(sink, "abc");
    EXPECT_FALSE(sink.flush(false));
    EXPECT_EQ((Calls{"abc", "bc", "bc", "c", "FLUSH"}), sink.calls);
}

TEST(IBinOutputStream, nonBlockingFlushThatIsNotDoneIsAFailureOfItsOwn) {
    for (bool const buffer_only : {false, true}) {
        ScriptedSink sink(8, {{1}, {1}, {0}}, false);
        ErrorOutput("older", 1, true)(CommonErrorId::CONTRACT_BROKEN, "older");
        writeTo(sink, "abc");
        EXPECT_TRUE(sink.flush(buffer_only));
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED, "Stream transfer failed"}}));
        EXPECT_EQ("c", sink.getHeld());
        EXPECT_EQ((Calls{"abc", "bc", "c"}), sink.calls);
        EXPECT_FALSE(sink.flush(buffer_only));
        EXPECT_EQ("abc", sink.taken);
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IBinOutputStream, hookIsAskedBeforeTheFirstByteIsBuffered) {
    ScriptedSink sink(8);
    writeTo(sink, "a");
    EXPECT_EQ(1, sink.checks);
    writeTo(sink, "b");
    EXPECT_EQ(1, sink.checks) << "writing was the last direction";
    EXPECT_FALSE(sink.flush(false));
    int const checks = sink.checks;
    writeTo(sink, "c");
    EXPECT_EQ(checks + 1, sink.checks);
}

TEST(IBinOutputStream, hookCanForbidWriting) {
    for (unsigned int const size : {0U, 4U}) {
        ScriptedSink sink(size);
        sink.inconsistent = true;
        EXPECT_EQ((Put{-1, 0}), writeTo(sink, "ab"));
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_EQ((Put{-1, 0}), writeTo(sink, "abcdef"));
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_EQ((Calls{}), sink.calls);
        EXPECT_TRUE(sink.isEmpty());
    }
}

TEST(IBinOutputStream, hookCanForbidFlushing) {
    ScriptedSink sink(4);
    writeTo(sink, "ab");
    sink.inconsistent = true;
    EXPECT_TRUE(sink.flush(false));
    EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
    EXPECT_EQ((Calls{}), sink.calls);
    EXPECT_EQ("ab", sink.getHeld());
}

TEST(IBinOutputStream, destroyedOneDropsWhatItHoldsInsteadOfCallingASinkThatIsGone) {
    {
        ScriptedSink sink(4);
        writeTo(sink, "ab");
        EXPECT_EQ("ab", sink.getHeld());
    }
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinOutputStream, withoutMemoryForItsBufferIsInvalid) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    ScriptedSink sink(16);
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY, "Out of memory"}}));
    EXPECT_FALSE(sink.isValid());
    EXPECT_FALSE(sink.hasBuffer());
    EXPECT_TRUE(sink.isOutputBuffered()) << "it was meant to be";
    for (char const* const bytes : {"", "a", "a text that is longer than the buffer"}) {
        EXPECT_EQ((Put{-1, 0}), writeTo(sink, bytes));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OUT_OF_MEMORY, "Out of memory"},
             {IBinStreamBase::StreamErrorId::UNUSABLE, "Stream cannot be used"}}));
    }
    for (bool const buffer_only : {false, true}) {
        EXPECT_TRUE(sink.flush(buffer_only));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OUT_OF_MEMORY, "Out of memory"},
             {IBinStreamBase::StreamErrorId::UNUSABLE, "Stream cannot be used"}}));
    }
    EXPECT_EQ((Calls{}), sink.calls);
    EXPECT_EQ(0, sink.checks);
}

TEST(IBinOutputStream, writingAllocatesNothing) {
    if (!support::COUNTS_ALLOCATIONS) {
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
