#pragma once

#include <vesk/Export.h>
#include <vesk/common/RelaxedFlag.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/stream/IBinInOutStream.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <set>

namespace vesk {

/// The root of all sockets: one descriptor of the system as a binary stream, with a state. A subclass makes the
/// descriptor, connects or binds it, and closes it; any of them is read and written as the stream that it is:
///
///     vesk::Socket& socket = connection;
///     if (socket.write(request, size, written) != 1 || socket.flush(false)) { ... }
///     int const result = socket.read(answer, sizeof answer, count); // 0: the peer has ended the connection
///     if (result == 0) {
///         std::ErrorStorage::ack(); // The end is reported, and hadError() is true.
///     }
///
/// A socket is `INACTIVE` until it is connected, bound or adopted, then `OPEN`, and `DEAD` once it is closed. Nothing
/// returns it from there: make a new object. Only `close` changes the state of an open socket: a peer's end, a reset and
/// a time-out fail the operation that meets them.
///
/// Whether an operation waits is a property of the descriptor, decided by the constructor's `blocking`. There is no limit of
/// time: use `selectSockets`, or `Poller` with `getSocketFd`.
///
/// A socket belongs to one thread at a time, with one exception: one thread may read while another one writes. Both then
/// set `hadError`, which tells the outcome of either.
class VESK_API Socket : private tarnbase::NonCopyable, public std::IBinInOutStream {
public:
    /// Failures of sockets; the parent is `SysError`. The argument is the text of `SystemError`, unless an operation says
    /// otherwise.
    static std::ErrorType const Error;

    /// The reports of `Error`.
    enum ErrorId : int {
        INVALID_SOCKET = 0,        ///< The descriptor is not open or is not a socket.
        UNKNOWN_OPTION = 1,        ///< The protocol does not know the option.
        INVALID_OPTION = 2,        ///< The value of the option is invalid.
        CREATE_FAILED = 3,         ///< Creating the socket failed.
        ADDRESS_IN_USE = 4,        ///< The address is in use.
        ADDRESS_INVALID = 5,       ///< The address is invalid.
        CONNECTION_RESET = 6,      ///< The peer reset the connection.
        PEER_UNREACHABLE = 7,      ///< The peer is not reachable.
        NETWORK_UNAVAILABLE = 8,   ///< The network is not available.
        RESOLVE_FAILED = 9,        ///< Resolving the name failed.
        COMMUNICATION_FAILED = 10, ///< The communication failed.
        CONNECTION_CLOSED = 11,    ///< The peer closed the connection.
        MESSAGE_TOO_BIG = 12,      ///< The message is too big.
    };

    /// Returns the family of these ids.
    friend constexpr std::ErrorType const& familyOf(ErrorId /*unused*/) noexcept { return Error; }

    static constexpr int INVALID_SOCKET_FD = -1;

    enum State : uint32_t {
        INACTIVE = 0, ///< Neither bound nor connected; there may be a descriptor.
        OPEN = 1,     ///< Ready for traffic, or listening.
        DEAD = 2,     ///< Closed, for good.
    };

    /// Asserts that a valid socket was closed: "m_socket_handle.socket_fd == INVALID_SOCKET_FD" and "m_socket_state ==
    /// DEAD". Every class with a constructor of its own closes in its destructor, before this one runs.
    ~Socket() override;

    /// Whether the socket can be used: it has the buffers that it was made for, its constructor succeeded, and it is not
    /// `DEAD`.
    bool isValid() const override;

    /// Whether the last operation on this object failed, for those whose result cannot say it. Operations that report
    /// through it clear it when they begin.
    bool hadError() const noexcept { return m_had_error; }

    State getState() const noexcept { return m_socket_state; }

    /// The descriptor, for `Poller` and for calls that no class of this library makes; -1 if there is none. It stays this
    /// object's.
    int getSocketFd() const noexcept { return m_socket_handle.socket_fd; }

    /// Whether there is no descriptor: true then, with `hadError` set, after `ErrorId::INVALID_SOCKET` with the text of whatever `errno`
    /// is. Works in every state.
    bool checkValidSocket() const;

    /// Set the size of the system's buffer for what is sent or received (`setsockopt`, `SO_SNDBUF` and `SO_RCVBUF`). The
    /// system raises small sizes to its minimum and cuts large ones to its limit.
    /// @param bytes  the size
    /// @return true on failure: `ErrorId::INVALID_SOCKET` without a descriptor or for one that is no socket; `SysErrorId::INVALID_PATH` for a value
    ///         that the system refuses; `ErrorId::UNKNOWN_OPTION` for an option that it does not know; else `SysErrorId::UNCLASSIFIED`
    bool setSendBuffer(unsigned int bytes);
    bool setRecvBuffer(unsigned int bytes);

    /// The size of the system's buffer that was granted, in bytes (`getsockopt`). The system keeps its own account in
    /// twice that memory; the half is told here.
    /// @return 0 on failure, with `hadError` set: `ErrorId::INVALID_SOCKET` without a descriptor or for one that is no socket; `SysError`
    ///         7 without the right; `ErrorId::UNKNOWN_OPTION` for an unknown option; `SysErrorId::OUT_OF_MEMORY` without memory; else `SysErrorId::UNCLASSIFIED`
    unsigned int getSendBuffer() const;
    unsigned int getRecvBuffer() const;

