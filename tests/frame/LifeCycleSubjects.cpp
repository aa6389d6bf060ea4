#include "LifeCycleSubjects.h"

#include "EveryHeader.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <istream>
#include <mqueue.h>
#include <sched.h>
#include <semaphore.h>
#include <string>
#include <unistd.h>
#include <vesk/loop/Loop.h>

namespace life {

namespace {

using vesk::IPSocket;

std::string getName(char const* what) {
    static std::atomic<int> s_number{0};
    return "vesk-life-" + std::to_string(getpid()) + "-" + what + std::to_string(++s_number);
}

template <typename Condition>
void waitFor(Condition condition) {
    while (!condition()) {
        sched_yield();
    }
}

/// A subject with one object.
template <typename T>
class Of : public Subject {
public:
    void destroy() override { m_object.reset(); }

protected:
    template <typename... Arguments>
    explicit Of(Arguments&&... arguments)
        : m_object(std::make_unique<T>(std::forward<Arguments>(arguments)...)) {}

    std::unique_ptr<T> m_object;
};

// ---- locks ----

template <typename T>
struct MutexSubject : Of<T> {
    bool use() override { return this->m_object->lock() || this->m_object->unlock(); }
    void prepareWait() override { this->m_object->lock(); }
    void wait() override { use(); }
    void wake() override { this->m_object->unlock(); }
};

template <typename T>
struct SpinLockSubject : Of<T> {
    bool use() override {
        this->m_object->lock();
        this->m_object->unlock();
        return false;
    }
    void prepareWait() override { this->m_object->lock(); }
    void wait() override { use(); }
    void wake() override { this->m_object->unlock(); }
};

template <typename T>
struct RWLockSubject : Of<T> {
    bool use() override {
        return this->m_object->lockForRead() || this->m_object->unlock() || this->m_object->lockForWrite() ||
            this->m_object->unlock();
    }
    void prepareWait() override { this->m_object->lockForWrite(); }
    void wait() override { use(); }
    void wake() override { this->m_object->unlock(); }
};

template <typename T, typename Mutex, typename Lock>
struct ConditionSubject : Of<T> {
    bool use() override {
        Lock const lock(m_mutex);
        return this->m_object->waitTimeout(m_mutex, vesk::AbsTimeT(0)) == -1 || this->m_object->signal();
    }
    void prepareWait() override { m_may_go_on = false; }
    void wait() override {
        Lock const lock(m_mutex);
        while (!m_may_go_on) {
            this->m_object->wait(m_mutex);
        }
    }
    void wake() override {
        Lock const lock(m_mutex);
        m_may_go_on = true;
        this->m_object->signal();
    }

private:
    Mutex m_mutex;
    bool m_may_go_on = false;
};

// ---- threads and callbacks of the library ----

struct ThreadSubject : Of<vesk::Thread> {
    ThreadSubject() : Of([](void* self) { static_cast<ThreadSubject*>(self)->run(); }, this, "subject") {}
    ~ThreadSubject() override {
        if (m_object && m_is_started) {
            m_may_end = true;
            m_object->join(); // Fails if the thread was joined.
            std::ErrorStorage::ack();
        }
    }
    bool use() override { return m_object->wakeup(); }
    void prepareWait() override { trigger(); }
    void wait() override { m_object->join(); }
    void wake() override { m_may_end = true; }
    void trigger() override { m_is_started = m_is_started || !m_object->start(); }

private:
    void run() {
        if (in_callback) {
            in_callback();
        }
        while (!m_may_end) {
            vesk::Time::sleep(1);
        }
    }
    bool m_is_started = false;
    std::atomic<bool> m_may_end{false};
};

/// A timer, while another one keeps the thread. Waits by stopping it while it calls back.
template <bool HIGH>
struct TimerSubject : Subject {
    static void ring(vesk::Timer* timer) { static_cast<Ringing*>(timer)->subject->ring(); }
    void ring() {
        if (in_callback) {
            in_callback();
            return;
        }
        m_rings = true;
        waitFor([this] { return m_may_go_on.load(); });
    }
    void destroy() override { m_object.reset(); }
    bool use() override { return m_object->start(1000, true) || m_object->snooze() || m_object->stop(); }
    void prepareWait() override {
        m_rings = m_may_go_on = false;
        trigger();
        waitFor([this] { return m_rings.load(); });
    }
    void wait() override { m_object->stop(); }
    void wake() override { m_may_go_on = true; }
    void trigger() override { m_object->start(1, false); }

private:
    struct Ringing : vesk::Timer {
        explicit Ringing(TimerSubject* its_subject) : Timer(TimerSubject::ring, HIGH), subject(its_subject) {}
        ~Ringing() override { stop(); }
        TimerSubject* subject;
    };
    vesk::Timer m_keeper{[](vesk::Timer*) {}, HIGH};
    std::atomic<bool> m_rings{false};
    std::atomic<bool> m_may_go_on{true};
    std::unique_ptr<Ringing> m_object = std::make_unique<Ringing>(this);
};

struct AlarmSubject : Subject {
    ~AlarmSubject() override { AlarmSubject::destroy(); }
    static void ring(void* self) {
        auto& subject = *static_cast<AlarmSubject*>(self);
        if (subject.in_callback) {
            subject.in_callback();
            return;
        }
        subject.m_rings = true;
        waitFor([&] { return subject.m_may_go_on.load(); });
    }
    void destroy() override {
        if (m_object) {
            m_object->stop(); // Required by the class.
        }
        m_object.reset();
    }
    bool use() override {
        m_object->start(tarnbase::Duration(1000));
        m_object->stop();
        return false;
    }
    void prepareWait() override {
        m_rings = m_may_go_on = false;
        trigger();
        waitFor([this] { return m_rings.load(); });
    }
    void wait() override { m_object->stop(); }
    void wake() override { m_may_go_on = true; }
    void trigger() override { m_object->start(tarnbase::Duration(1)); }

private:
    std::SharedBase::Ptr<vesk::Alarm::Timer> m_engine{vesk::Alarm::DEFAULT_TIMER};
    std::atomic<bool> m_rings{false};
    std::atomic<bool> m_may_go_on{true};
    std::unique_ptr<vesk::Alarm> m_object = std::make_unique<vesk::Alarm>(m_engine, nullptr, ring, this);
};

/// A catcher, while another one keeps the thread.
struct CatcherSubject : Subject {
    static void arrive(int, void* self) {
        auto& subject = *static_cast<CatcherSubject*>(self);
        ++subject.m_arrived;
        if (subject.in_callback) {
            subject.in_callback();
        }
    }
    void destroy() override { m_object.reset(); }
    bool use() override {
        int const before = m_arrived;
        trigger();
        waitFor([&] { return m_arrived != before; });
        return false;
    }
    void trigger() override { kill(getpid(), SIGUSR1); }

private:
    vesk::SignalCatcher const m_keeper{SIGUSR2, [](int, void*) {}, nullptr};
    std::atomic<int> m_arrived{0};
    std::unique_ptr<vesk::SignalCatcher> m_object =
        std::make_unique<vesk::SignalCatcher>(SIGUSR1, arrive, this);
};

struct ProcessSubject : Of<vesk::ProcessTNG>, vesk::ProcessTNG::ExitListener {
    ProcessSubject() {
        m_object->setExecutable("/bin/sh");
        m_object->setExitListener(this);
    }
    ~ProcessSubject() override {
        ProcessSubject::destroy();
        waitFor([this] { return m_calls == m_starts; }); // The listener is called after a waiter was woken.
    }
    bool use() override {
        wait();
        vesk::ProcessTNG::ExitState state;
        return start("exit 0") || m_object->wait(state, false, 0) || state.status != 0;
    }
    void prepareWait() override {
        wait();
        start("exec sleep 20 >&- 2>&-"); // Not with the output of a process that ends before.
        m_sleeper = m_object->getPid();
    }
    void wait() override {
        vesk::ProcessTNG::ExitState state;
        m_object->wait(state, false, 0); // Fails without a child.
        std::ErrorStorage::ack();
    }
    void wake() override { kill(m_sleeper, SIGKILL); }
    void trigger() override { start("exit 0"); }
    void processExited(vesk::ProcessTNG::ExitState const*) override {
        if (in_callback) {
            in_callback();
        }
        ++m_calls;
    }

private:
    bool start(char const* script) {
        m_object->setArguments({"-c", script});
        bool const failed = m_object->start() == vesk::ProcessTNG::INVALID_PROCESS_ID;
        m_starts += failed ? 0 : 1;
        return failed;
    }
    std::atomic<int> m_calls{0};
    std::atomic<int> m_starts{0};
    int m_sleeper = 0;
};

// ---- loops of the process ----

/// A dispatcher with a queue, or with a queue of signals.
template <typename Queue, typename Notifier>
struct DispatcherSubject : Subject {
    static void arrive(void* self) {
        if (static_cast<DispatcherSubject*>(self)->in_callback) {
            static_cast<DispatcherSubject*>(self)->in_callback();
        }
    }
    static void arrive(int, void* self) { arrive(self); }

