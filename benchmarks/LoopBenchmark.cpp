#include "Ballast.h"

#include <vesk/loop/Command.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char const* PROGRAM = "/bin/true";

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
