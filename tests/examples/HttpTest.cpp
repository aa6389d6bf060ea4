#include "HttpCommands.h"
#include "sockets/NameServer.h"
#include "support/Child.h"
#include "support/Descriptors.h"
#include "support/NetworkNamespace.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

/// The examples of a web server and a web client, each with the programs that everybody uses at the other end.

namespace {

using support::ChildEnd;
using support::contentOf;
using support::runInChild;
using support::TempFolder;
using Arguments = std::vector<std::string>;

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

/// `curl`, which goes nowhere but to the addresses that it is given.
ChildEnd curl(Arguments const& arguments) {
    Arguments command{"curl", "--silent", "--disable", "--noproxy", "*", "--max-time", "50"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command);
}

ChildEnd fetch(std::string const& url) {
    return run(commandOf(HTTP_CLIENT, {url}));
}

/// A program that runs beside the test, until it is ended. It does not outlive the test.
class Program {
public:
    explicit Program(Arguments const& command) {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
        m_output = ends[0];
        fflush(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ends[1], STDOUT_FILENO);
            execute(command);
        }
        ::close(ends[1]);
    }
    ~Program() {
        end(SIGKILL);
        ::close(m_output);
    }

    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;

    pid_t getId() const { return m_pid; }

    /// The next line that it prints; what there is of it when it ends.
    std::string readLine() const {
        std::string line;
        char c = 0;
        while (line.empty() || line.back() != '\n') {
            pollfd row{m_output, POLLIN, 0};
            if (poll(&row, 1, DEADLINE_MS) != 1 || ::read(m_output, &c, 1) != 1) {
                break;
            }
            line += c;
        }
        return line;
    }

    /// Sends a signal and gives the exit code; -1 if a signal has ended it.
    int end(int signal) {
        if (m_pid <= 0) {
            return -1;
        }
        kill(m_pid, signal);
        int status = 0;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {}
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int countDescriptors() const {
        int count = 0;
        DIR* const directory = opendir(("/proc/" + std::to_string(m_pid) + "/fd").c_str());
        while (directory != nullptr && readdir(directory) != nullptr) {
            ++count;
        }
        closedir(directory);
        return count;
    }

private:
    pid_t m_pid = -1;
    int m_output = -1;
};

// ---- bare connections ----

/// A TCP socket without any class around it, for what no well-behaved program does.
class Wire {
public:
    explicit Wire(unsigned short port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(m_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address))
            << strerror(errno);
    }
    static Wire adopt(int fd) { return Wire(fd, 0); }
    Wire(Wire&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Wire& operator=(Wire&&) = delete;
    ~Wire() { close(); }

    /// Sends what the other end takes; it may have gone.
    void send(std::string const& text) const {
        for (size_t sent = 0; sent < text.size();) {
            ssize_t const count = ::send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                return;
            }
            sent += static_cast<size_t>(count);
        }
    }
    void endSending() const { shutdown(m_fd, SHUT_WR); }

    /// All that comes until there is an end, or until `is_enough` of what has come so far.
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

    /// What comes up to a text, and with it.
    std::string receiveUntil(std::string const& end) const {
        return receive([&end](std::string const& text) {
            return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
        });
    }

    /// Goes away without a word.
    void reset() {
        linger const at_once{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close();
    }
    void close() {
        if (m_fd != -1) {
            ::close(m_fd);
            m_fd = -1;
        }
    }

private:
    Wire(int fd, int) : m_fd(fd) {}

    int m_fd;
};

/// A port of this machine that nobody else gets while it lives, and where nobody listens unless asked to.
class Port {
public:
    Port() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr const*>(&address), length));
        EXPECT_EQ(0, getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length));
        m_number = ntohs(address.sin_port);
    }
    ~Port() { close(m_fd); }

    Port(Port const&) = delete;
    Port& operator=(Port const&) = delete;

    std::string getNumber() const { return std::to_string(m_number); }
    void listen() const { EXPECT_EQ(0, ::listen(m_fd, 8)); }
    Wire accept() const { return Wire::adopt(accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC)); }

private:
    int m_fd;
    unsigned short m_number = 0;
};

std::string makeNoise(size_t size, unsigned int seed) {
    std::mt19937 random(seed);
    std::string noise(size, '\0');
    for (char& c : noise) {
        c = static_cast<char>(random() & 0xFF);
    }
    return noise;
}

/// The head of an answer and what follows it.
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
        m_folder.makeFolder("www");
        m_folder.makeFolder("www/sub folder");
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

    /// Sends a request on a connection of its own, and gives all that comes.
    std::string ask(std::string const& request) const {
        Wire const wire(m_port);
        wire.send(request);
        return wire.receive();
    }

    std::string askStatus(std::string const& request) const { return statusOf(ask(request)); }

    void expectItServes() const {
        ChildEnd const end = curl({url("hello.txt")});
        EXPECT_EQ(0, end.exit_code);
        EXPECT_EQ("Hello!\n", end.output);
    }

    TempFolder const m_folder;
    std::unique_ptr<Program> m_program;
    std::string m_url;
    unsigned short m_port = 0;
};

