#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace support {

/// A folder of the test's own, which goes with everything in it. Others may look into it, so that a child that has given
/// up its rights finds what it is to be refused.
///
/// It lies in memory: a 32-bit program under user-mode QEMU cannot list a folder of most disk file systems, whose
/// positions are too large for it.
class TempFolder {
public:
    TempFolder() : m_path(getParent() + "/vesk-test-XXXXXX") {
        EXPECT_NE(nullptr, mkdtemp(m_path.data())) << m_path;
        EXPECT_EQ(0, chmod(m_path.c_str(), 0755));
    }
    ~TempFolder() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
        EXPECT_FALSE(error) << m_path << ": " << error.message();
    }

    TempFolder(TempFolder const&) = delete;
    TempFolder& operator=(TempFolder const&) = delete;

    std::string const& getPath() const { return m_path; }

    /// The path of an entry, existing or not.
    std::string operator/(std::string const& name) const { return m_path + "/" + name; }

    /// Makes a file, or empties and fills one, and gives its path.
    std::string makeFile(std::string const& name, std::string const& content = "") const {
        std::ofstream file(*this / name, std::ios::binary | std::ios::trunc);
        EXPECT_TRUE(file << content << std::flush) << name;
        return *this / name;
    }

    /// Makes a folder and gives its path.
    std::string makeFolder(std::string const& name) const {
        EXPECT_TRUE(std::filesystem::create_directory(*this / name)) << name;
        return *this / name;
    }

    /// Makes a symbolic link and gives its path.
    std::string makeLink(std::string const& name, std::string const& target) const {
        std::error_code error;
        std::filesystem::create_symlink(target, *this / name, error);
        EXPECT_FALSE(error) << name << ": " << error.message();
        return *this / name;
    }

private:
    static std::string getParent() {
        std::string const memory = "/dev/shm";
        std::error_code error;
        return std::filesystem::is_directory(memory, error) ? memory : testing::TempDir();
    }

    std::string m_path;
};

} // namespace support
