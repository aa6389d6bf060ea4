#pragma once

#include <vesk/Path.h>
#include <vesk/Socket.h>

#include <cstdint>
#include <sys/socket.h>
#include <sys/un.h>

namespace vesk {

/// The base class of the sockets that connect processes of one machine: a stream socket named either by a
/// file or by an abstract name, which needs no file.
///
/// The file is created when the name is bound, by `UnixServerSocket::enableListen` or `UnixSocket::connect`.
/// `close` of the socket that bound it removes it. A process that ends without closing leaves its file
/// behind, and that name cannot be bound until the file is removed. An abstract name disappears with its last
/// socket. No permissions limit connections to an abstract name, so check the peer's credentials.
///
/// | bytes of the name | path | abstract |
/// |---|---|---|
/// | up to 106 | used | used |
/// | 107 | used | used, but as another name: its first 106 bytes and a zero byte |
/// | 108 and more | rejected | rejected |
///
/// For a rejected name, the operation that binds or connects reports `SysErrorId::SPOILED_INTEGRITY`. An
/// abstract name of 107 bytes is the same as every other one with the same first 106 bytes, and
/// `updatePeerAddress` returns it with the zero byte. Outside this library an abstract name of 107 bytes is
/// valid; a peer that binds such a name is not reached. So keep abstract names within 106 bytes.
///
/// An open socket must be closed before it is destroyed. See `Socket` for threads.
class VESK_API UnixSocketBase : public Socket {
public:
    /// Where a name is looked up.
    enum NameSpace : uint32_t {
        ABSTRACT = 0,   ///< A name without a file, which disappears with its last socket.
        FILESYSTEM = 1, ///< The path of a file.
    };

    /// Closes a socket that was never open. Asserts that the socket is not open, and closes an open one
    /// afterwards.
    ~UnixSocketBase() override;

    /// @{
    /// Returns a name as it was given; empty for none. The peer's name is the last one that the system
    /// returned, see `updatePeerAddress`.
    Path const& getLocalPath() const noexcept { return m_local_path; }
    Path const& getPeerPath() const noexcept { return m_peer_path; }
    NameSpace getNameSpace() const noexcept { return m_name_space; }
    /// @}

    /// Closes the descriptor (`close`, repeated while a signal interrupts it), and removes the file of a name
    /// that this object has bound (`unlink`). The socket is `DEAD` afterwards, even on failure.
    ///
    /// Discards the content of the stream's write buffer: call `flush` before.
    /// @param do_shutdown  whether to end the connection for all other descriptors of it as well (`shutdown`)
    /// @return true on failure: `CommonErrorId::CONTRACT_BROKEN` for a socket that is already `DEAD`;
    ///         `SysErrorId::SPOILED_INTEGRITY` for a `close` that fails, without a report if the descriptor
    ///         was not open; `SysErrorId::SPOILED_INTEGRITY` on top of the report of `FileSys::removeFile`
    [[nodiscard]] bool close(bool do_shutdown);

    /// Writes the binary form of a name of this socket's kind. Truncates a path to 107 bytes, an abstract
    /// name to 106. Cannot fail, and makes no system call.
    /// @param out   must be all zero
    /// @param path  the name, used up to its first zero byte
    /// @return the length of the address in bytes: 3 more than the whole length of `path`, even if it was
    ///         truncated. The 3 bytes are the family, and the zero before an abstract name or after a path.
    socklen_t prepareAddress(sockaddr_un& out, Path const& path) const;

    /// Updates the name of the peer of an open socket (`getpeername`): the path of a file, or the bytes of an
    /// abstract name. The name is unchanged if the peer has none, or on failure, which is not reported.
    void updatePeerAddress();

    /// Returns the identity of the process at the other end, as the system recorded it when the connection
    /// was made (`getsockopt`, `SO_PEERCRED`). If the other end is a client, it is the process that called
    /// `connect`; if it is the server, the process that called `enableListen`. A listening socket returns its
    /// own process.
    /// @param uid  the user; `User::BAD_ID` without a connection or on failure, which is not reported
    /// @param gid  the group; `Group::BAD_ID` in the same cases
    /// @param pid  the process; `ProcessTNG::INVALID_PROCESS_ID` in the same cases; 0 for a process that is
    ///             not visible to this one
    void getPeerCredentials(long long& uid, long long& gid, int& pid) const;

protected:
    /// Stores the names. Does not create a descriptor. See `Socket` for the buffers.
    UnixSocketBase(
        bool blocking, unsigned int read_buffer, unsigned int write_buffer, Path const& local,
        Path const& peer, NameSpace name_space);

    /// Creates the descriptor (`socket`, close-on-exec), non-blocking unless `blocking`: the last step of a
    /// subclass's constructor. After a failure the socket is invalid and the descriptor closed.
    /// @param close_failed  called if that close fails
    void createDescriptor(bool blocking, void (*close_failed)());

    /// @{
    /// Returns the binary form of a name, for system calls.
    sockaddr const* getLocalBinary() const noexcept;
    sockaddr const* getPeerBinary() const noexcept;
    /// @}

    /// The own name, empty without one.
    Path m_local_path;
    /// The name of the peer, empty without one.
    Path m_peer_path;
    /// The length of the own name in binary form.
    socklen_t m_local_length = 0;
    /// The length of the name of the peer in binary form.
    socklen_t m_peer_length = 0;
    /// The own name in binary form.
    sockaddr_un m_local_binary{};
    /// The name of the peer in binary form.
    sockaddr_un m_peer_binary{};
    bool m_bound = false; ///< This object has bound its name: there may be a file to remove.
    /// Where both names are looked up.
    NameSpace m_name_space;

private:
    /// The system copies up to 128 bytes of an address before it rejects its length. These bytes must belong
    /// to this object.
    [[maybe_unused]] char m_behind_addresses[sizeof(sockaddr_storage) - sizeof(sockaddr_un)] = {};
};

} // namespace vesk
