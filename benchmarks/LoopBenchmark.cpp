#include <vesk/loop/Command.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char const* PROGRAM = "/bin/true";

void check(bool failed) {
    if (failed) {
        abort();
    }
}

/// Memory of the parent, in MiB, with all of its pages in use.
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

void startWithCommand(benchmark::State& state) {
    Ballast const ballast(state);
    vesk::loop::Command const command(PROGRAM);
    for (auto _ : state) {
        auto child = command.start();
        check(!child || !child->wait());
    }
}

void startBare(benchmark::State& state) {
    Ballast const ballast(state);
    for (auto _ : state) {
        pid_t const child = vfork();
        if (child == 0) {
            execl(PROGRAM, PROGRAM, nullptr);
            _exit(127);
        }
        check(waitpid(child, nullptr, 0) != child);
    }
}

BENCHMARK(startWithCommand)
    ->Name("Command start and wait, MiB of the parent (at most 1.2)/vesk")
    ->Arg(0)
    ->Arg(512);
BENCHMARK(startBare)->Name("Command start and wait, MiB of the parent (at most 1.2)/bare")->Arg(0)->Arg(512);

} // namespace
