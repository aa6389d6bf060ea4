#include "Usage.h"

#include "Storm.h"

#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <string>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace soak {

namespace {

using Matches = std::function<bool(std::string const&)>;

bool isAny(std::string const& /*unused*/) {
    return true;
}

unsigned long long countEntries(char const* directory, Matches const& matches = isAny) {
    DIR* const entries = opendir(directory);
    unsigned long long count = 0;
    for (dirent const* entry = nullptr; entries != nullptr && (entry = readdir(entries)) != nullptr;) {
        count += entry->d_name[0] != '.' && matches(entry->d_name) ? 1 : 0;
    }
    if (entries != nullptr) {
        closedir(entries);
    }
    return count;
}

unsigned long long countLines(char const* file, Matches const& matches) {
    std::ifstream lines(file);
    unsigned long long count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += matches(line) ? 1 : 0;
    }
    return count;
}

unsigned long long countChildren() {
    unsigned long long count = 0;
    countEntries("/proc/self/task", [&count](std::string const& thread) {
        std::ifstream children("/proc/self/task/" + thread + "/children");
        for (std::string child; children >> child;) {
            ++count;
        }
        return true;
    });
    return count;
}

unsigned long long countSharedObjects() {
    std::string const name = makeName("");
    auto const is_own = [&name](std::string const& text) { return text.find(name) != std::string::npos; };
    return countEntries("/dev/shm", is_own) + countEntries("/dev/mqueue", is_own) +
        countLines("/proc/self/maps", is_own);
}

unsigned long long getHeapBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    malloc_trim(0);
    return mallinfo2().uordblks;
#endif
}

unsigned long long getResidentBytes() {
    unsigned long long total = 0;
    unsigned long long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers keep freed blocks and the history of memory.
constexpr unsigned long long RESIDENT_SLACK = 256 << 20;
#else
constexpr unsigned long long RESIDENT_SLACK = 4 << 20;
#endif
constexpr unsigned long long HEAP_SLACK = 64 << 10;

} // namespace

int countThreads() {
    return static_cast<int>(countEntries("/proc/self/task"));
}

Usage Usage::measure(int expected_threads) {
    for (int round = 0; round < 10000 && expected_threads > 0 && countThreads() > expected_threads; ++round) {
        timespec const pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    auto const is_timer = [](std::string const& line) { return line.compare(0, 3, "ID:") == 0; };
    return Usage{{{
        {"threads", static_cast<unsigned long long>(countThreads()), 0},
        {"descriptors", countEntries("/proc/self/fd"), 0},
        {"children", countChildren(), 0},
        {"kernel timers", countLines("/proc/self/timers", is_timer), 0},
        {"shared objects", countSharedObjects(), 0},
        {"heap bytes", getHeapBytes(), HEAP_SLACK},
        {"resident bytes", getResidentBytes(), RESIDENT_SLACK},
    }}};
}

bool hasGrown(Usage const& before, Usage const& after) {
    bool grown = false;
    printf("\n%-16s %12s %12s\n", "", "before", "after");
    for (size_t i = 0; i < before.rows.size(); ++i) {
        Usage::Row const& row = before.rows[i];
        bool const more = after.rows[i].amount > row.amount + row.slack;
        grown |= more;
        printf("%-16s %12llu %12llu%s\n", row.name, row.amount, after.rows[i].amount, more ? "   GROWN" : "");
    }
    return grown;
}

} // namespace soak
