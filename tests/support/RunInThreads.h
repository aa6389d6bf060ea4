#pragma once

#include <thread>
#include <vector>

namespace support {

/// Runs `body` in several threads at the same time, each with its number, and joins them.
template <typename Body>
void runInThreads(int count, Body const& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&body, i] { body(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace support
