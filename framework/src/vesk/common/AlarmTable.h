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

/// The pending alarms of an engine with their expiries: found by the alarm, and the earliest one at hand.
///
/// A hash table of the alarms with open addressing, and a heap of the expiries; each knows where its other half lies.
/// Both are plain arrays, so that a hundred thousand pending alarms cost an operation a few cache lines and no
/// allocation. They keep their memory.
///
/// All operations but `getCount` are called with the engine's lock held.
class AlarmTable : private tarnbase::NonCopyable {
public:
    AlarmTable();

    /// How many are pending. Callable without the lock.
    size_t getCount() const noexcept { return m_count.load(std::memory_order_relaxed); }

    /// The smallest expiry; `TimePoint::MAX` without any.
    tarnbase::TimePoint getEarliest() const noexcept {
        return getCount() == 0 ? tarnbase::TimePoint::MAX : m_heap.front().expiry;
    }

    /// Puts an alarm in, or gives it another expiry. Throws `std::bad_alloc`, and has then changed nothing.
    void set(Alarm* alarm, tarnbase::TimePoint expiry);

    /// Takes an alarm out; one that is not there is ignored.
    void erase(Alarm const* alarm) noexcept;

    /// Takes the alarm with the smallest expiry out. There must be one.
    Alarm* takeEarliest() noexcept;

private:
    static constexpr size_t FREE = SIZE_MAX;

    struct Slot {
        Alarm* alarm = nullptr;
        size_t place = FREE; // Where in the heap.
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

    std::vector<Slot>
        m_slots; // A power of two, at least half of them free. An alarm lies at its home or behind it.
    std::vector<Entry> m_heap; // With four children each, and room for half as many as there are slots.
    unsigned int m_shift;      // Of a 64-bit hash, to get an index of a slot.
    std::atomic<size_t> m_count{0};
};

} // namespace vesk::detail
