#include "Service.h"

#include <vesk/Environment.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <utility>

namespace supervisor {

namespace {

constexpr unsigned int FIRST_PAUSE_MS = 100;
constexpr unsigned int LONGEST_PAUSE_MS = 10000;
constexpr unsigned int PATIENCE_MS = 5000;
constexpr std::chrono::seconds STABLE(5); ///< A program that ran longer is started without a long pause.

/// Returns the environment of this process with the changes of a service.
std::vector<std::pair<std::string, std::string>> environmentOf(ServiceConfig const& config) {
    std::map<std::string, std::string> variables = config.env;
    for (std::string const variable : vesk::Environment()) {
        size_t const equals = variable.find('=');
        variables.emplace(variable.substr(0, equals), variable.substr(equals + 1)); // Does not replace.
    }
    return {variables.begin(), variables.end()};
}

/// Returns the command of a service. A shell changes the folder, as `ProcessTNG` does not.
std::vector<std::string> commandOf(ServiceConfig const& config) {
    std::vector<std::string> words = config.command;
    if (!config.folder.empty()) {
        words.insert(words.begin(), {"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", config.folder});
    }
    return words;
}

} // namespace

Service::Service(
    vesk::Message::Sink& queue, std::string name, ServiceConfig config, std::function<void()> stopped)
    : m_queue(queue),
      m_name(std::move(name)),
      m_config(std::move(config)),
      m_next_pause_ms(FIRST_PAUSE_MS),
      m_stopped(std::move(stopped)),
      m_delay(queue) {
    m_process.setNewGroup(true);
    m_process.setStdinFile("/dev/null");
    m_process.setExitListener(this);
}

Service::~Service() {
    static_cast<void>(m_process.kill(false)); // Its destructor waits for the end.
    // The message that destroys this object may be carried out before `push` has returned, and the queue may end next.
    vesk::MutexLock const pushed(m_pushing);
}

bool Service::startProcess() {
    std::vector<std::string> const words = commandOf(m_config);
    m_process.setArguments({words.begin() + 1, words.end()});
    m_process.setEnvironment(environmentOf(m_config));
    m_process.setStdoutFile(m_config.log, true);
    m_process.setStderrFile(m_config.log, true);
    return m_process.setExecutable(words.front()) ||
        (m_pid = m_process.start()) == vesk::ProcessTNG::INVALID_PROCESS_ID;
}

void Service::start() {
    m_is_wanted = true;
    if (m_state != State::STOPPED && m_state != State::BACKING_OFF) {
        return;
    }
    m_started = std::chrono::steady_clock::now();
    if (startProcess()) {
        log("cannot be started: " + tarn_error.getReasonList());
        std::ErrorStorage::ack();
        m_last_end = "not-started";
        backOff();
        return;
    }
    enter(State::RUNNING);
    log("started as " + std::to_string(m_pid));
}

/// Called by the thread that reaps the children.
void Service::processExited(vesk::ProcessTNG::ExitState const* state) {
    vesk::MutexLock const pushing(m_pushing);
    // A weak pointer: the message is carried out later, and this object may be gone by then.
    m_queue.push(
        new examples::Call([weak = weak_from_this(), was_killed = state->killed, status = state->status] {
            if (auto const service = weak.lock()) {
                service->ended(was_killed, status);
            }
        }));
}

void Service::ended(bool was_killed, int status) {
    // What the program has started and left behind ends with it.
    ::kill(-m_pid, SIGKILL);
    m_pid = vesk::ProcessTNG::INVALID_PROCESS_ID;
    m_last_end = (was_killed ? "signal-" : "code-") + std::to_string(status);
    log("ended with " + m_last_end);
    if (m_state == State::STOPPING) {
        enter(State::STOPPED);
        m_is_wanted ? start() : m_stopped();
        return;
    }
    if (std::chrono::steady_clock::now() - m_started > STABLE) {
        m_next_pause_ms = FIRST_PAUSE_MS;
    }
    backOff();
}

void Service::enter(State state) {
    m_state = state;
    ++m_epoch;
    static_cast<void>(m_delay.stop());
}

/// Enters a state, and leaves it later unless another one was entered before.
void Service::enter(State state, unsigned int ms, void (Service::*then)()) {
    enter(state);
    // The epoch: stopping the timer does not take back a message that it has pushed.
    bool const failed = m_delay.begin(ms, [weak = weak_from_this(), epoch = m_epoch, then] {
        auto const service = weak.lock();
        if (service && service->m_epoch == epoch) {
            (service.get()->*then)();
        }
    });
    static_cast<void>(failed); // Only for a time of 0.
}

void Service::backOff() {
    enter(State::BACKING_OFF, m_next_pause_ms, &Service::restart);
    m_next_pause_ms = std::min(2 * m_next_pause_ms, LONGEST_PAUSE_MS);
}

void Service::restart() {
    ++m_restarts;
    start();
}

void Service::forceEnd() {
    log("does not end: SIGKILL");
    static_cast<void>(m_process.kill(false));
}

void Service::stop() {
    m_is_wanted = false;
    if (m_state == State::BACKING_OFF) {
        enter(State::STOPPED);
        m_stopped();
    } else if (m_state == State::RUNNING) {
        enter(State::STOPPING, PATIENCE_MS, &Service::forceEnd);
        static_cast<void>(m_process.kill(true)); // It may have ended: its message is on the way then.
        std::ErrorStorage::ack();
    }
}

void Service::change(ServiceConfig config) {
    m_config = std::move(config);
    m_next_pause_ms = FIRST_PAUSE_MS;
    if (m_is_wanted) {
        stop();
        start();
    }
}

std::string Service::status() const {
    constexpr char const* STATES[] = {"stopped", "running", "backing-off", "stopping"};
    return m_name + " " + (m_config.group.empty() ? "-" : m_config.group) + " " +
        STATES[static_cast<unsigned int>(m_state)] + " " +
        (m_pid == vesk::ProcessTNG::INVALID_PROCESS_ID ? "-" : std::to_string(m_pid)) + " " +
        std::to_string(m_restarts) + " " + m_last_end;
}

void Service::log(std::string const& text) const {
    std::cout << m_name << ": " << text << std::endl;
}

} // namespace supervisor
