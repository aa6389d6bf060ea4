#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>

namespace vesk {

/// A 32-bit counter that all threads may increment concurrently.
///
///     vesk::AtomicCounter s_jobs;
///     s_jobs.increment();
///
/// Starts at 0 and is constant-initialized, so that every initializer may use a global counter. No operation
/// blocks or fails.
class AtomicCounter : private tarnbase::NonCopyable {
public:
    constexpr AtomicCounter() noexcept = default;

    /// Returns the count, with a full memory barrier on both sides. The count wraps around to 0 after
    /// 4,294,967,295.
    VESK_API_INLINE uint32_t getCurrentCount() const noexcept { return __sync_fetch_and_add(&m_count, 0); }

    /// Returns the count for a fast path (acquire): writes before an `increment` that is included in the
    /// count are visible to reads after this call.
    uint32_t peekCount() const noexcept { return __atomic_load_n(&m_count, __ATOMIC_ACQUIRE); }

    /// Adds 1, with a full memory barrier on both sides.
    /// @return the new count
    uint32_t increment() noexcept { return __sync_add_and_fetch(&m_count, 1); }

private:
    // Mutable because reading it with full barriers is a read-modify-write operation.
    mutable uint32_t m_count = 0;
};

} // namespace vesk
