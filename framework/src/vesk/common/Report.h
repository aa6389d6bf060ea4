#pragma once

#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <utility>

namespace vesk::detail {

/// The place of a report: the `SOURCE` constant of its file, which converts implicitly, and the line of the
/// call.
struct Place {
    constexpr Place(char const* source, int source_line = __builtin_LINE()) noexcept
        : file(source), line(source_line) {}

    char const* file;
    int line;
};

/// How a report joins the calling thread's chain.
enum class Chain {
    NEW,     ///< It is the root cause of a new chain.
    ON_TOP,  ///< It is one level above the report of a call of this library.
    UNKNOWN, ///< A lower level may or may not have reported.
};

/// Makes a report of a row that is known only at run time.
template <typename... Args>
void report(Place place, Chain chain, std::ErrorType const& family, int id, Args const&... args) noexcept {
    bool const new_chain =
        chain == Chain::NEW || (chain == Chain::UNKNOWN && !std::ErrorStorage::isError(true));
    std::ErrorOutput(place.file, place.line, new_chain)(family, id, args...);
}

/// Makes a report of a named row, the usual form in this library. The enumeration of the id implies the
/// family:
///
///     report(SOURCE, Chain::NEW, Mutex::ErrorId::LOCK_FAILED, SystemErrorText().get());
template <typename Id, typename... Args, typename = decltype(familyOf(std::declval<Id>()))>
void report(Place place, Chain chain, Id id, Args const&... args) noexcept {
    report(place, chain, familyOf(id), static_cast<int>(id), args...);
}

} // namespace vesk::detail
