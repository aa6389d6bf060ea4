#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace tour {

/// Prints the title of what comes next.
void section(char const* title);

/// Prints one line of what was done or measured, printf-style and indented.
void tell(char const* format, ...) __attribute__((format(printf, 1, 2)));

/// Looks at the result of an operation that is true on failure: tells the pending error chain, acknowledges it, and
/// remembers that the tour failed. Gives the result back.
bool failed(bool result, char const* what);

/// Whether anything failed so far.
bool hasFailed();

/// Runs `play` in another process at the same time as `with` in this one. True if either fails.
template <typename Play, typename With>
bool withOtherProcess(Play const& play, With const& with) {
    pid_t const other = fork();
    if (other == 0) {
        _exit(play() ? 1 : 0);
    }
    bool const mine_failed = with();
    int status = 0;
    return waitpid(other, &status, 0) != other || status != 0 || mine_failed;
}

// The subsystems, each in the file of its name.
void startup();
void time();
void locks();
void ownership();
void threads();
void events();
void timers();
void files();
void ipc();
void processes();
void sockets();
void devices();
void network();
void discovery();
void errors();

} // namespace tour
