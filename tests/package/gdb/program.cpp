#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>
#include <vesk/TCPServerSocket.h>
#include <vesk/Thread.h>
#include <vesk/UnicodeString.h>
#include <vesk/Vesk.h>

#include <tarncommon/unicode/String.h>

#include <cstdlib>

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::Thread thread([](void*) {}, nullptr, "worker");
    vesk::ProcessTNG process;
    static_cast<void>(process.setExecutable("/bin/ls"));
    process.setArguments({"-l"});
    vesk::TCPServerSocket socket({vesk::IPSocket::LOOPBACK_IP, 0}, true, true, vesk::IPSocket::IPV4);
    socket.enableListen(1);
    auto const text = std::unicode::String::fromUTF8("Z\xC3\xBCrich");
    vesk::UnicodeString const path("/srv/maps");
    vesk::Mutex mutex;
    if (mutex.unlock()) {
        abort(); // The debugger looks around here.
    }
    return 0;
}
