#pragma once

#include "Call.h"
#include "Services.h"

#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>

#include <chrono>
#include <functional>
#include <memory>
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
///
/// All operations are for the thread of the queue. The library calls back in threads of its own: what happens there is
/// only to push a message.
class Service : public AnyService,
                public std::enable_shared_from_this<Service>,
                private vesk::ProcessTNG::ExitListener {
public:
    Service(
        vesk::Message::Sink& queue, std::string name, ServiceConfig config, std::function<void()> stopped);
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

    [[nodiscard]] bool startProcess();
    void processExited(vesk::ProcessTNG::ExitState const* state) override;
    void ended(bool was_killed, int status);
    void enter(State state);
    void enter(State state, unsigned int ms, void (Service::*then)());
    void backOff();
    void restart();
    void forceEnd();
    void log(std::string const& text) const;

    vesk::Message::Sink& m_queue;
    vesk::Mutex m_pushing; ///< Held while the collector pushes.
    std::string m_name;
    ServiceConfig m_config;
    State m_state = State::STOPPED;
    unsigned int m_epoch = 0; ///< The number of states entered.
    unsigned int m_next_pause_ms;
    std::chrono::steady_clock::time_point m_started;
    std::function<void()> m_stopped;
    bool m_is_wanted = false;
    unsigned int m_restarts = 0;
    std::string m_last_end = "-";
    int m_pid = vesk::ProcessTNG::INVALID_PROCESS_ID;
    examples::Delay m_delay; ///< Until the next start, or until `SIGKILL`.
    vesk::ProcessTNG m_process;
};

} // namespace supervisor
