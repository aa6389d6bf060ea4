#include "Core.h"
#include "SignalsBlocked.h"
#include "Start.h"

#include <vesk/KeptChildren.h>
#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

// The number is the same on all architectures.
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace vesk::loop::detail {

// ---- descriptors ----

namespace {

constexpr uint32_t READABLE = EPOLLIN | EPOLLRDHUP;
constexpr uint32_t WRITABLE = EPOLLOUT;
// The system reports these always.
constexpr uint32_t ENDED = EPOLLHUP | EPOLLERR;

bool isEdge(FdSource const* source) noexcept {
    return source == nullptr || source->trigger == Trigger::EDGE;
}

} // namespace

int Core::attach(FdSource& source) {
    if (source.fd < 0) {
        return EBADF;
    }
    Locked const locked(m_lock);
    if (source.is_canceled) {
        return ECANCELED;
    }
    auto const index = static_cast<size_t>(source.fd);
    if (index >= m_slots.size()) {
        if (fcntl(source.fd, F_GETFD) < 0) {
            return errno; // No memory for a number that is not a descriptor.
        }
        m_slots.resize(std::max(index + 1, 2 * m_slots.size()));
    }
    FdSource*& direction = source.is_writer ? m_slots[index].writer : m_slots[index].reader;
    if (direction != nullptr) {
        return EEXIST;
    }
    direction = &source;
    int const error = update(source.fd);
    if (error != 0) {
        direction = nullptr;
        return error;
    }
    setActive(source);
    return 0;
}

void Core::detach(FdSource& source) noexcept {
    Slot& slot = m_slots[static_cast<size_t>(source.fd)];
    (source.is_writer ? slot.writer : slot.reader) = nullptr;
    // The descriptor may be closed already.
    update(source.fd);
}

/// Tells the system what to wait for. Returns `errno`, 0 on success.
int Core::update(int fd) noexcept {
    Slot& slot = m_slots[static_cast<size_t>(fd)];
    if (isInherited()) {
        return ECHILD;
    }
    epoll_event event{};
    event.events = (slot.reader != nullptr ? READABLE : 0) | (slot.writer != nullptr ? WRITABLE : 0);
    if (event.events == 0) {
        slot.events = 0;
        return epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, fd, &event) == 0 ? 0 : errno;
    }
    // Both directions share one setting: the edges of one must not hide that the other is still ready.
    event.events |= isEdge(slot.reader) && isEdge(slot.writer) ? static_cast<uint32_t>(EPOLLET) : 0;
    slot.generation += slot.events == 0 ? 1 : 0;
    event.data.u64 = toData(fd, slot.generation);
    int result = epoll_ctl(m_epoll.get(), slot.events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event);
    if (result != 0 && errno == ENOENT && slot.events != 0) {
        // The descriptor was closed, and its number belongs to another one now.
        event.data.u64 = toData(fd, ++slot.generation);
        result = epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event);
    }
    if (result != 0) {
        return errno;
    }
    slot.events = event.events;
    return 0;
}

void Core::collect(epoll_event const& event) noexcept {
    auto const number = static_cast<int>(static_cast<uint32_t>(event.data.u64));
    if (number < 0) {
        collectOwn(number);
        return;
    }
    Slot const& slot = m_slots[static_cast<size_t>(number)];
    if (event.data.u64 != toData(number, slot.generation)) {
        return; // The watch has ended since the wait.
    }
    if (slot.reader != nullptr && (event.events & (READABLE | ENDED)) != 0) {
        setReady(*slot.reader);
    }
    if (slot.writer != nullptr && (event.events & (WRITABLE | ENDED)) != 0) {
        setReady(*slot.writer);
    }
}

/// Serves a descriptor of the loop's own.
void Core::collectOwn(int number) noexcept {
    if (number == SIGNALS) {
        collectSignals();
    } else if (number == TIMER) {
        m_armed = Clock::time_point::max();
    }
}

void FdSource::detach() noexcept {
    getCore().detach(*this);
}

// ---- signals ----

int Core::attach(SignalSource& source) {
    if (source.signal <= 0 || source.signal >= NSIG || source.signal == SIGKILL || source.signal == SIGSTOP) {
        return EINVAL;
    }
    Locked const locked(m_lock);
    m_signals.push_back(&source);
    int error = updateSignals();
    if (error == 0) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, source.signal);
        error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }
    if (error != 0) {
        m_signals.pop_back();
        return error;
    }
    setActive(source);
    return 0;
}

