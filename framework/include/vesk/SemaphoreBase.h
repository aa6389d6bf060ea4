#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <semaphore.h>

namespace vesk {

/// Taking and releasing of a named semaphore, with which processes count and wait for what they share. A
/// `SemaphoreCreator` makes it, a `SemaphoreClient` attaches to it by its name; from then on both are alike.
///
///     vesk::SemaphoreClient slots;
///     if (slots.attach("slots") || slots.take()) { ... }
///     useSlot();
///     if (slots.release()) { ... }
///
/// Any thread may take and release. `close` is not synchronised with that: a wait that a signal interrupts sees that the
/// object was closed meanwhile, and ends without failure and without having taken anything. Everything else of that kind
/// is for the caller to prevent.
class VESK_API SemaphoreBase : private tarnbase::NonCopyable {
public:
    /// Closes the semaphore. A failure shows as a warning only.
    virtual ~SemaphoreBase();

    /// Lets go of the semaphore (`sem_close`). The object is closed whatever the system says. On a closed object it does
    /// nothing, with success.
    /// @return true on failure: `SysErrorId::SPOILED_INTEGRITY`, on top of what is pending
    virtual bool close();

    /// Whether the semaphore is open.
    bool isValid() const noexcept { return getSemaphore() != nullptr; }

    /// Waits until the value is above 0, and decreases it (`sem_wait`, repeated while a signal interrupts it).
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` on a closed object, else `SysErrorId::SPOILED_INTEGRITY`
    VESK_API_INLINE bool take() const {
        sem_t* const opened = getSemaphore();
        return (opened == nullptr || sem_wait(opened) != 0) && handleTakeError(opened);
    }

    /// Decreases the value if it is above 0 (`sem_trywait`). Never blocks.
    /// @return 0 taken; 1 not available, nothing is reported; -1 on failure: as `take`
    signed char tryTake() const;

    /// As `take`, but waits no longer than `ms` milliseconds (`sem_timedwait`). The time runs on the wall clock: setting
    /// that moves the end. With 0, or less, it does not wait.
    /// @return 0 taken; 1 timed out, nothing is reported; -1 on failure: as `take`, and `SysErrorId::UNCLASSIFIED` if the clock cannot
    ///         be read
    signed char tryTakeTimeout(long long const& ms) const;

    /// Increases the value, and wakes one who waits (`sem_post`). Never blocks.
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` on a closed object, `SysErrorId::RESOURCES_EXHAUSTED` at the highest value, else `SysErrorId::SPOILED_INTEGRITY`
    VESK_API_INLINE bool release() const {
        sem_t* const opened = getSemaphore();
        return (opened == nullptr || sem_post(opened) != 0) && handleReleaseError(opened);
    }

protected:
    SemaphoreBase() noexcept = default;

    sem_t* getSemaphore() const noexcept { return semaphore.load(std::memory_order_relaxed); }
    void setSemaphore(sem_t* opened) noexcept { semaphore.store(opened, std::memory_order_relaxed); }

private:
    bool handleTakeError(sem_t const* opened) const;
    bool handleReleaseError(sem_t const* opened) const;
    template <typename Wait>
    bool wait(Wait call) const;

    std::atomic<sem_t*> semaphore{nullptr};
};

} // namespace vesk
