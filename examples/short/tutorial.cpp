// examples/short/tutorial.cpp
#include <vesk/Thread.h>
#include <vesk/UnixServerSocket.h>
#include <vesk/Vesk.h>
#include <vesk/loop/Command.h>
#include <vesk/loop/Loop.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <iostream>
#include <unistd.h>

using namespace std::chrono_literals;
using vesk::UnixServerSocket;
using vesk::loop::Command;

int main() {
    vesk::Vesk const vesk(true, false); // Once in a process, before anything else.
    vesk::loop::Loop loop;

    // A timer. The watch owns the right to be called: destroy it, and the callback is silent.
    int ticks = 0;
    auto const tick = loop.every(20ms, [&] { ++ticks; });

    // A socket. Errors of the classes below the loop are reported in a chain; true is failure.
    vesk::Path const name("/tmp/tutorial-" + std::to_string(getpid()));
    UnixServerSocket server(name, false, UnixServerSocket::FILESYSTEM);
    server.enableListen(8);
    if (server.hadError()) {
        std::cerr << tarn_error.getReasonList() << '\n';
        return 1;
    }
    auto const visitor = loop.onReadable(server.getSocketFd(), [&] {
        auto const accepted = server.acceptConnection(); // Closes the connection: it is not adopted.
        std::cout << "a visitor after " << (ticks > 0 ? "some" : "no") << " ticks\n";
    });

    // A child. It visits the socket, and the loop learns how it ended.
    auto const child = loop.start(
        Command("python3").args(
            {"-c",
             "import socket, time; time.sleep(0.1); socket.socket(socket.AF_UNIX).connect('" + name + "')"}),
        [&](vesk::loop::Output const& end) {
            std::cout << "the child ended with " << end.code << '\n';
            loop.stop();
        });

    // A failure. The loop returns its chain as a value.
    auto const missing = Command("/no/such/program").start();
    std::cout << missing.error() << '\n';

    bool const failed = !tick || !visitor || !child || !loop.run();
    return server.close(false) || failed ? 1 : 0;
}
