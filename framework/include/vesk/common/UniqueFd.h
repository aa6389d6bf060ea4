#pragma once

#include <vesk/common/CancellationOff.h>

#include <unistd.h>
#include <utility>

namespace vesk::detail {

/// Owner of a descriptor, which its destructor closes. An owner without a descriptor holds -1. For private
/// members of this library's classes.
///
///     UniqueFd const file(open("/proc/mounts", O_RDONLY | O_CLOEXEC));
///     if (!file.isOpen()) { ... }
///
/// Not for use by several threads at once.
class [[nodiscard]] UniqueFd {
public:
    /// Takes the result of a call that returns a descriptor, -1 on failure.
    explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        UniqueFd taken(std::move(other));
        std::swap(m_fd, taken.m_fd);
        return *this;
    }
    ~UniqueFd() { close(); }

    int get() const noexcept { return m_fd; }
    bool isOpen() const noexcept { return m_fd >= 0; }

    /// Returns the descriptor, which the caller then owns.
    [[nodiscard]] int release() noexcept { return std::exchange(m_fd, -1); }

    /// Closes the descriptor, if there is one (`close`, never repeated: the system has released the number
    /// even if it reports an interruption). Disables cancellation of the thread meanwhile.
    /// @return 0, or -1 with `errno` set
    int close() noexcept {
        if (!isOpen()) {
            return 0;
        }
        CancellationOff const cancellation_off;
        return ::close(release());
    }

private:
    int m_fd;
};

} // namespace vesk::detail
