#include <vesk/loop/Address.h>

#include "Composite.h"
#include "SignalsBlocked.h"
#include "Sockets.h"

#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr std::string_view UNIX_MARK = "unix:";

/// The parts of "host:port". A host in brackets may have colons.
struct HostAndPort {
    explicit HostAndPort(std::string_view text) {
        size_t const colon = text.rfind(':');
        bool const has_brackets = !text.empty() && text.front() == '[';
        if (colon == std::string_view::npos || (has_brackets && (colon < 2 || text[colon - 1] != ']')) ||
            (!has_brackets && text.find(':') != colon)) {
            return;
        }
        host = has_brackets ? text.substr(1, colon - 2) : text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    bool isValid() const noexcept {
        return !host.empty() && !port.empty() && host.find('\0') == std::string::npos;
    }
    std::string host;
    std::string port;
};

/// Asks the system. Returns an error number, 0 on success.
int query(HostAndPort const& name, int flags, std::vector<Address>& addresses) {
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    switch (getaddrinfo(name.host.c_str(), name.port.c_str(), &hints, &list)) {
    case 0:
        break;
    case EAI_AGAIN:
        return EAGAIN;
    case EAI_MEMORY:
        return ENOMEM;
    case EAI_SYSTEM:
        return errno;
    default:
        return ENOENT;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> const owner(list, freeaddrinfo);
    for (; list != nullptr; list = list->ai_next) {
        addresses.emplace_back(list->ai_addr, list->ai_addrlen);
    }
    return 0;
}

/// The answer of a look-up, for the thread that asks and for the loop.
struct Answer {
    std::mutex mutex;
    int error = 0;
    std::vector<Address> addresses;
};

/// A look-up. The thread closes its end of a pipe when it has the answer.
class LookUpSource final : public FdSource {
public:
    LookUpSource(
        std::shared_ptr<Core> core, Options options, UniqueFd end, std::string name,
        std::shared_ptr<Answer> answer, Callback<void(Result<std::vector<Address>>)> callback)
        : FdSource(std::move(core), options, end.get(), false, Trigger::LEVEL),
          m_end(std::move(end)),
          m_name(std::move(name)),
          m_answer(std::move(answer)),
          m_callback(std::move(callback)) {}

    Call prepare() noexcept override { return Call::LAST; }
    void fire() override {
        std::unique_lock<std::mutex> held(m_answer->mutex);
        int const error = m_answer->error;
        std::vector<Address> addresses = std::move(m_answer->addresses);
        held.unlock();
        if (error != 0) {
            m_callback(refuseAddress(error, m_name, "look-up"));
        } else {
            m_callback(std::move(addresses));
        }
    }

private:
    UniqueFd m_end;
    std::string m_name;
    std::shared_ptr<Answer> m_answer;
    Callback<void(Result<std::vector<Address>>)> m_callback;
};

/// Starts the thread of a look-up. Returns an error number, 0 on success.
int ask(std::string const& name, std::shared_ptr<Answer> const& answer, UniqueFd writer) {
    try {
        SignalsBlocked const blocked; // The thread inherits that.
        std::thread([parts = HostAndPort(name), answer, end = std::move(writer)] {
            int error = ENOMEM;
            std::vector<Address> addresses;
            try {
                error = query(parts, 0, addresses);
            } catch (std::bad_alloc const&) {
                // Reported like any other failure.
            }
            std::lock_guard<std::mutex> const held(answer->mutex);
            answer->error = error;
            answer->addresses = std::move(addresses);
        }).detach();
    } catch (std::system_error const& error) {
        return error.code().value();
    }
    return 0;
}

} // namespace

Error detail::refuseAddress(int error, std::string const& address, char const* step, int line) {
    return makeError({ADDRESS_SOURCE, line}, error, LoopErrorId::ADDRESS_REFUSED, address.c_str(), step);
}

// ---- addresses ----

Address::Address(sockaddr const* address, socklen_t size) noexcept
    : m_size(std::min<socklen_t>(size, sizeof m_address)) {
    memcpy(&m_address, address, m_size);
}

Result<Address> Address::parse(std::string_view text) {
    return withoutThrowing(ADDRESS_SOURCE, [&]() -> Result<Address> {
        if (text.substr(0, UNIX_MARK.size()) == UNIX_MARK) {
            std::string_view const path = text.substr(UNIX_MARK.size());
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            if (path.empty() || path.size() >= sizeof address.sun_path) {
                return refuseAddress(path.empty() ? EINVAL : ENAMETOOLONG, std::string(text), "path");
            }
            memcpy(address.sun_path, path.data(), path.size());
            size_t size = offsetof(sockaddr_un, sun_path) + path.size();
            if (path.front() == '@') {
                address.sun_path[0] = '\0'; // The length ends an abstract name.
            } else {
                ++size;
            }
            return Address(reinterpret_cast<sockaddr const*>(&address), static_cast<socklen_t>(size));
        }
        std::vector<Address> addresses;
        HostAndPort const parts(text);
        if (!parts.isValid() || query(parts, AI_NUMERICHOST | AI_NUMERICSERV, addresses) != 0) {
            return refuseAddress(EINVAL, std::string(text), "text");
        }
        return addresses.front();
    });
}

std::string Address::text() const {
    if (family() == AF_UNIX) {
        auto const& address = reinterpret_cast<sockaddr_un const&>(m_address);
        constexpr size_t BEGIN = offsetof(sockaddr_un, sun_path);
        if (m_size <= BEGIN) {
            return std::string(UNIX_MARK);
        }
        return address.sun_path[0] == '\0'
            ? std::string(UNIX_MARK) + '@' + std::string(address.sun_path + 1, m_size - BEGIN - 1)
            : std::string(UNIX_MARK) +
                std::string(address.sun_path, strnlen(address.sun_path, m_size - BEGIN));
    }
    char host[INET6_ADDRSTRLEN + 16];
    char port[8];
    if (getnameinfo(get(), m_size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) !=
        0) {
        return {};
    }
    return family() == AF_INET6 ? '[' + std::string(host) + "]:" + port : std::string(host) + ':' + port;
}

int Address::port() const noexcept {
    switch (family()) {
    case AF_INET:
        return ntohs(reinterpret_cast<sockaddr_in const&>(m_address).sin_port);
    case AF_INET6:
        return ntohs(reinterpret_cast<sockaddr_in6 const&>(m_address).sin6_port);
    default:
        return 0;
    }
}

Result<Watch> lookUp(
    Loop& loop, std::string const& name, Callback<void(Result<std::vector<Address>>)> callback,
    Options options) {
    return withoutThrowing(ADDRESS_SOURCE, [&]() -> Result<Watch> {
        if (!HostAndPort(name).isValid()) {
            return refuseAddress(EINVAL, name, "text");
        }
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return refuseAddress(errno, name, "pipe");
        }
        UniqueFd reader(ends[0]);
        UniqueFd writer(ends[1]);
        auto answer = std::make_shared<Answer>();
        auto const& core = Access::getCore(loop);
        auto source = std::make_shared<LookUpSource>(
            core, options, std::move(reader), name, answer, std::move(callback));
        int error = core->getState();
        error = error != 0 ? error : core->attach(*source);
        if (error != 0) {
            return refuseAddress(error, name, "loop");
        }
        Watch watch = Access::make<Watch>(std::move(source));
        error = ask(name, answer, std::move(writer));
        if (error != 0) {
            return refuseAddress(error, name, "thread");
        }
        return watch;
    });
}

