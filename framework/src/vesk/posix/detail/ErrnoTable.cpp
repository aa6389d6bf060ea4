#include "ErrnoTable.h"

#include "SystemErrorText.h"

#include <vesk/CalendarTime.h>
#include <vesk/Condition.h>
#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>
#include <vesk/RWLock.h>
#include <vesk/Socket.h>
#include <vesk/SpinLock.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <cstring>

namespace vesk::detail {

namespace {

/// In the order of `FamilyIndex`.
constexpr std::ErrorType const* FAMILIES[] = {
    nullptr,
    &SysError,
    &FileAccessError,
    &std::CommonError,
    &std::IBinStreamBase::StreamError,
    &Socket::Error,
    &Mutex::Error,
    &Condition::Error,
    &RWLock::Error,
    &SpinLock::Error,
    &Thread::Error,
    &Time::Error,
    &CalendarTime::Error,
    &ProcessTNG::Error,
    &Vesk::Error,
};
static_assert(std::size(FAMILIES) == static_cast<size_t>(FamilyIndex::VESK) + 1);

/// In the order of `Further`.
constexpr char const* FURTHER_TEXTS[] = {
    nullptr,
    "file-offset is too large",
    "file-offset is too large or file is too big in general",
};

template <typename... Args>
void reportRow(Place place, Chain chain, RowReport row, Args const&... args) noexcept {
    report(place, chain, row.getFamily(), row.getId(), args...);
}

} // namespace

std::ErrorType const& RowReport::getFamily() const noexcept {
    return *FAMILIES[static_cast<size_t>(m_family)];
}

Outcome classify(Place place, ErrnoTable table, int error, char const* detail, Chain chain) noexcept {
    // LCOV_EXCL_BR_LINE: the last row of each table matches all numbers
    for (size_t i = 0; i < table.count; ++i) {
        ErrnoRow const& row = table.rows[i];
        if (!row.errnos.has(error)) {
            continue;
        }
        if (row.cause.getTelling() == Telling::NAME_AND_LENGTH && detail != nullptr) {
            reportRow(place, chain, row.cause, detail, static_cast<int>(strlen(detail)));
        } else if (row.further != Further::NOTHING) {
            char const* const further = FURTHER_TEXTS[static_cast<size_t>(row.further)];
            reportRow(place, chain, row.cause, SystemErrorText(error).get(), further);
        } else if (row.cause.exists()) {
            reportRow(place, chain, row.cause, SystemErrorText(error).get());
        }
        if (row.on_top.exists()) {
            reportRow(place, Chain::ON_TOP, row.on_top, detail);
        }
        return row.outcome;
    }
    return Outcome::FAILED; // LCOV_EXCL_LINE: the last row of each table matches all numbers
}

Outcome classifyResult(Place place, ErrnoTable table, int error) noexcept {
    errno = error;
    return classify(place, table, error);
}

} // namespace vesk::detail
