#pragma once

#include "Files.h"

#include <string>
#include <vector>

namespace logfollow {

/// How far a file was read.
struct Record {
    FileId id;
    long long position;
    std::string path; ///< The name under which it was followed; it may have another one meanwhile.
};

using State = std::vector<Record>;

/// Reads a state file. A file that is not there is an empty state. Returns true on failure.
[[nodiscard]] bool readState(std::string const& path, State& state, std::string& problem);

/// Writes a state file. Whatever happens meanwhile, a power failure included, the file has either the old content or
/// the new one. Returns true on failure.
[[nodiscard]] bool writeState(std::string const& path, State const& state, std::string& problem);

} // namespace logfollow
