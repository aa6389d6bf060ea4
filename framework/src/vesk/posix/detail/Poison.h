#pragma once

#include <cstring>

namespace vesk::detail {

/// Fills a raw lock that the system did not make, so that destroying it can tell.
template <typename RawLock>
void poison(RawLock* lock, unsigned char byte) noexcept {
    memset(lock, byte, sizeof *lock);
}

/// Whether all bytes of a raw lock have the given value: no call of the system leaves that.
template <typename RawLock>
bool isPoisoned(RawLock const* lock, unsigned char byte) noexcept {
    RawLock filled;
    memset(&filled, byte, sizeof filled);
    // Padding counts: the fill covers it, too.
    return memcmp(lock, &filled, sizeof filled) == 0; // NOLINT(bugprone-suspicious-memory-comparison)
}

/// The fill of mutexes and conditions.
constexpr unsigned char FAILED_LOCK = 0xEB;
/// The fill of read-write locks.
constexpr unsigned char NO_LOCK = 0xFF;

} // namespace vesk::detail
