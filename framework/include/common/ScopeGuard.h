#pragma once

#include <vesk/common/CancellationOff.h>

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <type_traits>
#include <utility>

namespace std {

/// The result conversion of a `ScopeGuard` for functions that return true on failure: returns the result
/// unchanged.
struct NoopResultConv {
    /// Returns whether the guarded operation failed.
    constexpr bool operator()(bool result) const noexcept { return result; }
};

/// Guard that calls a member function of an object at the end of a scope.
///
///     std::ScopeGuard<File, bool (File::*)()> const guard(file, &File::close);
///
/// If the function reports a failure, an assertion trips, because a destructor cannot return the failure to a
/// caller. An exception from the function ends the process with `std::terminate`. Cancellation of the thread
/// is disabled while the function runs, unless the function is `noexcept` or `T` is a lock. A guard belongs
/// to one thread. It uses no heap and takes no lock.
///
/// @tparam T           the object's class, const if the function is const
/// @tparam Member      pointer to the member function, which takes no arguments and has a result that
///                     `ResultConv` accepts
/// @tparam ResultConv  converts the function's result into a bool that is true on failure
template <typename T, typename Member, typename ResultConv = NoopResultConv>
class [[nodiscard]] ScopeGuard : private tarnbase::NonCopyable {
public:
    /// @param object    must outlive the guard
    /// @param function  the function to call on the object
    /// @param armed     false: the guard does nothing until `arm` is called
    ScopeGuard(T& object, Member function, bool armed = true) noexcept
        : m_object(&object), m_function(function), m_armed(armed) {}

    /// Calls the function unless the guard is released or disarmed.
    virtual ~ScopeGuard() noexcept {
        if (m_released || !m_armed) {
            return;
        }
        [[maybe_unused]] conditional_t<MAY_BE_CANCELLED, vesk::detail::CancellationOff, Nothing> const
            cancellation_off;
        bool const release_failed = ResultConv()((m_object->*m_function)());
        if (release_failed) {
            GlobalErrorHandler::doAssert(
                false, "! release_failed", "framework/include/common/ScopeGuard", __LINE__, "~ScopeGuard",
                nullptr);
        }
    }

    /// Releases the guard permanently: it will not call the function.
    void release() noexcept { m_released = true; }

    /// Keeps the guard from calling the function until `arm` is called.
    void disarm() noexcept { m_armed = false; }
    /// Makes the guard call the function again.
    void arm() noexcept { m_armed = true; }

    /// Returns whether `release` was called.
    bool isReleased() const noexcept { return m_released; }
    /// Returns whether the destructor calls the function.
    bool isArmed() const noexcept { return m_armed; }

private:
    struct Nothing {};

    /// Detects a lock. Unlocking reaches no cancellation point, so disabling cancellation would only cost
    /// time.
    template <typename U>
    static auto isLock(U& object) -> decltype(object.lock(), object.unlock(), true_type());
    static false_type isLock(...);

    static constexpr bool MAY_BE_CANCELLED =
        !is_nothrow_invocable_v<Member, T&> && !decltype(isLock(declval<T&>()))::value;

    T* m_object;
    Member m_function;
    bool m_released = false;
    bool m_armed;
};

} // namespace std
