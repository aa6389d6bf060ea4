#include "Storm.h"

#include <vesk/Time.h>
#include <vesk/Timer.h>

#include <list>

namespace soak {

namespace {

/// A timer that counts its rings. Some callbacks stop or restart their timer.
class CountingTimer : public vesk::Timer {
public:
    CountingTimer(bool high_priority, unsigned int kind) : Timer(ring, high_priority), m_kind(kind) {}

    /// The base class would stop the timer only after this part of the object is gone.
    ~CountingTimer() override { stop(); }

    unsigned int getRings() const noexcept { return m_rings; }

private:
    static void ring(Timer* timer) {
        auto& self = *static_cast<CountingTimer*>(timer);
        ++self.m_rings;
        switch (self.m_kind) {
        case 0:
            self.stop();
            break;
        case 1:
            self.start(1 + self.m_rings % 3, self.m_rings % 2 == 0);
            break;
        default:
            break;
        }
    }

    unsigned int m_kind;
    std::atomic<unsigned int> m_rings{0};
};

/// Timers of both priorities that start, ring, restart and stop. A stopped timer must be silent.
class TimerStorm : public Storm {
public:
    TimerStorm() : Storm("timers") {}

    void work() override {
        std::list<CountingTimer> timers;
        for (unsigned int left = 1 + random(100); left > 0; --left) {
            timers.emplace_back(oneIn(2), random(4));
            check(timers.back().start(1 + random(20), oneIn(2)), "starting");
        }
        for (CountingTimer& timer : timers) {
            check(oneIn(2) ? timer.snooze() : timer.start(1 + random(10), true), "restarting");
        }
        check(!eventually([&] { return timers.back().getRings() != 0; }), "a timer does not ring");
        for (CountingTimer& timer : timers) {
            check(timer.stop(), "stopping");
        }
        unsigned int rings = 0;
        for (CountingTimer const& timer : timers) {
            rings += timer.getRings();
        }
        vesk::Time::sleep(2);
        for (CountingTimer const& timer : timers) {
            rings -= timer.getRings();
        }
        check(rings != 0, "a stopped timer rings");
        for (CountingTimer& timer : timers) {
            check(timer.start(1 + random(3), true), "starting"); // Destroyed while it rings.
            check(!timer.start(0, true), "starting without an interval succeeds");
            countProvoked();
        }
    }
};

} // namespace

std::unique_ptr<Storm> makeTimerStorm() {
    return std::make_unique<TimerStorm>();
}

} // namespace soak
