#include "Storm.h"

#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>

#include <array>

namespace soak {

namespace {

/// A message queue that is created again and again, filled, emptied in the order of priorities, and misused.
class QueueStorm : public Storm {
public:
    QueueStorm() : Storm("queues") {}

    void work() override {
        vesk::MsgQueueServer server;
        server.setUnlinkOnClose(true);
        std::string const name = makeName("queue");
        vesk::MsgQueueClient client;
        if (check(
                server.create(name.c_str(), sizeof(unsigned int), CAPACITY, vesk::Creatable::REPLACE),
                "creating") ||
            check(client.attach(name.c_str()), "attaching")) {
            return;
        }
        for (unsigned int left = random(100); left > 0; --left) {
            passMessages(client, server);
        }
        failInVariousWays(client, server);
        check(client.close() || server.close(), "closing");
        check(!client.attach(name.c_str()), "attaching to a queue that is gone succeeds");
        countProvoked();
    }

private:
    static constexpr unsigned int CAPACITY = 8;

    void passMessages(vesk::MsgQueueClient& client, vesk::MsgQueueServer& server) {
        unsigned int const total = 1 + random(CAPACITY);
        unsigned int sum = 0;
        for (unsigned int i = 0; i < total; ++i) {
            unsigned int number = random(1000);
            sum += number;
            vesk::MsgQueueBase::Message const message{
                reinterpret_cast<char*>(&number), sizeof number, random(4)};
            check(client.writeMsg(&message), "writing");
        }
        unsigned int last = 4;
        for (unsigned int i = 0; i < total; ++i) {
            unsigned int number = 0;
            vesk::MsgQueueBase::Message message{reinterpret_cast<char*>(&number), sizeof number, 0};
            check(server.readMsg(&message) || message.priority > last, "reading in order");
            last = message.priority;
            sum -= number;
        }
        check(sum != 0, "the content of messages");
    }

    void failInVariousWays(vesk::MsgQueueClient& client, vesk::MsgQueueServer& server) {
        std::array<char, 64> bytes{};
        vesk::MsgQueueBase::Message message{bytes.data(), bytes.size(), 0};
        check(server.readMsgTimeout(&message, random(3)) != 1, "reading from an empty queue times out");
        countProvoked();
        check(!client.writeMsg(&message), "writing too large a message succeeds");
        countProvoked();
        message.size = 1;
        check(!server.readMsg(&message), "reading into too small a buffer succeeds");
        countProvoked();
        while (client.writeMsgTimeout(&message, 1) == 0) {
            count();
        }
        countProvoked(); // The queue is full.
        message.size = bytes.size();
        while (server.readMsgTimeout(&message, 0) == 0) {
            count();
            message.size = bytes.size();
        }
        countProvoked();
    }
};

} // namespace

std::unique_ptr<Storm> makeQueueStorm() {
    return std::make_unique<QueueStorm>();
}

} // namespace soak
