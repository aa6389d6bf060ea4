// Sets the clock of the target: set-clock SECONDS, since the epoch. A 32-bit kernel does not take a date beyond
// January 2038 from its hardware clock, and the C library has no call for it with a 32-bit `time_t`.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

int main(int argc, char** argv) {
    long long const time[2] = {argc == 2 ? strtoll(argv[1], nullptr, 10) : -1, 0};
    if (syscall(SYS_clock_settime64, CLOCK_REALTIME, time) != 0) {
        perror("set-clock");
        return 1;
    }
    return 0;
}