    DispatcherSubject() {
        m_object->add_source(m_queue);
        if constexpr (std::is_base_of_v<vesk::SignalQueue, Queue>) {
            void (*const function)(int, void*) = arrive;
            m_catcher = std::make_unique<vesk::SignalCatcher>(SIGUSR1, m_queue, function, this);
        }
    }
    ~DispatcherSubject() override {
        while (vesk::Message* const message = m_queue.pop_nonblock()) {
            message->dismiss(); // A queue leaves what it still has.
        }
    }
    void destroy() override { m_object.reset(); }
    bool use() override {
        m_object->add_handler(m_handler);
        m_object->remove_handler(m_handler);
        return false;
    }
    void wait() override { m_object->run(); }
    void wake() override { m_object->stop(); }
    void trigger() override {
        if constexpr (std::is_base_of_v<vesk::SignalQueue, Queue>) {
            kill(getpid(), SIGUSR1);
        } else {
            void (*const function)(void*) = arrive;
            m_queue.push(new vesk::Message::Callback(function, this));
        }
    }

private:
    struct Handler : vesk::Message::Handler {
        void handle(vesk::Message&) override {}
    } m_handler;
    Notifier m_notifier;
    Queue m_queue{m_notifier};
    std::unique_ptr<vesk::SignalCatcher> m_catcher;
    std::unique_ptr<vesk::Dispatcher> m_object = std::make_unique<vesk::Dispatcher>(m_notifier);
};

struct PollerSubject : Of<vesk::Poller>, vesk::Poller::Client {
    bool use() override {
        m_object->remove(*this);
        m_object->poll(); // Takes the command out of the pipe.
        return false;
    }
    void wait() override {
        vesk::Poller::SignalsOff const signals_off;
        while (!m_object->poll()) {}
    }
    void wake() override { m_object->stop(); }
    void trigger() override { m_object->add(*this, m_pipe.getWriteEnd()); }
    int poll_events(int) override { return POLLOUT; }
    void write(int) override {
        m_object->remove(*this);
        in_callback();
    }
    void error(int) override {}

private:
    vesk::Pipe m_pipe;
};

struct MonitorSubject : Subject, vesk::NetDeviceMonitor::Listener {
    void destroy() override { m_object.reset(); }
    bool use() override {
        m_object->interface_appeared(60000, "subject");
        m_object->interface_disappeared(60000);
        return false;
    }
    void wait() override { m_object->watch(); }
    void wake() override { m_object->stopWatching(); }
    void interface_appeared(Info const& interface) override {
        if (in_callback && interface.name == "lo") {
            in_callback();
        }
    }

private:
    std::unique_ptr<vesk::NetDeviceMonitor> m_object = std::make_unique<vesk::NetDeviceMonitor>(this);
};

struct BrowserSubject : Of<vesk::DnsSd::SyncBrowser> {
    BrowserSubject() : Of("_http._tcp", "local") {}
    bool use() override {
        wake();
        return get();
    }
    void wait() override { m_object->wait(); }
    void wake() override { m_object->service_appeared(std::unicode::String(U'n'), "type", "domain"); }

private:
    bool get() {
        vesk::DnsSd::SyncBrowser::Result result;
        return m_object->get(result);
    }
};

struct LoopSubject : Of<vesk::loop::Loop> {
    bool use() override {
        return !m_object->after(std::chrono::hours(1), [] {});
    }
    void wait() override { static_cast<void>(m_object->run()); }
    void wake() override { m_object->stop(); }
    void trigger() override {
        static_cast<void>(m_object->post([this] { in_callback(); }));
    }
};

// ---- waits in the kernel ----

struct SemaphoreSubject : Of<vesk::SemaphoreCreator> {
    SemaphoreSubject() {
        std::string const name = getName("semaphore");
        m_object->create(name.c_str(), 0, vesk::Creatable::REPLACE);
        sem_unlink(name.c_str()); // The process may end before the object.
    }
    bool use() override { return m_object->release() || m_object->take(); }
    void wait() override { m_object->take(); }
    void wake() override { m_object->release(); }
};

struct QueueSubject : Of<vesk::MsgQueueServer> {
    QueueSubject() {
        std::string const name = getName("queue");
        m_object->create(name.c_str(), 8, 8, vesk::Creatable::REPLACE);
        mq_unlink(('/' + name).c_str()); // As above.
    }
    bool use() override { return write() || read(); }
    void wait() override { read(); }
    void wake() override { write(); }

private:
    bool write() {
        vesk::MsgQueueBase::Message const message{m_bytes, 1, 0};
        return m_object->writeMsg(&message);
    }
    bool read() {
        char buffer[8];
        vesk::MsgQueueBase::Message message{buffer, sizeof buffer, 0};
        return m_object->readMsg(&message);
    }
    char m_bytes[1] = {'b'};
};

/// One byte through a stream.
template <typename Stream>
bool readByte(Stream& stream) {
    char byte = 0;
    unsigned int count = 0;
    return stream.read(&byte, 1, count) != 1;
}
template <typename Stream>
bool writeByte(Stream& stream) {
    unsigned int count = 0;
    return stream.write("b", 1, count) != 1;
}

struct PipeSubject : Of<vesk::StreamBinFileR> {
    PipeSubject() : Of(0U) {
        vesk::Pipe pipe;
        m_object->open(pipe);
        m_writer.open(pipe);
    }
    bool use() override { return writeByte(m_writer) || readByte(*m_object); }
    void wait() override { readByte(*m_object); }
    void wake() override { writeByte(m_writer); }

private:
    vesk::StreamBinFileW m_writer{0};
};

struct SerialSubject : Subject {
    SerialSubject() {
        grantpt(m_master);
        unlockpt(m_master);
        m_object = std::make_unique<vesk::SerialPort>(ptsname(m_master));
        m_object->open();
    }
    ~SerialSubject() override {
        m_object.reset();
        close(m_master);
    }
    void destroy() override { m_object.reset(); }
    bool use() override {
        wake();
        return readByte(*m_object);
    }
    void wait() override { readByte(*m_object); }
    void wake() override { static_cast<void>(!write(m_master, "b", 1)); }

private:
    int m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::unique_ptr<vesk::SerialPort> m_object;
};

/// A connection over TCP or a local socket: the server waits for clients, the connection for bytes.
struct Tcp {
    using Server = vesk::TCPServerSocket;
    using Socket = vesk::TCPSocket;
    static std::unique_ptr<Server> makeServer(std::string const&) {
        return std::make_unique<Server>(
            IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 0), true, true, IPSocket::IPV4);
    }
    static std::unique_ptr<Socket> makeClient(Server& server, std::string const&) {
        server.updateLocalAddress();
        return std::make_unique<Socket>(
            true, 0, 0, IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 0), server.getLocalAddress(), false,
            IPSocket::IPV4);
    }
};

