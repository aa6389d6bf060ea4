#include "HttpCommands.h"
#include "sockets/NameServer.h"
#include "support/Child.h"
#include "support/NamedRow.h"
#include "support/NetworkNamespace.h"
#include "support/Processes.h"
#include "support/TempFolder.h"

#include <vesk/IPSocket.h>
#include <vesk/Pipe.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <memory>
#include <optional>
#include <poll.h>
#include <random>
#include <sys/prctl.h>
#include <thread>
#include <vector>

/// The examples of a web server and a web client, each with common programs as the peer.

namespace {

using namespace support;
using Arguments = std::vector<std::string>;
using IPAddress = vesk::IPSocket::IPAddress;

constexpr int DEADLINE_MS = 60000;

// ---- programs ----

template <size_t N>
Arguments commandOf(char const* const (&command)[N], Arguments const& arguments) {
    Arguments all(std::begin(command), std::end(command));
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

void execute(Arguments const& command) {
    std::vector<char*> pointers;
    for (std::string const& argument : command) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    execvp(pointers[0], pointers.data());
    _exit(127);
}

/// Runs a program to its end.
ChildEnd run(Arguments const& command) {
    return runInChild([&command] { execute(command); });
}

constexpr char const* CURL[] = {"curl", "--silent", "--disable", "--noproxy", "*", "--max-time", "50"};

/// Runs `curl` without its configuration and without a proxy.
ChildEnd curl(Arguments const& arguments) {
    return run(commandOf(CURL, arguments));
}

ChildEnd fetch(std::string const& url) {
    return run(commandOf(HTTP_CLIENT, {url}));
}

void expectEnd(int exit_code, std::string const& output, ChildEnd const& end) {
    EXPECT_EQ(exit_code, end.exit_code) << end.errors;
    EXPECT_TRUE(output == end.output) << end.output.size() << " bytes: " << end.output.substr(0, 200);
}

testing::AssertionResult contains(std::string const& text, std::string const& part) {
    bool const found = text.find(part) != std::string::npos;
    return (found ? testing::AssertionSuccess() : testing::AssertionFailure()) << part << " in " << text;
}

/// A program that runs concurrently with the test, and not longer.
class Program : tarnbase::NonCopyable {
public:
    explicit Program(Arguments const& command)
        : m_process([&] {
              alarm(0);
              prctl(PR_SET_PDEATHSIG, SIGKILL);
              dup2(m_pipe.getWriteEnd(), STDOUT_FILENO);
              execute(command);
          }) {
        m_pipe.closeWriteEnd();
    }

    /// Returns the next line of its output, or the part of it that exists when it ends.
    std::string readLine() const {
        std::string line;
        char c = 0;
        while (line.empty() || line.back() != '\n') {
            pollfd row{m_pipe.getReadEnd(), POLLIN, 0};
            if (poll(&row, 1, DEADLINE_MS) != 1 || ::read(m_pipe.getReadEnd(), &c, 1) != 1) {
                break;
            }
            line += c;
        }
        return line;
    }

    /// Sends a signal. Returns the exit code, or -1 if a signal has ended it.
    int end(int signal) {
        if (m_process.getId() > 0) {
            kill(m_process.getId(), signal);
        }
        return m_process.join();
    }

    long countDescriptors() const {
        std::string const folder = "/proc/" + std::to_string(m_process.getId()) + "/fd";
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }

private:
    vesk::Pipe m_pipe;
    Process m_process;
};

// ---- bare connections ----

/// A TCP socket without a class of the library, for peers that break the rules.
class Wire {
public:
    explicit Wire(unsigned short port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in const address = IPAddress::makeHandle(INADDR_LOOPBACK, port);
        EXPECT_EQ(0, connect(m_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address))
            << strerror(errno);
    }
    Wire(unsigned short port, std::string const& text) : Wire(port) { send(text); }
    static Wire adopt(int fd) { return Wire(fd, 0); }
    Wire(Wire&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Wire& operator=(Wire&&) = delete;
    ~Wire() { close(); }

    /// Sends as much as the peer receives, which may have closed the connection.
    void send(std::string const& text) const { (void)!::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL); }
    void endSending() const { shutdown(m_fd, SHUT_WR); }
    /// Sends a text as the last one. Returns all that is received then.
    std::string ask(std::string const& text) const {
        send(text);
        endSending();
        return receive();
    }

    /// Receives until the end of the stream, or until `is_enough` of the received text.
    std::string receive(std::function<bool(std::string const&)> const& is_enough = nullptr) const {
        std::string text;
        std::array<char, 65536> bytes;
        for (;;) {
            pollfd row{m_fd, POLLIN, 0};
            if ((is_enough && is_enough(text)) || poll(&row, 1, DEADLINE_MS) != 1) {
                return text;
            }
            ssize_t const count = recv(m_fd, bytes.data(), bytes.size(), 0);
            if (count <= 0) {
                return text;
            }
            text.append(bytes.data(), static_cast<size_t>(count));
        }
    }

    /// Receives up to and including a text.
    std::string receiveUntil(std::string const& end) const {
        return receive([&end](std::string const& text) {
            return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
        });
    }

    /// Resets the connection.
    void reset() {
        linger const at_once{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close();
    }
    void close() { ::close(std::exchange(m_fd, -1)); }

private:
    Wire(int fd, int) : m_fd(fd) {}

    int m_fd;
};

/// A reserved port of this machine, without a listener unless `listen` is called.
class Port : tarnbase::NonCopyable {
public:
    Port() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = IPAddress::makeHandle(INADDR_LOOPBACK, 0);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr const*>(&address), length));
        EXPECT_EQ(0, getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length));
        m_number = ntohs(address.sin_port);
    }
    ~Port() { close(m_fd); }

    std::string getUrl() const { return "http://127.0.0.1:" + std::to_string(m_number); }
    void listen() const { EXPECT_EQ(0, ::listen(m_fd, 8)); }
    Wire accept() const { return Wire::adopt(accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC)); }

