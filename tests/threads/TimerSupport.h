#pragma once

#include "ThreadSupport.h"

#include <vesk/Timer.h>

#include <tarncommon/tarnbase/TimePoint.h>

/// What the tests of timers and alarms have in common.
namespace support {

using Engine = vesk::Alarm::Timer;
using EnginePtr = std::SharedBase::Ptr<Engine>;

/// The base of a timer or an alarm that counts its calls, runs an action in each, and keeps when, on which thread and
/// with which nice value the last one was made.
template <typename Self>
class Ringing {
public:
    using Action = std::function<void(Self&)>;

    bool waitFor(int calls) const {
        return eventually([this, calls] { return count >= calls; });
    }

    std::atomic<int> count{0};
    std::atomic<long long> at{0};
    int nice = -100;
    pthread_t thread{};
    std::string thread_name;
    Action action;

protected:
    explicit Ringing(Action then) : action(std::move(then)) {}

    void ring() {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        thread = pthread_self();
        thread_name = name;
        nice = getpriority(PRIO_PROCESS, 0);
        at = tarnbase::TimePoint::now().getCount();
        if (action) {
            action(static_cast<Self&>(*this));
        }
        ++count;
    }
};

/// The destructor stops it.
class Clock : public Ringing<Clock>, public vesk::Timer {
public:
    explicit Clock(bool high_priority = false, Action then = nullptr)
        : Ringing(std::move(then)),
          Timer([](Timer* timer) { static_cast<Clock*>(timer)->ring(); }, high_priority) {}
    ~Clock() override { stop(); }
};

/// The destructor stops it.
class TestAlarm : public Ringing<TestAlarm> {
public:
    explicit TestAlarm(EnginePtr const& engine, Action then = nullptr, vesk::Message::Sink* sink = nullptr)
        : Ringing(std::move(then)),
          alarm(
              engine, sink, [](void* self) { static_cast<TestAlarm*>(self)->ring(); }, this) {}
    ~TestAlarm() { stop(); }

    void start(long long ms) { alarm.start(tarnbase::Duration(ms)); }
    void stop() { alarm.stop(); }

    vesk::Alarm alarm;
};

/// An action that lasts until the test releases it.
struct Lingering {
    template <typename Self>
    void operator()(Self&) {
        entered.set();
        EXPECT_TRUE(leave.wait());
        left = true;
    }

    Event entered;
    Event leave;
    bool left = false; // Not atomic: the engine's lock orders it.
};

/// Waits until `ms` milliseconds have passed.
inline void pass(long long ms) {
    long long const end = tarnbase::TimePoint::now().getCount() + ms;
    EXPECT_TRUE(eventually([end] { return tarnbase::TimePoint::now().getCount() > end; }));
}

} // namespace support
