#pragma once

#include <vesk/loop/Export.h>

#include <sys/types.h>

namespace vesk::loop {

/// How a child process ended.
struct Exit {
    /// The process.
    pid_t pid = -1;
    int code = -1;            ///< The exit status, -1 after the end by a signal.
    int signal = 0;           ///< The signal that ended it, otherwise 0. Unknown after the end: -1 and 0.
    bool dumped_core = false; ///< Whether it left a core dump.
    /// Returns whether the exit status is 0.
    bool ok() const noexcept { return code == 0; }
};

} // namespace vesk::loop