private:
    int m_fd;
    unsigned short m_number = 0;
};

std::string makeNoise(size_t size, unsigned int seed) {
    std::mt19937 random(seed);
    std::string noise(size, '\0');
    std::generate(noise.begin(), noise.end(), [&random] { return static_cast<char>(random() & 0xFF); });
    return noise;
}

/// Returns the head of an answer and the text behind it.
std::pair<std::string, std::string> split(std::string const& answer) {
    size_t const end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::pair(answer, std::string())
                                    : std::pair(answer.substr(0, end + 2), answer.substr(end + 4));
}

std::string statusOf(std::string const& answer) {
    return answer.substr(0, answer.find("\r\n"));
}

// ---- the server ----

class HttpServer : public testing::Test {
protected:
    void SetUp() override {
        for (std::string const name :
             {"www", "www/sub folder", "www/none", "www/odd", "www/odd/index.html"}) {
            m_folder.makeFolder(name);
        }
        m_folder.makeFile("secret.txt", "secret");
        m_folder.makeFile("www/hello.txt", "Hello!\n");
        m_folder.makeFile("www/index.html", "<p>top</p>");
        m_folder.makeFile("www/sub folder/index.html", "<p>below</p>");
        m_folder.makeFile("www/sub folder/h\xC3\xB6hle 100%.bin", "deep");
        m_folder.makeFile("www/empty", "");
        m_folder.makeFile("www/noise", makeNoise(100000, 1));
        start();
    }
    void TearDown() override {
        if (m_program != nullptr) {
            EXPECT_EQ(0, m_program->end(SIGTERM));
        }
    }

    void start() {
        m_program = std::make_unique<Program>(commandOf(HTTP_SERVER, {m_folder / "www", "0"}));
        std::string const line = m_program->readLine();
        std::string const begin = "serving " + m_folder / "www" + " at ";
        ASSERT_EQ(begin + "http://127.0.0.1:", line.substr(0, begin.size() + 17));
        m_url = line.substr(begin.size(), line.size() - begin.size() - 1);
        m_port = static_cast<unsigned short>(atoi(m_url.c_str() + 17));
        ASSERT_EQ("http://127.0.0.1:" + std::to_string(m_port) + "/", m_url);
    }

    std::string url(std::string const& path) const { return m_url + path; }

    /// Sends a request on a separate connection. Returns all that is received.
    std::string ask(std::string const& request) const { return Wire(m_port, request).receive(); }

    void expectItServes() const { expectEnd(0, "Hello!\n", curl({url("hello.txt")})); }

    TempFolder const m_folder;
    std::unique_ptr<Program> m_program;
    std::string m_url;
    unsigned short m_port = 0;
};

constexpr char const* HELLO = "Hello!\n";
constexpr char const* NOT_FOUND = "404 Not Found\n";

TEST_F(HttpServer, pathsHaveTheirAnswersAndNoneLeadsOutOfTheFolder) {
    ASSERT_EQ(0, mkfifo((m_folder / "www/pipe").c_str(), 0644));
    m_folder.makeLink("www/link", "hello.txt");
    m_folder.makeLink("www/loop", "loop");
    m_folder.makeLink("www/out", "../secret.txt");
    m_folder.makeLink("www/root", "/");
    m_folder.makeFolder("www-too");
    m_folder.makeFile("www-too/secret.txt", "secret");
    m_folder.makeLink("www/too", "../www-too");
    m_folder.makeFile("www/a..b", "dots"); // Two dots in a name are not the parent folder.
    std::pair<std::string, std::vector<std::string>> const rows[] = {
        {"Hello!\n200", {"hello.txt", "hello.txt?a=b&c=../../d#e", "link"}},
        {"200", {"empty"}},
        {"deep200", {"sub%20folder/h%C3%B6hle%20100%25.bin"}},
        {contentOf(m_folder / "www/noise") + "200", {"noise"}},
        {"<p>top</p>200", {""}},
        {"<p>below</p>200", {"sub%20folder/", "sub%20folder"}},
        {"dots200", {"a..b"}},
        {"404 Not Found\n404",
         {"none/", "odd/", "nix", "nix/nix", "hello.txt/nix", std::string(300, 'x'), std::string(9000, 'x'),
          "pipe", "loop", "..."}},
        {"403 Forbidden\n403",
         {"../secret.txt", "%2e%2e/secret.txt", "..%2fsecret.txt", "%2E%2E%2Fsecret.txt",
          "sub%20folder/../../secret.txt", "hello.txt/../../secret.txt", "nix/../../secret.txt",
          "./../secret.txt", "//../secret.txt", "..", "../", "../www/hello.txt", "out", "root/etc/passwd",
          "root", "too/secret.txt", "../www-too/secret.txt"}}};
    for (auto const& [answer, paths] : rows) {
        for (std::string const& path : paths) {
            std::string const output =
                curl({"--path-as-is", "--write-out", "%{http_code}", url(path)}).output;
            EXPECT_TRUE(answer == output) << path << ": " << output.substr(0, 200);
        }
    }
    EXPECT_EQ(22, curl({"--fail", url("nix/nix")}).exit_code);
    expectItServes();
}

