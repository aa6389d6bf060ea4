#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/stream/IBinInputStream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::ErrorStorage;
using std::IBinInputStream;
using std::IBinStreamBase;
using support::AllocationCounter;
using support::chainIs;
using support::ExpectedReport;
using support::getSlot;
using support::New;
using support::NewFault;

constexpr int SUCCESS = -1;

/// What one `performRead` of the test's source does.
struct Step {
    std::string bytes;
    int stream_error = SUCCESS; // Or the id to fail with.
};

/// A source that plays its steps, one a call, and then is at its end.
class ScriptedSource : public IBinInputStream {
public:
    explicit ScriptedSource(unsigned int buffer_size, std::deque<Step> steps = {}, bool blocking = true)
        : IBinInputStream(blocking, buffer_size), m_steps(std::move(steps)) {}

    bool isValid() const override { return isReadBufferSound(); }

    std::vector<unsigned int> asked; // The size of every `performRead`.
    unsigned int read_ahead = 0;     // How many of them were for the stream's own buffer.
    int checks = 0;                  // Calls of the hook.
    bool inconsistent = false;       // What the hook says.

    bool getBlocking() const { return m_blocking; }
    unsigned int getHeld() const { return m_end - m_pos; }
    bool hasBuffer() const { return m_buffer != nullptr; }
    unsigned int getBufferSize() const { return m_buffer_size; }
    void dropReadAhead() { m_pos = m_end = 0; }

    bool originalCheck() { return IBinInputStream::checkReadBufferConsistency(); }

protected:
    bool checkReadBufferConsistency() override {
        ++checks;
        auto const accesses = asked.size() - static_cast<size_t>(std::count(asked.begin(), asked.end(), 0U));
        EXPECT_EQ(accesses + 1, static_cast<size_t>(checks)) << "before each access to the source";
        if (inconsistent) {
            ErrorOutput("test", __LINE__, true)(std::IBinStreamBase::StreamErrorId::TRANSFER_FAILED);
        }
        return inconsistent;
    }

    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        EXPECT_EQ(0U, read);
        asked.push_back(size);
        read_ahead += buffer != nullptr && buffer == m_buffer ? 1 : 0;
        if (m_steps.empty()) {
            if (size == 0) {
                return false;
            }
            ErrorOutput("test", __LINE__, true)(std::IBinStreamBase::StreamErrorId::END_OF_STREAM);
            return true;
        }
        Step& step = m_steps.front();
        read = std::min(size, static_cast<unsigned int>(step.bytes.size()));
        if (read != 0) {
            memcpy(buffer, step.bytes.data(), read);
        }
        int const error = step.stream_error;
        step.bytes.erase(0, read);
        if (step.bytes.empty()) {
            m_steps.pop_front();
        }
        if (error != SUCCESS) {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::OPEN_FILE_OPERATION_FAILED, "cause");
            ErrorOutput("test", __LINE__, false)(StreamError, error);
        }
        return error != SUCCESS;
    }

private:
    std::deque<Step> m_steps;
};

/// The result of one `read` with everything that it told.
struct Got {
    int result;
    std::string bytes;

    bool operator==(Got const& other) const { return result == other.result && bytes == other.bytes; }
};

void PrintTo(Got const& got, std::ostream* out) {
    *out << got.result << " '" << got.bytes << "'";
}

Got readFrom(IBinInputStream& stream, unsigned int size) {
    std::string block(size + 1, '#');
    unsigned int count = 12345;
    int const result = stream.read(&block[0], size, count);
    EXPECT_LE(count, size);
    EXPECT_EQ('#', block[size]);
    EXPECT_EQ(std::string(size - count, '#'), block.substr(count, size - count))
        << "nothing behind the count";
    return {result, block.substr(0, count)};
}

using Sizes = std::vector<unsigned int>;

std::string textOf(int id) {
    return IBinStreamBase::StreamError.getRow(id)->format;
}

// ---- the family ----

