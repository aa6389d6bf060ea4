#include <vesk/PathParts.h>
#include <vesk/Vesk.h>

#include <tarncommon/unicode/String.h>

#include <iostream>

int main() {
    vesk::Vesk const vesk(true, false);
    auto const name = std::unicode::String::fromUTF8("Zürich");
    unsigned int count = 0;
    for (unsigned int const code_point : name) {
        count += code_point != 0 ? 1 : 0;
    }
    vesk::PathParts const parts("/srv/maps/Zürich/");
    std::cout << parts.name << " in " << parts.directory << " has " << count << " characters\n";
}