TEST_F(HttpServer, servesFiles) {
    EXPECT_EQ("Hello!\n", curl({url("hello.txt")}).output);
    EXPECT_EQ("", curl({"--fail", url("empty")}).output);
    EXPECT_EQ(0, curl({"--fail", url("empty")}).exit_code);
    EXPECT_EQ("deep", curl({url("sub%20folder/h%C3%B6hle%20100%25.bin")}).output);
    EXPECT_EQ(contentOf(m_folder / "www/noise"), curl({url("noise")}).output);
    EXPECT_EQ("Hello!\n", curl({url("hello.txt?a=b&c=../../d#e")}).output);
}

TEST_F(HttpServer, answersAFolderWithItsIndex) {
    EXPECT_EQ("<p>top</p>", curl({m_url}).output);
    EXPECT_EQ("<p>below</p>", curl({url("sub%20folder/")}).output);
    EXPECT_EQ("<p>below</p>", curl({url("sub%20folder")}).output);
    m_folder.makeFolder("www/none");
    EXPECT_EQ("404 Not Found\n", curl({url("none/")}).output);
    m_folder.makeFolder("www/odd");
    m_folder.makeFolder("www/odd/index.html");
    EXPECT_EQ("404 Not Found\n", curl({url("odd/")}).output);
}

TEST_F(HttpServer, tellsTypeSizeAndDate) {
    std::string const head = curl({"--head", url("hello.txt")}).output;
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(head));
    EXPECT_NE(std::string::npos, head.find("\r\nContent-Length: 7\r\n")) << head;
    EXPECT_NE(std::string::npos, head.find("\r\nContent-Type: text/plain\r\n")) << head;
    size_t const date = head.find("\r\nDate: ");
    ASSERT_NE(std::string::npos, date) << head;
    tm parsed{};
    char const* const rest = strptime(head.c_str() + date + 8, "%a, %d %b %Y %H:%M:%S GMT", &parsed);
    ASSERT_NE(nullptr, rest) << head;
    EXPECT_EQ('\r', *rest);
    EXPECT_LT(labs(static_cast<long>(timegm(&parsed) - time(nullptr))), 100);
    EXPECT_NE(std::string::npos, curl({"--head", m_url}).output.find("\r\nContent-Type: text/html\r\n"));
    EXPECT_NE(
        std::string::npos,
        curl({"--head", url("noise")}).output.find("\r\nContent-Type: application/octet-stream\r\n"));
}

TEST_F(HttpServer, headHasNoBody) {
    std::string const answer = ask(
        "HEAD /noise HTTP/1.1\r\nHost: x\r\n\r\nHEAD /nix HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    auto const [first, rest] = split(answer);
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(first));
    EXPECT_NE(std::string::npos, first.find("\r\nContent-Length: 100000\r\n"));
    auto const [second, nothing] = split(rest);
    EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(second));
    EXPECT_EQ("", nothing);
}

TEST_F(HttpServer, keepsAConnectionForTheNextRequest) {
    ChildEnd const end = curl(
        {"--write-out", "%{num_connects} %{http_code} ", "--output", "/dev/null", url("hello.txt"),
         "--output", "/dev/null", url("noise"), "--output", "/dev/null", url("nix"), "--output", "/dev/null",
         url("empty"), "--output", "/dev/null", url("hello.txt")});
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ("1 200 0 200 0 404 0 200 0 200 ", end.output);
}

TEST_F(HttpServer, closesAConnectionIfItIsToldTo) {
    EXPECT_EQ(
        "Hello!\n", split(ask("GET /hello.txt HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")).second);
    EXPECT_EQ(
        "Hello!\n",
        split(ask("GET /hello.txt HTTP/1.1\r\nHost: x\r\nConnection: TE,  Close\r\n\r\n")).second);
    EXPECT_EQ("Hello!\n", split(ask("GET /hello.txt HTTP/1.0\r\n\r\n")).second);
    ChildEnd const end = curl(
        {"--http1.0", "--header", "Connection: keep-alive", "--write-out", "%{num_connects}", url("empty"),
         url("empty")});
    EXPECT_EQ("10", end.output);
}

TEST_F(HttpServer, whatIsNotThereIsNotFound) {
    ChildEnd const end = curl({"--write-out", "%{http_code}", url("nix")});
    EXPECT_EQ("404 Not Found\n404", end.output);
    EXPECT_EQ(22, curl({"--fail", url("nix/nix")}).exit_code);
    EXPECT_EQ("404 Not Found\n", curl({url("hello.txt/nix")}).output);
    EXPECT_EQ("404 Not Found\n", curl({url(std::string(300, 'x'))}).output);
    EXPECT_EQ("404 Not Found\n", curl({url(std::string(9000, 'x'))}).output);
    expectItServes();
}

TEST_F(HttpServer, onlyRegularFilesAreServed) {
    ASSERT_EQ(0, mkfifo((m_folder / "www/pipe").c_str(), 0644));
    ASSERT_EQ(0, symlink("hello.txt", (m_folder / "www/link").c_str()));
    ASSERT_EQ(0, symlink("loop", (m_folder / "www/loop").c_str()));
    EXPECT_EQ("404 Not Found\n", curl({url("pipe")}).output);
    EXPECT_EQ("404 Not Found\n", curl({url("loop")}).output);
    EXPECT_EQ("Hello!\n", curl({url("link")}).output);
}

