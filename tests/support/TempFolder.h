#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace support {

/// A folder of the test's own, with whatever it puts there, gone when the object goes. Everybody may enter it.
class TempFolder {
public:
    TempFolder() {
        char name[] = "/tmp/vesk-test-XXXXXX";
        if (mkdtemp(name) == nullptr || chmod(name, 0755) != 0) {
            perror("TempFolder");
            abort();
        }
        m_path = name;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    TempFolder(TempFolder const&) = delete;
    TempFolder& operator=(TempFolder const&) = delete;

    std::string const& getPath() const { return m_path; }

    /// The path of an entry.
    std::string operator/(std::string const& name) const { return m_path + "/" + name; }

    /// Makes a file and gives its path.
    std::string
    makeFile(std::string const& name, std::string const& content = {}, mode_t access = 0644) const {
        std::string path = *this / name;
        int const fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, access);
        if (fd == -1 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
            fchmod(fd, access) != 0 || close(fd) != 0) {
            perror(path.c_str());
            abort();
        }
        return path;
    }

    /// Makes a directory and gives its path.
    std::string makeDir(std::string const& name, mode_t access = 0755) const {
        std::string path = *this / name;
        if (mkdir(path.c_str(), access) != 0 || chmod(path.c_str(), access) != 0) {
            perror(path.c_str());
            abort();
        }
        return path;
    }

    /// Makes a symbolic link and gives its path.
    std::string makeLink(std::string const& target, std::string const& name) const {
        std::string path = *this / name;
        if (symlink(target.c_str(), path.c_str()) != 0) {
            perror(path.c_str());
            abort();
        }
        return path;
    }

private:
    std::string m_path;
};

/// What a file holds, "(none)" if it cannot be read.
inline std::string contentOf(std::string const& path) {
    int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return "(none)";
    }
    std::string content;
    char chunk[4096];
    for (ssize_t count = 0; (count = read(fd, chunk, sizeof chunk)) > 0;) {
        content.append(chunk, static_cast<size_t>(count));
    }
    close(fd);
    return content;
}

} // namespace support
