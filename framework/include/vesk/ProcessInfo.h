#pragma once

#include <vesk/Export.h>

#include <cstddef>
#include <string>
#include <vector>

namespace vesk {

/// A snapshot of one process: its name, processor time, threads and memory. Two of them, taken apart in time, tell how
/// busy the process was in between:
///
///     vesk::ProcessInfo start(pid);
///     start.init();
///     vesk::Time::sleep(1000);
///     vesk::ProcessInfo end(pid);
///     end.init();
///     double const percent = vesk::ProcessInfo::getCpuLoad(start, end);
///
/// An object is a plain value without a lock: threads use objects of their own.
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

    /// Only notes which process; `init` looks at it.
    /// @param pid  the process; not 0
    explicit ProcessInfo(int pid) noexcept : m_pid(pid) {}

    /// Takes the snapshot (`open`, `read` of "/proc/<pid>/stat" and "/proc/<pid>/statm"). Does not block.
    ///
    /// Whether it got to its end is told by `valid`; when it did not, `SysErrorId::QUERY_FAILED` is reported, and `available` tells
    /// what was found out before. A clock that cannot be read is reported as well (`Time::getTimestamp`, with `SysError`
    /// 17 on top), but leaves the snapshot valid with a `timestamp` of 0. A process id of 0 trips an assertion.
    ///
    /// It may be called again, for a fresh snapshot in the same object.
    void init();

    /// How busy a process was between two snapshots of it, in percent of what all processors online can do: 100 means
    /// that it kept all of them busy. An interval in which `user_time` or `system_time` wrapped counts as idle.
    /// @return 0.0 to 100.0, and 0.0 also if `end` is not later than `start`; -1.0 on failure: `SysErrorId::INVALID_PARAMETER` with "start"
    ///         or "end", a snapshot without both times
    static double getCpuLoad(ProcessInfo const& start, ProcessInfo const& end);

    /// Finds all processes of the system (`vesk::Directory` on "/proc"). They may be gone when it returns.
    /// @param pids  emptied, then filled with their ids, in no order
    /// @return true on failure: `SysErrorId::QUERY_FAILED` on top of the report of `Directory`; `pids` holds what was found before
    static bool getPIDs(std::vector<int>& pids);

    /// The process looked at.
    int getPID() const noexcept { return m_pid; }

    bool valid = false;         ///< `init` got to its end.
    unsigned int available = 0; ///< Which of the values are filled in, bits of `Value`.
    std::string name;           ///< Of the command, without its directory; the kernel keeps 15 characters.

private:
    int m_pid;

public:
    /// Processor time in user mode, in milliseconds. Counts in 32 bits: it starts again from 0 whenever the process has
    /// used another 4,294,967 ticks of the system, just under 12 hours at 100 ticks a second.
    unsigned long long user_time = 0;
    unsigned long long system_time = 0; ///< Processor time in the kernel, likewise.
    long long timestamp = 0; ///< When the snapshot was taken, `Time::getTimestamp`, in milliseconds.
    size_t threads = 0;      ///< How many threads the process has.
    size_t resident = 0;     ///< Memory that it occupies, in bytes.

private:
    bool parseStat(char const* text);
    bool parseStatm(char const* text);
};

} // namespace vesk
