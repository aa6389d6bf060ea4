#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

/// What the benchmarks that start programs have in common.
namespace {

void check(bool failed) {
    if (failed) {
        abort();
    }
}

/// Memory of the parent, in MiB. All of its pages are in use, so that a fork must copy their page tables.
class Ballast {
public:
    explicit Ballast(benchmark::State const& state) : m_size(static_cast<size_t>(state.range(0)) << 20) {
        if (m_size != 0) {
            m_memory = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            check(m_memory == MAP_FAILED);
            memset(m_memory, 1, m_size);
        }
    }
    ~Ballast() {
        if (m_size != 0) {
            munmap(m_memory, m_size);
        }
    }
    Ballast(Ballast const&) = delete;
    Ballast& operator=(Ballast const&) = delete;

private:
    size_t m_size;
    void* m_memory = nullptr;
};

} // namespace
