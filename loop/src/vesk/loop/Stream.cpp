#include "Stream.h"

#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace vesk::loop::detail {

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Connection";
constexpr auto LINGER_TIME = std::chrono::seconds(1);
constexpr size_t MAX_FDS = 16;

bool isTransient(int error) noexcept {
    return error == EAGAIN || error == EINTR;
}

} // namespace

int StreamSource::begin() {
    m_reader = addFd(m_fd.get(), false, &StreamSource::serveReader);
    m_writer = addFd(m_fd.get(), true, &StreamSource::serveWriter);
    m_timer = addTimer(&StreamSource::serveTimer);
    m_last_read = m_last_write = Clock::now();
    return m_state == State::OPENING ? start(m_writer) : 0;
}

void StreamSource::finishOpening() {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(m_fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        end(error);
        return;
    }
    m_state = m_is_closing ? State::CLOSING : State::OPEN;
    note(m_last_write);
    error = m_reads && !m_is_closing ? resume() : 0;
    if (error != 0) {
        end(error);
        return;
    }
    if (!m_is_closing) {
        on_open();
    }
    if (!isSilent() && !m_ends_later) {
        serveWriter();
    }
}

// ---- reading ----

int StreamSource::resume() {
    if (!isUsable()) {
        return EPIPE;
    }
    m_reads = true;
    if (m_state != State::OPEN || m_has_all) {
        return 0;
    }
    note(m_last_read);
    return start(m_reader);
}

void StreamSource::pause() noexcept {
    m_reads = false;
    if (isUsable()) {
        stop(m_reader);
    }
}

/// Receives data, and the descriptors that came with it.
ssize_t StreamSource::receive(char* buffer, size_t size, std::vector<Fd>& fds) const noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    if (!on_fd) {
        return recv(m_fd.get(), buffer, size, MSG_DONTWAIT); // Drops descriptors, and costs less.
    }
    alignas(cmsghdr) std::array<char, CMSG_SPACE(MAX_FDS * sizeof(int))> control{};
    iovec part{buffer, size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t const count = recvmsg(m_fd.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (count < 0) {
        return count;
    }
    for (cmsghdr* row = CMSG_FIRSTHDR(&message); row != nullptr; row = CMSG_NXTHDR(&message, row)) {
        if (row->cmsg_level != SOL_SOCKET || row->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        size_t const rows = (row->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < rows; ++i) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(row) + i * sizeof fd, sizeof fd);
            Fd owner(fd); // Closed, if there is no memory to keep it.
            try {
                fds.push_back(std::move(owner));
            } catch (std::bad_alloc const&) {
                break;
            }
        }
    }
    return count;
}

void StreamSource::serveReader() {
    std::array<char, 16384> buffer;
    std::vector<Fd> fds;
    ssize_t const count = receive(buffer.data(), buffer.size(), fds);
    if (count < 0) {
        if (!isTransient(errno)) {
            end(errno);
        }
    } else if (m_state == State::LINGERING) {
        if (count == 0) {
            end(0);
        }
    } else if (count == 0) {
        endOfData();
    } else {
        note(m_last_read);
        deliver({buffer.data(), static_cast<size_t>(count)}, std::move(fds));
    }
}

void StreamSource::deliver(std::string_view data, std::vector<Fd> fds) {
    for (Fd& fd : fds) {
        if (!isSilent() && isUsable()) {
            on_fd(std::move(fd));
        }
    }
    if (!isSilent() && isUsable()) {
        on_data(data);
    }
}

void StreamSource::endOfData() {
    m_has_all = true;
    stop(m_reader);
    on_end(Result<>());
}

// ---- writing ----

