// The program that the tests of child processes start. It needs only libc, so that it starts fast, and is
// built without a sanitizer.
//
//     process_probe exit CODE           ends with this code
//     process_probe die SIGNAL          ends by this signal
//     process_probe hold OUT FD         writes a byte to the descriptor OUT, then reads FD to its end
//     process_probe brood OUT FD        the same, also in a child: two bytes
//     process_probe stubborn OUT FD     the same as hold, but ignores SIGTERM
//     process_probe say TEXT TEXT       writes the texts to standard output and to standard error
//     process_probe copy                copies standard input to standard output
//     process_probe copyFrom FD         copies a descriptor to standard output
//     process_probe tell FILE [ANY...]  writes its properties to a file, see Sight in ProcessSupport.h

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

char** g_environment = nullptr;

void put(FILE* file, char const* key, char const* value) {
    fprintf(file, "%s %zu\n", key, strlen(value));
    fputs(value, file);
    fputc('\n', file);
}

void putNumber(FILE* file, char const* key, long value) {
    char text[32];
    snprintf(text, sizeof text, "%ld", value);
    put(file, key, text);
}

void putDescriptors(FILE* file) {
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return;
    }
    while (dirent const* const entry = readdir(directory)) {
        int const fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(directory) && fd != fileno(file)) {
            put(file, "fd", entry->d_name);
        }
    }
    closedir(directory);
}

int tell(int argc, char** argv) {
    FILE* const file = fopen(argv[2], "we");
    if (file == nullptr) {
        return 1;
    }
    for (int i = 3; i < argc; ++i) {
        put(file, "arg", argv[i]);
    }
    for (char** row = g_environment; *row != nullptr; ++row) {
        put(file, "env", *row);
    }
    putDescriptors(file);
    putNumber(file, "pid", getpid());
    putNumber(file, "group", getpgid(0));
    putNumber(file, "policy", sched_getscheduler(0));
    sched_param param{};
    sched_getparam(0, &param);
    putNumber(file, "priority", param.sched_priority);
    putNumber(file, "nice", getpriority(PRIO_PROCESS, 0));
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(static_cast<size_t>(i), &set)) {
            putNumber(file, "processor", i);
        }
    }
    sigset_t blocked;
    sigemptyset(&blocked);
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (int i = 1; i < NSIG; ++i) {
        if (sigismember(&blocked, i) == 1) {
            putNumber(file, "blocked", i);
        }
        struct sigaction action {};
        if (sigaction(i, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            putNumber(file, "ignored", i);
        }
    }
    return fclose(file) == 0 ? 0 : 1;
}

int hold(int /*argc*/, char** argv) {
    char byte = '.';
    if (write(atoi(argv[2]), &byte, 1) != 1) {
        return 1;
    }
    for (;;) {
        ssize_t const count = read(atoi(argv[3]), &byte, 1);
        if (count == 0) {
            return 0;
        }
        if (count < 0 && errno != EINTR) {
            return 2;
        }
    }
}

int copy(int fd) {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(fd, buffer, sizeof buffer)) > 0) {
        if (write(STDOUT_FILENO, buffer, static_cast<size_t>(count)) != count) {
            return 2;
        }
    }
    return count == 0 ? 0 : 1;
}

int say(int /*argc*/, char** argv) {
    return dprintf(STDOUT_FILENO, "%s", argv[2]) < 0 || dprintf(STDERR_FILENO, "%s", argv[3]) < 0 ? 1 : 0;
}

struct Mode {
    char const* name;
    int arguments;
    int (*run)(int argc, char** argv);
};

Mode const MODES[] = {
    {"exit", 1, [](int, char** argv) { return atoi(argv[2]); }},
    {"die", 1, [](int, char** argv) { return raise(atoi(argv[2])) == 0 ? 1 : 2; }},
    {"hold", 2, hold},
    {"stubborn", 2,
     [](int argc, char** argv) { return signal(SIGTERM, SIG_IGN) == SIG_ERR ? 1 : hold(argc, argv); }},
    {"brood", 2, [](int argc, char** argv) { return fork() < 0 ? 1 : hold(argc, argv); }},
    {"say", 2, say},
    {"copy", 0, [](int, char**) { return copy(STDIN_FILENO); }},
    {"copyFrom", 1, [](int, char** argv) { return copy(atoi(argv[2])); }},
    {"tell", 1, tell},
};

} // namespace

int main(int argc, char** argv, char** environment) {
    g_environment = environment;
    for (Mode const& mode : MODES) {
        if (argc >= 2 + mode.arguments && strcmp(argv[1], mode.name) == 0) {
            return mode.run(argc, argv);
        }
    }
    return 99;
}
