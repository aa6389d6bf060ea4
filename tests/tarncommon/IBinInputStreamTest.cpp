#include "support/AllocationCounter.h"
#include "support/Chain.h"
#include "support/NewFault.h"
#include "support/VtableSlot.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/stream/IBinInputStream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

namespace CommonErrorId = std::CommonErrorId;
using std::ErrorOutput;
using std::IBinInputStream;
using std::IBinStreamBase;
using namespace support;

constexpr int SUCCESS = -1;

/// What one `performRead` of the test's source does.
struct Step {
    std::string bytes;
    int stream_error = SUCCESS; // Or the id to fail with.
};

/// A source that performs its steps, one a call, and then is at its end. It logs the calls: "?" for the hook,
/// "[n]" for a read of n bytes into the stream's own buffer, "(n)" for one into the memory of the caller.
class ScriptedSource : public IBinInputStream {
public:
    explicit ScriptedSource(unsigned int buffer_size, std::deque<Step> steps = {}, bool blocking = true)
        : IBinInputStream(blocking, buffer_size), m_steps(std::move(steps)) {}

    bool isValid() const override { return isReadBufferSound(); }

    std::string log;
    bool inconsistent = false; // The result of the hook.

    using IBinInputStream::m_blocking;
    using IBinInputStream::m_buffer;
    using IBinInputStream::m_buffer_size;
    void dropReadAhead() { m_pos = m_end = 0; }
    bool originalCheck() { return IBinInputStream::checkReadBufferConsistency(); }

protected:
    bool checkReadBufferConsistency() override {
        log += '?';
        if (inconsistent) {
            ErrorOutput("test", __LINE__, true)(StreamErrorId::TRANSFER_FAILED);
        }
        return inconsistent;
    }

    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        EXPECT_EQ(0U, read);
        bool const is_own = buffer != nullptr && buffer == m_buffer;
        log += (is_own ? '[' : '(') + std::to_string(size) + (is_own ? ']' : ')');
        if (m_steps.empty()) {
            if (size != 0) {
                ErrorOutput("test", __LINE__, true)(StreamErrorId::END_OF_STREAM);
            }
            return size != 0;
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

/// Reads, and returns the calls of the source, the result and the bytes: "?[8] 1 abc".
std::string readFrom(ScriptedSource& source, unsigned int size) {
    source.log.clear();
    std::string block(size + 1, '#');
    unsigned int count = 12345;
    int const result = source.read(size != 0 ? &block[0] : nullptr, size, count);
    EXPECT_LE(count, size);
    EXPECT_EQ(std::string(size + 1 - count, '#'), block.substr(count)) << "bytes behind the count";
    return source.log + " " + std::to_string(result) + (count == 0 ? "" : " " + block.substr(0, count));
}

// ---- the family ----

TEST(StreamError, hasItsTexts) {
    char const* const texts[] = {
        "Stream cannot be used", "Stream transfer failed", "End of stream",
        "Operation is not supported by the stream", "Unclassified stream failure"};
    for (int id = 0; id < 5; ++id) {
        std::ErrorID const& row = *IBinStreamBase::StreamError.getRow(id);
        EXPECT_EQ(id, row.id);
        EXPECT_STREQ(texts[id], row.format);
        EXPECT_EQ(0, row.nargs);
    }
    EXPECT_EQ(nullptr, IBinStreamBase::StreamError.getRow(5));
    EXPECT_FALSE(IBinStreamBase::StreamError.isA(std::CommonError));
}

// ---- the class ----

/// Gives access to protected operations.
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
    EXPECT_FALSE(std::is_copy_constructible_v<ScriptedSource> || std::is_copy_assignable_v<ScriptedSource>);
    EXPECT_TRUE((std::is_convertible_v<IBinInputStream*, IBinStreamBase*>));
    EXPECT_TRUE(std::has_virtual_destructor_v<IBinStreamBase>);
}

TEST(IBinInputStream, constructorSetsModeAndBuffer) {
    ScriptedSource const buffered(16, {}, false);
    EXPECT_FALSE(buffered.m_blocking);
    EXPECT_TRUE(buffered.isInputBuffered());
    EXPECT_NE(nullptr, buffered.m_buffer);
    EXPECT_EQ(16U, buffered.m_buffer_size);
    ScriptedSource const unbuffered(0, {}, true);
    EXPECT_TRUE(unbuffered.m_blocking);
    EXPECT_FALSE(unbuffered.isInputBuffered());
    EXPECT_EQ(nullptr, unbuffered.m_buffer);
    EXPECT_TRUE(unbuffered.isValid());
}

TEST(IBinInputStream, defaultHookAllowsEveryAccess) {
    EXPECT_FALSE(ScriptedSource(0).originalCheck());
}

// ---- reading ----

constexpr bool BLOCKING = true;
constexpr bool NON_BLOCKING = false;

/// The sizes of some reads and what `readFrom` returns for each. The steps of the source are their bytes, or
/// "-" for none, and "!end" or "!failure" behind them.
struct Reads {
    char const* name;
    unsigned int buffer_size;
    bool blocking;
    char const* steps;
    char const* sizes;
    char const* seen;
};

void PrintTo(Reads const& row, std::ostream* out) {
    *out << row.name;
}

class IBinInputStreamReads : public testing::TestWithParam<Reads> {};

ExpectedReport const CAUSE(CommonErrorId::OPEN_FILE_OPERATION_FAILED);
ExpectedReport const END(IBinStreamBase::END_OF_STREAM, "End of stream");
ExpectedReport const FAILURE(IBinStreamBase::TRANSFER_FAILED, "Stream transfer failed");

TEST_P(IBinInputStreamReads, returnTheBytesOfTheSource) {
    std::istringstream steps(GetParam().steps);
    std::deque<Step> source_steps;
    for (std::string step; steps >> step;) {
        size_t const mark = std::min(step.find_first_of("!-"), step.size());
        int const error = step.substr(mark) == "!end" ? IBinStreamBase::END_OF_STREAM
            : step.substr(mark) == "!failure"         ? IBinStreamBase::TRANSFER_FAILED
                                                      : SUCCESS;
        source_steps.push_back({step.substr(0, mark), error});
    }
    bool const has_cause = steps.str().find('!') != std::string::npos;
    ScriptedSource source(GetParam().buffer_size, source_steps, GetParam().blocking);
    std::istringstream sizes(GetParam().sizes);
    std::string all;
    for (unsigned int size = 0; sizes >> size;) {
        std::string const seen = readFrom(source, size);
        all += (all.empty() ? "" : ", ") + seen.substr(seen.find_first_not_of(' '));
        std::vector<ExpectedReport> expected;
        if (seen.find(" 1") == std::string::npos) {
            expected.assign(has_cause ? 1 : 0, CAUSE);
            expected.push_back(seen.find(" -1") == std::string::npos ? END : FAILURE);
        }
        EXPECT_TRUE(chainIs(expected)) << seen;
    }
    EXPECT_EQ(GetParam().seen, all);
}

Reads const READS[] = {
    {"readAheadOneBufferAndReturnItInPieces", 8, BLOCKING, "abcdefghijkl", "3 2 3 2",
     "?[8] 1 abc, 1 de, 1 fgh, ?[8] 1 ij"},
    {"returnTheBufferedBytesWithoutWaitingForMore", 8, BLOCKING, "abcdefgh ij", "6 100",
     "?[8] 1 abcdef, 1 gh"},
    {"returnTheBytesOfOneCallWithoutWaitingForMore", 8, BLOCKING, "ab cd", "5 5", "?[8] 1 ab, ?[8] 1 cd"},
    {"asLargeAsTheBufferBypassIt", 4, BLOCKING, "abcdefghijklmnop", "4 6 3 1",
     "?(4) 1 abcd, ?(6) 1 efghij, ?[4] 1 klm, 1 n"},
    {"withoutABufferAllReachTheSource", 0, BLOCKING, "abcdef", "1 3", "?(1) 1 a, ?(3) 1 bcd"},
    {"workWithABufferOfOneByte", 1, BLOCKING, "abc", "1 2 1", "?(1) 1 a, ?(2) 1 bc, ?(1) 0"},
    {"atTheEndReturnZeroAndReport", 8, BLOCKING, "", "3 100", "?[8] 0, ?(100) 0"},
    {"atTheEndReturnZeroAndReportUnbuffered", 0, BLOCKING, "", "3 100", "?(3) 0, ?(100) 0"},
    {"ofNothingSucceedAtTheEnd", 8, BLOCKING, "", "0", "(0) 1"},
    {"ofNothingSucceedAtTheEndUnbuffered", 0, BLOCKING, "", "0", "(0) 1"},
    {"ofNothingNeedNoMemoryAndConsumeNothing", 8, BLOCKING, "abc", "0 1 0 5", "(0) 1, ?[8] 1 a, (0) 1, 1 bc"},
    {"withoutDataSucceedInNonBlockingMode", 8, NON_BLOCKING, "- ab", "3 3", "?[8] 1, ?[8] 1 ab"},
    {"withoutDataSucceedInNonBlockingModeUnbuffered", 0, NON_BLOCKING, "- ab", "3 3", "?(3) 1, ?(3) 1 ab"},
    {"deliverTheBytesBeforeTheEnd", 8, BLOCKING, "ab!end", "3", "?[8] 0 ab"},
    {"deliverTheBytesBeforeTheEndUnbuffered", 0, BLOCKING, "ab!end", "3", "?(3) 0 ab"},
    {"deliverTheBytesBeforeAFailureAndThoseThatWereReadAhead", 8, BLOCKING, "abcde!failure fg", "2 5 5",
     "?[8] -1 ab, 1 cde, ?[8] 1 fg"},
    {"callTheHookOnlyBeforeAnAccessToTheSource", 4, BLOCKING, "abcdef", "1 1 9 1",
     "?[4] 1 a, 1 b, 1 cd, ?[4] 1 e"}};

INSTANTIATE_TEST_SUITE_P(All, IBinInputStreamReads, testing::ValuesIn(READS), [](auto const& row) {
    return row.param.name;
});

class IBinInputStreamFailures : public testing::TestWithParam<IBinStreamBase::StreamErrorId> {};

TEST_P(IBinInputStreamFailures, returnMinusOneWithTheReportsOfTheSource) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size, {{"", GetParam()}, {"ab"}});
        std::string const access = size == 0 ? "?(3)" : "?[8]";
        EXPECT_EQ(access + " -1", readFrom(source, 3));
        EXPECT_TRUE(chainIs({CAUSE, {GetParam(), rowText(GetParam(), "")}}));
        EXPECT_EQ(access + " 1 ab", readFrom(source, 3)) << "the stream stays usable";
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, IBinInputStreamFailures,
    testing::Values(
        IBinStreamBase::UNUSABLE, IBinStreamBase::TRANSFER_FAILED, IBinStreamBase::NOT_SUPPORTED,
        IBinStreamBase::UNCLASSIFIED));

