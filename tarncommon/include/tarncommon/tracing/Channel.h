#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <string>

namespace tracing {

/// A named source of trace output on standard error.
///
/// Callers build a message of level L only if the channel's threshold is not above L, so a silent channel
/// costs one load:
///
///     tracing::Channel channel("FW_Vesk_Thread", 7, tracing::Channel::WITH_THREAD);
///     if (channel.m_threshold <= 2) channel.logCV(2, "can't set nice value %d", nice);
///
/// `setThreshold` sets thresholds by name while the process runs. The environment variable `TARN_TRACE`, a
/// list such as "FW_Vesk_Thread=2,FW_Vesk_Process=0", sets them from outside. Each channel reads it when it
/// is constructed.
class TARN_API Channel : private tarnbase::NonCopyable {
public:
    static constexpr unsigned int WITH_TIME = 1;   ///< Lines begin with the monotonic time in milliseconds.
    static constexpr unsigned int WITH_THREAD = 2; ///< Lines contain the kernel's id of the thread.

    /// Registers the channel.
    /// @param name   name for `setThreshold` and `TARN_TRACE`; several channels may share a name
    /// @param level  threshold if `TARN_TRACE` does not set it
    /// @param flags  `WITH_TIME` and `WITH_THREAD`, combined
    Channel(std::string const& name, short level, unsigned int flags);
    ~Channel();

    /// Writes one line to standard error, printf-style. Does not check the threshold; callers do. A line of
    /// more than 1,023 bytes is cut and ends in "...". Callable from any thread; takes no lock and does not
    /// allocate.
    void logCV(short level, char const* format, ...) TARN_PRINTF(3, 4);

    /// Sets the threshold of all channels of this name. Callable from any thread.
    /// @return false if no channel has the name
    static bool setThreshold(std::string const& name, short level);

    /// Returns the name of the channel.
    std::string const& getName() const noexcept { return m_name; }

    /// Lowest level of the messages to write. Any thread may read and set it.
    std::atomic<short> m_threshold;

private:
    std::string m_name;
    unsigned int m_flags;
    Channel* m_next = nullptr; // Next channel in the process-wide registry.
};

} // namespace tracing
