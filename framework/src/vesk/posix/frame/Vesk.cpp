#include <vesk/Vesk.h>

#include <vesk/Time.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace vesk {

namespace {

uint32_t readSystemNumber(int name) noexcept {
    long const number = sysconf(name);
    return number > 0 ? static_cast<uint32_t>(number) : 0;
}

} // namespace

// Unlike the other static objects, this one needs system calls while the library is loaded.
Vesk::SystemInfo const Vesk::s_sys_info;

Vesk::SystemInfo::SystemInfo() noexcept
    : page_size(readSystemNumber(_SC_PAGESIZE)), processor_count(readSystemNumber(_SC_NPROCESSORS_ONLN)) {}

bool Vesk::preInit() {
    setlocale(LC_ALL, ""); // NOLINT(concurrency-mt-unsafe): the process has no other thread yet.
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0) {
        return true;
    }
    // An earlier choice of the process is kept.
    if (action.sa_handler != SIG_DFL) {
        return false;
    }
    action = {};
    action.sa_handler = SIG_IGN;
    sigfillset(&action.sa_mask);
    return sigaction(SIGPIPE, &action, nullptr) != 0;
}

bool Vesk::postInit() {
    long long now_ms = 0;
    if (Time::getTimestamp(now_ms)) {
        return true;
    }
    srand(static_cast<unsigned int>(now_ms));
    return false;
}

} // namespace vesk