TEST_F(HttpServer, otherMethodsAreNotAllowed) {
    for (char const* const method : {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "get", "BREW"}) {
        std::string const answer = curl({"--include", "--request", method, url("hello.txt")}).output;
        EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", statusOf(answer)) << method;
        EXPECT_NE(std::string::npos, answer.find("\r\nAllow: GET, HEAD\r\n")) << answer;
    }
    EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", askStatus("OPTIONS * HTTP/1.0\r\n\r\n"));
}

TEST_F(HttpServer, answerToALargeBodyArrives) {
    m_folder.makeFile("body", makeNoise(3000000, 2));
    for (int i = 0; i < 5; ++i) {
        ChildEnd const end =
            curl({"--write-out", "%{http_code}", "--data-binary", "@" + m_folder / "body", url("hello.txt")});
        EXPECT_EQ(0, end.exit_code);
        EXPECT_EQ("405 Method Not Allowed\n405", end.output);
    }
    expectItServes();
}

TEST_F(HttpServer, noPathLeadsOutOfTheFolder) {
    ASSERT_EQ(0, symlink("../secret.txt", (m_folder / "www/out").c_str()));
    ASSERT_EQ(0, symlink("/", (m_folder / "www/root").c_str()));
    m_folder.makeFolder("www-too");
    m_folder.makeFile("www-too/secret.txt", "secret");
    ASSERT_EQ(0, symlink("../www-too", (m_folder / "www/too").c_str()));
    for (char const* const path :
         {"../secret.txt", "%2e%2e/secret.txt", "..%2fsecret.txt", "%2E%2E%2Fsecret.txt",
          "sub%20folder/../../secret.txt", "hello.txt/../../secret.txt", "nix/../../secret.txt",
          "./../secret.txt", "//../secret.txt", "..", "../", "../www/hello.txt", "out", "root/etc/passwd",
          "root", "too/secret.txt", "../www-too/secret.txt"}) {
        ChildEnd const end = curl({"--path-as-is", "--write-out", "%{http_code}", url(path)});
        EXPECT_EQ("403 Forbidden\n403", end.output) << path;
    }
    EXPECT_EQ("HTTP/1.1 400 Bad Request", askStatus("GET ../secret.txt HTTP/1.0\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 403 Forbidden", askStatus("GET http://x/../secret.txt HTTP/1.0\r\n\r\n"));
    // Two dots in a name are no way up.
    m_folder.makeFile("www/a..b", "dots");
    EXPECT_EQ("dots", curl({url("a..b")}).output);
    EXPECT_EQ("404 Not Found\n", curl({"--path-as-is", url("...")}).output);
}

TEST_F(HttpServer, fileThatMayNotBeReadIsForbidden) {
    VESK_SKIP_UNLESS_ROOT();
    m_folder.makeFile("www/locked", "secret", 0);
    ASSERT_EQ(0, m_program->end(SIGTERM));
    // The same server as a user who owns nothing.
    support::expectInChild([this] {
        ASSERT_TRUE(support::dropRights());
        start();
        EXPECT_EQ("403 Forbidden\n", curl({url("locked")}).output);
        EXPECT_EQ("Hello!\n", curl({url("hello.txt")}).output);
        EXPECT_EQ(0, m_program->end(SIGTERM));
    });
    m_program.reset();
}

TEST_F(HttpServer, largeFileArrivesByteByByte) {
    std::string const large = makeNoise(20 * 1024 * 1024 + 17, 3);
    m_folder.makeFile("www/large", large);
    ChildEnd const end = curl({url("large")});
    EXPECT_EQ(0, end.exit_code);
    EXPECT_TRUE(large == end.output) << end.output.size() << " bytes";
}

TEST_F(HttpServer, fiftyRequestsAtOnceAllGetTheirFile) {
    Arguments arguments{"--parallel", "--parallel-immediate", "--parallel-max", "50"};
    for (unsigned int i = 0; i < 50; ++i) {
        std::string const name = "file" + std::to_string(i);
        m_folder.makeFile("www/" + name, makeNoise(1000 + 9973 * i, i));
        for (std::string const& argument : {std::string("--output"), m_folder / name, url(name)}) {
            arguments.push_back(argument);
        }
    }
    EXPECT_EQ(0, curl(arguments).exit_code);
    for (unsigned int i = 0; i < 50; ++i) {
        std::string const name = "file" + std::to_string(i);
        EXPECT_TRUE(makeNoise(1000 + 9973 * i, i) == contentOf(m_folder / name)) << name;
    }
}

TEST_F(HttpServer, requestsInOneSendAreAnsweredInTheirOrder) {
    std::string answer =
        ask("GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n\r\nGET /nix HTTP/1.1\r\nHost: x\r\n\r\n"
            "GET /noise HTTP/1.1\r\nHost: x\r\n\r\nGET /index.html HTTP/1.1\r\nHost: x\r\nConnection: "
            "close\r\n\r\n");
    std::vector<std::string> const bodies = {
        "Hello!\n", "404 Not Found\n", contentOf(m_folder / "www/noise"), "<p>top</p>"};
    for (std::string const& body : bodies) {
        auto const [head, rest] = split(answer);
        EXPECT_TRUE(body == rest.substr(0, body.size())) << head;
        answer = rest.size() < body.size() ? "" : rest.substr(body.size());
    }
    EXPECT_EQ("", answer);
}

TEST_F(HttpServer, requestMayComeByteByByte) {
    Wire const wire(m_port);
    for (char const c : std::string("GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n")) {
        wire.send(std::string(1, c));
    }
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(wire.receiveUntil("Hello!\n")));
}

