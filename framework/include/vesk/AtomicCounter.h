#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>

namespace vesk {

/// A 32-bit counter that all threads may count up at once.
///
///     vesk::AtomicCounter s_jobs;
///     s_jobs.increment();
///
/// Begins at 0, at compile time, so a global one can be used from every initialiser. No operation blocks or fails.
class AtomicCounter : private tarnbase::NonCopyable {
public:
    constexpr AtomicCounter() noexcept = default;

    /// The count, with a full memory barrier on both sides. Counting beyond 4,294,967,295 begins at 0 again.
    VESK_API_INLINE uint32_t getCurrentCount() const noexcept { return __sync_fetch_and_add(&m_count, 0); }

    /// The count for a fast path: what was written before an `increment` that it has seen can be read after it
    /// (acquire).
    uint32_t peekCount() const noexcept { return __atomic_load_n(&m_count, __ATOMIC_ACQUIRE); }

    /// Adds 1, with a full memory barrier on both sides.
    /// @return the new count
    uint32_t increment() noexcept { return __sync_add_and_fetch(&m_count, 1); }

private:
    // Reading it with full barriers is an operation that also writes.
    mutable uint32_t m_count = 0;
};

} // namespace vesk
