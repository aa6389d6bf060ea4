#pragma once

#include <vesk/Export.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <type_traits>

namespace vesk {

class Message;

namespace detail {

/// The oldest messages of a queue with a backlog. They are moved here under the queue's lock, and taken without it.
class MessageBatch : private tarnbase::NonCopyable {
public:
    static constexpr size_t CAPACITY = 64;

    constexpr MessageBatch() noexcept = default;

    /// Takes the oldest message. Returns null if there is none. Called with or without the queue's lock.
    TARN_HIDDEN Message* take() noexcept;

    /// Moves the oldest messages of the queue here. Called with the queue's lock, and only after `take` has returned
    /// null under it: nothing else changes an empty batch.
    TARN_HIDDEN void fill(std::deque<Message*>& backlog) noexcept;

private:
    // 64 bits, where they need no lock: a thread that is suspended in `take` must not meet the same value again.
    using Cursor = std::conditional_t<std::atomic<uint64_t>::is_always_lock_free, uint64_t, uint32_t>;
    static constexpr Cursor INDEX = 0xff;
    static constexpr Cursor GENERATION = INDEX + 1;

    // The number of messages that are left, plus `GENERATION` for each fill.
    std::atomic<Cursor> m_cursor{0};
    std::atomic<Message*> m_messages[CAPACITY] = {}; // The oldest one is the last of those that are left.
};

} // namespace detail
} // namespace vesk