TEST_F(HttpServer, requestMayEndItsLinesWithLineFeedsAlone) {
    EXPECT_EQ("Hello!\n", split(ask("GET /hello.txt HTTP/1.0\n\n")).second);
    EXPECT_EQ("Hello!\n", split(ask("\nGET /hello.txt HTTP/1.1\nHost: x\nConnection: close\n\n")).second);
}

TEST_F(HttpServer, requestMayBeTheLastThatItsSenderSends) {
    Wire const wire(m_port);
    wire.send("GET /noise HTTP/1.1\r\nHost: x\r\n\r\n");
    wire.endSending();
    EXPECT_TRUE(contentOf(m_folder / "www/noise") == split(wire.receive()).second);
}

TEST_F(HttpServer, targetMayBeAWholeUrl) {
    EXPECT_EQ("Hello!\n", split(ask("GET http://any.where/hello.txt HTTP/1.0\r\n\r\n")).second);
    EXPECT_EQ("<p>top</p>", split(ask("GET HTTP://any.where HTTP/1.0\r\n\r\n")).second);
}

struct Malformed {
    char const* name;
    std::string request;
    char const* status;
};

std::vector<Malformed> malformedRequests() {
    char const* const bad = "HTTP/1.1 400 Bad Request";
    char const* const large = "HTTP/1.1 431 Request Header Fields Too Large";
    char const* const version = "HTTP/1.1 505 HTTP Version Not Supported";
    return {
        {"one word", "GET\r\n\r\n", bad},
        {"two words", "GET /\r\n\r\n", bad},
        {"four words", "GET / x HTTP/1.1\r\nHost: x\r\n\r\n", bad},
        {"no target", "GET  HTTP/1.1\r\nHost: x\r\n\r\n", bad},
        {"no method", " / HTTP/1.1\r\nHost: x\r\n\r\n", bad},
        {"odd method", "G\x01T / HTTP/1.1\r\nHost: x\r\n\r\n", bad},
        {"other protocol", "GET / HTTQ/1.1\r\nHost: x\r\n\r\n", bad},
        {"no version", "GET / HTTP/\r\n\r\n", bad},
        {"long version", "GET / HTTP/1.10\r\n\r\n", bad},
        {"version 2", "GET / HTTP/2.0\r\nHost: x\r\n\r\n", version},
        {"version 9", "GET / HTTP/9.9\r\n\r\n", version},
        {"no host", "GET / HTTP/1.1\r\n\r\n", bad},
        {"two hosts", "GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", bad},
        {"field without colon", "GET / HTTP/1.1\r\nHost: x\r\nnonsense\r\n\r\n", bad},
        {"field without name", "GET / HTTP/1.1\r\nHost: x\r\n: y\r\n\r\n", bad},
        {"blank before colon", "GET / HTTP/1.1\r\nHost : x\r\n\r\n", bad},
        {"folded field", "GET / HTTP/1.1\r\nHost: x\r\n more\r\n\r\n", bad},
        {"nul in a field", std::string("GET / HTTP/1.0\r\nA: \0\r\n\r\n", 25), bad},
        {"nul in the target", std::string("GET /\0 HTTP/1.0\r\n\r\n", 19), bad},
        {"encoded nul", "GET /hello.txt%00.html HTTP/1.0\r\n\r\n", bad},
        {"encoded line end", "GET /%0d%0aX:y HTTP/1.0\r\n\r\n", bad},
        {"half a code", "GET /%4 HTTP/1.0\r\n\r\n", bad},
        {"no code", "GET /% HTTP/1.0\r\n\r\n", bad},
        {"wrong code", "GET /%zz HTTP/1.0\r\n\r\n", bad},
        {"signed code", "GET /%+1 HTTP/1.0\r\n\r\n", bad},
        {"asterisk", "GET * HTTP/1.0\r\n\r\n", bad},
        {"other scheme", "GET ftp://x/ HTTP/1.0\r\n\r\n", bad},
        {"endless line", std::string(40000, 'x'), large},
        {"endless target", "GET /" + std::string(40000, 'x') + " HTTP/1.0\r\n\r\n", large},
        {"endless fields", "GET / HTTP/1.1\r\n" + std::string(20000, 'x') + ": y\r\nHost: x\r\n\r\n", large},
        {"much more than that", std::string(3000000, 'x'), large},
    };
}

TEST_F(HttpServer, malformedRequestsAreRefusedAndTheConnectionEnds) {
    for (Malformed const& malformed : malformedRequests()) {
        Wire const wire(m_port);
        wire.send(malformed.request);
        wire.endSending();
        EXPECT_EQ(malformed.status, statusOf(wire.receive())) << malformed.name;
    }
    expectItServes();
}

