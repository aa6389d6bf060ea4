#pragma once

#include <vesk/Export.h>
#include <vesk/Mutex.h>

#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>

namespace vesk {

/// How much a message of `SystemLogger` matters. Any other value counts as a notice.
enum class LogLevel {
    ERROR = 0,   ///< Arrives as `LOG_ERR`.
    WARNING = 1, ///< Arrives as `LOG_WARNING`.
    NOTICE = 2,  ///< Arrives as `LOG_NOTICE`.
};

/// Writes to the system log what the operator of the system is to see, under the identity "lumo framework" and with the
/// process id. For what only developers want use a `tracing::Channel`.
///
///     vesk::SystemLogger::getInstance().log(vesk::LogLevel::WARNING, "battery is low");
///
/// There is one object in the process; it shares the connection of libc's `syslog` with whoever else calls that.
///
/// `log` may be called from any thread. Opening and closing are for one thread at a time, while no other one logs. Whether
/// a message arrives is not told: without a system log it is lost.
class VESK_API SystemLogger : private tarnbase::NonCopyable {
public:
    /// The one object, made and opened by the first call. Callable from any thread; may wait for that first call.
    /// Being unable to lock or unlock goes to `std::GlobalErrorHandler::doAbort`.
    static SystemLogger& getInstance();

    /// Connects to the system log (`openlog`). Does nothing while it is open.
    void openLog();

    /// Lets go of the connection (`closelog`). Does nothing while it is closed.
    void closeLog();

    /// Sends a message (`syslog`), after `openLog` if the log is closed. Blocks while the system log is too busy to take
    /// it.
    /// @param message  taken as it is; a `%` in it is nothing special
    void log(LogLevel level, char const* message);

private:
    SystemLogger();
    ~SystemLogger();

    static Mutex s_singleton_mutex;

    std::atomic<int32_t> m_opened{0};
};

} // namespace vesk