struct Local {
    using Server = vesk::UnixServerSocket;
    using Socket = vesk::UnixSocket;
    static std::unique_ptr<Server> makeServer(std::string const& name) {
        return std::make_unique<Server>(name.c_str(), true, vesk::UnixSocketBase::ABSTRACT);
    }
    static std::unique_ptr<Socket> makeClient(Server&, std::string const& name) {
        return std::make_unique<Socket>(true, 0, 0, "", name.c_str(), vesk::UnixSocketBase::ABSTRACT);
    }
};

template <typename T>
void closeAndReset(std::unique_ptr<T>& socket) {
    if (socket) {
        socket->close(false); // Required by the class.
    }
    socket.reset();
}

template <typename Kind>
struct ServerSubject : Subject {
    ServerSubject() { m_server->enableListen(8); }
    ~ServerSubject() override {
        ServerSubject::destroy();
        closeAndReset(m_client);
    }
    void destroy() override { closeAndReset(m_server); }
    /// Not canceled within: a socket must be closed before its end, and glibc before 2.41 loses the descriptor
    /// if it cancels the thread just after `accept`.
    bool use() override {
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        wake();
        wait();
        pthread_setcancelstate(before, nullptr);
        return m_server->hadError();
    }
    void wait() override {
        typename Kind::Socket socket(true, 0, 0, m_server->acceptConnection());
        socket.close(false);
    }
    void wake() override {
        closeAndReset(m_client);
        m_client = Kind::makeClient(*m_server, m_name);
        m_client->connect();
    }

private:
    std::string m_name = getName("server");
    std::unique_ptr<typename Kind::Server> m_server = Kind::makeServer(m_name);
    std::unique_ptr<typename Kind::Socket> m_client;
};

