#include "support/EventRecorder.h"
#include "support/Inject.h"

#include <tarncommon/threadsafe/TlsImpl.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <pthread.h>
#include <string>
#include <thread>

VESK_INJECT_RESULT(pthread_key_create, (pthread_key_t * key, void (*destructor)(void*)), (key, destructor))
VESK_INJECT_RESULT(pthread_setspecific, (pthread_key_t key, void const* value), (key, value))

namespace {

using support::EventRecorder;
using support::Fault;
using threadsafe::TlsImpl;

TEST(TlsImpl, isNullInEveryThreadUntilItIsSetThere) {
    TlsImpl slot;
    int mine = 0;
    EXPECT_EQ(nullptr, slot.get());
    slot.set(&mine);
    EXPECT_EQ(&mine, slot.get());
    std::thread([&slot] {
        int other = 0;
        EXPECT_EQ(nullptr, slot.get());
        slot.set(&other);
        EXPECT_EQ(&other, slot.get());
    }).join();
    EXPECT_EQ(&mine, slot.get());
}

TEST(TlsImpl, slotsKeepValuesOfTheirOwn) {
    TlsImpl first;
    TlsImpl second;
    int value = 0;
    first.set(&value);
    EXPECT_EQ(nullptr, second.get());
}

TEST(TlsImpl, slotIsGivenBackSoThatTheyNeverRunOut) {
    EventRecorder const recorder;
    for (int i = 0; i < 3 * PTHREAD_KEYS_MAX; ++i) {
        TlsImpl slot;
        ASSERT_EQ(nullptr, slot.get());
        slot.set(&slot);
    }
    EXPECT_EQ(0u, recorder.getCount());
}

TEST(TlsImpl, staticSlotTakesAKeyWithItsFirstValue) {
    static TlsImpl slot(threadsafe::CONSTANT_INIT);
    {
        Fault const keys(inject_pthread_key_create, 0);
        EXPECT_EQ(nullptr, slot.get());
        EXPECT_EQ(0, keys.getCalls());
        slot.set(&slot);
        slot.set(&slot);
        EXPECT_EQ(1, keys.getCalls());
    }
    EXPECT_EQ(&slot, slot.get());
    std::thread([] { EXPECT_EQ(nullptr, slot.get()); }).join();
}

TEST(TlsImpl, failuresAreFatal) {
    EventRecorder const recorder;
    TlsImpl slot;
    {
        Fault const fault(inject_pthread_setspecific, ENOMEM);
        slot.set(&slot);
    }
    {
        alignas(TlsImpl) unsigned char memory[sizeof(TlsImpl)]; // Not destroyed: nothing was made.
        Fault const fault(inject_pthread_key_create, EAGAIN);
        new (memory) TlsImpl;
    }
    EXPECT_EQ(
        "ABORT tarncommon/src/threadsafe/TlsImpl set: error storing value (errno = " +
            std::to_string(ENOMEM) +
            ")\nABORT tarncommon/src/threadsafe/TlsImpl TlsImpl: error creating key (errno = " +
            std::to_string(EAGAIN) + ")",
        recorder.getText());
}

} // namespace
