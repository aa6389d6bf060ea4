#pragma once

#include "Services.h"

#include <vesk/loop/Command.h>
#include <vesk/loop/Loop.h>

#include <optional>
#include <string>

namespace supervisor {

/// One supervised program, with everything that it starts: they are one process group.
///
/// | state | meaning | next |
/// |---|---|---|
/// | STOPPED | not wanted | RUNNING by `start` |
/// | RUNNING | wanted, and there | BACKING_OFF at its end, STOPPING by `stop` |
/// | BACKING_OFF | wanted, but it ended or did not start | RUNNING after the pause |
/// | STOPPING | still there | at its end, which a signal forces after 5 s: STOPPED, RUNNING if it is wanted again |
class Service : public AnyService {
public:
    Service(vesk::loop::Loop& loop, std::string name, ServiceConfig config, std::function<void()> stopped);
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;
    ~Service() override;

    void start() override;
    /// `SIGTERM`, and `SIGKILL` after 5 s.
    void stop() override;
    bool isStopped() const override { return m_state == State::STOPPED; }
    void change(ServiceConfig config) override;

    ServiceConfig const& config() const override { return m_config; }
    std::string status() const override;

private:
    enum class State { STOPPED, RUNNING, BACKING_OFF, STOPPING };

    vesk::loop::Command command() const;
    void ended(vesk::loop::Exit const& exit);
    void backOff();
    void signalGroup(int signal) const;
    void log(std::string const& text) const;

    vesk::loop::Loop& m_loop;
    std::string m_name;
    ServiceConfig m_config;
    State m_state = State::STOPPED;
    std::optional<vesk::loop::Process> m_process;
    vesk::loop::Timer m_pause;    ///< Until the next start.
    vesk::loop::Timer m_patience; ///< Until `SIGKILL`.
    vesk::loop::Clock::duration m_next_pause;
    vesk::loop::Clock::time_point m_started;
    std::function<void()> m_stopped;
    bool m_is_wanted = false;
    unsigned int m_restarts = 0;
    std::string m_last_end = "-";
};

} // namespace supervisor
