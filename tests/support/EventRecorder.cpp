#include "support/EventRecorder.h"

namespace support {

using Handler = std::GlobalErrorHandler;

EventRecorder::EventRecorder() :
    m_hook{
        [](Handler::Event const& event, void* context) {
            auto& recorder = *static_cast<EventRecorder*>(context);
            std::lock_guard<std::mutex> const guard(recorder.m_mutex);
            recorder.m_events.push_back(
                {event.kind, event.expression != nullptr ? event.expression : "", event.file, event.line,
                 event.function, event.message});
            return true;
        },
        this},
    m_previous(Handler::setHook(&m_hook)) {}

EventRecorder::~EventRecorder() {
    Handler::setHook(m_previous);
}

std::vector<RecordedEvent> EventRecorder::getEvents() const {
    std::lock_guard<std::mutex> const guard(m_mutex);
    return m_events;
}

std::string EventRecorder::getText() const {
    std::string text;
    for (RecordedEvent const& event : getEvents()) {
        char const* const kind = event.kind == Handler::Kind::ASSERT ? "ASSERT "
            : event.kind == Handler::Kind::ABORT                     ? "ABORT "
            : event.kind == Handler::Kind::WARNING                   ? "WARNING "
                                                                     : "OUT_OF_MEMORY ";
        text += text.empty() ? "" : "\n";
        text += kind + event.file + " " + event.function + ": " + event.expression;
        text += event.expression.empty() || event.message.empty() ? "" : ": ";
        text += event.message;
    }
    return text;
}

} // namespace support
