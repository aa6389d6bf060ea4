#pragma once

#include <cstring>

namespace vesk::detail {

/// Marks a raw lock that the system did not create, so that its destruction can recognize it.
template <typename RawLock>
void poison(RawLock* lock, unsigned char byte) noexcept {
    memset(lock, byte, sizeof *lock);
}

/// Returns whether all bytes of a raw lock have the given value. No call of the system leaves a lock in that
/// state.
template <typename RawLock>
bool isPoisoned(RawLock const* lock, unsigned char byte) noexcept {
    RawLock filled;
    memset(&filled, byte, sizeof filled);
    // Padding is compared on purpose: the fill covers it as well.
    return memcmp(lock, &filled, sizeof filled) == 0; // NOLINT(bugprone-suspicious-memory-comparison)
}

/// The fill of mutexes and conditions.
constexpr unsigned char FAILED_LOCK = 0xEB;
/// The fill of read-write locks.
constexpr unsigned char NO_LOCK = 0xFF;

} // namespace vesk::detail