TEST(StreamError, hasItsTexts) {
    EXPECT_EQ("Stream cannot be used", textOf(0));
    EXPECT_EQ("Stream transfer failed", textOf(1));
    EXPECT_EQ("End of stream", textOf(2));
    EXPECT_EQ("Operation is not supported by the stream", textOf(3));
    EXPECT_EQ("Unclassified stream failure", textOf(4));
    EXPECT_EQ(nullptr, IBinStreamBase::StreamError.getRow(5));
    for (int id = 0; id < 5; ++id) {
        EXPECT_EQ(id, IBinStreamBase::StreamError.getRow(id)->id);
        EXPECT_EQ(0, IBinStreamBase::StreamError.getRow(id)->nargs);
    }
    EXPECT_FALSE(IBinStreamBase::StreamError.isA(CommonError));
}

// ---- the class ----

/// Gives access to the operations that are for deriving classes alone.
class Slots : public IBinInputStream {
public:
    using IBinInputStream::checkReadBufferConsistency;
    using IBinInputStream::performRead;
};

TEST(IBinInputStream, operationsHaveTheirSlots) {
    EXPECT_EQ(2, getSlot(&IBinStreamBase::isValid)) << "behind the two of the destructor";
    EXPECT_EQ(2, getSlot(&IBinInputStream::isValid));
    EXPECT_EQ(3, getSlot(&Slots::checkReadBufferConsistency));
    EXPECT_EQ(4, getSlot(&Slots::performRead));
}

TEST(IBinInputStream, isNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<ScriptedSource>);
    EXPECT_FALSE(std::is_copy_assignable_v<ScriptedSource>);
    EXPECT_TRUE((std::is_convertible_v<IBinInputStream*, IBinStreamBase*>));
    EXPECT_TRUE(std::has_virtual_destructor_v<IBinStreamBase>);
}

TEST(IBinInputStream, constructorTellsModeAndBuffer) {
    ScriptedSource const buffered(16, {}, false);
    EXPECT_FALSE(buffered.getBlocking());
    EXPECT_TRUE(buffered.isInputBuffered());
    EXPECT_TRUE(buffered.hasBuffer());
    EXPECT_EQ(16U, buffered.getBufferSize());
    ScriptedSource const unbuffered(0, {}, true);
    EXPECT_TRUE(unbuffered.getBlocking());
    EXPECT_FALSE(unbuffered.isInputBuffered());
    EXPECT_FALSE(unbuffered.hasBuffer());
    EXPECT_TRUE(unbuffered.isValid());
}

TEST(IBinInputStream, ownHookLetsEverythingPass) {
    ScriptedSource source(0);
    EXPECT_FALSE(source.originalCheck());
}

TEST(IBinInputStream, readsAheadOneBufferAndGivesItInPieces) {
    ScriptedSource source(8, {{"abcdefghijkl"}});
    EXPECT_EQ((Got{1, "abc"}), readFrom(source, 3));
    EXPECT_EQ(5U, source.getHeld());
    EXPECT_EQ((Got{1, "de"}), readFrom(source, 2));
    EXPECT_EQ((Got{1, "fgh"}), readFrom(source, 3));
    EXPECT_EQ((Sizes{8}), source.asked);
    EXPECT_EQ((Got{1, "ij"}), readFrom(source, 2));
    EXPECT_EQ((Sizes{8, 8}), source.asked);
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinInputStream, givesWhatIsHeldAndDoesNotWaitForMore) {
    ScriptedSource source(8, {{"abcdefgh"}, {"ij"}});
    EXPECT_EQ((Got{1, "abcdef"}), readFrom(source, 6));
    EXPECT_EQ((Got{1, "gh"}), readFrom(source, 100));
    EXPECT_EQ((Sizes{8}), source.asked);
}

TEST(IBinInputStream, givesWhatOneCallBroughtAndDoesNotWaitForMore) {
    ScriptedSource source(8, {{"ab"}, {"cd"}});
    EXPECT_EQ((Got{1, "ab"}), readFrom(source, 5));
    EXPECT_EQ((Sizes{8}), source.asked);
    EXPECT_EQ((Got{1, "cd"}), readFrom(source, 5));
}

