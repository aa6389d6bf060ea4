#include "Start.h"

#include "Report.h"
#include "SignalsBlocked.h"

#include <vesk/KeptChildren.h>
#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace vesk::loop::detail {

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Command";

constexpr char const* STEPS[] = {"process", "descriptors", "session", "process group",
                                 "user",    "limits",      "folder",  "program"};

bool hasNullIn(std::string const& text) noexcept {
    return text.find('\0') != std::string::npos;
}

/// Writes to a pipe. A pipe without a reader fails, and does not end the process with a signal.
ssize_t writeQuietly(int fd, char const* data, size_t size) noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    sigset_t pipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    sigpending(&pending);
    ssize_t const result = write(fd, data, size);
    int const error = errno;
    if (result < 0 && error == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        timespec const none{};
        sigtimedwait(&pipe, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return result;
}

} // namespace

// ---- children ----

Exit toExit(pid_t child, siginfo_t const& info) noexcept {
    bool const exited = info.si_code == CLD_EXITED;
    Exit exit;
    exit.pid = child;
    exit.code = exited ? info.si_status : -1;
    exit.signal = exited ? 0 : info.si_status;
    exit.dumped_core = info.si_code == CLD_DUMPED;
    return exit;
}

Exit waitFor(pid_t child) {
    siginfo_t info{};
    int result = 0;
    do {
        result = waitid(P_PID, static_cast<id_t>(child), &info, WEXITED);
    } while (result != 0 && errno == EINTR);
    KeptChildren::release(child);
    if (result != 0) {
        Exit unknown;
        unknown.pid = child;
        return unknown;
    }
    return toExit(child, info);
}

void reapLater(std::vector<pid_t> const& children) noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    for (pid_t const child : children) {
        siginfo_t info{};
        if (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG) != 0 || info.si_pid == child) {
            KeptChildren::release(child);
            continue;
        }
        try {
            SignalsBlocked const blocked; // The thread inherits that.
            std::thread([child] { waitFor(child); }).detach();
        } catch (std::exception const&) {
            return; // Reaped by the system when this process ends.
        }
    }
}

// ---- streams ----

bool Streams::serve(size_t stream, Output& output) {
    return stream == 0 ? feed() : collect(stream, stream == 1 ? output.out : output.err, output.is_cut);
}

bool Streams::feed() {
    ssize_t const count = writeQuietly(m_ends[0].get(), m_text.data() + m_written, m_text.size() - m_written);
    if (count < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    m_written += static_cast<size_t>(count);
    return m_written < m_text.size();
}

bool Streams::collect(size_t stream, std::string& text, bool& is_cut) {
    char buffer[16 * 1024];
    ssize_t const count = read(m_ends[stream].get(), buffer, sizeof buffer);
    if (count <= 0) {
        return count < 0 && (errno == EAGAIN || errno == EINTR);
    }
    size_t const kept = std::min(static_cast<size_t>(count), m_limits[stream] - text.size());
    text.append(buffer, kept);
    is_cut = is_cut || kept < static_cast<size_t>(count);
    return true;
}

void Start::redirect(size_t number, int source) {
    m_plan.redirections.push_back({static_cast<int>(number), source});
}

Start::Fault Start::openFile(size_t number, Stream const& stream) {
    int const how = stream.m_kind == Stream::Kind::APPEND ? O_APPEND : O_TRUNC;
    int const flags = number == 0 ? O_RDONLY : O_WRONLY | O_CREAT | how;
    UniqueFd file(::open(stream.m_text.c_str(), flags | O_CLOEXEC, 0666));
    if (!file.isOpen()) {
        return {"file \"" + stream.m_text + '"', errno};
    }
    redirect(number, file.get());
    m_opened.push_back(std::move(file));
    return {};
}

/// Makes a pipe between the caller and a stream of the program.
Start::Fault Start::openPipe(size_t number, UniqueFd& own, bool is_blocking) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return {"pipe", errno};
    }
    UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    own = std::move(number == 0 ? writer : reader);
    m_opened.push_back(std::move(number == 0 ? reader : writer));
    redirect(number, m_opened.back().get());
    if (!is_blocking && fcntl(own.get(), F_SETFL, O_NONBLOCK) != 0) {
        return {"pipe", errno};
    }
    return {};
}

Start::Fault Start::open(size_t number, Stream const& stream, Streams& streams) {
    switch (stream.m_kind) {
    case Stream::Kind::FILE:
    case Stream::Kind::APPEND:
        return openFile(number, stream);
    case Stream::Kind::TEXT:
        streams.m_text = stream.m_text;
        [[fallthrough]];
    case Stream::Kind::CAPTURE:
        streams.m_is_served[number] = true;
        streams.m_limits[number] = stream.m_number;
        return openPipe(number, streams.m_ends[number], false);
    case Stream::Kind::PIPE:
        return openPipe(number, streams.m_ends[number], true);
    case Stream::Kind::SAME:
        redirect(number, m_plan.redirections.back().source);
        return {};
    case Stream::Kind::FD:
        redirect(number, static_cast<int>(stream.m_number));
        return {};
    case Stream::Kind::INHERIT:
        break;
    }
    // A stream that the caller does not have is not there for the program either.
    if (fcntl(static_cast<int>(number), F_GETFD) >= 0) {
        redirect(number, static_cast<int>(number));
    }
    return {};
}

