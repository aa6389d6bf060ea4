#include <vesk/Vesk.h>
#include <vesk/loop/Command.h>
#include <vesk/loop/Loop.h>

#include <iostream>

using namespace std::chrono_literals;
using vesk::loop::Command;
using vesk::loop::Stream;

int main() {
    vesk::Vesk const vesk(true, false);
    vesk::loop::Loop loop;
    auto const limit = loop.after(10s, [&] { loop.stop(); });
    auto const sorting = loop.start(
        Command("sort").in(Stream::text("pear\napple\n")).out(Stream::capture()),
        [&](vesk::loop::Output const& output) {
            std::cout << output.out;
            loop.stop();
        });
    if (!sorting) {
        std::cerr << sorting.error() << '\n';
        return 1;
    }
    return loop.run() ? 0 : 1;
}
