#include <vesk/Vesk.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

namespace {

/// The path of the library in use; empty if there is none.
std::string findLibrary() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/libvesk.so") != std::string::npos) {
            return line.substr(line.find('/'));
        }
    }
    return {};
}

/// Lines of a log are looked up in the sources by pieces of them: what the library puts together at run time stands there
/// in pieces that a search finds.
class LogTexts : public testing::TestWithParam<char const*> {};

TEST_P(LogTexts, standInTheLibraryInOnePiece) {
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
