// Measures the start-up time of the library in a fresh process: loading libvesk.so and libtarncommon.so with
// their initializers, and the first Vesk(true, false). The twin loads two libraries that contain one function each,
// and makes the same system calls directly; libc spends most of their time on reading the locale of the
// environment. Each sample needs a new process, which Google Benchmark does not support.
//
//     bench_Startup [PROCESSES]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr int DEFAULT_PROCESSES = 500;
// These load the files into the page cache.
constexpr int WARM_UP_PROCESSES = 10;

struct Sample {
    long long load_ns;
    long long start_ns;
};

constexpr char const* WITH_LIBRARY = "exec '" VESK_STARTUP_PROBE "' '" VESK_LIBRARY "'";
constexpr char const* BARE = "exec '" VESK_STARTUP_PROBE "' '" VESK_EMPTY_LIBRARY "' bare";

bool takeSample(char const* command, Sample& sample) {
    FILE* const probe = popen(command, "r");
    if (probe == nullptr) {
        return false;
    }
    int const numbers = fscanf(probe, "%lld %lld", &sample.load_ns, &sample.start_ns);
    return pclose(probe) == 0 && numbers == 2;
}

struct Times {
    void add(Sample const& sample) {
        load.push_back(sample.load_ns);
        start.push_back(sample.start_ns);
        both.push_back(sample.load_ns + sample.start_ns);
    }

    std::vector<long long> load;
    std::vector<long long> start;
    std::vector<long long> both;
};

/// Returns the median.
double printRow(char const* name, std::vector<long long>& times_ns) {
    std::sort(times_ns.begin(), times_ns.end());
    auto const at = [&](double share) {
        auto const index = static_cast<size_t>(share * static_cast<double>(times_ns.size()));
        return static_cast<double>(times_ns[std::min(index, times_ns.size() - 1)]) / 1000.0;
    };
    printf("%-44s %12.1f %12.1f\n", name, at(0.5), at(0.99));
    return at(0.5);
}

} // namespace

int main(int argc, char** argv) {
    int const processes = argc > 1 ? atoi(argv[1]) : DEFAULT_PROCESSES;
    if (processes < 1) {
        fputs("usage: bench_Startup [PROCESSES]\n", stderr);
        return 2;
    }
    Times vesk;
    Times bare;
    for (int i = 0; i < WARM_UP_PROCESSES + processes; ++i) {
        Sample sample{};
        Sample bare_sample{};
        if (!takeSample(WITH_LIBRARY, sample) || !takeSample(BARE, bare_sample)) {
            fputs("bench_Startup: the probe failed\n", stderr);
            return 1;
        }
        if (i >= WARM_UP_PROCESSES) {
            vesk.add(sample);
            bare.add(bare_sample);
        }
    }
    printf("%-44s %12s %12s\n", "start-up of a fresh process, in us", "median", "99 %");
    printRow("Load both libraries", vesk.load);
    printRow("Load two empty libraries", bare.load);
    printRow("First Vesk(true, false)", vesk.start);
    printRow("The system calls of the first Vesk, bare", bare.start);
    double const ratio = printRow("Load both libraries and first Vesk", vesk.both);
    printf("ratio %.2f\n", ratio / printRow("Load two empty libraries and system calls", bare.both));
    printf("(%d processes each; no limit)\n", processes);
    return 0;
}