/// Opens the three streams and the other descriptors. `input` is the output of the program before, and then that of
/// this one, unless it is the last one.
Start::Fault Start::openStreams(Streams& streams, UniqueFd& input, bool is_last) {
    for (size_t number = 0; number < Streams::COUNT; ++number) {
        Fault fault;
        if (number == 0 && input.isOpen()) {
            redirect(0, input.get());
            m_opened.emplace_back(input.release());
        } else if (number == 1 && !is_last) {
            fault = openPipe(1, input, true);
        } else if (number == 2 && !is_last && m_command.m_streams[2].hasOtherEnd()) {
            fault = {"standard error of an earlier program", EINVAL};
        } else {
            fault = open(number, m_command.m_streams[number], streams);
        }
        if (fault.error != 0) {
            return fault;
        }
    }
    for (auto const& fd : m_command.m_fds) {
        if (fd.first < static_cast<int>(Streams::COUNT)) {
            return {"descriptor " + std::to_string(fd.first), EINVAL};
        }
        redirect(static_cast<size_t>(fd.first), fd.second);
    }
    auto& all = m_plan.redirections;
    std::stable_sort(
        all.begin(), all.end(), [](auto const& one, auto const& other) { return one.target < other.target; });
    return {};
}

// ---- the plan ----

bool Start::hasNull() const noexcept {
    return std::any_of(m_command.m_args.begin(), m_command.m_args.end(), hasNullIn) ||
        std::any_of(m_environment.begin(), m_environment.end(), hasNullIn) ||
        hasNullIn(m_command.m_program) || hasNullIn(m_command.m_folder);
}

void Start::makeEnvironment() {
    for (char** row = environ; m_command.m_inherits_env && row != nullptr && *row != nullptr; ++row) {
        std::string const name(*row, strcspn(*row, "="));
        if (m_command.m_env.count(name) == 0) {
            m_environment.emplace_back(*row);
        }
    }
    for (auto const& [name, value] : m_command.m_env) {
        if (value.has_value()) {
            m_environment.push_back(name + '=' + *value);
        }
    }
}

void Start::makePaths() {
    std::string const& program = m_command.m_program;
    if (program.empty() || program.find('/') != std::string::npos) {
        m_plan.paths.push_back(program);
        return;
    }
    std::string search = "/bin:/usr/bin";
    for (std::string const& row : m_environment) {
        search = row.compare(0, 5, "PATH=") == 0 ? row.substr(5) : search;
    }
    for (size_t at = 0; at <= search.size();) {
        size_t const end = std::min(search.find(':', at), search.size());
        std::string path = search.substr(at, end - at);
        path += path.empty() ? "" : "/";
        m_plan.paths.push_back(path += program);
        at = end + 1;
    }
}

void Start::makePlan() {
    makePaths();
    for (std::string const& text : m_command.m_args) {
        m_plan.argv.push_back(const_cast<char*>(text.c_str()));
    }
    for (std::string const& text : m_environment) {
        m_plan.envp.push_back(const_cast<char*>(text.c_str()));
    }
    m_plan.argv.push_back(nullptr);
    m_plan.envp.push_back(nullptr);
    m_plan.folder = m_command.m_folder.empty() ? nullptr : m_command.m_folder.c_str();
    if (m_command.m_user.has_value()) {
        m_plan.sets_user = true;
        m_plan.user = m_command.m_user->user;
        m_plan.group = m_command.m_user->group;
        m_plan.groups = m_command.m_user->groups;
    }
    m_plan.limits = m_command.m_limits;
    m_plan.sets_process_group = m_command.m_group.has_value();
    m_plan.process_group = m_command.m_group.value_or(0);
    m_plan.is_session = m_command.m_session;
}

// ---- the start ----

Result<> Start::start(Started& started, UniqueFd& input, bool is_last) {
    char const* const program = m_command.m_program.c_str();
    makeEnvironment();
    if (hasNull()) {
        return makeError(SOURCE, EINVAL, LoopErrorId::NOT_STARTED, program, "text with a null character");
    }
    Fault const fault = openStreams(started.streams, input, is_last);
    if (fault.error != 0) {
        return makeError(SOURCE, fault.error, LoopErrorId::NOT_STARTED, program, fault.what.c_str());
    }
    makePlan();
    Failure failure;
    KeptChildren::Start keeping;
    pid_t const child = spawn(m_plan, failure);
    keeping.keep(child);
    if (child < 0) {
        std::string what = STEPS[static_cast<int>(failure.step)];
        what += failure.step == Step::FOLDER ? " \"" + m_command.m_folder + '"' : "";
        return makeError(SOURCE, failure.error, LoopErrorId::NOT_STARTED, program, what.c_str());
    }
    started.pids.push_back(child);
    return {};
}

Result<Started> Start::run(Command const& command) {
    Started started;
    UniqueFd input;
    std::vector<Command const*> all;
    for (Command const& upstream : command.m_upstream) {
        all.push_back(&upstream);
    }
    all.push_back(&command);
    started.pids.reserve(all.size());
    for (Command const* const one : all) {
        Start start(*one);
        if (Result<> const result = start.start(started, input, one == &command); !result) {
            return result.error();
        }
    }
    return started;
}

Child Start::makeChild(Started started) {
    Child child(std::move(started.pids));
    giveEnds(started.streams, child);
    return child;
}

} // namespace vesk::loop::detail
