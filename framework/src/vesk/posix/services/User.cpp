#include <vesk/User.h>

#include "AccountLookup.h"

#include <pwd.h>
#include <sys/types.h>

namespace vesk {

namespace {

struct Users {
    using Entry = passwd;
    using Id = uid_t;
    static constexpr int ADVICE = _SC_GETPW_R_SIZE_MAX;
    static constexpr auto findId = getpwuid_r;
    static constexpr auto findName = getpwnam_r;
    static Id getId(Entry const& entry) noexcept { return entry.pw_uid; }
    static char const* getName(Entry const& entry) noexcept { return entry.pw_name; }
};

} // namespace

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
    return detail::findName<Users, User>(id);
}

long long User::name2id(std::string const& name) {
    return detail::findId<Users, User>(name);
}

} // namespace vesk
