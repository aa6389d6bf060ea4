#include "Tour.h"

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <cstdarg>
#include <cstdio>

namespace tour {

namespace {

bool s_failed = false;

} // namespace

void section(char const* title) {
    printf("\n%s\n", title);
    fflush(stdout); // Children of the tour inherit the buffer.
}

void tell(char const* format, ...) {
    printf("  ");
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    printf("\n");
    fflush(stdout);
}

bool failed(bool result, char const* what) {
    if (result) {
        tell("FAILED: %s\n%s", what, tarn_error.getReasonList().c_str());
        std::ErrorStorage::ack();
        s_failed = true;
    }
    return result;
}

bool hasFailed() {
    return s_failed;
}

} // namespace tour
