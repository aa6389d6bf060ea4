#pragma once

#include "ErrnoTable.h"

#include <vesk/FileAccessError.h>
#include <vesk/SysError.h>

#include <cstring>
#include <sys/mman.h>

namespace vesk::detail {

/// Opens a shared memory by its system name, and reports a failure by the table. True then, with -1 in `descriptor`.
inline bool openSharedMemory(
    int& descriptor, Place place, ErrnoTable table, char const* system_name, int flags, mode_t mode) {
    descriptor = retryOnEintr([&] { return shm_open(system_name, flags, mode); });
    if (descriptor != -1) {
        return false;
    }
    if (errno == ENAMETOOLONG) {
        // The one row whose cause is not the system's text.
        report(place, Chain::NEW, SysError, 4, system_name, static_cast<int>(strlen(system_name)));
        report(place, Chain::ON_TOP, FileAccessError, 0, system_name);
        return true;
    }
    classify(place, table, errno, system_name);
    return true;
}

} // namespace vesk::detail
