#pragma once

#include <vesk/UnixSocket.h>
#include <vesk/UnixSocketBase.h>

namespace vesk {

/// A socket that listens for connections from other processes of the machine:
///
///     vesk::UnixServerSocket server("/run/clock", true, vesk::UnixSocketBase::FILESYSTEM);
///     server.enableListen(8);
///     vesk::UnixSocket connection(true, 512, 512, server.acceptConnection());
///     ...
///     server.close(false); // Removes the file.
///
/// It is a stream only by inheritance: reading, writing and flushing fail in any state, with
/// `CommonErrorId::CONTRACT_BROKEN` and `StreamErrorId::NOT_SUPPORTED` on top. See `UnixSocketBase` for
/// names, `Socket` for states and threads.
class VESK_API UnixServerSocket : public UnixSocketBase {
public:
    /// Creates an `INACTIVE` socket (`socket`, close-on-exec).
    ///
    /// If the name is empty, it is invalid without a report. It is invalid with a report for the failures of
    /// `UnixSocket`.
    /// @param local       the name to listen at
    /// @param blocking    whether `acceptConnection` blocks
    /// @param name_space  the kind of the name
    UnixServerSocket(Path const& local, bool blocking, NameSpace name_space);

    /// Binds the name and starts to listen (`bind`, `listen`): the socket is `OPEN` then. Does not remove an
    /// existing file, such as one that a crashed process has left behind.
    ///
    /// `hadError` returns whether it failed. For a socket that is not `INACTIVE`, the state is unchanged
    /// (`CommonErrorId::CONTRACT_BROKEN`). After any other failure the socket is `DEAD`, and its file is
    /// removed if it was created. Reports `CommonErrorId::INVALID_ARGUMENT`, after an assertion, without a
    /// descriptor; `Socket::ErrorId::ADDRESS_IN_USE` for a name in use; `SysErrorId::PERMISSION_DENIED`
    /// without the permission; `SysErrorId::SPOILED_INTEGRITY` for a name that is not usable;
    /// `SysErrorId::RESOURCES_EXHAUSTED` without resources; `SysErrorId::OUT_OF_MEMORY` without memory;
    /// `Socket::ErrorId::ADDRESS_INVALID` as the system returns it; otherwise `SysErrorId::UNCLASSIFIED`.
    /// @param backlog  the number of connections that may wait to be accepted, within the system's limit
    void enableListen(unsigned int backlog);

    /// Accepts the next waiting connection (`accept4`, close-on-exec, repeated while a signal interrupts it).
    /// On a blocking socket it blocks until a connection arrives.
    /// @return the connection. Empty, with `hadError` false, if the socket is non-blocking and no connection
    ///         waits. Empty, with `hadError` true, on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket
    ///         that is not `OPEN`; `SysErrorId::RESOURCES_EXHAUSTED` without a descriptor;
    ///         `SysErrorId::OUT_OF_MEMORY` without memory; `SysErrorId::PERMISSION_DENIED` without the
    ///         permission; `Socket::ErrorId::CONNECTION_CLOSED` for a connection that was aborted before;
    ///         `Socket::ErrorId::INVALID_SOCKET`, `Socket::ErrorId::NETWORK_UNAVAILABLE`,
    ///         `Socket::ErrorId::COMMUNICATION_FAILED` and `SysErrorId::SPOILED_INTEGRITY` as the system
    ///         returns them; otherwise `SysErrorId::UNCLASSIFIED`
    UnixSocket::Description acceptConnection();

protected:
    /// Always fails: a listening socket transfers no data.
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;
    bool performFlush() override;

private:
    bool refuse(char const* text);
};

} // namespace vesk
