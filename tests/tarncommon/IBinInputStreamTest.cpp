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

/// A source that performs its steps, one a call, and then is at its end. It logs the calls: "?" for the hook, "[n]" for
/// a read of n bytes into the stream's own buffer, "(n)" for one into the memory of the caller.
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
    return source.log + " " + std::to_string(result) + " " + block.substr(0, count);
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

/// One read, and the text that `readFrom` returns for it.
struct Read {
    unsigned int size;
    char const* seen;
};

/// The reads of one stream. Those that do not return 1 make `reports`.
struct Reads {
    Reads(
        char const* row_name, unsigned int size, std::deque<Step> source_steps, std::vector<Read> all_reads,
        std::vector<ExpectedReport> all_reports = {}, bool is_blocking = true)
        : name(row_name),
          buffer_size(size),
          steps(std::move(source_steps)),
          reads(std::move(all_reads)),
          reports(std::move(all_reports)),
          blocking(is_blocking) {}

    char const* name;
    unsigned int buffer_size;
    std::deque<Step> steps;
    std::vector<Read> reads;
    std::vector<ExpectedReport> reports;
    bool blocking;
};

void PrintTo(Reads const& row, std::ostream* out) {
    *out << row.name;
}

class IBinInputStreamReads : public testing::TestWithParam<Reads> {};

TEST_P(IBinInputStreamReads, returnWhatTheSourceProvides) {
    ScriptedSource source(GetParam().buffer_size, GetParam().steps, GetParam().blocking);
    for (Read const& read : GetParam().reads) {
        EXPECT_EQ(read.seen, readFrom(source, read.size));
        bool const succeeds = std::string(read.seen).find(" 1 ") != std::string::npos;
        EXPECT_TRUE(chainIs(succeeds ? std::vector<ExpectedReport>() : GetParam().reports)) << read.seen;
    }
}

ExpectedReport const CAUSE(CommonErrorId::OPEN_FILE_OPERATION_FAILED);
ExpectedReport const END(IBinStreamBase::END_OF_STREAM, "End of stream");

INSTANTIATE_TEST_SUITE_P(
    All, IBinInputStreamReads,
    testing::Values(
        Reads(
            "readAheadOneBufferAndReturnItInPieces", 8, {{"abcdefghijkl"}},
            {{3, "?[8] 1 abc"}, {2, " 1 de"}, {3, " 1 fgh"}, {2, "?[8] 1 ij"}}),
        Reads(
            "returnTheBufferedBytesWithoutWaitingForMore", 8, {{"abcdefgh"}, {"ij"}},
            {{6, "?[8] 1 abcdef"}, {100, " 1 gh"}}),
        Reads(
            "returnTheBytesOfOneCallWithoutWaitingForMore", 8, {{"ab"}, {"cd"}},
            {{5, "?[8] 1 ab"}, {5, "?[8] 1 cd"}}),
        Reads(
            "asLargeAsTheBufferBypassIt", 4, {{"abcdefghijklmnop"}},
            {{4, "?(4) 1 abcd"}, {6, "?(6) 1 efghij"}, {3, "?[4] 1 klm"}, {1, " 1 n"}}),
        Reads("withoutABufferAllReachTheSource", 0, {{"abcdef"}}, {{1, "?(1) 1 a"}, {3, "?(3) 1 bcd"}}),
        Reads(
            "workWithABufferOfOneByte", 1, {{"abc"}}, {{1, "?(1) 1 a"}, {2, "?(2) 1 bc"}, {1, "?(1) 0 "}},
            {END}),
        Reads("atTheEndReturnZeroAndReport", 8, {}, {{3, "?[8] 0 "}, {100, "?(100) 0 "}}, {END}),
        Reads("atTheEndReturnZeroAndReportUnbuffered", 0, {}, {{3, "?(3) 0 "}, {100, "?(100) 0 "}}, {END}),
        Reads("ofNothingSucceedAtTheEnd", 8, {}, {{0, "(0) 1 "}}),
        Reads("ofNothingSucceedAtTheEndUnbuffered", 0, {}, {{0, "(0) 1 "}}),
        Reads(
            "ofNothingNeedNoMemoryAndConsumeNothing", 8, {{"abc"}},
            {{0, "(0) 1 "}, {1, "?[8] 1 a"}, {0, "(0) 1 "}, {5, " 1 bc"}}),
        Reads(
            "withoutDataSucceedInNonBlockingMode", 8, {{""}, {"ab"}}, {{3, "?[8] 1 "}, {3, "?[8] 1 ab"}}, {},
            false),
        Reads(
            "withoutDataSucceedInNonBlockingModeUnbuffered", 0, {{""}, {"ab"}},
            {{3, "?(3) 1 "}, {3, "?(3) 1 ab"}}, {}, false),
        Reads(
            "deliverTheBytesBeforeTheEnd", 8, {{"ab", IBinStreamBase::END_OF_STREAM}}, {{3, "?[8] 0 ab"}},
            {CAUSE, END}),
        Reads(
            "deliverTheBytesBeforeTheEndUnbuffered", 0, {{"ab", IBinStreamBase::END_OF_STREAM}},
            {{3, "?(3) 0 ab"}}, {CAUSE, END}),
        Reads(
            "deliverTheBytesBeforeAFailureAndThoseThatWereReadAhead", 8,
            {{"abcde", IBinStreamBase::TRANSFER_FAILED}, {"fg"}},
            {{2, "?[8] -1 ab"}, {5, " 1 cde"}, {5, "?[8] 1 fg"}},
            {CAUSE, {IBinStreamBase::TRANSFER_FAILED, "Stream transfer failed"}}),
        Reads(
            "callTheHookOnlyBeforeAnAccessToTheSource", 4, {{"abcdef"}},
            {{1, "?[4] 1 a"}, {1, " 1 b"}, {9, " 1 cd"}, {1, "?[4] 1 e"}})),
    [](auto const& row) { return row.param.name; });

class IBinInputStreamFailures : public testing::TestWithParam<IBinStreamBase::StreamErrorId> {};

TEST_P(IBinInputStreamFailures, returnMinusOneWithTheReportsOfTheSource) {
    for (unsigned int const size : {0U, 8U}) {
        ScriptedSource source(size, {{"", GetParam()}, {"ab"}});
        std::string const access = size == 0 ? "?(3)" : "?[8]";
        EXPECT_EQ(access + " -1 ", readFrom(source, 3));
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
        EXPECT_EQ("? -1 ", readFrom(source, 2));
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
        EXPECT_EQ(" -1 ", readFrom(source, size));
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
