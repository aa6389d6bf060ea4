#pragma once

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <mutex>
#include <string>
#include <vector>

namespace support {

/// A copy of one event of `std::GlobalErrorHandler`, which owns its texts.
struct RecordedEvent {
    std::GlobalErrorHandler::Kind kind{};
    std::string expression;
    std::string file;
    int line = 0;
    std::string function;
    std::string message;
};

/// Records every event of `std::GlobalErrorHandler` during its lifetime and suppresses the default actions:
/// an abort returns, and the code after it continues.
class EventRecorder : tarnbase::NonCopyable {
public:
    EventRecorder();
    ~EventRecorder();

    /// Returns the events so far, in order.
    std::vector<RecordedEvent> getEvents() const;
    size_t getCount() const { return getEvents().size(); }

    /// Returns the events as one text, one line per event: "ABORT framework/src/vesk/posix/Condition signal:
    /// error locking". The line of an assertion has its expression, then its message.
    std::string getText() const;

private:
    mutable std::mutex m_mutex;
    std::vector<RecordedEvent> m_events;
    std::GlobalErrorHandler::Hook m_hook;
    std::GlobalErrorHandler::Hook const* m_previous;
};

} // namespace support