TEST_F(HttpServer, answerHasTypeSizeAndDate) {
    std::string const head = curl({"--head", url("hello.txt")}).output;
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(head));
    EXPECT_TRUE(contains(head, "\r\nContent-Length: 7\r\n"));
    EXPECT_TRUE(contains(head, "\r\nContent-Type: text/plain\r\n"));
    ASSERT_TRUE(contains(head, "\r\nDate: "));
    tm parsed{};
    char const* const date = head.c_str() + head.find("\r\nDate: ") + 8;
    char const* const rest = strptime(date, "%a, %d %b %Y %H:%M:%S GMT", &parsed);
    ASSERT_NE(nullptr, rest) << head;
    EXPECT_EQ('\r', *rest);
    EXPECT_LT(labs(static_cast<long>(timegm(&parsed) - time(nullptr))), 100);
    EXPECT_TRUE(contains(curl({"--head", m_url}).output, "\r\nContent-Type: text/html\r\n"));
    EXPECT_TRUE(
        contains(curl({"--head", url("noise")}).output, "\r\nContent-Type: application/octet-stream\r\n"));
}

TEST_F(HttpServer, connectionIsKeptForTheNextRequestUnlessItsEndIsRequested) {
    Arguments arguments{"--write-out", "%{num_connects} %{http_code} "};
    for (char const* const path : {"hello.txt", "noise", "nix", "empty", "hello.txt"}) {
        arguments.insert(arguments.end(), {"--output", "/dev/null", url(path)});
    }
    expectEnd(0, "1 200 0 200 0 404 0 200 0 200 ", curl(arguments));
    ChildEnd const end = curl(
        {"--http1.0", "--header", "Connection: keep-alive", "--write-out", "%{num_connects}", url("empty"),
         url("empty")});
    EXPECT_EQ("10", end.output);
}

TEST_F(HttpServer, otherMethodsAreNotAllowedAlsoWithALargeBody) {
    for (char const* const method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "get", "BREW"}) {
        std::string const answer = curl({"--include", "--request", method, url("hello.txt")}).output;
        EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", statusOf(answer)) << method;
        EXPECT_TRUE(contains(answer, "\r\nAllow: GET, HEAD\r\n"));
    }
    std::string const body = "@" + m_folder.makeFile("body", makeNoise(3000000, 2));
    for (int i = 0; i < 5; ++i) {
        expectEnd(
            0, "405 Method Not Allowed\n405",
            curl({"--write-out", "%{http_code}", "--data-binary", body, url("hello.txt")}));
    }
    expectItServes();
}

TEST_F(HttpServer, unreadableFileIsForbidden) {
    VESK_SKIP_UNLESS_ROOT();
    m_folder.makeFile("www/locked", "secret", 0);
    ASSERT_EQ(0, m_program->end(SIGTERM));
    // The same server as an unprivileged user.
    expectInChild([this] {
        ASSERT_TRUE(dropRights());
        start();
        EXPECT_EQ("403 Forbidden\n", curl({url("locked")}).output);
        EXPECT_EQ(HELLO, curl({url("hello.txt")}).output);
        EXPECT_EQ(0, m_program->end(SIGTERM));
    });
    m_program.reset();
}

TEST_F(HttpServer, fiftyRequestsAtOnceAllGetTheirFileUnchanged) {
    Arguments arguments{"--parallel", "--parallel-immediate", "--parallel-max", "50"};
    auto const nameOf = [](unsigned int i) { return "file" + std::to_string(i); };
    auto const contentOfNumber = [](unsigned int i) {
        return makeNoise(i == 0 ? 20 * 1024 * 1024 + 17 : 1000 + 9973 * i, i);
    };
    for (unsigned int i = 0; i < 50; ++i) {
        m_folder.makeFile("www/" + nameOf(i), contentOfNumber(i));
        arguments.insert(arguments.end(), {"--output", m_folder / nameOf(i), url(nameOf(i))});
    }
    EXPECT_EQ(0, curl(arguments).exit_code);
    for (unsigned int i = 0; i < 50; ++i) {
        EXPECT_TRUE(contentOfNumber(i) == contentOf(m_folder / nameOf(i))) << i;
    }
}

