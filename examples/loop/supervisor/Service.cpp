#include "Service.h"

#include <csignal>
#include <iostream>
#include <utility>

namespace supervisor {

namespace {

using namespace std::chrono_literals;
using vesk::loop::Clock;
using vesk::loop::Command;
using vesk::loop::Stream;

constexpr Clock::duration FIRST_PAUSE = 100ms;
constexpr Clock::duration LONGEST_PAUSE = 10s;
constexpr Clock::duration STABLE = 5s; ///< A program that ran longer is started without a long pause.
constexpr Clock::duration PATIENCE = 5s;

} // namespace

Service::Service(
    vesk::loop::Loop& loop, std::string name, ServiceConfig config, std::function<void()> stopped)
    : m_loop(loop),
      m_name(std::move(name)),
      m_config(std::move(config)),
      m_next_pause(FIRST_PAUSE),
      m_stopped(std::move(stopped)) {}

Service::~Service() {
    signalGroup(SIGKILL);
}

Command Service::command() const {
    Command command(m_config.command.front());
    command.args({m_config.command.begin() + 1, m_config.command.end()}).in(Stream::null()).group();
    if (!m_config.log.empty()) {
        command.out(Stream::append(m_config.log)).err(Stream::sameAsOut());
    }
    if (!m_config.folder.empty()) {
        command.folder(m_config.folder);
    }
    for (auto const& [name, value] : m_config.env) {
        command.env(name, value);
    }
    return command;
}

void Service::start() {
    m_is_wanted = true;
    if (m_state != State::STOPPED && m_state != State::BACKING_OFF) {
        return;
    }
    m_pause.cancel();
    m_started = Clock::now();
    auto process = m_loop.start(command(), [this](vesk::loop::Output const& output) { ended(output); });
    if (!process) {
        log("cannot be started: " + process.error().text());
        m_last_end = "not-started";
        backOff();
        return;
    }
    m_process = std::move(*process);
    m_state = State::RUNNING;
    log("started as " + std::to_string(m_process->pid()));
}

void Service::ended(vesk::loop::Exit const& exit) {
    // What the program has started and left behind ends with it. The group keeps its number until then.
    signalGroup(SIGKILL);
    m_process.reset();
    m_patience.cancel();
    m_last_end =
        exit.signal != 0 ? "signal-" + std::to_string(exit.signal) : "code-" + std::to_string(exit.code);
    log("ended with " + m_last_end);
    if (m_state == State::STOPPING) {
        m_state = State::STOPPED;
        m_is_wanted ? start() : m_stopped();
        return;
    }
    if (Clock::now() - m_started > STABLE) {
        m_next_pause = FIRST_PAUSE;
    }
    backOff();
}

void Service::backOff() {
    m_state = State::BACKING_OFF;
    auto timer = m_loop.after(m_next_pause, [this] {
        ++m_restarts;
        start();
    });
    if (!timer) {
        log("cannot be restarted: " + timer.error().text());
        return;
    }
    m_pause = std::move(*timer);
    m_next_pause = std::min(2 * m_next_pause, LONGEST_PAUSE);
}

void Service::stop() {
    m_is_wanted = false;
    m_pause.cancel();
    if (m_state == State::BACKING_OFF) {
        m_state = State::STOPPED;
        m_stopped();
    }
    if (m_state != State::RUNNING) {
        return;
    }
    m_state = State::STOPPING;
    signalGroup(SIGTERM);
    auto timer = m_loop.after(PATIENCE, [this] {
        log("does not end: SIGKILL");
        signalGroup(SIGKILL);
    });
    if (!timer) {
        signalGroup(SIGKILL);
        return;
    }
    m_patience = std::move(*timer);
}

void Service::change(ServiceConfig config) {
    m_config = std::move(config);
    m_next_pause = FIRST_PAUSE;
    if (m_is_wanted) {
        stop();
        start();
    }
}

void Service::signalGroup(int signal) const {
    if (m_process) {
        ::kill(-m_process->pid(), signal);
    }
}

std::string Service::status() const {
    constexpr char const* STATES[] = {"stopped", "running", "backing-off", "stopping"};
    return m_name + " " + (m_config.group.empty() ? "-" : m_config.group) + " " +
        STATES[static_cast<unsigned int>(m_state)] + " " +
        (m_process ? std::to_string(m_process->pid()) : "-") + " " + std::to_string(m_restarts) + " " +
        m_last_end;
}

void Service::log(std::string const& text) const {
    std::cout << m_name << ": " << text << std::endl;
}

} // namespace supervisor
