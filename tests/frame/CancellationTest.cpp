#include "EveryHeader.h"
#include "support/Testing.h"

#include <cctype>
#include <istream>

// A canceled thread completes every operation that must not throw, and ends at the next cancellation point
// behind it. The test package.CancellationRows checks that each public class and each public `noexcept`
// operation has a row here.

namespace {

using vesk::IPSocket;

// ---- parts of the rows ----

/// Cancels the calling thread: it ends at the next cancellation point outside the operations of the row.
void cancelSelf() {
    EXPECT_EQ(0, pthread_cancel(pthread_self()));
}

/// The end of an object after `arrange`.
template <typename T, typename Arrange>
void ends(Arrange const& arrange) {
    T object{};
    arrange(object);
    cancelSelf();
}
template <typename T>
void ends() {
    ends<T>([](T&) {});
}

/// The end of an object that is constructed from arguments.
template <typename T, typename... Arguments>
void endsWith(Arguments const&... arguments) {
    [[maybe_unused]] T const object(arguments...);
    cancelSelf();
}
template <typename T, auto... ARGUMENTS>
void endsOf() {
    endsWith<T>(ARGUMENTS...);
}
template <typename T, typename... Arguments>
void endsValid(Arguments const&... arguments) {
    T const object(arguments...);
    ASSERT_TRUE(object.isValid());
    cancelSelf();
}

/// The end of a file that was opened.
template <typename File, typename... Arguments>
void endsOpen(Arguments const&... arguments) {
    ends<File>([&](File& file) { EXPECT_FALSE(file.open(arguments...)); });
}

/// Buffers bytes in a stream, and cancels the thread.
void fillThenCancel(std::IBinOutputStream& stream) {
    unsigned int written = 0;
    ASSERT_EQ(1, stream.write("text", 4, written));
    cancelSelf();
}

/// Calls `operation` in a canceled thread.
template <typename Operation>
void cancelThen(Operation const& operation) {
    cancelSelf();
    operation();
}
/// Calls it with an object that was constructed before.
template <typename T, typename Operation>
void cancelThen(Operation const& operation) {
    T object{};
    cancelThen([&] { operation(object); });
}

/// Returns a name that no other process uses.
std::string getName() {
    return "vesk-cancellation-" + std::to_string(getpid());
}

int openDescriptor() {
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

template <typename Description>
Description makeDescription() {
    Description description;
    description.valid = true;
    description.socket_fd = openDescriptor();
    return description;
}

template <typename Description>
void endsDescriptions() {
    auto first = makeDescription<Description>();
    auto second = makeDescription<Description>();
    auto third = makeDescription<Description>();
    cancelSelf();
    first.swap(second);
    first = std::move(third);
}

struct NoMemory : std::Buf::Allocator {
    constexpr NoMemory() noexcept = default;
    void* allocate(unsigned int) const noexcept override { return nullptr; }
    void release(void*, unsigned int) const noexcept override {}
};
constexpr NoMemory g_no_memory;

/// Code of a user that runs inside the library and is a cancellation point.
struct User : std::SharedBuf::Owner,
              vesk::LazyInitBase<void*>,
              vesk::Message::Handler,
              vesk::NetDeviceMonitor::Listener,
              vesk::Poller::Client,
              vesk::ProcessTNG::ExitListener {
    ~User() override = default;
    void free(std::SharedBuf const&) override { pthread_testcancel(); }
    bool doInit() override { return false; }
    void handle(vesk::Message&) override {}
    void error(int) override {}
    void processExited(vesk::ProcessTNG::ExitState const*) override { pthread_testcancel(); }
};

struct UserInHolder {
    ~UserInHolder() { pthread_testcancel(); }
    bool close() {
        pthread_testcancel();
        return false;
    }
};

struct Engine : vesk::DnsSd::Engine {
    using Client = vesk::DnsSdBase::Client;
    using Name = std::unicode::String;
    void browse(Client&, std::string const&, std::string const&) override {}
    void resolve(Client&, Name const&, std::string const&, std::string const&) override {}
    void lookup(Client&, std::string const&) override {}
    void publish(
        Client&, Name const&, std::string const&, std::string const&, unsigned short,
        vesk::DnsSdBase::Txt const&) override {}
    void cancel(Client&) override { pthread_testcancel(); }
};

/// The end of a client of service discovery with an engine.
template <typename Client, typename... Arguments>
void endsClient(Arguments const&... arguments) {
    static Engine s_engine;
    vesk::DnsSd::setEngine(&s_engine);
    Client const client(arguments...);
    cancelSelf();
}

/// The end of a socket that has a descriptor and no peer.
template <typename Socket, typename... Arguments>
void endsSocket(Arguments const&... arguments) {
    Socket const socket(arguments...);
    ASSERT_NE(Socket::INVALID_SOCKET_FD, socket.getSocketFd());
    cancelSelf();
}

IPSocket::IPAddress getLoopback() {
    return {IPSocket::LOOPBACK_IP, 0};
}

/// Makes a report, which stays pending and which the next one replaces.
void leaveReport() {
    std::ErrorOutput("earlier", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
}

void ignoreSignal(int, void*) {}

using Handler = std::GlobalErrorHandler;
using Pool = std::MemoryPool<std::UsePoolOnDepletion, vesk::Mutex, std::FakeCondition>;
using Wrapper = vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, vesk::BinFileBase::ReadFlags>;
using Guard = std::ScopeGuard<UserInHolder, bool (UserInHolder::*)()>;
using Info = vesk::NetworkInterface;

// ---- the rows ----

/// A row and its names: "~" begins that of a class with a destructor that the row calls, the others are
/// operations.
struct Row {
    char const* names;
    void (*run)();
};

void PrintTo(Row const& row, std::ostream* out) {
    *out << row.names;
}

std::vector<Row> getRows() {
    std::vector<Row> rows;
    auto const add = [&rows](char const* names, void (*run)()) { rows.push_back({names, run}); };
    // ---- tarncommon ----
    add("~std::Buf std::Buf::Buf std::Buf::operator=", [] {
        leaveReport();
        cancelSelf();
        std::Buf const none(16, g_no_memory);
        std::Buf buf(16);
        buf = std::Buf(none);
    });
    add("~std::ErrorStorage ~std::ErrorStorage::Chain std::ErrorStorage::ErrorStorage", [] {
        cancelSelf();
        std::ErrorStorage const store([](void*, char const*, std::ErrorObject const*, unsigned int) { //
            pthread_testcancel();
        });
        leaveReport();
    });
    add("std::ErrorOutput::operator() std::ErrorStorage::Chain::open std::ErrorStorage::Chain::giveUp", [] {
        leaveReport();
        cancelSelf();
        leaveReport();
    });
    add("std::ErrorStorage::ack std::ErrorStorage::Chain::acknowledge std::ErrorStorage::Chain::unmap", [] {
        for (int i = 0; i < 8; ++i) {
            std::ErrorOutput("level", i, false)(vesk::SysErrorId::NO_SUCH_PROCESS);
        }
        cancelSelf();
        std::ErrorStorage::ack();
        std::ErrorStorage::Chain::ofThread().unmap();
    });
    add("std::GlobalErrorHandler::doAbort std::GlobalErrorHandler::doAssert "
        "std::GlobalErrorHandler::doOutOfMem std::GlobalErrorHandler::doWarning "
        "std::GlobalErrorHandler::setHook",
        [] {
            cancelSelf();
            Handler::doAbort("file", 1, "function", "text");
            Handler::doAssert(false, "condition", "file", 1, "function", nullptr);
            Handler::doOutOfMem("file", 1, "function", "text");
            Handler::doWarning("file", 1, "function", "text");
            Handler::setHook(nullptr);
            Handler::doWarning("file", 1, "function", "text");
        });
    add("~std::unicode::String ~std::unicode::String::Iterator std::unicode::String::operator=", [] {
        std::unicode::String text(U't');
        cancelSelf();
        text = std::unicode::String(U'u');
    });
    add("~threadsafe::MutexImpl threadsafe::MutexImpl::lock threadsafe::MutexImpl::unlock", [] {
        threadsafe::MutexImpl mutex(false);
        cancelSelf();
        EXPECT_EQ(0, mutex.lock());
        EXPECT_NE(0, mutex.lock());
        EXPECT_EQ(0, mutex.unlock());
        EXPECT_NE(0, mutex.unlock());
        mutex.lock(); // A locked one cannot be destroyed, which is reported.
    });
    add("~threadsafe::ConditionImpl threadsafe::ConditionImpl::signal_one", [] {
        threadsafe::MutexImpl mutex(false);
        threadsafe::ConditionImpl condition(mutex);
        cancelSelf();
        EXPECT_EQ(0, condition.signal_one());
    });
    add("~threadsafe::TlsImpl", ends<threadsafe::TlsImpl>);
    add("~tracing::Channel",
        [] { endsWith<tracing::Channel>("FW_Cancellation", short{7}, tracing::Channel::WITH_THREAD); });
    // ---- frame ----
    add("~std::FreeStack std::FreeStack::push std::FreeStack::pop std::NullOnDepletion::getHelp "
        "std::NullOnDepletion::thankYou",
        [] {
            char items[64];
            std::FreeStack stack(items, 16, 4);
            std::NullOnDepletion depletion(16, 4);
            cancelSelf();
            stack.push(stack.pop());
            stack.push(items); // One too many, which is reported.
            EXPECT_EQ(nullptr, depletion.getHelp());
            depletion.thankYou(items);
        });
    add("~std::MemoryPool ~std::MemoryPool::LockGuard", [] {
        Pool pool(16, 4);
        Pool::LockGuard const guard(pool);
        cancelSelf();
    });
    add("~std::ScopeGuard std::ScopeGuard::release std::ScopeGuard::arm std::ScopeGuard::disarm", [] {
        UserInHolder* const user = new UserInHolder;
        Guard guard(*user, &UserInHolder::close);
        Guard released(*user, &UserInHolder::close);
        cancelSelf();
        released.release();
        guard.disarm();
        guard.arm();
    });
    add("~std::Shared ~std::SharedBase ~std::SharedBase::Ptr ~std::SharedBase::PtrBase", [] {
        std::Shared<UserInHolder> shared;
        std::SharedBase::Ptr<UserInHolder> const pointer(shared);
        cancelSelf();
    });
    add("~std::SharedBuf ~std::SharedBuf::Owner std::SharedBuf::ref", [] {
        static std::atomic<int32_t> s_count{1};
        User user;
        char data[1];
        std::SharedBuf buf(&s_count, &user, data, 1);
        cancelSelf();
        buf.ref();
        buf.unref();
        buf = std::SharedBuf();
    });
    add("~std::UsePoolOnDepletion", endsOf<std::UsePoolOnDepletion, 16U, 4U>);
    add("~vesk::AbortingLock ~vesk::ScopedLock", [] {
        vesk::Mutex mutexes[2];
        vesk::AbortingLock<vesk::Mutex> const lock(mutexes[0], "file", "function");
        vesk::MutexLock const scoped(mutexes[1]);
        for (vesk::Mutex& mutex : mutexes) {
            mutex.unlock(); // So that the end of its lock finds nothing to unlock, which is reported.
        }
        cancelSelf();
    });
    add("~vesk::detail::CancellationOff", ends<vesk::detail::CancellationOff>);
    add("~vesk::detail::UniqueFd vesk::detail::UniqueFd::close vesk::detail::UniqueFd::operator=", [] {
        vesk::detail::UniqueFd const destroyed(openDescriptor());
        vesk::detail::UniqueFd assigned(openDescriptor());
        vesk::detail::UniqueFd closed(openDescriptor());
        cancelSelf();
        assigned = vesk::detail::UniqueFd();
        closed.close();
    });
    add("~vesk::detail::KeptErrorChain", [] {
        leaveReport();
        vesk::detail::KeptErrorChain const kept;
        leaveReport();
        cancelSelf();
    });
    add("~vesk::LazyInitBase ~vesk::ProcessTNG::ExitListener", ends<User>);
    add("vesk::SavedErrorChain::restore", [] {
        leaveReport();
        vesk::SavedErrorChain const saved;
        cancelSelf();
        saved.restore();
    });
    add("~vesk::UnicodeString ~vesk::RefCounted", [] {
        vesk::UnicodeString const text(std::string("text"));
        vesk::UnicodeString const same(text);
        cancelSelf();
    });
    add("vesk::AtomicCounter::increment",
        [] { cancelThen<vesk::AtomicCounter>([](auto& counter) { counter.increment(); }); });
    add("vesk::CalendarTime::resetToEpoch vesk::CalendarTime::retrieveDate vesk::CalendarTime::setTimestamp",
        [] {
            vesk::CalendarTime time(true);
            cancelSelf();
            time.resetToEpoch();
            time.setTimestamp(1);
            time.retrieveDate();
        });
    add("tarnbase::TimePoint::now tarnbase::TimePoint::toTimespec",
        [] { cancelThen([] { tarnbase::TimePoint::now().toTimespec(); }); });
    // ---- sync ----
    add("~vesk::Mutex vesk::Mutex::lock vesk::Mutex::unlock", [] {
        vesk::Mutex const mutex;
        leaveReport();
        cancelSelf();
        EXPECT_FALSE(mutex.lock());
        EXPECT_TRUE(mutex.lock());
        EXPECT_FALSE(mutex.unlock());
        EXPECT_TRUE(mutex.unlock());
        mutex.lock(); // A locked one cannot be destroyed, which is reported.
    });
    add("~vesk::Condition", ends<vesk::Condition>);
    add("~vesk::RWLock ~vesk::RWLockBase",
        [] { ends<vesk::RWLock>([](auto& lock) { EXPECT_FALSE(lock.lockForRead()); }); });
    add("~vesk::SpinLock ~vesk::SpinLockBase", ends<vesk::SpinLock>);
    add("~vesk::ShmCondition", ends<vesk::ShmCondition>);
    add("~vesk::ShmMutex", [] { ends<vesk::ShmMutex>([](auto& mutex) { EXPECT_FALSE(mutex.lock()); }); });
    add("~vesk::ShmRWLock", ends<vesk::ShmRWLock>);
    add("~vesk::ShmSpinLock", ends<vesk::ShmSpinLock>);
    // ---- threads ----
    add("~vesk::Thread", [] { endsWith<vesk::Thread>([](void*) {}, nullptr, "never started"); });
    add("~vesk::TLS::Key", ends<vesk::TLS::Key>);
    add("~vesk::Timer", [] {
        vesk::Timer timer([](vesk::Timer*) {}, false);
        EXPECT_FALSE(timer.start(3600000, true));
        cancelSelf();
    });
    add("~vesk::Timer::HighPrioTimer ~vesk::Alarm::Timer", ends<vesk::Timer::HighPrioTimer>);
    add("~vesk::Alarm::DefaultTimer vesk::Alarm::Timer::waitForCallback",
        [] { cancelThen<vesk::Alarm::DefaultTimer>([](auto& engine) { engine.waitForCallback(); }); });
    add("~vesk::Alarm", [] {
        static vesk::Alarm::Timer s_engine(SIGRTMIN + 5, "engine", vesk::sched::Attr());
        std::SharedBase::Ptr<vesk::Alarm::Timer> const engine(nullptr, &s_engine);
        vesk::Alarm const alarm(
            engine, nullptr, [](void*) {}, nullptr);
        cancelSelf();
    });
    // ---- events ----
    add("~vesk::Message ~vesk::Message::Handler ~vesk::Message::Sink ~vesk::Message::Source "
        "~vesk::Message::Callback ~vesk::SignalQueueBase::Message",
        [] {
            User user;
            vesk::Message const message;
            vesk::Message::Callback const callback([](void*) {}, nullptr);
            vesk::SignalQueueBase::Message const signal(1, ignoreSignal, nullptr);
            cancelSelf();
        });
    add("~vesk::Dispatcher ~vesk::Dispatcher::Queue ~vesk::Dispatcher::VanillaQueue "
        "~vesk::Dispatcher::VanillaNotifier ~vesk::Dispatcher::Notifier",
        [] {
            vesk::Dispatcher::VanillaNotifier notifier;
            vesk::Dispatcher::VanillaQueue queue(notifier);
            vesk::Dispatcher dispatcher(notifier);
            dispatcher.add_source(queue);
            cancelSelf();
            queue.push(new vesk::Message);
            dispatcher.stop();
        });
    add("~vesk::SignalQueue ~vesk::SignalQueueImpl ~vesk::SignalQueuePosixBase ~vesk::SignalQueue::Notifier "
        "~vesk::SignalQueueImpl::NotifierImpl ~vesk::SignalQueueImpl::SelfPipe",
        [] {
            vesk::SignalQueue::Notifier notifier;
            vesk::SignalQueue const queue(notifier);
            cancelSelf();
            notifier.signal();
        });
    add("~vesk::SignalCatcher ~vesk::SignalCatcherImpl vesk::SignalCatcherImpl::enqueue_signal", [] {
        vesk::SignalCatcher const catcher(SIGUSR1, ignoreSignal, nullptr);
        cancelSelf();
        raise(SIGUSR1);
    });
    add("~vesk::SignalDispatcher vesk::SignalDispatcher::waitForCallback",
        [] { cancelThen<vesk::SignalDispatcher>([](auto& dispatcher) { dispatcher.waitForCallback(); }); });
    add("~vesk::Poller ~vesk::Poller::Client", ends<vesk::Poller>);
    add("~vesk::Poller::SignalsOff", ends<vesk::Poller::SignalsOff>);
    add("vesk::Poller::add vesk::Poller::remove vesk::Poller::stop", [] {
        vesk::Poller poller;
        User user;
        cancelSelf();
        poller.add(user, 0);
        poller.remove(0);
        poller.remove(user);
        poller.stop();
    });
    // ---- files ----
    add("~vesk::BinFileBase", [] {
        endsOpen<vesk::BinFileBase>("/dev/null", vesk::BinFileBase::READ, vesk::BinFileBase::DEFAULT_ACCESS);
    });
    add("~vesk::BinTempFileRW vesk::BinTempFileRW::takeDescriptor", [] {
        vesk::BinTempFileRW temp(("/tmp/" + getName()).c_str());
        vesk::BinTempFileRW taken(("/tmp/" + getName()).c_str());
        ASSERT_TRUE(temp.isValid() && taken.isValid());
        vesk::FileSys::removeFile(vesk::UnicodeString(taken.getPath()).c_str());
        cancelSelf();
        taken.takeDescriptor();
    });
    add("~vesk::Directory", [] { endsValid<vesk::Directory>("/proc/self", true); });
    add("~vesk::FileBuffer ~std::filebuf_base std::filebuf_base::createBuffer "
        "std::filebuf_base::destroyBuffer",
        [] {
            vesk::StreamBinFileR file;
            vesk::FileBuffer buffer(&file, 16, nullptr);
            cancelSelf();
            buffer.destroyBuffer();
            buffer.createBuffer();
        });
    add("~vesk::FmtFileWrapper", [] { endsValid<Wrapper>("/dev/null", vesk::BinFileBase::READ); });
    add("~vesk::MemBinFileBase", [] {
        endsOpen<vesk::MemBinFileBase>(
            "/dev/null", vesk::BinFileBase::READ, vesk::BinFileBase::DEFAULT_ACCESS);
    });
    add("~vesk::Path", [] { endsWith<vesk::Path>("/a/path"); });
    add("~vesk::PathParts", [] { endsWith<vesk::PathParts>("/a/path"); });
    add("~vesk::Pipe vesk::Pipe::takeReadEnd vesk::Pipe::takeWriteEnd", [] {
        vesk::Pipe const both;
        vesk::Pipe none;
        cancelSelf();
        none.takeReadEnd();
        none.takeWriteEnd();
    });
    add("~vesk::SerialPort", [] {
        int const terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_EQ(0, grantpt(terminal));
        ASSERT_EQ(0, unlockpt(terminal));
        char name[64];
        ASSERT_EQ(0, ptsname_r(terminal, name, sizeof name));
        vesk::SerialPort port(name, 9600, vesk::SerialPort::Parity::NONE, 1, false, false, true, 16, 16);
        ASSERT_FALSE(port.open());
        fillThenCancel(port);
    });
    add("~vesk::StderrBinFile", ends<vesk::StderrBinFile>);
    add("~vesk::StdinBinFile", ends<vesk::StdinBinFile>);
    add("~vesk::StdoutBinFile", ends<vesk::StdoutBinFile>);
    add("~vesk::StreamBinFileR ~vesk::StreamBinFileBase ~std::IBinInputStream ~std::IBinStreamBase",
        [] { endsOpen<vesk::StreamBinFileR>("/dev/null", vesk::BinFileBase::READ); });
    add("~vesk::StreamBinFileRW ~std::IBinInOutStream", [] {
        vesk::StreamBinFileRW file(16, 16);
        ASSERT_FALSE(file.open("/dev/null", vesk::BinFileBase::READ_WRITE));
        fillThenCancel(file);
    });
    add("~vesk::StreamBinFileW ~std::IBinOutputStream", [] {
        vesk::StreamBinFileW file(16);
        ASSERT_FALSE(file.open("/dev/null", vesk::BinFileBase::WRITE));
        fillThenCancel(file);
    });
    add("~vesk::WidePath", [] { endsWith<vesk::WidePath>("/a/path"); });
    // ---- ipc ----
    add("~vesk::MsgQueueServer ~vesk::MsgQueueClient ~vesk::MsgQueueBase", [] {
        vesk::MsgQueueServer server;
        vesk::MsgQueueClient client;
        ASSERT_FALSE(server.create(getName().c_str(), 16, 4, vesk::Creatable::REPLACE));
        ASSERT_FALSE(client.attach(getName().c_str()));
        server.setUnlinkOnClose(true);
        ASSERT_FALSE(server.close());
        cancelSelf();
    });
    add("~vesk::SemaphoreCreator ~vesk::SemaphoreClient ~vesk::SemaphoreBase "
        "vesk::Creatable::setUnlinkOnClose",
        [] {
            vesk::SemaphoreClient client;
            vesk::SemaphoreCreator creator;
            ASSERT_FALSE(creator.create(getName().c_str(), 1, vesk::Creatable::REPLACE));
            ASSERT_FALSE(client.attach(getName().c_str()));
            cancelSelf();
            creator.setUnlinkOnClose(true);
        });
    add("~vesk::SharedMemoryServer ~vesk::SharedMemoryClient ~vesk::SharedMemoryBase", [] {
        vesk::SharedMemoryClient client;
        vesk::SharedMemoryServer server;
        server.setUnlinkOnClose(true);
        ASSERT_FALSE(server.create(getName().c_str(), 4096, vesk::Creatable::REPLACE));
        ASSERT_FALSE(client.attach(getName().c_str(), vesk::MemMapping::READ));
        cancelSelf();
    });
    // ---- network ----
    add("~vesk::NetDevice ~vesk::NetDevice::InterfaceInfo", [] {
        vesk::NetDevice const device("lo");
        ASSERT_TRUE(device.isValid());
        vesk::NetDevice::InterfaceInfo const info{};
        cancelSelf();
    });
    add("~vesk::NetDeviceMonitor ~vesk::NetDeviceMonitor::Listener", [] {
        User user;
        vesk::NetDeviceMonitor const monitor(&user);
        cancelSelf();
    });
    add("~vesk::NetworkAddress ~vesk::NetworkAddressBase", ends<vesk::NetworkAddress>);
    add("~vesk::NetworkInterface::Info ~vesk::NetworkInterface::AddrInfo",
        [] { ends<Info::Info>([](auto& info) { info.addresses.emplace_back(); }); });
    // ---- services and processes ----
    add("~vesk::Group", endsOf<vesk::Group, 0LL>);
    add("~vesk::User", endsOf<vesk::User, 0LL>);
    add("~vesk::Regex ~vesk::RegexHandle",
        [] { ends<vesk::Regex>([](auto& regex) { EXPECT_EQ(0, regex.compile("a.*", 0)); }); });
    add("~vesk::SecureRandom", endsOf<vesk::SecureRandom, false>);
    add("~vesk::SharedObj vesk::SharedObj::load vesk::SharedObj::unload", [] {
        vesk::SharedObj object;
        cancelSelf();
        EXPECT_FALSE(object.load("libm.so.6") || object.unload() || object.load("libm.so.6"));
    });
    add("vesk::UserFS::init vesk::UserFS::unmount", [] {
        vesk::UserFS file_system(true);
        cancelSelf();
        vesk::UserFS::init();
        file_system.unmount();
    });
    add("~vesk::ProcessInfo", endsOf<vesk::ProcessInfo, 1>);
    add("~vesk::ProcessTNG", [] {
        static vesk::Vesk const s_vesk(true, false);
        static User s_listener; // It may be called after the end of the object.
        vesk::ProcessTNG process("/bin/sleep", {"0.1"});
        process.setExitListener(&s_listener);
        ASSERT_NE(-1, process.start());
        cancelSelf();
    });
    // ---- sockets ----
    add("~vesk::IPSocket::IPAddress", ends<IPSocket::IPAddress>);
    add("~vesk::IPSocket::IPResolver", ends<IPSocket::IPResolver>);
    add("~vesk::RawSocket ~vesk::Socket", [] {
        vesk::RawSocket socket(true, 0, 0);
        if (socket.open("lo")) { // Without the privilege for packet sockets it has nothing to close.
            std::ErrorStorage::ack();
        }
        cancelSelf();
    });
    add("~vesk::TCPServerSocket",
        [] { endsSocket<vesk::TCPServerSocket>(getLoopback(), true, false, IPSocket::IPV4); });
    add("~vesk::TCPSocket ~vesk::IPSocket", [] {
        endsSocket<vesk::TCPSocket>(true, 0U, 0U, getLoopback(), getLoopback(), false, IPSocket::IPV4);
    });
    add("~vesk::TCPSocket::Description vesk::TCPSocket::Description::swap "
        "vesk::TCPSocket::Description::operator=",
        endsDescriptions<vesk::TCPSocket::Description>);
    add("~vesk::UDPSocket",
        [] { endsSocket<vesk::UDPSocket>(true, 0U, 0U, getLoopback(), getLoopback(), IPSocket::IPV4); });
    add("~vesk::UnixServerSocket", [] {
        endsSocket<vesk::UnixServerSocket>(vesk::Path(getName()), true, vesk::UnixSocketBase::ABSTRACT);
    });
    add("~vesk::UnixSocket ~vesk::UnixSocketBase", [] {
        endsSocket<vesk::UnixSocket>(
            true, 0U, 0U, vesk::Path(getName()), vesk::Path("peer"), vesk::UnixSocketBase::ABSTRACT);
    });
    add("~vesk::UnixSocket::Description vesk::UnixSocket::Description::swap "
        "vesk::UnixSocket::Description::operator=",
        endsDescriptions<vesk::UnixSocket::Description>);
    // ---- service discovery ----
    add("~vesk::DnsSd::DnsSdThread", ends<vesk::DnsSd::DnsSdThread>);
    add("~vesk::DnsSd::Engine vesk::DnsSd::setEngine", [] {
        Engine engine;
        cancelSelf();
        vesk::DnsSd::setEngine(&engine);
        vesk::DnsSd::setEngine(nullptr);
    });
    add("~vesk::DnsSd::SyncBrowser ~vesk::DnsSd::Client ~vesk::DnsSdBase::Client",
        [] { endsClient<vesk::DnsSd::SyncBrowser>("_http._tcp", "local"); });
    add("~vesk::DnsSd::SyncLookup", [] { endsClient<vesk::DnsSd::SyncLookup>("host"); });
    add("~vesk::DnsSd::SyncResolver",
        [] { endsClient<vesk::DnsSd::SyncResolver>(std::unicode::String(U'n'), "_http._tcp", "local"); });
    add("~vesk::DnsSd::SyncService", [] {
        endsClient<vesk::DnsSd::SyncService>(
            std::unicode::String(U'n'), "_http._tcp", "local", static_cast<unsigned short>(80));
    });
    add("~vesk::DnsSd::SyncBrowser::Result", ends<vesk::DnsSd::SyncBrowser::Result>);
    add("~vesk::DnsSd::SyncLookup::Result", ends<vesk::DnsSd::SyncLookup::Result>);
    add("~vesk::DnsSd::SyncResolver::Result", ends<vesk::DnsSd::SyncResolver::Result>);
    add("~vesk::DnsSdBase::Txt", ends<vesk::DnsSdBase::Txt>);
    return rows;
}

// ---- classes with a trivial destructor ----

/// Reaches a protected destructor.
template <typename Base>
struct Derived : Base {};

template <typename... T>
constexpr bool END_TRIVIALLY = (std::is_trivially_destructible_v<T> && ...);

static_assert(
    END_TRIVIALLY<
        std::ErrorArgument, std::ErrorID, std::ErrorObject, std::ErrorOutput, std::ErrorType,
        std::FakeCondition, std::FakeLock, std::GlobalErrorHandler, std::GlobalErrorHandler::Event,
        std::GlobalErrorHandler::Hook, std::NoopResultConv, std::NullOnDepletion, std::ProcessErrorApi,
        Derived<std::Buf::Allocator>, Derived<std::ErrorApi>, Derived<tarnbase::NonCopyable>,
        tarnbase::Duration, tarnbase::TimePoint, threadsafe::ConditionBase, threadsafe::MutexBase,
        threadsafe::ConstantInit, Derived<vesk::Creatable>, Derived<vesk::StopWatchBase>, vesk::AbsTimeT,
        vesk::AtomicCounter, vesk::BinFileBase::OpenFlags, vesk::BinFileBase::ReadFlags,
        vesk::BinFileBase::ReadWriteFlags, vesk::BinFileBase::WriteFlags, vesk::CalendarTime,
        vesk::ConditionOps, vesk::DirectoryHandle, vesk::DnsSd, vesk::DnsSdBase, vesk::Environment,
        vesk::FileAccess, vesk::FileInfo, vesk::FileSys, vesk::IPSocket::BinaryAddress, vesk::MemMapping,
        vesk::MemMapping::MemAccessFlags, vesk::MsgQueueBase::Message, vesk::MutexOps, vesk::NetworkInterface,
        vesk::ProcessTNG::ExitState, vesk::ProcessTimeStopWatch, vesk::RWLockOps, vesk::RelaxedFlag,
        vesk::RealtimeStopWatch, vesk::Regex::SubMatch, vesk::SavedErrorChain, vesk::SignalQueueBase,
        vesk::SpinLockOps, vesk::SystemError, vesk::SystemLoad, vesk::TCPSocket::KeepaliveSettings, vesk::TLS,
        vesk::Thread::ThreadId, vesk::ThreadTimeStopWatch, vesk::Time, vesk::UserFS, vesk::Vesk,
        vesk::Vesk::SystemInfo, vesk::sched::Attr, vesk::sched::Param, vesk::sched::Policy>);

// ---- the test ----

bool reachCancellationPoint(std::GlobalErrorHandler::Event const& event, void*) {
    pthread_testcancel();
    return event.kind == std::GlobalErrorHandler::Kind::ABORT;
}

std::GlobalErrorHandler::Hook const g_hook{reachCancellationPoint, nullptr};

/// Runs a row in the thread that it cancels. Every report and warning reaches code of a user.
void run(Row& row) {
    std::GlobalErrorHandler::setHook(&g_hook);
    {
        std::ErrorStorage const errors([](void*, char const*, std::ErrorObject const*, unsigned int) { //
            pthread_testcancel();
        });
        row.run();
    }
    Handler::setHook(nullptr);
    row.names = nullptr;
}

/// The body of that thread. The address sanitizer must not see it, because it takes unwound frames for live
/// ones.
__attribute__((no_sanitize_address)) void* runAndEnd(void* row) {
    run(*static_cast<Row*>(row));
    pthread_testcancel();
    return nullptr;
}

class Cancellation : public testing::TestWithParam<Row> {};

std::string getRowName(testing::TestParamInfo<Row> const& row) {
    std::string name;
    for (char const* at = row.param.names; *at != '\0' && *at != ' '; ++at) {
        name += *at == '~' ? std::string("endOf_") : std::isalnum(*at) != 0 ? std::string(1, *at) : "_";
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(All, Cancellation, testing::ValuesIn(getRows()), getRowName);

TEST_P(Cancellation, waitsForTheBodyOfTheThread) {
    support::ChildEnd const end = support::runInChild([] {
        Row row = GetParam();
        pthread_t thread{};
        void* result = nullptr;
        ASSERT_EQ(0, pthread_create(&thread, nullptr, runAndEnd, &row));
        ASSERT_EQ(0, pthread_join(thread, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result) << "the row has not canceled its thread";
        EXPECT_EQ(nullptr, row.names) << "the thread was canceled in the row";
    });
    EXPECT_EQ(0, end.exit_code) << end.output << end.errors;
    EXPECT_EQ(0, end.signal) << end.output << end.errors;
}

} // namespace
