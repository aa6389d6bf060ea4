// A small web server: serves the files below a folder over HTTP/1.1 to many browsers at once, on a single
// thread.
//
//     http_server FOLDER [PORT [ADDRESS]]
//
//     $ http_server /usr/share/doc 8080 &
//     serving /usr/share/doc at http://127.0.0.1:8080/
//     $ curl http://127.0.0.1:8080/bash/copyright
//
// PORT defaults to 8080; 0 lets the system choose. ADDRESS defaults to 127.0.0.1, which only this machine can
// reach; 0.0.0.0 and :: stand for all IPv4 and all IPv6 addresses. SIGINT and SIGTERM end the server.
//
// Supports GET, HEAD and persistent connections. Answers a request for a folder with its "index.html". No
// path leads out of FOLDER, neither by ".." nor by a symbolic link. Exit codes: 0 ended by a signal, 1 cannot
// serve, 2 usage.

#include "Notify.h"

#include <vesk/FileAccessError.h>
#include <vesk/Poller.h>
#include <vesk/SignalCatcher.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>
#include <vesk/Thread.h>
#include <vesk/Time.h>
#include <vesk/Vesk.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace {

using IPAddress = vesk::IPSocket::IPAddress;

constexpr size_t MAX_CONNECTIONS = 200;   // When exceeded, the connection idle for longest is closed.
constexpr int MAX_ACCEPTS = 64;           // Per poller callback.
constexpr size_t MAX_HEAD = 16 * 1024;    // Bytes of a request, without its body.
constexpr long long MAX_DRAIN = 64 << 20; // Bytes that are discarded after the last answer.

// ---- requests ----

struct Request {
    std::string method;
    std::string path; ///< Decoded, without the query.
    bool keep_alive = false;
};

/// An HTTP status.
struct Status {
    int code;
    char const* text;
};

constexpr Status OK{200, "OK"};
constexpr Status BAD_REQUEST{400, "Bad Request"};
constexpr Status FORBIDDEN{403, "Forbidden"};
constexpr Status NOT_FOUND{404, "Not Found"};
constexpr Status BAD_METHOD{405, "Method Not Allowed"};
constexpr Status TOO_LARGE{431, "Request Header Fields Too Large"};
constexpr Status SERVER_ERROR{500, "Internal Server Error"};
constexpr Status BAD_VERSION{505, "HTTP Version Not Supported"};

std::string toLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : static_cast<char>(c);
    });
    return text;
}

