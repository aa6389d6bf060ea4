#include <vesk/loop/Connection.h>
#include <vesk/loop/Listener.h>

#include "Sockets.h"
#include "Stream.h"

#include <vesk/common/Unwindable.h>

#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace vesk::loop {

using namespace detail;

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Connection";
constexpr auto RETRY_TIME = std::chrono::milliseconds(100);
constexpr int ACCEPTS_PER_CALL = 64;

StreamSource* streamOf(Watch const& connection) noexcept {
    return Access::getSource<StreamSource>(connection);
}

Result<> toResult(int error, int line = __builtin_LINE()) {
    if (error != 0) {
        return makeError({SOURCE, line}, error, LoopErrorId::CONNECTION_FAILED);
    }
    return {};
}

Result<Connection> make(std::shared_ptr<Core> const& core, UniqueFd fd, bool is_open, Options options) {
    auto stream = std::make_shared<StreamSource>(core, options, std::move(fd), is_open);
    int error = core->getState();
    error = error != 0 ? error : stream->begin();
    if (error != 0) {
        return makeError(SOURCE, error, LoopErrorId::CONNECTION_FAILED);
    }
    return Access::make<Connection>(std::move(stream));
}

/// Small writes are collected by the caller, if at all.
void sendAtOnce(int fd) noexcept {
    int const on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// A socket that listens, and a timer for the time after a failure.
class ListenSource final : public Composite {
public:
    ListenSource(
        std::shared_ptr<Core> core, Options options, BoundSocket socket, Callback<void(Connection)> callback)
        : Composite(std::move(core), options), m_socket(std::move(socket)), m_callback(std::move(callback)) {}

    int begin() {
        m_reader = addFd(m_socket.get(), false, &ListenSource::serveReader);
        m_timer = addTimer(&ListenSource::serveTimer);
        return start(m_reader);
    }
    Address getAddress() const noexcept { return m_socket.getAddress(); }

private:
    void serveReader() {
        for (int i = 0; i < ACCEPTS_PER_CALL && !isSilent(); ++i) {
            UniqueFd fd(unwindable(
                [this] { return accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }));
            if (!fd.isOpen()) {
                waitAfter(errno);
                return;
            }
            sendAtOnce(fd.get());
            if (auto connection = make(shareCore(), std::move(fd), true, getOptions())) {
                m_callback(std::move(*connection));
            }
        }
    }
    void waitAfter(int error) {
        if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
            stop(m_reader);
            start(m_timer, Clock::now() + RETRY_TIME);
        }
    }
    void serveTimer() {
        if (start(m_reader) != 0) {
            start(m_timer, Clock::now() + RETRY_TIME);
        }
    }

    BoundSocket m_socket;
    std::shared_ptr<ReadySource> m_reader;
    std::shared_ptr<TimerSource> m_timer;
    Callback<void(Connection)> m_callback;
};

} // namespace

// ---- Listener ----

Result<Listener>
Listener::open(Loop& loop, std::string_view address, Callback<void(Connection)> callback, Options options) {
    return withoutThrowing(SOURCE, [&]() -> Result<Listener> {
        Result<Address> const parsed = Address::parse(address);
        if (!parsed) {
            return parsed.error();
        }
        Result<BoundSocket> socket = BoundSocket::open(*parsed, SOCK_STREAM);
        if (!socket) {
            return socket.error();
        }
        if (listen(socket->get(), SOMAXCONN) != 0) {
            return refuseAddress(errno, std::string(address), "listen");
        }
        auto const& core = Access::getCore(loop);
        auto source = std::make_shared<ListenSource>(core, options, std::move(*socket), std::move(callback));
        int error = core->getState();
        error = error != 0 ? error : source->begin();
        if (error != 0) {
            return refuseAddress(error, std::string(address), "loop");
        }
        return Access::make<Listener>(std::move(source));
    });
}

Address Listener::address() const {
    auto const* const source = Access::getSource<ListenSource>(*this);
    return source == nullptr ? Address() : source->getAddress();
}

// ---- Connection ----