TEST(IBinInputStream, requestAsLargeAsTheBufferBypassesIt) {
    ScriptedSource source(4, {{"abcdefghijklmnop"}});
    EXPECT_EQ((Got{1, "abcd"}), readFrom(source, 4));
    EXPECT_EQ((Got{1, "efghij"}), readFrom(source, 6));
    EXPECT_EQ(0U, source.getHeld());
    EXPECT_EQ((Sizes{4, 6}), source.asked);
    EXPECT_EQ(0U, source.read_ahead);
    EXPECT_EQ((Got{1, "klm"}), readFrom(source, 3));
    EXPECT_EQ(1U, source.getHeld());
    EXPECT_EQ(1U, source.read_ahead);
}

TEST(IBinInputStream, unbufferedOnePassesEveryRequestOn) {
    ScriptedSource source(0, {{"abcdef"}});
    EXPECT_EQ((Got{1, "a"}), readFrom(source, 1));
    EXPECT_EQ((Got{1, "bcd"}), readFrom(source, 3));
    EXPECT_EQ((Sizes{1, 3}), source.asked);
    EXPECT_EQ(2, source.checks);
}

TEST(IBinInputStream, bufferOfOneByteWorks) {
    ScriptedSource source(1, {{"abc"}});
    EXPECT_EQ((Got{1, "a"}), readFrom(source, 1));
    EXPECT_EQ((Got{1, "bc"}), readFrom(source, 2));
    EXPECT_EQ((Got{0, ""}), readFrom(source, 1));
    EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::END_OF_STREAM, "End of stream"}}));
}

TEST(IBinInputStream, endIsZeroWithItsReportPending) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size);
        EXPECT_EQ((Got{0, ""}), readFrom(source, 3));
        EXPECT_TRUE(ErrorStorage::isA(IBinStreamBase::StreamError));
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::END_OF_STREAM, "End of stream"}}));
        EXPECT_EQ((Got{0, ""}), readFrom(source, 100));
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::END_OF_STREAM, "End of stream"}}));
    }
}

TEST(IBinInputStream, readingNothingAtTheEndIsSuccess) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size);
        EXPECT_EQ((Got{1, ""}), readFrom(source, 0));
        EXPECT_EQ((Sizes{0}), source.asked) << "not as much as the buffer";
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IBinInputStream, readingNothingNeedsNoRoomAndTakesNothing) {
    ScriptedSource source(8, {{"abc"}});
    unsigned int count = 12345;
    EXPECT_EQ(1, source.read(nullptr, 0, count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ((Got{1, "a"}), readFrom(source, 1));
    count = 12345;
    EXPECT_EQ(1, source.read(nullptr, 0, count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ((Sizes{0, 8, 0}), source.asked);
    EXPECT_EQ(1, source.checks) << "not for nothing";
    EXPECT_EQ((Got{1, "bc"}), readFrom(source, 5));
}

TEST(IBinInputStream, nothingThereInNonBlockingModeIsSuccess) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size, {{""}, {"ab"}}, false);
        EXPECT_EQ((Got{1, ""}), readFrom(source, 3));
        EXPECT_EQ(1U, source.asked.size()) << "one call, no waiting";
        EXPECT_EQ((Got{1, "ab"}), readFrom(source, 3));
        EXPECT_TRUE(chainIs({}));
    }
}

TEST(IBinInputStream, whatCameBeforeTheEndIsDelivered) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size, {{"ab", 2}});
        EXPECT_EQ((Got{0, "ab"}), readFrom(source, 3));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OPEN_FILE_OPERATION_FAILED}, {IBinStreamBase::StreamErrorId::END_OF_STREAM}}));
    }
}

TEST(IBinInputStream, whatCameBeforeAFailureIsDeliveredAlsoWhatWasReadAhead) {
    ScriptedSource source(8, {{"abcde", 1}, {"fg"}});
    EXPECT_EQ((Got{-1, "ab"}), readFrom(source, 2));
    EXPECT_TRUE(chainIs(
        {{CommonErrorId::OPEN_FILE_OPERATION_FAILED},
         {IBinStreamBase::StreamErrorId::TRANSFER_FAILED, "Stream transfer failed"}}));
    EXPECT_EQ((Got{1, "cde"}), readFrom(source, 5));
    EXPECT_EQ((Got{1, "fg"}), readFrom(source, 5));
    EXPECT_TRUE(chainIs({}));
}

class IBinInputStreamFailures : public testing::TestWithParam<int> {};

