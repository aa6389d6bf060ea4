#pragma once

#include <cstddef>

/// One round of using the libraries, for tests of the end of the process and of unloading.
namespace uses {

struct Use {
    char const* name;
    void (*round)();
};

extern Use const USES[];
extern size_t const COUNT;

/// Sets the prefix of the names of system objects, and the default configuration directory.
void setUp(char const* prefix);

/// Removes the system objects of an unfinished round.
void removeNames();

} // namespace uses
