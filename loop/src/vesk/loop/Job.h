#pragma once

#include "Source.h"
#include "Start.h"

#include <mutex>
#include <vector>

namespace vesk::loop::detail {

/// The programs of a `Process`. It is made of watches: one for each program, and one for each stream that is served.
/// They call from the loop's thread while the starting thread may still be adding them.
class JobSource final : public Source {
public:
    JobSource(std::shared_ptr<Core> core, Options options, Started started, Callback<void(Output)> callback)
        : Source(std::move(core), options),
          m_left(started.pids.size()),
          m_started(std::move(started)),
          m_callback(std::move(callback)) {}
    ~JobSource() override;

    void detach() noexcept override {}
    void fire() override {}

    /// Adds the watches. Returns why one was refused.
    Result<> begin(Loop& loop);
    /// Returns `errno`, 0 on success.
    int signal(int number) noexcept;
    pid_t getPid() const noexcept { return m_started.pids.back(); }
    Streams& getStreams() noexcept { return m_started.streams; }

private:
    Result<> watchStream(Loop& loop, size_t stream);
    void end(size_t index, Exit const& exit);
    void serve(size_t stream);
    void finish(std::unique_lock<std::mutex> held);

    std::mutex m_mutex;
    size_t m_left; ///< Programs that run, and streams that are served.
    Started m_started;
    Output m_output;
    Callback<void(Output)> m_callback;
    std::vector<Exit> m_exits;
    // The first to be destroyed: their callbacks use the other members.
    std::vector<Watch> m_programs;
    Watch m_watches[Streams::COUNT];
};

} // namespace vesk::loop::detail
