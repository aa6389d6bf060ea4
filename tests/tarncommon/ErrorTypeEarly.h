#pragma once

namespace early {

/// What reporting of families of other files, from an initialiser that runs before theirs could, has given.
struct Outcome {
    bool was_common;
    bool was_system;
    bool was_mutex_of_system;
    int id;
};

extern Outcome const outcome;

} // namespace early
