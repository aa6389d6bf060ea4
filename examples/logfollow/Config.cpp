#include "Config.h"

#include "ReadAll.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <sstream>

namespace logfollow {

namespace {

/// Returns true on failure, with the reason in `problem`.
bool compile(vesk::Regex& form, std::string const& text, std::string& problem) {
    bool const failed = form.compile(text.c_str(), vesk::Regex::SUB_MATCHES) != 0;
    if (failed) {
        problem = tarn_error.getReasonList();
        std::ErrorStorage::ack();
    }
    return failed;
}

/// Adds the place to a problem. Returns true.
bool failAt(std::string const& path, unsigned int number, std::string const& line, std::string& problem) {
    problem = path + ":" + std::to_string(number) + ": " + line + ": " + problem;
    return true;
}

bool parseLine(std::string const& line, Config& config, std::string& problem) {
    size_t const blank = line.find(' ');
    if (line.empty() || line[0] == '#') {
        return false;
    }
    if (blank == std::string::npos) {
        problem = "two words are needed";
        return true;
    }
    std::string const key = line.substr(0, blank);
    std::string const value = line.substr(blank + 1);
    if (key == "folder") {
        config.folders.push_back(value);
        return false;
    }
    if (key == "files") {
        return compile(config.files, value, problem);
    }
    Rule& rule = config.rules.emplace_back();
    rule.name = key;
    return compile(rule.form, value, problem);
}

} // namespace

bool readConfig(std::string const& path, Config& config, std::string& problem) {
    std::string text;
    if (examples::readAll(path, text, problem)) {
        return true;
    }
    std::istringstream lines(text);
    unsigned int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (parseLine(line, config, problem)) {
            return failAt(path, number, line, problem);
        }
    }
    if (config.folders.empty() || !config.files.isValid()) {
        problem = path + ": \"folder\" or \"files\" is missing";
        return true;
    }
    return false;
}

std::string Config::apply(std::string const& line) const {
    for (Rule const& rule : rules) {
        vesk::Regex::SubMatch parts[2];
        if (rule.form.match(line.c_str(), parts) == 0) {
            return rule.name + ' ' + (parts[1].isSet() ? std::string(parts[1].in(line.c_str())) : line);
        }
    }
    return "";
}

} // namespace logfollow
