#include <vesk/Group.h>

#include "AccountLookup.h"

#include <grp.h>
#include <sys/types.h>

namespace vesk {

namespace {

struct Groups {
    using Entry = group;
    using Id = gid_t;
    static constexpr int ADVICE = _SC_GETGR_R_SIZE_MAX;
    static constexpr auto findId = getgrgid_r;
    static constexpr auto findName = getgrnam_r;
    static Id getId(Entry const& entry) noexcept { return entry.gr_gid; }
    static char const* getName(Entry const& entry) noexcept { return entry.gr_name; }
};

} // namespace

// Initialized before all other static objects: their initializers may create a `Group`.
__attribute__((init_priority(101))) std::string const Group::BAD_NAME;

long long Group::getId() const {
    if (!id_known) {
        id = name2id(name);
        id_known = true;
    }
    return id;
}

std::string const& Group::getName() const {
    if (!name_known) {
        name = id2name(id);
        name_known = true;
    }
    return name;
}

std::string Group::id2name(long long id) {
    return detail::findName<Groups, Group>(id);
}

long long Group::name2id(std::string const& name) {
    return detail::findId<Groups, Group>(name);
}

} // namespace vesk
