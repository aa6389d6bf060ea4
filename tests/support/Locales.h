#pragma once

#include <tarncommon/tarnbase/NonCopyable.h>

#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <string>

namespace support {

/// Sets the locale of the process during its lifetime. "C" and "C.UTF-8" are part of libc and need no files.
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

/// Builds a locale with the encoding ISO-8859-1 in the folder `place`, under the name "latin1", and makes
/// libc search there. Returns false without `localedef`, or without the module of libc for the encoding.
inline bool buildLatin1(std::string const& place) {
    {
        std::ofstream map(place + "/map");
        map << "<code_set_name> ISO-8859-1\n<mb_cur_min> 1\n<mb_cur_max> 1\n<escape_char> /\n"
               "<comment_char> %\nCHARMAP\n"
            << std::hex << std::setfill('0');
        for (int i = 0; i < 256; ++i) {
            map << "<U00" << std::uppercase << std::setw(2) << i << "> /x" << std::nouppercase << std::setw(2)
                << i << " CHARACTER\n";
        }
        map << "END CHARMAP\n";
        std::ofstream source(place + "/source");
        source << "escape_char /\ncomment_char %\nLC_CTYPE\nEND LC_CTYPE\n";
    }
    // The command also fails because of the categories that the source omits.
    std::string const build =
        "localedef -c -i " + place + "/source -f " + place + "/map " + place + "/latin1";
    (void)!system((build + " >/dev/null 2>&1").c_str());
    setenv("LOCPATH", place.c_str(), 1);
#ifdef __i386__
    // The folder of Debian for the modules of 32-bit programs on a 64-bit machine.
    setenv("GCONV_PATH", "/usr/lib32/gconv", 0);
#endif
    ScopedLocale const locale("latin1");
    return locale.isSet() && btowc(0xE4) == 0xE4;
}

} // namespace support
