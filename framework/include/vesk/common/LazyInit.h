#pragma once

#include <vesk/AtomicCounter.h>
#include <vesk/Mutex.h>
#include <vesk/common/AbortingLock.h>

#include <tarncommon/tarnbase/NonCopyable.h>

namespace vesk {

/// Base of objects that defer a set-up to its first use, and run it once however many threads request it at
/// the same time.
///
///     class LazyTable : public vesk::LazyInitBase<void*> {
///         bool doInit() override { ... }
///     };
///     LazyTable s_table;
///
///     if (s_table.checkInit(nullptr)) { ... }
///
/// After the set-up a check is one read without a lock. All threads may check concurrently. While one thread
/// runs the set-up, the others wait until it is finished. The set-up must not check its own object.
template <typename T>
class LazyInitBase : private tarnbase::NonCopyable {
protected:
    /// Performs the set-up. `m_argument` is the argument of the `checkInit` call that runs it.
    /// @return true on failure; its reports stay pending
    virtual bool doInit() = 0;

public:
    virtual ~LazyInitBase() = default;

    /// Runs the set-up unless it has run. A failed set-up is not repeated: code that needs its result has to
    /// check the state that the set-up left.
    ///
    /// @param argument  stored for the set-up; ignored once the set-up has run
    /// @return true if the set-up ran in this call and failed. If the lock fails,
    ///         `std::GlobalErrorHandler::doAbort` is called.
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
    Mutex m_mutex{TARN_LOCK_NAME(LAZY_INIT)};

protected:
    /// The argument of the first `checkInit`.
    T m_argument{};
};

} // namespace vesk
