#pragma once

namespace early {

/// The result of reports with families of other files, from an initializer that runs before theirs.
struct Outcome {
    bool was_common;
    bool was_system;
    bool was_mutex_of_system;
    int id;
};

extern Outcome const outcome;

} // namespace early
