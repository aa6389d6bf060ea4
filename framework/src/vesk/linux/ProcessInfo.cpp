#include <vesk/ProcessInfo.h>

#include "LoadQuery.h"
#include "vesk/posix/files/PrivateDirectory.h"

#include <vesk/Time.h>
#include <vesk/Vesk.h>
#include <vesk/common/UniqueFd.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/ProcessInfo";

UniqueFd openFile(char const* path) {
    return UniqueFd(open(path, O_RDONLY | O_CLOEXEC));
}

/// Reads as much of a file as fits into `text`. Returns true on failure.
template <size_t N>
bool readText(UniqueFd const& file, char (&text)[N]) {
    ssize_t const length = read(file.get(), text, N - 1);
    if (length < 0) {
        return true;
    }
    text[length] = '\0';
    return false;
}

uint32_t toMilliseconds(unsigned long long ticks) noexcept {
    static uint32_t const ticks_per_second = static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
    // The product wraps at 32 bits in every build: callers rely on 32-bit counters.
    return 1000U * static_cast<uint32_t>(ticks) / ticks_per_second;
}

bool hasTimes(ProcessInfo const& info) noexcept {
    constexpr unsigned int TIMES = ProcessInfo::USER_TIME | ProcessInfo::SYSTEM_TIME;
    return (info.available & TIMES) == TIMES;
}

} // namespace

void ProcessInfo::init() {
    valid = false;
    available = 0;
    if (m_pid == 0) {
        std::GlobalErrorHandler::doAssert(false, "m_pid", SOURCE, __LINE__, "init", nullptr);
    }
    char path[32]{};
    int const length = snprintf(path, sizeof path, "/proc/%d/stat", m_pid);
    UniqueFd const stat = openFile(path);
    if (!stat.isOpen()) {
        reportQuery(SOURCE);
        return;
    }
    path[length] = 'm';
    // Opened before "stat" is read, so that both files belong to the same process.
    UniqueFd const statm = openFile(path);
    if (!statm.isOpen()) {
        reportQuery(SOURCE);
        return;
    }
    char text[1024];
    if (readText(stat, text)) {
        reportQuery(SOURCE);
        return;
    }
    if (parseStat(text)) {
        return;
    }
    if (readText(statm, text)) {
        reportQuery(SOURCE);
        return;
    }
    if (parseStatm(text)) {
        return;
    }
    if (Time::getTimestamp(timestamp)) {
        reportQuery(SOURCE, Chain::ON_TOP);
        timestamp = 0;
    }
    valid = true;
}

bool ProcessInfo::parseStat(char const* text) {
    // The name may contain any characters, including parentheses and spaces. Only the last ")" ends it.
    char const* const begin = strchr(text, '(');
    char const* const end = strrchr(text, ')');
    if (begin == nullptr || end == nullptr || end < begin) {
        return reportQuery(SOURCE);
    }
    name.assign(begin + 1, end);
    available |= NAME;
    if (end[1] == '\0') {
        return reportQuery(SOURCE);
    }
    // 64 bits, as wide as the kernel counts: with a 32-bit `long`, `sscanf` would turn a larger number into
    // the maximum.
    unsigned long long user_ticks = 0;
    unsigned long long system_ticks = 0;
    ssize_t thread_count = 0;
    if (sscanf(
            end + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu %*u %*u %*d %*d %zd", &user_ticks,
            &system_ticks, &thread_count) < 3) {
        return reportQuery(SOURCE);
    }
    user_time = toMilliseconds(user_ticks);
    system_time = toMilliseconds(system_ticks);
    threads = static_cast<size_t>(thread_count);
    available |= USER_TIME | SYSTEM_TIME | THREADS;
    return false;
}

bool ProcessInfo::parseStatm(char const* text) {
    size_t pages = 0;
    if (sscanf(text, "%*u %zu %*u %*u %*u %*u", &pages) != 1) {
        return reportQuery(SOURCE);
    }
    static long const page_size = sysconf(_SC_PAGESIZE);
    if (page_size == -1) {
        std::GlobalErrorHandler::doAssert(false, "page_size != -1", SOURCE, __LINE__, "init", nullptr);
    }
    resident = pages * static_cast<size_t>(page_size);
    available |= RESIDENT;
    return false;
}

double ProcessInfo::getCpuLoad(ProcessInfo const& start, ProcessInfo const& end) {
    if (!hasTimes(start)) {
        report(SOURCE, Chain::NEW, SysErrorId::INVALID_PARAMETER, "start");
        return -1.0;
    }
    if (!hasTimes(end)) {
        report(SOURCE, Chain::NEW, SysErrorId::INVALID_PARAMETER, "end");
        return -1.0;
    }
    if (start.timestamp >= end.timestamp) {
        return 0.0;
    }
    // Negative if a counter wrapped between the snapshots.
    auto const used =
        static_cast<long long>(end.user_time + end.system_time - (start.user_time + start.system_time));
    // Queried at each call: the number of online processors can change.
    Vesk::SystemInfo const system;
    return limitLoad(
        static_cast<double>(used) / system.processor_count / getElapsed(start.timestamp, end.timestamp) *
        100.0);
}

bool ProcessInfo::getPIDs(std::vector<int>& pids) {
    pids.clear();
    Directory proc = openPrivateDirectory("/proc");
    if (!proc.isValid()) {
        return reportQuery(SOURCE, Chain::ON_TOP);
    }
    int result = proc.atEnd() ? 1 : 0;
    while (result == 0) {
        char const* const name = proc.curName();
        if (name[0] >= '0' && name[0] <= '9') {
            pids.push_back(static_cast<int>(strtol(name, nullptr, 10)));
        }
        result = proc.next();
    }
    return result < 0 && reportQuery(SOURCE, Chain::ON_TOP);
}

} // namespace vesk