TEST_F(HttpServer, requestsInOneSendAreAnsweredInTheirOrderAndHeadWithoutABody) {
    struct Step {
        std::string request;
        std::string status;
        std::string body;
    };
    Step const steps[] = {
        {"GET /hello.txt", "200 OK", HELLO}, {"\r\nGET /nix", "404 Not Found", NOT_FOUND},
        {"HEAD /noise", "200 OK", ""},       {"GET /noise", "200 OK", contentOf(m_folder / "www/noise")},
        {"HEAD /nix", "404 Not Found", ""},  {"GET /index.html", "200 OK", "<p>top</p>"}};
    std::string requests;
    for (Step const& step : steps) {
        requests += step.request + " HTTP/1.1\r\nHost: x\r\n\r\n";
    }
    requests.insert(requests.size() - 2, "Connection: close\r\n");
    std::string answer = ask(requests);
    for (auto const& [request, status, body] : steps) {
        auto const [head, rest] = split(answer);
        EXPECT_EQ("HTTP/1.1 " + status, statusOf(head)) << request;
        if (request == "HEAD /noise") {
            EXPECT_TRUE(contains(head, "\r\nContent-Length: 100000\r\n"));
        }
        EXPECT_TRUE(body == rest.substr(0, body.size())) << request;
        answer = rest.size() < body.size() ? "" : rest.substr(body.size());
    }
    EXPECT_EQ("", answer);
}

TEST_F(HttpServer, requestMayArriveByteByByteAndBeTheLastTextOfItsSender) {
    Wire const wire(m_port);
    std::string const request = "GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n";
    for (char const c : request) {
        wire.send(std::string(1, c));
    }
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(wire.receiveUntil(HELLO)));
    EXPECT_TRUE(
        contentOf(m_folder / "www/noise") ==
        split(wire.ask("GET /noise HTTP/1.1\r\nHost: x\r\n\r\n")).second);
}

/// A request, and the status line and body of its answer. Without a body, any body matches.
struct Request : NamedRow {
    std::string request;
    char const* status;
    char const* body = nullptr;
};

std::vector<Request> getRequests() {
    char const* const ok = "HTTP/1.1 200 OK";
    char const* const bad = "HTTP/1.1 400 Bad Request";
    char const* const large = "HTTP/1.1 431 Request Header Fields Too Large";
    char const* const version = "HTTP/1.1 505 HTTP Version Not Supported";
    std::vector<Request> requests = {
        {"connection closed", "GET /hello.txt HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", ok, HELLO},
        {"one of two options", "GET /hello.txt HTTP/1.1\r\nHost: x\r\nConnection: TE,  Close\r\n\r\n", ok,
         HELLO},
        {"version 1.0", "GET /hello.txt HTTP/1.0\r\n\r\n", ok, HELLO},
        {"line feeds alone", "GET /hello.txt HTTP/1.0\n\n", ok, HELLO},
        {"empty line first", "\nGET /hello.txt HTTP/1.1\nHost: x\nConnection: close\n\n", ok, HELLO},
        {"whole URL", "GET http://any.where/hello.txt HTTP/1.0\r\n\r\n", ok, HELLO},
        {"URL without a path", "GET HTTP://any.where HTTP/1.0\r\n\r\n", ok, "<p>top</p>"},
        {"OPTIONS", "OPTIONS * HTTP/1.0\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"},
        {"URL out of the folder", "GET http://x/../secret.txt HTTP/1.0\r\n\r\n", "HTTP/1.1 403 Forbidden"},
        {"version 2", "GET / HTTP/2.0\r\nHost: x\r\n\r\n", version},
        {"version 9", "GET / HTTP/9.9\r\n\r\n", version},
        {"nul in a field", std::string("GET / HTTP/1.0\r\nA: \0\r\n\r\n", 25), bad},
        {"nul in the target", std::string("GET /\0 HTTP/1.0\r\n\r\n", 19), bad},
        {"endless line", std::string(40000, 'x'), large},
        {"endless target", "GET /" + std::string(40000, 'x') + " HTTP/1.0\r\n\r\n", large},
        {"endless fields", "GET / HTTP/1.1\r\n" + std::string(20000, 'x') + ": y\r\nHost: x\r\n\r\n", large},
        {"much more than that", std::string(3000000, 'x'), large},
    };
    for (char const* const target :
         {"../secret.txt", "*", "ftp://x/", "/hello.txt%00.html", "/%0d%0aX:y", "/%4", "/%", "/%zz",
          "/%+1"}) {
        requests.push_back({target, std::string("GET ") + target + " HTTP/1.0\r\n\r\n", bad});
    }
    for (char const* const line :
         {"GET", "GET /", "GET / x HTTP/1.1", "GET  HTTP/1.1", " / HTTP/1.1", "G\x01T / HTTP/1.1",
          "GET / HTTQ/1.1", "GET / HTTP/", "GET / HTTP/1.10"}) {
        requests.push_back({line, std::string(line) + "\r\nHost: x\r\n\r\n", bad});
    }
    for (char const* const fields :
         {"A: b", "Host: x\r\nHost: y", "Host: x\r\nnonsense", "Host: x\r\n: y", "Host : x",
          "Host: x\r\n more"}) {
        requests.push_back({fields, std::string("GET / HTTP/1.1\r\n") + fields + "\r\n\r\n", bad});
    }
    return requests;
}

