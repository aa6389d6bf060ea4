#include "Tour.h"

#include <vesk/BinTempFileRW.h>
#include <vesk/FileSys.h>
#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/SemaphoreClient.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SharedMemoryClient.h>
#include <vesk/SharedMemoryServer.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/Vesk.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string>
#include <unistd.h>

namespace tour {

namespace {

using vesk::Creatable;

double microseconds(vesk::RealtimeStopWatch const& watch) {
    return static_cast<double>(watch.getElapsedTime(vesk::StopWatchBase::TimeUnit::MICROSECONDS));
}

/// Returns a name that is unique to this run of the tour.
std::string nameOf(char const* what) {
    static pid_t const tour = getpid();
    return std::string("tour-") + what + "-" + std::to_string(tour);
}

// ---- a queue ----

constexpr unsigned int MESSAGES = 100000;
constexpr unsigned int PRIORITIES = 4;

bool sendMessages() {
    vesk::MsgQueueClient queue;
    if (queue.attach(nameOf("queue").c_str())) {
        return true;
    }
    for (unsigned int i = 0; i < MESSAGES; ++i) {
        vesk::MsgQueueBase::Message const message{reinterpret_cast<char*>(&i), sizeof i, i % PRIORITIES};
        if (queue.writeMsg(&message)) {
            return true;
        }
    }
    return false;
}

/// Checks that the messages of each priority arrive in the order in which they were sent.
bool receiveMessages(vesk::MsgQueueServer& queue) {
    std::array<unsigned int, PRIORITIES> expected{};
    for (unsigned int priority = 0; priority < PRIORITIES; ++priority) {
        expected[priority] = priority;
    }
    for (unsigned int i = 0; i < MESSAGES; ++i) {
        unsigned int number = 0;
        vesk::MsgQueueBase::Message message{reinterpret_cast<char*>(&number), sizeof number, 0};
        if (queue.readMsg(&message) || message.size != sizeof number ||
            number != expected[message.priority]) {
            return true;
        }
        expected[message.priority] += PRIORITIES;
    }
    return false;
}

void exchangeMessages() {
    section("Between processes: messages by priority through a queue");
    vesk::MsgQueueServer queue;
    queue.setUnlinkOnClose(true);
    if (failed(
            queue.create(nameOf("queue").c_str(), sizeof(int), 10, Creatable::REPLACE), "making a queue")) {
        return;
    }
    vesk::RealtimeStopWatch const watch(true);
    failed(withOtherProcess(sendMessages, [&queue] { return receiveMessages(queue); }), "the messages");
    tell(
        "%u messages in %u priorities, in order within each: %.2f us each", MESSAGES, PRIORITIES,
        microseconds(watch) / MESSAGES);
    failed(queue.close(), "closing the queue");
}

// ---- a ring in shared memory ----

constexpr unsigned int RING_SIZE = 4 << 20;
constexpr unsigned int PIECE_SIZE = 384 << 10; // Not a divisor of the ring's size: pieces cross its end.
constexpr unsigned long long STREAM_SIZE = 1ULL << 30;

/// The positions of both sides, stored in front of the ring.
struct Progress {
    vesk::ShmMutex mutex;
    vesk::ShmCondition moved;
    unsigned long long written = 0;
    unsigned long long read = 0;
};

unsigned int pieceAt(unsigned long long position) {
    return static_cast<unsigned int>(std::min<unsigned long long>(PIECE_SIZE, STREAM_SIZE - position));
}

/// Waits until `ready` returns true. The lock must be held. Returns true on failure.
template <typename Ready>
bool waitUntil(Progress& progress, Ready const& ready) {
    vesk::ScopedLock<vesk::ShmMutex const> const lock(progress.mutex);
    while (lock.isLocked() && !ready()) {
        if (progress.moved.wait(progress.mutex)) {
            return true;
        }
    }
    return !lock.isLocked();
}

bool advance(Progress& progress, unsigned long long& position, unsigned int size) {
    vesk::ScopedLock<vesk::ShmMutex const> const lock(progress.mutex);
    position += size;
    return !lock.isLocked() || progress.moved.signal();
}

bool writeStream(Progress& progress, char* ring) {
    while (progress.written != STREAM_SIZE) {
        unsigned int const size = pieceAt(progress.written);
        if (waitUntil(progress, [&] { return RING_SIZE - (progress.written - progress.read) >= size; })) {
            return true;
        }
        // One call, even across the end: the pages of the ring are mapped a second time behind it.
        memset(ring + progress.written % RING_SIZE, static_cast<int>(progress.written / PIECE_SIZE), size);
        if (advance(progress, progress.written, size)) {
            return true;
        }
    }
    return false;
}

bool readStream(Progress& progress, char const* ring) {
    while (progress.read != STREAM_SIZE) {
        unsigned int const size = pieceAt(progress.read);
        if (waitUntil(progress, [&] { return progress.written - progress.read >= size; })) {
            return true;
        }
        char const* const piece = ring + progress.read % RING_SIZE;
        char const first = static_cast<char>(progress.read / PIECE_SIZE);
        if (piece[0] != first || memcmp(piece, piece + 1, size - 1) != 0) {
            return true;
        }
        if (advance(progress, progress.read, size)) {
            return true;
        }
    }
    return false;
}

void streamThroughRing() {
    section("Between processes: a gigabyte through a ring in shared memory");
    unsigned int const page_size = vesk::Vesk::s_sys_info.page_size;
    vesk::SharedMemoryServer memory;
    memory.setUnlinkOnClose(true);
    if (failed(
            memory.create(nameOf("ring").c_str(), page_size + RING_SIZE, Creatable::REPLACE),
            "making shared memory")) {
        return;
    }
    using Mapping = vesk::MemMapping;
    Mapping const front = memory.addMapping(Mapping::READ | Mapping::WRITE, page_size);
    if (failed(!front.isValid(), "mapping the front")) {
        return;
    }
    auto* const progress = new (front.getAddress()) Progress;
    auto const other = [page_size] {
        vesk::SharedMemoryClient client;
        if (client.attach(nameOf("ring").c_str(), Mapping::READ | Mapping::WRITE)) {
            return true;
        }
        Mapping const mine = client.addMapping(Mapping::READ | Mapping::WRITE, page_size);
        Mapping const ring =
            client.addMapping(Mapping::READ | Mapping::WRITE, RING_SIZE, page_size, nullptr, true);
        return !mine.isValid() || !ring.isValid() ||
            writeStream(*static_cast<Progress*>(mine.getAddress()), static_cast<char*>(ring.getAddress()));
    };
    Mapping const ring = memory.addMapping(Mapping::READ, RING_SIZE, page_size, nullptr, true);
    vesk::RealtimeStopWatch const watch(true);
    bool const broken = !ring.isValid() || withOtherProcess(other, [&] {
        return readStream(*progress, static_cast<char const*>(ring.getAddress()));
    });
    double const seconds = microseconds(watch) / 1e6;
    if (!failed(broken, "the stream")) {
        tell(
            "%llu MiB in pieces of %u KiB through a ring of %u MiB, each byte checked: %.0f MiB/s",
            STREAM_SIZE >> 20, PIECE_SIZE >> 10, RING_SIZE >> 20,
            static_cast<double>(STREAM_SIZE >> 20) / seconds);
    }
    progress->~Progress();
    failed(memory.close(), "closing shared memory");
}

// ---- semaphores ----

constexpr int COUNTS = 50000;

void countEachOther() {
    section("Between processes: two semaphores, a temporary file");
    vesk::SemaphoreCreator there;
    vesk::SemaphoreCreator back;
    there.setUnlinkOnClose(true);
    back.setUnlinkOnClose(true);
    if (failed(
            there.create(nameOf("there").c_str(), 0, Creatable::REPLACE) ||
                back.create(nameOf("back").c_str(), 0, Creatable::REPLACE),
            "making semaphores")) {
        return;
    }
    auto const other = [] {
        vesk::SemaphoreClient mine;
        vesk::SemaphoreClient yours;
        bool broken = mine.attach(nameOf("there").c_str()) || yours.attach(nameOf("back").c_str());
        for (int i = 0; i < COUNTS && !broken; ++i) {
            broken = mine.take() || yours.release();
        }
        return broken;
    };
    vesk::RealtimeStopWatch const watch(true);
    failed(
        withOtherProcess(
            other,
            [&] {
                bool broken = false;
                for (int i = 0; i < COUNTS && !broken; ++i) {
                    broken = there.release() || back.take();
                }
                return broken;
            }),
        "counting");
    tell("two processes took turns %d times, %.2f us per round trip", COUNTS, microseconds(watch) / COUNTS);
    failed(there.close() || back.close(), "closing the semaphores");
}

// ---- a temporary file ----

void handOverTemporaryFile() {
    std::string const prefix = std::string(vesk::FileSys::getTempPath()) + "/tour-temporary-";
    vesk::StreamBinFileRW file;
    std::string path;
    {
        vesk::BinTempFileRW temporary(vesk::WidePath(prefix.c_str()));
        vesk::BinTempFileRW const unused(vesk::WidePath(prefix.c_str()));
        if (failed(!temporary.isValid() || !unused.isValid(), "making temporary files")) {
            return;
        }
        path = temporary.getPath();
        failed(file.open(temporary, true), "adopting a temporary file");
    }
    std::array<char, 5> const text{'h', 'e', 'l', 'l', 'o'};
    std::array<char, 5> again{};
    unsigned int count = 0;
    unsigned int position = 0;
    failed(file.write(text.data(), text.size(), count) != 1, "writing the temporary file");
    failed(file.seek(0, vesk::StreamBinFileRW::Begin, position), "going back");
    failed(file.read(again.data(), again.size(), count) != 1 || again != text, "reading it again");
    failed(file.close(), "closing it");
    bool const there = vesk::FileSys::exists(path.c_str(), true) == 0;
    tell(
        "of two temporary files the one that was handed over is %s; the other one was removed automatically",
        there ? "still there" : "gone");
    failed(!there || vesk::FileSys::removeFile(path.c_str()), "removing it");
}

} // namespace

void ipc() {
    exchangeMessages();
    streamThroughRing();
    countEachOther();
    handOverTemporaryFile();
}

} // namespace tour
