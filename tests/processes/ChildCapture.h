#pragma once

#include "processes/ProcessSupport.h"

#include <tarncommon/error/ErrorApi.h>

#include <regex>

/// Runs an object in a separate process, which captures the output that its child inherits.
namespace support {

struct Capture {
    /// Replaces "PROGRAM", "PID" and "FD" in a text by the path, the id and a descriptor of the child.
    std::string fill(std::string text, int fd = -1) const {
        std::pair<char const*, std::string> const values[] = {
            {"PROGRAM", program}, {"PID", std::to_string(pid)}, {"FD", std::to_string(fd)}};
        for (auto const& [name, value] : values) {
            text = std::regex_replace(text, std::regex(name), value);
        }
        return text;
    }

    int pid = -1;        ///< The result of `start`.
    bool killed = false; ///< The end of the child.
    int status = -1;
    std::string output; ///< Everything written to standard output.
    std::string errors; ///< Everything written to standard error.
    std::string program = getProbePath();
};

/// Starts the object's child and waits for its end.
using Go = std::function<void()>;

/// Sets an object to the probe with `say` and runs `body`, which must call its second argument once.
inline Capture capture(std::function<void(ProcessTNG& process, Go const& go)> const& body) {
    Capture result;
    ProcessPipe pipe(ProcessPipe::ChildGets::READ_END);
    ChildEnd const end = runInChild([&] {
        ProcessTNG process;
        setProbe(process, {"say", "out\n", "err\n"});
        body(process, [&] {
            int const pid = process.start();
            ExitState const state = waitFor(process);
            EXPECT_TRUE(state.hasExited());
            dprintf(pipe.getWriteEnd(), "%d %d %d", pid, state.killed ? 1 : 0, state.status);
        });
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    int killed = 0;
    EXPECT_EQ(3, sscanf(pipe.readAll().c_str(), "%d %d %d", &result.pid, &killed, &result.status));
    result.killed = killed != 0;
    result.output = end.output;
    result.errors = end.errors;
    return result;
}

/// Writes each event during its lifetime to standard error, with the pending reports or "nothing". An abort
/// returns.
class EventWriter {
public:
    EventWriter() : m_before(std::GlobalErrorHandler::setHook(&m_hook)) {}
    ~EventWriter() { std::GlobalErrorHandler::setHook(m_before); }
    EventWriter(EventWriter const&) = delete;
    EventWriter& operator=(EventWriter const&) = delete;

private:
    std::GlobalErrorHandler::Hook m_hook{
        [](std::GlobalErrorHandler::Event const& event, void*) {
            dprintf(
                STDERR_FILENO, "%s: %s\n", event.message,
                std::ErrorStorage::isError(true) ? tarn_error.getReasonList().c_str() : "nothing");
            return true;
        },
        nullptr};
    std::GlobalErrorHandler::Hook const* m_before;
};

inline vesk::sched::Attr makeAttributes(int policy, int priority, int nice) {
    vesk::sched::Attr attributes;
    attributes.policy = static_cast<vesk::sched::Policy_E>(policy);
    attributes.param.priority = priority;
    attributes.param.nice = nice;
    return attributes;
}

/// Captures a child of an object that `set` has set up.
inline Capture captureWith(std::function<void(ProcessTNG& process)> const& set) {
    return capture([&](ProcessTNG& process, Go const& go) {
        set(process);
        go();
    });
}

} // namespace support
