#include "Config.h"

#include "ReadAll.h"

#include <sstream>

namespace supervisor {

namespace {

std::string trim(std::string const& text) {
    size_t const begin = text.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Splits a command at blanks, except within single quotes.
std::vector<std::string> split(std::string const& text) {
    std::vector<std::string> words;
    bool quoted = false;
    bool in_word = false;
    for (char const c : text) {
        if (c == ' ' && !quoted) {
            in_word = false;
            continue;
        }
        if (!in_word) {
            words.emplace_back();
            in_word = true;
        }
        if (c == '\'') {
            quoted = !quoted;
        } else {
            words.back() += c;
        }
    }
    return words;
}

/// Stores a line "key = value". Returns true if there is no such key.
bool store(ServiceConfig& service, std::string const& key, std::string const& value) {
    size_t const equals = value.find('=');
    if (key == "run") {
        service.command = split(value);
    } else if (key == "log") {
        service.log = value;
    } else if (key == "group") {
        service.group = value;
    } else if (key == "folder") {
        service.folder = value;
    } else if (key == "env" && equals != std::string::npos) {
        service.env[value.substr(0, equals)] = value.substr(equals + 1);
    } else {
        return true;
    }
    return false;
}

bool parseLine(std::string const& line, Config& config, ServiceConfig*& service) {
    if (line.empty() || line[0] == '#') {
        return false;
    }
    if (line.front() == '[' && line.back() == ']' && line.size() > 2) {
        service = &config[line.substr(1, line.size() - 2)];
        return false;
    }
    size_t const equals = line.find('=');
    return equals == std::string::npos || service == nullptr ||
        store(*service, trim(line.substr(0, equals)), trim(line.substr(equals + 1)));
}

} // namespace

bool readConfig(std::string const& path, Config& config, std::string& problem) {
    std::string text;
    if (examples::readAll(path, text, problem)) {
        return true;
    }
    std::istringstream lines(text);
    ServiceConfig* service = nullptr;
    unsigned int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (parseLine(trim(line), config, service)) {
            problem = path + ":" + std::to_string(number) + ": " + line;
            return true;
        }
    }
    for (auto const& [name, entry] : config) {
        if (entry.command.empty()) {
            problem = path + ": [" + name + "] has no \"run\"";
            return true;
        }
    }
    return false;
}

} // namespace supervisor
