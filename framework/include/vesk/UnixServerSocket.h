#pragma once

#include <vesk/UnixSocket.h>
#include <vesk/UnixSocketBase.h>

namespace vesk {

/// A name at which other processes of the machine can connect:
///
///     vesk::UnixServerSocket server("/run/clock", true, vesk::UnixSocketBase::FILESYSTEM);
///     server.enableListen(8);
///     vesk::UnixSocket connection(true, 512, 512, server.acceptConnection());
///     ...
///     server.close(false); // Removes the file.
///
/// It is a stream only by descent: reading, writing and flushing fail in any state, with `CommonErrorId::CONTRACT_BROKEN` and `StreamError`
/// 3 on top. See `UnixSocketBase` for names, `Socket` for states and threads.
class VESK_API UnixServerSocket : public UnixSocketBase {
public:
    /// Makes an `INACTIVE` socket (`socket`, closed by `exec`).
    ///
    /// It is invalid without a report if the name is empty, and with one for the reasons of `UnixSocket`.
    /// @param local       the name
    /// @param blocking    whether `acceptConnection` waits
    /// @param name_space  what kind of name it is
    UnixServerSocket(Path const& local, bool blocking, NameSpace name_space);

    /// Binds the name and begins to listen (`bind`, `listen`): the socket is `OPEN` then. A file that is there already,
    /// such as one that a crashed process has left, is not removed.
    ///
    /// After a failure, told by `hadError`, the socket is `DEAD` and its file removed, unless it was not `INACTIVE`
    /// (`CommonErrorId::CONTRACT_BROKEN`). Reports `Socket::ErrorId::ADDRESS_IN_USE` for a name that is taken; `SysErrorId::PERMISSION_DENIED` without the right; `SysError`
    /// 10 for a name that is not usable; `SysErrorId::RESOURCES_EXHAUSTED` or 1 without resources or memory; `Socket::ErrorId::ADDRESS_INVALID` as the system
    /// names it; else `SysErrorId::UNCLASSIFIED`.
    /// @param backlog  how many connections may wait to be accepted, within the system's limit
    void enableListen(unsigned int backlog);

    /// Takes a connection that waits (`accept4`, closed by `exec`, repeated while a signal interrupts it).
    /// @return empty if there is none on a socket that does not wait, without an error, and on failure, with `hadError`:
    ///         `CommonErrorId::CONTRACT_BROKEN` for a socket that is not `OPEN`; `SysErrorId::RESOURCES_EXHAUSTED` without a descriptor, 1 without memory, 7
    ///         without the right; `Socket::ErrorId::CONNECTION_CLOSED` for a connection that was given up before, 0, 8, 10 and `SysErrorId::SPOILED_INTEGRITY`
    ///         as the system names them; else `SysErrorId::UNCLASSIFIED`
    UnixSocket::Description acceptConnection();

protected:
    /// These always fail: a server has no traffic of its own.
    bool performRead(void* buffer, unsigned int size, unsigned int& read) override;
    bool performWrite(void const* buffer, unsigned int size, unsigned int& written) override;
    bool performFlush() override;

private:
    bool refuse(char const* text);
};

} // namespace vesk