TEST_F(HttpServer, noiseDoesNotHarmIt) {
    for (unsigned int seed = 0; seed < 100; ++seed) {
        Wire const wire(m_port);
        wire.send(makeNoise(1 + seed * 517, seed));
        wire.endSending();
        std::string const answer = wire.receive();
        EXPECT_TRUE(answer.empty() || statusOf(answer).compare(0, 10, "HTTP/1.1 4") == 0) << answer;
    }
    expectItServes();
}

TEST_F(HttpServer, noiseInsideOfRequestsDoesNotHarmIt) {
    std::string const request =
        "GET /hello.txt?a=b HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\nConnection: close\r\n\r\n";
    std::mt19937 random(4);
    for (int i = 0; i < 300; ++i) {
        std::string damaged = request;
        for (unsigned int changes = 1 + random() % 4; changes > 0; --changes) {
            size_t const at = random() % damaged.size();
            if (random() % 3 == 0) {
                damaged.erase(at, 1 + random() % 5);
            } else {
                damaged[at] = static_cast<char>(random() & 0xFF);
            }
        }
        Wire const wire(m_port);
        wire.send(damaged);
        wire.endSending();
        std::string const answer = wire.receive();
        EXPECT_TRUE(answer.empty() || answer.compare(0, 9, "HTTP/1.1 ") == 0) << answer;
    }
    expectItServes();
}

TEST_F(HttpServer, greetingOfAnEncryptedConnectionDoesNotHarmIt) {
    EXPECT_NE(0, curl({"--insecure", "https" + m_url.substr(4)}).exit_code);
    expectItServes();
}

TEST_F(HttpServer, browserThatGoesAwayDoesNotHarmIt) {
    m_folder.makeFile("www/large", makeNoise(5000000, 5));
    for (int i = 0; i < 20; ++i) {
        Wire silent(m_port);
        silent.close();
        Wire resetting(m_port);
        resetting.reset();
        Wire half(m_port);
        half.send("GET /hello.t");
        half.reset();
        Wire before_the_answer(m_port);
        before_the_answer.send("GET /large HTTP/1.1\r\nHost: x\r\n\r\n");
        before_the_answer.reset();
        Wire in_the_answer(m_port);
        in_the_answer.send("GET /large HTTP/1.1\r\nHost: x\r\n\r\n");
        in_the_answer.receive([](std::string const& text) { return text.size() > 100000; });
        in_the_answer.reset();
    }
    expectItServes();
}

