#pragma once

#include "EveryHeader.h"

#include <istream>
#include <memory>
#include <net/if.h>
#include <string>

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

inline std::string getName(char const* what) {
    return "vesk-allocations-" + std::to_string(getpid()) + "-" + what;
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

/// An operation, which returns whether it has failed.
///
/// `points` has a letter for each of its allocations, which says what happens if that one fails:
/// T  `std::bad_alloc` is thrown
/// W  the operation waits, and succeeds
/// R  it fails with a report
/// F  it fails without a report
/// A  it trips an assertion, as its documentation says
/// -  it succeeds without this memory
/// The number of points of some operations depends on the machine: their `points` is "*".
struct Row {
    char const* name;
    char const* points;
    bool (*run)();
};

inline void PrintTo(Row const& row, std::ostream* out) {
    *out << row.name;
}

Row const ROWS[] = {
    // ---- tarncommon ----
    {"Buf", "R", [] { return isBroken(std::Buf(100)); }},
    {"Buf_copy", "R", [] { return isBroken(std::Buf(std::Buf(100))); }},
    {"unicode_String_fromUTF8", "T", [] { return std::unicode::String::fromUTF8(g_long).isEmpty(); }},
    {"unicode_String_toUTF8", "TT",
     [] {
         static auto const s_text = std::unicode::String::fromUTF8(LONG);
         return s_text.toUTF8() != LONG || s_text.substr(1, 60).getLength() != 60;
     }},
    {"ErrorStorage_fiveLevels", "-",
     [] {
         for (int i = 0; i < 5; ++i) {
             std::ErrorOutput("level", i, i == 0)(vesk::SysErrorId::NO_SUCH_PROCESS);
         }
         std::ErrorStorage::ack();
         std::ErrorStorage::Chain::ofThread().unmap();
         return false;
     }},
    {"ErrorApi_getReasonList", "T",
     [] {
         std::ErrorOutput("level", 1, true)(vesk::SysErrorId::NO_SUCH_PROCESS);
         std::ErrorStorage::ack();
         return tarn_error.getReasonList().empty();
     }},
    {"Channel", "T", [] { return tracing::Channel(g_long, 1, 0).getName() != g_long; }},
    // ---- frame ----
    {"Shared", "",
     [] {
         static std::Shared<int> s_shared;
         return *std::SharedBase::Ptr<int>(s_shared) != 0;
     }},
    {"MemoryPool", "AWWAW",
     [] {
         std::MemoryPool<std::UsePoolOnDepletion, vesk::Mutex, std::FakeCondition> pool(16, 2);
         void* const items[] = {pool.get(), pool.get(), pool.get()};
         for (void* const item : items) {
             pool.thankYou(item);
         }
         return items[2] == nullptr;
     }},
    {"UnicodeString_narrow", "", [] { return vesk::UnicodeString(g_long).c_str() == nullptr; }},
    {"UnicodeString_wide", "TW", [] { return vesk::UnicodeString(std::wstring(WIDE)).c_str() == nullptr; }},
    {"UnicodeString_toWide", "WT", [] { return std::wstring(vesk::UnicodeString(LONG)).empty(); }},
    {"UnicodeString_copy", "",
     [] {
         vesk::UnicodeString const text(g_long);
         vesk::UnicodeString const same(text);
         return strcmp(same.c_str(), LONG) != 0;
     }},
    {"Vesk_setDefaultConfigDir", "T",
     [] {
         std::string const before = vesk::Vesk::setDefaultConfigDir(g_long);
         return vesk::getDefaultConfigDir() != g_long;
     }},
    {"SystemError_getString", "*", [] { return vesk::SystemError(EADDRNOTAVAIL).getString().empty(); }},
    {"CalendarTime", "", [] { return vesk::CalendarTime(true).getYear() < 2000; }},
    // ---- threads ----
    {"Thread", "W-",
     [] {
         vesk::Thread thread([](void*) {}, nullptr, "allocations");
         return isBroken(thread) || thread.start() || thread.join();
     }},
    {"Thread_setCPUAffinity", "W-T",
     [] {
         std::vector<bool> processors;
         vesk::Thread thread([](void*) {}, nullptr, "allocations");
         bool const failed =
             isBroken(thread) || thread.getCPUAffinity(processors) || thread.setCPUAffinity(processors);
         return thread.isValid() && (thread.start() || thread.join()) ? true : failed;
     }},
    {"Timer", "TTTW-T",
     [] {
         vesk::Timer timer([](vesk::Timer*) {}, true);
         return timer.start(3600000, false) || timer.stop();
     }},
    {"Timer_start", "", [] { return g_timer->start(3600000, false) || g_timer->stop(); }},
    // ---- events ----
    {"SignalCatcher", "",
     [] {
         vesk::SignalCatcher const catcher(
             SIGURG, [](int, void*) {}, nullptr);
         return false;
     }},
    {"SignalQueue_pop", "F",
     [] {
         vesk::SignalQueue::Notifier notifier;
         vesk::SignalQueue queue(notifier);
         vesk::SignalCatcher const catcher(
             SIGURG, queue, [](int, void*) {}, nullptr);
         raise(SIGURG);
         vesk::Message* const message = queue.pop_nonblock();
         if (message == nullptr) {
             return true;
         }
         message->dismiss();
         return false;
     }},
    {"Dispatcher", "TTTT",
     [] {
         vesk::Dispatcher::VanillaNotifier notifier;
         vesk::Dispatcher::VanillaQueue queue(notifier);
         vesk::Dispatcher dispatcher(notifier);
         Handler handler;
         dispatcher.add_source(queue);
         dispatcher.add_handler(handler);
         dispatcher.remove_handler(handler);
         return false;
     }},
    {"VanillaQueue_push", "T",
     [] {
         static vesk::Dispatcher::VanillaNotifier s_notifier;
         static vesk::Dispatcher::VanillaQueue s_queue(s_notifier);
         auto message = std::make_unique<vesk::Message>();
         s_queue.push(message.get());
         message.release();
         s_queue.pop_nonblock()->dismiss();
         return false;
     }},
    {"Poller", "TTTTTTT",
     [] {
         vesk::Poller poller;
         Client client;
         poller.add(client, STDERR_FILENO);
         poller.remove(client);
         poller.stop();
         return poller.poll() && false;
     }},
    // ---- text and files ----
    {"Path", "TT", [] { return vesk::Path(LONG) != vesk::Path(g_long); }},
    {"WidePath", "TTWT", [] { return std::string(vesk::WidePath(LONG).getAbsolute()).empty(); }},
    {"PathParts", "TTTT", [] { return vesk::PathParts(g_long + "/" + LONG).name.empty(); }},
    {"FileInfo", "",
     [] { return isBroken(vesk::FileInfo(vesk::UnicodeString(std::string("/dev/null")), true)); }},
    {"FileInfo_getOwner", "*", [] { return vesk::FileInfo("/dev/null", true).getOwner().getName().empty(); }},
    {"FileSys_copy", "WR",
     [] {
         static std::string const s_target = "/tmp/" + getName("copy");
         unlink(s_target.c_str());
         bool const failed = vesk::FileSys::copy(
             vesk::UnicodeString("/proc/self/comm"), vesk::UnicodeString(s_target), 100, nullptr);
         unlink(s_target.c_str());
         return failed;
     }},
    {"FileSys_currentWD", "",
     [] {
         std::string result;
         return vesk::FileSys::currentWD(result);
     }},
    {"FileSys_getEntryPoints", "*",
     [] {
         std::list<vesk::UnicodeString> result;
         vesk::FileSys::getEntryPoints(result);
         return vesk::FileSys::getEntryPoints().empty() || result.empty();
     }},
    {"Directory", "R", [] { return isBroken(vesk::Directory("/proc/self", true)); }},
    {"Directory_curDir", "RR",
     [] {
         vesk::Directory directory("/proc/self", true);
         if (isBroken(directory)) {
             return true;
         }
         while (!directory.atEnd() && strcmp(directory.curName(), "task") != 0) {
             if (directory.next() == -1) {
                 return true;
             }
         }
         return isBroken(directory.curDir(true, true));
     }},
    {"StreamBinFileR", "R",
     [] {
         vesk::StreamBinFileR file(100);
         return isBroken(file) && file.open(std::string("/dev/null"), vesk::BinFileBase::READ);
     }},
    {"StreamBinFileRW", "RR",
     [] {
         vesk::StreamBinFileRW file(100, 100);
         return file.open("/dev/null", vesk::BinFileBase::READ_WRITE);
     }},
    {"BinTempFileRW", "TTTWTW",
     [] { return isBroken(vesk::BinTempFileRW(vesk::WidePath("/tmp/vesk-allocations"))); }},
    {"FmtFileWrapper", "--",
     [] {
         return isBroken(
             vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, vesk::BinFileBase::ReadFlags>(
                 "/dev/null", vesk::BinFileBase::READ));
     }},
    // ---- ipc ----
    {"SharedMemory", "TRT",
     [] {
         vesk::SharedMemoryServer server;
         server.setUnlinkOnClose(true);
         return server.create(getName("memory").c_str(), 8192, vesk::Creatable::REPLACE) ||
             isBroken(server.addMapping(vesk::MemMapping::READ, 4096)) || server.close();
     }},
    {"SharedMemory_ring", "TRRRT",
     [] {
         vesk::SharedMemoryServer server;
         server.setUnlinkOnClose(true);
         return server.create(getName("ring").c_str(), 8192, vesk::Creatable::REPLACE) ||
             isBroken(server.addMapping(vesk::MemMapping::READ, 4096, 0, nullptr, true)) || server.close();
     }},
    {"MsgQueue", "T",
     [] {
         vesk::MsgQueueServer server;
         server.setUnlinkOnClose(true);
         return server.create(getName("queue").c_str(), 8, 2, vesk::Creatable::REPLACE) || server.close();
     }},
    {"Semaphore", "*",
     [] {
         vesk::SemaphoreCreator creator;
         creator.setUnlinkOnClose(true);
         return creator.create(getName("semaphore").c_str(), 1, vesk::Creatable::REPLACE) || creator.close();
     }},
    // ---- network ----
    {"NetDevice", "RR",
     [] {
         vesk::NetDevice device("lo");
         vesk::NetDevice::InterfaceInfo info{};
         return isBroken(device) || device.getNextInfo(info) == -1;
     }},
    {"NetDevice_all", "*",
     [] {
         vesk::NetDevice device(nullptr);
         return isBroken(device);
     }},
    {"NetDeviceMonitor", "-TT",
     [] {
         vesk::NetDeviceMonitor::Listener listener;
         vesk::NetDeviceMonitor monitor(&listener);
         monitor.interface_appeared(7, LONG);
         return false;
     }},
    {"NetworkAddress", "T",
     [] {
         unsigned char const bytes[16] = {0x20, 1, 0xd, 0xb8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
         vesk::NetworkAddress address;
         return !address.set(AF_INET6, bytes) && address.getText().empty();
     }},
    // ---- services and processes ----
    {"User_id2name", "*", [] { return vesk::User::id2name(0) != "root"; }},
    {"User_name2id", "*", [] { return vesk::User::name2id("root") != 0; }},
    {"Group_id2name", "*", [] { return vesk::Group::id2name(0) != "root"; }},
    // No row for `Regex`: if the second allocation fails, `regcomp` of glibc 2.36 frees a block twice.
    {"SharedObj", "",
     [] {
         vesk::SharedObj object;
         vesk::SharedObj const same(object);
         return object.load("libm.so.6") || object.unload();
     }},
    {"ProcessInfo", "",
     [] {
         vesk::ProcessInfo info(getpid());
         info.init();
         return !info.valid;
     }},
    {"ProcessInfo_getPIDs", "*",
     [] {
         std::vector<int> pids;
         return vesk::ProcessInfo::getPIDs(pids) || pids.empty();
     }},
    {"SystemLoad", "R-",
     [] {
         vesk::SystemLoad load;
         return load.sample();
     }},
    {"ProcessTNG_settings", "TTTTTTTTTTTTTTTTT",
     [] {
         vesk::ProcessTNG process("/bin/true", {LONG});
         process.setEnvironment({{LONG, LONG}});
         process.setStdoutFile(LONG, false);
         process.setAffinity({true});
         return process.setExecutable("/bin/sh");
     }},
    {"ProcessTNG_start", "TTTTTTTTWWWW",
     [] {
         vesk::ProcessTNG process("/bin/true", {"argument"});
         process.setEnvironment({{"NAME", LONG}});
         return process.start() == -1 || process.wait(g_state, false, 0);
     }},
    {"ProcessTNG_getOwnProcessName", "T", [] { return vesk::ProcessTNG::getOwnProcessName().empty(); }},
    {"ProcessTNG_getProcessId", "*",
     [] {
         std::vector<int> pids;
         vesk::ProcessTNG::getProcessId("no such process", pids, true);
         return !pids.empty();
     }},
    // ---- sockets ----
    {"IPAddress", "T",
     [] {
         sockaddr_in6 address{};
         address.sin6_family = AF_INET6;
         memset(&address.sin6_addr, 0x21, sizeof address.sin6_addr);
         return IPSocket::IPAddress(address).host.empty();
     }},
    {"IPAddress_getBinary", "*",
     [] {
         sockaddr_in binary{};
         return IPSocket::IPAddress(IPSocket::LOOPBACK_IP, 80).getBinary(binary);
     }},
    {"IPResolver", "*",
     [] {
         IPSocket::IPResolver resolver;
         return resolver.resolveName("127.0.0.1", IPSocket::IPV4) < 0;
     }},
    {"IPSocket_getHostname", "*",
     [] {
         std::string name;
         return IPSocket::getHostname(name);
     }},
    {"TCPSocket", "*",
     [] {
         vesk::TCPServerSocket server(getLoopback(), true, true, IPSocket::IPV4);
         Closing const closing_server(server);
         if (isBroken(server) || server.hadError()) {
             return true; // Must not listen.
         }
         server.enableListen(1);
         server.updateLocalAddress();
         vesk::TCPSocket client(
             true, 100, 100, getLoopback(), server.getLocalAddress(), false, IPSocket::IPV4);
         Closing const closing_client(client);
         if (server.hadError() || isBroken(client) || client.connect()) {
             return true;
         }
         auto const accepted = server.acceptConnection();
         if (server.hadError()) {
             return true;
         }
         vesk::TCPSocket peer(true, 100, 100, accepted);
         Closing const closing_peer(peer);
         return isBroken(peer);
     }},
    {"UDPSocket", "*",
     [] {
         vesk::UDPSocket socket(true, 100, 100, getLoopback(), getLoopback(), IPSocket::IPV4);
         Closing const closing(socket);
         if (isBroken(socket) || socket.hadError()) {
             return true; // Must not be opened.
         }
         socket.open();
         return socket.hadError();
     }},
    {"UnixSocket", "TTTTTRRTTRRT",
     [] {
         vesk::UnixServerSocket server(getName("server").c_str(), true, vesk::UnixSocketBase::ABSTRACT);
         Closing const closing_server(server);
         if (isBroken(server) || server.hadError()) {
             return true; // Must not listen.
         }
         server.enableListen(1);
         vesk::UnixSocket client(
             true, 100, 100, "", getName("server").c_str(), vesk::UnixSocketBase::ABSTRACT);
         Closing const closing_client(client);
         if (server.hadError() || isBroken(client) || client.connect()) {
             return true;
         }
         auto const accepted = server.acceptConnection();
         if (server.hadError()) {
             return true;
         }
         vesk::UnixSocket peer(true, 100, 100, accepted);
         Closing const closing_peer(peer);
         return isBroken(peer);
     }},
    // ---- service discovery ----
    {"DnsSd_Txt", "TR",
     [] {
         vesk::DnsSdBase::Txt txt(8, "\7key=val");
         return txt.size() != 1 || isBroken(txt.data());
     }},
    {"DnsSd_sanitize", "TT",
     [] { return vesk::DnsSdBase::sanitize(std::unicode::String::fromUTF8(g_long)).isEmpty(); }},
    {"DnsSd_unescape", "TTT",
     [] {
         char const* at = LONG;
         return vesk::DnsSdBase::unescape(at, ".").empty();
     }},
    {"DnsSd_SyncBrowser", "TTTTW-",
     [] {
         vesk::DnsSd::SyncBrowser browser(g_long, LONG);
         browser.service_appeared(std::unicode::String(U'n'), g_long, g_long);
         vesk::DnsSd::SyncBrowser::Result result;
         return browser.get(result);
     }},
};

/// The state that the operations need, once per process.
inline void setUp() {
    static vesk::Vesk const s_vesk(true, false);
    // Exist during all tests, so that no test creates and ends their threads.
    static vesk::SignalCatcher const s_catcher(
        SIGRTMIN + 9, [](int, void*) {}, nullptr);
    g_timer = std::make_unique<vesk::Timer>([](vesk::Timer*) {}, false);
}

} // namespace operations
