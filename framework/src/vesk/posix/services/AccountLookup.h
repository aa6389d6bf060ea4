#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <unistd.h>

namespace vesk::detail {

/// Looks up an entry of the user or group database and extracts an answer from it.
/// @tparam Entry   `passwd` or `group`
/// @param advice   the `sysconf` name of the suggested buffer size
/// @param nothing  the answer if there is no entry, or no memory for it
/// @param call     makes the reentrant lookup with an entry, a buffer, its size, and a pointer that receives
///                 the entry found
/// @param take     copies the answer out of the entry; the texts of the entry are in the buffer
template <typename Entry, typename Answer, typename Call, typename Take>
Answer lookUpAccount(int advice, Answer nothing, Call call, Take take) {
    struct Freer {
        void operator()(char* memory) const noexcept { free(memory); }
    };
    long const advised = sysconf(advice);
    // The suggested size is not a limit: an entry may be larger.
    for (size_t size = advised == -1 ? 256 : static_cast<size_t>(advised);; size *= 2) {
        std::unique_ptr<char, Freer> const buffer(static_cast<char*>(malloc(size)));
        if (buffer == nullptr) {
            return nothing;
        }
        Entry entry;
        Entry* found = nullptr;
        int const error = call(&entry, buffer.get(), size, &found);
        if (error == ERANGE) {
            continue;
        }
        return found != nullptr ? take(*found) : nothing;
    }
}

/// Returns the name of a user or group; `BAD_NAME` if there is none.
///
/// A database has the types `Entry` of an entry and `Id` of the system's ids, the constant `ADVICE`, and the
/// functions `findId` and `findName`, the system's reentrant lookups, and `getId` and `getName` of an entry.
template <typename Database, typename Account>
std::string findName(long long id) {
    using Entry = typename Database::Entry;
    using Id = typename Database::Id;
    // Truncated to the system's type, it would be the id of another account.
    if (id < 0 || id > std::numeric_limits<Id>::max()) {
        return Account::BAD_NAME;
    }
    return lookUpAccount<Entry>(
        Database::ADVICE, Account::BAD_NAME,
        [id](Entry* entry, char* buffer, size_t size, Entry** found) {
            return Database::findId(static_cast<Id>(id), entry, buffer, size, found);
        },
        [](Entry const& entry) { return std::string(Database::getName(entry)); });
}

/// Returns the id of a user or group; `BAD_ID` if there is none of this name.
template <typename Database, typename Account>
long long findId(std::string const& name) {
    using Entry = typename Database::Entry;
    return lookUpAccount<Entry>(
        Database::ADVICE, static_cast<long long>(Account::BAD_ID),
        [&name](Entry* entry, char* buffer, size_t size, Entry** found) {
            return Database::findName(name.c_str(), entry, buffer, size, found);
        },
        [](Entry const& entry) { return static_cast<long long>(Database::getId(entry)); });
}

} // namespace vesk::detail
