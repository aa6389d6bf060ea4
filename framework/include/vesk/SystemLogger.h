#pragma once

#include <vesk/Export.h>
#include <vesk/Mutex.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>

namespace vesk {

/// The severity of a message of `SystemLogger`. Any other value counts as a notice.
enum class LogLevel {
    ERROR = 0,   ///< Logged as `LOG_ERR`.
    WARNING = 1, ///< Logged as `LOG_WARNING`.
    NOTICE = 2,  ///< Logged as `LOG_NOTICE`.
};

/// Connection to the system log for messages to the operator, with the identity "lumo framework" and the
/// process id. For messages that only developers need use a `tracing::Channel`.
///
///     vesk::SystemLogger::getInstance().log(vesk::LogLevel::WARNING, "battery is low");
///
/// The process has one object. It shares the connection of libc's `syslog` with all other code that calls
/// `syslog`.
///
/// `log` may be called from any thread. Opening and closing must be done by one thread at a time, while no
/// other thread logs. Delivery is not reported: without a system log a message is lost.
class VESK_API SystemLogger : private tarnbase::NonCopyable {
public:
    /// Returns the object, which the first call creates and opens. Callable from any thread; may wait for
    /// that first call. If locking or unlocking fails, `std::GlobalErrorHandler::doAbort` is called.
    static SystemLogger& getInstance();

    /// Connects to the system log (`openlog`). Does nothing while it is open.
    void openLog();

    /// Closes the connection (`closelog`). Does nothing while it is closed.
    void closeLog();

    /// Sends a message (`syslog`), after `openLog` if the log is closed. Blocks while the system log is too
    /// busy to accept it.
    /// @param message  logged unchanged; a `%` in it has no special meaning
    void log(LogLevel level, char const* message);

private:
    SystemLogger();
    ~SystemLogger();

    static Mutex s_singleton_mutex;

    std::atomic<int32_t> m_opened{0};
};

} // namespace vesk
