// A program with a loop: a timer stops it.
#include <vesk/loop/Loop.h>

#include <chrono>
#include <iostream>

int main() {
    using namespace std::chrono_literals;
    vesk::loop::Loop loop;
    auto const timer = loop.after(1ms, [&loop] { loop.stop(); });
    if (!timer || !loop.run()) {
        std::cout << "the loop did not run\n";
        return 1;
    }
    std::cout << "the loop works\n";
    return 0;
}
