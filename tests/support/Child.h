#pragma once

#include <functional>
#include <string>

namespace support {

/// How a child process ended.
struct ChildEnd {
    int exit_code = -1; ///< -1 if a signal ended it.
    int signal = 0;     ///< 0 if it exited by itself.
    std::string output; ///< What it wrote to standard output.
    std::string errors; ///< What it wrote to standard error.
};

/// Runs `body` in a forked child and waits for its end. The child exits with 0, or with 1 if an expectation
/// failed in it; the text of the failure is in `output`. SIGALRM ends a child that takes longer than a
/// minute.
ChildEnd runInChild(std::function<void()> const& body);

} // namespace support
