#include "support/Child.h"
#include "support/EventRecorder.h"

#include <common/ScopeGuard.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <type_traits>

namespace {

using support::EventRecorder;
using support::runInChild;

/// Something with an end that may fail.
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

TEST(ScopeGuard, doesNotCallTheFunctionOnceReleased) {
    Door door;
    {
        Guard guard(door, &Door::close);
        guard.release();
        EXPECT_TRUE(guard.isReleased());
    }
    EXPECT_EQ(0, door.closed);
}

TEST(ScopeGuard, staysReleasedWhenArmedAgain) {
    Door door;
    {
        Guard guard(door, &Door::close);
        guard.release();
        guard.arm();
    }
    EXPECT_EQ(0, door.closed);
}

TEST(ScopeGuard, doesNotCallTheFunctionWhileDisarmed) {
    Door door;
    {
        Guard guard(door, &Door::close);
        guard.disarm();
        EXPECT_FALSE(guard.isArmed());
    }
    EXPECT_EQ(0, door.closed);
}

TEST(ScopeGuard, builtDisarmedItCallsTheFunctionOnlyIfArmedLater) {
    Door door;
    { Guard const guard(door, &Door::close, false); }
    EXPECT_EQ(0, door.closed);
    {
        Guard guard(door, &Door::close, false);
        guard.arm();
    }
    EXPECT_EQ(1, door.closed);
}

TEST(ScopeGuard, failureOfTheFunctionTripsAnAssertionAndGoesOn) {
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

TEST(ScopeGuard, noopConversionLeavesTheResultAsItIs) {
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
    support::ChildEnd const end = runInChild([] {
        std::set_terminate([] {
            fputs("terminated\n", stderr);
            abort();
        });
        Door door;
        try {
            Guard const guard(door, &Door::explode);
        } catch (...) {
            fputs("came through\n", stderr);
        }
    });
    EXPECT_EQ(SIGABRT, end.signal);
    EXPECT_NE(std::string::npos, end.errors.find("terminated")) << end.errors;
    EXPECT_EQ(std::string::npos, end.errors.find("came through")) << end.errors;
}

} // namespace
