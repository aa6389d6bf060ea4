#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace support {

/// A temporary folder of the test, removed with its content by the destructor. It is readable by every user,
/// so that a child that has dropped its privileges reaches the entries to which access must be refused.
///
/// It is in memory: a 32-bit program under user-mode QEMU cannot list a folder on most disk file systems,
/// because their directory positions exceed 32 bits.
class TempFolder : tarnbase::NonCopyable {
public:
    /// Returns the folder in memory in which temporary folders are created.
    static std::string getParent() {
        std::string const memory = "/dev/shm";
        std::error_code error;
        return std::filesystem::is_directory(memory, error) ? memory : testing::TempDir();
    }

    /// @param parent  the folder in which it is created; by default one in memory
    explicit TempFolder(std::string const& parent = getParent()) : m_path(parent + "/vesk-test-XXXXXX") {
        EXPECT_NE(nullptr, mkdtemp(m_path.data())) << m_path;
        EXPECT_EQ(0, chmod(m_path.c_str(), 0755));
    }
    ~TempFolder() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
        EXPECT_FALSE(error) << m_path << ": " << error.message();
    }

    std::string const& getPath() const { return m_path; }

    /// Returns the path of an entry, which need not exist.
    std::string operator/(std::string const& name) const { return m_path + "/" + name; }

    /// Creates a file, or replaces the content of an existing one. Returns its path.
    std::string
    makeFile(std::string const& name, std::string const& content = "", mode_t access = 0644) const {
        std::ofstream file(*this / name, std::ios::binary | std::ios::trunc);
        EXPECT_TRUE(file << content << std::flush) << name;
        EXPECT_EQ(0, chmod((*this / name).c_str(), access)) << name;
        return *this / name;
    }

    /// Creates a folder. Returns its path.
    std::string makeFolder(std::string const& name, mode_t access = 0755) const {
        EXPECT_TRUE(std::filesystem::create_directory(*this / name)) << name;
        EXPECT_EQ(0, chmod((*this / name).c_str(), access)) << name;
        return *this / name;
    }

    /// Creates a symbolic link. Returns its path.
    std::string makeLink(std::string const& name, std::string const& target) const {
        std::error_code error;
        std::filesystem::create_symlink(target, *this / name, error);
        EXPECT_FALSE(error) << name << ": " << error.message();
        return *this / name;
    }

private:
    std::string m_path;
};

/// A temporary folder that is the working directory of the process until the destructor restores the previous
/// one.
class WorkingFolder : public TempFolder {
public:
    WorkingFolder() : m_previous(std::filesystem::current_path()) {
        std::filesystem::current_path(getPath());
    }
    ~WorkingFolder() { std::filesystem::current_path(m_previous); }

    /// Returns the absolute path of the folder without symbolic links.
    std::string getCanonicalPath() const { return std::filesystem::canonical(getPath()); }

private:
    std::filesystem::path m_previous;
};

/// A file that a replaced function opens instead of another one. Its path is in `path` during its lifetime.
class FileInstead : tarnbase::NonCopyable {
public:
    FileInstead(char const*& path, std::string const& content)
        : m_file(m_folder.makeFile("file", content)), m_path(path) {
        m_path = m_file.c_str();
    }
    ~FileInstead() { m_path = nullptr; }

    std::string const& getFolder() const { return m_folder.getPath(); }

private:
    TempFolder m_folder;
    std::string m_file;
    char const*& m_path;
};

/// Returns the content of a file, or "(none)" if it cannot be read.
inline std::string contentOf(std::string const& path) {
    std::ifstream const file(path, std::ios::binary);
    if (!file) {
        return "(none)";
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

} // namespace support
