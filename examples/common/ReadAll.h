#pragma once

#include <vesk/StreamBinFileR.h>

#include <tarncommon/error/ErrorApi.h>
#include <tarncommon/error/ErrorStorage.h>

#include <string>

namespace examples {

/// Reads a file to its end. Returns true on failure, with the reason in `problem`.
inline bool readAll(std::string const& path, std::string& text, std::string& problem) {
    vesk::StreamBinFileR file(4096);
    char piece[4096];
    unsigned int count = 0;
    int result = file.open(path, file.READ) ? -1 : 1;
    while (result == 1) {
        result = file.read(piece, sizeof piece, count);
        text.append(piece, count);
    }
    if (result == -1) {
        problem = tarn_error.getReasonList();
    }
    std::ErrorStorage::ack(); // The end of the file is a report, too.
    return result == -1;
}

} // namespace examples
