#pragma once

#include <vesk/Pipe.h>

#include <fcntl.h>
#include <poll.h>

namespace examples {

/// Ends a thread that waits for a descriptor: the thread waits for a pipe as well, which `end` closes.
class End {
public:
    End() {
        // Programs inherit the ends of a pipe. One that has the write end would keep it open.
        static_cast<void>(fcntl(m_pipe.getReadEnd(), F_SETFD, FD_CLOEXEC));
        static_cast<void>(fcntl(m_pipe.getWriteEnd(), F_SETFD, FD_CLOEXEC));
    }
    bool isValid() const { return m_pipe.getReadEnd() != -1; }
    void end() { static_cast<void>(m_pipe.getWriteEnd() != -1 && m_pipe.closeWriteEnd()); }

    /// Waits until a descriptor is readable, or for the time; -1: without a limit. A signal may end the wait early.
    /// @param fd  -1: none
    /// @return false after `end`
    [[nodiscard]] bool wait(int fd, int timeout_ms) const {
        pollfd fds[] = {{m_pipe.getReadEnd(), POLLIN, 0}, {fd, POLLIN, 0}}; // The system ignores -1.
        static_cast<void>(::poll(fds, 2, timeout_ms));
        return fds[0].revents == 0;
    }

private:
    vesk::Pipe m_pipe;
};

} // namespace examples
