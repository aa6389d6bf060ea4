// Fuzzes access to the environment. The input is a name up to a null byte, then the rows of the environment,
// each up to a null byte. A row need not contain an equals sign.

#include "Check.h"

#include <vesk/Environment.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

/// Reference implementation: the first row that begins with the name and an equals sign decides.
std::string getVariable(std::string const& name, std::vector<std::string> const& rows) {
    for (std::string const& row : rows) {
        if (!name.empty() && row.compare(0, name.size() + 1, name + "=") == 0) {
            return row.substr(name.size() + 1);
        }
    }
    return "";
}

std::vector<std::string> split(std::string const& input) {
    std::vector<std::string> texts;
    for (size_t at = 0; at < input.size(); at += texts.back().size() + 1) {
        texts.emplace_back(input.c_str() + at);
    }
    return texts;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::vector<std::string> rows = split(std::string(reinterpret_cast<char const*>(data), size));
    if (rows.empty()) {
        return 0;
    }
    std::string const name = rows.front();
    rows.erase(rows.begin());
    std::vector<char*> pointers;
    pointers.reserve(rows.size() + 1);
    for (std::string& row : rows) {
        pointers.push_back(row.data());
    }
    pointers.push_back(nullptr);

    char** const original = environ;
    environ = pointers.data();
    vesk::Environment const environment;
    std::string const value = vesk::Environment::getVariable(name.c_str());
    environ = original;
    fuzz::check(
        std::equal(environment.begin(), environment.end(), pointers.begin(), pointers.end() - 1),
        "an object returns the rows in their order");
    fuzz::check(value == getVariable(name, rows), "the value is that of the reference");
    return 0;
}