    /// Waits until some of the sockets are ready (`select`, repeated with what is left of the time while a signal
    /// interrupts it), and removes the others from the sets.
    ///
    /// Only the descriptors are looked at: what waits in a socket's read buffer does not make it ready, so read until nothing is
    /// left before. Descriptors of 1024 (`FD_SETSIZE`) and more end the process: `Poller` has no such limit.
    ///
    /// @param read         sockets with something to read, a connection to accept, or an end
    /// @param write        sockets that would take data, or whose connection has been made
    /// @param except       sockets with out-of-band data
    /// @param timeout_ms   how long to wait, in milliseconds of real time that no clock change disturbs
    /// @param use_timeout  false: wait without a limit, also for three empty sets
    /// @return how often a socket is left in a set; 0 after the time, the sets being empty then; -1 on failure: `ErrorId::INVALID_SOCKET`
    ///         for a null pointer and for a socket without a descriptor, the sets being unchanged; `SysErrorId::OUT_OF_MEMORY` without
    ///         memory, 10 for a descriptor that was closed behind the socket's back, else 19, the sets being empty
    static int selectSockets(
        std::set<Socket const*>& read, std::set<Socket const*>& write, std::set<Socket const*>& except,
        unsigned int timeout_ms, bool use_timeout);

protected:
    /// Makes an `INACTIVE` socket without a descriptor. It is invalid, with `CommonErrorId::OUT_OF_MEMORY` pending, if there is no memory
    /// for a buffer.
    /// @param blocking      whether operations wait
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    Socket(bool blocking, unsigned int read_buffer, unsigned int write_buffer);

    /// Receives once (`recv`, repeated while a signal interrupts it). With a `size` of 0 it succeeds on an open socket at
    /// once, without a system call.
    ///
    /// Nothing there on a descriptor that does not wait is success with a count of 0. Failures put a `StreamError` on top:
    /// `CommonErrorId::CONTRACT_BROKEN` if the socket is not open (0, `read` untouched); `ErrorId::CONNECTION_CLOSED` with "Connection closed normally" for
    /// the peer's orderly end (2); `ErrorId::MESSAGE_TOO_BIG` for a system that gave more than `size`, `hadError` staying false (1); `Error`
    /// 6 for a reset (0); `ErrorId::INVALID_SOCKET` for `EINVAL` (0); `SysErrorId::SPOILED_INTEGRITY` for `EIO`,
    /// `EBADF`, `ENOTSOCK` and `EOPNOTSUPP` (0); `ErrorId::PEER_UNREACHABLE` for `ENOTCONN` and `ECONNREFUSED` (0); `ErrorId::COMMUNICATION_FAILED` for a
    /// time-out (1); `SysErrorId::RESOURCES_EXHAUSTED` or 1 for `ENOBUFS` or `ENOMEM` (1); else `SysErrorId::UNCLASSIFIED` (4).
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;

    /// Sends once (`send` without `SIGPIPE`, repeated while a signal interrupts it). A short count is success. With a `size`
    /// of 0 it succeeds on an open socket at once, without a system call.
    ///
    /// No room on a descriptor that does not wait is success with a count of 0; if the stream is to wait all the same, that is
    /// told when there is room again. Failures put a `StreamError` on top:
    /// `CommonErrorId::CONTRACT_BROKEN` if the socket is not open (0, `written` untouched); `SysErrorId::PERMISSION_DENIED` for `EPERM` and `EACCES` (0);
    /// `SysErrorId::SPOILED_INTEGRITY` for `EIO`, `EBADF`, `ENOTSOCK`, `EOPNOTSUPP` and `ENOTCONN` (0); `ErrorId::INVALID_SOCKET` for a connection that is
    /// closed (0); `ErrorId::ADDRESS_INVALID` for `EDESTADDRREQ` (0); `ErrorId::NETWORK_UNAVAILABLE` for a network that is down or has no way (0); `ErrorId::CONNECTION_RESET` for
    /// a reset (0); `ErrorId::MESSAGE_TOO_BIG` for a message that is too big (1); `SysErrorId::RESOURCES_EXHAUSTED` for `ENOBUFS` (1); else `SysErrorId::UNCLASSIFIED` (4).
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;

    /// Does nothing: the system sends by itself.
    bool performFlush() override;

    /// Ends a send for which the system has no room now. A stream that waits on a descriptor that does not, since another
    /// owner has changed it, waits here (`poll`); otherwise a flush that is under way fails, which `m_had_error` tells.
    __attribute__((visibility("hidden"))) void endWithoutRoom();

    /// The bool result of an operation of which `m_had_error` tells more. Gives true.
    bool fail() const noexcept {
        m_had_error = true;
        return true;
    }

    mutable RelaxedFlag m_had_error;
    struct {
        int socket_fd = INVALID_SOCKET_FD;
    } m_socket_handle;
    bool m_object_valid = false; ///< The buffers are there, and no constructor has failed.
    State m_socket_state = INACTIVE;

private:
    bool setBuffer(int option, unsigned int bytes);
    unsigned int getBuffer(int option, char const* operation) const;
};

} // namespace vesk