TEST_F(HttpServer, browserThatDoesNotReadHoldsUpNobody) {
    m_folder.makeFile("www/large", makeNoise(20 * 1024 * 1024, 6));
    std::vector<Wire> lazy;
    for (int i = 0; i < 10; ++i) {
        lazy.emplace_back(m_port);
        lazy.back().send("GET /large HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    }
    expectItServes();
    // It is not forgotten, either.
    EXPECT_TRUE(contentOf(m_folder / "www/large") == split(lazy[3].receive()).second);
}

TEST_F(HttpServer, fileThatShrinksEndsTheConnection) {
    std::string const file = m_folder.makeFile("www/shrinking", makeNoise(30 * 1024 * 1024, 7));
    Wire const wire(m_port);
    wire.send("GET /shrinking HTTP/1.1\r\nHost: x\r\n\r\n");
    std::string const begin = wire.receive([](std::string const& text) { return text.size() > 1000; });
    ASSERT_EQ(0, truncate(file.c_str(), 100));
    EXPECT_LT(begin.size() + wire.receive().size(), 30U * 1024 * 1024);
    expectItServes();
}

TEST_F(HttpServer, silentConnectionsGiveWayToNewOnes) {
    Wire const old(m_port);
    old.send("GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n");
    old.receiveUntil("Hello!\n");
    std::vector<Wire> silent;
    for (int i = 0; i < 300; ++i) {
        silent.emplace_back(m_port);
    }
    EXPECT_EQ("", old.receive());
    expectItServes();
    // The first ones have been ended, the last ones have not.
    EXPECT_EQ("", silent[0].receive());
    silent.back().send("GET /hello.txt HTTP/1.0\r\n\r\n");
    EXPECT_EQ("Hello!\n", split(silent.back().receive()).second);
}

TEST_F(HttpServer, keepsNoDescriptorOfAConnectionThatIsOver) {
    expectItServes();
    int const before = m_program->countDescriptors();
    for (int i = 0; i < 20; ++i) {
        ask("GET /noise HTTP/1.0\r\n\r\n");
        ask("GET /nix HTTP/1.0\r\n\r\n");
        ask("POST / HTTP/1.0\r\n\r\n");
        ask("HEAD /noise HTTP/1.0\r\n\r\n");
        Wire(m_port).reset();
    }
    // The last of them may take a moment.
    int after = 0;
    for (int round = 0; round < 10000; ++round) {
        after = m_program->countDescriptors();
        if (after <= before) {
            break;
        }
        expectItServes();
    }
    EXPECT_LE(after, before + 1); // The one of the moment.
}

TEST_F(HttpServer, interruptionEndsIt) {
    Wire const open(m_port);
    open.send("GET /hello.txt HTTP/1.1\r\nHost: x\r\n\r\n");
    open.receiveUntil("Hello!\n");
    EXPECT_EQ(0, m_program->end(SIGINT));
    EXPECT_EQ("", open.receive());
    m_program.reset();
}

TEST_F(HttpServer, portThatIsInUseIsToldAboutAtOnce) {
    ChildEnd const end = run(commandOf(HTTP_SERVER, {m_folder / "www", std::to_string(m_port)}));
    EXPECT_EQ(1, end.exit_code);
    EXPECT_NE(std::string::npos, end.errors.find("Socket address busy")) << end.errors;
}

TEST_F(HttpServer, startsAgainWhereConnectionsHaveJustBeen) {
    expectItServes();
    ASSERT_EQ(0, m_program->end(SIGTERM));
    m_program = std::make_unique<Program>(
        commandOf(HTTP_SERVER, {m_folder / "www", std::to_string(m_port), "127.0.0.1"}));
    ASSERT_NE("", m_program->readLine());
    expectItServes();
}

TEST_F(HttpServer, tellsHowItIsUsed) {
    std::string const www = m_folder / "www";
    for (Arguments const& arguments :
         {Arguments{}, Arguments{www, ""}, Arguments{www, "x"}, Arguments{www, "80x"}, Arguments{www, "-1"},
          Arguments{www, "65536"}, Arguments{www, "99999999999999999999"},
          Arguments{www, "0", "127.0.0.1", "x"}}) {
        ChildEnd const end = run(commandOf(HTTP_SERVER, arguments));
        EXPECT_EQ(2, end.exit_code);
        EXPECT_EQ("usage: http_server FOLDER [PORT [ADDRESS]]\n", end.errors);
        EXPECT_EQ("", end.output);
    }
}

TEST_F(HttpServer, whatItCannotServeIsToldAboutAtOnce) {
    EXPECT_EQ(1, run(commandOf(HTTP_SERVER, {m_folder / "nix", "0"})).exit_code);
    EXPECT_EQ(1, run(commandOf(HTTP_SERVER, {m_folder / "www/hello.txt", "0"})).exit_code);
    EXPECT_EQ(1, run(commandOf(HTTP_SERVER, {m_folder / "www", "0", "192.0.2.1"})).exit_code);
    EXPECT_EQ(1, run(commandOf(HTTP_SERVER, {m_folder / "www", "0", "1:2"})).exit_code);
}

TEST_F(HttpServer, worksOverIPv6) {
    VESK_SKIP_WITHOUT_NETWORKS();
    support::expectInNetwork([this] {
        Program server(commandOf(HTTP_SERVER, {m_folder / "www", "8080", "::1"}));
        EXPECT_EQ("serving " + m_folder / "www" + " at http://[::1]:8080/\n", server.readLine());
        EXPECT_EQ("Hello!\n", curl({"--globoff", "http://[::1]:8080/hello.txt"}).output);
        ChildEnd const end = fetch("http://[::1]:8080/hello.txt");
        EXPECT_EQ("Hello!\n", end.output);
        EXPECT_EQ(0, end.exit_code);
        EXPECT_EQ(0, server.end(SIGTERM));
    });
}

TEST_F(HttpServer, isFoundByItsNameOverEitherVersion) {
    VESK_SKIP_WITHOUT_NAMES();
    support::expectWithNameServer(
        "127.0.0.1 four.test\n::1 six.test\n127.0.0.1 both.test\n::1 both.test\n",
        [this](support::NameServer&) {
            Program four(commandOf(HTTP_SERVER, {m_folder / "www", "8080", "four.test"}));
            EXPECT_NE(std::string::npos, four.readLine().find("http://127.0.0.1:8080/"));
            Program six(commandOf(HTTP_SERVER, {m_folder / "www", "8081", "::1"}));
            EXPECT_NE(std::string::npos, six.readLine().find("http://[::1]:8081/"));
            for (char const* const url :
                 {"http://four.test:8080/hello.txt", "http://six.test:8081/hello.txt",
                  "http://both.test:8080/hello.txt", "http://both.test:8081/hello.txt"}) {
                ChildEnd const end = fetch(url);
                EXPECT_EQ("Hello!\n", end.output) << url;
                EXPECT_EQ(0, end.exit_code) << end.errors;
            }
            ChildEnd const end = fetch("http://nobody.test:8080/hello.txt");
            EXPECT_EQ(3, end.exit_code);
            EXPECT_NE(std::string::npos, end.errors.find("Couldn't resolve hostname")) << end.errors;
            EXPECT_EQ(0, four.end(SIGTERM));
            EXPECT_EQ(0, six.end(SIGTERM));
        });
}

TEST_F(HttpServer, servesItsOwnClient) {
    ChildEnd end = fetch(url("noise"));
    EXPECT_EQ(0, end.exit_code);
    EXPECT_TRUE(contentOf(m_folder / "www/noise") == end.output);
    EXPECT_EQ("HTTP/1.1 200 OK\n", end.errors);
    end = fetch(url("nix"));
    EXPECT_EQ(1, end.exit_code);
    EXPECT_EQ("404 Not Found\n", end.output);
}

// ---- the client with a server that everybody knows ----

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

TEST_P(HttpClient, fetchesFiles) {
    ChildEnd end = fetch(m_url + "hello.txt");
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ("Hello!\n", end.output);
    EXPECT_EQ(std::string(GetParam()) + " 200 OK\n", end.errors);
    end = fetch(m_url + "empty");
    EXPECT_EQ(0, end.exit_code);
    EXPECT_EQ("", end.output);
    end = fetch(m_url + "large#part");
    EXPECT_EQ(0, end.exit_code);
    EXPECT_TRUE(contentOf(m_folder / "large") == end.output) << end.output.size() << " bytes";
}

TEST_P(HttpClient, folderWithoutAPathIsTheTop) {
    ChildEnd const end = fetch(m_url.substr(0, m_url.size() - 1));
    EXPECT_EQ(0, end.exit_code);
    EXPECT_NE(std::string::npos, end.output.find("hello.txt")) << end.output;
}

TEST_P(HttpClient, tellsWhatIsNotThere) {
    ChildEnd const end = fetch(m_url + "nix");
    EXPECT_EQ(1, end.exit_code);
    EXPECT_EQ(std::string(GetParam()) + " 404 File not found\n", end.errors);
    EXPECT_NE(std::string::npos, end.output.find("404")) << end.output;
}

TEST_P(HttpClient, followsNothing) {
    ChildEnd const end = fetch(m_url + "sub");
    EXPECT_EQ(1, end.exit_code);
    EXPECT_EQ(std::string(GetParam()) + " 301 Moved Permanently\n", end.errors);
    EXPECT_EQ("", end.output);
}

INSTANTIATE_TEST_SUITE_P(All, HttpClient, testing::Values("HTTP/1.0", "HTTP/1.1"));

// ---- the client with servers that nobody wants to know ----

struct Script {
    char const* name;
    std::string answer;
    int exit_code;
    std::string output;
};

void PrintTo(Script const& script, std::ostream* out) {
    *out << script.name;
}

class HttpClientScript : public testing::TestWithParam<Script> {};

TEST_P(HttpClientScript, endsWithItsExitCode) {
    Port const port;
    port.listen();
    std::string request;
    std::thread server([&] {
        Wire const wire = port.accept();
        request = wire.receiveUntil("\r\n\r\n");
        wire.send(GetParam().answer);
        wire.endSending();
        wire.receive();
    });
    ChildEnd const end = fetch("HTTP://127.0.0.1:" + port.getNumber() + "/a%20b?c=d#e");
    server.join();
    EXPECT_EQ(
        "GET /a%20b?c=d HTTP/1.1\r\nHost: 127.0.0.1:" + port.getNumber() +
            "\r\nUser-Agent: http_client\r\nAccept: */*\r\nConnection: close\r\n\r\n",
        request);
    EXPECT_EQ(GetParam().exit_code, end.exit_code) << end.errors;
    EXPECT_EQ(GetParam().output, end.output);
}

std::string repeat(std::string const& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(
    All, HttpClientScript,
    testing::Values(
        Script{"size", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi", 0, "hi"},
        Script{"more than the size", "HTTP/1.1 200 OK\r\ncontent-length:2  \r\n\r\nhi there", 0, "hi"},
        Script{"until the end", "HTTP/1.0 200 OK\r\n\r\nhi there", 0, "hi there"},
        Script{"line feeds", "HTTP/1.1 200 OK\nContent-Length: 2\n\nhi", 0, "hi"},
        Script{"no reason", "HTTP/1.1 200\r\nContent-Length: 2\r\n\r\nhi", 0, "hi"},
        Script{
            "two equal sizes", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2\r\n\r\nhi", 0,
            "hi"},
        Script{"no content", "HTTP/1.1 204 No Content\r\n\r\nhi", 0, ""},
        Script{"not modified", "HTTP/1.1 304 Not Modified\r\nContent-Length: 9\r\n\r\n", 1, ""},
        Script{"status 299", "HTTP/1.1 299 Fine\r\nContent-Length: 0\r\n\r\n", 0, ""},
        Script{"status 300", "HTTP/1.1 300 Choices\r\nContent-Length: 0\r\n\r\n", 1, ""},
        Script{"status 500", "HTTP/1.1 500 Oops\r\nContent-Length: 4\r\n\r\noops", 1, "oops"},
        Script{
            "wait first",
            "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nA: b\r\n\r\nHTTP/1.1 200 OK\r\n\r\nhi", 0,
            "hi"},
        Script{
            "chunks",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi\r\n00B;x=y\r\n there "
            "you\n\r\n0\r\n\r\n",
            0, "hi there you\n"},
        Script{
            "chunks before a size",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\nContent-Length: 1\r\n\r\n2\r\nhi\r\n0\r\n\r\n",
            0, "hi"},
        Script{"nothing", "", 3, ""}, Script{"no protocol", "hello\r\n\r\n", 3, ""},
        Script{"another protocol", "SSH-2.0-OpenSSH_9.2\r\n", 3, ""},
        Script{"old protocol", "<p>hello</p>", 3, ""}, Script{"version 2", "HTTP/2 200 OK\r\n\r\n", 3, ""},
        Script{"short status", "HTTP/1.1 20\r\n\r\n", 3, ""},
        Script{"long status", "HTTP/1.1 2000 OK\r\n\r\n", 3, ""},
        Script{"no number", "HTTP/1.1 OK! OK\r\n\r\n", 3, ""},
        Script{"negative status", "HTTP/1.1 -20 OK\r\n\r\n", 3, ""},
        Script{"half a head", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n", 3, ""},
        Script{"field without colon", "HTTP/1.1 200 OK\r\nnonsense\r\n\r\nhi", 3, ""},
        Script{"endless line", "HTTP/1.1 200 " + std::string(200000, 'x'), 3, ""},
        Script{"endless fields", "HTTP/1.1 200 OK\r\n" + repeat("A: b\r\n", 20000), 3, ""},
        Script{"endless waiting", repeat("HTTP/1.1 100 Continue\r\n\r\n", 1000), 3, ""},
        Script{"negative size", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nhi", 3, ""},
        Script{"no size", "HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\nhi", 3, ""},
        Script{"odd size", "HTTP/1.1 200 OK\r\nContent-Length: 2x\r\n\r\nhi", 3, ""},
        Script{"huge size", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\nhi", 3, ""},
        Script{"two sizes", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\nhi", 3, ""},
        Script{"less than the size", "HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\nhi", 3, "hi"},
        Script{"unknown coding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\nhi", 3, ""},
        Script{"no chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", 3, ""},
        Script{
            "odd chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\nhi\r\n0\r\n\r\n", 3,
            ""},
        Script{
            "negative chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n-1\r\nhi\r\n0\r\n\r\n", 3,
            ""},
        Script{
            "huge chunk",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFF\r\nhi\r\n0\r\n\r\n", 3,
            ""},
        Script{
            "chunk without an end", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi", 3, "hi"},
        Script{
            "chunk with a wrong end",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi!\r\n0\r\n\r\n", 3, "hi"},
        Script{
            "chunks without an end", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi\r\n", 3,
            "hi"},
        Script{"noise", makeNoise(100000, 9), 3, ""}));

TEST(HttpClientFailures, terminalIsSparedWhatAServerSends) {
    Port const port;
    port.listen();
    std::thread server([&] {
        Wire const wire = port.accept();
        wire.receiveUntil("\r\n\r\n");
        wire.send("HTTP/1.1 200 \x1B[2J\x07\x7F\r\nContent-Length: 0\r\n\r\n");
        wire.endSending();
        wire.receive();
    });
    ChildEnd const end = fetch("http://127.0.0.1:" + port.getNumber());
    server.join();
    EXPECT_EQ("HTTP/1.1 200 ?[2J??\n", end.errors);
    EXPECT_EQ(0, end.exit_code);
}

TEST(HttpClientFailures, serverThatResetsTheConnection) {
    Port const port;
    port.listen();
    std::thread server([&] {
        Wire wire = port.accept();
        wire.receiveUntil("\r\n\r\n");
        wire.reset();
    });
    ChildEnd const end = fetch("http://127.0.0.1:" + port.getNumber() + "/");
    server.join();
    EXPECT_EQ(3, end.exit_code);
    EXPECT_NE(std::string::npos, end.errors.find("Connection has been reset")) << end.errors;
}

TEST(HttpClientFailures, nobodyListens) {
    Port const port;
    ChildEnd const end = fetch("http://127.0.0.1:" + port.getNumber() + "/");
    EXPECT_EQ(3, end.exit_code);
    EXPECT_EQ("", end.output);
    EXPECT_NE(std::string::npos, end.errors.find("Peer is not reachable")) << end.errors;
}

TEST(HttpClientFailures, outputThatCannotBeWritten) {
    Port const port;
    port.listen();
    std::thread server([&] {
        Wire const wire = port.accept();
        wire.receiveUntil("\r\n\r\n");
        wire.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi");
        wire.endSending();
        wire.receive();
    });
    ChildEnd const end = runInChild([&port] {
        int const full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, STDOUT_FILENO);
        execute(commandOf(HTTP_CLIENT, {"http://127.0.0.1:" + port.getNumber()}));
    });
    server.join();
    EXPECT_EQ(3, end.exit_code);
}

TEST(HttpClientFailures, argumentsThatAreNoUrl) {
    std::string const usage = "usage: http_client http://HOST[:PORT][/PATH][?QUERY]\n";
    for (char const* const url :
         {"",
          "x",
          "http:",
          "http://",
          "http:///path",
          "http://:80",
          "https://127.0.0.1/",
          "ftp://127.0.0.1/",
          "http://127.0.0.1:",
          "http://127.0.0.1:0",
          "http://127.0.0.1:65536",
          "http://127.0.0.1:x",
          "http://127.0.0.1:+80",
          "http://127.0.0.1:80:81",
          "http://me@127.0.0.1/",
          "http://[::1",
          "http://[]",
          "http://[::1]80",
          "http://127.0.0.1/a b",
          "http://127.0.0.1/\r\nX: y",
          " http://127.0.0.1",
          "127.0.0.1"}) {
        ChildEnd const end = fetch(url);
        EXPECT_EQ(2, end.exit_code) << url;
        EXPECT_EQ(usage, end.errors) << url;
        EXPECT_EQ("", end.output);
    }
    EXPECT_EQ(2, run(commandOf(HTTP_CLIENT, {})).exit_code);
    EXPECT_EQ(2, run(commandOf(HTTP_CLIENT, {"http://127.0.0.1", "x"})).exit_code);
}

} // namespace
