#pragma once

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
void devices();
void network();
void discovery();
void errors();

} // namespace tour
