#include <vesk/Vesk.h>

#include <vesk/CalendarTime.h>
#include <vesk/ProcessTNG.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/UserFS.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <unistd.h>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/common/vesk";

constexpr std::ErrorID ROWS[] = {
    {0, "Unable to initialize VESK: \"%s\" failed", 1},
};

uint32_t readSystemNumber(int name) noexcept {
    long const number = sysconf(name);
    return number > 0 ? static_cast<uint32_t>(number) : 0;
}

} // namespace

TARN_CONSTANT_INIT std::ErrorType const Vesk::Error(ROWS, std::size(ROWS));
TARN_CONSTANT_INIT AtomicCounter Vesk::s_init_count;
TARN_CONSTANT_INIT std::atomic<bool> Vesk::s_initialized{false};
TARN_CONSTANT_INIT std::atomic<bool> Vesk::s_ever_initialized{false};
TARN_CONSTANT_INIT sched::Attr Vesk::s_vesk_ctor_sched_attrs;

namespace {

/// One step of the start-up. Returns true on failure, which ends the start-up.
using Step = bool (*)(Vesk& vesk);

// In the order of the start-up: each step relies on the steps above it.
constexpr Step STEPS[] = {
    [](Vesk& vesk) { return vesk.preInit(); },
    [](Vesk&) { return CalendarTime::init(); },
    [](Vesk&) { return Time::init(); },
    [](Vesk&) { return Thread::init(); },
    [](Vesk& vesk) { return ProcessTNG::init(vesk.isProcessInitLazy()); },
    [](Vesk&) { return UserFS::init(); },
    [](Vesk& vesk) { return vesk.postInit(); },
};

bool startUp(Vesk& vesk) {
    for (Step const step : STEPS) {
        if (step(vesk)) {
            return true;
        }
    }
    return false;
}

/// Returns the stored path. The first use constructs it, so that every initializer may call this.
std::string& accessDefaultConfigDir() {
    static std::string s_default_config_dir;
    return s_default_config_dir;
}

} // namespace

Vesk::Vesk(bool lazy_process_init, bool) : m_lazy_process_init(lazy_process_init) {
    if (!s_ever_initialized.load(std::memory_order_relaxed)) {
        s_ever_initialized.store(true, std::memory_order_relaxed);
    }
    if (!s_initialized.load(std::memory_order_relaxed)) {
        if (s_init_count.getCurrentCount() != 0) {
            std::GlobalErrorHandler::doAssert(
                false, "!s_init_count.getCurrentCount()", SOURCE, __LINE__, "Vesk", nullptr);
        }
        if (startUp(*this)) {
            std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "Vesk", "Error initializing VESK");
        }
        if (Thread::getCallerSchedAttrs(s_vesk_ctor_sched_attrs)) {
            std::ErrorStorage::ack();
            s_vesk_ctor_sched_attrs = {sched::VESK_SCHED_NOOP, sched::Param(sched::VESK_SCHED_NOOP, 0)};
        }
        s_initialized.store(true, std::memory_order_relaxed);
    }
    s_init_count.increment();
}

void Vesk::cleanupAll() {
    ProcessTNG::exit();
    s_initialized.store(false, std::memory_order_relaxed);
}

// ---- system ----

// Unlike the other static objects, this one needs system calls while the library is loaded. Before the program's own
// static objects, also in a static library.
__attribute__((init_priority(101))) Vesk::SystemInfo const Vesk::s_sys_info;

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

// ---- configuration ----

std::string Vesk::setDefaultConfigDir(std::string const& dir) {
    // Copied first: the caller may pass the stored path itself.
    std::string path(dir);
    path.swap(accessDefaultConfigDir());
    return path;
}

std::string const& getDefaultConfigDir() {
    return accessDefaultConfigDir();
}

void getMainFwArgs(int*, char***) {}

} // namespace vesk
