#include "support/Testing.h"

#include <tarncommon/error/ErrorApi.h>

#include <numeric>
#include <sys/mman.h>

VESK_INJECT_ERRNO(
    void*, MAP_FAILED, mmap, (void* address, size_t size, int protection, int flags, int fd, off_t offset),
    (address, size, protection, flags, fd, offset))
VESK_INJECT_ERRNO(int, -1, munmap, (void* address, size_t size), (address, size))

namespace {

namespace CommonErrorId = std::CommonErrorId;
using std::ErrorObject;
using std::ErrorOutput;
using std::ErrorStorage;
using namespace support;

void reportLevels(int count) {
    for (int i = 0; i < count; ++i) {
        ErrorOutput("file", i, i == 0)(CommonErrorId::CONTRACT_BROKEN, i);
    }
}

/// Returns the lines of a chain's reports, from the head on.
std::vector<int> linesOf(ErrorObject const* report) {
    std::vector<int> lines;
    for (; report != nullptr; report = report->next) {
        lines.push_back(report->line);
    }
    return lines;
}
std::vector<int> linesOfChain() {
    return linesOf(ErrorStorage::get());
}

std::vector<int> countDown(int from, int to) {
    std::vector<int> lines(static_cast<size_t>(from - to + 1));
    std::iota(lines.rbegin(), lines.rend(), to);
    return lines;
}

/// The arguments of an action.
struct Discarded {
    void* store;
    std::string reason;
    std::vector<int> lines;
    unsigned int count;
};

std::vector<Discarded> s_discarded;

void recordAction(void* store, char const* reason, ErrorObject const* head, unsigned int count) {
    s_discarded.push_back({store, reason, linesOf(head), count});
}

/// Checks that the calling thread has no pending report.
void expectNothingPending() {
    EXPECT_FALSE(ErrorStorage::isError(true));
    EXPECT_FALSE(ErrorStorage::isError(false));
    EXPECT_EQ(nullptr, ErrorStorage::get());
    EXPECT_EQ(-1, ErrorStorage::id());
    EXPECT_FALSE(ErrorStorage::isA(std::CommonError));
}

TEST(ErrorStorage, chainIsPendingFromItsFirstReportUntilItIsAcknowledged) {
    expectNothingPending();
    reportLevels(2);
    std::thread([] {
        expectNothingPending();
        EXPECT_EQ("", tarn_error.getReasonList());
        reportLevels(3);
        EXPECT_EQ(countDown(2, 0), linesOfChain());
    }).join();
    EXPECT_EQ(countDown(1, 0), linesOfChain());
    EXPECT_TRUE(ErrorStorage::isError(true));
    EXPECT_TRUE(ErrorStorage::isError(false));
    EXPECT_EQ(1, ErrorStorage::id());
    EXPECT_TRUE(ErrorStorage::isA(std::CommonError));
    for (int i = 0; i < 2; ++i) {
        ErrorStorage::ack();
        expectNothingPending();
    }
}

TEST(ErrorStorage, reasonListShowsTheChainAlsoAfterAck) {
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

TEST(ErrorStorage, holdsThirtyTwoReportsAndThenKeepsTheCauseAndReplacesTheHead) {
    reportLevels(32);
    EXPECT_EQ(countDown(31, 0), linesOfChain());
    reportLevels(40);
    std::vector<int> expected = countDown(30, 0);
    expected.insert(expected.begin(), 39);
    EXPECT_EQ(expected, linesOfChain());
    EXPECT_STREQ("Contract broken by the caller: 39", ErrorStorage::get()->getText());
    reportLevels(40);
    reportLevels(2);
    EXPECT_EQ(countDown(1, 0), linesOfChain());
    reportLevels(32);
    EXPECT_EQ(countDown(31, 0), linesOfChain());
}

TEST(ErrorStorage, onlyALongChainMapsMemoryAndWithoutItKeepsFourLevels) {
    std::thread([] {
        Fault const mapped(inject_mmap, 0);
        reportLevels(4);
        EXPECT_EQ(0, mapped.getCalls());
        EXPECT_EQ(countDown(3, 0), linesOfChain());
        reportLevels(5);
        reportLevels(32);
        EXPECT_EQ(1, mapped.getCalls()) << "once for each store";
    }).join();
    std::thread([] {
        Fault const fault(inject_mmap, ENOMEM, 1, Fault::FOREVER);
        reportLevels(7);
        EXPECT_EQ((std::vector<int>{6, 2, 1, 0}), linesOfChain());
    }).join();
}

TEST(ErrorStorage, endOfAThreadUnmapsTheMemory) {
    Fault const maps(inject_mmap, 0, 1, 1, Fault::Threads::ALL);
    Fault const unmaps(inject_munmap, 0, 1, 1, Fault::Threads::ALL);
    int unmapped = 0;
    std::thread([&] {
        int const before = maps.getCalls();
        reportLevels(5);
        EXPECT_EQ(1, maps.getCalls() - before);
        unmapped = unmaps.getCalls();
    }).join();
    EXPECT_LT(unmapped, unmaps.getCalls());
}

/// Checks that an action was called once.
void expectDiscarded(char const* reason, std::vector<int> const& lines) {
    ASSERT_EQ(1u, s_discarded.size());
    EXPECT_EQ(reason, s_discarded[0].reason);
    EXPECT_EQ(lines, s_discarded[0].lines);
    EXPECT_EQ(lines.size(), s_discarded[0].count);
    s_discarded.clear();
}

TEST(ErrorStorage, actionIsCalledWithAChainThatIsReplacedOrLeftAtTheEndOfTheStore) {
    {
        ErrorStorage store(recordAction);
        reportLevels(3);
        EXPECT_TRUE(s_discarded.empty());
        reportLevels(1);
        ASSERT_EQ(1u, s_discarded.size());
        EXPECT_EQ(&store, s_discarded[0].store);
        expectDiscarded("replaced by a new chain", countDown(2, 0));
        ErrorStorage::ack();
        reportLevels(2);
        EXPECT_TRUE(s_discarded.empty()) << "the chain was acknowledged";
    }
    expectDiscarded("end of the store", countDown(1, 0));
    std::thread([] {
        ErrorStorage const store(recordAction);
        reportLevels(6);
    }).join();
    expectDiscarded("end of the store", countDown(5, 0));
    {
        ErrorStorage const store(recordAction);
        reportLevels(2);
        ErrorStorage::ack();
    }
    EXPECT_TRUE(s_discarded.empty());
    ErrorStorage const store(nullptr);
    reportLevels(2);
    reportLevels(1);
    EXPECT_EQ(countDown(0, 0), linesOfChain());
}

TEST(ErrorStorage, storesNestAndTheOuterOneIsUnchanged) {
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
    ChildEnd const end = runInChild([] {
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
    ChildEnd const end = runInChild([&] {
        ErrorStorage const store(ErrorStorage::action_dump_to_stdout);
        for (int level = 0; level < 3; ++level) {
            ErrorOutput(path.c_str(), 1, level == 0)(CommonErrorId::OUT_OF_MEMORY);
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
