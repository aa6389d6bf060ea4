// Fuzzes names and credentials of Unix sockets. The first byte of the input selects the operation, the second
// is the difference between the length that the system returns and that of the data, the rest is the data: a
// name, or what `getpeername` or `getsockopt` write.

#include "Check.h"

#include <vesk/Group.h>
#include <vesk/ProcessTNG.h>
#include <vesk/UnixSocket.h>
#include <vesk/User.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using vesk::UnixSocket;
using vesk::UnixSocketBase;

std::string s_answer;
socklen_t s_answer_length = 0;

int answer(void* out, socklen_t* length) {
    memcpy(out, s_answer.data(), std::min<size_t>(s_answer.size(), *length));
    *length = s_answer_length;
    return 0;
}

/// An open socket without a peer that answers.
class Connection {
public:
    explicit Connection(UnixSocketBase::NameSpace name_space) : m_socket(true, 0, 0, describe(name_space)) {
        fuzz::check(m_socket.isValid(), "the connection is adopted");
    }
    ~Connection() { static_cast<void>(m_socket.close(false)); }
    UnixSocket& get() { return m_socket; }

private:
    static UnixSocket::Description describe(UnixSocketBase::NameSpace name_space) {
        UnixSocket::Description description;
        description.valid = true;
        description.socket_fd = socket(AF_UNIX, SOCK_STREAM, 0);
        description.name_space = name_space;
        return description;
    }

    UnixSocket m_socket;
};

void checkName(UnixSocketBase::NameSpace name_space, std::string const& name) {
    Connection connection(name_space);
    sockaddr_un address{};
    socklen_t const length = connection.get().prepareAddress(address, name);
    bool const is_file = name_space == UnixSocketBase::FILESYSTEM;
    std::string expected = (is_file ? "" : std::string(1, '\0')) + name;
    expected.resize(sizeof address.sun_path - 1);
    expected += '\0';
    fuzz::check(address.sun_family == AF_UNIX, "the family is that of Unix sockets");
    fuzz::check(
        memcmp(address.sun_path, expected.data(), expected.size()) == 0, "the name is that of the reference");
    fuzz::check(length == name.size() + 3, "the length counts the whole name");
}

void checkPeerName() {
    Connection connection(UnixSocketBase::FILESYSTEM);
    connection.get().updatePeerAddress();
    std::string const got(connection.get().getPeerPath().c_str(), connection.get().getPeerPath().length());
    // The bytes that the socket had before the answer are zero.
    std::string bytes = s_answer;
    bytes.resize(sizeof(sockaddr_un));
    sa_family_t family = 0;
    memcpy(&family, bytes.data(), sizeof family);
    std::string expected;
    if (family == AF_UNIX && s_answer_length >= 3) {
        size_t const length = std::min<size_t>(s_answer_length, bytes.size());
        expected = bytes[2] == '\0' ? bytes.substr(3, length - 3) : bytes.substr(2);
        if (bytes[2] != '\0') {
            expected.resize(std::min(expected.find('\0'), expected.size()));
        }
    }
    fuzz::check(got == expected, "the name of the peer is that of the reference");
}

void checkCredentials() {
    Connection connection(UnixSocketBase::FILESYSTEM);
    long long uid = 0;
    long long gid = 0;
    int pid = 0;
    connection.get().getPeerCredentials(uid, gid, pid);
    std::string bytes = s_answer;
    bytes.resize(sizeof(ucred));
    ucred expected{};
    memcpy(&expected, bytes.data(), sizeof expected);
    if (s_answer_length != sizeof expected || expected.uid == static_cast<uid_t>(-1)) {
        fuzz::check(
            uid == vesk::User::BAD_ID && gid == vesk::Group::BAD_ID &&
                pid == vesk::ProcessTNG::INVALID_PROCESS_ID,
            "incomplete credentials, and those of no user, are rejected");
    } else {
        fuzz::check(
            uid == expected.uid && gid == expected.gid && pid == expected.pid,
            "the credentials are those of the reference");
    }
}

} // namespace

extern "C" int getpeername(int, sockaddr* address, socklen_t* length) noexcept {
    return answer(address, length);
}

extern "C" int getsockopt(int, int, int, void* value, socklen_t* length) noexcept {
    return answer(value, length);
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    s_answer.assign(reinterpret_cast<char const*>(data + 2), size - 2);
    s_answer_length = static_cast<socklen_t>(
        std::max<long long>(static_cast<long long>(s_answer.size()) + static_cast<int8_t>(data[1]), 0));
    std::string const name = s_answer.substr(0, s_answer.find('\0'));
    switch (data[0] % 4) {
    case 0:
        checkName(UnixSocketBase::FILESYSTEM, name);
        break;
    case 1:
        checkName(UnixSocketBase::ABSTRACT, name);
        break;
    case 2:
        checkPeerName();
        break;
    default:
        checkCredentials();
        break;
    }
    return 0;
}
