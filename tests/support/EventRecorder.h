#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>

#include <mutex>
#include <string>
#include <vector>

namespace support {

/// One event of `std::GlobalErrorHandler`, with texts of its own.
struct RecordedEvent {
    std::GlobalErrorHandler::Kind kind{};
    std::string expression;
    std::string file;
    int line = 0;
    std::string function;
    std::string message;
};

/// Records every event of `std::GlobalErrorHandler` while it lives, and keeps the default actions from running: an abort
/// returns, and the code behind it goes on.
class EventRecorder {
public:
    EventRecorder();
    ~EventRecorder();

    EventRecorder(EventRecorder const&) = delete;
    EventRecorder& operator=(EventRecorder const&) = delete;

    /// What happened so far, in order.
    std::vector<RecordedEvent> getEvents() const;
    size_t getCount() const { return getEvents().size(); }

    /// The events as one text, a line each: "ABORT framework/src/vesk/posix/Condition signal: error locking". An
    /// assertion shows its expression, then its message.
    std::string getText() const;

private:
    mutable std::mutex m_mutex;
    std::vector<RecordedEvent> m_events;
    std::GlobalErrorHandler::Hook m_hook;
    std::GlobalErrorHandler::Hook const* m_previous;
};

} // namespace support
