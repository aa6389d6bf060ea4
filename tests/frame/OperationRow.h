#pragma once

#include "EveryHeader.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <glob.h>
#include <istream>
#include <memory>
#include <mqueue.h>
#include <net/if.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>

/// Operations of all classes, for tests that make what is below them fail.
namespace operations {

using vesk::IPSocket;

// A text that does not fit into a string object.
constexpr char const* LONG = "a/text/that/is/too/long/for/the/buffer/within/an/object/of/a/string";
inline std::string const g_long = LONG;
constexpr wchar_t const* WIDE = L"/a/text/that/is/too/long/for/the/buffer/within/an/object/of/a/string";

/// The result of a constructor that cannot return one.
template <typename T>
bool isBroken(T const& object) {
    return !object.isValid();
}

/// The process that runs the tests. Its children use the names of its objects, so that nothing is left if they end.
inline pid_t const g_process = getpid();

inline std::string getName(char const* what) {
    return "vesk-allocations-" + std::to_string(g_process) + "-" + what;
}

/// Removes what operations that failed have left.
inline void removeNames() {
    shm_unlink(("/" + getName("memory")).c_str());
    shm_unlink(("/" + getName("ring")).c_str());
    mq_unlink(("/" + getName("queue")).c_str());
    sem_unlink(("/" + getName("semaphore")).c_str());
    sem_unlink(("/" + getName("attached")).c_str());
    glob_t files;
    if (glob(("/tmp/" + getName("*")).c_str(), 0, nullptr, &files) == 0) {
        std::for_each(files.gl_pathv, files.gl_pathv + files.gl_pathc, unlink);
        globfree(&files);
    }
}

inline IPSocket::IPAddress getLoopback() {
    return {IPSocket::LOOPBACK_IP, 0};
}

struct Client : vesk::Poller::Client {
    int poll_events(int) override { return POLLIN; }
    void read(int) override {}
    void error(int) override {}
};

struct Handler : vesk::Message::Handler {
    void handle(vesk::Message&) override {}
};

/// Closes a socket at its end, also if something is thrown before: an open socket must not be destroyed.
template <typename Socket>
struct Closing {
    Closing(Socket& its_socket) : socket(its_socket) {}
    ~Closing() {
        vesk::detail::KeptErrorChain const kept_chain; // A socket that failed may be closed already.
        socket.close(false);
    }
    Closing(Closing const&) = delete;
    Closing& operator=(Closing const&) = delete;

    Socket& socket;
};

inline vesk::ProcessTNG::ExitState g_state;
inline std::unique_ptr<vesk::Timer> g_timer;

/// An empty file that exists during all tests.
inline std::string const g_file = "/tmp/" + getName("file");

/// Returns whether an operation has failed for its argument, and acknowledges this.
inline bool isRefused(bool failed) {
    bool const refused = failed && std::ErrorStorage::is(std::CommonErrorId::INVALID_ARGUMENT);
    if (refused) {
        std::ErrorStorage::ack();
    }
    return refused;
}

/// An operation, which returns whether it has failed.
///
/// `points` has a letter for each of its allocations, which says what happens if that one fails:
/// T  `std::bad_alloc` is thrown
/// W  the operation waits, and succeeds
/// R  it fails with a chain of reports
/// B  `std::bad_alloc` is thrown, and a chain is pending
/// 2  it fails with several chains or events
/// F  it fails without a report
/// A  it trips an assertion
/// P  it succeeds, and a chain is pending
/// -  it succeeds without this memory, and nothing is pending
/// If the number of allocations depends on the machine, `points` is a "*" and the letters that may occur.
/// `excuse` is the reason for the letters other than T, W and R.
struct Row {
    char const* name;
    char const* points;
    bool (*run)();
    char const* excuse = nullptr;
};

inline void PrintTo(Row const& row, std::ostream* out) {
    *out << row.name;
}

} // namespace operations