TEST_F(HttpServer, requestsHaveTheirAnswersAndTheConnectionEnds) {
    for (Request const& row : getRequests()) {
        Wire const wire(m_port, row.request);
        if (row.body == nullptr) {
            wire.endSending();
        }
        std::string const answer = wire.receive();
        EXPECT_EQ(row.status, statusOf(answer)) << row.what;
        EXPECT_TRUE(row.body == nullptr || row.body == split(answer).second) << row.what;
    }
    expectItServes();
}

TEST_F(HttpServer, servesAfterNoiseAlsoInRequestsAndAfterTheStartOfAnEncryptedConnection) {
    std::mt19937 random(4);
    for (unsigned int i = 0; i < 400; ++i) {
        bool const all = i < 100;
        std::string request = all
            ? makeNoise(1 + i * 517, i)
            : "GET /hello.txt?a=b HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\nConnection: close\r\n\r\n";
        for (unsigned int changes = all ? 0 : 1 + random() % 4; changes > 0; --changes) {
            size_t const at = random() % request.size();
            if (random() % 3 == 0) {
                request.erase(at, 1 + random() % 5);
            } else {
                request[at] = static_cast<char>(random() & 0xFF);
            }
        }
        std::string const answer = Wire(m_port).ask(request);
        EXPECT_TRUE(answer.empty() || answer.find(all ? "HTTP/1.1 4" : "HTTP/1.1 ") == 0) << answer;
    }
    EXPECT_NE(0, curl({"--insecure", "https" + m_url.substr(4)}).exit_code);
    expectItServes();
}

TEST_F(HttpServer, servesAfterBrowsersThatCloseTheirConnections) {
    m_folder.makeFile("www/large", makeNoise(5000000, 5));
    for (int i = 0; i < 20; ++i) {
        Wire(m_port).close();
        Wire(m_port).reset();
        Wire(m_port, "GET /hello.t").reset();
        Wire(m_port, "GET /large HTTP/1.1\r\nHost: x\r\n\r\n").reset();
        Wire in_the_answer(m_port, "GET /large HTTP/1.1\r\nHost: x\r\n\r\n");
        in_the_answer.receive([](std::string const& text) { return text.size() > 100000; });
        in_the_answer.reset();
    }
    expectItServes();
}