void Core::detach(SignalSource& source) noexcept {
    m_signals.erase(std::find(m_signals.begin(), m_signals.end(), &source));
    updateSignals();
}

int Core::updateSignals() noexcept {
    if (isInherited()) {
        return ECHILD;
    }
    sigset_t set;
    sigemptyset(&set);
    for (SignalSource const* const source : m_signals) {
        sigaddset(&set, source->signal);
    }
    if (m_signal_fd.isOpen()) {
        return signalfd(m_signal_fd.get(), &set, 0) >= 0 ? 0 : errno;
    }
    UniqueFd fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd.isOpen() || !add(fd, SIGNALS, EPOLLIN)) {
        return errno;
    }
    m_signal_fd = std::move(fd);
    return 0;
}

void Core::collectSignals() noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    signalfd_siginfo infos[8];
    ssize_t size = read(m_signal_fd.get(), infos, sizeof infos);
    while (size > 0) {
        for (size_t i = 0; i < static_cast<size_t>(size) / sizeof infos[0]; ++i) {
            for (SignalSource* const source : m_signals) {
                if (source->signal == static_cast<int>(infos[i].ssi_signo)) {
                    setReady(*source);
                }
            }
        }
        size = read(m_signal_fd.get(), infos, sizeof infos);
    }
}

void SignalSource::detach() noexcept {
    getCore().detach(*this);
}

// ---- children ----

namespace {

/// Waits for a child in a thread that closes a pipe then: before Linux 5.3, or behind a filter that does not know
/// `pidfd_open`. A thread leaves the signals of the process alone, unlike a handler of `SIGCHLD`.
UniqueFd waitInThread(pid_t child) noexcept {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return UniqueFd();
    }
    UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    try {
        SignalsBlocked const blocked; // The thread inherits that.
        std::thread([child, end = std::move(writer)] {
            siginfo_t info;
            while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
            }
        }).detach();
    } catch (std::system_error const& error) {
        errno = error.code().value();
        return UniqueFd();
    } catch (std::bad_alloc const&) {
        errno = ENOMEM;
        return UniqueFd();
    }
    return reader;
}

} // namespace

UniqueFd openChild(pid_t child) noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    siginfo_t info;
    if (child <= 0) {
        errno = EINVAL;
        return UniqueFd();
    }
    if (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return UniqueFd();
    }
    UniqueFd fd(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    return fd.isOpen() || (errno != ENOSYS && errno != EPERM) ? std::move(fd) : waitInThread(child);
}

ChildSource::ChildSource(
    std::shared_ptr<Core> core, Options options, pid_t child, UniqueFd descriptor,
    Callback<void(Exit)> callback)
    : FdSource(std::move(core), options, descriptor.get(), false, Trigger::LEVEL),
      m_child(child),
      m_descriptor(std::move(descriptor)),
      m_callback(std::move(callback)) {
    KeptChildren::Start keeping;
    keeping.keep(m_child);
}

ChildSource::~ChildSource() {
    release();
}

void ChildSource::release() noexcept {
    if (std::exchange(m_is_kept, false)) {
        KeptChildren::release(m_child);
    }
}

Call ChildSource::prepare() noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(m_child), &info, WEXITED | WNOHANG) == 0) {
        if (info.si_pid != m_child) {
            return Call::NONE;
        }
        m_exit = toExit(m_child, info);
    }
    m_exit.pid = m_child;
    release();
    return Call::LAST;
}

void ChildSource::fire() {
    m_callback(m_exit);
}

// ---- the real-time clock ----

Call ClockSource::prepare() noexcept {
    vesk::detail::CancellationOff const cancellation_off;
    uint64_t expiries = 0;
    if (read(m_descriptor.get(), &expiries, sizeof expiries) > 0) {
        return Call::LAST;
    }
    return errno == ECANCELED ? Call::AGAIN : Call::NONE;
}

// ---- idle rounds ----

void Core::attach(IdleSource& source) {
    Locked const locked(m_lock);
    m_idle.push_back(&source);
    setActive(source);
    wake();
}

void Core::detach(IdleSource& source) noexcept {
    m_idle.erase(std::find(m_idle.begin(), m_idle.end(), &source));
}

void IdleSource::detach() noexcept {
    getCore().detach(*this);
}

} // namespace vesk::loop::detail
