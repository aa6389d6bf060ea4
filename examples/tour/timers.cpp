#include "Tour.h"

#include <vesk/Timer.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <memory>
#include <semaphore.h>
#include <string>
#include <vector>

namespace tour {

namespace {

constexpr unsigned int TIMERS = 10000;
constexpr unsigned int SPREAD_MS = 500; // The expiries are spread over this time.

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

/// A histogram of timer delays. The bounds of the classes double.
class Histogram {
public:
    void add(double late_us) {
        size_t row = 0;
        while (row + 1 < m_counts.size() && late_us >= static_cast<double>(FIRST << row)) {
            ++row;
        }
        ++m_counts[row];
        m_early += late_us < 0 ? 1 : 0;
    }

    void print(char const* title) const {
        tell("%s", title);
        int const most = *std::max_element(m_counts.begin(), m_counts.end());
        for (size_t row = 0; row < m_counts.size(); ++row) {
            if (m_counts[row] == 0) {
                continue;
            }
            bool const last = row + 1 == m_counts.size();
            std::string const bar(static_cast<size_t>(1 + m_counts[row] * 50LL / most), '#');
            tell(
                "  %s %6ld us %6d %s", last ? "from" : "to  ", last ? FIRST << (row - 1) : FIRST << row,
                m_counts[row], bar.c_str());
        }
    }

    bool hasEarly() const { return m_early != 0; }

private:
    static constexpr long FIRST = 125;
    std::array<int, 12> m_counts{};
    int m_early = 0;
};

/// A timer that knows when it is due and records when it expires.
class Appointment : public vesk::Timer {
public:
    using Timer::Timer;

    double due = 0;
    double came = 0;
};

std::atomic<unsigned int> s_left{0};
sem_t s_all_came;

void keepAppointment(vesk::Timer* timer) {
    static_cast<Appointment*>(timer)->came = now();
    if (--s_left == 0) {
        sem_post(&s_all_came);
    }
}

} // namespace

void timers() {
    section("Timers: ten thousand in two priorities on two kernel timers");
    sem_init(&s_all_came, 0, 0);
    s_left = TIMERS;
    std::vector<std::unique_ptr<Appointment>> appointments;
    appointments.reserve(TIMERS);
    for (unsigned int i = 0; i < TIMERS; ++i) {
        appointments.push_back(std::make_unique<Appointment>(keepAppointment, i % 2 == 1));
    }
    double const begin = now();
    for (unsigned int i = 0; i < TIMERS; ++i) {
        // Long enough that all timers are pending at once.
        unsigned int const ms = 100 + i * 7919 % SPREAD_MS;
        appointments[i]->due = now() + ms * 1000.0;
        failed(appointments[i]->start(ms, false), "starting a timer");
    }
    tell("%u timers started in %.1f ms", TIMERS, (now() - begin) / 1000);
    while (sem_wait(&s_all_came) != 0) {} // The engines' signals may interrupt this thread.
    Histogram ordinary;
    Histogram high;
    for (unsigned int i = 0; i < TIMERS; ++i) {
        (i % 2 == 1 ? high : ordinary).add(appointments[i]->came - appointments[i]->due);
    }
    ordinary.print("delay of the timers of ordinary priority:");
    high.print("delay of the timers of high priority:");
    appointments.clear();
    sem_destroy(&s_all_came);
}

} // namespace tour
