#pragma once

#include <vesk/loop/Child.h>
#include <vesk/loop/Stream.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace vesk::loop {

namespace detail {
class Start;
} // namespace detail

/// How to start a program.
///
///     auto const sorted = Command("sort").arg("-u").in("names").out(Stream::capture()).output();
///     if (!sorted) {
///         std::cerr << sorted.error() << '\n';   // Program "sort" cannot be started: ...
///     }
///
/// The program gets its arguments as they are, without a shell. It has no descriptor but the named ones, no blocked
/// signal and no ignored one. A failure up to `execve` is the result of the start, with the step and the error number.
/// The start shares the caller's memory (`clone` with `CLONE_VM` and `CLONE_VFORK`), so that it takes the same time
/// for a large process; functions of `pthread_atfork` do not run. Commands can be copied, and started again.
class VESK_LOOP_API Command {
public:
    /// @param program  a path, or a name that is searched in `PATH`, that of the program's environment
    explicit Command(std::string program);

    // ---- arguments: no text may have a null character ----

    Command& arg(std::string text);                       ///< Adds an argument.
    Command& args(std::vector<std::string> const& texts); ///< Adds arguments.
    Command& name(std::string text); ///< Sets what the program sees as its name (`argv[0]`).

    // ---- streams: by default those of the caller, which also opens the files, in its folder ----

    Command& in(Stream stream);  ///< Sets standard input.
    Command& out(Stream stream); ///< Sets standard output.
    Command& err(Stream stream); ///< Sets standard error.
    /// Gives the program a copy of the caller's descriptor `own` under the number `number`, at least 3.
    Command& fd(int number, int own);

    // ---- environment: by default that of the caller at the start ----

    Command& env(std::string const& name, std::string value); ///< Sets a variable.
    Command& unsetEnv(std::string const& name);               ///< Leaves out a variable of the caller.
    Command& clearEnv(); ///< Leaves out the caller's variables, and forgets those that were set.

    // ---- process ----

    /// Sets the working folder (`chdir`). It is entered by the program's user.
    Command& folder(std::filesystem::path const& path);
    /// Sets user, group and all supplementary groups (`setresuid`, `setresgid`, `setgroups`). Needs the right to.
    Command& user(uid_t user, gid_t group, std::vector<gid_t> groups = {});
    /// Sets a limit, such as `RLIMIT_NOFILE`, both soft and hard (`setrlimit`). May be called for several limits.
    Command& limit(int resource, rlim_t value);
    Command& group(pid_t leader = 0); ///< Puts the program into a process group, 0 for a new one (`setpgid`).
    Command& session(); ///< Makes the program the leader of a new session, without a terminal (`setsid`).

    /// Starts the program. Returns as soon as it executes.
    Result<Child> start() const;
    /// Starts the program, and blocks until it has ended and all captured streams are closed.
    Result<Output> output() const;

    /// Returns a pipeline: this command writes to the input of the second one. Only the last command has
    /// an error stream with an end at the caller.
    Command operator|(Command second) const;

private:
    friend class detail::Start;
    struct User {
        uid_t user;
        gid_t group;
        std::vector<gid_t> groups;
    };

    std::string m_program;
    std::vector<std::string> m_args; ///< With the name.
    std::vector<Stream> m_streams;
    std::vector<std::pair<int, int>> m_fds;
    std::map<std::string, std::optional<std::string>> m_env;
    bool m_inherits_env = true;
    std::string m_folder;
    std::optional<User> m_user;
    std::vector<std::pair<int, rlim_t>> m_limits;
    std::optional<pid_t> m_group;
    bool m_session = false;
    std::vector<Command> m_upstream;
};

} // namespace vesk::loop
