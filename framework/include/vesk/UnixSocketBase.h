#pragma once

#include <vesk/Path.h>
#include <vesk/Socket.h>

#include <cstdint>
#include <sys/socket.h>
#include <sys/un.h>

namespace vesk {

/// The root of the sockets that connect processes of one machine: a stream socket with a name that is a file, or a name of
/// its own kind that needs no file.
///
/// A file appears when the name is bound, by `UnixServerSocket::enableListen` or `UnixSocket::connect`, and `close` of the
/// socket that bound it removes it. A process that ends without closing leaves its file behind, and nobody can bind that
/// name until it is removed. An abstract name goes with its last socket; who may connect to it is not limited by any
/// permissions, so ask for the peer's credentials.
///
/// | bytes of the name | path | abstract |
/// |---|---|---|
/// | up to 106 | taken | taken |
/// | 107 | taken | taken, but another name: its first 106 bytes and a zero byte |
/// | 108 and more | refused | refused |
///
/// A refused name is `SysErrorId::SPOILED_INTEGRITY` from the operation that binds or connects. The abstract name of 107 bytes is the same for
/// all names with these first 106 bytes, and `updatePeerAddress` gives it with the zero byte. A peer that binds the whole name
/// by other means than this library, for which an abstract name of 107 bytes is a valid one, is not reached. So keep
/// abstract names within 106 bytes.
///
/// A socket that is open must be closed before it is destroyed. See `Socket` for threads.
class VESK_API UnixSocketBase : public Socket {
public:
    enum NameSpace : uint32_t {
        ABSTRACT = 0,   ///< A name that is no file and disappears with its last socket.
        FILESYSTEM = 1, ///< The path of a file.
    };

    /// Closes a socket that was never open; one that is open is closed after an assertion.
    ~UnixSocketBase() override;

    /// The names as they were given; empty for none. That of the peer is what the system told last, see
    /// `updatePeerAddress`.
    Path const& getLocalPath() const noexcept { return m_local_path; }
    Path const& getPeerPath() const noexcept { return m_peer_path; }
    NameSpace getNameSpace() const noexcept { return m_name_space; }

    /// Closes the descriptor (`close`, repeated while a signal interrupts it), and removes the file of a name that this
    /// object has bound (`unlink`). Whatever fails, the socket is `DEAD` afterwards.
    ///
    /// What the stream's buffer still holds is not sent: `flush` before.
    /// @param do_shutdown  whether to end the connection also for other descriptors of it (`shutdown`)
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket that is `DEAD` already; `SysErrorId::SPOILED_INTEGRITY` for a `close` that
    ///         fails, without a report if the descriptor was not open; `SysErrorId::SPOILED_INTEGRITY` on top of what
    ///         `FileSys::removeFile` reported
    bool close(bool do_shutdown);

    /// Writes the binary form of a name of this socket's kind. A path is cut to 107 bytes, an abstract name to 106. Fails
    /// never, makes no system call.
    /// @param out   must be all zero
    /// @param path  the name, up to its first zero byte
    /// @return the length of the address in bytes: 3 more than the whole length of `path`, also if that was cut. The 3 are the
    ///         family, and the zero before an abstract name or behind a path.
    socklen_t prepareAddress(sockaddr_un& out, Path const& path) const;

    /// Asks the system for the name of the peer of an open socket (`getpeername`): the path of a file, or the bytes of an
    /// abstract name. A peer without a name and a failure leave it as it was; nothing is reported.
    void updatePeerAddress();

    /// Who made the other end of the connection, as the system noted when it was made (`getsockopt`, `SO_PEERCRED`): of a
    /// client the one who called `connect`, of a server the one who called `enableListen`. A socket that listens tells of
    /// itself.
    /// @param uid  the user; `User::BAD_ID` if there is no connection, or on failure, without a report
    /// @param gid  the group; likewise `Group::BAD_ID`
    /// @param pid  the process; likewise `ProcessTNG::INVALID_PROCESS_ID`; 0 for one that this process cannot see
    void getPeerCredentials(long long& uid, long long& gid, int& pid) const;

protected:
    /// Keeps the names; makes no descriptor. See `Socket` for the buffers.
    UnixSocketBase(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Path const& local,
        Path const& peer, NameSpace name_space);

    /// The end of a subclass's constructor: makes the descriptor (`socket`, closed by `exec`), one that does not wait unless
    /// `blocking`. After a failure the socket is invalid and the descriptor closed.
    /// @param close_failed  called if that close fails
    void createDescriptor(bool blocking, void (*close_failed)());

    sockaddr const* getLocalBinary() const noexcept;
    sockaddr const* getPeerBinary() const noexcept;

    Path m_local_path;
    Path m_peer_path;
    socklen_t m_local_length = 0;
    socklen_t m_peer_length = 0;
    sockaddr_un m_local_binary{};
    sockaddr_un m_peer_binary{};
    bool m_bound = false; ///< By this object: there may be a file to remove.
    NameSpace m_name_space;

private:
    /// The system copies up to 128 bytes of an address before it refuses its length. They are to be this object's.
    [[maybe_unused]] char m_behind_addresses[sizeof(sockaddr_storage) - sizeof(sockaddr_un)] = {};
};

} // namespace vesk
