#pragma once

#include <vesk/Regex.h>

#include <list>
#include <string>
#include <vector>

namespace logfollow {

/// A rule of the configuration: what to print of which lines.
struct Rule {
    std::string name;
    vesk::Regex form;
};

/// What the configuration file says.
struct Config {
    std::vector<std::string> folders;
    vesk::Regex files;     ///< The names of the files to follow.
    std::list<Rule> rules; ///< A list: an expression cannot be moved.

    /// Returns "NAME TEXT" of the first rule that a line obeys, empty if there is none. The text is the first part of
    /// the expression in parentheses, or the whole line.
    std::string apply(std::string const& line) const;
};

/// Reads a configuration file; see README.md for its form.
/// @param config   new; incomplete after a failure
/// @param problem  why it failed, with the line
/// @return true on failure
[[nodiscard]] bool readConfig(std::string const& path, Config& config, std::string& problem);

} // namespace logfollow
