#include <vesk/Poller.h>

#include <vesk/common/AbortingLock.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <unistd.h>
#include <utility>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/Poller";

constexpr unsigned char STOP = 0;
constexpr unsigned char SET_CHANGED = 1;

constexpr short FAILURES = POLLERR | POLLHUP | POLLNVAL;
static_assert(FAILURES == 0x38);

using InternalLock = AbortingLock<threadsafe::MutexImpl>;

/// The system's text for an error number, without the number.
class ErrorText {
public:
    explicit ErrorText(int error) noexcept : m_text(strerror_r(error, m_buffer, sizeof m_buffer)) {}
    char const* get() const noexcept { return m_text; }

private:
    char m_buffer[256];
    char const* m_text;
};

/// Makes room for `size` elements, and for more to come.
template <typename T>
void makeRoom(std::vector<T>& list, size_t size) {
    if (size > list.capacity()) {
        list.reserve(std::max(size, 2 * list.capacity()));
    }
}

} // namespace

TARN_CONSTANT_INIT std::Shared<Poller> Poller::DEFAULT;

/// The lists of one cycle. They keep their memory from cycle to cycle, but belong to one call: a callback may enter `poll`
/// again, which then finds none to take.
class Poller::CallsOfCycle : private tarnbase::NonCopyable {
public:
    explicit CallsOfCycle(Calls& spare) noexcept : m_spare(spare), m_calls(std::move(spare)) {}
    ~CallsOfCycle() {
        m_calls.errors.clear();
        m_calls.reads.clear();
        m_calls.writes.clear();
        m_spare = std::move(m_calls);
    }

    Calls& get() noexcept { return m_calls; }

private:
    Calls& m_spare;
    Calls m_calls;
};

Poller::SelfPipe::~SelfPipe() {
    if (read_end >= 0) {
        detail::CancellationOff const cancellation_off;
        close(read_end);
        close(write_end);
    }
}

Poller::Poller() : mutex(false), fds(1) {
    int ends[2] = {-1, -1};
    // Without close-on-exec: what a new program inherits is decided by whoever starts it.
    if (pipe(ends) != 0) {
        int const error = errno;
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "Poller", "vesk::Poller::c'tor: cannot create self-pipe, errno=%d (%s)", error,
            ErrorText(error).get());
    }
    self_pipe.read_end = ends[0];
    self_pipe.write_end = ends[1];
    fds[0] = {self_pipe.read_end, POLLIN, 0};
}

Poller::~Poller() = default;

void Poller::add(Client& client, int fd) {
    InternalLock const lock(mutex, SOURCE, "add");
    Entry const entry{&client, fd};
    additions.push_back(entry);
    removals.erase(std::remove(removals.begin(), removals.end(), entry), removals.end());
    send(SET_CHANGED);
}

void Poller::remove(Client const& client) {
    queueRemovals([&client](Entry const& entry) { return entry.client == &client; });
}

void Poller::remove(int fd) {
    queueRemovals([fd](Entry const& entry) { return entry.fd == fd; });
}

template <typename Matches>
void Poller::queueRemovals(Matches matches) {
    InternalLock const lock(mutex, SOURCE, "remove");
    // Additions are not searched: what was added last is meant to be there.
    std::copy_if(clients.begin(), clients.end(), std::back_inserter(removals), matches);
    send(SET_CHANGED);
}

void Poller::stop() {
    send(STOP);
}

/// A write that fails is ignored: it has no one to tell, and a pipe that is full wakes the loop anyway.
void Poller::send(unsigned char command) const noexcept {
    detail::CancellationOff const cancellation_off;
    [[maybe_unused]] ssize_t const written = write(self_pipe.write_end, &command, sizeof command);
}

