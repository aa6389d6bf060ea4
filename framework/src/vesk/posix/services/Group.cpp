#include <vesk/Group.h>

#include "AccountLookup.h"

#include <grp.h>
#include <limits>
#include <sys/types.h>

namespace vesk {

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
    // Truncated to `gid_t`, it would be the id of another group.
    if (id < 0 || id > std::numeric_limits<gid_t>::max()) {
        return BAD_NAME;
    }
    return detail::lookUpAccount<group>(
        _SC_GETGR_R_SIZE_MAX, BAD_NAME,
        [id](group* entry, char* buffer, size_t size, group** found) {
            return getgrgid_r(static_cast<gid_t>(id), entry, buffer, size, found);
        },
        [](group const& entry) { return std::string(entry.gr_name); });
}

long long Group::name2id(std::string const& name) {
    return detail::lookUpAccount<group>(
        _SC_GETGR_R_SIZE_MAX, BAD_ID,
        [&name](group* entry, char* buffer, size_t size, group** found) {
            return getgrnam_r(name.c_str(), entry, buffer, size, found);
        },
        [](group const& entry) { return static_cast<long long>(entry.gr_gid); });
}

} // namespace vesk
