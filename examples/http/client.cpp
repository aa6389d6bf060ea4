// Fetches one URL over HTTP/1.1: the body goes to standard output, the status line to standard error.
//
//     http_client URL
//
//     $ http_client http://device.local:8080/index.html >index.html
//     HTTP/1.1 200 OK
//
// URL is "http://HOST[:PORT][/PATH][?QUERY]"; an IPv6 address must be in brackets. A name is tried over IPv4
// first. Redirections are not followed. The client fails if the server is silent for 30 seconds.
//
// Exit codes: 0 for a status of 200 to 299, 1 for any other status, 2 usage, 3 no answer or an invalid one.

#include <vesk/TCPSocket.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

namespace {

using vesk::IPSocket;
using vesk::TCPSocket;

constexpr size_t MAX_LINE = 65536;
constexpr int MAX_FIELDS = 1000;
constexpr int MAX_HEADS = 10; // Informational heads (status 1xx) and the final one.
constexpr unsigned int PATIENCE_MS = 30000;

struct Url {
    std::string host;
    unsigned short port = 80;
    std::string authority; ///< Host and port as given, for the Host field.
    std::string target;
    bool is_v6 = false;
};

std::string toLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    });
    return text;
}

/// Returns the value of a text that consists of digits only; -1 for any other text.
long long toNumber(std::string const& text, int base) {
    char const* const digits = base == 16 ? "0123456789abcdefABCDEF" : "0123456789";
    if (text.empty() || text.size() > 15 || text.find_first_not_of(digits) != std::string::npos) {
        return -1;
    }
    return strtoll(text.c_str(), nullptr, base);
}

/// Parses a URL. Returns true if the text is not a URL that this program supports.
bool parse(std::string const& text, Url& url) {
    bool const is_plain = std::all_of(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > 0x20 && c != 0x7F; });
    if (!is_plain || toLower(text.substr(0, 7)) != "http://") {
        return true;
    }
    size_t const end = std::min(text.find_first_of("/?#", 7), text.size());
    url.authority = text.substr(7, end - 7);
    url.target = text.substr(end, text.find('#', end) - end);
    if (url.target.empty() || url.target[0] != '/') {
        url.target.insert(0, "/");
    }
    url.is_v6 = !url.authority.empty() && url.authority[0] == '[';
    size_t const host_end = url.is_v6 ? url.authority.find(']') : url.authority.find(':');
    if (url.is_v6 && host_end == std::string::npos) {
        return true;
    }
    url.host = url.authority.substr(url.is_v6 ? 1 : 0, host_end - (url.is_v6 ? 1 : 0));
    std::string const rest =
        host_end == std::string::npos ? "" : url.authority.substr(host_end + (url.is_v6 ? 1 : 0));
    if (!rest.empty()) {
        long long const port = rest[0] == ':' ? toNumber(rest.substr(1), 10) : -1;
        if (port < 1 || port > 65535) {
            return true;
        }
        url.port = static_cast<unsigned short>(port);
    }
    return url.host.empty() || url.host.find('@') != std::string::npos;
}

/// A connection to the server that is read by lines and by blocks.
class Connection {
public:
    Connection() = default;
    ~Connection() { close(); }

    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    /// Connects to the server. Returns true if it cannot be reached.
    /// @param reasons  receives the error chain of each failed attempt
    bool open(Url const& url, std::string& reasons) {
        for (IPSocket::IPProtocolVersion const version : {IPSocket::IPV4, IPSocket::IPV6}) {
            if (url.is_v6 && version == IPSocket::IPV4) {
                continue;
            }
            m_socket = std::make_unique<TCPSocket>(
                true, 0U, 0U, IPSocket::IPAddress(), IPSocket::IPAddress(url.host, url.port), false, version);
            if (m_socket->isValid() && !m_socket->connect()) {
                return false;
            }
            reasons += tarn_error.getReasonList() + "\n";
            std::ErrorStorage::ack();
            close();
        }
        return true;
    }

    /// Sends the whole text. Returns true on failure.
    bool send(std::string const& text) {
        unsigned int written = 0;
        return m_socket->write(text.data(), static_cast<unsigned int>(text.size()), written) != 1 ||
            written != text.size();
    }

    /// Reads one line and removes its line end. Returns false if there is no further line.
    bool readLine(std::string& line) {
        size_t end = 0;
        while ((end = m_bytes.find('\n')) == std::string::npos) {
            if (m_bytes.size() > MAX_LINE || fill() != 1) {
                return false;
            }
        }
        line = m_bytes.substr(0, end > 0 && m_bytes[end - 1] == '\r' ? end - 1 : end);
        m_bytes.erase(0, end + 1);
        return true;
    }

