#include "threads/SchedSupport.h"

#include <iomanip>
#include <limits>

VESK_INJECT_RESULT(
    pthread_getschedparam, (pthread_t thread, int* policy, sched_param* param), (thread, policy, param))

namespace {

using namespace support;
using namespace vesk::sched;

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

TEST(SchedAttr, beginsAllZeroWhichIsNoop) {
    static Attr attributes; // Static, so that the padding is zero, too.
    unsigned char const zero[sizeof attributes] = {};
    EXPECT_EQ(0, memcmp(zero, &attributes, sizeof attributes));
    EXPECT_EQ(VESK_SCHED_NOOP, attributes.policy);
}

// ---- the constructor ----

TEST(SchedParam, putsTheValueWhereThePolicyLooksForIt) {
    struct {
        int policy;
        int priority;
        int nice;
    } const rows[] = {
        {VESK_SCHED_NOOP, 0, 0},
        {VESK_SCHED_POLICY_RR, 5, 0},
        {VESK_SCHED_POLICY_FIFO, 5, 0},
        {VESK_SCHED_POLICY_NORMAL, 0, 5},
        {VESK_SCHED_CLASS_IDLE, 5, 0},
        {VESK_SCHED_CLASS_BELOW_NORMAL, 5, 0},
        {VESK_SCHED_CLASS_NORMAL, 5, 0},
        {VESK_SCHED_CLASS_ABOVE_NORMAL, 5, 0},
        {VESK_SCHED_CLASS_HIGH, 5, 0},
        {VESK_SCHED_CLASS_REALTIME, 5, 0},
        {11, 0, 0},
        {-1, 0, 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.policy);
        expectParam(Param(static_cast<Policy_E>(row.policy), 5), row.priority, row.nice);
        EXPECT_TRUE(chainIs({}));
    }
}

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

TEST(SchedParam, keepIsAPriorityInARealTimeThreadAndANiceValueInATimeSharingOne) {
    for (int const policy : {SCHED_FIFO, SCHED_RR, SCHED_OTHER}) {
        SCOPED_TRACE(policy);
        bool const shares = policy == SCHED_OTHER;
        inPreparedThread(
            "no real-time scheduling here", [=] { return setPolicy(policy, shares ? 0 : 1); },
            [=] { expectParam(Param(VESK_SCHED_POLICY_KEEP, 5), shares ? 0 : 5, shares ? 5 : 0); });
    }
}

TEST(SchedParam, keepThatCannotReadStaysAllZeroWithTheErrorPending) {
    Fault const fault(inject_pthread_getschedparam, ESRCH);
    expectParam(Param(VESK_SCHED_POLICY_KEEP, 5), 0, 0);
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
    int number;
    char const* name;
};

NameRow const POLICIES[] = {
    {VESK_SCHED_NOOP, 0, "VESK_SCHED_NOOP"},
    {VESK_SCHED_POLICY_KEEP, 1, "VESK_SCHED_POLICY_KEEP"},
    {VESK_SCHED_POLICY_RR, 2, "VESK_SCHED_POLICY_RR"},
    {VESK_SCHED_POLICY_FIFO, 3, "VESK_SCHED_POLICY_FIFO"},
    {VESK_SCHED_POLICY_NORMAL, 4, "VESK_SCHED_POLICY_NORMAL"},
    {VESK_SCHED_CLASS_IDLE, 5, "VESK_SCHED_CLASS_IDLE"},
    {VESK_SCHED_CLASS_BELOW_NORMAL, 6, "VESK_SCHED_CLASS_BELOW_NORMAL"},
    {VESK_SCHED_CLASS_NORMAL, 7, "VESK_SCHED_CLASS_NORMAL"},
    {VESK_SCHED_CLASS_ABOVE_NORMAL, 8, "VESK_SCHED_CLASS_ABOVE_NORMAL"},
    {VESK_SCHED_CLASS_HIGH, 9, "VESK_SCHED_CLASS_HIGH"},
    {VESK_SCHED_CLASS_REALTIME, 10, "VESK_SCHED_CLASS_REALTIME"},
    {11, 11, "unknown policy (11)"},
    {-1, -1, "unknown policy (-1)"},
    {INT32_MIN, INT32_MIN, "unknown policy (-2147483648)"},
    {INT32_MAX, INT32_MAX, "unknown policy (2147483647)"},
};

NameRow const PRIORITIES[] = {
    {VESK_WIN_THREAD_PRIO_IDLE, 0, "VESK_WIN_THREAD_PRIO_IDLE"},
    {VESK_WIN_THREAD_PRIO_LOWEST, 1, "VESK_WIN_THREAD_PRIO_LOWEST"},
    {VESK_WIN_THREAD_PRIO_BELOW_NORMAL, 2, "VESK_WIN_THREAD_PRIO_BELOW_NORMAL"},
    {VESK_WIN_THREAD_PRIO_NORMAL, 3, "VESK_WIN_THREAD_PRIO_NORMAL"},
    {VESK_WIN_THREAD_PRIO_ABOVE_NORMAL, 4, "VESK_WIN_THREAD_PRIO_ABOVE_NORMAL"},
    {VESK_WIN_THREAD_PRIO_HIGHEST, 5, "VESK_WIN_THREAD_PRIO_HIGHEST"},
    {VESK_WIN_THREAD_PRIO_TIME_CRITICAL, 6, "VESK_WIN_THREAD_PRIO_TIME_CRITICAL"},
    {7, 7, "unknown thread priority (7)"},
    {-1, -1, "unknown thread priority (-1)"},
    {INT32_MIN, INT32_MIN, "unknown thread priority (-2147483648)"},
};

TEST(SchedText, namesPolicies) {
    for (NameRow const& row : POLICIES) {
        EXPECT_EQ(row.number, row.value) << row.name;
        EXPECT_EQ(row.name, textOf(static_cast<Policy_E>(row.value)));
        EXPECT_EQ(row.name, textOf(Policy(static_cast<Policy_E>(row.value))))
            << "through the class around it";
    }
}

TEST(SchedText, namesPriorities) {
    for (NameRow const& row : PRIORITIES) {
        EXPECT_EQ(row.number, row.value) << row.name;
        EXPECT_EQ(row.name, textOf(static_cast<WinThreadPrio>(row.value)));
    }
}

TEST(SchedText, showsPriorityAndNiceValueOfParameters) {
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
