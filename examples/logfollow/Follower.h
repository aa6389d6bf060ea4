#pragma once

#include "Config.h"
#include "State.h"
#include "Tail.h"

#include <map>
#include <memory>
#include <string>

namespace logfollow {

/// All files that are followed. It does not wait for anything: the caller says when to look.
class Follower {
public:
    Follower(std::string config_path, std::string state_path);

    /// Reads configuration and state, and finds the files of the state, whatever their names are now. Returns true on
    /// failure.
    [[nodiscard]] bool start();
    /// Reads the configuration again. If the file has a mistake, nothing changes.
    void reload();

    /// Looks for files that are new or were replaced.
    void look();
    /// Prints the new lines of all files. Returns whether there may be more to read at once.
    bool read();
    /// Writes the state if it has changed. What was printed after that is printed again after a crash.
    void save();

    std::vector<std::string> const& folders() const { return m_config->folders; }

private:
    /// A file name, with the file that has it, and the file that had it before. That one is read on: its writer may
    /// not have noticed the rotation.
    struct Log {
        Tail previous;
        Tail current;
    };

    [[nodiscard]] bool readConfig();
    void restore(Record const& record);
    void lookAt(std::string const& path, vesk::FileInfo const& info);
    bool read(std::string const& path, Tail& tail);

    std::string m_config_path;
    std::string m_state_path;
    std::unique_ptr<Config const> m_config;
    std::map<std::string, Log> m_logs;
    bool m_has_changed = false;
    bool m_is_reported = false; ///< Whether it was told that the state cannot be written.
};

} // namespace logfollow
