#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/Vesk.h>

#include <iostream>
#include <string>
#include <unistd.h>

int main() {
    vesk::Vesk const vesk(true, false);
    std::string const name = "orders-" + std::to_string(getpid());
    vesk::MsgQueueServer server;
    server.setUnlinkOnClose(true);
    if (server.create(name.c_str(), 64, 10, vesk::Creatable::REPLACE)) {
        return 1;
    }

    // Usually in another process:
    vesk::MsgQueueClient client;
    char order[] = "tea";
    vesk::MsgQueueBase::Message const sent{order, sizeof order, 0};
    if (client.attach(name.c_str()) || client.writeMsg(&sent) || client.close()) {
        return 1;
    }

    char text[64];
    vesk::MsgQueueBase::Message received{text, sizeof text, 0};
    if (server.readMsg(&received)) {
        return 1;
    }
    std::cout << "ordered: " << text << '\n';
    return server.close() ? 1 : 0;
}
