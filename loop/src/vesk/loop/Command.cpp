#include <vesk/loop/Command.h>

#include "Report.h"
#include "Start.h"

#include <tarncommon/error/CommonError.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <poll.h>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Command";

/// Serves the streams until all of them are done.
void serveAll(Streams& streams, Output& output) {
    for (;;) {
        pollfd ends[Streams::COUNT];
        size_t indices[Streams::COUNT];
        nfds_t count = 0;
        for (size_t i = 0; i < Streams::COUNT; ++i) {
            if (int const fd = streams.get(i); fd >= 0) {
                indices[count] = i;
                ends[count++] = {fd, static_cast<short>(i == 0 ? POLLOUT : POLLIN), 0};
            }
        }
        if (count == 0) {
            return;
        }
        if (poll(ends, count, -1) < 0) {
            continue; // Interrupted, or without memory for a moment.
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (ends[i].revents != 0) {
                if (!streams.serve(indices[i], output)) {
                    streams.m_ends[indices[i]].close();
                }
            }
        }
    }
}

} // namespace

// ---- settings ----

Command::Command(std::string program)
    : m_program(std::move(program)), m_args{m_program}, m_streams(Streams::COUNT, Stream::inherit()) {}

Command& Command::arg(std::string text) {
    m_args.push_back(std::move(text));
    return *this;
}

Command& Command::args(std::vector<std::string> const& texts) {
    m_args.insert(m_args.end(), texts.begin(), texts.end());
    return *this;
}

Command& Command::name(std::string text) {
    m_args.front() = std::move(text);
    return *this;
}

Command& Command::in(Stream stream) {
    m_streams[0] = std::move(stream);
    return *this;
}

Command& Command::out(Stream stream) {
    m_streams[1] = std::move(stream);
    return *this;
}

Command& Command::err(Stream stream) {
    m_streams[2] = std::move(stream);
    return *this;
}

Command& Command::fd(int number, int own) {
    m_fds.emplace_back(number, own);
    return *this;
}

Command& Command::env(std::string const& name, std::string value) {
    m_env[name] = std::move(value);
    return *this;
}

Command& Command::unsetEnv(std::string const& name) {
    m_env[name].reset();
    return *this;
}

Command& Command::clearEnv() {
    m_inherits_env = false;
    m_env.clear();
    return *this;
}

Command& Command::folder(std::filesystem::path const& path) {
    m_folder = path.string();
    return *this;
}

Command& Command::user(uid_t user, gid_t group, std::vector<gid_t> groups) {
    m_user = User{user, group, std::move(groups)};
    return *this;
}

Command& Command::limit(int resource, rlim_t value) {
    m_limits.emplace_back(resource, value);
    return *this;
}

Command& Command::group(pid_t leader) {
    m_group = leader;
    return *this;
}

Command& Command::session() {
    m_session = true;
    return *this;
}

// ---- starting ----

Result<Child> Command::start() const {
    return withoutThrowing(SOURCE, [this]() -> Result<Child> {
        Result<Started> started = Start::run(*this);
        if (!started) {
            return started.error();
        }
        return Start::makeChild(std::move(*started));
    });
}

Result<Output> Command::output() const {
    return withoutThrowing(SOURCE, [this]() -> Result<Output> {
        Result<Started> started = Start::run(*this);
        if (!started) {
            return started.error();
        }
        Output output;
        Streams& streams = started->streams;
        for (size_t i = 0; i < Streams::COUNT; ++i) {
            if (!streams.m_is_served[i]) {
                streams.m_ends[i].close(); // A pipe that has no other end here.
            }
        }
        serveAll(streams, output);
        for (pid_t const pid : started->pids) {
            output.upstream.push_back(waitFor(pid));
        }
        started->pids.clear();
        static_cast<Exit&>(output) = output.upstream.back();
        output.upstream.pop_back();
        return output;
    });
}

Command Command::operator|(Command second) const {
    Command first(*this);
    second.m_upstream = std::move(first.m_upstream);
    first.m_upstream.clear();
    second.m_upstream.push_back(std::move(first));
    return second;
}

// ---- children ----

Child& Child::operator=(Child&& other) noexcept {
    Child taken(std::move(other));
    std::swap(m_pids, taken.m_pids);
    std::swap(in, taken.in);
    std::swap(out, taken.out);
    std::swap(err, taken.err);
    return *this;
}

Child::~Child() {
    reapLater(m_pids);
}

Result<Exit> Child::wait() {
    if (m_pids.empty()) {
        return makeError(SOURCE, ECHILD, LoopErrorId::CHILD_REFUSED, -1);
    }
    Exit exit;
    for (pid_t const pid : m_pids) {
        exit = waitFor(pid);
    }
    m_pids.clear();
    return exit;
}

Result<> Child::kill(int signal) {
    if (m_pids.empty()) {
        return makeError(SOURCE, ESRCH, LoopErrorId::CHILD_REFUSED, -1);
    }
    if (::kill(pid(), signal) != 0) {
        return makeError(SOURCE, errno, LoopErrorId::CHILD_REFUSED, static_cast<int>(pid()));
    }
    return {};
}

} // namespace vesk::loop
