#include "Core.h"
#include "Job.h"

#include <vesk/common/CancellationOff.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace vesk::loop::detail {

using vesk::detail::CancellationOff;

// ---- life ----

namespace {

/// The number of forks between the first process with a loop and this one. A child of `fork` shares the epoll set
/// with its parent, and must not change it.
std::atomic<unsigned int> s_forks{0};

unsigned int countForks() noexcept {
    static int const s_result = pthread_atfork(nullptr, nullptr, [] { ++s_forks; });
    static_cast<void>(s_result);
    return s_forks;
}

} // namespace

bool Core::isInherited() const noexcept {
    return m_forks != s_forks;
}

Core::Core() noexcept
    : m_forks(countForks()),
      m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_epoll.isOpen() || !m_event.isOpen() || !add(m_event, EVENT, EPOLLIN | EPOLLET)) {
        m_creation_error = errno;
    }
}

Core::~Core() = default;

/// Adds a descriptor of the loop's own.
bool Core::add(UniqueFd const& fd, int number, uint32_t events) noexcept {
    epoll_event event{};
    event.events = events;
    event.data.u64 = toData(number, 0);
    return epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd.get(), &event) == 0;
}

void Core::close() noexcept {
    // Destroyed without the lock: their objects may own watches.
    Calls posts[PRIORITIES];
    Batch batches[PRIORITIES];
    std::shared_ptr<Callback<void(std::exception_ptr)>> hook;
    Locked const locked(m_lock);
    giveUpPosts(posts, batches);
    std::swap(hook, m_exception_hook);
    for (size_t fd = 0; fd < m_slots.size(); ++fd) {
        for (FdSource* const source : {m_slots[fd].reader, m_slots[fd].writer}) {
            if (source != nullptr) {
                setOver(*source);
            }
        }
    }
    while (!m_heap.empty()) {
        setOver(*m_heap.back());
    }
    while (!m_signals.empty()) {
        setOver(*m_signals.back());
    }
    while (!m_idle.empty()) {
        setOver(*m_idle.back());
    }
    // Timers that have expired but were not fired.
    for (size_t i = 0; i < PRIORITIES; ++i) {
        m_due[i].takeAll(m_ready[i]);
        while (!m_due[i].isAlone()) {
            setOver(static_cast<Source&>(*m_due[i].getNext()));
        }
    }
    m_signal_fd.close();
    m_timer_fd.close();
    m_event.close();
    m_epoll.close();
}

/// Moves what was posted out of the loop.
void Core::giveUpPosts(Calls (&posts)[PRIORITIES], Batch (&batches)[PRIORITIES]) noexcept {
    Locked const locked(m_post_lock);
    std::swap(posts, m_posts);
    std::swap(batches, m_batches);
    m_has_posts = false;
    m_has_batch = false;
}

// ---- sources ----

void Core::setActive(Source& source) noexcept {
    source.is_attached = true;
    ++m_active;
}

/// Ends the activity of an attached source.
void Core::setOver(Source& source) noexcept {
    source.detach();
    source.remove();
    source.is_attached = false;
    --m_active;
}

void Core::setReady(Source& source) noexcept {
    if (source.isAlone()) {
        m_ready[static_cast<size_t>(source.getOptions().priority)].insert(source);
    }
}

bool Core::isActive(Source const& source) noexcept {
    Locked const locked(m_lock);
    return source.is_attached && m_epoll.isOpen();
}

bool Core::finish(Source& source) noexcept {
    Locked const locked(m_lock);
    bool const was_active = source.is_attached;
    if (was_active) {
        setOver(source);
    }
    return was_active;
}

void Core::cancel(Source& source) noexcept {
    CancellationOff const cancellation_off;
    Locked const locked(m_lock);
    source.is_canceled = true;
    if (source.is_attached) {
        setOver(source);
    }
    source.leave();
    if (m_running == &source && isLoopThread()) {
        m_kept = source.shared_from_this(); // Its watch is destroyed by its own callback.
        return;
    }
    ++m_waiting;
    while (m_running == &source && !isInherited()) {
        m_lock.wait(m_callback_over);
    }
    --m_waiting;
}

