#pragma once

#include <map>
#include <string>
#include <vector>

namespace supervisor {

/// What the configuration file says about a service.
struct ServiceConfig {
    std::string group;
    std::string log; ///< Empty: the output of the supervisor.
    std::string folder;
    std::vector<std::string> command;
    std::map<std::string, std::string> env;

    friend bool operator==(ServiceConfig const& a, ServiceConfig const& b) {
        return a.group == b.group && a.log == b.log && a.folder == b.folder && a.command == b.command &&
            a.env == b.env;
    }
};

using Config = std::map<std::string, ServiceConfig>;

/// Reads a configuration file; see README.md for its form.
/// @param problem  why it failed, with the line
/// @return true on failure
[[nodiscard]] bool readConfig(std::string const& path, Config& config, std::string& problem);

} // namespace supervisor
