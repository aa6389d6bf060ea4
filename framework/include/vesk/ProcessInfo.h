#pragma once

#include <vesk/Export.h>

#include <cstddef>
#include <string>
#include <vector>

namespace vesk {

/// A snapshot of one process: its name, processor time, threads and memory. Two snapshots give the load of
/// the process between them:
///
///     vesk::ProcessInfo start(pid);
///     start.init();
///     vesk::Time::sleep(1000);
///     vesk::ProcessInfo end(pid);
///     end.init();
///     double const percent = vesk::ProcessInfo::getCpuLoad(start, end);
///
/// An object is a plain value without a lock: each thread must use its own objects.
class VESK_API ProcessInfo {
public:
    /// The bits of `available`.
    enum Value : unsigned int {
        NAME = 1,
        USER_TIME = 2,
        SYSTEM_TIME = 4,
        THREADS = 8,
        RESIDENT = 16,
    };

    /// Stores the process id. `init` takes the snapshot.
    /// @param pid  the process; not 0
    explicit ProcessInfo(int pid) noexcept : m_pid(pid) {}

    /// Takes the snapshot (`open`, `read` of "/proc/<pid>/stat" and "/proc/<pid>/statm"). Does not block. A
    /// further call takes a new snapshot in the same object.
    ///
    /// Sets `valid` to whether it succeeded. On failure it reports `SysErrorId::QUERY_FAILED`, and
    /// `available` shows which values were read before the failure. If the clock cannot be read, it reports
    /// that as well (`Time::getTimestamp`, with `SysErrorId::QUERY_FAILED` on top), but the snapshot is valid
    /// with a `timestamp` of 0. A process id of 0 fails an assertion.
    void init();

    /// Returns the load of a process between two snapshots, as a percentage of the capacity of all online
    /// processors: 100 means that the process kept all of them busy. An interval in which `user_time` or
    /// `system_time` wrapped counts as idle.
    /// @return 0.0 to 100.0, and 0.0 also if `end` is not later than `start`; -1.0 on failure:
    ///         `SysErrorId::INVALID_PARAMETER` with "start" or "end" if that snapshot lacks one of the two
    ///         times
    static double getCpuLoad(ProcessInfo const& start, ProcessInfo const& end);

    /// Lists all processes of the system (`vesk::Directory` on "/proc"). A listed process may have ended when
    /// the call returns.
    /// @param pids  cleared, then filled with the process ids in no particular order
    /// @return true on failure: `SysErrorId::QUERY_FAILED` on top of the report of `Directory`; `pids` holds
    ///         the ids found before the failure
    [[nodiscard]] static bool getPIDs(std::vector<int>& pids);

    /// Returns the process id.
    int getPID() const noexcept { return m_pid; }

    bool valid = false;         ///< Whether `init` succeeded.
    unsigned int available = 0; ///< Which values are set, as bits of `Value`.
    std::string name;           ///< Command name without its directory; the kernel keeps 15 characters.

private:
    int m_pid;

public:
    /// Processor time in user mode, in milliseconds. The counter has 32 bits: it wraps to 0 whenever the
    /// process has used another 4,294,967 clock ticks, which is just under 12 hours at 100 ticks per second.
    unsigned long long user_time = 0;
    unsigned long long system_time = 0; ///< Processor time in the kernel, with the same unit and range.
    long long timestamp = 0;            ///< Time of the snapshot (`Time::getTimestamp`), in milliseconds.
    size_t threads = 0;                 ///< Number of threads of the process.
    size_t resident = 0;                ///< Resident memory, in bytes.

private:
    bool parseStat(char const* text);
    bool parseStatm(char const* text);
};

} // namespace vesk
