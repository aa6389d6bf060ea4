#include "support/Chain.h"
#include "support/Inject.h"

#include <vesk/SysError.h>
#include <vesk/sched.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <limits>
#include <pthread.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>

VESK_INJECT_RESULT(
    pthread_getschedparam, (pthread_t thread, int* policy, sched_param* param), (thread, policy, param))

namespace {

using namespace vesk::sched;
using support::chainIs;
using support::Fault;
using support::rowText;
using support::systemText;

// ---- the values ----

// Processes exchange these numbers and blocks.
static_assert(sizeof(Policy_E) == 4 && sizeof(WinThreadPrio) == 4 && sizeof(Policy) == 4);
static_assert(std::is_same_v<decltype(Param::priority), int32_t>);
static_assert(std::is_same_v<decltype(Param::nice), int32_t>);
static_assert(offsetof(Param, reserved_byte) == 0 && sizeof(Param::reserved_byte) == 1);
static_assert(offsetof(Param, reserved_word) == 4 && sizeof(Param::reserved_word) == 4);
static_assert(offsetof(Param, priority) == 8);
static_assert(offsetof(Param, nice) == 12);
static_assert(offsetof(Param, reserved_last) == 16 && sizeof(Param::reserved_last) == 4);
static_assert(sizeof(Param) == 20);
static_assert(offsetof(Attr, policy) == 0 && offsetof(Attr, param) == 4 && sizeof(Attr) == 24);
static_assert(std::is_trivially_copyable_v<Attr>);

static_assert(std::is_convertible_v<Policy_E, Policy> && std::is_convertible_v<Policy, Policy_E>);
static_assert(Policy() == VESK_SCHED_NOOP);
static_assert(Policy(VESK_SCHED_CLASS_HIGH) == VESK_SCHED_CLASS_HIGH);

template <typename T>
bool isAllZero(T const& object) {
    unsigned char bytes[sizeof object];
    memcpy(bytes, &object, sizeof object);
    for (unsigned char const byte : bytes) {
        if (byte != 0) {
            return false;
        }
    }
    return true;
}

TEST(SchedAttr, beginsAllZeroWhichIsNoop) {
    static Attr attributes; // Static, so that the padding is zero, too.
    EXPECT_TRUE(isAllZero(attributes));
    EXPECT_EQ(VESK_SCHED_NOOP, attributes.policy);
}

// ---- the constructor ----

void expectParam(Param const& param, int priority, int nice) {
    EXPECT_EQ(priority, param.priority);
    EXPECT_EQ(nice, param.nice);
    EXPECT_EQ(0, param.reserved_byte);
    EXPECT_EQ(0u, param.reserved_word);
    EXPECT_EQ(0u, param.reserved_last);
}

struct PlacingRow {
    int policy;
    int priority;
    int nice;
};

void PrintTo(PlacingRow const& row, std::ostream* out) {
    *out << static_cast<Policy_E>(row.policy);
}

class SchedParamPlacing : public testing::TestWithParam<PlacingRow> {};

TEST_P(SchedParamPlacing, putsTheValueWhereThePolicyLooksForIt) {
    expectParam(Param(static_cast<Policy_E>(GetParam().policy), 5), GetParam().priority, GetParam().nice);
    EXPECT_TRUE(chainIs({}));
}

INSTANTIATE_TEST_SUITE_P(
    All, SchedParamPlacing,
    testing::Values(
        PlacingRow{VESK_SCHED_NOOP, 0, 0}, PlacingRow{VESK_SCHED_POLICY_RR, 5, 0},
        PlacingRow{VESK_SCHED_POLICY_FIFO, 5, 0}, PlacingRow{VESK_SCHED_POLICY_NORMAL, 0, 5},
        PlacingRow{VESK_SCHED_CLASS_IDLE, 5, 0}, PlacingRow{VESK_SCHED_CLASS_BELOW_NORMAL, 5, 0},
        PlacingRow{VESK_SCHED_CLASS_NORMAL, 5, 0}, PlacingRow{VESK_SCHED_CLASS_ABOVE_NORMAL, 5, 0},
        PlacingRow{VESK_SCHED_CLASS_HIGH, 5, 0}, PlacingRow{VESK_SCHED_CLASS_REALTIME, 5, 0},
        PlacingRow{11, 0, 0}, PlacingRow{-1, 0, 0}));

TEST(SchedParam, takesAnyValueUnchecked) {
    expectParam(Param(VESK_SCHED_POLICY_FIFO, std::numeric_limits<int>::min()), INT32_MIN, 0);
    expectParam(Param(VESK_SCHED_POLICY_NORMAL, std::numeric_limits<int>::max()), 0, INT32_MAX);
    expectParam(Param(VESK_SCHED_POLICY_NORMAL, -1), 0, -1);
}

TEST(SchedParam, readsTheCallersPolicyOnlyForKeep) {
    Fault const reads(inject_pthread_getschedparam, 0);
    for (int policy = VESK_SCHED_NOOP; policy <= VESK_SCHED_CLASS_REALTIME; ++policy) {
        if (policy != VESK_SCHED_POLICY_KEEP) {
            Param const param(static_cast<Policy_E>(policy), 5);
        }
    }
    EXPECT_EQ(0, reads.getCalls());
    Param const param(VESK_SCHED_POLICY_KEEP, 5);
    EXPECT_EQ(1, reads.getCalls());
}

/// Runs `body` in a thread of the given policy, if the system grants it.
template <typename Body>
void inThreadOf(int policy, int priority, Body body) {
    int refused = 0;
    std::thread([&] {
        sched_param param{};
        param.sched_priority = priority;
        refused = pthread_setschedparam(pthread_self(), policy, &param);
        if (refused == 0) {
            body();
        }
    }).join();
    if (refused != 0) {
        GTEST_SKIP() << "no real-time scheduling here: " << systemText(refused);
    }
}

TEST(SchedParam, keepInAFifoThreadIsAPriority) {
    inThreadOf(SCHED_FIFO, 1, [] { expectParam(Param(VESK_SCHED_POLICY_KEEP, 5), 5, 0); });
}

TEST(SchedParam, keepInARoundRobinThreadIsAPriority) {
    inThreadOf(SCHED_RR, 1, [] { expectParam(Param(VESK_SCHED_POLICY_KEEP, 5), 5, 0); });
}

TEST(SchedParam, keepInATimeSharingThreadIsANiceValue) {
    inThreadOf(SCHED_OTHER, 0, [] { expectParam(Param(VESK_SCHED_POLICY_KEEP, 5), 0, 5); });
}

TEST(SchedParam, keepThatCannotReadStaysAllZeroWithTheErrorPending) {
    Fault const fault(inject_pthread_getschedparam, ESRCH);
    Param const param(VESK_SCHED_POLICY_KEEP, 5);
    expectParam(param, 0, 0);
    EXPECT_TRUE(chainIs(
        {{vesk::SysErrorId::UNCLASSIFIED, "Unclassified error occured: No such process (errno = 3)"}}));
}

// ---- the text form ----

template <typename T>
std::string textOf(T const& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

struct NameRow {
    int value;
    char const* name;
};

void PrintTo(NameRow const& row, std::ostream* out) {
    *out << row.value << " " << row.name;
}

class SchedPolicyNames : public testing::TestWithParam<NameRow> {};

TEST_P(SchedPolicyNames, areWritten) {
    auto const policy = static_cast<Policy_E>(GetParam().value);
    EXPECT_EQ(GetParam().name, textOf(policy));
    EXPECT_EQ(GetParam().name, textOf(Policy(policy))) << "through the class around it";
}

INSTANTIATE_TEST_SUITE_P(
    All, SchedPolicyNames,
    testing::Values(
        NameRow{0, "VESK_SCHED_NOOP"}, NameRow{1, "VESK_SCHED_POLICY_KEEP"},
        NameRow{2, "VESK_SCHED_POLICY_RR"}, NameRow{3, "VESK_SCHED_POLICY_FIFO"},
        NameRow{4, "VESK_SCHED_POLICY_NORMAL"}, NameRow{5, "VESK_SCHED_CLASS_IDLE"},
        NameRow{6, "VESK_SCHED_CLASS_BELOW_NORMAL"}, NameRow{7, "VESK_SCHED_CLASS_NORMAL"},
        NameRow{8, "VESK_SCHED_CLASS_ABOVE_NORMAL"}, NameRow{9, "VESK_SCHED_CLASS_HIGH"},
        NameRow{10, "VESK_SCHED_CLASS_REALTIME"}, NameRow{11, "unknown policy (11)"},
        NameRow{-1, "unknown policy (-1)"}, NameRow{INT32_MIN, "unknown policy (-2147483648)"},
        NameRow{INT32_MAX, "unknown policy (2147483647)"}));

TEST(SchedPolicyNames, belongToTheEnumeratorsOfTheirName) {
    EXPECT_EQ("VESK_SCHED_NOOP", textOf(VESK_SCHED_NOOP));
    EXPECT_EQ("VESK_SCHED_POLICY_KEEP", textOf(VESK_SCHED_POLICY_KEEP));
    EXPECT_EQ("VESK_SCHED_POLICY_RR", textOf(VESK_SCHED_POLICY_RR));
    EXPECT_EQ("VESK_SCHED_POLICY_FIFO", textOf(VESK_SCHED_POLICY_FIFO));
    EXPECT_EQ("VESK_SCHED_POLICY_NORMAL", textOf(VESK_SCHED_POLICY_NORMAL));
    EXPECT_EQ("VESK_SCHED_CLASS_IDLE", textOf(VESK_SCHED_CLASS_IDLE));
    EXPECT_EQ("VESK_SCHED_CLASS_BELOW_NORMAL", textOf(VESK_SCHED_CLASS_BELOW_NORMAL));
    EXPECT_EQ("VESK_SCHED_CLASS_NORMAL", textOf(VESK_SCHED_CLASS_NORMAL));
    EXPECT_EQ("VESK_SCHED_CLASS_ABOVE_NORMAL", textOf(VESK_SCHED_CLASS_ABOVE_NORMAL));
    EXPECT_EQ("VESK_SCHED_CLASS_HIGH", textOf(VESK_SCHED_CLASS_HIGH));
    EXPECT_EQ("VESK_SCHED_CLASS_REALTIME", textOf(VESK_SCHED_CLASS_REALTIME));
}

class SchedWinThreadPrioNames : public testing::TestWithParam<NameRow> {};

TEST_P(SchedWinThreadPrioNames, areWritten) {
    EXPECT_EQ(GetParam().name, textOf(static_cast<WinThreadPrio>(GetParam().value)));
}

INSTANTIATE_TEST_SUITE_P(
    All, SchedWinThreadPrioNames,
    testing::Values(
        NameRow{0, "VESK_WIN_THREAD_PRIO_IDLE"}, NameRow{1, "VESK_WIN_THREAD_PRIO_LOWEST"},
        NameRow{2, "VESK_WIN_THREAD_PRIO_BELOW_NORMAL"}, NameRow{3, "VESK_WIN_THREAD_PRIO_NORMAL"},
        NameRow{4, "VESK_WIN_THREAD_PRIO_ABOVE_NORMAL"}, NameRow{5, "VESK_WIN_THREAD_PRIO_HIGHEST"},
        NameRow{6, "VESK_WIN_THREAD_PRIO_TIME_CRITICAL"}, NameRow{7, "unknown thread priority (7)"},
        NameRow{-1, "unknown thread priority (-1)"},
        NameRow{INT32_MIN, "unknown thread priority (-2147483648)"}));

TEST(SchedWinThreadPrioNames, belongToTheEnumeratorsOfTheirName) {
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_IDLE", textOf(VESK_WIN_THREAD_PRIO_IDLE));
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_LOWEST", textOf(VESK_WIN_THREAD_PRIO_LOWEST));
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_BELOW_NORMAL", textOf(VESK_WIN_THREAD_PRIO_BELOW_NORMAL));
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_NORMAL", textOf(VESK_WIN_THREAD_PRIO_NORMAL));
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_ABOVE_NORMAL", textOf(VESK_WIN_THREAD_PRIO_ABOVE_NORMAL));
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_HIGHEST", textOf(VESK_WIN_THREAD_PRIO_HIGHEST));
    EXPECT_EQ("VESK_WIN_THREAD_PRIO_TIME_CRITICAL", textOf(VESK_WIN_THREAD_PRIO_TIME_CRITICAL));
}

TEST(SchedText, tellsPriorityAndNiceValueOfParameters) {
    EXPECT_EQ("priority=0, nice=0", textOf(Param()));
    EXPECT_EQ("priority=42, nice=0", textOf(Param(VESK_SCHED_POLICY_RR, 42)));
    EXPECT_EQ("priority=0, nice=-20", textOf(Param(VESK_SCHED_POLICY_NORMAL, -20)));
}

TEST(SchedText, isDecimalWhateverBaseTheStreamIsSetTo) {
    Param param;
    param.priority = 17;
    param.nice = 19;
    std::ostringstream out;
    out << std::hex << std::showbase << std::showpos;
    out << param << ";" << static_cast<Policy_E>(17) << ";" << static_cast<WinThreadPrio>(18);
    EXPECT_EQ("priority=17, nice=19;unknown policy (17);unknown thread priority (18)", out.str());
}

TEST(SchedText, isPaddedAsAWhole) {
    std::ostringstream out;
    out << std::left << std::setw(24) << Param(VESK_SCHED_POLICY_RR, 1) << "|" << std::setw(20)
        << static_cast<Policy_E>(11) << "|";
    EXPECT_EQ("priority=1, nice=0      |unknown policy (11) |", out.str());
}

} // namespace
