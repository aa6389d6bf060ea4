#pragma once

#include "vesk/common/Report.h"

#include <vesk/IPCIdentifier.h>

namespace vesk::detail {

/// Classifies the result of `mq_unlink` or `shm_unlink`, which fail in the same ways. A missing name counts
/// as success.
///
/// A denied permission makes two pairs of reports: first `SysErrorId::PERMISSION_DENIED` with
/// `FileAccessErrorId::ACCESS_DENIED`, then `SysErrorId::UNCLASSIFIED` with
/// `FileAccessErrorId::UNCLASSIFIED`. Any other failure makes the second pair only.
/// @return true on failure
bool classifyRemoval(Place place, int result, char const* name) noexcept;

/// Removes the name of a server's object from the system, and empties it. An empty name means that there is
/// nothing to remove. Returns true on failure, with the name unchanged.
/// @tparam REMOVE  removes a name, and returns true on failure
template <bool (*REMOVE)(char const*)>
bool deleteOwnName(char* name) {
    if (*name == '\0') {
        return false;
    }
    if (REMOVE(name)) {
        return true;
    }
    *name = '\0';
    return false;
}

/// Removes the object that a client calls `client_name`. Returns true on failure.
template <bool (*REMOVE)(char const*)>
bool deleteNameOfClient(char const* client_name) {
    char name[IPC_NAME_SIZE];
    return transformToIPCIdentifier(client_name, name, sizeof name) || REMOVE(name);
}

} // namespace vesk::detail
