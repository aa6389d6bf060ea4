#include "Output.h"

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <chrono>
#include <new>

namespace sensor {

namespace {

constexpr unsigned int MESSAGES = 10; ///< What the system permits to each user.
constexpr unsigned int FOR_NEWS = 2;  ///< Of these.

std::uint32_t makeId() {
    return static_cast<std::uint32_t>(std::chrono::system_clock::now().time_since_epoch().count()) | 1;
}

} // namespace

bool Output::open(std::string const& name, unsigned int period_ms) {
    using Mapping = vesk::MemMapping;
    m_memory.setUnlinkOnClose(true);
    m_queue.setUnlinkOnClose(true);
    // In this order: a reader opens the queue first, so it cannot get an old ring with the new queue.
    if (vesk::SharedMemoryServer::deleteName(name.c_str()) ||
        m_queue.create(name.c_str(), LONGEST_MESSAGE, MESSAGES, m_queue.REPLACE) ||
        m_memory.create(name.c_str(), sizeof(Ring), m_memory.REPLACE)) {
        return true;
    }
    Mapping const mapping = m_memory.addMapping(Mapping::READ | Mapping::WRITE, sizeof(Ring));
    if (!mapping.isValid()) {
        return true;
    }
    m_ring = new (mapping.getAddress()) Ring(makeId(), period_ms);
    return false;
}

void Output::send(std::string text, Priority priority) {
    text.resize(std::min<size_t>(text.size(), LONGEST_MESSAGE));
    vesk::MsgQueueBase::Message const message{text.data(), static_cast<unsigned int>(text.size()), priority};
    if (priority == SUMMARY && m_queue.availMsgs() + FOR_NEWS >= MESSAGES) {
        return;
    }
    // A few times at most: 1 is also the result of some failures.
    for (int i = 0; i < 3 && m_queue.writeMsgTimeout(&message, 0) == 1; ++i) {
        // Reading takes the oldest message of the highest priority: the oldest news.
        char old[LONGEST_MESSAGE];
        vesk::MsgQueueBase::Message dropped{old, sizeof old, 0};
        static_cast<void>(m_queue.readMsgTimeout(&dropped, 0));
    }
    std::ErrorStorage::ack();
}

void Output::close() {
    if (m_ring != nullptr) {
        m_ring->end();
    }
    // A failure leaves the names in the system; the next start replaces them.
    static_cast<void>(m_memory.close());
    static_cast<void>(m_queue.close());
    std::ErrorStorage::ack();
}

} // namespace sensor