Result<Connection> Connection::open(Loop& loop, Address const& address, Options options) {
    return withoutThrowing(SOURCE, [&]() -> Result<Connection> {
        UniqueFd fd(socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!fd.isOpen()) {
            return refuseAddress(errno, address.text(), "socket");
        }
        sendAtOnce(fd.get());
        if (connect(fd.get(), address.get(), address.size()) != 0 && errno != EINPROGRESS) {
            return refuseAddress(errno, address.text(), "connect");
        }
        return make(Access::getCore(loop), std::move(fd), false, options);
    });
}

Result<Connection> Connection::open(Loop& loop, std::string_view address, Options options) {
    Result<Address> const parsed = Address::parse(address);
    if (!parsed) {
        return parsed.error();
    }
    return open(loop, *parsed, options);
}

Result<Connection> Connection::adopt(Loop& loop, Fd socket, Options options) {
    return withoutThrowing(SOURCE, [&]() -> Result<Connection> {
        return make(Access::getCore(loop), UniqueFd(socket.release()), true, options);
    });
}

Result<> Connection::onData(Callback<void(std::string_view)> callback) {
    StreamSource* const stream = streamOf(*this);
    if (stream == nullptr) {
        return toResult(EPIPE);
    }
    stream->on_data.set(std::move(callback));
    return toResult(stream->resume());
}

void Connection::onEnd(Callback<void(Result<>)> callback) {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->on_end.set(std::move(callback));
    }
}

void Connection::onOpen(Callback<void()> callback) {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->on_open.set(std::move(callback));
    }
}

void Connection::onDrain(Callback<void()> callback) {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->on_drain.set(std::move(callback));
    }
}

void Connection::onFd(Callback<void(Fd)> callback) {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->on_fd.set(std::move(callback));
    }
}

Result<bool> Connection::write(std::string_view data) {
    return write(data, Fd());
}

Result<bool> Connection::write(std::string_view data, Fd fd) {
    return withoutThrowing(SOURCE, [&]() -> Result<bool> {
        StreamSource* const stream = streamOf(*this);
        bool is_below = true;
        int error = stream == nullptr ? EPIPE : 0;
        if (error == 0 && fd && data.empty()) {
            error = EINVAL;
        }
        error = error != 0 ? error : stream->write(data, UniqueFd(fd.release()), is_below);
        if (error != 0) {
            return makeError(SOURCE, error, LoopErrorId::CONNECTION_FAILED);
        }
        return is_below;
    });
}

std::size_t Connection::queued() const noexcept {
    StreamSource const* const stream = streamOf(*this);
    return stream == nullptr ? 0 : stream->getQueued();
}

void Connection::setMarks(std::size_t low, std::size_t high) noexcept {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->low_mark = low;
        stream->high_mark = high;
    }
}

void Connection::setDeadlines(Deadlines const& deadlines) noexcept {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->setDeadlines(deadlines);
    }
}

void Connection::pause() noexcept {
    if (StreamSource* const stream = streamOf(*this)) {
        stream->pause();
    }
}

Result<> Connection::resume() {
    StreamSource* const stream = streamOf(*this);
    return toResult(stream == nullptr ? EPIPE : stream->resume());
}

Result<> Connection::close(Callback<void(Result<>)> closed) {
    StreamSource* const stream = streamOf(*this);
    return toResult(stream == nullptr ? EPIPE : stream->close(std::move(closed)));
}

int Connection::fd() const noexcept {
    StreamSource const* const stream = streamOf(*this);
    return stream == nullptr ? -1 : stream->getFd();
}

Address Connection::peer() const {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    return getpeername(fd(), generic, &size) == 0 ? Address(generic, size) : Address();
}

Result<Connection::Credentials> Connection::credentials() const {
    ucred system{};
    socklen_t size = sizeof system;
    if (getsockopt(fd(), SOL_SOCKET, SO_PEERCRED, &system, &size) != 0) {
        return makeError(SOURCE, errno, LoopErrorId::CONNECTION_FAILED);
    }
    return Credentials{system.pid, system.uid, system.gid};
}

} // namespace vesk::loop