TEST_F(HttpServer, browserThatDoesNotReadDelaysNoOther) {
    m_folder.makeFile("www/large", makeNoise(20 * 1024 * 1024, 6));
    std::vector<Wire> lazy;
    for (int i = 0; i < 10; ++i) {
        lazy.emplace_back(m_port, "GET /large HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    }
    expectItServes();
    // It is served later.
    EXPECT_TRUE(contentOf(m_folder / "www/large") == split(lazy[3].receive()).second);
}

TEST_F(HttpServer, fileThatShrinksEndsTheConnection) {
    std::string const file = m_folder.makeFile("www/shrinking", makeNoise(30 * 1024 * 1024, 7));
    Wire const wire(m_port, "GET /shrinking HTTP/1.1\r\nHost: x\r\n\r\n");
    std::string const begin = wire.receive([](std::string const& text) { return text.size() > 1000; });
    ASSERT_EQ(0, truncate(file.c_str(), 100));
    EXPECT_LT(begin.size() + wire.receive().size(), 30U * 1024 * 1024);
    expectItServes();
}

TEST_F(HttpServer, silentConnectionsAreClosedInFavorOfNewOnes) {
    Wire const old(m_port, "GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n");
    old.receiveUntil(HELLO);
    std::vector<Wire> silent;
    for (int i = 0; i < 300; ++i) {
        silent.emplace_back(m_port);
    }
    EXPECT_EQ("", old.receive());
    expectItServes();
    // The first ones are closed, the last ones are not.
    EXPECT_EQ("", silent[0].receive());
    silent.back().send("GET /hello.txt HTTP/1.0\r\n\r\n");
    EXPECT_EQ("Hello!\n", split(silent.back().receive()).second);
}

TEST_F(HttpServer, keepsNoDescriptorOfAConnectionThatIsOver) {
    expectItServes();
    long const before = m_program->countDescriptors();
    for (int i = 0; i < 20; ++i) {
        for (std::string const request : {"GET /noise", "GET /nix", "POST /", "HEAD /noise"}) {
            ask(request + " HTTP/1.0\r\n\r\n");
        }
        Wire(m_port).reset();
    }
    // The server may still be closing the last of them.
    long after = m_program->countDescriptors();
    for (int round = 0; round < 10000 && after > before + 1; ++round) {
        expectItServes();
        after = m_program->countDescriptors();
    }
    EXPECT_LE(after, before + 1); // That of the request of this moment.
}

TEST_F(HttpServer, interruptionEndsItAndItStartsAgainOnThePort) {
    Wire const open(m_port, "GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n");
    open.receiveUntil(HELLO);
    EXPECT_EQ(0, m_program->end(SIGINT));
    EXPECT_EQ("", open.receive());
    // It starts again on the port of a recent connection.
    m_program = std::make_unique<Program>(
        commandOf(HTTP_SERVER, {m_folder / "www", std::to_string(m_port), "127.0.0.1"}));
    ASSERT_NE("", m_program->readLine());
    expectItServes();
}

TEST_F(HttpServer, unusableArgumentsAreReportedAtOnce) {
    std::string const www = m_folder / "www";
    std::vector<Arguments> misused = {{}, {www, "0", "127.0.0.1", "x"}};
    for (char const* const port : {"", "x", "80x", "-1", "65536", "99999999999999999999"}) {
        misused.push_back({www, port});
    }
    for (Arguments const& arguments : misused) {
        ChildEnd const end = run(commandOf(HTTP_SERVER, arguments));
        expectEnd(2, "", end);
        EXPECT_EQ("usage: http_server FOLDER [PORT [ADDRESS]]\n", end.errors);
    }
    for (Arguments const& arguments : std::vector<Arguments>{
             {m_folder / "nix", "0"},
             {www + "/hello.txt", "0"},
             {www, "0", "192.0.2.1"},
             {www, "0", "1:2"}}) {
        EXPECT_EQ(1, run(commandOf(HTTP_SERVER, arguments)).exit_code) << arguments.back();
    }
    ChildEnd const in_use = run(commandOf(HTTP_SERVER, {www, std::to_string(m_port)}));
    EXPECT_EQ(1, in_use.exit_code);
    EXPECT_TRUE(contains(in_use.errors, "Socket address busy"));
}

TEST_F(HttpServer, worksOverIPv6) {
    VESK_SKIP_WITHOUT_NETWORKS();
    expectInNetwork([this] {
        Program server(commandOf(HTTP_SERVER, {m_folder / "www", "8080", "::1"}));
        EXPECT_EQ("serving " + m_folder / "www" + " at http://[::1]:8080/\n", server.readLine());
        EXPECT_EQ(HELLO, curl({"--globoff", "http://[::1]:8080/hello.txt"}).output);
        expectEnd(0, HELLO, fetch("http://[::1]:8080/hello.txt"));
        EXPECT_EQ(0, server.end(SIGTERM));
    });
}

TEST_F(HttpServer, isFoundByItsNameOverEitherVersion) {
    VESK_SKIP_WITHOUT_NAMES();
    support::expectWithNameServer(
        "127.0.0.1 four.test\n::1 six.test\n127.0.0.1 both.test\n::1 both.test\n",
        [this](support::NameServer&) {
            Program four(commandOf(HTTP_SERVER, {m_folder / "www", "8080", "four.test"}));
            EXPECT_TRUE(contains(four.readLine(), "http://127.0.0.1:8080/"));
            Program six(commandOf(HTTP_SERVER, {m_folder / "www", "8081", "::1"}));
            EXPECT_TRUE(contains(six.readLine(), "http://[::1]:8081/"));
            for (char const* const url :
                 {"http://four.test:8080/hello.txt", "http://six.test:8081/hello.txt",
                  "http://both.test:8080/hello.txt", "http://both.test:8081/hello.txt"}) {
                expectEnd(0, HELLO, fetch(url));
            }
            ChildEnd const end = fetch("http://unknown.test:8080/hello.txt");
            EXPECT_EQ(3, end.exit_code);
            EXPECT_TRUE(contains(end.errors, "Couldn't resolve hostname"));
            EXPECT_EQ(0, four.end(SIGTERM));
            EXPECT_EQ(0, six.end(SIGTERM));
        });
}

TEST_F(HttpServer, servesItsOwnClient) {
    ChildEnd const end = fetch(url("noise"));
    expectEnd(0, contentOf(m_folder / "www/noise"), end);
    EXPECT_EQ("HTTP/1.1 200 OK\n", end.errors);
    expectEnd(1, NOT_FOUND, fetch(url("nix")));
}

// ---- the client with a common server ----

class HttpClient : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        m_folder.makeFolder("sub");
        m_folder.makeFile("hello.txt", "Hello!\n");
        m_folder.makeFile("empty", "");
        m_folder.makeFile("large", makeNoise(10 * 1024 * 1024 + 5, 8));
        m_program = std::make_unique<Program>(Arguments{
            "python3", "-u", "-m", "http.server", "--bind", "127.0.0.1", "--directory", m_folder.getPath(),
            "--protocol", GetParam(), "0"});
        std::string const line = m_program->readLine();
        size_t const begin = line.find("http://127.0.0.1:");
        ASSERT_NE(std::string::npos, begin) << line;
        m_url = line.substr(begin, line.find('/', begin + 7) + 1 - begin);
    }

    TempFolder const m_folder;
    std::unique_ptr<Program> m_program;
    std::string m_url;
};

