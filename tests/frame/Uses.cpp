#include "Uses.h"

#include "EveryHeader.h"
#include "support/Emulation.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <iterator>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace uses {

namespace {

using vesk::Thread;

char s_prefix[128];
char s_config_dir[160];

/// Ends the program if a condition is false. Works at any time of the process.
void require(bool condition, char const* what) {
    if (!condition) {
        fprintf(stderr, "%s failed: %s\n", what, tarn_error.getReasonList().c_str());
        abort();
    }
}

std::string getName(char const* kind) {
    return std::string(s_prefix) + kind;
}

void work(void*) {}

void threads() {
    {
        Thread thread(work, nullptr, "joined");
        require(thread.isValid() && !thread.start() && !thread.join(), "joining");
    }
    Thread(work, nullptr, "detached", vesk::sched::Attr(), true).start();
    // Not in a system call: the thread sanitizer does not follow a thread that is canceled there.
    Thread ended(
        [](void*) {
            for (;;) {
                pthread_testcancel();
                sched_yield();
            }
        },
        nullptr, "terminated");
    require(!ended.start() && !ended.terminate(), "terminating");
}

void timers() {
    for (bool const high : {false, true}) {
        vesk::Timer timer([](vesk::Timer*) {}, high);
        require(!timer.start(1, true) && !timer.stop(), "the timer");
    }
}

void alarms() {
    std::SharedBase::Ptr<vesk::Alarm::Timer> const engine(vesk::Alarm::DEFAULT_TIMER);
    vesk::Alarm alarm(engine, nullptr, work, nullptr);
    alarm.start(tarnbase::Duration(1));
    alarm.stop();
}

void signals() {
    vesk::SignalCatcher const catcher(
        SIGUSR1, [](int, void*) {}, nullptr);
    raise(SIGUSR1); // Arrives before the catcher ends, or not at all.
}

class Client : public vesk::Poller::Client {
    int poll_events(int) override { return 0; }
    void error(int) override {}
};

void poller() {
    std::SharedBase::Ptr<vesk::Poller> const poller(vesk::Poller::DEFAULT);
    static Client client;
    poller->add(client, STDERR_FILENO);
    poller->remove(client);
}

void dispatcher() {
    vesk::Dispatcher::VanillaNotifier notifier;
    vesk::Dispatcher::VanillaQueue queue(notifier);
    vesk::Dispatcher dispatcher(notifier);
    dispatcher.add_source(queue);
    Thread thread(vesk::Dispatcher::main, &dispatcher);
    require(!thread.start(), "the dispatcher");
    std::atomic<bool> arrived{false};
    auto const arrive = [](void* flag) { *static_cast<std::atomic<bool>*>(flag) = true; };
    queue.push(new vesk::Message::Callback(arrive, &arrived));
    while (!arrived) {
        sched_yield();
    }
    dispatcher.stop();
    require(!thread.join(), "the dispatcher's end");
}

void discovery() {
    vesk::DnsSd::SyncBrowser const browser("_http._tcp", "local");
    vesk::DnsSdBase::Txt const txt(vesk::DnsSdBase::Txt::EMPTY);
}

void locks() {
    vesk::Mutex mutex;
    vesk::Condition condition;
    vesk::MutexLock const lock(mutex);
    require(condition.waitTimeout(mutex, vesk::AbsTimeT(0)) == 1 && !condition.signal(), "the condition");
    vesk::RWLock rw_lock;
    require(!rw_lock.lockForRead() && !rw_lock.unlock(), "the lock for reading");
    vesk::SpinLock spin_lock;
    spin_lock.lock();
    spin_lock.unlock();
}

void sharedLocks() {
    vesk::ShmMutex mutex;
    vesk::ShmCondition condition;
    vesk::ShmRWLock rw_lock;
    vesk::ShmSpinLock spin_lock;
    vesk::ShmMutexLock const lock(mutex);
    require(
        condition.waitTimeout(mutex, vesk::AbsTimeT(0)) == 1 && !condition.signal(), "the shared condition");
    require(!rw_lock.lockForWrite() && !rw_lock.unlock(), "the shared lock for writing");
    spin_lock.lock();
    spin_lock.unlock();
}

class Watcher : public vesk::NetDeviceMonitor::Listener {};

void monitor() {
    Watcher watcher;
    vesk::NetDeviceMonitor interfaces(&watcher);
    Thread thread(
        [](void* it) { static_cast<vesk::NetDeviceMonitor*>(it)->watch(); }, &interfaces, "monitor");
    require(!thread.start(), "the monitor");
    interfaces.stopWatching();
    require(!thread.join(), "the monitor's end");
    std::ErrorStorage::ack();
}

void devices() {
    vesk::RawSocket raw(true, 0, 0);
    raw.open("lo"); // Not every user may.
    raw.close();
    vesk::SerialPort port("/dev/null"); // Which is none.
    port.open();
    std::ErrorStorage::ack();
}

void handles() {
    vesk::Regex regex;
    require(regex.compile("v[0-9]", 0) == 0, "the pattern");
    vesk::UnicodeString const text(std::wstring(L"text"));
    vesk::UnicodeString const copy(text);
    vesk::Directory directory("/proc/self", false); // Which 32-bit programs can list under an emulator, too.
    require(directory.isValid() && directory.curInfo(false).isValid(), "the directory");
    vesk::SharedObj object;
    require(!object.load("libm.so.6"), "loading");
}

void errors() {
    for (int i = 0; i < 8; ++i) {
        std::ErrorOutput("uses", i, i == 0)(vesk::SysError, vesk::SysErrorId::RESOURCES_EXHAUSTED, "many");
    }
    std::ErrorStorage::ack();
    // A store of its own hides that of the thread.
    std::ErrorStorage const store(std::ErrorStorage::action_dump_to_stdout);
    require(!std::ErrorStorage::isError(false), "the store");
}

void constants() {
    tracing::Channel const channel("uses", 7, 0);
    require(tracing::Channel::setThreshold("FW_Vesk_Thread", 7), "finding the channel");
    require(vesk::getDefaultConfigDir() == s_config_dir, "the configuration directory");
    require(vesk::User::BAD_NAME.empty() && vesk::Group::BAD_NAME.empty(), "the names");
    vesk::IPSocket::IPAddress const address(vesk::IPSocket::IPAddress::ANY_ADDRESS);
    vesk::NetworkAddressBase const any(vesk::NetworkAddressBase::ANY_IPv6);
    vesk::SystemLogger::getInstance();
}

void files() {
    vesk::Pipe pipe;
    vesk::StreamBinFileR reader;
    vesk::StreamBinFileW writer(64);
    unsigned int count = 0;
    char byte = 'x';
    require(!reader.open(pipe) && !writer.open(pipe), "opening the pipe");
    require(writer.write(&byte, 1, count) == 1 && !writer.close(), "writing");
    vesk::FileBuffer buffer(&reader, 16, nullptr);
    std::istream stream(&buffer);
    require(stream.get() == 'x', "reading");
    vesk::MemBinFileBase mapped;
    require(!mapped.open("/proc/self/exe", mapped.READ, mapped.DEFAULT_ACCESS), "opening the program");
    require(mapped.addMapping(vesk::MemMapping::READ, 4096).isValid(), "mapping");
}

void sockets() {
    using vesk::IPSocket;
    vesk::UDPSocket udp(true, 0, 0, {IPSocket::LOOPBACK_IP, 0}, {IPSocket::LOOPBACK_IP, 9}, IPSocket::IPV4);
    udp.open();
    udp.close(false);
    vesk::TCPServerSocket tcp({IPSocket::LOOPBACK_IP, 0}, true, true, IPSocket::IPV4);
    tcp.enableListen(1);
    tcp.close(false);
    vesk::UnixServerSocket local(getName("local").c_str(), true, vesk::UnixSocketBase::ABSTRACT);
    local.enableListen(1);
    local.close(false);
    std::ErrorStorage::ack();
}

void ipc() {
    vesk::SharedMemoryServer memory;
    require(!memory.create(getName("memory").c_str(), 4096, memory.REPLACE), "the memory");
    vesk::SemaphoreCreator semaphore;
    require(!semaphore.create(getName("semaphore").c_str(), 1, vesk::Creatable::REPLACE), "the semaphore");
    vesk::MsgQueueServer queue;
    if (queue.create(getName("queue").c_str(), 16, 1, vesk::Creatable::REPLACE)) {
        std::ErrorStorage::ack(); // Not every kernel has them.
    }
}

void processes() {
#if defined(__SANITIZE_THREAD__)
    constexpr bool HAS_RUNTIME_WITH_LOCKS = true;
#else
    bool const HAS_RUNTIME_WITH_LOCKS = support::IS_EMULATED;
#endif
    if (HAS_RUNTIME_WITH_LOCKS) {
        return; // Its locks stay locked in a child that is forked while other threads hold them.
    }
    vesk::ProcessTNG process;
    process.setExecutable("/bin/true");
    require(process.start() != vesk::ProcessTNG::INVALID_PROCESS_ID, "starting");
    vesk::ProcessTNG::ExitState state;
    require(!process.wait(state, false, 0) && state.status == 0, "waiting");
}

void machine() {
    vesk::ProcessInfo info(getpid());
    info.init();
    vesk::SystemLoad load;
    load.sample();
    vesk::SecureRandom random(false);
    unsigned int number = 0;
    random.getRandUInt32(number);
    vesk::NetDevice devices(nullptr);
    vesk::NetDevice::InterfaceInfo device;
    devices.getNextInfo(device);
    vesk::NetworkInterface const loopback("lo");
    vesk::Environment::getVariable("HOME");
    vesk::User::id2name(0);
    vesk::CalendarTime const now(true);
    long long ms = 0;
    require(!vesk::Time::getUptime(ms), "the uptime");
    vesk::FileInfo const root("/", true);
    vesk::FileSys::exists("/", true);
    std::ErrorStorage::ack();
}

} // namespace

Use const USES[] = {
    {"threads", threads},         {"timers", timers},
    {"alarms", alarms},           {"signals", signals},
    {"poller", poller},           {"dispatcher", dispatcher},
    {"discovery", discovery},     {"locks", locks},
    {"handles", handles},         {"errors", errors},
    {"constants", constants},     {"files", files},
    {"sockets", sockets},         {"ipc", ipc},
    {"processes", processes},     {"machine", machine},
    {"sharedLocks", sharedLocks}, {"monitor", monitor},
    {"devices", devices},
};
size_t const COUNT = std::size(USES);

void setUp(char const* prefix) {
    snprintf(s_prefix, sizeof s_prefix, "%s", prefix);
    snprintf(s_config_dir, sizeof s_config_dir, "/a/path/that/is/too/long/for/the/string/itself/%s", prefix);
    vesk::Vesk::setDefaultConfigDir(s_config_dir);
}

void removeNames() {
    vesk::SharedMemoryServer::deleteName(getName("memory").c_str());
    vesk::SemaphoreCreator::deleteName(getName("semaphore").c_str());
    vesk::MsgQueueServer::deleteName(getName("queue").c_str());
    std::ErrorStorage::ack();
}

} // namespace uses
