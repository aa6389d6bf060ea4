#pragma once

#include "ThreadSupport.h"

#include <vesk/Timer.h>

#include <tarncommon/tarnbase/TimePoint.h>

#include <atomic>
#include <functional>
#include <pthread.h>
#include <string>
#include <utility>

namespace support {

/// A timer that counts its calls and runs an action in each.
class Clock : public vesk::Timer {
public:
    explicit Clock(bool high_priority = false, std::function<void(Clock&)> then = nullptr)
        : Timer(tick, high_priority), action(std::move(then)) {}
    ~Clock() override { stop(); }

    bool waitFor(int calls) const {
        return eventually([&] { return count >= calls; });
    }

    std::atomic<int> count{0};
    std::string thread_name; ///< Of the last call.
    std::function<void(Clock&)> action;

private:
    static void tick(Timer* timer) {
        Clock& self = *static_cast<Clock*>(timer);
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        self.thread_name = name;
        if (self.action) {
            self.action(self);
        }
        ++self.count;
    }
};

/// Waits until `ms` milliseconds have passed.
inline void pass(long long ms) {
    long long const end = tarnbase::TimePoint::now().getCount() + ms;
    EXPECT_TRUE(eventually([end] { return tarnbase::TimePoint::now().getCount() > end; }));
}

} // namespace support