/// A source without a buffer of its own state, for what `perform` does.
template <typename Perform>
class Source : public IBinInputStream {
public:
    Source(unsigned int buffer_size, Perform const& perform)
        : IBinInputStream(true, buffer_size), m_perform(perform) {}
    bool isValid() const override { return true; }

protected:
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override {
        return m_perform(buffer, size, read);
    }

private:
    Perform m_perform;
};

TEST(IBinInputStream, secondIdOfAnotherFamilyIsNoEnd) {
    Source source(0, [](void*, unsigned int, unsigned int&) {
        ErrorOutput("test", __LINE__, true)(CommonErrorId::INTERNAL_FAILURE);
        return true;
    });
    char block[3];
    unsigned int count = 12345;
    EXPECT_EQ(-1, source.read(block, 3, count));
    EXPECT_EQ(0U, count);
    EXPECT_TRUE(chainIs({{CommonErrorId::INTERNAL_FAILURE}}));
}

TEST(IBinInputStream, hookCanForbidReading) {
    for (unsigned int const size : {0U, 4U}) {
        ScriptedSource source(size, {{"abcdef"}});
        source.inconsistent = true;
        EXPECT_EQ("? -1", readFrom(source, 2));
        EXPECT_TRUE(chainIs({{IBinStreamBase::TRANSFER_FAILED}}));
    }
}

