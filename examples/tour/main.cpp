#include "Tour.h"

#include <cstdio>

int main() {
    tour::startup();
    tour::time();
    tour::locks();
    tour::ownership();
    tour::threads();
    tour::events();
    tour::timers();
    tour::files();
    tour::ipc();
    tour::processes();
    tour::sockets();
    tour::devices();
    tour::network();
    tour::discovery();
    tour::errors();
    printf("\nThe tour %s.\n", tour::hasFailed() ? "FAILED" : "is complete");
    return tour::hasFailed() ? 1 : 0;
}