void Source::cancel() noexcept {
    m_core->cancel(*this);
}

bool Source::isActive() const noexcept {
    return m_core->isActive(*this);
}

void Core::attach(JobSource& source) noexcept {
    Locked const locked(m_lock);
    setActive(source);
}

int Core::signal(Source const& child, pid_t pid, int number) noexcept {
    Locked const locked(m_lock);
    return child.is_attached ? kill(pid, number) == 0 ? 0 : errno : ESRCH;
}

// ---- posts and wake-ups ----

bool Core::hasReady() const noexcept {
    constexpr auto IS_FILLED = [](Link const& list) { return !list.isAlone(); };
    return std::any_of(std::begin(m_ready), std::end(m_ready), IS_FILLED) ||
        std::any_of(std::begin(m_due), std::end(m_due), IS_FILLED);
}

/// Ends the wait of the loop's thread, or the next one, unless another thread is about to do that. The counter of the
/// descriptor is never read: the loop watches its edges.
void Core::wake() noexcept {
    if (!m_is_awake && !isInherited() && !m_is_woken.exchange(true)) {
        CancellationOff const cancellation_off;
        eventfd_write(m_event.get(), 1);
    }
}

// The lock is held to the end: the loop may be destroyed as soon as the call has run.
void Core::post(Callback<void()>&& call, Priority priority) {
    Locked const locked(m_post_lock);
    m_posts[static_cast<size_t>(priority)].push_back(std::move(call));
    if (!m_has_posts.load(std::memory_order_relaxed)) {
        m_has_posts = true;
    }
    wake();
}

// The lock is held to the end: the loop may be destroyed as soon as it has stopped.
void Core::stop() noexcept {
    Locked const locked(m_lock);
    m_stop = true;
    wake();
}

bool Core::isDone() noexcept {
    Locked const locked(m_lock);
    return m_active == 0 && !hasPosts();
}

// ---- a round ----

bool Core::enter() noexcept {
    pthread_t none{};
    return m_thread.compare_exchange_strong(none, pthread_self());
}

int Core::runOnce(Clock::duration timeout, bool& called) {
    Clock::duration limit{};
    {
        Locked const locked(m_lock);
        m_is_awake = false;
        limit = getWait(timeout);
    }
    int const count = wait(limit);
    if (count < 0 && errno != EINTR) {
        return errno;
    }
    Locked const locked(m_lock);
    // The order of these does not matter: a thread that sees one of them late ends the next wait without need.
    m_is_awake.store(true, std::memory_order_relaxed);
    m_is_woken.store(false, std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
        collect(m_events[static_cast<size_t>(i)]);
    }
    collectTimers();
    called = fireAll();
    if (m_timer_fd.isOpen()) { // Another loop may wait for this one by its descriptor.
        m_is_awake = false;
        armTimerFd();
        if (hasPosts() || hasReady() || !m_idle.empty()) {
            wake();
        }
    }
    return 0;
}

/// The time during which callbacks run and the lock is not held. Also ends when the thread is canceled.
class TARN_SCOPED_LOCK Core::Unlocked {
public:
    Unlocked(Core& core, Source* source) noexcept TARN_RELEASE(core.m_lock) TARN_NOT_ANALYZED : m_core(core) {
        m_core.m_running = source;
        m_core.countCalls(1);
        m_core.m_lock.unlock();
    }
    ~Unlocked() TARN_RELEASE() TARN_NOT_ANALYZED {
        if (m_core.m_kept != nullptr) {
            CancellationOff const cancellation_off;
            m_core.m_kept.reset(); // Destroys the objects of the callback, which may use the loop.
        }
        m_core.m_lock.lock();
        m_core.m_running = nullptr;
        m_core.countCalls(1);
        if (m_core.m_waiting != 0) {
            m_core.m_callback_over.notify_all();
        }
    }
    Unlocked(Unlocked const&) = delete;
    Unlocked& operator=(Unlocked const&) = delete;

private:
    Core& m_core;
};

