#include "Parser.h"

#include <charconv>
#include <utility>

namespace sensor {

namespace {

constexpr size_t LONGEST_LINE = 80;
constexpr char const* FORM = "^([a-z][a-z0-9-]{0,14}) (-?[0-9]{1,9}(\\.[0-9]{1,9})?)$";

} // namespace

Parser::Parser() {
    static_cast<void>(m_form.compile(FORM, vesk::Regex::SUB_MATCHES));
}

void Parser::restart() {
    m_line.clear();
    m_is_synchronized = false;
}

unsigned int Parser::takeBadLines() {
    return std::exchange(m_bad_lines, 0);
}

bool Parser::take(char byte, Reading& reading) {
    if (byte != '\n') {
        // A longer line is bad, whatever follows: its bytes need no memory.
        if (byte != '\r' && m_line.size() <= LONGEST_LINE) {
            m_line += byte;
        }
        return false;
    }
    std::string const line = std::exchange(m_line, "");
    if (!std::exchange(m_is_synchronized, true) || line.empty()) {
        return false;
    }
    vesk::Regex::SubMatch parts[3];
    // A zero byte would end the subject early, and hide what follows.
    if (line.size() > LONGEST_LINE || line.find('\0') != std::string::npos ||
        m_form.match(line.c_str(), parts) != 0) {
        ++m_bad_lines;
        return false;
    }
    std::string_view const value = parts[2].in(line.c_str());
    reading = {};
    parts[1].in(line.c_str()).copy(reading.name, LONGEST_NAME);
    // Not strtod, which expects the decimal separator of the locale.
    std::from_chars(value.data(), value.data() + value.size(), reading.value);
    return true;
}

} // namespace sensor
