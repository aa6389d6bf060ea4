// Loads the library as a program's first use of it would, starts it up, and prints how many nanoseconds each took. It is
// linked against neither library, so nothing of them is there before.
//
//     bench_StartupProbe LIBVESK

#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <string>

namespace {

long long now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

int fail() {
    char const* const reason = dlerror();
    fputs(
        (std::string("bench_StartupProbe: ") + (reason != nullptr ? reason : "no library told") + "\n")
            .c_str(),
        stderr);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return fail();
    }
    long long const start = now();
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    long long const loaded = now();
    if (library == nullptr) {
        return fail();
    }
    // The constructor of vesk::Vesk, by its name in the C++ ABI.
    auto const construct =
        reinterpret_cast<void (*)(void*, bool, bool)>(dlsym(library, "_ZN4vesk4VeskC1Ebb"));
    if (construct == nullptr) {
        return fail();
    }
    alignas(16) unsigned char object[64];
    long long const found = now();
    construct(object, true, false);
    long long const started = now();
    printf("%lld %lld\n", loaded - start, started - found);
    return 0;
}
