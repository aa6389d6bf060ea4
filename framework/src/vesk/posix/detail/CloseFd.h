#pragma once

#include <vesk/common/CancellationOff.h>

#include <unistd.h>

namespace vesk::detail {

/// Closes a descriptor that an object owns. No cancellation point: a thread that is canceled just after the system
/// has closed the descriptor would leave the number in its object, and the destructor would close it again.
inline int closeFd(int fd) noexcept {
    CancellationOff const cancellation_off;
    return ::close(fd);
}

} // namespace vesk::detail
