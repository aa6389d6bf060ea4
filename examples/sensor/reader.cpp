// Prints what a sensor daemon measures. Starts before or after the daemon, and outlives it.
#include "Ring.h"

#include <vesk/MsgQueueClient.h>
#include <vesk/SharedMemoryClient.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <string>

namespace sensor {
namespace {

constexpr unsigned int PAUSE_MS = 200;
constexpr long long PATIENCE_MS = 2000;

/// Reads what one run of the daemon gives.
class Reader {
public:
    /// Opens ring and queue. Returns true if there is no daemon.
    [[nodiscard]] bool attach(std::string const& name) {
        // The queue first: a daemon that starts meanwhile creates it before the ring.
        bool const failed = m_queue.attach(name.c_str()) ||
            m_memory.attach(name.c_str(), vesk::MemMapping::READ) || m_memory.getSize() < sizeof(Ring);
        std::ErrorStorage::ack();
        if (failed) {
            return true;
        }
        vesk::MemMapping const mapping = m_memory.addMapping(vesk::MemMapping::READ, sizeof(Ring));
        m_ring = mapping.isValid() ? static_cast<Ring const*>(mapping.getAddress()) : nullptr;
        std::ErrorStorage::ack();
        return m_ring == nullptr || m_ring->id() == 0;
    }

    /// Reads until the daemon ends, or is silent for so long that it must have been killed.
    void follow() {
        if (m_ring->id() != m_last_id) {
            m_last_id = m_ring->id();
            m_next = 0;
            std::cout << "attached" << std::endl;
        }
        signed char result = 0;
        do {
            // Asked first: what comes before the end is read, too.
            bool const has_ended = m_ring->hasEnded();
            result = readMessage(has_ended ? 0 : 3LL * m_ring->period() + PATIENCE_MS);
            readSamples();
        } while (result == 0);
        std::cout << (m_ring->hasEnded() ? "ended" : "silent") << std::endl;
    }

private:
    signed char readMessage(long long timeout_ms) {
        char text[1024];
        vesk::MsgQueueBase::Message message{text, sizeof text, 0};
        signed char const result = m_queue.readMsgTimeout(&message, timeout_ms);
        if (result == 0) {
            std::string const lines(text, message.size);
            std::cout << lines << (message.priority == 0 ? "" : "\n") << std::flush;
        }
        std::ErrorStorage::ack();
        return result;
    }

    void readSamples() {
        Reading reading;
        std::uint32_t wanted = m_next;
        while (m_ring->read(m_next, reading)) {
            if (m_next != wanted) {
                std::cout << "lost " << m_next - wanted << '\n';
            }
            std::cout << "sample " << m_next << ' ' << reading.name << ' ' << reading.value << '\n';
            wanted = ++m_next;
        }
        std::cout << std::flush;
    }

    vesk::SharedMemoryClient m_memory;
    vesk::MsgQueueClient m_queue;
    Ring const* m_ring = nullptr;
    std::uint32_t m_last_id = 0; ///< A daemon that was only silent goes on where it was.
    std::uint32_t m_next = 0;
};

} // namespace
} // namespace sensor

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " NAME\n";
        return 2;
    }
    vesk::Vesk const vesk(true, false);
    sensor::Reader reader;
    // Owns nothing that outlives it: SIGTERM may end it at any time.
    while (true) {
        if (reader.attach(arguments[1])) {
            static_cast<void>(vesk::Time::sleep(sensor::PAUSE_MS));
        } else {
            reader.follow();
        }
    }
}
