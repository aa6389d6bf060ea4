#include "support/Child.h"

#include "support/Processes.h"

#include <poll.h>

namespace support {

namespace {

/// Reads both pipes until the child has closed them.
void drain(int output, int errors, ChildEnd& end) {
    pollfd fds[] = {{output, POLLIN, 0}, {errors, POLLIN, 0}};
    std::string* const texts[] = {&end.output, &end.errors};
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            ssize_t const count = read(fds[i].fd, buffer, sizeof buffer);
            if (count > 0) {
                texts[i]->append(buffer, static_cast<size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                fds[i].fd = -1;
            }
        }
    }
}

/// Removes the line in which user-mode QEMU reports that a signal ended its program: the child did not write
/// it.
void dropEmulatorsLine(std::string& errors) {
    size_t const begin = errors.find("qemu: uncaught target signal");
    if (begin != std::string::npos) {
        errors.erase(begin, errors.find('\n', begin) + 1 - begin);
    }
}

} // namespace

ChildEnd runInChild(std::function<void()> const& body) {
    ChildEnd end;
    int output[2];
    int errors[2];
    if (pipe(output) != 0) {
        return end;
    }
    if (pipe(errors) != 0) {
        close(output[0]);
        close(output[1]);
        return end;
    }
    Process child([&] {
        dup2(output[1], STDOUT_FILENO);
        dup2(errors[1], STDERR_FILENO);
        for (int const fd : {output[0], output[1], errors[0], errors[1]}) {
            close(fd);
        }
        body();
    });
    close(output[1]);
    close(errors[1]);
    if (child.getId() > 0) {
        drain(output[0], errors[0], end);
        dropEmulatorsLine(end.errors);
        end.exit_code = child.join();
        end.signal = child.getSignal();
    }
    close(output[0]);
    close(errors[0]);
    return end;
}

} // namespace support