template <typename Kind>
struct SocketSubject : Subject {
    SocketSubject() {
        std::string const name = getName("socket");
        auto server = Kind::makeServer(name);
        server->enableListen(1);
        m_client = Kind::makeClient(*server, name);
        m_client->connect();
        m_object = std::make_unique<typename Kind::Socket>(true, 0, 0, server->acceptConnection());
        server->close(false);
    }
    ~SocketSubject() override {
        SocketSubject::destroy();
        closeAndReset(m_client);
    }
    void destroy() override { closeAndReset(m_object); }
    bool use() override { return writeByte(*m_client) || readByte(*m_object); }
    void wait() override { readByte(*m_object); }
    void wake() override { writeByte(*m_client); }

private:
    std::unique_ptr<typename Kind::Socket> m_client;
    std::unique_ptr<typename Kind::Socket> m_object;
};

/// Sends to itself.
struct UdpSubject : Subject {
    UdpSubject() {
        vesk::UDPSocket probe(
            true, 0, 0, {IPSocket::LOOPBACK_IP, 0}, {IPSocket::LOOPBACK_IP, 9}, IPSocket::IPV4);
        probe.open();
        probe.updateLocalAddress();
        IPSocket::IPAddress const own = probe.getLocalAddress();
        probe.close(false);
        m_object = std::make_unique<vesk::UDPSocket>(true, 0, 0, own, own, IPSocket::IPV4);
        m_object->open();
    }
    ~UdpSubject() override { UdpSubject::destroy(); }
    void destroy() override { closeAndReset(m_object); }
    bool use() override { return writeByte(*m_object) || readByte(*m_object); }
    void wait() override { readByte(*m_object); }
    void wake() override { writeByte(*m_object); }

private:
    std::unique_ptr<vesk::UDPSocket> m_object;
};

