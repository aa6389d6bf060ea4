#pragma once

#include <vesk/Export.h>

#include <atomic>

namespace vesk {

/// A bool that several threads may read and write without a lock. Each access is atomic and relaxed: it costs
/// as much as for a plain bool, and does not order other accesses. Has the size of a bool.
class RelaxedFlag {
public:
    // NOLINTNEXTLINE(google-explicit-constructor): takes the place of a plain bool.
    /// Creates a flag.
    constexpr RelaxedFlag(bool value = false) noexcept : m_value(value) {}

    /// Sets the flag.
    RelaxedFlag& operator=(bool value) noexcept {
        m_value.store(value, std::memory_order_relaxed);
        return *this;
    }

    // NOLINTNEXTLINE(google-explicit-constructor): takes the place of a plain bool.
    /// Returns the flag.
    operator bool() const noexcept { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> m_value;
};
static_assert(sizeof(RelaxedFlag) == sizeof(bool));

} // namespace vesk
