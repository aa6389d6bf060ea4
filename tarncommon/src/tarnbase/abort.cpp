#include <tarncommon/tarnbase/abort.h>

#include "TextWriter.h"

#include <csignal>
#include <cstdarg>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarnbase {

void abort(char const* file, int line, char const* function, char const* format, ...) {
    char text[1024];
    detail::TextWriter writer(text, sizeof text - 1);
    writer.putPlace(file, line, function);
    writer.put("fatal: ");
    va_list args;
    va_start(args, format);
    writer.putFormatted(format, args);
    va_end(args);
    size_t const length = writer.finish();
    text[length] = '\n';
    detail::writeAll(STDERR_FILENO, text, length + 1);

    // Not abort() of the C library, because it takes a lock that the code interrupted by a signal handler may
    // hold.
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(SIGABRT, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGABRT);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), SIGABRT);
    _exit(127);
}

} // namespace tarnbase
