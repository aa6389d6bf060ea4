#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vesk {
class Alarm;
}

namespace vesk::detail {

/// The pending alarms of an engine with their expiries. Finds an entry by its alarm, and the earliest entry
/// in constant time.
///
/// Consists of a hash table of the alarms with open addressing, and a heap of the expiries; the entries of
/// each refer to those of the other. Both are plain arrays: with a hundred thousand pending alarms an
/// operation touches a few cache lines and allocates nothing, except when the table grows. The arrays never
/// shrink.
///
/// All operations but `getCount` are called with the engine's lock held.
class AlarmTable : private tarnbase::NonCopyable {
public:
    /// The state of the kernel's timer, which belongs to the engine. It is here because the size of the engine
    /// must not change: programs contain engines. Moments are nanoseconds of the monotonic clock.
    struct KernelTimer {
        /// When it rings at the latest; 0 if unknown.
        long long rings_at = 0;
        /// The exact moment of the expiry `exact_for`, for which the kernel's timer was not armed because it
        /// rings before.
        long long exact = 0;
        tarnbase::TimePoint exact_for = tarnbase::TimePoint::MAX;
    };

    AlarmTable();

    KernelTimer& getKernelTimer() noexcept { return m_kernel_timer; }

    /// Returns the number of pending alarms. May be called without the lock.
    size_t getCount() const noexcept { return m_count.load(std::memory_order_relaxed); }

    /// Returns the smallest expiry; `TimePoint::MAX` without any.
    tarnbase::TimePoint getEarliest() const noexcept {
        return getCount() == 0 ? tarnbase::TimePoint::MAX : m_heap.front().expiry;
    }

    /// Adds an alarm, or changes its expiry. Throws `std::bad_alloc`, and then leaves everything unchanged.
    void set(Alarm* alarm, tarnbase::TimePoint expiry);

    /// Removes an alarm; ignores an alarm that is not in the table.
    void erase(Alarm const* alarm) noexcept;

    /// Removes and returns the alarm with the smallest expiry. The table must not be empty.
    Alarm* takeEarliest() noexcept;

private:
    static constexpr size_t FREE = SIZE_MAX;

    struct Slot {
        Alarm* alarm = nullptr;
        size_t place = FREE; // Index in the heap.
    };
    struct Entry {
        tarnbase::TimePoint expiry;
        size_t slot = 0;
    };

    size_t nextSlot(size_t slot) const noexcept { return (slot + 1) & (m_slots.size() - 1); }
    size_t distance(size_t from, size_t to) const noexcept { return (to - from) & (m_slots.size() - 1); }
    size_t getHome(Alarm const* alarm) const noexcept;
    size_t find(Alarm const* alarm) const noexcept;

    void setCount(size_t count) noexcept { m_count.store(count, std::memory_order_relaxed); }

    void grow();
    void eraseSlot(size_t slot) noexcept;
    void freeSlot(size_t hole) noexcept;
    void put(size_t place, Entry const& entry) noexcept;
    void settle(size_t place, Entry entry) noexcept;
    size_t getEarliestChild(size_t place) const noexcept;

    // The size is a power of two, and at least half are free. An alarm is at its home or behind it.
    std::vector<Slot> m_slots;
    // Each entry has four children. There is room for half as many entries as there are slots.
    std::vector<Entry> m_heap;
    unsigned int m_shift; // Turns a 64-bit hash into the index of a slot.
    std::atomic<size_t> m_count{0};
    KernelTimer m_kernel_timer;
};

} // namespace vesk::detail
