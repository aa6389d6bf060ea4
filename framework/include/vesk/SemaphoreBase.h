#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <semaphore.h>

namespace vesk {

/// Access to a named semaphore, with which processes count shared resources and wait for them. A
/// `SemaphoreCreator` creates it, and a `SemaphoreClient` opens it by its name. Afterwards both behave in the
/// same way.
///
///     vesk::SemaphoreClient slots;
///     if (slots.attach("slots") || slots.take()) { ... }
///     useSlot();
///     if (slots.release()) { ... }
///
/// Any thread may take and release. `close` is not synchronized with that: a blocked call that a signal
/// interrupts detects that the object was closed meanwhile, and returns success without having taken
/// anything. The caller must prevent all other concurrent use during `close`.
class VESK_API SemaphoreBase : private tarnbase::NonCopyable {
public:
    /// Closes the semaphore. A failure gives only a warning of `std::GlobalErrorHandler`.
    virtual ~SemaphoreBase();

    /// Closes the semaphore (`sem_close`). The object is closed even on failure. Does nothing, with success,
    /// on a closed object.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, on top of pending reports
    [[nodiscard]] virtual bool close();

    /// Returns whether the semaphore is open.
    bool isValid() const noexcept { return getSemaphore() != nullptr; }

    /// Blocks until the value is above 0, and decrements it (`sem_wait`, repeated while a signal interrupts
    /// it).
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` on a closed object, else
    ///         `SysErrorId::SPOILED_INTEGRITY`
    [[nodiscard]] VESK_API_INLINE bool take() const {
        sem_t* const opened = getSemaphore();
        return (opened == nullptr || sem_wait(opened) != 0) && handleTakeError(opened);
    }

    /// Decrements the value if it is above 0 (`sem_trywait`). Never blocks.
    /// @return 0 if taken; 1 if the value is 0, which is not reported; -1 on failure: as for `take`
    signed char tryTake() const;

    /// Does the same as `take`, but blocks for at most `ms` milliseconds (`sem_timedwait`). The deadline is
    /// on the wall clock: setting the clock moves it. With 0 or less it does not block.
    /// @return 0 if taken; 1 after a timeout, which is not reported; -1 on failure: as for `take`, and
    ///         `SysErrorId::UNCLASSIFIED` if the clock cannot be read
    signed char tryTakeTimeout(long long const& ms) const;

    /// Increments the value and wakes one waiting thread (`sem_post`). Never blocks.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` on a closed object,
    ///         `SysErrorId::RESOURCES_EXHAUSTED` at the highest value, else `SysErrorId::SPOILED_INTEGRITY`
    [[nodiscard]] VESK_API_INLINE bool release() const {
        sem_t* const opened = getSemaphore();
        // LCOV_EXCL_BR_LINE: the last function always returns true
        return (opened == nullptr || sem_post(opened) != 0) && handleReleaseError(opened);
    }

protected:
    SemaphoreBase() noexcept = default;

    /// Returns the semaphore, null if it is closed.
    sem_t* getSemaphore() const noexcept { return semaphore.load(std::memory_order_relaxed); }
    /// Sets the semaphore.
    void setSemaphore(sem_t* opened) noexcept { semaphore.store(opened, std::memory_order_relaxed); }

private:
    bool handleTakeError(sem_t const* opened) const;
    bool handleReleaseError(sem_t const* opened) const;
    template <typename Wait>
    bool wait(Wait call) const;

    std::atomic<sem_t*> semaphore{nullptr};
};

} // namespace vesk
