#pragma once

#include "FamilyIndex.h"

#include "vesk/common/Report.h"

#include <tarncommon/error/ErrorType.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace vesk::detail {

/// The meaning of a failed call for the operation that made it.
enum class Outcome : unsigned char {
    FAILED,  ///< The operation fails.
    DONE,    ///< It succeeds despite the failed call.
    BUSY,    ///< Not now: the object is in use, or the time has expired. A regular result.
    ABSENT,  ///< The object does not exist. A regular result.
    INHERIT, ///< The settings of the caller apply instead.
    REPEAT,  ///< The call must be repeated.
};

/// Returns the result of an operation with three results: -1 failure, 0 success, 1 busy or absent.
constexpr signed char toResult(Outcome outcome) noexcept {
    switch (outcome) {
    case Outcome::DONE:
        return 0;
    case Outcome::BUSY:
    case Outcome::ABSENT:
        return 1;
    default:
        return -1;
    }
}

// Rows contain no addresses. The tables are then read-only data that the loader need not touch. With addresses
// in it, each row would cost a relocation, and its page would be copied for each process.

/// The error numbers that share a row of a table. An empty list matches all numbers that no row above
/// matches.
template <typename Number, size_t CAPACITY>
struct ErrorNumbers {
    Number numbers[CAPACITY] = {};

    constexpr bool has(int error) const noexcept {
        for (Number const number : numbers) {
            if (number == 0) {
                break;
            }
            if (number == error) {
                return true;
            }
        }
        return numbers[0] == 0;
    }
};
// One byte where it is enough. MIPS has the largest number: EDQUOT is 1133 there.
using Errno = std::conditional_t<(EDQUOT > UCHAR_MAX), unsigned short, unsigned char>;
using Errnos = ErrorNumbers<Errno, 15>;

constexpr Errnos OTHERS{};

/// The arguments of the report of a cause.
enum class Telling : unsigned char {
    SYSTEM_TEXT,     ///< The system's text for the number.
    NAME_AND_LENGTH, ///< The name of the object that the call was made on, and the length of the name.
};

/// A second argument of the cause, after the system's text.
enum class Further : unsigned char {
    NOTHING,
    OFFSET_TOO_LARGE,         ///< "file-offset is too large"
    OFFSET_OR_SIZE_TOO_LARGE, ///< "file-offset is too large or file is too big in general"
};

/// One report that a row makes. Without a family the row makes no report.
class RowReport {
public:
    constexpr RowReport() noexcept = default;

    /// Takes the family from the enumeration of the id.
    template <typename Id, typename = decltype(familyIndexOf(std::declval<Id>()))>
    constexpr RowReport(Id id, Telling telling = Telling::SYSTEM_TEXT) noexcept
        : m_family(familyIndexOf(id)), m_id(static_cast<unsigned char>(id)), m_telling(telling) {}

    constexpr bool exists() const noexcept { return m_family != FamilyIndex::NONE; }
    std::ErrorType const& getFamily() const noexcept;
    constexpr int getId() const noexcept { return m_id; }
    constexpr Telling getTelling() const noexcept { return m_telling; }

private:
    FamilyIndex m_family = FamilyIndex::NONE;
    unsigned char m_id = 0;
    Telling m_telling = Telling::SYSTEM_TEXT;
};

constexpr RowReport NONE{};

/// One row of an operation's errno table: the numbers, the report of the cause, a report on top of it, and
/// the outcome. A table stands beside its operation, in the order of the operation's documentation:
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
    Further further = Further::NOTHING;
};
static_assert(alignof(ErrnoRow) == sizeof(Errno));

/// A view of a table. Any `constexpr` array of rows converts to it.
struct ErrnoTable {
    template <size_t N>
    constexpr ErrnoTable(ErrnoRow const (&table)[N]) noexcept : rows(table), count(N) {}

    ErrnoRow const* rows;
    size_t count;
};

/// Searches a table for the row of `error`, makes the row's reports and returns its outcome. The report of
/// the cause takes the system's text as its argument, and opens a chain unless `chain` says otherwise. The
/// report on top of it takes `detail`, for example a path. A number that no row matches gives `FAILED`
/// without a report; only an incomplete table allows that.
Outcome classify(
    Place place, ErrnoTable table, int error, char const* detail = nullptr,
    Chain chain = Chain::NEW) noexcept;

/// Classifies the result of a call that returned its error number, as the `pthread_*` functions do. Stores
/// the number in `errno` first. Required by callers: they read `errno` after a report.
Outcome classifyResult(Place place, ErrnoTable table, int error) noexcept;

/// Makes a system call that sets `errno`, and repeats it as long as a signal interrupts it.
/// @param failed  the result of a failed call
template <typename Call, typename Result = decltype(std::declval<Call>()())>
Result retryOnEintr(Call&& call, Result failed = static_cast<Result>(-1)) noexcept(noexcept(call())) {
    Result result;
    do {
        result = call();
    } while (result == failed && errno == EINTR);
    return result;
}

} // namespace vesk::detail
