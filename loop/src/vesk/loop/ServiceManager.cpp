#include <vesk/loop/ServiceManager.h>

#include "Report.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/UniqueFd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vesk::loop {

using namespace detail;
using vesk::detail::UniqueFd;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/ServiceManager";

/// Returns an error number, 0 on success.
int sendTo(std::string_view path, std::string_view text) noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() < 2 || (path.front() != '/' && path.front() != '@')) {
        return EAFNOSUPPORT;
    }
    if (path.size() > sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0';
    }
    UniqueFd const fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.isOpen()) {
        return errno;
    }
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    ssize_t sent = -1;
    do {
        sent = sendto(
            fd.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
            reinterpret_cast<sockaddr const*>(&address), size);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? errno : 0;
}

} // namespace

Result<bool> ServiceManager::send(std::string_view assignments) {
    char const* const path = getenv("NOTIFY_SOCKET");
    if (path == nullptr || *path == '\0') {
        return false;
    }
    int const error = sendTo(path, assignments);
    if (error != 0) {
        return makeError(SOURCE, error, LoopErrorId::NOT_NOTIFIED);
    }
    return true;
}

Result<bool> ServiceManager::ready() {
    return send("READY=1");
}

Result<bool> ServiceManager::reloading() {
    auto const now = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    return withoutThrowing(
        SOURCE, [now] { return send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count())); });
}

Result<bool> ServiceManager::stopping() {
    return send("STOPPING=1");
}

Result<bool> ServiceManager::status(std::string_view text) {
    return withoutThrowing(SOURCE, [text]() -> Result<bool> {
        if (text.find('\n') != std::string_view::npos) {
            return makeError(SOURCE, EINVAL, LoopErrorId::NOT_NOTIFIED);
        }
        return send("STATUS=" + std::string(text));
    });
}

std::optional<std::chrono::microseconds> ServiceManager::watchdog() {
    char const* const time = getenv("WATCHDOG_USEC");
    char const* const process = getenv("WATCHDOG_PID");
    if (time == nullptr || (process != nullptr && strtol(process, nullptr, 10) != getpid())) {
        return std::nullopt;
    }
    long long const count = strtoll(time, nullptr, 10);
    return count > 0 ? std::optional(std::chrono::microseconds(count)) : std::nullopt;
}

Result<Timer> ServiceManager::keepAlive(Loop& loop, Options options) {
    auto const time = watchdog();
    if (!time.has_value()) {
        return Timer();
    }
    return loop.every(
        *time / 2, [] { (void)send("WATCHDOG=1"); }, options);
}

} // namespace vesk::loop
