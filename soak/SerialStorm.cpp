#include "Storm.h"

#include <vesk/SerialPort.h>

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace soak {

namespace {

/// A serial line over a pseudo-terminal, which hangs up while the port is open.
class SerialStorm : public Storm {
public:
    SerialStorm() : Storm("serial line") {}

    void work() override {
        int const far_end = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char path[64] = "";
        if (check(
                far_end == -1 || grantpt(far_end) != 0 || unlockpt(far_end) != 0 ||
                    ptsname_r(far_end, path, sizeof path) != 0,
                "making a pseudo-terminal")) {
            return;
        }
        vesk::SerialPort port(
            path, oneIn(2) ? 9600 : 115200, vesk::SerialPort::Parity::NONE, 1, false, false, true);
        if (check(port.open(), "opening")) {
            close(far_end);
            return;
        }
        for (unsigned int left = random(30); left > 0; --left) {
            sendBothWays(port, far_end);
        }
        close(far_end);
        char byte = 0;
        unsigned int size = 0;
        check(port.read(&byte, 1, size) == 1, "reading after the hang-up succeeds");
        countProvoked();
        check(port.write("x", 1, size) == 1 && !port.flush(false), "writing after the hang-up succeeds");
        countProvoked();
        port.close();
        countProvoked();
    }

private:
    void sendBothWays(vesk::SerialPort& port, int far_end) {
        std::string const text(1 + random(200), static_cast<char>('a' + random(26)));
        std::string got(text.size(), '\0');
        auto const wanted = static_cast<unsigned int>(text.size());
        check(write(far_end, text.data(), text.size()) != static_cast<ssize_t>(text.size()), "sending");
        unsigned int size = 0;
        for (unsigned int at = 0; at < wanted; at += size) {
            if (check(port.read(&got[at], wanted - at, size) != 1, "reading")) {
                return;
            }
        }
        check(got != text, "what was received");
        check(port.write(text.data(), wanted, size) != 1 || size != wanted || port.flush(false), "writing");
        for (size_t at = 0; at < text.size();) {
            ssize_t const part = read(far_end, &got[at], text.size() - at);
            if (check(part <= 0, "receiving")) {
                return;
            }
            at += static_cast<size_t>(part);
        }
        check(got != text, "what was sent");
    }
};

} // namespace

std::unique_ptr<Storm> makeSerialStorm() {
    return std::make_unique<SerialStorm>();
}

} // namespace soak
