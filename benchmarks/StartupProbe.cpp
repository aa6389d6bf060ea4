// Loads a library, initializes it, and prints how many nanoseconds each step took. The program is linked against
// neither library, so that nothing of them is loaded before. It is linked against the C++ library, because the time
// to load that is not measured. With "bare" it makes the system calls of the initialization directly.
//
//     startup_probe LIBRARY [bare]

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

long long now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

int fail() {
    char const* const reason = dlerror();
    fputs((std::string("startup_probe: ") + (reason != nullptr ? reason : "failed") + "\n").c_str(), stderr);
    return 1;
}

bool startBare() {
    // The library asks for these while it is loaded.
    if (sysconf(_SC_PAGESIZE) < 0 || sysconf(_SC_NPROCESSORS_ONLN) < 0) {
        return true;
    }
    setlocale(LC_ALL, "");
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0) {
        return true;
    }
    if (action.sa_handler == SIG_DFL) {
        action.sa_handler = SIG_IGN;
        sigfillset(&action.sa_mask);
        if (sigaction(SIGPIPE, &action, nullptr) != 0) {
            return true;
        }
    }
    tzset();
    timespec time{};
    if (clock_gettime(CLOCK_MONOTONIC, &time) != 0 || clock_gettime(CLOCK_REALTIME, &time) != 0) {
        return true;
    }
    srand(static_cast<unsigned int>(time.tv_sec * 1000LL + time.tv_nsec / 1000000));
    int policy = 0;
    sched_param param{};
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0) {
        return true;
    }
    errno = 0;
    return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid))) == -1 && errno != 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fputs("usage: startup_probe LIBRARY [bare]\n", stderr);
        return 2;
    }
    long long const start = now();
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    long long const loaded = now();
    if (library == nullptr) {
        return fail();
    }
    if (argc > 2) {
        if (startBare()) {
            return fail();
        }
        printf("%lld %lld\n", loaded - start, now() - loaded);
        return 0;
    }
    // The mangled name of the constructor of vesk::Vesk.
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