    /// Prints `size` bytes; -1 means all bytes up to the end of the connection. Returns false if they do not
    /// arrive or cannot be printed.
    bool print(long long size) {
        while (size != 0) {
            int const result = m_bytes.empty() ? fill() : 1;
            if (result != 1) {
                return result == 0 && size == -1;
            }
            size_t const count = size == -1
                ? m_bytes.size()
                : static_cast<size_t>(std::min<long long>(static_cast<long long>(m_bytes.size()), size));
            if (fwrite(m_bytes.data(), 1, count, stdout) != count) {
                return false;
            }
            m_bytes.erase(0, count);
            size -= size == -1 ? 0 : static_cast<long long>(count);
        }
        return true;
    }

private:
    /// Receives more bytes. Returns 1 on success, 0 if the server has closed the connection, -1 on failure or
    /// timeout.
    int fill() {
        std::set<vesk::Socket const*> readable{m_socket.get()};
        std::set<vesk::Socket const*> none;
        int const ready = vesk::Socket::selectSockets(readable, none, none, PATIENCE_MS, true);
        if (ready != 1) {
            return -1;
        }
        std::array<char, 65536> bytes;
        unsigned int count = 0;
        int const result = m_socket->read(bytes.data(), bytes.size(), count);
        if (result == 0) {
            std::ErrorStorage::ack();
        }
        m_bytes.append(bytes.data(), count);
        return result == 1 && count == 0 ? -1 : result;
    }

    void close() {
        if (m_socket != nullptr && m_socket->isValid() && m_socket->close(true)) {
            std::ErrorStorage::ack();
        }
    }

    std::unique_ptr<TCPSocket> m_socket;
    std::string m_bytes; // Received, but not consumed yet.
};

/// The content of the head of an answer.
struct Answer {
    std::string status_line;
    int status = 0;
    long long size = -1; ///< -1: up to the end of the connection.
    bool is_chunked = false;
};

/// Reads the head of an answer. Returns false if it is invalid.
bool readHead(Connection& connection, Answer& answer) {
    answer = Answer();
    std::string line;
    if (!connection.readLine(line) || line.size() < 12 || line.compare(0, 7, "HTTP/1.") != 0 ||
        line[8] != ' ' || (line.size() > 12 && line[12] != ' ')) {
        return false;
    }
    answer.status_line = line;
    answer.status = static_cast<int>(toNumber(line.substr(9, 3), 10));
    for (int fields = 0; connection.readLine(line) && !line.empty(); ++fields) {
        size_t const colon = line.find(':');
        if (colon == std::string::npos || fields == MAX_FIELDS) {
            return false;
        }
        std::string const name = toLower(line.substr(0, colon));
        size_t const begin = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
        std::string const value = line.substr(begin, line.find_last_not_of(" \t") + 1 - begin);
        if (name == "content-length") {
            long long const size = toNumber(value, 10);
            if (size < 0 || (answer.size >= 0 && answer.size != size)) {
                return false;
            }
            answer.size = size;
        } else if (name == "transfer-encoding") {
            if (toLower(value) != "chunked") {
                return false; // The request does not accept any other.
            }
            answer.is_chunked = true;
        }
    }
    return line.empty() && answer.status >= 100;
}

/// Prints a body in chunked transfer encoding. Returns false if it is invalid.
bool printChunks(Connection& connection) {
    std::string line;
    for (;;) {
        if (!connection.readLine(line)) {
            return false;
        }
        std::string digits = line.substr(0, line.find(';'));
        digits.erase(digits.find_last_not_of(" \t") + 1);
        long long const size = toNumber(digits, 16);
        if (size == 0) {
            return true; // Trailer fields do not affect the body.
        }
        if (size < 0 || !connection.print(size) || !connection.readLine(line) || !line.empty()) {
            return false;
        }
    }
}

int fail(char const* what) {
    fprintf(stderr, "http_client: %s\n", what);
    if (std::ErrorStorage::isError(false)) {
        fprintf(stderr, "%s\n", tarn_error.getReasonList().c_str());
        std::ErrorStorage::ack();
    }
    return 3;
}

/// Returns the text with control characters replaced, safe to print on a terminal.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; },
        '?');
    return text;
}

} // namespace

int main(int argc, char** argv) {
    vesk::Vesk const vesk(true, false);
    Url url;
    if (argc != 2 || parse(argv[1], url)) {
        fprintf(stderr, "usage: http_client http://HOST[:PORT][/PATH][?QUERY]\n");
        return 2;
    }
    Connection connection;
    std::string reasons;
    if (connection.open(url, reasons)) {
        fprintf(stderr, "%s", reasons.c_str());
        return fail("cannot connect");
    }
    if (connection.send(
            "GET " + url.target + " HTTP/1.1\r\nHost: " + url.authority +
            "\r\nUser-Agent: http_client\r\nAccept: */*\r\nConnection: close\r\n\r\n")) {
        return fail("cannot send the request");
    }
    Answer answer;
    for (int heads = 0; answer.status < 200; ++heads) {
        if (heads == MAX_HEADS || !readHead(connection, answer)) {
            return fail("no answer that makes sense");
        }
    }
    fprintf(stderr, "%s\n", printable(answer.status_line).c_str());
    bool const has_body = answer.status != 204 && answer.status != 304;
    bool const is_complete =
        !has_body || (answer.is_chunked ? printChunks(connection) : connection.print(answer.size));
    if (fflush(stdout) != 0 || !is_complete) {
        return fail("the body is not complete");
    }
    return answer.status < 300 ? 0 : 1;
}
