#include <vesk/Regex.h>
#include <vesk/User.h>
#include <vesk/Vesk.h>

#include <iostream>

int main() {
    vesk::Vesk const vesk(true, false);
    char const* const subject = "v4.17";
    vesk::Regex version;
    vesk::Regex::SubMatch parts[3];
    if (version.compile("^v([0-9]+)\\.([0-9]+)", vesk::Regex::SUB_MATCHES) != 0 ||
        version.match(subject, parts) != 0) {
        return 1;
    }
    std::cout << "major " << parts[1].in(subject) << ", minor " << parts[2].in(subject) << ", user "
              << vesk::User::id2name(0) << '\n';
}
