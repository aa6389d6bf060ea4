#include "support/Testing.h"

#include <common/ScopeGuard.h>

#include <exception>
#include <stdexcept>

namespace {

using namespace support;

/// An object with operations that may fail.
class Door {
public:
    bool close() {
        ++closed;
        return stuck;
    }
    bool lock() const { return stuck; }
    bool explode() { throw std::runtime_error("bang"); }

    int closed = 0;
    bool stuck = false;
};

using Guard = std::ScopeGuard<Door, bool (Door::*)()>;

static_assert(std::has_virtual_destructor_v<Guard>);
static_assert(!std::is_copy_constructible_v<Guard> && !std::is_copy_assignable_v<Guard>);

TEST(ScopeGuard, callsTheFunctionOnceAtTheEndOfTheScope) {
    EventRecorder const recorder;
    Door door;
    {
        Guard const guard(door, &Door::close);
        EXPECT_TRUE(guard.isArmed());
        EXPECT_FALSE(guard.isReleased());
        EXPECT_EQ(0, door.closed);
    }
    EXPECT_EQ(1, door.closed);
    EXPECT_EQ("", recorder.getText());
}

/// Returns how often the function is called after some operations of the guard.
template <typename Operations>
int callsAfter(Operations const& operations, bool armed = true) {
    Door door;
    {
        Guard guard(door, &Door::close, armed);
        operations(guard);
    }
    return door.closed;
}

TEST(ScopeGuard, releasedOrDisarmedItDoesNotCallTheFunction) {
    auto const release = [](Guard& guard) {
        guard.release();
        EXPECT_TRUE(guard.isReleased());
    };
    EXPECT_EQ(0, callsAfter(release));
    auto const disarm = [](Guard& guard) {
        guard.disarm();
        EXPECT_FALSE(guard.isArmed());
    };
    EXPECT_EQ(0, callsAfter(disarm));
    EXPECT_EQ(0, callsAfter([](Guard&) {}, false));
    EXPECT_EQ(1, callsAfter([](Guard& guard) { guard.arm(); }, false));
}

TEST(ScopeGuard, staysReleasedWhenArmedAgain) {
    auto const release = [](Guard& guard) {
        guard.release();
        guard.arm();
    };
    EXPECT_EQ(0, callsAfter(release));
}

TEST(ScopeGuard, failureOfTheFunctionTripsAnAssertion) {
    EventRecorder const recorder;
    Door door;
    door.stuck = true;
    { Guard const guard(door, &Door::close); }
    EXPECT_EQ(1, door.closed);
    EXPECT_EQ("ASSERT framework/include/common/ScopeGuard ~ScopeGuard: ! release_failed", recorder.getText());
}

TEST(ScopeGuard, takesAConstantFunctionOfAConstantObject) {
    EventRecorder const recorder;
    Door door;
    door.stuck = true;
    Door const& constant = door;
    {
        std::ScopeGuard<Door const, bool (Door::*)() const, std::NoopResultConv> const guard(
            constant, &Door::lock);
    }
    EXPECT_EQ(1u, recorder.getCount());
}

TEST(ScopeGuard, noopConversionKeepsTheResult) {
    EXPECT_TRUE(std::NoopResultConv()(true));
    EXPECT_FALSE(std::NoopResultConv()(false));
}

TEST(ScopeGuard, conversionDecidesWhatCountsAsFailure) {
    struct TrueIsGood {
        bool operator()(bool result) const { return !result; }
    };
    EventRecorder const recorder;
    Door door;
    door.stuck = true;
    { std::ScopeGuard<Door, bool (Door::*)(), TrueIsGood> const guard(door, &Door::close); }
    EXPECT_EQ("", recorder.getText());
    door.stuck = false;
    { std::ScopeGuard<Door, bool (Door::*)(), TrueIsGood> const guard(door, &Door::close); }
    EXPECT_EQ(1u, recorder.getCount());
}

TEST(ScopeGuard, callsTheFunctionWhenDestroyedThroughABase) {
    class Derived : public Guard {
    public:
        explicit Derived(Door& door) : Guard(door, &Door::close) {}
    };
    Door door;
    std::unique_ptr<Guard> guard = std::make_unique<Derived>(door);
    guard.reset();
    EXPECT_EQ(1, door.closed);
}

TEST(ScopeGuard, callsTheFunctionWhenAnExceptionLeavesTheScope) {
    Door door;
    EXPECT_THROW(
        {
            Guard const guard(door, &Door::close);
            throw std::runtime_error("elsewhere");
        },
        std::runtime_error);
    EXPECT_EQ(1, door.closed);
}

TEST(ScopeGuard, exceptionOutOfTheFunctionTerminates) {
    ChildEnd const end = runInChild([] {
        std::set_terminate([] {
            fputs("terminated\n", stderr);
            abort();
        });
        Door door;
        try {
            Guard const guard(door, &Door::explode);
        } catch (...) {
            fputs("caught\n", stderr);
        }
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("terminated")) << end.errors;
    EXPECT_EQ(std::string::npos, end.errors.find("caught")) << end.errors;
}

} // namespace
