#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace support {

/// Calls `body(i)` in `count` threads at once, `i` from 0 on. No call begins before all threads have started.
/// Returns after the end of all threads.
template <typename Body>
void runInThreads(int count, Body const& body) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&ready, &body, count, i] {
            ++ready;
            while (ready < count) {
                std::this_thread::yield();
            }
            body(i);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace support
