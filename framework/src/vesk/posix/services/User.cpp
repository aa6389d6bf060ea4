#include <vesk/User.h>

#include "AccountLookup.h"

#include <limits>
#include <pwd.h>
#include <sys/types.h>

namespace vesk {

// Initialized before all other static objects: their initializers may create a `User`.
__attribute__((init_priority(101))) std::string const User::BAD_NAME;

long long User::getId() const {
    if (!id_known) {
        id = name2id(name);
        id_known = true;
    }
    return id;
}

std::string const& User::getName() const {
    if (!name_known) {
        name = id2name(id);
        name_known = true;
    }
    return name;
}

std::string User::id2name(long long id) {
    // Truncated to `uid_t`, it would be the id of another user.
    if (id < 0 || id > std::numeric_limits<uid_t>::max()) {
        return BAD_NAME;
    }
    return detail::lookUpAccount<passwd>(
        _SC_GETPW_R_SIZE_MAX, BAD_NAME,
        [id](passwd* entry, char* buffer, size_t size, passwd** found) {
            return getpwuid_r(static_cast<uid_t>(id), entry, buffer, size, found);
        },
        [](passwd const& entry) { return std::string(entry.pw_name); });
}

long long User::name2id(std::string const& name) {
    return detail::lookUpAccount<passwd>(
        _SC_GETPW_R_SIZE_MAX, BAD_ID,
        [&name](passwd* entry, char* buffer, size_t size, passwd** found) {
            return getpwnam_r(name.c_str(), entry, buffer, size, found);
        },
        [](passwd const& entry) { return static_cast<long long>(entry.pw_uid); });
}

} // namespace vesk