/// Fires what is due, in the order of the priorities. Idle sources fire only if nothing else does.
bool Core::fireAll() {
    if (!hasReady() && !hasPosts()) {
        for (IdleSource* const source : m_idle) {
            setReady(*source);
        }
    }
    // What becomes ready from here on waits for the next round.
    for (size_t i = 0; i < PRIORITIES; ++i) {
        m_due[i].takeAll(m_ready[i]);
    }
    takePosts();
    bool called = false;
    for (size_t i = 0; i < PRIORITIES; ++i) {
        called |= firePosts(m_batches[i]);
        while (!m_due[i].isAlone() && !m_stop) {
            called = true;
            fire(static_cast<Source&>(*m_due[i].getNext()));
        }
    }
    m_has_batch = std::any_of(
        std::begin(m_batches), std::end(m_batches), [](Batch const& batch) { return !batch.isOver(); });
    return called;
}

void Core::fire(Source& source) {
    source.remove();
    Call const call = source.prepare();
    if (call == Call::NONE) {
        return;
    }
    if (call == Call::LAST) {
        setOver(source);
    }
    // The watch owns the source. Other threads cannot destroy it during the call, and the call itself has it kept.
    Unlocked const unlocked(*this, &source);
    callOut([&source] { source.fire(); });
}

/// Takes what was posted. A batch that `stop` has cut goes on before.
void Core::takePosts() {
    if (!m_has_posts) {
        return;
    }
    bool has_more = false;
    Locked const locked(m_post_lock);
    for (size_t i = 0; i < PRIORITIES; ++i) {
        Batch& batch = m_batches[i];
        if (batch.isOver()) {
            batch.calls.clear();
            batch.next = 0;
            batch.calls.swap(m_posts[i]);
        }
        m_has_batch |= !batch.isOver();
        has_more |= !m_posts[i].empty();
    }
    m_has_posts = has_more;
}

namespace {

/// Destroys the objects of a callback at the end of its call.
struct Emptied {
    ~Emptied() { callback = {}; }
    Callback<void()>& callback;
};

} // namespace

/// Calls a batch without the lock: only this thread uses it.
bool Core::firePosts(Batch& batch) {
    if (batch.isOver()) {
        return false;
    }
    Unlocked const unlocked(*this, nullptr);
    while (!batch.isOver() && !m_stop) {
        Callback<void()>& call = batch.calls[batch.next++];
        callOut([&call] {
            Emptied const emptied{call};
            call();
        });
        countCalls(2); // The end and a begin.
    }
    return true;
}

template <typename Call>
void Core::callOut(Call&& call) {
    try {
        call();
    } catch (...) {
        std::exception_ptr exception = std::current_exception();
        if (exception == nullptr) {
            throw; // Not an exception of the language: the thread is canceled.
        }
        handle(std::move(exception));
    }
}

Core::Running Core::getRunning() noexcept {
    Locked const locked(m_lock);
    return {m_calls, m_running != nullptr ? m_running->getOptions().place : Place{"post", 0}};
}

void Core::setExceptionHook(Callback<void(std::exception_ptr)> hook) {
    auto shared = std::make_shared<Callback<void(std::exception_ptr)>>(std::move(hook));
    Locked const locked(m_lock);
    std::swap(m_exception_hook, shared);
}

/// Hands an exception of a callback to the hook. Without one nothing can handle it, nor one that the hook throws.
void Core::handle(std::exception_ptr exception) noexcept {
    CancellationOff const cancellation_off;
    std::shared_ptr<Callback<void(std::exception_ptr)>> hook;
    {
        Locked const locked(m_lock);
        hook = m_exception_hook;
    }
    if (hook == nullptr || !*hook) {
        std::terminate();
    }
    (*hook)(std::move(exception));
}

} // namespace vesk::loop::detail
