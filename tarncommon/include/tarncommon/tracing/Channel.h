#pragma once

#include <tarncommon/Export.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <string>

namespace tracing {

/// A named source of trace output on standard error.
///
/// A message of level L is built only if the channel's threshold is not above L, so a silent channel costs one load:
///
///     tracing::Channel channel("FW_Vesk_Thread", 7, tracing::Channel::WITH_THREAD);
///     if (channel.m_threshold <= 2) channel.logCV(2, "can't set nice value %d", nice);
///
/// Thresholds are set by name while the process runs with `setThreshold`, and from outside by the environment variable
/// `TARN_TRACE`, a list such as "FW_Vesk_Thread=2,FW_Vesk_Process=0", which each channel reads when it is built.
class TARN_API Channel : private tarnbase::NonCopyable {
public:
    static constexpr unsigned int WITH_TIME = 1;   ///< Lines begin with the monotonic time in milliseconds.
    static constexpr unsigned int WITH_THREAD = 2; ///< Lines tell the kernel's id of the thread.

    /// Registers the channel.
    /// @param name   what `setThreshold` and `TARN_TRACE` find it by; several channels may share a name
    /// @param level  the threshold where `TARN_TRACE` says nothing
    /// @param flags  `WITH_TIME` and `WITH_THREAD`, combined
    Channel(std::string const& name, short level, unsigned int flags);
    ~Channel();

    /// Writes one line to standard error, printf-style, whatever the threshold: callers look at it first. A line of over
    /// 1,023 bytes is cut and ends in "...". Callable from any thread; takes no lock and does not allocate.
    void logCV(short level, char const* format, ...) TARN_PRINTF(3, 4);

    /// Sets the threshold of all channels of this name; false if there is none. Callable from any thread.
    static bool setThreshold(std::string const& name, short level);

    /// The name as given.
    std::string const& getName() const noexcept { return m_name; }

    /// Messages below this level are not wanted. May be read and set by any thread.
    std::atomic<short> m_threshold;

private:
    std::string m_name;
    unsigned int m_flags;
    Channel* m_next = nullptr; // The registry of the process.
};

} // namespace tracing
