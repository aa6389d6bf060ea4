#include "Operations.h"
#include "support/AllocationFault.h"
#include "support/Descriptors.h"
#include "support/Threads.h"

#include <tarncommon/error/ErrorStorage.h>

#include <gtest/gtest.h>

// Each allocation of each operation fails once. What must hold: the operation reports the failure, throws
// `std::bad_alloc`, or waits in the out-of-memory loop of `GlobalErrorHandler`, which ends when memory is back.
// Nothing leaks, no lock stays locked, and the operation works afterwards.

namespace {

using operations::Row;
using Kind = std::GlobalErrorHandler::Kind;

/// Counts the events of `GlobalErrorHandler` without an allocation, and suppresses their actions.
class Events {
public:
    Events() : m_hook{note, this}, m_previous(std::GlobalErrorHandler::setHook(&m_hook)) {}
    ~Events() { std::GlobalErrorHandler::setHook(m_previous); }
    Events(Events const&) = delete;
    Events& operator=(Events const&) = delete;

    bool has(Kind kind) const { return m_counts[static_cast<int>(kind)] != 0; }

private:
    static bool note(std::GlobalErrorHandler::Event const& event, void* events) {
        ++static_cast<Events*>(events)->m_counts[static_cast<int>(event.kind)];
        return true;
    }

    std::GlobalErrorHandler::Hook m_hook;
    std::GlobalErrorHandler::Hook const* m_previous;
    std::atomic<int> m_counts[4] = {};
};

/// Counts the chains that were replaced before the test has seen them.
struct Discarded {
    Discarded() { s_count = 0; }

    static inline thread_local int s_count;
    std::ErrorStorage store{[](void*, char const*, std::ErrorObject const*, unsigned int) { ++s_count; }};
};

/// Runs a row while one or more allocations fail. Returns the letter of what happened, or "!" for an abort.
char runWithFault(Row const& row, int nth, int times) {
    Discarded const discarded;
    Events const events;
    bool failed = false;
    bool thrown = false;
    {
        support::AllocationFault const fault(nth, times);
        try {
            failed = row.run();
        } catch (std::bad_alloc const&) {
            thrown = true;
        }
    }
    bool const pending = std::ErrorStorage::isError(true);
    std::ErrorStorage::ack();
    std::ErrorStorage::Chain::ofThread().unmap();
    if (events.has(Kind::ABORT) || events.has(Kind::ASSERT)) {
        return events.has(Kind::ABORT) ? '!' : 'A';
    }
    int const told = Discarded::s_count + (pending ? 1 : 0) + (events.has(Kind::WARNING) ? 1 : 0);
    if (thrown) {
        return told != 0 ? 'B' : 'T';
    }
    if (failed) {
        return told > 1 ? '2' : told == 1 ? 'R' : 'F';
    }
    return told != 0 ? 'P' : events.has(Kind::OUT_OF_MEMORY) ? 'W' : '-';
}

/// Returns whether these are the letters of the row. The sanitizers see only some of the allocations.
bool isAsTold(std::string const& letters, std::string const& points) {
    if (points[0] == '*') {
        return letters.find_first_not_of(points, 0) == std::string::npos;
    }
    if (support::SEES_MALLOC) {
        return letters == points;
    }
    size_t at = 0;
    for (char const letter : points) {
        at += at < letters.size() && letters[at] == letter ? 1 : 0;
    }
    return at == letters.size();
}

/// Returns whether the heap has this number of blocks again. Waits for threads that are just ending.
bool isBackTo(long long blocks) {
    for (int round = 0; round < 1000 && support::g_blocks != blocks; ++round) {
        vesk::Time::sleep(1);
    }
    return support::g_blocks == blocks;
}

class Allocations : public testing::TestWithParam<Row> {
protected:
    static void SetUpTestSuite() { operations::setUp(); }
    static void TearDownTestSuite() {
        operations::g_timer.reset();
        operations::removeNames();
    }
};

std::string getRowName(testing::TestParamInfo<Row> const& row) {
    return row.param.name;
}

INSTANTIATE_TEST_SUITE_P(All, Allocations, testing::ValuesIn(operations::getRows()), getRowName);

TEST_P(Allocations, mayFailOneAfterTheOther) {
    Row const& row = GetParam();
    ASSERT_EQ(0, chdir("/")); // Whether the working directory's name fits into a string object decides.
    ASSERT_FALSE(row.run()) << tarn_error.getReasonList(); // Creates what is created once.
    ASSERT_FALSE(row.run());
    int const descriptors = support::countDescriptors();
    int const threads = support::countThreads();
    int points = 0;
    {
        support::AllocationFault const count;
        ASSERT_FALSE(row.run());
        points = count.getCount();
    }
    std::string letters;
    std::string letters_of_three;
    for (int nth = 1; nth <= points; ++nth) {
        letters += '?';
        letters_of_three += '?';
        // Twice: a cache of the C library may keep blocks after the first failure.
        runWithFault(row, nth, 1);
        runWithFault(row, nth, 3);
        long long const blocks = support::g_blocks;
        letters.back() = runWithFault(row, nth, 1);
        letters_of_three.back() = runWithFault(row, nth, 3);
        EXPECT_TRUE(isBackTo(blocks))
            << "allocation " << nth << " leaks " << support::g_blocks - blocks << " blocks";
        EXPECT_EQ(descriptors, support::countDescriptors()) << "allocation " << nth;
        EXPECT_TRUE(support::eventually([threads] { return support::countThreads() <= threads; })) << nth;
        ASSERT_FALSE(row.run()) << "does not work any more after allocation " << nth
                                << " has failed: " << tarn_error.getReasonList();
    }
    EXPECT_TRUE(isAsTold(letters, row.points))
        << "points " << row.name << ' ' << letters << ' ' << letters_of_three;
    EXPECT_EQ(std::string::npos, letters_of_three.find_first_of("!")) << letters_of_three;
}

TEST(AllocationLetters, haveAReasonIfTheyExcuseSomething) {
    for (Row const& row : operations::getRows()) {
        bool const excuses = strpbrk(row.points, "B2FAP-") != nullptr;
        EXPECT_EQ(excuses, row.excuse != nullptr) << row.name << ' ' << row.points;
    }
}

} // namespace
