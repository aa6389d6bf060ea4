#pragma once

#include "vesk/common/Report.h"

#include <tarncommon/error/ErrorType.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace vesk::detail {

/// What a failed call means for the operation that made it.
enum class Outcome : signed char {
    FAILED = -1, ///< The operation fails.
    DONE = 0,    ///< It succeeds all the same.
    NOT_NOW = 1, ///< Busy or timed out, an ordinary answer.
    REPEAT = 2,  ///< The call is to be made again.
};

/// The numbers that share a row of a table. Empty stands for all that no row above has.
struct Errnos {
    short numbers[16] = {};

    constexpr bool has(int error) const noexcept {
        for (short const number : numbers) {
            if (number == error && error != 0) {
                return true;
            }
        }
        return numbers[0] == 0;
    }
};

constexpr Errnos OTHERS{};

/// What a cause tells.
enum class Telling {
    SYSTEM_TEXT,     ///< The system's text for the number.
    NAME_AND_LENGTH, ///< What the call was made on, and how long that is.
};

/// One report that a row makes; without a family it makes none.
struct RowReport {
    std::ErrorType const* family = nullptr;
    int id = 0;
    Telling telling = Telling::SYSTEM_TEXT;

    constexpr RowReport() noexcept = default;
    constexpr RowReport(
        std::ErrorType const& row_family, int row_id, Telling row_telling = Telling::SYSTEM_TEXT) noexcept
        : family(&row_family), id(row_id), telling(row_telling) {}

    /// The enumeration of the id implies the family.
    template <typename Id, typename = decltype(familyOf(std::declval<Id>()))>
    constexpr RowReport(Id row_id, Telling row_telling = Telling::SYSTEM_TEXT) noexcept
        : RowReport(familyOf(row_id), static_cast<int>(row_id), row_telling) {}
};

constexpr RowReport NONE{};

/// One row of an operation's errno table: which numbers, the report of the cause, a report on top of it, the outcome.
/// The tables stand beside their operations, in the order in which the operation's documentation tells them:
///
///     constexpr ErrnoRow LOCK_ERRORS[] = {
///         {{EPERM, EBUSY, EINVAL, EDEADLK}, Mutex::ErrorId::INCONSISTENT},
///         {OTHERS, Mutex::ErrorId::LOCK_FAILED},
///     };
struct ErrnoRow {
    Errnos errnos;
    RowReport cause;
    RowReport on_top = {};
    Outcome outcome = Outcome::FAILED;
    char const* further = nullptr; ///< An argument of the cause behind the system's text.
};

/// A view of a table, so that any `constexpr` array of rows can be handed over as it stands.
struct ErrnoTable {
    template <size_t N>
    constexpr ErrnoTable(ErrnoRow const (&table)[N]) noexcept : rows(table), count(N) {}

    ErrnoRow const* rows;
    size_t count;
};

/// Walks a table to the row of `error`, makes its reports and gives its outcome. The cause takes the system's text and
/// opens a chain, unless `chain` says otherwise; the report on top of it takes `detail`, for example a path. A number
/// that no row has gives `FAILED` without a report, which only an incomplete table lets happen.
Outcome classify(
    Place place, ErrnoTable table, int error, char const* detail = nullptr,
    Chain chain = Chain::NEW) noexcept;

/// The same for a call that returned its number, as the `pthread_*` functions do: the number goes into `errno` first,
/// where callers look for what a report's text was made of.
Outcome classifyResult(Place place, ErrnoTable table, int error) noexcept;

/// Makes a system call that reports through `errno` until a signal does not interrupt it.
template <typename Call>
auto retryOnEintr(Call&& call) noexcept(noexcept(call())) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

} // namespace vesk::detail
