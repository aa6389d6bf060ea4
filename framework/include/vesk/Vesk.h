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
/// The first one starts the library up: it takes over the locale of the environment, has `SIGPIPE` ignored (so that
/// writing to a closed pipe or socket gives `EPIPE`) unless the process has handled or ignored it already, reads the
/// time zone, notes the moment for the uptime, seeds `rand`, and keeps how the calling thread, the main thread, is
/// scheduled. Every further one only counts. The object need not live on: destroying it undoes nothing.
///
/// | state of the library | `s_initialized` | `s_init_count` | what can be used |
/// |---|---|---|---|
/// | loaded | false | 0 | error families, constants, locks, conditions and files |
/// | running | true | 1 or more | everything |
/// | cleaned up | false | 1 or more | as before the start-up; children are not collected any more |
///
/// Threads may use every class while the process ends: no static object of the library is destroyed by `exit`. Unloading the
/// library (`dlclose`) destroys them, and leaves nothing over; by then no thread may be inside the library, and `cleanupAll`
/// must have ended its own.
///
/// The first object is to be created by one thread, before there are others: two threads that create it at the same
/// moment both run the start-up.
class VESK_API Vesk : private tarnbase::NonCopyable {
public:
    /// What the library knows about the machine, read with `sysconf` when the object is made. A number that cannot be
    /// had is 0.
    struct VESK_API SystemInfo {
        SystemInfo() noexcept;

        uint32_t page_size;       ///< Bytes of a memory page (`_SC_PAGESIZE`).
        uint32_t processor_count; ///< Processors online (`_SC_NPROCESSORS_ONLN`).
    };

    /// Failures of the start-up. Has no parent.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        INIT_FAILED = 0, ///< A step of the initialization failed. Argument: the name of the step.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    /// Starts the library up if it is not running, and counts. Reports nothing to the caller: a start-up that fails goes
    /// to `std::GlobalErrorHandler::doAbort`, with what the failed step reported pending. A start-up after `cleanupAll`
    /// trips an assertion and runs all the same.
    ///
    /// @param lazy_process_init  whether the machinery for child processes is set up by its first use instead of now
    /// @param unused             nothing reads it
    Vesk(bool lazy_process_init, bool unused);

    /// Ends what runs in the background; the library counts as not running afterwards. `s_init_count` stays.
    static void cleanupAll();

    /// Keeps a path where others look for their configuration; the library itself never does. Not locked against
    /// `getDefaultConfigDir`: to be called before there are threads that read it.
    /// @return the path before it, empty the first time
    static std::string setDefaultConfigDir(std::string const& dir);

    /// The first argument of the constructor.
    bool isProcessInitLazy() const noexcept { return m_lazy_process_init; }

    /// First step of the start-up: the environment's locale (`setlocale`) and `SIGPIPE` (`sigaction`).
    /// @return true on failure, without a report: the disposition of `SIGPIPE` could not be read or set
    bool preInit();

    /// Last step of the start-up: seeds `rand` (`srand`) with the low 32 bits of the wall-clock time in milliseconds.
    /// @return true on failure: the report of `Time::getTimestamp`
    bool postInit();

    // The state of the library, to be read only.
    static AtomicCounter s_init_count;           ///< How many objects were made; only goes up.
    static std::atomic<bool> s_initialized;      ///< The start-up has run, and `cleanupAll` has not since.
    static std::atomic<bool> s_ever_initialized; ///< An object was made; stays set.

    /// The machine. Read while the library is loaded, in an initialiser of this library: initialisers of programs and
    /// libraries that link to it can use it, and main can.
    static SystemInfo const s_sys_info;

    /// How the thread that ran the start-up was scheduled then; all zero before, `VESK_SCHED_NOOP` if that could not be
    /// read.
    static sched::Attr s_vesk_ctor_sched_attrs;

private:
    bool m_lazy_process_init;
};

/// The path of `Vesk::setDefaultConfigDir`, empty before its first call. Can be used from every initialiser, and from the
/// destructor of every global object.
VESK_API std::string const& getDefaultConfigDir();

/// A hook for the arguments of `main`: does nothing and leaves them as they are.
VESK_API void getMainFwArgs(int* argc, char*** argv);

} // namespace vesk
