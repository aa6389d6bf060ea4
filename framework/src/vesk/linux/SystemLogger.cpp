#include <vesk/SystemLogger.h>

#include <vesk/common/AbortingLock.h>
#include <vesk/common/CancellationOff.h>

#include <syslog.h>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/linux/SystemLogger";

constexpr char const* IDENTITY = "lumo framework";
constexpr int OPTIONS = LOG_PID | LOG_NDELAY;
constexpr int FACILITY = LOG_USER;
static_assert(OPTIONS == 9 && FACILITY == 8);

static_assert(LOG_ERR == 3 && LOG_WARNING == 4 && LOG_NOTICE == 5);

int getPriority(LogLevel level) noexcept {
    switch (level) {
    case LogLevel::ERROR:
        return LOG_ERR;
    case LogLevel::WARNING:
        return LOG_WARNING;
    case LogLevel::NOTICE:
        break;
    }
    return LOG_NOTICE;
}

} // namespace

TARN_CONSTANT_INIT Mutex SystemLogger::s_singleton_mutex(threadsafe::ConstantInit{
    TARN_LOCK_NAME(SYSTEM_LOGGER)});

namespace {

/// The object that must close its log when the process ends, null if there is none.
TARN_CONSTANT_INIT std::atomic<SystemLogger*> s_opened_logger{nullptr};

/// Closes the log but keeps the object: other threads may log while the process ends, which reopens the log.
__attribute__((destructor)) void closeAtTheEnd() {
    if (SystemLogger* const logger = s_opened_logger.exchange(nullptr)) {
        logger->closeLog();
    }
}

} // namespace

SystemLogger& SystemLogger::getInstance() {
    AbortingLock<Mutex> const lock(s_singleton_mutex, SOURCE, "getInstance");
    static SystemLogger instance;
    return instance;
}

SystemLogger::SystemLogger() {
    openLog();
    s_opened_logger = this;
}

SystemLogger::~SystemLogger() {
    detail::CancellationOff const cancellation_off;
    closeLog();
}

void SystemLogger::openLog() {
    if (m_opened.load(std::memory_order_relaxed) == 0) {
        openlog(IDENTITY, OPTIONS, FACILITY);
        m_opened.store(1, std::memory_order_relaxed);
    }
}

void SystemLogger::closeLog() {
    if (m_opened.load(std::memory_order_relaxed) != 0) {
        closelog();
        m_opened.store(0, std::memory_order_relaxed);
    }
}

void SystemLogger::log(LogLevel level, char const* message) {
    if (m_opened.load(std::memory_order_relaxed) == 0) {
        openLog();
    }
    // The message must not be used as the format: it may contain conversions.
    syslog(getPriority(level), "%s", message);
}

} // namespace vesk