TEST_P(HttpClient, endsWithTheStatusOfTheServer) {
    struct PathRow {
        char const* path;
        int exit_code;
        char const* status;
        std::optional<std::string> output; // Else any page with the name of a file or the status.
    };
    PathRow const rows[] = {
        {"/hello.txt", 0, "200 OK", HELLO},
        {"/empty", 0, "200 OK", ""},
        {"/large#part", 0, "200 OK", contentOf(m_folder / "large")},
        {"", 0, "200 OK", std::nullopt},
        {"/nix", 1, "404 File not found", std::nullopt},
        {"/sub", 1, "301 Moved Permanently", ""}};
    for (auto const& [path, exit_code, status, output] : rows) {
        ChildEnd const end = fetch(m_url.substr(0, m_url.size() - 1) + path);
        expectEnd(exit_code, output.value_or(end.output), end);
        EXPECT_EQ(std::string(GetParam()) + " " + status + "\n", end.errors);
        EXPECT_TRUE(output || contains(end.output, exit_code == 0 ? "hello.txt" : "404"));
    }
}

INSTANTIATE_TEST_SUITE_P(All, HttpClient, testing::Values("HTTP/1.0", "HTTP/1.1"));

// ---- the client with servers that break the rules ----

struct Script : NamedRow {
    std::string answer;
    int exit_code;
    std::string output;
    char const* errors = ""; ///< A part of its standard error.
};

/// Accepts a connection, receives a request and calls `answer`. Returns the end of a client with this
/// address.
template <typename Answer>
ChildEnd fetchFrom(Port const& port, Arguments const& client, Answer const& answer) {
    port.listen();
    std::thread server([&] {
        Wire wire = port.accept();
        answer(wire, wire.receiveUntil("\r\n\r\n"));
    });
    ChildEnd const end = run(client);
    server.join();
    return end;
}

std::string const OK = "HTTP/1.1 200 OK\r\n";
std::string const CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n";

std::string sized(std::string const& size, std::string const& rest) {
    return OK + "Content-Length:" + size + "\r\n" + rest;
}

