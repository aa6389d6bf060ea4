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
        guard.arm(); // Has no effect then.
    };
    EXPECT_EQ(0, callsAfter([](Guard& guard) { guard.release(); }));
    EXPECT_EQ(0, callsAfter(release));
    auto const disarm = [](Guard& guard) {
        guard.disarm();
        EXPECT_FALSE(guard.isArmed());
    };
    EXPECT_EQ(0, callsAfter(disarm));
    EXPECT_EQ(0, callsAfter([](Guard&) {}, false));
    EXPECT_EQ(1, callsAfter([](Guard& guard) { guard.arm(); }, false));
}

TEST(ScopeGuard, failureOfTheFunctionTripsAnAssertionAlsoOnAConstantObject) {
    EventRecorder const recorder;
    Door door;
    door.stuck = true;
    { Guard const guard(door, &Door::close); }
    EXPECT_EQ(1, door.closed);
    EXPECT_EQ("ASSERT framework/include/common/ScopeGuard ~ScopeGuard: ! release_failed", recorder.getText());
    using ConstantGuard = std::ScopeGuard<Door const, bool (Door::*)() const, std::NoopResultConv>;
    Door const& constant = door;
    { ConstantGuard const guard(constant, &Door::lock); }
    EXPECT_EQ(2u, recorder.getCount());
}

TEST(ScopeGuard, conversionDecidesWhatCountsAsFailure) {
    struct TrueIsGood {
        bool operator()(bool result) const { return !result; }
    };
    EventRecorder const recorder;
    Door door;
    for (bool const stuck : {true, false}) {
        EXPECT_EQ(stuck, std::NoopResultConv()(stuck));
        door.stuck = stuck;
        { std::ScopeGuard<Door, bool (Door::*)(), TrueIsGood> const guard(door, &Door::close); }
        EXPECT_EQ(stuck ? 0u : 1u, recorder.getCount());
    }
}

TEST(ScopeGuard, callsTheFunctionWhenAnExceptionDestroysItThroughABase) {
    struct Derived : Guard {
        explicit Derived(Door& door) : Guard(door, &Door::close) {}
    };
    Door door;
    EXPECT_THROW(
        {
            std::unique_ptr<Guard> const guard = std::make_unique<Derived>(door);
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
