#pragma once

#include <cstddef>

/// One round of using the libraries, for what happens around that: the end of the process, unloading. Shared by the programs
/// of two tests; no test itself.
namespace uses {

struct Use {
    char const* name;
    void (*round)();
};

extern Use const USES[];
extern size_t const COUNT;

/// Begins the names of the objects of the system that rounds make, and the default configuration directory.
void setUp(char const* prefix);

/// Removes what a round that was not finished has left in the system.
void removeNames();

} // namespace uses
