#include "support/Chain.h"
#include "support/Child.h"
#include "support/Inject.h"

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <vector>

VESK_INJECT_ERRNO(
    void*, MAP_FAILED, mmap, (void* address, size_t size, int protection, int flags, int fd, off_t offset),
    (address, size, protection, flags, fd, offset))
VESK_INJECT_ERRNO(int, -1, munmap, (void* address, size_t size), (address, size))

namespace {

using std::CommonError;
namespace CommonErrorId = std::CommonErrorId;
using std::ErrorObject;
using std::ErrorOutput;
using std::ErrorStorage;
using support::chainIs;
using support::Fault;

void reportLevels(int count) {
    for (int i = 0; i < count; ++i) {
        ErrorOutput("file", i, i == 0)(CommonError, CommonErrorId::CONTRACT_BROKEN, i);
    }
}

/// Lines of the pending chain's reports, from the head on.
std::vector<int> linesOfChain() {
    std::vector<int> lines;
    for (ErrorObject const* report = ErrorStorage::get(); report != nullptr; report = report->next) {
        lines.push_back(report->line);
    }
    return lines;
}

std::vector<int> countDown(int from, int to) {
    std::vector<int> lines;
    for (int line = from; line >= to; --line) {
        lines.push_back(line);
    }
    return lines;
}

/// What an action was called with.
struct GivenUp {
    void* store;
    std::string reason;
    std::vector<int> lines;
    unsigned int count;
};

std::vector<GivenUp> s_given_up;

void recordAction(void* store, char const* reason, ErrorObject const* head, unsigned int count) {
    GivenUp given_up{store, reason, {}, count};
    for (ErrorObject const* report = head; report != nullptr; report = report->next) {
        given_up.lines.push_back(report->line);
    }
    s_given_up.push_back(given_up);
}

class ErrorStorageAction : public testing::Test {
protected:
    void SetUp() override { s_given_up.clear(); }
};

TEST(ErrorStorage, threadWithoutAChainHasNothing) {
    EXPECT_FALSE(ErrorStorage::isError(true));
    EXPECT_FALSE(ErrorStorage::isError(false));
    EXPECT_EQ(nullptr, ErrorStorage::get());
    EXPECT_EQ(-1, ErrorStorage::id());
    EXPECT_FALSE(ErrorStorage::isA(CommonError));
    std::thread([] {
        EXPECT_EQ(nullptr, ErrorStorage::get());
        EXPECT_FALSE(ErrorStorage::isError(false));
        EXPECT_EQ("", tarn_error.getReasonList());
    }).join();
}

TEST(ErrorStorage, chainIsPendingUntilItIsAcknowledged) {
    reportLevels(2);
    EXPECT_TRUE(ErrorStorage::isError(true));
    EXPECT_TRUE(ErrorStorage::isError(false));
    EXPECT_EQ(1, ErrorStorage::id());
    EXPECT_TRUE(ErrorStorage::isA(CommonError));
    ErrorStorage::ack();
    EXPECT_FALSE(ErrorStorage::isError(true));
    EXPECT_EQ(nullptr, ErrorStorage::get());
    EXPECT_EQ(-1, ErrorStorage::id());
    EXPECT_FALSE(ErrorStorage::isA(CommonError));
    ErrorStorage::ack();
    EXPECT_FALSE(ErrorStorage::isError(true));
}

TEST(ErrorStorage, reasonListTellsTheChainAlsoAfterAck) {
    ErrorOutput("low", 1, true)(CommonErrorId::CONTRACT_BROKEN, "cause");
    ErrorOutput("high", 2, false)(CommonErrorId::UNSUPPORTED_VALUE, "effect");
    std::string const text = "high:2: Value cannot be handled: effect\n"
                             "  caused by low:1: Contract broken by the caller: cause";
    EXPECT_EQ(text, tarn_error.getReasonList());
    ErrorStorage::ack();
    EXPECT_EQ(text, tarn_error.getReasonList());
    ErrorOutput("next", 3, false)(CommonErrorId::OUT_OF_MEMORY);
    EXPECT_EQ("next:3: Out of memory", tarn_error.getReasonList());
}

TEST(ErrorStorage, chainsOfThreadsDoNotMeet) {
    reportLevels(1);
    std::thread([] {
        EXPECT_FALSE(ErrorStorage::isError(true));
        reportLevels(3);
        EXPECT_EQ(countDown(2, 0), linesOfChain());
    }).join();
    EXPECT_EQ(countDown(0, 0), linesOfChain());
}

TEST(ErrorStorage, holdsThirtyTwoReports) {
    reportLevels(32);
    EXPECT_EQ(countDown(31, 0), linesOfChain());
}

TEST(ErrorStorage, fullOneKeepsTheCauseAndReplacesTheHead) {
    reportLevels(40);
    std::vector<int> expected = countDown(30, 0);
    expected.insert(expected.begin(), 39);
    EXPECT_EQ(expected, linesOfChain());
    EXPECT_STREQ("Contract broken by the caller: 39", ErrorStorage::get()->getText());
}

TEST(ErrorStorage, worksAgainAfterALongChain) {
    reportLevels(40);
    reportLevels(2);
    EXPECT_EQ(countDown(1, 0), linesOfChain());
    reportLevels(32);
    EXPECT_EQ(countDown(31, 0), linesOfChain());
}

TEST(ErrorStorage, chainOfFourLevelsMapsNothing) {
    std::thread([] {
        Fault const mapped(inject_mmap, 0);
        reportLevels(4);
        EXPECT_EQ(0, mapped.getCalls());
        EXPECT_EQ(countDown(3, 0), linesOfChain());
        reportLevels(5);
        reportLevels(32);
        EXPECT_EQ(1, mapped.getCalls()) << "once for the life of the store";
    }).join();
}

TEST(ErrorStorage, withoutMemoryALongChainKeepsFourLevels) {
    std::thread([] {
        Fault const fault(inject_mmap, ENOMEM, 1, Fault::FOREVER);
        reportLevels(7);
        EXPECT_EQ((std::vector<int>{6, 2, 1, 0}), linesOfChain());
    }).join();
}

TEST(ErrorStorage, endOfAThreadGivesTheMappedMemoryBack) {
    int mapped = 0;
    int unmapped = 0;
    {
        Fault const maps(inject_mmap, 0, 1, 1, Fault::Threads::ALL);
        Fault const unmaps(inject_munmap, 0, 1, 1, Fault::Threads::ALL);
        std::thread([&] {
            int const before = maps.getCalls();
            reportLevels(5);
            mapped = maps.getCalls() - before;
            unmapped = unmaps.getCalls();
        }).join();
        unmapped = unmaps.getCalls() - unmapped;
    }
    EXPECT_EQ(1, mapped);
    EXPECT_GE(unmapped, 1);
}

TEST_F(ErrorStorageAction, isCalledWhenANewChainReplacesThePendingOne) {
    ErrorStorage store(recordAction);
    reportLevels(3);
    EXPECT_TRUE(s_given_up.empty());
    reportLevels(1);
    ASSERT_EQ(1u, s_given_up.size());
    EXPECT_EQ(&store, s_given_up[0].store);
    EXPECT_EQ("replaced by a new chain", s_given_up[0].reason);
    EXPECT_EQ(countDown(2, 0), s_given_up[0].lines);
    EXPECT_EQ(3u, s_given_up[0].count);
    ErrorStorage::ack();
}

TEST_F(ErrorStorageAction, isNotCalledForAnAcknowledgedChain) {
    {
        ErrorStorage const store(recordAction);
        reportLevels(3);
        ErrorStorage::ack();
        reportLevels(2);
        ErrorStorage::ack();
    }
    EXPECT_TRUE(s_given_up.empty());
}

TEST_F(ErrorStorageAction, isCalledAtTheEndOfTheStore) {
    {
        ErrorStorage const store(recordAction);
        reportLevels(2);
    }
    ASSERT_EQ(1u, s_given_up.size());
    EXPECT_EQ("end of the store", s_given_up[0].reason);
    EXPECT_EQ(countDown(1, 0), s_given_up[0].lines);
}

TEST_F(ErrorStorageAction, isCalledInAThreadThatEndsWithItsStore) {
    std::thread([] {
        ErrorStorage const store(recordAction);
        reportLevels(6);
    }).join();
    ASSERT_EQ(1u, s_given_up.size());
    EXPECT_EQ(countDown(5, 0), s_given_up[0].lines);
}

TEST_F(ErrorStorageAction, mayBeNull) {
    ErrorStorage const store(nullptr);
    reportLevels(2);
    reportLevels(1);
    EXPECT_EQ(countDown(0, 0), linesOfChain());
}

TEST(ErrorStorage, storesNestAndTheOuterOneWaitsUntouched) {
    reportLevels(2);
    {
        ErrorStorage const store(nullptr);
        EXPECT_FALSE(ErrorStorage::isError(true));
        reportLevels(9);
        {
            ErrorStorage const inner(nullptr);
            reportLevels(1);
        }
        EXPECT_EQ(countDown(8, 0), linesOfChain());
    }
    EXPECT_EQ(countDown(1, 0), linesOfChain());
}

TEST(ErrorStorage, dumpActionWritesTheChainToStandardOutput) {
    support::ChildEnd const end = support::runInChild([] {
        ErrorStorage const store(ErrorStorage::action_dump_to_stdout);
        ErrorOutput("low", 1, true)(CommonErrorId::CONTRACT_BROKEN, "cause");
        ErrorOutput("high", 2, false)(CommonErrorId::OUT_OF_MEMORY);
    });
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ(
        "unacknowledged error chain of 2 reports (end of the store):\n"
        "high:2: Out of memory\n"
        "  caused by low:1: Contract broken by the caller: cause\n",
        end.output);
}

TEST(ErrorStorage, dumpActionEndsALineThatIsCut) {
    std::string const path(2000, 'p');
    support::ChildEnd const end = support::runInChild([&] {
        ErrorStorage const store(ErrorStorage::action_dump_to_stdout);
        for (int level = 0; level < 3; ++level) {
            ErrorOutput(path.c_str(), 1, level == 0)(CommonError, CommonErrorId::OUT_OF_MEMORY);
        }
    });
    std::istringstream lines(end.output);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    for (std::string const begin : {"p", "  caused by p", "  caused by p"}) {
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_EQ(0U, line.find(begin)) << line;
        ASSERT_LT(3U, line.size());
        EXPECT_EQ("p...", line.substr(line.size() - 4));
    }
    EXPECT_FALSE(std::getline(lines, line)) << line;
    EXPECT_EQ('\n', end.output.back());
}

} // namespace
