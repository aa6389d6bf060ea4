#include "Storm.h"

#include <vesk/ProcessTNG.h>
#include <vesk/SharedMemoryClient.h>
#include <vesk/SharedMemoryServer.h>
#include <vesk/ShmMutex.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <unistd.h>

namespace soak {

namespace {

using vesk::MemMapping;
using vesk::ProcessTNG;

constexpr unsigned int RING_SIZE = 64 << 10;

/// The first page of the memory.
struct Front {
    vesk::ShmMutex mutex;
    unsigned int written = 0; ///< Bytes in total, modulo 2^32, which `RING_SIZE` divides.
    unsigned int read = 0;
};

/// Shared memory with a lock and a ring. Another process writes; it is killed at any moment, also while it holds
/// the lock, and the memory is then created again.
class RingStorm : public Storm {
public:
    RingStorm() : Storm("rings") {}

    void work() override {
        vesk::SharedMemoryServer memory;
        memory.setUnlinkOnClose(true);
        unsigned int const page = vesk::Vesk::s_sys_info.page_size;
        if (check(
                memory.create(makeName("ring").c_str(), page + RING_SIZE, vesk::Creatable::REPLACE),
                "creating")) {
            return;
        }
        MemMapping const front = memory.addMapping(MemMapping::READ | MemMapping::WRITE, page);
        MemMapping const ring = memory.addMapping(MemMapping::READ, RING_SIZE, page, nullptr, true);
        if (!check(!front.isValid() || !ring.isValid(), "mapping")) {
            readFromPeers(*new (front.getAddress()) Front, static_cast<char const*>(ring.getAddress()));
        }
        check(memory.close(), "closing");
    }

private:
    /// Stops when a peer was killed while it held the lock.
    void readFromPeers(Front& front, char const* ring) {
        for (unsigned int peers = 1 + random(3); peers > 0; --peers) {
            ProcessTNG peer("/proc/self/exe", {"--ring", makeName("ring")});
            if (check(peer.start() == ProcessTNG::INVALID_PROCESS_ID, "starting a peer")) {
                return;
            }
            bool alive = true;
            unsigned int const total = random(RING_SIZE * 8);
            unsigned int got = 0;
            check(
                !eventually([&] { return take(front, ring, got, alive), got >= total || !alive; }),
                "a peer writes");
            check(peer.kill(false), "killing a peer");
            countProvoked();
            ProcessTNG::ExitState state;
            check(peer.wait(state, false, 0) || !state.killed, "waiting for a peer");
            signed char const locked = front.mutex.tryLockTimeout(100);
            if (locked != 0) {
                check(locked != 1, "the lock of a dead peer");
                return;
            }
            check(front.mutex.unlock(), "unlocking");
        }
        front.mutex.~ShmMutex();
    }

    void take(Front& front, char const* ring, unsigned int& got, bool& alive) {
        if (front.mutex.tryLockTimeout(20000) != 0) {
            alive = false;
            check(true, "a living peer keeps the lock");
            return;
        }
        unsigned int const size = front.written - front.read;
        char const* const bytes = ring + front.read % RING_SIZE;
        for (unsigned int i = 0; i < size; ++i) {
            if (bytes[i] != static_cast<char>((front.read + i) / 251)) {
                check(true, "the content of a ring");
                break;
            }
        }
        front.read += size;
        got += size;
        count();
        check(front.mutex.unlock(), "unlocking");
    }
};

} // namespace

int writeRing(char const* name) {
    pid_t const parent = getppid();
    vesk::SharedMemoryClient client;
    unsigned int const page = vesk::Vesk::s_sys_info.page_size;
    if (client.attach(name, MemMapping::READ | MemMapping::WRITE)) {
        return 1;
    }
    MemMapping const front_page = client.addMapping(MemMapping::READ | MemMapping::WRITE, page);
    MemMapping const ring =
        client.addMapping(MemMapping::READ | MemMapping::WRITE, RING_SIZE, page, nullptr, true);
    if (!front_page.isValid() || !ring.isValid()) {
        return 1;
    }
    auto& front = *static_cast<Front*>(front_page.getAddress());
    auto* const bytes = static_cast<char*>(ring.getAddress());
    while (getppid() == parent && !front.mutex.lock()) {
        unsigned int const size = std::min(RING_SIZE - (front.written - front.read), 5000U);
        for (unsigned int i = 0; i < size; ++i) {
            bytes[front.written % RING_SIZE + i] = static_cast<char>((front.written + i) / 251);
        }
        front.written += size;
        if (front.mutex.unlock() || (size == 0 && vesk::Time::sleep(1))) {
            return 1;
        }
    }
    return 1;
}

std::unique_ptr<Storm> makeRingStorm() {
    return std::make_unique<RingStorm>();
}

} // namespace soak
