#pragma once

#include <vesk/Export.h>
#include <vesk/common/RelaxedFlag.h>

#include <tarncommon/error/ErrorType.h>
#include <tarncommon/stream/IBinInOutStream.h>
#include <tarncommon/tarnbase/NonCopyable.h>

#include <cstdint>
#include <set>

namespace vesk {

/// The base class of all sockets: a descriptor of the system as a binary stream, with a state.
///
/// A subclass creates the descriptor, connects or binds it, and closes it. Every socket is read and written
/// as a stream:
///
///     vesk::Socket& socket = connection;
///     if (socket.write(request, size, written) != 1 || socket.flush(false)) { ... }
///     int const result = socket.read(answer, sizeof answer, count); // 0: the peer has ended the connection
///     if (result == 0) {
///         std::ErrorStorage::ack(); // The end is reported, and hadError() is true.
///     }
///
/// A socket is `INACTIVE` until it is connected, starts to listen, is opened or adopts a connection. Then it
/// is `OPEN`, and `DEAD` once it is closed. No operation reopens a `DEAD` socket: create a new object. Only
/// `close` changes the state of an open socket. The end of the peer, a reset or a time-out only makes the
/// current operation fail.
///
/// The descriptor's mode decides whether an operation blocks; the constructor's `blocking` sets it.
/// Operations have no time limit: use `selectSockets`, or `Poller` with `getSocketFd`.
///
/// A socket must be used by one thread at a time, with one exception: one thread may read while another one
/// writes. Both then set `hadError`, which holds the outcome of the last operation of either thread.
class VESK_API Socket : private tarnbase::NonCopyable, public std::IBinInOutStream {
public:
    /// The family of socket failures. Its parent is `SysError`. The argument is the text of `SystemError`,
    /// unless an operation says otherwise.
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
        DEAD = 2,     ///< Closed permanently.
    };

    /// Asserts that a valid socket is closed: "m_socket_handle.socket_fd == INVALID_SOCKET_FD" and
    /// "m_socket_state == DEAD". Every subclass with a constructor of its own closes the socket in its
    /// destructor, which runs before this one. If such a constructor throws, there is no assertion, and the
    /// descriptor is closed.
    ~Socket() override;

    /// Returns whether the socket can be used: its buffers were allocated, its constructor succeeded, and it
    /// is not `DEAD`.
    bool isValid() const override;

    /// Returns whether the last operation on this object failed, for operations with a result that cannot
    /// express it. Operations that report through it clear it when they begin.
    bool hadError() const noexcept { return m_had_error; }

    State getState() const noexcept { return m_socket_state; }

    /// Returns the descriptor, for `Poller` and for system calls that this library does not wrap; -1 if there
    /// is none. The object keeps the ownership.
    int getSocketFd() const noexcept { return m_socket_handle.socket_fd; }

    /// Returns true if there is no descriptor, after it has set `hadError` and reported
    /// `ErrorId::INVALID_SOCKET` with the text of the current `errno`. Works in every state.
    bool checkValidSocket() const;

    /// Sets the size of the system's send or receive buffer (`setsockopt`, `SO_SNDBUF` and `SO_RCVBUF`). The
    /// system raises small sizes to its minimum and limits large ones to its maximum.
    /// @param bytes  the size
    /// @return true on failure: `ErrorId::INVALID_SOCKET` without a descriptor or for one that is not a
    ///         socket; `SysErrorId::INVALID_PATH` for a value that the system rejects;
    ///         `ErrorId::UNKNOWN_OPTION` for an option that it does not know; otherwise
    ///         `SysErrorId::UNCLASSIFIED`
    bool setSendBuffer(unsigned int bytes);
    bool setRecvBuffer(unsigned int bytes);

    /// Returns the granted size of the system's send or receive buffer in bytes (`getsockopt`). The system
    /// reports twice that size, which includes its bookkeeping; this is half of it.
    /// @return 0 on failure, with `hadError` set: `ErrorId::INVALID_SOCKET` without a descriptor or for one
    ///         that is not a socket; `SysErrorId::PERMISSION_DENIED` without the permission;
    ///         `ErrorId::UNKNOWN_OPTION` for an unknown option; `SysErrorId::OUT_OF_MEMORY` without memory;
    ///         otherwise `SysErrorId::UNCLASSIFIED`
    unsigned int getSendBuffer() const;
    unsigned int getRecvBuffer() const;

    /// Blocks until at least one of the sockets is ready, and removes all others from the sets (`select`,
    /// repeated with the remaining time while a signal interrupts it).
    ///
    /// Only the descriptors are examined. Data in a socket's read buffer does not make it ready, so read
    /// until nothing is left before. A descriptor of 1024 (`FD_SETSIZE`) or more ends the process; `Poller`
    /// has no such limit.
    ///
    /// @param read         sockets with data to read, a connection to accept, or an end of the connection
    /// @param write        sockets that accept data or have completed a connection
    /// @param except       sockets with out-of-band data
    /// @param timeout_ms   the time limit in milliseconds of real time; changes of the clock do not affect it
    /// @param use_timeout  false: waits without a limit, even if all three sets are empty
    /// @return the number of sockets left in the sets, where a socket counts once for each set; 0 when the
    ///         time has run out, with empty sets; -1 on failure: `ErrorId::INVALID_SOCKET` for a null pointer
    ///         and for a socket without a descriptor, with unchanged sets; with empty sets
    ///         `SysErrorId::OUT_OF_MEMORY` without memory, `SysErrorId::SPOILED_INTEGRITY` for a descriptor
    ///         that was closed without the socket, otherwise `SysErrorId::UNCLASSIFIED`
    static int selectSockets(
        std::set<Socket const*>& read, std::set<Socket const*>& write, std::set<Socket const*>& except,
        unsigned int timeout_ms, bool use_timeout);

protected:
    /// Creates an `INACTIVE` socket without a descriptor. Without memory for a buffer the socket is invalid,
    /// with `CommonErrorId::OUT_OF_MEMORY` pending.
    /// @param blocking      whether operations block
    /// @param read_buffer   bytes to read ahead; 0: unbuffered
    /// @param write_buffer  bytes to collect before they are sent; 0: unbuffered
    Socket(bool blocking, unsigned int read_buffer, unsigned int write_buffer);

