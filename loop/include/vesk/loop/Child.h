#pragma once

#include <vesk/loop/Fd.h>
#include <vesk/loop/Loop.h>

#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace vesk::loop {

namespace detail {
class Start;
} // namespace detail

/// How a program ended, and what it wrote.
struct Output : Exit {
    std::string out;            ///< The captured standard output.
    std::string err;            ///< The captured standard error.
    bool is_cut = false;        ///< Whether a limit was exceeded.
    std::vector<Exit> upstream; ///< How the earlier programs of a pipeline ended.
};

/// A running program, or a pipeline of them. The destructor leaves it running; a thread of the library reaps it.
///
/// Can be moved, but not be used by two threads at once.
class [[nodiscard]] VESK_LOOP_API Child {
public:
    /// Takes the program of another object.
    Child(Child&& other) noexcept = default;
    /// Leaves its program running, and takes that of another object.
    Child& operator=(Child&& other) noexcept;
    ~Child();

    /// Returns the process of the last program.
    pid_t pid() const noexcept { return m_pids.back(); }
    /// @{
    /// The other ends of the streams that are pipes.
    Fd in;
    Fd out;
    Fd err;
    /// @}

    /// Blocks until the program has ended, and reaps it (`waitid`).
    Result<Exit> wait();
    /// Sends a signal to the last program (`kill`). Fails with `ESRCH` after `wait`.
    Result<> kill(int signal);

private:
    friend class detail::Start;
    explicit Child(std::vector<pid_t> pids) noexcept : m_pids(std::move(pids)) {}

    std::vector<pid_t> m_pids; ///< Empty after `wait`.
};

/// A program of a loop. The destructor silences the callback at once, and leaves the program running.
class [[nodiscard]] VESK_LOOP_API Process : public Watch {
public:
    /// Watches nothing.
    Process() noexcept = default;
    /// Returns the process of the last program.
    pid_t pid() const noexcept { return m_pid; }
    /// @{
    /// The other ends of the streams that are pipes.
    Fd in;
    Fd out;
    Fd err;
    /// @}

    /// Sends a signal to the last program (`kill`). Fails with `ESRCH` as soon as its end was seen.
    Result<> kill(int signal);

private:
    friend class Loop;
    Process(std::shared_ptr<detail::Source> source, pid_t pid) noexcept
        : Watch(std::move(source)), m_pid(pid) {}

    pid_t m_pid = -1;
};

} // namespace vesk::loop