ssize_t StreamSource::send(std::string_view data, int fd) const noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    if (fd < 0) {
        return ::send(m_fd.get(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec part{const_cast<char*>(data.data()), data.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const row = CMSG_FIRSTHDR(&message);
    row->cmsg_level = SOL_SOCKET;
    row->cmsg_type = SCM_RIGHTS;
    row->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(row), &fd, sizeof fd);
    return sendmsg(m_fd.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void StreamSource::enqueue(std::string_view data) {
    if (m_written == m_queue.size()) {
        m_queue.clear();
        m_written = 0;
    } else if (m_written > m_queue.size() / 2) {
        m_queue.erase(0, m_written);
        m_written = 0;
    }
    m_queue.append(data);
}

int StreamSource::write(std::string_view data, UniqueFd fd, bool& is_below) {
    if (!isUsable() || m_ends_later) {
        return EPIPE;
    }
    int error = ENOMEM;
    try {
        error = writeAndQueue(data, std::move(fd));
    } catch (std::bad_alloc const&) {
        // A part may be sent or queued.
    }
    if (error != 0) {
        endLater(error);
        return error;
    }
    m_is_above = m_is_above || getQueued() > high_mark;
    is_below = getQueued() <= high_mark;
    return getQueued() == 0 ? 0 : start(m_writer);
}

int StreamSource::writeAndQueue(std::string_view data, UniqueFd fd) {
    bool const was_empty = getQueued() == 0;
    size_t sent = 0;
    if (fd.isOpen()) {
        m_fds.emplace_back(m_sent + getQueued(), std::move(fd));
    } else if (was_empty && m_state == State::OPEN && !data.empty()) {
        ssize_t const count = send(data, -1);
        if (count < 0 && !isTransient(errno)) {
            return errno;
        }
        sent = count > 0 ? static_cast<size_t>(count) : 0;
        m_sent += sent;
    }
    if (sent < data.size()) {
        enqueue(data.substr(sent));
    }
    if (was_empty) {
        note(m_last_write);
    }
    return 0;
}

/// Sends what is queued, as far as possible. Returns an error number, 0 on success.
int StreamSource::flush() {
    while (getQueued() > 0) {
        size_t size = getQueued();
        int fd = -1;
        size_t next = 0;
        if (!m_fds.empty() && m_fds[0].first == m_sent) {
            fd = m_fds[0].second.get();
            next = 1;
        }
        if (next < m_fds.size()) {
            size = std::min<size_t>(size, static_cast<size_t>(m_fds[next].first - m_sent));
        }
        ssize_t const count = send({m_queue.data() + m_written, size}, fd);
        if (count < 0) {
            return isTransient(errno) ? 0 : errno;
        }
        if (fd >= 0) {
            m_fds.pop_front();
        }
        m_written += static_cast<size_t>(count);
        m_sent += static_cast<size_t>(count);
        note(m_last_write);
    }
    return 0;
}

void StreamSource::serveWriter() {
    if (m_state == State::OPENING) {
        finishOpening();
        return;
    }
    int const error = flush();
    if (error != 0) {
        end(error);
        return;
    }
    if (getQueued() == 0) {
        stop(m_writer);
    }
    afterFlush();
}

void StreamSource::afterFlush() {
    if (m_state == State::CLOSING) {
        if (getQueued() == 0) {
            linger();
        }
    } else if (m_is_above && getQueued() <= low_mark) {
        m_is_above = false;
        on_drain();
    }
}

// ---- the end ----

int StreamSource::close(Callback<void(Result<>)> closed) {
    if (!isUsable()) {
        return EPIPE;
    }
    m_is_closing = true;
    m_closed = std::move(closed);
    stop(m_reader);
    if (m_ends_later) {
        return 0;
    }
    if (getQueued() > 0) {
        m_state = m_state == State::OPENING ? State::OPENING : State::CLOSING;
    } else if (m_state == State::OPENING) {
        endLater(0);
    } else {
        linger();
    }
    return 0;
}

/// Ends the own direction, and reads on until the peer does so too: data that is not read would make the system
/// reset the connection, and the peer lose the last data.
void StreamSource::linger() {
    m_state = State::LINGERING;
    shutdown(m_fd.get(), SHUT_WR);
    if (m_has_all || start(m_reader) != 0) {
        endLater(0);
    } else {
        start(m_timer, Clock::now() + LINGER_TIME);
    }
}

/// Ends the connection in the loop, because the caller is not prepared for a callback.
void StreamSource::endLater(int error) noexcept {
    m_ends_later = true;
    m_error = error;
    start(m_timer, Clock::now());
}

void StreamSource::end(int error) {
    m_state = State::OVER;
    stopAll();
    m_fd.close();
    m_fds.clear();
    // Moved out: nothing else is called, and the callback may destroy this object's owner.
    Callback<void(Result<>)> callback = m_is_closing ? std::move(m_closed) : on_end.take();
    if (callback) {
        callback(error == 0 ? Result<>() : makeError(SOURCE, error, LoopErrorId::CONNECTION_FAILED));
    }
}

// ---- deadlines ----

void StreamSource::setDeadlines(Connection::Deadlines const& deadlines) noexcept {
    m_deadlines = deadlines;
    m_last_read = m_last_write = Clock::now();
    arm();
}

Clock::time_point StreamSource::getDeadline() const noexcept {
    constexpr auto NONE = Clock::duration::zero();
    Clock::time_point deadline = Clock::time_point::max();
    if (m_deadlines.read > NONE && m_reads && m_state == State::OPEN && !m_has_all) {
        deadline = std::min(deadline, add(m_last_read, m_deadlines.read));
    }
    if (m_deadlines.write > NONE && (getQueued() > 0 || m_state == State::OPENING)) {
        deadline = std::min(deadline, add(m_last_write, m_deadlines.write));
    }
    if (m_deadlines.idle > NONE) {
        deadline = std::min(deadline, add(std::max(m_last_read, m_last_write), m_deadlines.idle));
    }
    return deadline;
}

/// Notes that something has happened, if a deadline depends on it.
void StreamSource::note(Clock::time_point& moment) noexcept {
    if (m_deadlines.read > Clock::duration::zero() || m_deadlines.write > Clock::duration::zero() ||
        m_deadlines.idle > Clock::duration::zero()) {
        moment = Clock::now();
        arm();
    }
}

/// Starts the timer for the next deadline. A later deadline does not move it: it looks again when it expires.
void StreamSource::arm() noexcept {
    Clock::time_point const deadline = getDeadline();
    if (m_state == State::LINGERING || m_ends_later || deadline == Clock::time_point::max()) {
        return;
    }
    if (!m_timer->isActive() || deadline < m_timer->deadline) {
        start(m_timer, deadline);
    }
}

void StreamSource::serveTimer() {
    if (m_ends_later) {
        end(m_error);
    } else if (m_state == State::LINGERING) {
        end(0);
    } else if (getDeadline() <= Clock::now()) {
        end(ETIMEDOUT);
    } else {
        arm();
    }
}

} // namespace vesk::loop::detail