    /// Takes over the descriptor of an accepted connection for a constructor. The socket is `OPEN` afterwards.
    /// Returns true, after a report in the name of `file`, on failure: an invalid object, which leaves the
    /// descriptor to its description.
    TARN_HIDDEN bool adopt(
        bool is_valid, int fd, bool blocking, char const* file, char const* misuse,
        int line = __builtin_LINE());

    /// Receives once (`recv`, repeated while a signal interrupts it). With a `size` of 0 it succeeds on an
    /// open socket immediately, without a system call.
    ///
    /// If a non-blocking descriptor has no data, it succeeds with a count of 0. A failure is reported as a
    /// cause with a `StreamErrorId` on top, and sets `hadError` except for `ErrorId::MESSAGE_TOO_BIG`:
    ///
    /// | failure | cause | on top |
    /// |---|---|---|
    /// | the socket is not open; `read` is unchanged | `CommonErrorId::CONTRACT_BROKEN` | `UNUSABLE` |
    /// | the peer has closed the connection in order | `ErrorId::CONNECTION_CLOSED` with "Connection closed normally" | `END_OF_STREAM` |
    /// | the system returned more than `size` bytes | `ErrorId::MESSAGE_TOO_BIG` | `TRANSFER_FAILED` |
    /// | `ECONNRESET` | `ErrorId::CONNECTION_RESET` | `UNUSABLE` |
    /// | `EINVAL` | `ErrorId::INVALID_SOCKET` | `UNUSABLE` |
    /// | `EIO`, `EBADF`, `ENOTSOCK`, `EOPNOTSUPP` | `SysErrorId::SPOILED_INTEGRITY` | `UNUSABLE` |
    /// | `ENOTCONN`, `ECONNREFUSED` | `ErrorId::PEER_UNREACHABLE` | `UNUSABLE` |
    /// | `ETIMEDOUT` | `ErrorId::COMMUNICATION_FAILED` | `TRANSFER_FAILED` |
    /// | `ENOBUFS` | `SysErrorId::RESOURCES_EXHAUSTED` | `TRANSFER_FAILED` |
    /// | `ENOMEM` | `SysErrorId::OUT_OF_MEMORY` | `TRANSFER_FAILED` |
    /// | any other | `SysErrorId::UNCLASSIFIED` | `UNCLASSIFIED` |
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;

    /// Sends once (`send` without `SIGPIPE`, repeated while a signal interrupts it). A short count is
    /// success. With a `size` of 0 it succeeds on an open socket immediately, without a system call.
    ///
    /// If a non-blocking descriptor has no room, it succeeds with a count of 0. If the stream is blocking
    /// nevertheless, it first waits until there is room again. A failure is reported as a cause with a
    /// `StreamErrorId` on top, and sets `hadError`:
    ///
    /// | failure | cause | on top |
    /// |---|---|---|
    /// | the socket is not open; `written` is unchanged | `CommonErrorId::CONTRACT_BROKEN` | `UNUSABLE` |
    /// | `EPERM`, `EACCES` | `SysErrorId::PERMISSION_DENIED` | `UNUSABLE` |
    /// | `EIO`, `EBADF`, `ENOTSOCK`, `EOPNOTSUPP`, `ENOTCONN` | `SysErrorId::SPOILED_INTEGRITY` | `UNUSABLE` |
    /// | `EPIPE`: the connection is closed | `ErrorId::INVALID_SOCKET` | `UNUSABLE` |
    /// | `EDESTADDRREQ` | `ErrorId::ADDRESS_INVALID` | `UNUSABLE` |
    /// | `ENETDOWN`, `ENETUNREACH` | `ErrorId::NETWORK_UNAVAILABLE` | `UNUSABLE` |
    /// | `ECONNRESET` | `ErrorId::CONNECTION_RESET` | `UNUSABLE` |
    /// | `EMSGSIZE` | `ErrorId::MESSAGE_TOO_BIG` | `TRANSFER_FAILED` |
    /// | `ENOBUFS` | `SysErrorId::RESOURCES_EXHAUSTED` | `TRANSFER_FAILED` |
    /// | any other | `SysErrorId::UNCLASSIFIED` | `UNCLASSIFIED` |
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;

    /// Does nothing: the system transmits sent data without a flush.
    bool performFlush() override;

    /// Completes a send for which the system has no room now. A blocking stream on a non-blocking descriptor,
    /// which another owner of it has changed to that mode, waits here for room (`poll`). On a non-blocking
    /// stream it sets `m_had_error` if a flush is in progress, which then fails.
    TARN_HIDDEN void endWithoutRoom();

    /// Sets `m_had_error` and returns true, the result of a failed operation.
    bool fail() const noexcept {
        m_had_error = true;
        return true;
    }

    mutable RelaxedFlag m_had_error;
    struct {
        int socket_fd = INVALID_SOCKET_FD;
    } m_socket_handle;
    bool m_object_valid = false; ///< The buffers are allocated, and no constructor has failed.
    State m_socket_state = INACTIVE;

private:
    bool setBuffer(int option, unsigned int bytes);
    unsigned int getBuffer(int option, char const* operation) const;
};

} // namespace vesk
