#pragma once

#include "Composite.h"

#include <vesk/loop/Connection.h>

#include <deque>
#include <string>
#include <utility>

namespace vesk::loop::detail {

/// The state of a `Connection`.
class StreamSource final : public Composite {
public:
    StreamSource(std::shared_ptr<Core> core, Options options, UniqueFd fd, bool is_open)
        : Composite(std::move(core), options),
          m_state(is_open ? State::OPEN : State::OPENING),
          m_fd(std::move(fd)) {}

    /// Makes the parts. Returns `errno`, 0 on success.
    int begin();
    /// Return an error number, 0 on success.
    int write(std::string_view data, UniqueFd fd, bool& is_below);
    int resume();
    int close(Callback<void(Result<>)> closed);
    void pause() noexcept;
    void setDeadlines(Connection::Deadlines const& deadlines) noexcept;

    int getFd() const noexcept { return m_fd.get(); }
    size_t getQueued() const noexcept { return m_queue.size() - m_written; }

    Slot<std::string_view> on_data;
    Slot<Result<>> on_end;
    Slot<> on_open;
    Slot<> on_drain;
    Slot<Fd> on_fd;
    size_t low_mark = 64 * 1024;
    size_t high_mark = 1024 * 1024;

private:
    /// `CLOSING` sends what is queued, `LINGERING` waits for the peer to close.
    enum class State : unsigned char { OPENING, OPEN, CLOSING, LINGERING, OVER };

    bool isUsable() const noexcept {
        return !m_is_closing && (m_state == State::OPENING || m_state == State::OPEN);
    }
    int writeAndQueue(std::string_view data, UniqueFd fd);
    void serveReader();
    void serveWriter();
    void serveTimer();
    void finishOpening();
    ssize_t receive(char* buffer, size_t size, std::vector<Fd>& fds) const noexcept;
    void deliver(std::string_view data, std::vector<Fd> fds);
    void endOfData();
    int flush();
    ssize_t send(std::string_view data, int fd) const noexcept;
    void enqueue(std::string_view data);
    void afterFlush();
    void linger();
    void endLater(int error) noexcept;
    void end(int error);

    Clock::time_point getDeadline() const noexcept;
    void note(Clock::time_point& moment) noexcept;
    void arm() noexcept;

    State m_state;
    bool m_reads = false;    ///< Whether the user wants data.
    bool m_has_all = false;  ///< The peer has ended its direction.
    bool m_is_above = false; ///< The queue was above the high mark, and not below the low one since.
    bool m_is_closing = false;
    bool m_ends_later = false;
    int m_error = 0; ///< Of the end that comes later.
    UniqueFd m_fd;
    std::shared_ptr<ReadySource> m_reader;
    std::shared_ptr<ReadySource> m_writer;
    std::shared_ptr<TimerSource> m_timer;
    std::string m_queue; ///< The first `m_written` bytes are sent.
    size_t m_written = 0;
    unsigned long long m_sent = 0; ///< All bytes that were sent before the queue.
    std::deque<std::pair<unsigned long long, UniqueFd>>
        m_fds; ///< With the number of the byte that each goes with.
    Connection::Deadlines m_deadlines;
    Clock::time_point m_last_read;
    Clock::time_point m_last_write;
    Callback<void(Result<>)> m_closed;
};

} // namespace vesk::loop::detail
