#pragma once

#include "Parser.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace sensor {

/// The last samples, in memory that one process writes and any number of others read.
///
/// There is no lock, so a reader that stops or dies disturbs neither the writer nor other readers. The writer never
/// waits: it overwrites the oldest sample, and a reader that is too slow finds out how many it has lost.
///
/// Every word is atomic. A reader may copy a slot while it is overwritten; it looks at `m_begun` afterwards, and
/// drops such a copy. The order of the accesses makes that work: see `write` and `read`.
class Ring {
public:
    static constexpr std::uint32_t SLOTS = 1024;

    /// @param id  not 0; another one for each start of the writer
    Ring(std::uint32_t id, std::uint32_t period_ms) : m_period(period_ms) {
        m_id.store(id, std::memory_order_release); // Last: a reader that sees it sees a complete ring.
    }

    /// Returns 0 as long as the writer has not constructed the ring: new memory is filled with zeros.
    std::uint32_t id() const { return m_id.load(std::memory_order_acquire); }
    /// Returns after how many milliseconds at most the next message is in the queue.
    std::uint32_t period() const { return m_period; }
    /// Tells the readers that nothing follows.
    void end() { m_ended.store(1, std::memory_order_release); }
    bool hasEnded() const { return m_ended.load(std::memory_order_acquire) != 0; }

    /// Adds a sample. One thread only.
    void write(Reading const& reading) {
        std::uint32_t words[WORDS] = {};
        memcpy(words, &reading, sizeof reading);
        std::uint32_t const number = m_written.load(std::memory_order_relaxed);
        m_begun.store(number + 1, std::memory_order_relaxed);
        for (std::uint32_t i = 0; i < WORDS; ++i) {
            // Release: a reader that sees this word sees `m_begun`, too.
            m_slots[number % SLOTS][i].store(words[i], std::memory_order_release);
        }
        m_written.store(number + 1, std::memory_order_release);
    }

    /// Copies the sample of a number. Returns false if it is not there yet.
    /// @param number  the wanted one; set to the oldest one that is left if that is overwritten
    bool read(std::uint32_t& number, Reading& reading) const {
        while (number != m_written.load(std::memory_order_acquire)) {
            std::uint32_t words[WORDS];
            for (std::uint32_t i = 0; i < WORDS; ++i) {
                words[i] = m_slots[number % SLOTS][i].load(std::memory_order_acquire);
            }
            std::uint32_t const begun = m_begun.load(std::memory_order_relaxed);
            if (begun - number <= SLOTS) { // Also right when the numbers wrap around.
                memcpy(&reading, words, sizeof reading);
                return true;
            }
            number = begun - SLOTS;
        }
        return false;
    }

private:
    static constexpr std::uint32_t WORDS = sizeof(Reading) / sizeof(std::uint32_t);
    static_assert(sizeof(Reading) % sizeof(std::uint32_t) == 0);
    // Otherwise another process could not see the lock that makes it atomic.
    static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

    std::atomic<std::uint32_t> m_id{0};
    std::uint32_t m_period;
    std::atomic<std::uint32_t> m_ended{0};
    std::atomic<std::uint32_t> m_begun{0};   ///< The samples that are written or being written.
    std::atomic<std::uint32_t> m_written{0}; ///< The samples that are complete.
    std::atomic<std::uint32_t> m_slots[SLOTS][WORDS] = {};
};

} // namespace sensor
