#include <vesk/TCPServerSocket.h>
#include <vesk/TCPSocket.h>
#include <vesk/Vesk.h>

#include <iostream>
#include <string>

using vesk::IPSocket;

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::TCPServerSocket server({IPSocket::LOOPBACK_IP, 0}, true, true, IPSocket::IPV4); // 0: any port
    server.enableListen(16);
    server.updateLocalAddress();
    if (server.hadError()) {
        return 1;
    }

    // Usually in another process:
    vesk::TCPSocket client(
        true, 0, 0, IPSocket::IPAddress(), server.getLocalAddress(), false, IPSocket::IPV4);
    unsigned int count = 0;
    if (!client.isValid() || client.connect() || client.write("hello", 5, count) != 1 || client.close(true)) {
        return 1;
    }

    vesk::TCPSocket::Description const accepted = server.acceptConnection();
    vesk::TCPSocket connection(true, 4096, 4096, accepted);
    char text[16];
    if (!connection.isValid() || connection.read(text, sizeof text, count) != 1) {
        return 1;
    }
    std::cout << "received: " << std::string(text, count) << '\n';
    return connection.close(false) || server.close(false) ? 1 : 0;
}
