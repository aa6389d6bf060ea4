#pragma once

#include <vesk/Export.h>
#include <vesk/StreamBinFileW.h>

namespace vesk {

/// The standard error of the process, written as a stream in blocking mode and without a buffer.
///
/// Descriptors 0, 1 and 2 belong to the process: the object never closes them. It closes a file that was
/// opened through it as a `StreamBinFileW` does.
class VESK_API StderrBinFile : public StreamBinFileW {
public:
    /// Creates the stream. The argument has no effect, because the stream is unbuffered; it exists for
    /// uniformity with the other stream files.
    explicit StderrBinFile(unsigned int buffer_size = 0);

    /// Closes the file unless it is a standard channel.
    ~StderrBinFile() override;

    /// Closes the file. A standard channel is only released, not closed. The object is invalid afterwards.
    /// @return true if a file could not be closed, after the reports of `StreamBinFileW`
    [[nodiscard]] bool close() override;
};

} // namespace vesk
