#include "support/CleanEnd.h"
#include "support/Sanitizers.h"
#include "support/Testing.h"

#include <vesk/Pipe.h>
#include <vesk/RawSocket.h>
#include <vesk/SharedMemoryServer.h>
#include <vesk/StreamBinFileRW.h>
#include <vesk/TCPServerSocket.h>
#include <vesk/UDPSocket.h>
#include <vesk/UnixServerSocket.h>

#include <fcntl.h>
#include <map>

// A thread is canceled while it closes a descriptor, just after the system has done so. The object must know that
// the descriptor is closed: its destructor would otherwise close the number again, which may belong to another
// thread by then.

namespace {

/// How often each descriptor was closed, once a row has stored this here.
thread_local std::map<int, int>* t_closed = nullptr;

} // namespace

support::Injected inject_close("close");
extern "C" VESK_UNWATCHED int close(int fd) {
    int const result = inject_close.getReal(close)(fd);
    if (t_closed != nullptr) {
        ++(*t_closed)[fd];
        pthread_cancel(pthread_self());
        pthread_testcancel();
    }
    return result;
}

namespace {

using vesk::IPSocket;

/// Closes an object that is open. Its destructor follows.
template <typename Close>
void cancelIn(Close const& close, std::map<int, int>& closed) {
    t_closed = &closed;
    EXPECT_FALSE(close());
    pthread_testcancel();
}

struct Row {
    char const* name;
    void (*run)(std::map<int, int>& closed);
};

Row const ROWS[] = {
    {"StreamBinFileRW",
     [](auto& closed) {
         vesk::StreamBinFileRW file(16, 16);
         ASSERT_FALSE(file.open("/dev/null", vesk::BinFileBase::READ_WRITE));
         cancelIn([&] { return file.close(); }, closed);
     }},
    {"Pipe",
     [](auto& closed) {
         vesk::Pipe pipe;
         cancelIn([&] { return pipe.closeReadEnd(); }, closed);
     }},
    {"SharedMemory",
     [](auto& closed) {
         vesk::SharedMemoryServer memory;
         memory.setUnlinkOnClose(true);
         std::string const name = "vesk-closed-once-" + std::to_string(getpid());
         ASSERT_FALSE(memory.create(name.c_str(), 4096, vesk::Creatable::REPLACE));
         cancelIn([&] { return memory.close(); }, closed);
     }},
    {"UDPSocket",
     [](auto& closed) {
         vesk::UDPSocket socket(
             true, 0, 0, {IPSocket::LOOPBACK_IP, 0}, {IPSocket::LOOPBACK_IP, 9}, IPSocket::IPV4);
         socket.open();
         cancelIn([&] { return socket.close(false); }, closed);
     }},
    {"TCPServerSocket",
     [](auto& closed) {
         vesk::TCPServerSocket socket({IPSocket::LOOPBACK_IP, 0}, true, true, IPSocket::IPV4);
         socket.enableListen(1);
         cancelIn([&] { return socket.close(true); }, closed);
     }},
    {"UnixServerSocket",
     [](auto& closed) {
         std::string const name = "vesk-closed-once-" + std::to_string(getpid());
         vesk::UnixServerSocket socket(name.c_str(), true, vesk::UnixSocketBase::ABSTRACT);
         socket.enableListen(1);
         cancelIn([&] { return socket.close(false); }, closed);
     }},
    {"RawSocket",
     [](auto& closed) {
         vesk::RawSocket socket(true, 0, 0);
         if (socket.open("lo")) { // Without the privilege for packet sockets it has nothing to close.
             std::ErrorStorage::ack();
             closed[-1] = 1;
             return;
         }
         cancelIn([&] { return socket.close(); }, closed);
     }},
};

VESK_TEST_TABLE(ClosedOnce, whenTheThreadIsCanceled, testing::Test, ROWS) {
    VESK_SKIP_UNLESS_FRAMES_ARE_FORGOTTEN();
    std::map<int, int> closed;
    support::EventRecorder const events; // Of the sockets, which must be closed before their end.
    std::thread thread([&] { GetParam().run(closed); });
    thread.join();
    ASSERT_FALSE(closed.empty());
    for (auto const& [fd, times] : closed) {
        EXPECT_EQ(1, times) << "descriptor " << fd;
    }
    EXPECT_EQ("", events.getText());
}

} // namespace
