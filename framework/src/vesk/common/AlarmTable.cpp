#include "AlarmTable.h"

#include <algorithm>

namespace vesk::detail {

using tarnbase::TimePoint;

namespace {

constexpr unsigned int FIRST_SLOTS_LOG2 = 4;
constexpr size_t CHILDREN = 4; // Half as many levels as in a binary heap; siblings share cache lines.

constexpr size_t getParent(size_t place) noexcept {
    return (place - 1) / CHILDREN;
}

} // namespace

AlarmTable::AlarmTable()
    : m_slots(size_t{1} << FIRST_SLOTS_LOG2), m_heap(m_slots.size() / 2), m_shift(64 - FIRST_SLOTS_LOG2) {}

void AlarmTable::set(Alarm* alarm, TimePoint expiry) {
    size_t slot = find(alarm);
    if (m_slots[slot].place == FREE) {
        if (getCount() == m_heap.size()) {
            grow();
            slot = find(alarm);
        }
        m_slots[slot] = {alarm, getCount()};
        setCount(getCount() + 1);
    }
    settle(m_slots[slot].place, {expiry, slot});
}

void AlarmTable::erase(Alarm const* alarm) noexcept {
    size_t const slot = find(alarm);
    if (m_slots[slot].place != FREE) {
        eraseSlot(slot);
    }
}

Alarm* AlarmTable::takeEarliest() noexcept {
    size_t const slot = m_heap.front().slot;
    Alarm* const alarm = m_slots[slot].alarm;
    eraseSlot(slot);
    return alarm;
}

size_t AlarmTable::getHome(Alarm const* alarm) const noexcept {
    // Alarms are often at equal distances: the multiplication spreads their addresses, best in the upper
    // bits.
    uint64_t const address = reinterpret_cast<uintptr_t>(alarm);
    return static_cast<size_t>((address * 0x9E3779B97F4A7C15U) >> m_shift);
}

/// Returns the alarm's slot, or the free slot for it.
size_t AlarmTable::find(Alarm const* alarm) const noexcept {
    size_t slot = getHome(alarm);
    while (m_slots[slot].place != FREE && m_slots[slot].alarm != alarm) {
        slot = nextSlot(slot);
    }
    return slot;
}

void AlarmTable::grow() {
    std::vector<Entry> heap(2 * m_heap.size());
    std::vector<Slot> slots(2 * m_slots.size());
    // Nothing can fail from here on.
    std::copy(m_heap.begin(), m_heap.end(), heap.begin());
    m_heap.swap(heap);
    m_slots.swap(slots);
    --m_shift;
    for (size_t place = 0; place < getCount(); ++place) {
        Alarm* const alarm = slots[m_heap[place].slot].alarm;
        m_heap[place].slot = find(alarm);
        m_slots[m_heap[place].slot] = {alarm, place};
    }
}

void AlarmTable::eraseSlot(size_t slot) noexcept {
    size_t const place = m_slots[slot].place;
    setCount(getCount() - 1);
    if (place < getCount()) {
        settle(place, m_heap[getCount()]); // The last entry fills the gap.
    }
    freeSlot(slot);
}

/// Frees a slot and moves the entries behind it up, so that no search stops at the gap.
void AlarmTable::freeSlot(size_t hole) noexcept {
    for (size_t slot = nextSlot(hole); m_slots[slot].place != FREE; slot = nextSlot(slot)) {
        if (distance(getHome(m_slots[slot].alarm), slot) >= distance(hole, slot)) {
            m_slots[hole] = m_slots[slot];
            m_heap[m_slots[hole].place].slot = hole;
            hole = slot;
        }
    }
    m_slots[hole].place = FREE;
}

void AlarmTable::put(size_t place, Entry const& entry) noexcept {
    m_heap[place] = entry;
    m_slots[entry.slot].place = place;
}

/// Moves the entry up or down from the gap at `place` to its position in the heap.
void AlarmTable::settle(size_t place, Entry entry) noexcept {
    while (place > 0 && entry.expiry < m_heap[getParent(place)].expiry) {
        put(place, m_heap[getParent(place)]);
        place = getParent(place);
    }
    for (;;) {
        size_t const child = getEarliestChild(place);
        if (child >= getCount() || m_heap[child].expiry >= entry.expiry) {
            break;
        }
        put(place, m_heap[child]);
        place = child;
    }
    put(place, entry);
}

size_t AlarmTable::getEarliestChild(size_t place) const noexcept {
    size_t const first = place * CHILDREN + 1;
    size_t const end = std::min(first + CHILDREN, getCount());
    size_t earliest = first;
    for (size_t child = first + 1; child < end; ++child) {
        if (m_heap[child].expiry < m_heap[earliest].expiry) {
            earliest = child;
        }
    }
    return earliest;
}

} // namespace vesk::detail
