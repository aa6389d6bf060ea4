#include "Statistics.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace sensor {

void Statistics::add(Reading const& reading) {
    Entry& entry = m_entries[reading.name];
    bool const is_first = entry.count == 0;
    entry.min = is_first ? reading.value : std::min(entry.min, reading.value);
    entry.max = is_first ? reading.value : std::max(entry.max, reading.value);
    entry.sum += reading.value;
    ++entry.count;
}

std::string Statistics::takeSummary() {
    std::ostringstream text;
    for (auto const& [name, entry] : std::exchange(m_entries, {})) {
        text << name << " count=" << entry.count << " min=" << entry.min << " max=" << entry.max
             << " mean=" << entry.sum / entry.count << '\n';
    }
    if (m_bad_lines != 0) {
        text << "bad lines=" << std::exchange(m_bad_lines, 0) << '\n';
    }
    return text.str();
}

} // namespace sensor
