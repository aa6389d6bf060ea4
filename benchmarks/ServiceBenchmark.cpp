#include <vesk/ProcessInfo.h>
#include <vesk/Regex.h>
#include <vesk/SecureRandom.h>
#include <vesk/SharedObj.h>
#include <vesk/SystemLoad.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <regex.h>
#include <string>
#include <unistd.h>

namespace {

void check(bool failed) {
    if (failed) {
        abort();
    }
}

// ---- one process ----

void readFile(std::string const& path, char* text, size_t size) {
    int const fd = open(path.c_str(), O_RDONLY);
    check(fd < 0);
    ssize_t const length = read(fd, text, size - 1);
    check(length < 0);
    text[length] = '\0';
    close(fd);
}

void veskProcess(benchmark::State& state) {
    for (auto _ : state) {
        vesk::ProcessInfo info(getpid());
        info.init();
        check(!info.valid);
        benchmark::DoNotOptimize(info);
    }
}

void bareProcess(benchmark::State& state) {
    std::string const folder = "/proc/" + std::to_string(getpid());
    for (auto _ : state) {
        char text[1024];
        readFile(folder + "/stat", text, sizeof text);
        char const* const begin = strchr(text, '(');
        char const* const end = strrchr(text, ')');
        std::string name(begin + 1, end);
        unsigned long user = 0;
        unsigned long system = 0;
        ssize_t threads = 0;
        check(
            sscanf(
                end + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*u %*u %*d %*d %zd", &user,
                &system, &threads) != 3);
        readFile(folder + "/statm", text, sizeof text);
        size_t pages = 0;
        check(sscanf(text, "%*u %zu", &pages) != 1);
        timespec now{};
        check(clock_gettime(CLOCK_REALTIME, &now) != 0);
        benchmark::DoNotOptimize(name);
        benchmark::DoNotOptimize(user + system + static_cast<size_t>(threads) + pages);
    }
}

// ---- the system ----

void veskSystem(benchmark::State& state) {
    for (auto _ : state) {
        vesk::SystemLoad load;
        check(load.sample());
        benchmark::DoNotOptimize(load);
    }
}

void bareSystem(benchmark::State& state) {
    for (auto _ : state) {
        FILE* const file = fopen("/proc/uptime", "r");
        check(file == nullptr);
        double idle = 0;
        check(fscanf(file, "%*f %lf", &idle) != 1);
        fclose(file);
        timespec now{};
        check(clock_gettime(CLOCK_REALTIME, &now) != 0);
        benchmark::DoNotOptimize(idle);
    }
}

// ---- symbols ----

constexpr char const* LIBRARY = "libm.so.6";

void veskSymbol(benchmark::State& state) {
    vesk::SharedObj library;
    check(library.load(LIBRARY));
    for (auto _ : state) {
        void* address = nullptr;
        check(library.resolve("cos", address));
        benchmark::DoNotOptimize(address);
    }
}

void bareSymbol(benchmark::State& state) {
    void* const library = dlopen(LIBRARY, RTLD_LAZY);
    check(library == nullptr);
    for (auto _ : state) {
        dlerror();
        void* const address = dlsym(library, "cos");
        check(address == nullptr && dlerror() != nullptr);
        benchmark::DoNotOptimize(address);
    }
    dlclose(library);
}

// ---- random data ----

void veskRandom(benchmark::State& state) {
    vesk::SecureRandom random(false);
    for (auto _ : state) {
        unsigned long long value = 0;
        check(random.getRandUInt64(value));
        benchmark::DoNotOptimize(value);
    }
}

void bareRandom(benchmark::State& state) {
    int const fd = open("/dev/urandom", O_RDONLY);
    check(fd < 0);
    for (auto _ : state) {
        unsigned long long value = 0;
        check(read(fd, &value, sizeof value) != sizeof value);
        benchmark::DoNotOptimize(value);
    }
    close(fd);
}

// ---- regular expressions ----

constexpr char const* PATTERN = "v([0-9]+)\\.([0-9]+)";
constexpr char const* SUBJECT = "lib v12.345 beta";

void veskMatch(benchmark::State& state) {
    vesk::Regex regex;
    check(regex.compile(PATTERN, vesk::Regex::SUB_MATCHES) != 0);
    for (auto _ : state) {
        vesk::Regex::SubMatch found[3];
        check(regex.match(SUBJECT, found) != 0);
        benchmark::DoNotOptimize(found);
    }
}

void bareMatch(benchmark::State& state) {
    regex_t regex;
    check(regcomp(&regex, PATTERN, REG_EXTENDED) != 0);
    for (auto _ : state) {
        regmatch_t found[3];
        check(regexec(&regex, SUBJECT, 3, found, 0) != 0);
        benchmark::DoNotOptimize(found);
    }
    regfree(&regex);
}

BENCHMARK(veskProcess)->Name("Snapshot of a process (at most 1.10)/vesk");
BENCHMARK(bareProcess)->Name("Snapshot of a process (at most 1.10)/bare");
BENCHMARK(veskSystem)->Name("Sample of the system's load (at most 1.10)/vesk");
BENCHMARK(bareSystem)->Name("Sample of the system's load (at most 1.10)/bare");
BENCHMARK(veskSymbol)->Name("Symbol of a shared object (at most 1.10)/vesk");
BENCHMARK(bareSymbol)->Name("Symbol of a shared object (at most 1.10)/bare");
BENCHMARK(veskRandom)->Name("8 random bytes (at most 1.10)/vesk");
BENCHMARK(bareRandom)->Name("8 random bytes (at most 1.10)/bare");
BENCHMARK(veskMatch)->Name("Match with sub-matches (at most 1.10)/vesk");
BENCHMARK(bareMatch)->Name("Match with sub-matches (at most 1.10)/bare");

} // namespace
