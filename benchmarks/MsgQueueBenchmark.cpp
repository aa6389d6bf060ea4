#include "Together.h"

#include <vesk/MsgQueueServer.h>

#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <mqueue.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned int MSG_SIZE = 64;

void check(bool failed) {
    if (failed) {
        abort();
    }
}

std::string makeName(char const* end) {
    return "vesk-bench-" + std::to_string(getpid()) + end;
}

/// A child that runs `echo` until the benchmark ends.
class Peer {
public:
    template <typename Echo>
    explicit Peer(Echo echo) : m_pid(fork()) {
        if (m_pid == 0) {
            alarm(300);
            for (;;) {
                echo();
            }
        }
    }
    ~Peer() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;

    pid_t getPid() const { return m_pid; }

private:
    pid_t m_pid;
};

class VeskQueue {
public:
    explicit VeskQueue(char const* end) {
        check(m_queue.create(makeName(end).c_str(), MSG_SIZE, 4, vesk::Creatable::REPLACE));
        check(m_queue.deleteName());
    }

    void send(char* buffer) {
        vesk::MsgQueueBase::Message const message{buffer, MSG_SIZE, 0};
        check(m_queue.writeMsg(&message));
    }
    void receive(char* buffer) {
        vesk::MsgQueueBase::Message message{buffer, MSG_SIZE, 0};
        check(m_queue.readMsg(&message));
    }

private:
    vesk::MsgQueueServer m_queue;
};

class BareQueue {
public:
    explicit BareQueue(char const* end) {
        std::string const name = "/" + makeName(end);
        mq_attr attributes{};
        attributes.mq_maxmsg = 4;
        attributes.mq_msgsize = MSG_SIZE;
        m_queue = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attributes);
        check(m_queue == -1);
        check(mq_unlink(name.c_str()) != 0);
    }
    ~BareQueue() { mq_close(m_queue); }
    BareQueue(BareQueue const&) = delete;
    BareQueue& operator=(BareQueue const&) = delete;

    void send(char* buffer) { check(mq_send(m_queue, buffer, MSG_SIZE, 0) != 0); }
    void receive(char* buffer) {
        unsigned int priority = 0;
        check(mq_receive(m_queue, buffer, MSG_SIZE, &priority) < 0);
    }

private:
    mqd_t m_queue;
};

template <typename Queue>
void roundTrip(benchmark::State& state) {
    OneProcessor const together;
    Queue there("-there");
    Queue back("-back");
    char buffer[MSG_SIZE] = {};
    Peer const peer([&] {
        there.receive(buffer);
        back.send(buffer);
    });
    measureTogether(
        state,
        [&] {
            there.send(buffer);
            back.receive(buffer);
        },
        peer.getPid());
}
BENCHMARK(roundTrip<VeskQueue>)
    ->Name("Queue round trip between two processes (at most 1.03)/vesk")
    ->UseManualTime();
BENCHMARK(roundTrip<BareQueue>)
    ->Name("Queue round trip between two processes (at most 1.03)/bare")
    ->UseManualTime();

} // namespace
