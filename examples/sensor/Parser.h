#pragma once

#include <vesk/Regex.h>

#include <string>
#include <string_view>

namespace sensor {

constexpr size_t LONGEST_NAME = 15;

/// What a valid line says: "NAME VALUE".
struct Reading {
    char name[LONGEST_NAME + 1];
    double value;
};

/// Makes readings of the bytes of a serial line, which come in pieces of any size.
class Parser {
public:
    Parser();
    /// Returns whether the parser can be used.
    bool isValid() const { return m_form.isValid(); }
    /// Forgets the line that has begun. The rest of it is dropped: it could look like another reading.
    void restart();
    /// Takes the next bytes, and calls `use(reading)` for each reading that is complete.
    template <typename Use>
    void take(std::string_view bytes, Use&& use) {
        for (char const byte : bytes) {
            Reading reading;
            if (take(byte, reading)) {
                use(reading);
            }
        }
    }
    /// Returns the number of bad lines since the last call.
    unsigned int takeBadLines();

private:
    bool take(char byte, Reading& reading);

    vesk::Regex m_form;
    std::string m_line;
    bool m_is_synchronized = false; ///< False until the first end of a line.
    unsigned int m_bad_lines = 0;
};

} // namespace sensor
