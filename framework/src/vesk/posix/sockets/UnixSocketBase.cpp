#include <vesk/UnixSocketBase.h>

#include "SocketPosixCommon.h"
#include "vesk/posix/detail/SystemErrorText.h"

#include <vesk/FileSys.h>
#include <vesk/Group.h>
#include <vesk/ProcessTNG.h>
#include <vesk/User.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/UnixSocketBase";

static_assert(sizeof(sockaddr_un) == 110 && offsetof(sockaddr_un, sun_path) == 2);
static_assert(sizeof(ucred) == 12);

/// The family, and the zero before an abstract name or after a path.
constexpr socklen_t BESIDE_NAME = 3;

/// The user that the system returns for a socket that never had a peer.
constexpr uid_t NOBODY = static_cast<uid_t>(-1);

} // namespace

UnixSocketBase::UnixSocketBase(
    bool blocking, unsigned int read_buffer, unsigned int write_buffer, Path const& local, Path const& peer,
    NameSpace name_space)
    : Socket(blocking, read_buffer, write_buffer),
      m_local_path(local),
      m_peer_path(peer),
      m_name_space(name_space) {}

UnixSocketBase::~UnixSocketBase() {
    if (!m_object_valid || m_socket_state == DEAD) {
        return;
    }
    CancellationOff const cancellation_off;
    std::GlobalErrorHandler::doAssert(
        m_socket_state != OPEN, "this->getState() != OPEN", SOURCE, __LINE__, "~UnixSocketBase", nullptr);
    KeptErrorChain const kept_chain;
    bool const has_error = close(false);
    std::GlobalErrorHandler::doAssert(
        !has_error, "!has_error", SOURCE, __LINE__, "~UnixSocketBase", "error closing socket");
}

void UnixSocketBase::createDescriptor(bool blocking, void (*close_failed)()) {
    m_socket_handle.socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socket_handle.socket_fd == INVALID_SOCKET_FD) {
        classifySocketCreateError();
        m_object_valid = false;
        return;
    }
    if (!blocking && setNonBlocking(m_socket_handle.socket_fd)) {
        closeKeepingChain([this] { return close(false); }, close_failed);
        m_object_valid = false;
    }
}

socklen_t UnixSocketBase::prepareAddress(sockaddr_un& out, Path const& path) const {
    out.sun_family = AF_UNIX;
    if (m_name_space == FILESYSTEM) {
        strncpy(out.sun_path, path.c_str(), sizeof out.sun_path - 1);
    } else {
        strncpy(out.sun_path + 1, path.c_str(), sizeof out.sun_path - 2);
        out.sun_path[0] = '\0';
    }
    return static_cast<socklen_t>(path.length()) + BESIDE_NAME;
}

sockaddr const* UnixSocketBase::getLocalBinary() const noexcept {
    return reinterpret_cast<sockaddr const*>(&m_local_binary);
}

sockaddr const* UnixSocketBase::getPeerBinary() const noexcept {
    return reinterpret_cast<sockaddr const*>(&m_peer_binary);
}

bool UnixSocketBase::close(bool do_shutdown) {
    m_had_error = false;
    if (m_socket_state == DEAD) {
        report(
            SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "called close on already DEAD socket");
        return fail();
    }
    if (do_shutdown && shutdownSocket(m_socket_handle.socket_fd)) {
        std::ErrorStorage::ack();
    }
    m_had_error = closeSocket(m_socket_handle.socket_fd);
    m_socket_handle.socket_fd = INVALID_SOCKET_FD;
    if (m_name_space == FILESYSTEM && m_bound && FileSys::removeFile(m_local_path.c_str())) {
        report(SOURCE, Chain::ON_TOP, SysErrorId::SPOILED_INTEGRITY, SystemErrorText().get());
        m_had_error = true;
    }
    m_socket_state = DEAD;
    return m_had_error;
}

void UnixSocketBase::updatePeerAddress() {
    if (m_socket_state != OPEN) {
        return;
    }
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (getpeername(m_socket_handle.socket_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        address.sun_family != AF_UNIX || length < BESIDE_NAME) {
        return;
    }
    // The system may return a name that is longer than the buffer, or one without a terminating zero.
    length = std::min<socklen_t>(length, sizeof address);
    if (address.sun_path[0] != '\0') {
        m_peer_path.assign(address.sun_path, strnlen(address.sun_path, sizeof address.sun_path));
    } else {
        m_peer_path.assign(address.sun_path + 1, length - BESIDE_NAME);
    }
}

void UnixSocketBase::getPeerCredentials(long long& uid, long long& gid, int& pid) const {
    uid = User::BAD_ID;
    gid = Group::BAD_ID;
    pid = ProcessTNG::INVALID_PROCESS_ID;
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(m_socket_handle.socket_fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        length != sizeof credentials || credentials.uid == NOBODY) {
        return;
    }
    uid = credentials.uid;
    gid = credentials.gid;
    pid = credentials.pid;
}

} // namespace vesk
