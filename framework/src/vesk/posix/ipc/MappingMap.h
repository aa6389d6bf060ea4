#pragma once

#include "vesk/common/Report.h"

#include <vesk/MemMapping.h>

#include <tarncommon/error/CommonError.h>

#include <map>

namespace vesk::detail {

/// The mappings that an object owns, by their addresses.
using MappingMap = std::map<void const*, MemMapping>;

/// Enters a mapping that was made; takes it down again if there is no memory for the entry.
inline void enterMapping(MappingMap& mappings, MemMapping mapping) {
    try {
        // An address that is known was given up behind the owner's back: the old entry tells of nothing any more.
        mappings.insert_or_assign(mapping.getAddress(), mapping);
    } catch (...) {
        mapping.destroy();
        throw;
    }
}

/// Takes one mapping down. Its entry goes even if that fails.
inline bool removeMapping(Place place, MappingMap& mappings, MemMapping const& mapping) {
    auto const entry = mappings.find(mapping.getAddress());
    if (entry == mappings.end()) {
        report(
            place, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN,
            "Attempt to remove a mapping that isn't registered");
        return true;
    }
    bool const failed = entry->second.destroy();
    mappings.erase(entry);
    return failed;
}

/// Takes all mappings down, the lowest first, whatever becomes of each. True if any failed.
inline bool destroyMappings(MappingMap& mappings) {
    bool failed = false;
    while (!mappings.empty()) {
        auto const lowest = mappings.begin();
        failed |= lowest->second.destroy();
        mappings.erase(lowest);
    }
    return failed;
}

} // namespace vesk::detail
