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

/// Provides the system's text for an error number, without the number.
class ErrorText {
public:
    explicit ErrorText(int error) noexcept : m_text(strerror_r(error, m_buffer, sizeof m_buffer)) {}
    char const* get() const noexcept { return m_text; }

private:
    char m_buffer[256];
    char const* m_text;
};

/// Returns whether a command of the pipe stops the loop.
bool isStop(unsigned char command) {
    if (command != STOP && command != SET_CHANGED) {
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "poll", "vesk::Poller::poll(): unsupported command code %d on self-pipe!",
            command);
    }
    return command == STOP;
}

/// Reserves room for `size` elements, and grows geometrically.
template <typename T>
void makeRoom(std::vector<T>& list, size_t size) {
    if (size > list.capacity()) {
        list.reserve(std::max(size, 2 * list.capacity()));
    }
}

} // namespace

TARN_CONSTANT_INIT std::Shared<Poller> Poller::DEFAULT;

/// The lists of one cycle. They keep their memory between cycles, but belong to a single call: a callback may
/// enter `poll` again, which then starts with empty lists.
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

Poller::Poller() : mutex(false), fds(1) {
    TARN_NAME_LOCK(mutex, POLLER);
    int ends[2] = {-1, -1};
    // Without close-on-exec: the code that starts a program decides what it inherits.
    if (pipe(ends) != 0) {
        int const error = errno;
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "Poller", "vesk::Poller::c'tor: cannot create self-pipe, errno=%d (%s)", error,
            ErrorText(error).get());
    }
    self_pipe.read_end = detail::UniqueFd(ends[0]);
    self_pipe.write_end = detail::UniqueFd(ends[1]);
    fds[0] = {self_pipe.read_end.get(), POLLIN, 0};
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
    // Additions are not searched: a pair that was added last must stay.
    std::copy_if(clients.begin(), clients.end(), std::back_inserter(removals), matches);
    send(SET_CHANGED);
}

void Poller::stop() {
    send(STOP);
}

/// Wakes the loop with a command. Ignores a failed write: there is no caller to report it to.
void Poller::send(unsigned char command) const noexcept {
    detail::CancellationOff const cancellation_off;
    [[maybe_unused]] ssize_t const written = write(self_pipe.write_end.get(), &command, sizeof command);
}

bool Poller::poll() {
    CallsOfCycle cycle(spare_calls);
    Calls& calls = cycle.get();
    rebuild(calls);
    waitForEvents();
    if ((fds[0].revents & POLLIN) != 0 && isStop(receive())) {
        forget();
        return true;
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

void Poller::waitForEvents() {
    errno = 0;
    if (::poll(fds.data(), fds.size(), -1) < 0) {
        // An interruption counts as a failure, too: the polling thread must not handle signals.
        int const error = errno;
        std::GlobalErrorHandler::doAbort(
            SOURCE, __LINE__, "poll", "vesk::Poller::poll: poll failed, errno=%d (%s)", error,
            ErrorText(error).get());
    }
    if ((fds[0].revents & FAILURES) != 0) {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "poll", "vesk::Poller::poll: self-pipe failed");
    }
}

/// Prepares the rows of a cycle.
void Poller::rebuild(Calls& calls) {
    InternalLock const lock(mutex, SOURCE, "poll");
    bool const has_failures = (fds[0].revents & FAILURES) != 0;
    if (has_failures || !removals.empty() || !additions.empty()) {
        changeSet(has_failures);
    }
    fds[0].revents = 0;
    makeRoom(calls.errors, clients.size());
    makeRoom(calls.reads, clients.size());
    makeRoom(calls.writes, clients.size());
    struct pollfd* row = fds.data();
    for (Entry const& entry : clients) {
        ++row;
        row->revents = 0;
        row->events = static_cast<short>(entry.client->poll_events(entry.fd));
    }
}

/// Updates the set: removes the descriptors that failed in the previous cycle, and applies the pending changes.
void Poller::changeSet(bool has_failures) {
    // The rows of the previous cycle are the only record of its failures.
    for (size_t i = 0; has_failures && i < clients.size(); ++i) {
        if ((fds[i + 1].revents & FAILURES) != 0) {
            removals.push_back(clients[i]);
        }
    }
    // Reserve all memory first: if there is not enough, entries and rows still correspond, and no failed
    // client misses its call of `error`.
    size_t const most = clients.size() + additions.size();
    makeRoom(clients, most);
    makeRoom(fds, most + 1);

    if (!removals.empty()) {
        auto const is_removed = [this](Entry const& entry) TARN_REQUIRES(mutex) {
            return std::find(removals.begin(), removals.end(), entry) != removals.end();
        };
        clients.erase(std::remove_if(clients.begin(), clients.end(), is_removed), clients.end());
        removals.clear();
    }
    clients.insert(clients.end(), additions.begin(), additions.end());
    additions.clear();

    // All rows before the first call of a client: if a client throws, no row may still contain the events of
    // another client.
    fds.resize(clients.size() + 1);
    for (size_t i = 0; i < clients.size(); ++i) {
        fds[i + 1] = {clients[i].fd, 0, 0};
    }
}

/// Reads one byte of the pipe, even if there are more. A failed read counts as a change of the set: the byte
/// is still available in the next cycle.
unsigned char Poller::receive() const {
    unsigned char command = SET_CHANGED;
    [[maybe_unused]] ssize_t const count = read(self_pipe.read_end.get(), &command, sizeof command);
    return command;
}

/// Discards the results of this cycle, for the next cycle to find them again: a failed client must not leave
/// the set without its call of `error`. Takes no lock, since only this thread uses the rows: a stop returns
/// immediately.
void Poller::forget() noexcept {
    for (struct pollfd& row : fds) {
        row.revents = 0;
    }
}

/// Sorts the rows by the calls that they require. Takes no lock: only the polling thread changes `clients`, and
/// other threads merely read it under the lock.
void Poller::collect(Calls& calls) TARN_NOT_ANALYZED {
    struct pollfd const* row = fds.data();
    for (Entry const& entry : clients) {
        short const events = (++row)->revents;
        if (events == 0) {
            continue;
        }
        if ((events & FAILURES) != 0) {
            calls.errors.push_back(entry);
            fds[0].revents |= POLLERR; // For the next cycle, which need not search the rows without it.
            continue;
        }
        if ((events & POLLIN) != 0) {
            calls.reads.push_back(entry);
        }
        if ((events & POLLOUT) != 0) {
            calls.writes.push_back(entry);
        }
    }
}

int Poller::Client::poll_events(int) {
    return 0;
}

void Poller::Client::read(int) {}

void Poller::Client::write(int) {}

} // namespace vesk