std::string repeat(std::string const& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

Script const SCRIPTS[] = {
    {"size", sized(" 2", "\r\nhi"), 0, "hi"},
    {"moreThanTheSize", OK + "content-length:2  \r\n\r\nhi there", 0, "hi"},
    {"untilTheEnd", "HTTP/1.0 200 OK\r\n\r\nhi there", 0, "hi there"},
    {"lineFeeds", "HTTP/1.1 200 OK\nContent-Length: 2\n\nhi", 0, "hi"},
    {"noReason", "HTTP/1.1 200\r\nContent-Length: 2\r\n\r\nhi", 0, "hi"},
    {"twoEqualSizes", sized(" 2", "Content-Length: 2\r\n\r\nhi"), 0, "hi"},
    {"noContent", "HTTP/1.1 204 No Content\r\n\r\nhi", 0, ""},
    {"notModified", "HTTP/1.1 304 Not Modified\r\nContent-Length: 9\r\n\r\n", 1, ""},
    {"status299", "HTTP/1.1 299 Fine\r\nContent-Length: 0\r\n\r\n", 0, ""},
    {"status300", "HTTP/1.1 300 Choices\r\nContent-Length: 0\r\n\r\n", 1, ""},
    {"status500", "HTTP/1.1 500 Oops\r\nContent-Length: 4\r\n\r\noops", 1, "oops"},
    {"waitFirst", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nA: b\r\n\r\nHTTP/1.1 200 OK\r\n\r\nhi",
     0, "hi"},
    {"chunks", CHUNKED + "2\r\nhi\r\n00B;x=y\r\n there you\n\r\n0\r\n\r\n", 0, "hi there you\n"},
    {"chunksBeforeASize", OK + "Transfer-Encoding: CHUNKED\r\nContent-Length: 1\r\n\r\n2\r\nhi\r\n0\r\n\r\n",
     0, "hi"},
    {"nothing", "", 3, ""},
    {"noProtocol", "hello\r\n\r\n", 3, ""},
    {"anotherProtocol", "SSH-2.0-OpenSSH_9.2\r\n", 3, ""},
    {"oldProtocol", "<p>hello</p>", 3, ""},
    {"version2", "HTTP/2 200 OK\r\n\r\n", 3, ""},
    {"shortStatus", "HTTP/1.1 20\r\n\r\n", 3, ""},
    {"longStatus", "HTTP/1.1 2000 OK\r\n\r\n", 3, ""},
    {"noNumber", "HTTP/1.1 OK! OK\r\n\r\n", 3, ""},
    {"negativeStatus", "HTTP/1.1 -20 OK\r\n\r\n", 3, ""},
    {"halfAHead", sized(" 2", ""), 3, ""},
    {"fieldWithoutColon", OK + "nonsense\r\n\r\nhi", 3, ""},
    {"endlessLine", "HTTP/1.1 200 " + std::string(200000, 'x'), 3, ""},
    {"endlessFields", "HTTP/1.1 200 OK\r\n" + repeat("A: b\r\n", 20000), 3, ""},
    {"endlessWaiting", repeat("HTTP/1.1 100 Continue\r\n\r\n", 1000), 3, ""},
    {"negativeSize", sized(" -1", "\r\nhi"), 3, ""},
    {"noSize", sized("", "\r\nhi"), 3, ""},
    {"oddSize", sized(" 2x", "\r\nhi"), 3, ""},
    {"hugeSize", sized(" 99999999999999999999", "\r\nhi"), 3, ""},
    {"twoSizes", sized(" 2", "Content-Length: 3\r\n\r\nhi"), 3, ""},
    {"lessThanTheSize", sized(" 20", "\r\nhi"), 3, "hi"},
    {"unknownCoding", OK + "Transfer-Encoding: gzip\r\n\r\nhi", 3, ""},
    {"noChunk", CHUNKED, 3, ""},
    {"oddChunk", CHUNKED + "xyz\r\nhi\r\n0\r\n\r\n", 3, ""},
    {"negativeChunk", CHUNKED + "-1\r\nhi\r\n0\r\n\r\n", 3, ""},
    {"hugeChunk", CHUNKED + "FFFFFFFFFFFFFFFF\r\nhi\r\n0\r\n\r\n", 3, ""},
    {"chunkWithoutAnEnd", CHUNKED + "2\r\nhi", 3, "hi"},
    {"chunkWithAWrongEnd", CHUNKED + "2\r\nhi!\r\n0\r\n\r\n", 3, "hi"},
    {"chunksWithoutAnEnd", CHUNKED + "2\r\nhi\r\n", 3, "hi"},
    {"noise", makeNoise(100000, 9), 3, ""},
    // The terminal does not receive them.
    {"controlCharacters", "HTTP/1.1 200 \x1B[2J\x07\x7F\r\nContent-Length: 0\r\n\r\n", 0, "",
     "HTTP/1.1 200 ?[2J??\n"}};
VESK_TEST_TABLE(HttpClientScript, endsWithItsExitCode, testing::Test, SCRIPTS) {
    Port const port;
    std::string request;
    std::string const host = port.getUrl().substr(7);
    auto const end = fetchFrom(
        port, commandOf(HTTP_CLIENT, {"HTTP://" + host + "/a%20b?c=d#e"}),
        [&](Wire const& wire, std::string const& received) {
            request = received;
            wire.ask(GetParam().answer);
        });
    EXPECT_EQ(
        "GET /a%20b?c=d HTTP/1.1\r\nHost: " + host +
            "\r\nUser-Agent: http_client\r\nAccept: */*\r\nConnection: close\r\n\r\n",
        request);
    expectEnd(GetParam().exit_code, GetParam().output, end);
    EXPECT_TRUE(contains(end.errors, GetParam().errors));
}

TEST(HttpClientFailures, resetConnection) {
    Port const port;
    auto const end = fetchFrom(
        port, commandOf(HTTP_CLIENT, {port.getUrl()}), [](Wire& wire, auto const&) { wire.reset(); });
    EXPECT_EQ(3, end.exit_code);
    EXPECT_TRUE(contains(end.errors, "Connection has been reset"));
}

TEST(HttpClientFailures, portWithoutAListener) {
    Port const port;
    ChildEnd const end = fetch(port.getUrl() + "/");
    expectEnd(3, "", end);
    EXPECT_TRUE(contains(end.errors, "Peer is not reachable"));
}

TEST(HttpClientFailures, outputThatCannotBeWritten) {
    Port const port;
    Arguments client = commandOf(HTTP_CLIENT, {port.getUrl()});
    client.insert(client.begin(), {"sh", "-c", "exec \"$@\" > /dev/full", "sh"});
    auto const end =
        fetchFrom(port, client, [](Wire& wire, auto const&) { wire.ask(sized(" 2", "\r\nhi")); });
    EXPECT_EQ(3, end.exit_code);
}

TEST(HttpClientFailures, argumentsThatAreNoUrl) {
    std::string const usage = "usage: http_client http://HOST[:PORT][/PATH][?QUERY]\n";
    std::istringstream urls(
        "|x|http:|http://|http:///path|http://:80|https://127.0.0.1/|ftp://127.0.0.1/|http://127.0.0.1:|"
        "http://127.0.0.1:0|http://127.0.0.1:65536|http://127.0.0.1:x|http://127.0.0.1:+80|"
        "http://127.0.0.1:80:81|http://me@127.0.0.1/|http://[::1|http://[]|http://[::1]80|"
        "http://127.0.0.1/a b|http://127.0.0.1/\r\nX: y| http://127.0.0.1|127.0.0.1");
    for (std::string url; std::getline(urls, url, '|');) {
        ChildEnd const end = fetch(url);
        expectEnd(2, "", end);
        EXPECT_EQ(usage, end.errors) << url;
    }
    EXPECT_EQ(2, run(commandOf(HTTP_CLIENT, {})).exit_code);
    EXPECT_EQ(2, run(commandOf(HTTP_CLIENT, {"http://127.0.0.1", "x"})).exit_code);
}

} // namespace
