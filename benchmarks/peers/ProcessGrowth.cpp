#include "../ProcessBenchmark.cpp"

namespace {

/// Children of the library that only sleep.
class VeskCrowd {
public:
    explicit VeskCrowd(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            m_children.push_back(std::make_unique<vesk::ProcessTNG>());
            check(m_children.back()->setExecutable("/bin/sleep"));
            m_children.back()->setArguments({"100000"});
            check(m_children.back()->start() == vesk::ProcessTNG::INVALID_PROCESS_ID);
        }
    }
    ~VeskCrowd() {
        for (auto const& child : m_children) {
            check(child->kill(false));
        }
        vesk::ProcessTNG::ExitState end;
        for (auto const& child : m_children) {
            check(child->wait(end, false, 0));
        }
    }
    VeskCrowd(VeskCrowd const&) = delete;
    VeskCrowd& operator=(VeskCrowd const&) = delete;

private:
    std::vector<std::unique_ptr<vesk::ProcessTNG>> m_children;
};

/// Starts one more child and waits for it.
void startBeside(benchmark::State& state) {
    startLibrary();
    VeskCrowd const crowd(static_cast<size_t>(state.range(0)) - 1);
    vesk::ProcessTNG process;
    check(process.setExecutable(PROGRAM));
    for (auto _ : state) {
        check(process.start() == vesk::ProcessTNG::INVALID_PROCESS_ID);
        vesk::ProcessTNG::ExitState end;
        check(process.wait(end, false, 0) || end.killed || end.status != 0);
    }
}

void bareStartBeside(benchmark::State& state) {
    Crowd const crowd(static_cast<size_t>(state.range(0)) - 1);
    BareProcess process;
    char const* const argv[] = {PROGRAM, nullptr};
    for (auto _ : state) {
        process.start(PROGRAM, argv);
        check(process.wait() != 0);
    }
}

void children(benchmark::internal::Benchmark* row) {
    row->RangeMultiplier(10)->Range(1, 1000)->UseRealTime();
}
BENCHMARK(startBeside)->Name("Growth: child started and waited for, by children alive/vesk")->Apply(children);
BENCHMARK(bareStartBeside)
    ->Name("Growth: child started and waited for, by children alive/bare")
    ->Apply(children);

} // namespace