TEST(IBinInputStream, bufferEmptiedByADerivedClassIsFilledAgain) {
    ScriptedSource source(4, {{"abcdefgh"}});
    EXPECT_EQ("?[4] 1 ab", readFrom(source, 2));
    source.dropReadAhead();
    EXPECT_EQ("?[4] 1 ef", readFrom(source, 2));
}

TEST(IBinInputStream, withoutMemoryForItsBufferIsInvalid) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    ExpectedReport const no_memory(CommonErrorId::OUT_OF_MEMORY, "Out of memory");
    ScriptedSource source(16, {{"abc"}});
    EXPECT_TRUE(chainIs({no_memory}));
    EXPECT_FALSE(source.isValid());
    EXPECT_EQ(nullptr, source.m_buffer);
    EXPECT_TRUE(source.isInputBuffered()) << "the requested mode";
    for (unsigned int const size : {0U, 1U, 100U}) {
        EXPECT_EQ(" -1", readFrom(source, size));
        EXPECT_TRUE(chainIs({no_memory, {IBinStreamBase::UNUSABLE, "Stream cannot be used"}}));
    }
}

TEST(IBinInputStream, withoutABufferNeedsNoMemory) {
    NewFault const fault(New::NOTHROW_ARRAY, 1, NewFault::FOREVER);
    EXPECT_TRUE(ScriptedSource(0, {{"abc"}}).isValid());
    EXPECT_TRUE(chainIs({}));
}

TEST(IBinInputStream, readingAllocatesNothing) {
    if (!COUNTS_ALLOCATIONS) {
        GTEST_SKIP() << "the sanitizer has the allocation functions";
    }
    Source source(64, [](void* buffer, unsigned int size, unsigned int& read) {
        memset(buffer, 0, size);
        read = size;
        return false;
    });
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
