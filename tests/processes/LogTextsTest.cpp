#include <vesk/Vesk.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

namespace {

/// Returns the path of the loaded library, or an empty text.
std::string findLibrary() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/libvesk.so") != std::string::npos) {
            return line.substr(line.find('/'));
        }
    }
    return {};
}

// Developers search the sources for pieces of a log line, so the library must contain them in one piece.
class LogTexts : public testing::TestWithParam<char const*> {};

TEST_P(LogTexts, areInTheLibraryInOnePiece) {
    vesk::Vesk::SystemInfo const needs_the_library;
    std::ifstream file(findLibrary(), std::ios::binary);
    ASSERT_TRUE(file.is_open()) << findLibrary();
    std::string const bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    EXPECT_NE(std::string::npos, bytes.find(std::string(GetParam()) + '\0')) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(
    All, LogTexts,
    testing::Values(
        "unknown policy (", "unknown thread priority (", " or ", "]: Couldn't open new ",
        "\". Reason: ", "]: Couldn't dup2 (", "! Reason: "));

} // namespace
