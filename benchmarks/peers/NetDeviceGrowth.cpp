#include "../NetDeviceBenchmark.cpp"

#include <climits>

namespace {

/// Returns the name of the network namespace of a process.
std::string readNamespace(std::string const& process) {
    char name[PATH_MAX];
    ssize_t const length = readlink(("/proc/" + process + "/ns/net").c_str(), name, sizeof name);
    return length < 0 ? std::string() : std::string(name, static_cast<size_t>(length));
}

int countInterfaces() {
    struct if_nameindex* const list = if_nameindex();
    check(list == nullptr);
    int count = 0;
    while (list[count].if_index != 0) {
        ++count;
    }
    if_freenameindex(list);
    return count;
}

/// Adds pairs of interfaces until there are `count`, which is odd because of the loopback. Returns the reason if that is impossible.
char const* reach(int count) {
    if (readNamespace("self") == readNamespace(std::to_string(getppid()))) {
        return "needs the privilege to create a network namespace";
    }
    int const missing = count - countInterfaces();
    if (missing > 0) {
        FILE* const batch = popen("ip -batch - >/dev/null 2>&1", "w");
        check(batch == nullptr);
        static int s_next = 0;
        for (int i = 0; i < missing / 2; ++i, ++s_next) {
            fprintf(batch, "link add name a%d type veth peer name b%d\n", s_next, s_next);
        }
        pclose(batch);
    }
    return countInterfaces() == count ? nullptr : "needs the privilege to add interfaces of type veth";
}

using Walk = void (*)(benchmark::State&);

void registerRow(char const* side, Walk walk, int count) {
    std::string const name = std::string("Growth: walk over all interfaces, by interfaces/") + side;
    benchmark::RegisterBenchmark(name.c_str(), [walk](benchmark::State& state) {
        if (char const* const reason = reach(static_cast<int>(state.range(0)))) {
            state.SkipWithError(reason);
            return;
        }
        walk(state);
    })->Arg(count);
}

/// In the order of the numbers, because interfaces are only added.
bool const s_registered = [] {
    for (int const count : {3, 11, 101, 1001, 5001}) {
        registerRow("vesk", veskWalk, count);
        registerRow("bare", bareWalk, count);
    }
    return true;
}();

} // namespace
