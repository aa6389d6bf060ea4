#pragma once

#include "End.h"

#include <vesk/Message.h>
#include <vesk/Thread.h>
#include <vesk/UnixServerSocket.h>
#include <vesk/UnixSocket.h>

#include <functional>
#include <string>

namespace supervisor {

/// The socket for commands, with a thread that waits for clients. It serves one after the other: a client that sends
/// no line in a second is sent away.
class Door {
public:
    /// Returns the answer to a line. Called in the thread of the queue.
    using Answer = std::function<std::string(std::string const& line)>;

    Door(std::string const& path, vesk::Message::Sink& queue, Answer answer);
    ~Door() { close(); }
    /// Starts to listen. Returns true on failure.
    [[nodiscard]] bool open();
    /// Ends the thread, and removes the socket. Messages that it has pushed may still be in the queue.
    void close();

private:
    void run();
    void serve(vesk::UnixSocket::Description const& accepted);
    std::string readLine(vesk::UnixSocket& socket) const;

    vesk::UnixServerSocket m_server;
    vesk::Message::Sink& m_queue;
    Answer m_answer;
    examples::End m_end;
    vesk::Thread m_thread;
    bool m_is_started = false;
};

} // namespace supervisor