template <typename T>
std::unique_ptr<Subject> make() {
    return std::make_unique<T>();
}

} // namespace

std::vector<Class> const& getClasses() {
    using vesk::Dispatcher;
    using vesk::SignalQueue;
    constexpr auto NONE = Callbacks::NONE;
    constexpr auto LIBRARY = Callbacks::OF_LIBRARY;
    constexpr auto WAITER = Callbacks::OF_WAITER;
    using Condition = ConditionSubject<vesk::Condition, vesk::Mutex, vesk::MutexLock>;
    using ShmCondition = ConditionSubject<vesk::ShmCondition, vesk::ShmMutex, vesk::ShmMutexLock>;
    using Queue = DispatcherSubject<Dispatcher::VanillaQueue, Dispatcher::VanillaNotifier>;
    using Signals = DispatcherSubject<SignalQueue, SignalQueue::Notifier>;
    static std::vector<Class> const s_classes{
        // clang-format off
        //                                                         destroyed terminated exits  forks   unloaded
        {"Mutex", make<MutexSubject<vesk::Mutex>>, true, NONE,        "ox-x", "oo-w", "oo-o", "ff-f", "dx-x"},
        {"ShmMutex", make<MutexSubject<vesk::ShmMutex>>, true, NONE,  "ox-x", "oo-w", "oo-o", "ff-f", "dx-x"},
        {"RWLock", make<RWLockSubject<vesk::RWLock>>, true, NONE,     "ox-x", "oo-w", "oo-o", "ff-f", "dx-x"},
        {"ShmRWLock", make<RWLockSubject<vesk::ShmRWLock>>, true, NONE, "ox-x", "oo-w", "oo-o", "ff-f", "dx-x"},
        {"SpinLock", make<SpinLockSubject<vesk::SpinLock>>, true, NONE, "ox-x", "oo-w", "oo-o", "ff-f", "dx-x"},
        {"ShmSpinLock", make<SpinLockSubject<vesk::ShmSpinLock>>, true, NONE, "ox-x", "oo-w", "oo-o", "ff-f", "dx-x"},
        {"Condition", make<Condition>, true, NONE,                    "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"ShmCondition", make<ShmCondition>, true, NONE,              "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"Thread", make<ThreadSubject>, true, LIBRARY,                "oxax", "oooo", "oooo", "ffff", "dxxx"},
        {"Timer", make<TimerSubject<false>>, true, LIBRARY,           "oxow", "ooow", "oooo", "eeee", "dxxx"},
        {"TimerHighPrio", make<TimerSubject<true>>, true, LIBRARY,    "oxow", "ooow", "oooo", "eeee", "dxxx"},
        {"Alarm", make<AlarmSubject>, true, LIBRARY,                  "oxow", "ooow", "oooo", "eeee", "dxxx"},
        {"SignalCatcher", make<CatcherSubject>, false, LIBRARY,       "oxo-", "oox-", "ooo-", "eee-", "dxx-"},
        {"ProcessTNG", make<ProcessSubject>, true, LIBRARY,           "oxow", "ooxo", "oooo", "rrrr", "dxxx"},
        {"Dispatcher", make<Queue>, true, WAITER,                     "oxxx", "oooo", "oooo", "ffff", "dxxx"},
        {"SignalQueue", make<Signals>, true, WAITER,                  "oxxx", "oooo", "oooo", "eeee", "dxxx"},
        {"Poller", make<PollerSubject>, true, WAITER,                 "oxxx", "oooo", "oooo", "ffff", "dxxx"},
        {"NetDeviceMonitor", make<MonitorSubject>, true, WAITER,      "oxxx", "oooo", "oooo", "ffff", "dxxx"},
        {"SyncBrowser", make<BrowserSubject>, true, NONE,             "ox-x", "oo-o", "oo-o", "ee-e", "dx-x"},
        {"Loop", make<LoopSubject>, true, WAITER,                     "oxxx", "oooo", "oooo", "ffff", "dxxx"},
        {"Semaphore", make<SemaphoreSubject>, true, NONE,             "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"MsgQueue", make<QueueSubject>, true, NONE,                  "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"StreamBinFile", make<PipeSubject>, true, NONE,              "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"SerialPort", make<SerialSubject>, true, NONE,               "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"TCPServerSocket", make<ServerSubject<Tcp>>, true, NONE,     "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"TCPSocket", make<SocketSubject<Tcp>>, true, NONE,           "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"UnixServerSocket", make<ServerSubject<Local>>, true, NONE,  "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"UnixSocket", make<SocketSubject<Local>>, true, NONE,        "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        {"UDPSocket", make<UdpSubject>, true, NONE,                   "ox-x", "oo-o", "oo-o", "ff-f", "dx-x"},
        // clang-format on
    };
    return s_classes;
}

} // namespace life
