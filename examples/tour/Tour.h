#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace tour {

/// Prints the title of a section.
void section(char const* title);

/// Prints one indented line about what was done or measured, in the style of printf.
void tell(char const* format, ...) __attribute__((format(printf, 1, 2)));

/// Checks the result of an operation that returns true on failure. On failure prints the pending error chain,
/// acknowledges it, and records that the tour has failed. Returns the result.
bool failed(bool result, char const* what);

/// Returns whether any operation has failed so far.
bool hasFailed();

/// Runs `play` in another process and `with` in this one at the same time. Returns true if either fails.
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

// Each subsystem is shown by the file of its name.
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
