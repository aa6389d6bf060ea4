#include <vesk/loop/Watchdog.h>

#include "Composite.h"
#include "SignalsBlocked.h"

#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Watchdog";
constexpr int LOOKS = 4; ///< Within the limit.

} // namespace

/// The thread of a watchdog and what it shares with the owner.
class Watchdog::Guard {
public:
    Guard(std::shared_ptr<Core> core, Clock::duration limit, Callback<void(Place const&)> report)
        : m_core(std::move(core)),
          m_limit(std::max(limit, Clock::duration(LOOKS))),
          m_report(std::move(report)) {}

    static void start(std::shared_ptr<Guard> const& guard) {
        SignalsBlocked const blocked; // The thread inherits that.
        guard->m_thread = std::thread([guard] { guard->watch(); });
    }

    void stop() noexcept {
        vesk::detail::CancellationOff const cancellation_off;
        {
            std::lock_guard<std::mutex> const held(m_mutex);
            m_is_over = true;
        }
        m_changed.notify_all();
        if (m_thread.get_id() == std::this_thread::get_id()) {
            m_thread.detach(); // Destroyed by its own report.
        } else {
            m_thread.join();
        }
    }

private:
    void watch() {
        Core::Running last;
        Clock::time_point begin = Clock::now();
        std::unique_lock<std::mutex> held(m_mutex);
        while (!m_changed.wait_for(held, m_limit / LOOKS, [this] { return m_is_over; })) {
            Core::Running const now = m_core->getRunning();
            if (now.call != last.call) {
                last = now;
                begin = Clock::now();
                m_is_reported = false;
            } else if (now.call % 2 == 1 && !m_is_reported && Clock::now() - begin >= m_limit) {
                m_is_reported = true;
                held.unlock();
                m_report(now.place);
                held.lock();
            }
        }
    }

    std::shared_ptr<Core> const m_core;
    Clock::duration const m_limit;
    Callback<void(Place const&)> m_report;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_is_over = false;
    bool m_is_reported = false; ///< For the present call.
    std::thread m_thread;
};

Result<Watchdog> Watchdog::start(Loop& loop, Clock::duration limit, Callback<void(Place const&)> report) {
    return withoutThrowing(SOURCE, [&]() -> Result<Watchdog> {
        auto guard = std::make_shared<Guard>(Access::getCore(loop), limit, std::move(report));
        try {
            Guard::start(guard);
        } catch (std::system_error const& error) {
            return makeError(SOURCE, error.code().value(), LoopErrorId::NO_WATCHDOG);
        }
        Watchdog watchdog;
        watchdog.m_guard = std::move(guard);
        return watchdog;
    });
}

Watchdog& Watchdog::operator=(Watchdog&& other) noexcept {
    Watchdog taken(std::move(other));
    std::swap(m_guard, taken.m_guard);
    return *this;
}

Watchdog::~Watchdog() {
    if (m_guard != nullptr) {
        m_guard->stop();
    }
}

} // namespace vesk::loop