bool Poller::poll() {
    CallsOfCycle cycle(spare_calls);
    Calls& calls = cycle.get();
    rebuild(calls);

    errno = 0;
    if (::poll(fds.data(), fds.size(), -1) < 0) {
        // An interruption included: signals have no business in a thread that serves others.
        int const error = errno;
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "poll", "vesk::Poller::poll: poll failed, errno=%d (%s)", error,
            ErrorText(error).get());
    }
    if ((fds[0].revents & FAILURES) != 0) {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "poll", "vesk::Poller::poll: self-pipe failed");
    }
    if ((fds[0].revents & POLLIN) != 0) {
        unsigned char const command = receive();
        if (command == STOP) {
            forget();
            return true;
        }
        if (command != SET_CHANGED) {
            std::GlobalErrorHandler::doAbort(
                SOURCE, __LINE__, "poll", "vesk::Poller::poll(): unsupported command code %d on self-pipe!",
                command);
        }
    }

    collect(calls);
    for (Entry const& entry : calls.errors) {
        entry.client->error(entry.fd);
    }
    for (Entry const& entry : calls.reads) {
        entry.client->read(entry.fd);
    }
    for (Entry const& entry : calls.writes) {
        entry.client->write(entry.fd);
    }
    return false;
}

/// Brings the set up to date: drops those that failed in the cycle before, applies what waits, and makes the rows.
void Poller::rebuild(Calls& calls) {
    InternalLock const lock(mutex, SOURCE, "poll");
    // The rows of the cycle before are the only record of who failed.
    for (size_t i = 0; i < clients.size(); ++i) {
        if ((fds[i + 1].revents & FAILURES) != 0) {
            removals.push_back(clients[i]);
        }
    }
    // All memory first: when there is not enough, entries and rows still belong together, and no failed client loses the
    // call that tells it.
    size_t const most = clients.size() + additions.size();
    makeRoom(clients, most);
    makeRoom(fds, most + 1);
    makeRoom(calls.errors, most);
    makeRoom(calls.reads, most);
    makeRoom(calls.writes, most);

    if (!removals.empty()) {
        auto const is_removed = [this](Entry const& entry) {
            return std::find(removals.begin(), removals.end(), entry) != removals.end();
        };
        clients.erase(std::remove_if(clients.begin(), clients.end(), is_removed), clients.end());
        removals.clear();
    }
    clients.insert(clients.end(), additions.begin(), additions.end());
    additions.clear();

    fds.resize(clients.size() + 1);
    fds[0].revents = 0;
    for (size_t i = 0; i < clients.size(); ++i) {
        fds[i + 1] = {clients[i].fd, 0, 0};
    }
    // A loop of its own: a client that throws must leave no row of another one behind.
    for (size_t i = 0; i < clients.size(); ++i) {
        fds[i + 1].events = static_cast<short>(clients[i].client->poll_events(clients[i].fd));
    }
}

/// One byte of the pipe, even if there are more. Should it not come, it is as if the set had changed: the byte is still
/// there for the next cycle.
unsigned char Poller::receive() const {
    unsigned char command = SET_CHANGED;
    [[maybe_unused]] ssize_t const count = read(self_pipe.read_end, &command, sizeof command);
    return command;
}

/// Drops what this cycle found, for the next one to find it again: a failed client that was told nothing must not leave
/// the set. Without the lock, since only this thread looks at the rows: a stop returns at once.
void Poller::forget() noexcept {
    for (struct pollfd& row : fds) {
        row.revents = 0;
    }
}

/// Sorts the rows by the calls that they ask for.
void Poller::collect(Calls& calls) {
    InternalLock const lock(mutex, SOURCE, "poll");
    for (size_t i = 0; i < clients.size(); ++i) {
        short const events = fds[i + 1].revents;
        if ((events & FAILURES) != 0) {
            calls.errors.push_back(clients[i]);
            continue;
        }
        if ((events & POLLIN) != 0) {
            calls.reads.push_back(clients[i]);
        }
        if ((events & POLLOUT) != 0) {
            calls.writes.push_back(clients[i]);
        }
    }
}

int Poller::Client::poll_events(int) {
    return 0;
}

void Poller::Client::read(int) {}

void Poller::Client::write(int) {}

} // namespace vesk
