#pragma once

#include "vesk/common/Report.h"

#include <vesk/MemMapping.h>

#include <tarncommon/error/CommonError.h>

#include <map>

namespace vesk::detail {

/// The mappings that an object owns, keyed by their addresses.
using MappingMap = std::map<void const*, MemMapping>;

/// Adds a new mapping. Unmaps it again if there is no memory for the entry.
inline void enterMapping(MappingMap& mappings, MemMapping mapping) {
    try {
        // If the address has an entry already, that mapping was removed without the owner's knowledge: the
        // entry is stale.
        mappings.insert_or_assign(mapping.getAddress(), mapping);
    } catch (...) {
        static_cast<void>(mapping.destroy());
        throw;
    }
}

/// Unmaps one mapping. Removes its entry even if unmapping fails.
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

/// Unmaps all mappings in ascending order of their addresses, and goes on after a failure. Returns true if
/// any failed.
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
