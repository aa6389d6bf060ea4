#include <vesk/SystemLoad.h>

#include "LoadQuery.h"

#include <vesk/Time.h>
#include <vesk/Vesk.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdio>
#include <locale.h>
#include <memory>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/SystemLoad";

struct Closer {
    void operator()(FILE* file) const noexcept {
        CancellationOff const cancellation_off;
        fclose(file);
    }
};

/// Makes the calling thread parse numbers in the kernel's format. The process's locale may use another
/// decimal point.
class KernelNumbers : private tarnbase::NonCopyable {
public:
    KernelNumbers() noexcept
        : m_locale(newlocale(LC_ALL_MASK, "C", nullptr)), m_previous(uselocale(m_locale)) {}
    ~KernelNumbers() {
        uselocale(m_previous);
        if (m_locale != nullptr) {
            freelocale(m_locale);
        }
    }

private:
    locale_t m_locale; // libc's predefined "C" locale: nothing is allocated.
    locale_t m_previous;
};

} // namespace

bool SystemLoad::sample() {
    valid = false;
    std::unique_ptr<FILE, Closer> const file(fopen("/proc/uptime", "re"));
    if (file == nullptr) {
        return reportQuery(SOURCE);
    }
    KernelNumbers const numbers;
    // The second number is the sum of the idle times of all processors, in seconds.
    if (fscanf(file.get(), "%*f %lf", &idle) != 1) {
        return reportQuery(SOURCE);
    }
    idle = idle * 1000.0 / Vesk::s_sys_info.processor_count;
    if (Time::getTimestamp(timestamp)) {
        return reportQuery(SOURCE, Chain::ON_TOP);
    }
    valid = true;
    return false;
}

double SystemLoad::getCpuLoad(SystemLoad const& start, SystemLoad const& end) {
    if (!start.valid) {
        report(SOURCE, Chain::NEW, SysErrorId::INVALID_PARAMETER, "start");
        return -1.0;
    }
    if (!end.valid) {
        report(SOURCE, Chain::NEW, SysErrorId::INVALID_PARAMETER, "end");
        return -1.0;
    }
    if (start.timestamp >= end.timestamp) {
        return 0.0;
    }
    return limitLoad((1.0 - (end.idle - start.idle) / getElapsed(start.timestamp, end.timestamp)) * 100.0);
}

} // namespace vesk