// ---- bound sockets ----

BoundSocket::~BoundSocket() {
    if (m_fd.isOpen() && !m_path.empty()) {
        unlink(m_path.c_str());
    }
}

namespace {

/// Returns whether a socket file belongs to no socket any more.
bool isLeftOver(Address const& address, int type) noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    UniqueFd const probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe.isOpen() && connect(probe.get(), address.get(), address.size()) != 0 &&
        errno == ECONNREFUSED;
}

} // namespace

Result<BoundSocket> BoundSocket::open(Address const& address, int type) {
    std::string const text = address.text();
    BoundSocket result;
    result.m_fd = UniqueFd(socket(address.family(), type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!result.m_fd.isOpen()) {
        return refuseAddress(errno, text, "socket");
    }
    int const on = 1;
    if (type == SOCK_STREAM && address.family() != AF_UNIX) {
        setsockopt(result.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    std::string path;
    if (address.family() == AF_UNIX && text[UNIX_MARK.size()] != '@') {
        path = text.substr(UNIX_MARK.size());
    }
    int outcome = bind(result.get(), address.get(), address.size());
    if (outcome != 0 && errno == EADDRINUSE && !path.empty() && isLeftOver(address, type)) {
        unlink(path.c_str());
        outcome = bind(result.get(), address.get(), address.size());
    }
    if (outcome != 0) {
        return refuseAddress(errno, text, "bind");
    }
    result.m_path = std::move(path);
    return result;
}

Address BoundSocket::getAddress() const noexcept {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    return getsockname(get(), generic, &size) == 0 ? Address(generic, size) : Address();
}

} // namespace vesk::loop
