#include <vesk/sched.h>

#include <vesk/Thread.h>

#include <cstdio>
#include <iterator>
#include <ostream>

namespace vesk::sched {

namespace {

// In the order of the enumerators, which count from 0.
constexpr char const* POLICY_NAMES[] = {
    "VESK_SCHED_NOOP",
    "VESK_SCHED_POLICY_KEEP",
    "VESK_SCHED_POLICY_RR",
    "VESK_SCHED_POLICY_FIFO",
    "VESK_SCHED_POLICY_NORMAL",
    "VESK_SCHED_CLASS_IDLE",
    "VESK_SCHED_CLASS_BELOW_NORMAL",
    "VESK_SCHED_CLASS_NORMAL",
    "VESK_SCHED_CLASS_ABOVE_NORMAL",
    "VESK_SCHED_CLASS_HIGH",
    "VESK_SCHED_CLASS_REALTIME",
};
static_assert(std::size(POLICY_NAMES) == VESK_SCHED_CLASS_REALTIME + 1);

constexpr char const* WIN_THREAD_PRIO_NAMES[] = {
    "VESK_WIN_THREAD_PRIO_IDLE",          "VESK_WIN_THREAD_PRIO_LOWEST",
    "VESK_WIN_THREAD_PRIO_BELOW_NORMAL",  "VESK_WIN_THREAD_PRIO_NORMAL",
    "VESK_WIN_THREAD_PRIO_ABOVE_NORMAL",  "VESK_WIN_THREAD_PRIO_HIGHEST",
    "VESK_WIN_THREAD_PRIO_TIME_CRITICAL",
};
static_assert(std::size(WIN_THREAD_PRIO_NAMES) == VESK_WIN_THREAD_PRIO_TIME_CRITICAL + 1);

/// Writes the name of a value from its table. Numbers are decimal whatever the base of the stream.
template <size_t N>
std::ostream& write(std::ostream& out, char const* const (&names)[N], int value, char const* unknown) {
    if (value >= 0 && value < static_cast<int>(N)) {
        return out << names[value];
    }
    char text[64];
    snprintf(text, sizeof text, "%s%d)", unknown, value);
    return out << text;
}

} // namespace

Param::Param(Policy policy, int value) {
    if (policy == VESK_SCHED_POLICY_KEEP) {
        Attr caller;
        if (Thread::getCallerSchedAttrs(caller)) {
            return;
        }
        policy = caller.policy;
    }
    switch (policy) {
    case VESK_SCHED_POLICY_NORMAL:
        nice = value;
        break;
    case VESK_SCHED_POLICY_RR:
    case VESK_SCHED_POLICY_FIFO:
    case VESK_SCHED_CLASS_IDLE:
    case VESK_SCHED_CLASS_BELOW_NORMAL:
    case VESK_SCHED_CLASS_NORMAL:
    case VESK_SCHED_CLASS_ABOVE_NORMAL:
    case VESK_SCHED_CLASS_HIGH:
    case VESK_SCHED_CLASS_REALTIME:
        priority = value;
        break;
    case VESK_SCHED_NOOP:
    case VESK_SCHED_POLICY_KEEP:
        break;
    }
}

std::ostream& operator<<(std::ostream& out, Policy_E policy) {
    return write(out, POLICY_NAMES, policy, "unknown policy (");
}

std::ostream& operator<<(std::ostream& out, WinThreadPrio priority) {
    return write(out, WIN_THREAD_PRIO_NAMES, priority, "unknown thread priority (");
}

std::ostream& operator<<(std::ostream& out, Param const& param) {
    char text[64];
    snprintf(text, sizeof text, "priority=%d, nice=%d", param.priority, param.nice);
    return out << text;
}

} // namespace vesk::sched
