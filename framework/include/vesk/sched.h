#pragma once

#include <vesk/Export.h>

#include <cstdint>
#include <iosfwd>

/// Scheduling of a thread or a child process, independent of the system call that applies it:
///
///     vesk::sched::Attr attributes;
///     attributes.policy = vesk::sched::VESK_SCHED_POLICY_RR;
///     attributes.param = vesk::sched::Param(attributes.policy, 10);
///
/// All types are plain values, with the thread-safety of an `int`.
namespace vesk::sched {

/// Scheduling policies.
///
/// The six classes exist for other operating systems. On this one a thread that is created with a class
/// inherits the scheduling of its creator, and a class cannot be set on an existing thread.
enum Policy_E : int32_t {
    VESK_SCHED_NOOP = 0,               ///< Change nothing: a new thread inherits from its creator.
    VESK_SCHED_POLICY_KEEP = 1,        ///< Keep the creator's policy, with new parameters.
    VESK_SCHED_POLICY_RR = 2,          ///< Real-time round robin, `SCHED_RR`.
    VESK_SCHED_POLICY_FIFO = 3,        ///< Real-time first-in first-out, `SCHED_FIFO`.
    VESK_SCHED_POLICY_NORMAL = 4,      ///< Time sharing with a nice value, `SCHED_OTHER`.
    VESK_SCHED_CLASS_IDLE = 5,         ///< Portable class.
    VESK_SCHED_CLASS_BELOW_NORMAL = 6, ///< Portable class.
    VESK_SCHED_CLASS_NORMAL = 7,       ///< Portable class.
    VESK_SCHED_CLASS_ABOVE_NORMAL = 8, ///< Portable class.
    VESK_SCHED_CLASS_HIGH = 9,         ///< Portable class.
    VESK_SCHED_CLASS_REALTIME = 10,    ///< Portable class.
};

/// Thread priorities of another operating system. On this one only their text form is used.
enum WinThreadPrio : int32_t {
    VESK_WIN_THREAD_PRIO_IDLE = 0,
    VESK_WIN_THREAD_PRIO_LOWEST = 1,
    VESK_WIN_THREAD_PRIO_BELOW_NORMAL = 2,
    VESK_WIN_THREAD_PRIO_NORMAL = 3,
    VESK_WIN_THREAD_PRIO_ABOVE_NORMAL = 4,
    VESK_WIN_THREAD_PRIO_HIGHEST = 5,
    VESK_WIN_THREAD_PRIO_TIME_CRITICAL = 6,
};

/// A `Policy_E` with the initial value `VESK_SCHED_NOOP`. Converts implicitly in both directions.
class Policy {
public:
    constexpr Policy() noexcept = default;
    /// Creates a policy from its number.
    constexpr Policy(Policy_E value) noexcept : m_value(value) {}

    /// Returns the number of the policy.
    constexpr operator Policy_E() const noexcept { return m_value; }

private:
    Policy_E m_value = VESK_SCHED_NOOP;
};

/// The parameters of a policy. The policy determines which of them are used.
class VESK_API Param {
public:
    /// Creates parameters that are all zero.
    constexpr Param() noexcept = default;

    /// Creates parameters that are all zero except `value`. It goes into `nice` for
    /// `VESK_SCHED_POLICY_NORMAL` and into `priority` for `VESK_SCHED_POLICY_RR`, `VESK_SCHED_POLICY_FIFO`
    /// and the classes. It is ignored for `VESK_SCHED_NOOP` and unknown policies. Its range is not checked.
    ///
    /// `VESK_SCHED_POLICY_KEEP` stands for the policy of the calling thread, which is read with
    /// `Thread::getCallerSchedAttrs`. If that fails, the object is all zero and the error stays pending:
    /// check `std::ErrorStorage::isError`.
    Param(Policy policy, int value);

    uint8_t reserved_byte = 0;  ///< For other operating systems; always 0 on this one.
    uint32_t reserved_word = 0; ///< For other operating systems; always 0 on this one.
    int32_t priority = 0; ///< Real-time priority, from `sched_get_priority_min` to `_max` of the policy.
    int32_t nice = 0;     ///< Nice value of time sharing, -20 (most urgent) to 19.
    uint32_t reserved_last = 0; ///< For other operating systems; always 0 on this one.
};

/// A policy with its parameters. The initial state is all zero and means `VESK_SCHED_NOOP`.
struct Attr {
    /// The policy.
    Policy policy;
    /// The parameters of the policy.
    Param param;
};

/// Writes the enumerator's name; for other values "unknown policy (", the value in decimal and ")".
VESK_API std::ostream& operator<<(std::ostream& out, Policy_E policy);

/// Writes the enumerator's name; for other values "unknown thread priority (", the value in decimal and ")".
VESK_API std::ostream& operator<<(std::ostream& out, WinThreadPrio priority);

/// Writes both parameters in decimal, as in "priority=0, nice=5".
VESK_API std::ostream& operator<<(std::ostream& out, Param const& param);

} // namespace vesk::sched
