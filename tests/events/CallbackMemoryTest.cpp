#include "support/HeapUse.h"
#include "support/NewFault.h"

#include <vesk/Message.h>

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <thread>
#include <vector>

/// The blocks that deleted callbacks leave for later ones.

namespace {

using support::New;
using support::NewFault;
using vesk::Message;
using Callbacks = std::vector<std::unique_ptr<Message::Callback>>;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool KEEPS_BLOCKS = false;
#else
constexpr bool KEEPS_BLOCKS = true;
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool COUNTS_BLOCKS = false;
#else
constexpr bool COUNTS_BLOCKS = true;
#endif

std::unique_ptr<Message::Callback> create() {
    return std::make_unique<Message::Callback>([](void*) {}, nullptr);
}

Callbacks create(size_t count) {
    Callbacks callbacks(count);
    for (auto& callback : callbacks) {
        callback = create();
    }
    return callbacks;
}

/// Creates callbacks from kept blocks only, until there are no more.
Callbacks takeKept() {
    Callbacks callbacks;
    callbacks.reserve(10000);
    NewFault const no_memory(New::SINGLE, 1, NewFault::FOREVER);
    try {
        for (;;) {
            callbacks.push_back(create());
        }
    } catch (std::bad_alloc const&) {
        return callbacks;
    }
}

template <typename Function>
void runInThread(Function function) {
    std::thread(function).join();
}

TEST(CallbackMemory, isThatOfTheCallbackThatTheThreadDeletedLast) {
    Callbacks const taken = takeKept();
    for (size_t const count : std::vector<size_t>{1, 31, 32, 64}) {
        create(count);
        EXPECT_EQ(KEEPS_BLOCKS ? count : 0, takeKept().size());
        Callbacks const taken_again = takeKept();
    }
}

TEST(CallbackMemory, ofADeletingThreadGoesToTheCreatingOne) {
    Callbacks const taken = takeKept();
    Callbacks created = create(200);
    runInThread([&created] { created.clear(); });
    // The thread has passed on five chunks of 32 blocks, and freed those that it kept itself.
    EXPECT_EQ(KEEPS_BLOCKS ? 160U : 0U, takeKept().size());
}

TEST(CallbackMemory, isLimited) {
    Callbacks const taken = takeKept();
    Callbacks created = create(5000);
    runInThread([&created] { created.clear(); });
    EXPECT_EQ(KEEPS_BLOCKS ? 1024U : 0U, takeKept().size());
}

TEST(CallbackMemory, isFreedWhenItsThreadEnds) {
    Callbacks const taken = takeKept();
    auto const createAndDelete = [] { create(60); };
    runInThread(createAndDelete); // The C library keeps the memory of the first thread.
    long long const before = support::g_heap_blocks;
    runInThread(createAndDelete);
    if (!COUNTS_BLOCKS) {
        GTEST_SKIP() << "the sanitizer has its own heap, and finds leaks itself";
    }
    EXPECT_EQ(before, support::g_heap_blocks);
}

TEST(CallbackMemory, isUsedByOneThreadAtATime) {
    auto const createAndInvoke = [] {
        for (size_t round = 0; round < 300; ++round) {
            size_t invoked = 0;
            Callbacks callbacks(round % 90);
            for (auto& callback : callbacks) {
                callback = std::make_unique<Message::Callback>(
                    [](void* count) { ++*static_cast<size_t*>(count); }, &invoked);
            }
            for (auto const& callback : callbacks) {
                callback->invoke();
            }
            EXPECT_EQ(callbacks.size(), invoked);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(createAndInvoke);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// A callback with a member has a size of its own.
class Larger : public Message::Callback {
public:
    Larger() : Callback([](void*) {}, nullptr) {}
    int member = 0;
};

class alignas(128) Aligned : public Message::Callback {
public:
    Aligned() : Callback([](void*) {}, nullptr) {}
};

TEST(CallbackMemory, isNotUsedForDerivedClassesOfAnotherSize) {
    Callbacks const taken = takeKept();
    delete new Larger;
    auto const aligned = std::make_unique<Aligned>();
    EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(aligned.get()) % 128);
    EXPECT_EQ(0U, takeKept().size());
    create(1);
    NewFault const no_memory(New::SINGLE, 1, NewFault::FOREVER);
    EXPECT_THROW(delete new Larger, std::bad_alloc);
}

TEST(CallbackMemory, mayBeGivenByTheCallerOrBeMissing) {
    Callbacks const taken = takeKept();
    alignas(Message::Callback) unsigned char place[sizeof(Message::Callback)];
    auto* const placed = new (place) Message::Callback([](void*) {}, nullptr);
    EXPECT_EQ(static_cast<void*>(place), placed);
    placed->~Callback();
    {
        NewFault const no_memory(New::NOTHROW_SINGLE, 1, NewFault::FOREVER);
        EXPECT_EQ(nullptr, new (std::nothrow) Message::Callback([](void*) {}, nullptr));
    }
    struct Throwing : Message::Callback {
        Throwing() : Message::Callback([](void*) {}, nullptr) { throw 1; }
    };
    EXPECT_THROW(new (place) Throwing, int);
    EXPECT_THROW(new (std::nothrow) Throwing, int);
    delete new (std::nothrow) Message::Callback([](void*) {}, nullptr);
    EXPECT_EQ(KEEPS_BLOCKS ? 1U : 0U, takeKept().size());
}

} // namespace
