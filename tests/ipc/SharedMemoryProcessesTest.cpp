#include "support/Processes.h"
#include "support/calls/ShmCalls.h"

#include <vesk/SharedMemoryClient.h>
#include <vesk/SharedMemoryServer.h>
#include <vesk/ShmCondition.h>
#include <vesk/ShmMutex.h>
#include <vesk/Vesk.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <new>

/// Servers and clients in processes of their own.

namespace {

using support::Process;
using support::ShmName;
using vesk::MemMapping;
using vesk::SharedMemoryClient;
using vesk::SharedMemoryServer;

constexpr auto READ_WRITE = MemMapping::READ | MemMapping::WRITE;
constexpr unsigned int TOTAL = 200000;

/// What stands in front of the ring.
struct Header {
    vesk::ShmMutex mutex;
    vesk::ShmCondition changed;
    unsigned int written = 0;
    unsigned int consumed = 0;
};

char byteAt(unsigned int position) {
    return static_cast<char>(position * 31 + position / 253);
}

TEST(SharedMemoryProcesses, streamThroughARingBetweenServerAndClient) {
    ShmName const name;
    unsigned int const length = vesk::Vesk::s_sys_info.page_size;
    SharedMemoryServer server;
    ASSERT_FALSE(server.create(name.get(), 2 * length, server.CREATE_NEW));
    MemMapping const front = server.addMapping(READ_WRITE, length);
    ASSERT_TRUE(front.isValid());
    auto* const header = new (front.getAddress()) Header;
    ASSERT_TRUE(header->mutex.isValid());

    Process writer([&] {
        MemMapping const ring = server.addMapping(READ_WRITE, length, length, nullptr, true);
        ASSERT_TRUE(ring.isValid());
        auto* const bytes = static_cast<char*>(ring.getAddress());
        char block[701];
        for (unsigned int at = 0; at < TOTAL;) {
            vesk::ShmMutexLock const lock(header->mutex);
            while (length - (header->written - header->consumed) < sizeof block) {
                ASSERT_FALSE(header->changed.wait(header->mutex));
            }
            unsigned int const count = std::min<unsigned int>(sizeof block, TOTAL - at);
            for (unsigned int i = 0; i < count; ++i) {
                block[i] = byteAt(at + i);
            }
            memcpy(bytes + at % length, block, count);
            at += count;
            header->written = at;
            EXPECT_FALSE(header->changed.signal());
        }
    });
    Process reader([&] {
        SharedMemoryClient client;
        ASSERT_FALSE(client.attach(name.get(), READ_WRITE));
        MemMapping const mine = client.addMapping(READ_WRITE, length);
        MemMapping const ring = client.addMapping(MemMapping::READ, length, length, nullptr, true);
        ASSERT_TRUE(mine.isValid() && ring.isValid());
        auto* const shared = static_cast<Header*>(mine.getAddress());
        auto const* const bytes = static_cast<char const*>(ring.getAddress());
        for (unsigned int at = 0; at < TOTAL;) {
            vesk::ShmMutexLock const lock(shared->mutex);
            while (shared->written == at) {
                ASSERT_FALSE(shared->changed.wait(shared->mutex));
            }
            unsigned int const count = shared->written - at;
            for (unsigned int i = 0; i < count; ++i) {
                ASSERT_EQ(byteAt(at + i), bytes[at % length + i]) << at + i;
            }
            at += count;
            shared->consumed = at;
            EXPECT_FALSE(shared->changed.signal());
        }
    });
    EXPECT_EQ(0, writer.join());
    EXPECT_EQ(0, reader.join());
    header->~Header();
}

TEST(SharedMemoryProcesses, nameOutlivesACrashedOwnerEvenIfItWasToRemoveIt) {
    ShmName const name;
    Process owner([&] {
        SharedMemoryServer server;
        server.setUnlinkOnClose(true);
        ASSERT_FALSE(server.create(name.get(), 4096, server.CREATE_NEW));
        MemMapping const mapping = server.addMapping(READ_WRITE, 4096);
        ASSERT_TRUE(mapping.isValid());
        memcpy(mapping.getAddress(), "left", 4);
        raise(SIGKILL);
    });
    EXPECT_EQ(-1, owner.join());
    ASSERT_TRUE(name.exists());
    SharedMemoryClient client;
    ASSERT_FALSE(client.attach(name.get(), MemMapping::READ));
    MemMapping const old = client.addMapping(MemMapping::READ, 4096);
    ASSERT_TRUE(old.isValid());

    Process successor([&] {
        SharedMemoryServer server;
        ASSERT_FALSE(server.create(name.get(), 8192, server.REPLACE));
        EXPECT_EQ(8192U, server.getSize());
    });
    EXPECT_EQ(0, successor.join());
    EXPECT_EQ(8192, name.getSize());
    EXPECT_EQ(4096U, client.getSize()) << "who has the old memory keeps it";
    EXPECT_EQ(0, memcmp("left", old.getAddress(), 4));
}

TEST(SharedMemoryProcesses, serverAndClientMeetInDifferentChildren) {
    ShmName const name;
    Process server([&] {
        SharedMemoryServer shm;
        ASSERT_FALSE(shm.create(name.get(), 4096, shm.CREATE_NEW));
        MemMapping const mapping = shm.addMapping(READ_WRITE, 4096);
        ASSERT_TRUE(mapping.isValid());
        memcpy(mapping.getAddress(), "hello", 5);
    });
    EXPECT_EQ(0, server.join());
    Process client([&] {
        SharedMemoryClient shm;
        ASSERT_FALSE(shm.attach(name.get(), MemMapping::READ));
        MemMapping const mapping = shm.addMapping(MemMapping::READ, shm.getSize());
        ASSERT_TRUE(mapping.isValid());
        EXPECT_EQ(0, memcmp("hello", mapping.getAddress(), 5));
    });
    EXPECT_EQ(0, client.join());
}

} // namespace
