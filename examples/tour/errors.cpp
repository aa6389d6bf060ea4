#include "Tour.h"

#include <vesk/FileAccessError.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

#include <cerrno>
#include <fcntl.h>
#include <iterator>

namespace tour {

namespace {

constexpr char const* SOURCE = "examples/tour/errors";

constexpr std::ErrorID ROWS[] = {
    {0, "Reading the settings of '%s' failed", 1},
    {1, "Device %d stays off: no settings", 1},
};
TARN_CONSTANT_INIT std::ErrorType const DeviceError(ROWS, std::size(ROWS));

bool readSettings(char const* path) {
    int const fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        vesk::handleOpenError(errno, path);
        std::ErrorOutput(SOURCE, __LINE__, false)(DeviceError, 0, "radio");
    }
    return fd < 0;
}

bool switchOn(int device) {
    if (readSettings("/var/lib/no-such-folder/radio.conf")) {
        std::ErrorOutput(SOURCE, __LINE__, false)(DeviceError, 1, device);
        return true;
    }
    return false;
}

} // namespace

void errors() {
    section("Errors: one real failure, reported by each level that it passed");
    if (failed(!switchOn(7), "switching on without settings fails")) {
        return;
    }
    tell("%s", tarn_error.getReasonList().c_str());
    tell(
        "does the head belong to the device's family? %s, its id is %d",
        std::ErrorStorage::isA(DeviceError) ? "yes" : "no", std::ErrorStorage::id());
    std::ErrorStorage::ack();
    tell("acknowledged; pending now: %s", std::ErrorStorage::isError(false) ? "yes" : "no");
}

} // namespace tour
