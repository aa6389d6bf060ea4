#include "Job.h"

#include "Core.h"
#include "Report.h"

#include <vesk/KeptChildren.h>
#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <utility>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Command";

} // namespace

namespace detail {

JobSource::~JobSource() {
    {
        // Ended without the mutex, because a callback that is running, and for which this waits, may need it.
        std::vector<Watch> programs;
        Watch streams[Streams::COUNT];
        std::lock_guard<std::mutex> const held(m_mutex);
        programs.swap(m_programs);
        std::move(std::begin(m_watches), std::end(m_watches), std::begin(streams));
    }
    for (size_t i = m_exits.size(); i-- > 0;) {
        if (m_exits[i].pid != -1) {
            m_started.pids.erase(m_started.pids.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

Result<> JobSource::begin(Loop& loop) {
    std::lock_guard<std::mutex> const held(m_mutex);
    size_t const count = m_started.pids.size();
    m_exits.resize(count);
    m_programs.resize(count);
    for (size_t i = 0; i < Streams::COUNT; ++i) {
        if (Result<> const result = watchStream(loop, i); !result) {
            return result.error();
        }
    }
    for (size_t i = 0; i < count; ++i) {
        auto watch = loop.onExit(
            m_started.pids[i], [this, i](Exit const& exit) { end(i, exit); }, getOptions());
        if (!watch) {
            return watch.error();
        }
        m_programs[i] = std::move(*watch);
    }
    return {};
}

Result<> JobSource::watchStream(Loop& loop, size_t stream) {
    int const fd = m_started.streams.get(stream);
    if (fd < 0) {
        return {};
    }
    auto callback = [this, stream] { serve(stream); };
    auto watch = stream == 0 ? loop.onWritable(fd, std::move(callback), getOptions())
                             : loop.onReadable(fd, std::move(callback), getOptions());
    if (!watch) {
        return watch.error();
    }
    m_watches[stream] = std::move(*watch);
    ++m_left;
    return {};
}

void JobSource::end(size_t index, Exit const& exit) {
    std::unique_lock<std::mutex> held(m_mutex);
    m_exits[index] = exit;
    KeptChildren::release(exit.pid);
    finish(std::move(held));
}

void JobSource::serve(size_t stream) {
    std::unique_lock<std::mutex> held(m_mutex);
    Streams& streams = m_started.streams;
    if (streams.get(stream) < 0) {
        return;
    }
    Source* const watched = m_watches[stream].m_source.get();
    if (watched != nullptr && !streams.serve(stream, m_output)) {
        // Over before its descriptor is closed. The watch stays, so that the destructor waits for this call.
        getCore().finish(*watched);
        streams.m_ends[stream].close();
        finish(std::move(held));
    }
}

/// Counts one part that is done. Calls the user after the last one, when this object may be destroyed.
void JobSource::finish(std::unique_lock<std::mutex> held) {
    if (--m_left > 0) {
        return;
    }
    static_cast<Exit&>(m_output) = m_exits.back();
    m_output.upstream.assign(m_exits.begin(), m_exits.end() - 1);
    Callback<void(Output)> callback = std::move(m_callback);
    Output output = std::move(m_output);
    held.unlock();
    if (getCore().finish(*this)) {
        callback(std::move(output));
    }
}

int JobSource::signal(int number) noexcept {
    std::lock_guard<std::mutex> const held(m_mutex);
    return m_programs.empty() || m_programs.back().m_source == nullptr
        ? ESRCH
        : getCore().signal(*m_programs.back().m_source, m_started.pids.back(), number);
}

} // namespace detail

Result<Process> Loop::start(Command const& command, Callback<void(Output)> callback, Options options) {
    if (int const error = m_core->getState()) {
        return makeError(SOURCE, error, LoopErrorId::NOT_CREATED);
    }
    return withoutThrowing(SOURCE, [&]() -> Result<Process> {
        Result<Started> started = Start::run(command);
        if (!started) {
            return started.error();
        }
        auto const job =
            std::make_shared<JobSource>(m_core, options, std::move(*started), std::move(callback));
        m_core->attach(*job);
        Process process(job, job->getPid());
        if (Result<> const result = job->begin(*this); !result) {
            return result.error();
        }
        Start::giveEnds(job->getStreams(), process);
        return process;
    });
}

Result<> Process::kill(int signal) {
    int const error = m_source == nullptr ? ESRCH : static_cast<JobSource&>(*m_source).signal(signal);
    if (error != 0) {
        return makeError(SOURCE, error, LoopErrorId::CHILD_REFUSED, static_cast<int>(m_pid));
    }
    return {};
}

} // namespace vesk::loop
