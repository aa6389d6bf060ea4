#include "Tour.h"

#include <vesk/CalendarTime.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <csignal>
#include <ctime>
#include <sstream>

namespace tour {

namespace {

long long nanoseconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<long long>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

template <typename Step>
void timed(char const* name, Step const& step) {
    long long const start = nanoseconds();
    bool const result = step();
    long long const took = nanoseconds() - start;
    if (!failed(result, name)) {
        tell("  %-20s %8.1f us", name, static_cast<double>(took) / 1000);
    }
}

} // namespace

void startup() {
    section("Start-up");
    long long const start = nanoseconds();
    // Every process creates one object before it uses anything else, and keeps it to the end.
    static vesk::Vesk vesk(true, false);
    tell(
        "the first Vesk object took %.1f us; each of its steps, repeated:",
        static_cast<double>(nanoseconds() - start) / 1000);
    timed("preInit", [] { return vesk.preInit(); });
    timed("CalendarTime::init", [] { return vesk::CalendarTime::init(); });
    timed("Time::init", [] { return vesk::Time::init(); });
    timed("postInit", [] { return vesk.postInit(); });

    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    tell("SIGPIPE is %s", action.sa_handler == SIG_IGN ? "ignored" : "not ignored");
    tell(
        "%d processors, pages of %d bytes", static_cast<int>(vesk::Vesk::s_sys_info.processor_count),
        static_cast<int>(vesk::Vesk::s_sys_info.page_size));
    std::ostringstream attributes;
    attributes << static_cast<vesk::sched::Policy_E>(vesk::Vesk::s_vesk_ctor_sched_attrs.policy) << ", "
               << vesk::Vesk::s_vesk_ctor_sched_attrs.param;
    tell("the main thread runs at %s", attributes.str().c_str());
}

} // namespace tour
