#pragma once

#include <vesk/AtomicCounter.h>
#include <vesk/Export.h>
#include <vesk/sched.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace vesk {

/// The library itself: a process creates one object of this class before it uses anything else.
///
///     int main() {
///         vesk::Vesk const vesk(true, false);
///         ...
///     }
///
/// The first object starts the library: it sets the locale of the environment, ignores `SIGPIPE` (so that
/// writing to a closed pipe or socket gives `EPIPE`) unless the process already handles or ignores it, reads
/// the time zone, records the origin of the uptime, seeds `rand`, and records the scheduling attributes of
/// the calling thread, the main thread. Every further object only increments the count. The object may be
/// destroyed at any time: its destruction undoes nothing.
///
/// | state of the library | `s_initialized` | `s_init_count` | usable |
/// |---|---|---|---|
/// | loaded | false | 0 | error families, constants, locks, conditions and files |
/// | running | true | 1 or more | everything |
/// | cleaned up | false | 1 or more | as before the start-up; child processes are no longer reaped |
///
/// Threads may use every class while the process ends: `exit` destroys no static object of the library.
/// Unloading the library (`dlclose`) destroys them and leaves nothing behind. By then no thread may be inside
/// the library, and `cleanupAll` must have stopped the library's own threads.
///
/// One thread must create the first object, before there are others: two threads that create it at the same
/// time both run the start-up.
class VESK_API Vesk : private tarnbase::NonCopyable {
public:
    /// Properties of the machine, read with `sysconf` when the object is created. A number that is not
    /// available is 0.
    struct VESK_API SystemInfo {
        SystemInfo() noexcept;

        uint32_t page_size;       ///< Size of a memory page in bytes (`_SC_PAGESIZE`).
        uint32_t processor_count; ///< Number of processors online (`_SC_NPROCESSORS_ONLN`).
    };

    /// Failures of the start-up. Has no parent.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        INIT_FAILED = 0, ///< A part of the library is not initialized. Argument: the reason.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Starts the library if it is not running, and increments the count. Reports nothing to the caller: if
    /// the start-up fails, `std::GlobalErrorHandler::doAbort` is called, with the reports of the failed step
    /// pending. A start-up after `cleanupAll` trips an assertion and still runs.
    ///
    /// @param lazy_process_init  whether the first use sets up the machinery for child processes, instead of
    ///                           the start-up
    /// @param unused             ignored
    Vesk(bool lazy_process_init, bool unused);

    /// Stops the background activity of the library, which is not running afterwards. `s_init_count` keeps
    /// its value.
    static void cleanupAll();

    /// Stores the path of a directory for the configuration of other code; the library itself does not use
    /// it. There is no lock against `getDefaultConfigDir`: call it before there are threads that read the
    /// path.
    /// @return the previous path, empty the first time
    static std::string setDefaultConfigDir(std::string const& dir);

    /// Returns the first argument of the constructor.
    bool isProcessInitLazy() const noexcept { return m_lazy_process_init; }

    /// Runs the first step of the start-up: sets the environment's locale (`setlocale`) and the disposition
    /// of `SIGPIPE` (`sigaction`).
    /// @return true on failure, without a report: the disposition of `SIGPIPE` could not be read or set
    [[nodiscard]] bool preInit();

    /// Runs the last step of the start-up: seeds `rand` (`srand`) with the low 32 bits of the wall-clock time
    /// in milliseconds.
    /// @return true on failure: the report of `Time::getTimestamp`
    [[nodiscard]] bool postInit();

    // The state of the library. Read only.
    static AtomicCounter s_init_count;           ///< The number of objects created; never decreases.
    static std::atomic<bool> s_initialized;      ///< The start-up has run, without a later `cleanupAll`.
    static std::atomic<bool> s_ever_initialized; ///< An object has been created; never reset.

    /// Properties of the machine. Read by an initializer of this library while the library is loaded: `main`
    /// and the initializers of programs and libraries that link to it can use it.
    static SystemInfo const s_sys_info;

    /// The scheduling attributes of the thread that ran the start-up, at that time. All zero before the
    /// start-up, `VESK_SCHED_NOOP` if they could not be read.
    static sched::Attr s_vesk_ctor_sched_attrs;

private:
    bool m_lazy_process_init;
};

/// Returns the path of `Vesk::setDefaultConfigDir`, empty before its first call. Callable in every
/// initializer, and in the destructor of every global object.
VESK_API std::string const& getDefaultConfigDir();

/// A hook for the arguments of `main`: does nothing and leaves them unchanged.
VESK_API void getMainFwArgs(int* argc, char*** argv);

} // namespace vesk
