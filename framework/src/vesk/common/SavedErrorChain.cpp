#include <vesk/SavedErrorChain.h>

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

namespace vesk {

SavedErrorChain::SavedErrorChain() noexcept {
    if (!std::ErrorStorage::isError(false)) {
        return;
    }
    for (std::ErrorObject const* report = std::ErrorStorage::get(); report != nullptr && m_count < CAPACITY;
         report = report->next) {
        m_reports[m_count] = *report;
        if (m_count > 0) {
            m_reports[m_count - 1].next = &m_reports[m_count];
        }
        ++m_count;
    }
    std::ErrorStorage::ack();
}

void SavedErrorChain::restore() const noexcept {
    for (unsigned int i = m_count; i-- > 0;) {
        std::ErrorObject const& report = m_reports[i];
        std::ErrorOutput(report.file, report.line, i + 1 == m_count)(report);
    }
}

} // namespace vesk
