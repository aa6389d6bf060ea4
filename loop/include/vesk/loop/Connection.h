#pragma once

#include <vesk/loop/Address.h>
#include <vesk/loop/Fd.h>

#include <cstddef>
#include <string_view>

namespace vesk::loop {

/// A stream of bytes to a peer (TCP, Unix).
///
///     connection.onEnd([&](Result<> const& how) { sessions.erase(id); });
///     connection.onData([&](std::string_view data) { (void)connection.write(data); });
///
/// What the system does not take at once is queued. Destroying a connection closes it at once, without what is queued;
/// `close` sends that first. All operations are for the loop's thread, or while no thread runs the loop; only
/// destroying it is for any thread. After the end of a connection they fail with `EPIPE`.
class [[nodiscard]] VESK_LOOP_API Connection : public Watch {
public:
    /// How long nothing may happen, zero for no limit. A connection that exceeds one fails with `ETIMEDOUT`.
    struct Deadlines {
        Clock::duration read{};  ///< Without data from the peer, while reading.
        Clock::duration write{}; ///< Without progress of the queue, or of the connecting.
        Clock::duration idle{};  ///< Without both.
    };
    /// The process at the other end of a Unix socket when it connected.
    struct Credentials {
        pid_t pid;   ///< Its id.
        uid_t user;  ///< Its effective user.
        gid_t group; ///< Its effective group.
    };

    /// Watches nothing.
    Connection() noexcept = default;

    /// @{
    /// Connects to an address. What is written until then is queued. A failure comes with `onEnd`, or is the result if
    /// the system reports it at once, as for Unix sockets.
    static Result<Connection> open(Loop& loop, Address const& address, Options options = {});
    static Result<Connection> open(Loop& loop, std::string_view address, Options options = {});
    /// @}
    /// Takes over a connected stream socket, such as one of `socketpair`.
    static Result<Connection> adopt(Loop& loop, Fd socket, Options options = {});

    // ---- callbacks: each replaces the one before ----

    /// Begins to read. The data is valid during the call. Set the other callbacks first.
    Result<> onData(Callback<void(std::string_view)> callback);
    /// Called when the peer has ended its direction (success: writing is still possible), and when the connection
    /// fails, which is the last call.
    void onEnd(Callback<void(Result<>)> callback);
    /// Called when the connection of `open` is established.
    void onOpen(Callback<void()> callback);
    /// Called when the queue, after it was above the high mark, is not above the low mark any more.
    void onDrain(Callback<void()> callback);
    /// Called for each descriptor that the peer passes, before the data that it came with. Without it they are closed.
    void onFd(Callback<void(Fd)> callback);

    // ---- operations ----

    /// Sends or queues data. Returns false if more than the high mark is queued: wait for `onDrain` then.
    Result<bool> write(std::string_view data);
    /// Passes a descriptor together with at least one byte of data. For Unix sockets.
    Result<bool> write(std::string_view data, Fd fd);
    /// Returns how many bytes are queued.
    std::size_t queued() const noexcept;
    /// Sets the marks of the queue in bytes, by default 64 KiB and 1 MiB.
    void setMarks(std::size_t low, std::size_t high) noexcept;
    /// Sets all deadlines, and begins to count.
    void setDeadlines(Deadlines const& deadlines) noexcept;

    /// Stops reading, so that the peer has to wait.
    void pause() noexcept;
    /// Reads again.
    Result<> resume();

    /// Stops reading, sends what is queued, and closes. Then calls back: success if everything was sent. The
    /// connection must exist until then. No other callback is called any more. A peer that does not close its side
    /// is waited for at most one second.
    Result<> close(Callback<void(Result<>)> closed = {});

    /// Returns the descriptor, for options, -1 after the end.
    int fd() const noexcept;
    /// Returns the address of the peer, none after the end.
    Address peer() const;
    /// Returns the process of the peer (`SO_PEERCRED`). For Unix sockets.
    Result<Credentials> credentials() const;

private:
    using Watch::Watch;
    friend struct detail::Access;
};

} // namespace vesk::loop
