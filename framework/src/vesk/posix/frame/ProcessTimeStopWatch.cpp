#include <vesk/ProcessTimeStopWatch.h>

#include "vesk/common/Report.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/Time.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/ProcessTimeStopWatch";

} // namespace

ProcessTimeStopWatch::ProcessTimeStopWatch(int pid, bool auto_start)
    : StopWatchBase(CLOCK_PROCESS_CPUTIME_ID) {
    clockid_t clock;
    if (int const error = clock_getcpuclockid(pid, &clock)) {
        errno = error;
        report(SOURCE, Chain::NEW, Time::ErrorId::NO_CLOCK, SystemErrorText().get());
        setNoClock();
        return;
    }
    setClock(clock);
    if (auto_start) {
        start();
    }
}

} // namespace vesk
