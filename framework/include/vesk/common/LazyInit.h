#pragma once

#include <vesk/AtomicCounter.h>
#include <vesk/Mutex.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// Puts a set-up off to its first use, and runs it once however many threads ask for it at the same moment.
///
///     class LazyTable : public vesk::LazyInitBase<void*> {
///         bool doInit() override { ... }
///     };
///     LazyTable s_table;
///
///     if (s_table.checkInit(nullptr)) { ... }
///
/// After the set-up a check is one read without a lock. All threads may check at once; while one runs the set-up the
/// others wait for its end. The set-up must not check its own object.
template <typename T>
class LazyInitBase : private tarnbase::NonCopyable {
protected:
    /// The set-up. `m_argument` is what the `checkInit` that runs it was given.
    /// @return true on failure; what it reported stays pending
    virtual bool doInit() = 0;

public:
    virtual ~LazyInitBase() = default;

    /// Runs the set-up unless it has run. A failed one is not tried again: whoever needs its result has to look at what
    /// the set-up left behind.
    ///
    /// @param argument  kept for the set-up; ignored once that has run
    /// @return true if the set-up failed in this very call. A lock that fails goes to
    ///         `std::GlobalErrorHandler::doAbort`.
    bool checkInit(T argument) {
        if (__builtin_expect(m_count.peekCount() != 0, 1)) {
            return false;
        }
        AbortingLock<Mutex> const lock(m_mutex, "framework/include/vesk/common/LazyInit", "checkInit");
        if (m_count.peekCount() != 0) {
            return false;
        }
        m_argument = argument;
        bool const failed = doInit();
        m_count.increment();
        return failed;
    }

private:
    AtomicCounter m_count;
    Mutex m_mutex;

protected:
    T m_argument{};
};

} // namespace vesk