std::string trim(std::string const& text) {
    size_t const begin = text.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Returns whether a text is a valid name of a method or a field.
bool isToken(std::string const& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
            std::string("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string::npos;
    });
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

int hexDigit(char c) {
    return c >= '0' && c <= '9' ? c - '0'
        : c >= 'a' && c <= 'f'  ? c - 'a' + 10
        : c >= 'A' && c <= 'F'  ? c - 'A' + 10
                                : -1;
}

/// Decodes the path of a request target. Returns true if the target is invalid.
bool decodePath(std::string target, std::string& path) {
    if (toLower(target.substr(0, 7)) == "http://") {
        size_t const slash = target.find('/', 7);
        target = slash == std::string::npos ? "/" : target.substr(slash);
    }
    target = target.substr(0, target.find('?'));
    if (target.empty() || target[0] != '/') {
        return true;
    }
    for (size_t i = 0; i < target.size(); ++i) {
        char c = target[i];
        if (c == '%') {
            int const high = i + 2 < target.size() ? hexDigit(target[i + 1]) : -1;
            int const low = i + 2 < target.size() ? hexDigit(target[i + 2]) : -1;
            if (high < 0 || low < 0) {
                return true;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (isControl(c)) {
            return true;
        }
        path += c;
    }
    return false;
}

/// Returns the lines of a head without their line ends. A bare LF ends a line as well.
std::vector<std::string> splitLines(std::string const& head) {
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < head.size();) {
        size_t const end = std::min(head.find('\n', begin), head.size());
        lines.push_back(head.substr(begin, end - begin));
        if (!lines.back().empty() && lines.back().back() == '\r') {
            lines.back().pop_back();
        }
        begin = end + 1;
    }
    return lines;
}

/// Reads the fields of a request. Returns false if one of them is invalid.
bool readFields(std::vector<std::string> const& lines, bool is_old, Request& request) {
    int hosts = 0;
    bool has_body = false;
    request.keep_alive = !is_old;
    for (size_t i = 1; i < lines.size() && !lines[i].empty(); ++i) {
        size_t const colon = lines[i].find(':');
        if (colon == std::string::npos || !isToken(lines[i].substr(0, colon))) {
            return false;
        }
        std::string const name = toLower(lines[i].substr(0, colon));
        std::string const value = trim(lines[i].substr(colon + 1));
        if (std::any_of(value.begin(), value.end(), [](char c) { return isControl(c) && c != '\t'; })) {
            return false;
        }
        hosts += name == "host" ? 1 : 0;
        has_body = has_body || name == "transfer-encoding" || (name == "content-length" && value != "0");
        if (name == "connection") {
            std::string const options = "," + toLower(value) + ",";
            bool const closes = options.find("close") != std::string::npos;
            request.keep_alive =
                !closes && (request.keep_alive || options.find("keep-alive") != std::string::npos);
        }
    }
    // Bodies are not supported. The connection is closed, because the next request would follow the body.
    request.keep_alive = request.keep_alive && !has_body;
    return is_old ? hosts <= 1 : hosts == 1;
}

/// Reads the head of a request. Returns `OK`, or the status of the error.
Status parse(std::string const& head, Request& request) {
    std::vector<std::string> const lines = splitLines(head);
    std::string const& first = lines[0];
    size_t const method_end = first.find(' ');
    size_t const target_end = first.rfind(' ');
    if (method_end == std::string::npos || target_end == method_end) {
        return BAD_REQUEST;
    }
    std::string const method = first.substr(0, method_end);
    std::string const target = first.substr(method_end + 1, target_end - method_end - 1);
    std::string const version = first.substr(target_end + 1);
    if (!isToken(method) || target.find(' ') != std::string::npos || version.size() != 8 ||
        version.compare(0, 5, "HTTP/") != 0 || isdigit(static_cast<unsigned char>(version[5])) == 0 ||
        version[6] != '.' || isdigit(static_cast<unsigned char>(version[7])) == 0) {
        return BAD_REQUEST;
    }
    request.method = method;
    if (version[5] != '1') {
        return BAD_VERSION;
    }
    if (!readFields(lines, version[7] == '0', request)) {
        request.keep_alive = false;
        return BAD_REQUEST;
    }
    if (method != "GET" && method != "HEAD") {
        return BAD_METHOD;
    }
    return decodePath(target, request.path) ? BAD_REQUEST : OK;
}

// ---- files ----

/// Returns the status for a file that cannot be opened.
Status classify(std::ErrorObject const& error) {
    if (error.getType() != &vesk::FileAccessError || (error.getID() != 0 && error.getID() != 3)) {
        return SERVER_ERROR;
    }
    return error.getID() == 0 ? NOT_FOUND : FORBIDDEN;
}

/// Finds a file below a folder and opens it. Returns `OK`, or the status of the failure.
/// @param root  the folder, as returned by `realpath`
/// @param path  the requested path; if it names a folder, "/index.html" is appended
Status openFile(std::string const& root, std::string& path, vesk::StreamBinFileR& file) {
    if ((path + "/").find("/../") != std::string::npos) {
        return FORBIDDEN;
    }
    std::array<char, PATH_MAX> real{};
    if (realpath((root + path).c_str(), real.data()) == nullptr) {
        return errno == EACCES ? FORBIDDEN : NOT_FOUND;
    }
    std::string const found = real.data();
    std::string const above = root == "/" ? root : root + "/";
    if (found != root && found.compare(0, above.size(), above) != 0) {
        return FORBIDDEN;
    }
    // Non-blocking, because opening a named pipe would block.
    using Flags = vesk::BinFileBase;
    if (file.open(found.c_str(), Flags::ReadFlags(Flags::READ | Flags::NON_BLOCK))) {
        Status const status = classify(*std::ErrorStorage::get());
        std::ErrorStorage::ack();
        return status;
    }
    vesk::FileInfo const info = file.getFileInfo();
    if (info.isRegularFile()) {
        return OK;
    }
    static_cast<void>(file.close());
    if (!info.isDirectory() || path.find("/index.html") != std::string::npos) {
        return NOT_FOUND;
    }
    path += "/index.html";
    return openFile(root, path, file);
}

char const* typeOf(std::string const& path) {
    constexpr std::pair<char const*, char const*> TYPES[] = {
        {".html", "text/html"},        {".htm", "text/html"},  {".txt", "text/plain"},
        {".css", "text/css"},          {".png", "image/png"},  {".js", "text/javascript"},
        {".json", "application/json"}, {".jpg", "image/jpeg"}, {".svg", "image/svg+xml"},
    };
    for (auto const& [ending, type] : TYPES) {
        std::string const end = ending;
        if (path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0) {
            return type;
        }
    }
    return "application/octet-stream";
}

/// Returns the current time in the format of the Date field, which does not depend on the locale.
std::string makeDate() {
    constexpr char const* DAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr char const* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    time_t const now = time(nullptr);
    tm date{};
    gmtime_r(&now, &date);
    std::array<char, 64> text{};
    snprintf(
        text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT", DAYS[date.tm_wday], date.tm_mday,
        MONTHS[date.tm_mon], date.tm_year + 1900, date.tm_hour, date.tm_min, date.tm_sec);
    return text.data();
}

// ---- connections ----

class Server;

/// The connection of one browser. Reads a request, writes the answer, and starts over.
class Connection : public vesk::Poller::Client {
public:
    /// @param now  the current value of the server's use counter
    Connection(Server& server, vesk::TCPSocket::Description const& accepted, uint64_t now)
        : m_server(server), m_socket(false, 0, 0, accepted), m_last_use(now) {
        // An answer is sent in two pieces. The second must not wait until the first is acknowledged.
        if (m_socket.isValid()) {
            static_cast<void>(m_socket.setTCPNoDelay(true));
        }
        std::ErrorStorage::ack(); // The peer may have closed the connection already.
    }
    ~Connection() override {
        if (m_socket.isValid() && m_socket.close(false)) {
            std::ErrorStorage::ack();
        }
    }

    int poll_events(int /*fd*/) override {
        return m_phase == Phase::CLOSED ? 0 : m_phase == Phase::ANSWERING ? POLLOUT : POLLIN;
    }
    void read(int fd) override;
    void write(int fd) override;
    void error(int /*fd*/) override { end(); }

    /// Ends the connection. The server deletes it later.
    void end();

    vesk::TCPSocket const& getSocket() const { return m_socket; }
    uint64_t getLastUse() const { return m_last_use; }

private:
    enum class Phase { READING, ANSWERING, DRAINING, CLOSED };

    void process();
    void answerFile(Request& request);
    void answer(Status status, Request const& request);
    void begin(Status status, std::string const& fields, long long size, bool keep_alive);
    bool refill();
    void endAnswer();

    Server& m_server;
    vesk::TCPSocket m_socket;
    Phase m_phase = Phase::READING;
    uint64_t m_last_use;
    std::string m_in;  // Received, but not processed yet.
    std::string m_out; // To be sent from m_sent on, before the rest of the file.
    size_t m_sent = 0;
    vesk::StreamBinFileR m_file;
    long long m_file_left = 0;
    long long m_drained = 0;
    bool m_keep_alive = false;
};

class Server : public vesk::Poller::Client {
public:
    Server(std::string root, IPAddress const& address, vesk::IPSocket::IPProtocolVersion version)
        : m_root(std::move(root)), m_socket(address, false, true, version) {}
    ~Server() override {
        if (m_socket.isValid() && m_socket.close(false)) {
            std::ErrorStorage::ack();
        }
    }

    /// Starts to listen. Returns true on failure.
    bool listen() {
        if (!m_socket.isValid()) {
            return true;
        }
        m_socket.enableListen(128);
        if (m_socket.hadError()) {
            return true;
        }
        m_socket.updateLocalAddress();
        m_poller.add(*this, m_socket.getSocketFd());
        return false;
    }

    /// Serves until `stop` is called. The calling thread must block all signals with a handler.
    void run() {
        std::vector<std::unique_ptr<Connection>> leaving;
        while (!m_poller.poll()) {
            // The poller has applied the removals of the previous cycle, so those connections can be
            // destroyed.
            leaving = std::move(m_ended);
            m_ended.clear();
        }
    }
    void stop() { m_poller.stop(); }

    int poll_events(int /*fd*/) override { return POLLIN; }
    void read(int /*fd*/) override {
        // Accepts the pending connections, but not without limit: existing connections must be served, too.
        for (int i = 0; i < MAX_ACCEPTS && acceptOne(); ++i) {}
    }
    void error(int /*fd*/) override {
        fprintf(stderr, "http_server: the listening socket has failed\n");
        stop();
    }

    /// Removes a connection from the poller and schedules its destruction.
    void release(Connection& connection) {
        m_poller.remove(connection);
        auto const it =
            std::find_if(m_connections.begin(), m_connections.end(), [&connection](auto const& other) {
                return other.get() == &connection;
            });
        if (it != m_connections.end()) {
            m_ended.push_back(std::move(*it));
            m_connections.erase(it);
        }
    }

    std::string const& getRoot() const { return m_root; }
    IPAddress const& getAddress() const { return m_socket.getLocalAddress(); }
    uint64_t countUse() { return ++m_uses; }

private:
    /// Accepts one connection. Returns false if no further one can be accepted now.
    bool acceptOne() {
        vesk::TCPSocket::Description const accepted = m_socket.acceptConnection();
        if (m_socket.hadError()) {
            // Most likely the process has no free descriptor: closes a connection, or waits if there is none.
            std::ErrorStorage::ack();
            if (m_connections.empty()) {
                static_cast<void>(vesk::Time::sleep(50));
            } else {
                endOldest();
            }
            return false;
        }
        if (!accepted.valid) {
            return false;
        }
        if (m_connections.size() >= MAX_CONNECTIONS) {
            endOldest();
        }
        auto connection = std::make_unique<Connection>(*this, accepted, countUse());
        if (connection->getSocket().isValid()) {
            m_poller.add(*connection, connection->getSocket().getSocketFd());
            m_connections.push_back(std::move(connection));
        }
        return true;
    }

    void endOldest() {
        auto const oldest = std::min_element(
            m_connections.begin(), m_connections.end(),
            [](auto const& one, auto const& other) { return one->getLastUse() < other->getLastUse(); });
        (*oldest)->end();
    }

    std::string const m_root;
    vesk::TCPServerSocket m_socket;
    vesk::Poller m_poller;
    std::vector<std::unique_ptr<Connection>> m_connections;
    std::vector<std::unique_ptr<Connection>> m_ended;
    uint64_t m_uses = 0;
};

void Connection::end() {
    if (m_phase != Phase::CLOSED) {
        m_phase = Phase::CLOSED;
        m_server.release(*this);
    }
}

void Connection::read(int /*fd*/) {
    if (m_phase != Phase::READING && m_phase != Phase::DRAINING) {
        return;
    }
    m_last_use = m_server.countUse();
    std::array<char, 16384> bytes;
    unsigned int count = 0;
    if (m_socket.read(bytes.data(), bytes.size(), count) != 1) {
        std::ErrorStorage::ack(); // The peer has closed the connection or failed.
        end();
    } else if (m_phase == Phase::READING) {
        m_in.append(bytes.data(), count);
        process();
    } else if ((m_drained += count) > MAX_DRAIN) {
        end();
    }
}

/// Looks for a request in the received bytes and prepares the answer.
void Connection::process() {
    m_in.erase(0, std::min(m_in.find_first_not_of("\r\n"), m_in.size()));
    size_t const lf = m_in.find("\n\n");
    size_t const crlf = m_in.find("\n\r\n");
    size_t const head_end = std::min(lf, crlf);
    Request request;
    if (!m_in.empty() && !isToken(m_in.substr(0, 1))) {
        // A client of another protocol may wait for the server to speak first.
        answer(BAD_REQUEST, request);
    } else if (head_end == std::string::npos ? m_in.size() > MAX_HEAD : head_end > MAX_HEAD) {
        answer(TOO_LARGE, request);
    } else if (head_end != std::string::npos) {
        std::string const head = m_in.substr(0, head_end + 1);
        m_in.erase(0, head_end + (lf < crlf ? 2 : 3));
        Status const status = parse(head, request);
        if (status.code == OK.code) {
            answerFile(request);
        } else {
            answer(status, request);
        }
    }
}

void Connection::answerFile(Request& request) {
    Status const status = openFile(m_server.getRoot(), request.path, m_file);
    if (status.code != OK.code) {
        answer(status, request);
        return;
    }
    long long const size = m_file.getFileInfo().getSize();
    begin(OK, std::string("Content-Type: ") + typeOf(request.path) + "\r\n", size, request.keep_alive);
    if (request.method == "HEAD") {
        static_cast<void>(m_file.close());
    } else {
        m_file_left = size;
    }
}

/// Answers with the status as a text.
void Connection::answer(Status status, Request const& request) {
    std::string const body = std::to_string(status.code) + " " + status.text + "\n";
    bool const is_method = status.code == BAD_METHOD.code;
    begin(
        status, std::string(is_method ? "Allow: GET, HEAD\r\n" : "") + "Content-Type: text/plain\r\n",
        static_cast<long long>(body.size()), request.keep_alive);
    m_out += request.method == "HEAD" ? "" : body;
}

void Connection::begin(Status status, std::string const& fields, long long size, bool keep_alive) {
    m_out = "HTTP/1.1 " + std::to_string(status.code) + " " + status.text + "\r\nDate: " + makeDate() +
        "\r\nConnection: " + (keep_alive ? "keep-alive" : "close") +
        "\r\nContent-Length: " + std::to_string(size) + "\r\n" + fields + "\r\n";
    m_sent = 0;
    m_file_left = 0;
    m_keep_alive = keep_alive;
    m_phase = Phase::ANSWERING;
}

/// Writes one piece only, so that other connections are served in between.
void Connection::write(int /*fd*/) {
    if (m_phase != Phase::ANSWERING) {
        return;
    }
    m_last_use = m_server.countUse();
    unsigned int written = 0;
    int const result =
        m_socket.write(m_out.data() + m_sent, static_cast<unsigned int>(m_out.size() - m_sent), written);
    m_sent += written;
    if (result != 1) {
        std::ErrorStorage::ack();
        end();
    } else if (m_sent == m_out.size()) {
        if (m_file_left == 0) {
            endAnswer();
        } else if (refill()) {
            end(); // The file is now shorter than the announced size.
        }
    }
}

/// Reads the next piece of the file. Returns true if there is none.
bool Connection::refill() {
    m_out.resize(static_cast<size_t>(std::min(m_file_left, 65536LL)));
    m_sent = 0;
    unsigned int count = 0;
    if (m_file.read(m_out.data(), static_cast<unsigned int>(m_out.size()), count) != 1 || count == 0) {
        std::ErrorStorage::ack();
        return true;
    }
    m_out.resize(count);
    m_file_left -= count;
    return false;
}

void Connection::endAnswer() {
    static_cast<void>(m_file.close());
    m_out.clear();
    if (m_keep_alive) {
        m_phase = Phase::READING;
        process(); // The next request may have been received already.
        return;
    }
    // Closes only this direction first: a close with unread input sends a reset, which may overtake the
    // answer.
    shutdown(m_socket.getSocketFd(), SHUT_WR);
    m_in.clear();
    m_phase = Phase::DRAINING;
}

// ---- the program ----

int usage() {
    fprintf(stderr, "usage: http_server FOLDER [PORT [ADDRESS]]\n");
    return 2;
}

int fail(char const* what) {
    fprintf(stderr, "http_server: %s\n%s\n", what, tarn_error.getReasonList().c_str());
    std::ErrorStorage::ack();
    return 1;
}

void serve(void* server) {
    // Signals must be handled by other threads: they would interrupt the poller.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    static_cast<Server*>(server)->run();
}

void stopServer(int /*signal*/, void* server) {
    static_cast<Server*>(server)->stop();
}

} // namespace

int main(int argc, char** argv) {
    vesk::Vesk const vesk(true, false);
    char* end = nullptr;
    long const port = argc > 2 ? strtol(argv[2], &end, 10) : 8080;
    if (argc < 2 || argc > 4 || (end != nullptr && (end == argv[2] || *end != '\0')) || port < 0 ||
        port > 65535) {
        return usage();
    }
    std::array<char, PATH_MAX> root{};
    if (realpath(argv[1], root.data()) == nullptr || !vesk::FileInfo(root.data(), true).isDirectory()) {
        fprintf(stderr, "http_server: \"%s\" is no folder\n", argv[1]);
        return 1;
    }
    std::string const host = argc > 3 ? argv[3] : vesk::IPSocket::LOOPBACK_IP;
    bool const is_v6 = host.find(':') != std::string::npos;
    Server server(
        root.data(), {host, static_cast<unsigned short>(port)},
        is_v6 ? vesk::IPSocket::IPV6 : vesk::IPSocket::IPV4);
    if (server.listen()) {
        return fail("cannot listen");
    }

    vesk::SignalCatcher const interrupts(SIGINT, stopServer, &server);
    vesk::SignalCatcher const terminations(SIGTERM, stopServer, &server);
    IPAddress const& address = server.getAddress();
    printf(
        "serving %s at http://%s%s%s:%d/\n", argv[1], is_v6 ? "[" : "", address.host.c_str(),
        is_v6 ? "]" : "", address.port);
    fflush(stdout);
    examples::notify("READY=1");
    vesk::Thread loop(serve, &server, "http server");
    if (loop.start() || loop.join()) {
        return fail("no thread for the loop");
    }
    examples::notify("STOPPING=1");
    return 0;
}
