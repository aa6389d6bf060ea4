#include "support/RunInThreads.h"

#include <common/SharedBuf.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace {

using std::SharedBuf;

/// Counts the freed blocks. Not atomic: only the last reference may call it.
class Owner : public SharedBuf::Owner {
public:
    void free(SharedBuf const& buf) override {
        ++freed;
        last_data = buf.getData();
        last_size = buf.getSize();
    }

    int freed = 0;
    void* last_data = nullptr;
    unsigned int last_size = 0;
};

struct SharedBufTest : testing::Test {
    Owner owner;
    std::atomic<int32_t> count{1};
    char data[16] = {};
};

TEST_F(SharedBufTest, lastHandleMakesTheOwnerFreeTheMemory) {
    {
        SharedBuf const first(&count, &owner, data, sizeof data);
        EXPECT_EQ(1, count);
        {
            SharedBuf const second(first);
            EXPECT_EQ(2, count);
            EXPECT_EQ(data, second.getData());
            EXPECT_EQ(sizeof data, second.getSize());
            EXPECT_EQ(&owner, second.getOwner());
        }
        EXPECT_EQ(1, count);
        EXPECT_EQ(0, owner.freed);
    }
    EXPECT_EQ(0, count);
    EXPECT_EQ(1, owner.freed);
    EXPECT_EQ(data, owner.last_data);
    EXPECT_EQ(sizeof data, owner.last_size);
}

TEST_F(SharedBufTest, addedReferenceIsReleasedExplicitly) {
    {
        SharedBuf const buf(&count, &owner, data, sizeof data);
        buf.ref();
        EXPECT_EQ(2, count);
    }
    EXPECT_EQ(1, count);
    EXPECT_EQ(0, owner.freed);
    {
        SharedBuf const same(&count, &owner, data, sizeof data);
        same.ref();
        same.unref();
        EXPECT_EQ(1, count);
        EXPECT_EQ(0, owner.freed);
    }
    EXPECT_EQ(1, owner.freed);
}

TEST_F(SharedBufTest, withoutACountNothingIsCountedOrFreed) {
    {
        SharedBuf const buf(nullptr, &owner, data, sizeof data);
        buf.unref();
        buf.ref();
        SharedBuf const copy(buf);
        EXPECT_EQ(data, copy.getData());
    }
    EXPECT_EQ(0, owner.freed);
}

TEST_F(SharedBufTest, withoutAnOwnerTheCountFallsToZeroAndNothingIsFreed) {
    {
        SharedBuf const buf(&count, nullptr, data, sizeof data);
        SharedBuf const copy(buf);
    }
    EXPECT_EQ(0, count);
}

TEST_F(SharedBufTest, defaultHandleIsEmpty) {
    SharedBuf const buf;
    EXPECT_EQ(nullptr, buf.getData());
    EXPECT_EQ(0u, buf.getSize());
    EXPECT_EQ(nullptr, buf.getOwner());
    buf.unref();
}

TEST_F(SharedBufTest, assignmentReleasesTheOldMemoryAndSharesTheNew) {
    Owner other_owner;
    std::atomic<int32_t> other_count{1};
    char other_data[4] = {};
    {
        SharedBuf buf(&count, &owner, data, sizeof data);
        {
            SharedBuf const other(&other_count, &other_owner, other_data, sizeof other_data);
            buf = other;
            EXPECT_EQ(1, owner.freed);
            EXPECT_EQ(data, owner.last_data);
            EXPECT_EQ(2, other_count);
        }
        EXPECT_EQ(other_data, buf.getData());
        EXPECT_EQ(sizeof other_data, buf.getSize());
        EXPECT_EQ(0, other_owner.freed);
    }
    EXPECT_EQ(1, other_owner.freed);
    EXPECT_EQ(1, owner.freed);
}

TEST_F(SharedBufTest, assignmentToItselfKeepsTheMemory) {
    SharedBuf buf(&count, &owner, data, sizeof data);
    SharedBuf& same = buf;
    buf = same;
    EXPECT_EQ(1, count);
    EXPECT_EQ(0, owner.freed);
    EXPECT_EQ(data, buf.getData());
}

TEST_F(SharedBufTest, threadsThatCopyAndReleaseFreeItOnce) {
    {
        std::vector<SharedBuf> handles(4, SharedBuf(&count, &owner, data, sizeof data));
        support::runInThreads(4, [&handles](int i) {
            SharedBuf& mine = handles[static_cast<size_t>(i)];
            for (int round = 0; round < 10000; ++round) {
                SharedBuf const copy(mine);
                SharedBuf const another(copy);
            }
            mine = SharedBuf();
        });
    }
    EXPECT_EQ(0, count);
    EXPECT_EQ(1, owner.freed);
}

} // namespace
