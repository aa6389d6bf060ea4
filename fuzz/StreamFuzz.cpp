// Fuzzes the buffered stream of a TCP connection with a vector as reference. The first two bytes of the input
// are the sizes of the buffers. Each further pair of bytes is one step: the operation, and how many bytes it
// transfers.

#include "Check.h"

#include <vesk/TCPSocket.h>

#include <tarncommon/error/ErrorStorage.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using vesk::TCPSocket;

/// A stream beside its peer, a bare descriptor, and what is on the way in each direction.
class Connection {
public:
    Connection(unsigned int read_buffer, unsigned int write_buffer)
        : m_socket(false, read_buffer, write_buffer, connect(m_peer)) {
        fuzz::check(m_socket.isValid(), "the connection is adopted");
    }
    ~Connection() {
        m_socket.close(true);
        ::close(m_peer);
        std::ErrorStorage::ack();
    }

    void step(uint8_t operation, unsigned int size) {
        switch (operation % 5) {
        case 0:
            return sendAsPeer(size);
        case 1:
            return receiveAsPeer(size);
        case 2:
            return read(size);
        case 3:
            return write(size);
        default:
            fuzz::check(!m_socket.flush(false), "a small flush succeeds");
        }
    }

    /// Transfers what is still on the way, and closes the peer's side.
    void finish() {
        fuzz::check(!m_socket.flush(false), "a small flush succeeds");
        receiveAsPeer(UINT16_MAX);
        fuzz::check(m_outgoing.empty(), "the peer gets everything that was flushed");
        ::shutdown(m_peer, SHUT_WR);
        while (!m_incoming.empty()) {
            read(64);
        }
        unsigned int count = 1;
        char byte = 0;
        fuzz::check(m_socket.read(&byte, 1, count) == 0 && count == 0, "then the stream ends");
        fuzz::check(
            std::ErrorStorage::is(std::IBinStreamBase::StreamErrorId::END_OF_STREAM), "which is reported");
        std::ErrorStorage::ack();
    }

private:
    static TCPSocket::Description connect(int& peer) {
        int ends[2] = {-1, -1};
        fuzz::check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0, "there are descriptors");
        TCPSocket::Description description;
        description.valid = true;
        description.socket_fd = ends[0];
        peer = ends[1];
        return description;
    }

    void sendAsPeer(unsigned int size) {
        std::vector<uint8_t> const bytes = makeBytes(size, m_incoming);
        fuzz::check(
            ::write(m_peer, bytes.data(), size) == static_cast<ssize_t>(size), "a small write succeeds");
    }
    void receiveAsPeer(unsigned int size) {
        std::vector<uint8_t> bytes(size);
        ssize_t const count = ::read(m_peer, bytes.data(), size);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        checkOrder(bytes, m_outgoing);
    }
    void read(unsigned int size) {
        std::vector<uint8_t> bytes(size);
        unsigned int count = 0;
        fuzz::check(m_socket.read(bytes.data(), size, count) == 1, "a read of an open connection succeeds");
        fuzz::check(count <= size, "a read returns at most what it was asked for");
        fuzz::check(size == 0 || m_incoming.empty() || count > 0, "available bytes are read");
        bytes.resize(count);
        checkOrder(bytes, m_incoming);
    }
    void write(unsigned int size) {
        std::vector<uint8_t> const bytes = makeBytes(size, m_outgoing);
        unsigned int count = 0;
        fuzz::check(m_socket.write(bytes.data(), size, count) == 1, "a small write succeeds");
        fuzz::check(count == size, "a small write is whole");
    }

    std::vector<uint8_t> makeBytes(unsigned int size, std::deque<uint8_t>& expected) {
        std::vector<uint8_t> bytes(size);
        for (uint8_t& byte : bytes) {
            byte = m_next++;
            expected.push_back(byte);
        }
        return bytes;
    }
    static void checkOrder(std::vector<uint8_t> const& bytes, std::deque<uint8_t>& expected) {
        fuzz::check(bytes.size() <= expected.size(), "no byte arrives that was not sent");
        for (uint8_t const byte : bytes) {
            fuzz::check(byte == expected.front(), "the bytes arrive in order");
            expected.pop_front();
        }
    }

    int m_peer = -1;
    uint8_t m_next = 0;
    std::deque<uint8_t> m_incoming;
    std::deque<uint8_t> m_outgoing;
    TCPSocket m_socket;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    // 64 steps of at most 255 bytes fit into the buffers of the system.
    if (size < 2 || size > 130) {
        return 0;
    }
    Connection connection(data[0], data[1]);
    for (size_t i = 2; i + 1 < size; i += 2) {
        connection.step(data[i], data[i + 1]);
    }
    connection.finish();
    return 0;
}
