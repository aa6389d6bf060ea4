#pragma once

#include "Parser.h"

#include <map>
#include <string>

namespace sensor {

/// What the sensors have measured since the last summary.
class Statistics {
public:
    void add(Reading const& reading);
    void addBadLines(unsigned int count) { m_bad_lines += count; }
    /// Returns one line for each sensor, and begins again.
    std::string takeSummary();

private:
    struct Entry {
        unsigned int count = 0;
        double min = 0;
        double max = 0;
        double sum = 0;
    };

    std::map<std::string, Entry> m_entries;
    unsigned int m_bad_lines = 0;
};

} // namespace sensor