TEST_P(IBinInputStreamFailures, areMinusOneWithTheSourcesReports) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size, {{"", GetParam()}, {"ab"}});
        EXPECT_EQ((Got{-1, ""}), readFrom(source, 3));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OPEN_FILE_OPERATION_FAILED},
             {IBinStreamBase::StreamError, GetParam(), textOf(GetParam())}}));
        EXPECT_EQ((Got{1, "ab"}), readFrom(source, 3)) << "the stream goes on";
    }
}

INSTANTIATE_TEST_SUITE_P(All, IBinInputStreamFailures, testing::Values(0, 1, 3, 4));

TEST(IBinInputStream, secondIdOfAnotherFamilyIsNoEnd) {
    class Other : public IBinInputStream {
    public:
        Other() : IBinInputStream(true, 0) {}
        bool isValid() const override { return true; }

    protected:
        bool performRead(void*, unsigned int, unsigned int&) override {
            ErrorOutput("test", __LINE__, true)(CommonErrorId::INTERNAL_FAILURE);
            return true;
        }
    } source;
    EXPECT_EQ((Got{-1, ""}), readFrom(source, 3));
    EXPECT_TRUE(chainIs({{CommonErrorId::INTERNAL_FAILURE}}));
}

TEST(IBinInputStream, hookIsAskedOnlyBeforeTheSourceIsTouched) {
    ScriptedSource source(4, {{"abcdef"}});
    readFrom(source, 1);
    readFrom(source, 1);
    readFrom(source, 9);
    EXPECT_EQ(1, source.checks);
    readFrom(source, 1);
    EXPECT_EQ(2, source.checks);
}

TEST(IBinInputStream, hookCanForbidReading) {
    for (unsigned int const size : {0U, 4U}) {
        ScriptedSource source(size, {{"abcdef"}});
        source.inconsistent = true;
        EXPECT_EQ((Got{-1, ""}), readFrom(source, 2));
        EXPECT_TRUE(chainIs({{IBinStreamBase::StreamErrorId::TRANSFER_FAILED}}));
        EXPECT_TRUE(source.asked.empty());
    }
}

TEST(IBinInputStream, bufferThatAClassEmptiesIsFilledAnew) {
    ScriptedSource source(4, {{"abcdefgh"}});
    EXPECT_EQ((Got{1, "ab"}), readFrom(source, 2));
    source.dropReadAhead();
    EXPECT_EQ((Got{1, "ef"}), readFrom(source, 2));
}

TEST(IBinInputStream, withoutMemoryForItsBufferIsInvalid) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    ScriptedSource source(16, {{"abc"}});
    EXPECT_TRUE(chainIs({{CommonErrorId::OUT_OF_MEMORY, "Out of memory"}}));
    EXPECT_FALSE(source.isValid());
    EXPECT_FALSE(source.hasBuffer());
    EXPECT_TRUE(source.isInputBuffered()) << "it was meant to be";
    for (unsigned int const size : {0U, 1U, 100U}) {
        EXPECT_EQ((Got{-1, ""}), readFrom(source, size));
        EXPECT_TRUE(chainIs(
            {{CommonErrorId::OUT_OF_MEMORY, "Out of memory"},
             {IBinStreamBase::StreamErrorId::UNUSABLE, "Stream cannot be used"}}));
    }
    EXPECT_TRUE(source.asked.empty());
    EXPECT_EQ(0, source.checks);
}

TEST(IBinInputStream, unbufferedOneNeedsNoMemory) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    ScriptedSource source(0, {{"abc"}});
    EXPECT_TRUE(source.isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinInputStream, readingAllocatesNothing) {
    if (!support::COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    class Zeros : public IBinInputStream {
    public:
        Zeros() : IBinInputStream(true, 64) {}
        bool isValid() const override { return true; }

    protected:
        bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
            memset(buffer, 0, size);
            read = size;
            return false;
        }
    } source;
    char block[100];
    unsigned int count = 0;
    unsigned int sum = 0;
    AllocationCounter const counter;
    for (unsigned int size = 0; size <= sizeof block; ++size) {
        source.read(block, size, count);
        sum += count;
    }
    EXPECT_EQ(0, counter.getCount());
    EXPECT_GT(sum, 1000U);
}

} // namespace
