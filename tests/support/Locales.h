#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <optional>
#include <string>

namespace support {

/// Sets the locale of the process during its lifetime. "C" is part of libc, and "C.UTF-8" comes with it.
class ScopedLocale : tarnbase::NonCopyable {
public:
    explicit ScopedLocale(char const* name)
        : m_previous(setlocale(LC_CTYPE, nullptr)), m_set(setlocale(LC_CTYPE, name) != nullptr) {}
    ~ScopedLocale() { setlocale(LC_CTYPE, m_previous.c_str()); }

    /// Returns whether the system has the locale.
    bool isSet() const { return m_set; }

private:
    std::string m_previous;
    bool m_set;
};

/// A locale with the encoding ISO-8859-1, under the name "latin1". During its lifetime libc searches for locales in
/// its folder only.
class Latin1 : tarnbase::NonCopyable {
public:
    /// @param place  an empty folder that outlives the locale
    explicit Latin1(std::string const& place) {
        {
            std::ofstream map(place + "/map");
            map << "<code_set_name> ISO-8859-1\n<mb_cur_min> 1\n<mb_cur_max> 1\n<escape_char> /\n"
                   "<comment_char> %\nCHARMAP\n"
                << std::hex << std::setfill('0');
            for (int i = 0; i < 256; ++i) {
                map << "<U00" << std::uppercase << std::setw(2) << i << "> /x" << std::nouppercase
                    << std::setw(2) << i << " CHARACTER\n";
            }
            map << "END CHARMAP\n";
            std::ofstream source(place + "/source");
            source << "escape_char /\ncomment_char %\nLC_CTYPE\nEND LC_CTYPE\n";
        }
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        std::string const order = "--big-endian";
#else
        std::string const order = "--little-endian";
#endif
        // The command also fails because of the categories that the source omits.
        std::string const build =
            "localedef " + order + " -c -i " + place + "/source -f " + place + "/map " + place + "/latin1";
        (void)!system((build + " >/dev/null 2>&1").c_str());
        if (char const* const path = getenv("LOCPATH")) {
            m_previous = path;
        }
        setenv("LOCPATH", place.c_str(), 1);
#ifdef __i386__
        // The folder of Debian for the modules of 32-bit programs on a 64-bit machine.
        setenv("GCONV_PATH", "/usr/lib32/gconv", 0);
#endif
        ScopedLocale const locale("latin1");
        m_is_built = locale.isSet() && btowc(0xE4) == 0xE4;
    }
    ~Latin1() {
        if (m_previous) {
            setenv("LOCPATH", m_previous->c_str(), 1);
        } else {
            unsetenv("LOCPATH");
        }
    }

    /// Returns false without `localedef`, or without the module of libc for the encoding.
    bool isBuilt() const {
        return m_is_built;
    }

private:
    std::optional<std::string> m_previous;
    bool m_is_built = false;
};

} // namespace support
