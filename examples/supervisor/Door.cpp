#include "Door.h"

#include "Call.h"

#include <tarncommon/error/ErrorStorage.h>

#include <memory>
#include <unistd.h>
#include <utility>

namespace supervisor {

namespace {

constexpr size_t LONGEST_LINE = 256;
constexpr int PATIENCE_MS = 1000;

/// Returns whether the peer runs as the same user as this process, or as root.
bool mayCommand(vesk::UnixSocket const& socket) {
    long long user = -1;
    long long group = -1;
    int process = -1;
    socket.getPeerCredentials(user, group, process);
    return user == 0 || user == static_cast<long long>(geteuid());
}

void close(vesk::UnixSocket& socket) {
    static_cast<void>(!socket.isValid() || socket.close(false));
    std::ErrorStorage::ack();
}

} // namespace

Door::Door(std::string const& path, vesk::Message::Sink& queue, Answer answer)
    : m_server(path, false, m_server.FILESYSTEM),
      m_queue(queue),
      m_answer(std::move(answer)),
      m_thread([](void* door) { static_cast<Door*>(door)->run(); }, this, "door") {}

bool Door::open() {
    if (!m_server.isValid() || !m_end.isValid() || !m_thread.isValid()) {
        return true;
    }
    m_server.enableListen(8);
    m_is_started = !m_server.hadError() && !m_thread.start();
    return !m_is_started;
}

void Door::close() {
    m_end.end();
    if (std::exchange(m_is_started, false)) {
        static_cast<void>(m_thread.join());
        static_cast<void>(m_server.close(false)); // Removes its file.
    }
}

void Door::run() {
    while (m_end.wait(m_server.getSocketFd(), -1)) {
        serve(m_server.acceptConnection());
        std::ErrorStorage::ack();
    }
}

void Door::serve(vesk::UnixSocket::Description const& accepted) {
    if (!accepted.valid) {
        return; // The client has gone.
    }
    auto const socket = std::make_shared<vesk::UnixSocket>(false, 0, 0, accepted);
    std::string const line = mayCommand(*socket) ? readLine(*socket) : "";
    if (line.empty()) {
        supervisor::close(*socket);
        return;
    }
    // Answered by the other thread: the services belong to it. The message takes the socket along.
    m_queue.push(new examples::Call([this, socket, line] {
        std::string const text = m_answer(line);
        unsigned int written = 0;
        // Short enough for the system's buffer.
        static_cast<void>(socket->write(text.data(), static_cast<unsigned int>(text.size()), written));
        supervisor::close(*socket);
    }));
}

/// Returns the first line, empty if there is none.
std::string Door::readLine(vesk::UnixSocket& socket) const {
    std::string text;
    int result = 1;
    while (result == 1 && text.find('\n') == std::string::npos && text.size() <= LONGEST_LINE) {
        char piece[LONGEST_LINE];
        unsigned int count = 0;
        if (!m_end.wait(socket.getSocketFd(), PATIENCE_MS)) {
            return "";
        }
        result = socket.read(piece, sizeof piece, count);
        if (result == 1 && count == 0) {
            return ""; // Out of patience.
        }
        text.append(piece, count);
    }
    size_t const end = text.find('\n');
    return end == std::string::npos ? "" : text.substr(0, end);
}

} // namespace supervisor
