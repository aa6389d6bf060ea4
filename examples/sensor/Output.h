#pragma once

#include "Ring.h"

#include <vesk/MsgQueueServer.h>
#include <vesk/SharedMemoryServer.h>

#include <string>

namespace sensor {

/// What other processes get: each sample through a ring in shared memory, summaries and news through a queue.
/// Both have the same name. Nothing here waits for a reader.
class Output {
public:
    enum Priority : unsigned int { SUMMARY, NEWS };
    static constexpr unsigned int LONGEST_MESSAGE = 1024;

    /// Creates ring and queue, and replaces those of a daemon that was killed. Returns true on failure.
    [[nodiscard]] bool open(std::string const& name, unsigned int period_ms);
    /// Tells the readers that it is over, and removes the names.
    void close();

    /// Adds a sample to the ring. One thread only.
    void write(Reading const& reading) { m_ring->write(reading); }
    /// Adds a message to the queue. If the queue is full, a summary is dropped, and news replace the oldest news.
    /// Any thread.
    void send(std::string text, Priority priority);

private:
    vesk::SharedMemoryServer m_memory;
    vesk::MsgQueueServer m_queue;
    Ring* m_ring = nullptr;
};

} // namespace sensor
