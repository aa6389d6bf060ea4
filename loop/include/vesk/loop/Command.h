#pragma once

#include <vesk/loop/Fd.h>
#include <vesk/loop/Loop.h>

#include <cstddef>
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

/// Where a stream of a program comes from or leads to.
class Stream {
public:
    /// The stream of the caller.
    static Stream inherit() { return {Kind::INHERIT, {}, 0}; }
    static Stream null() { return {Kind::FILE, "/dev/null", 0}; }
    /// A file. It is read from its begin, or created (mode 0666 without the mask) and emptied.
    static Stream file(std::string path) { return {Kind::FILE, std::move(path), 0}; }
    /// The end of a file.
    static Stream append(std::string path) { return {Kind::APPEND, std::move(path), 0}; }
    /// A pipe. `Child` has the other end.
    static Stream pipe() { return {Kind::PIPE, {}, 0}; }
    /// A copy of a descriptor of the caller, which must be open at the start.
    static Stream fd(int number) { return {Kind::FD, {}, static_cast<size_t>(number)}; }
    /// Where standard output leads, for standard error.
    static Stream sameAsOut() { return {Kind::SAME, {}, 0}; }
    /// A text as the input, written while the program runs. For `Command::output` and `Loop::start`.
    static Stream text(std::string text) { return {Kind::TEXT, std::move(text), 0}; }
    /// Collected in `Output`. What exceeds the limit (bytes) is read and dropped, so that the program goes on.
    /// For `Command::output` and `Loop::start`.
    static Stream capture(size_t limit = 1 << 20) { return {Kind::CAPTURE, {}, limit}; }

    Stream(std::filesystem::path const& path) : Stream(file(path.string())) {}
    Stream(std::string path) : Stream(file(std::move(path))) {}
    Stream(char const* path) : Stream(file(path)) {}

private:
    friend class detail::Start;
    bool hasOtherEnd() const noexcept { return m_kind == Kind::PIPE || m_kind == Kind::CAPTURE; }
    enum class Kind : unsigned char { INHERIT, FILE, APPEND, PIPE, FD, SAME, TEXT, CAPTURE };
    Stream(Kind kind, std::string text, size_t number)
        : m_kind(kind), m_text(std::move(text)), m_number(number) {}

    Kind m_kind;
    std::string m_text;
    size_t m_number;
};

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
    Child(Child&& other) noexcept = default;
    Child& operator=(Child&& other) noexcept;
    ~Child();

    /// Returns the process of the last program.
    pid_t pid() const noexcept { return m_pids.back(); }
    /// The other ends of the streams that are pipes.
    Fd in;
    Fd out;
    Fd err;

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
    pid_t pid() const noexcept { return m_pid; }
    /// The other ends of the streams that are pipes.
    Fd in;
    Fd out;
    Fd err;

    /// Sends a signal to the last program (`kill`). Fails with `ESRCH` as soon as its end was seen.
    Result<> kill(int signal);

private:
    friend class Loop;
    Process(std::shared_ptr<detail::Source> source, pid_t pid) noexcept
        : Watch(std::move(source)), m_pid(pid) {}

    pid_t m_pid;
};

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

    Command& arg(std::string text);
    Command& args(std::vector<std::string> const& texts);
    /// Sets what the program sees as its name (`argv[0]`), by default the program.
    Command& name(std::string text);

    /// Set the streams, by default those of the caller. Files are opened by the caller, in its folder.
    Command& in(Stream stream);
    Command& out(Stream stream);
    Command& err(Stream stream);
    /// Gives the program a copy of the caller's descriptor `own` under the number `number`, at least 3.
    Command& fd(int number, int own);

    Command& env(std::string const& name, std::string value);
    Command& unsetEnv(std::string const& name);
    /// Leaves out the caller's environment.
    Command& clearEnv();
    /// Sets the working folder. It is entered by the program's user.
    Command& folder(std::filesystem::path const& path);
    /// Sets user, group and all supplementary groups. Needs the right to.
    Command& user(uid_t user, gid_t group, std::vector<gid_t> groups = {});
    /// Sets a limit, such as `RLIMIT_NOFILE`, both soft and hard (`setrlimit`).
    Command& limit(int resource, rlim_t value);
    /// Puts the program into a process group, 0 for a new one (`setpgid`).
    Command& group(pid_t leader = 0);
    /// Makes the program the leader of a new session (`setsid`).
    Command& session();

    /// Starts the program. Returns as soon as it executes.
    Result<Child> start() const;
    /// Starts the program, and blocks until it has ended and all captured streams are closed.
    Result<Output> output() const;

    /// Returns a pipeline: the first command writes to the input of the second one. Only the last command has
    /// an error stream with an end at the caller.
    friend Command operator|(Command first, Command second) {
        second.m_upstream = std::move(first.m_upstream);
        first.m_upstream.clear();
        second.m_upstream.push_back(std::move(first));
        return second;
    }

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
