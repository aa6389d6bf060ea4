#pragma once

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace support {

/// A new folder that is the working directory during its lifetime. The destructor removes it with its
/// content.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        char previous[PATH_MAX];
        m_previous = getcwd(previous, sizeof previous) != nullptr ? previous : "/";
        std::string name = (std::filesystem::temp_directory_path() / "vesk-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr || chdir(name.c_str()) != 0) {
            abort();
        }
        m_path = std::filesystem::canonical(name).string();
    }
    ~TemporaryDirectory() {
        if (chdir(m_previous.c_str()) != 0) {
            abort();
        }
        std::filesystem::remove_all(m_path);
    }

    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    /// Absolute and without symbolic links.
    std::string const& get() const { return m_path; }

private:
    std::string m_previous;
    std::string m_path;
};

} // namespace support
