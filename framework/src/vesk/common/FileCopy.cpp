#include "FileCopy.h"

#include "Report.h"

#include <vesk/StreamBinFileR.h>
#include <vesk/StreamBinFileW.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <memory>
#include <new>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/common/FileSys";

bool isEndOfStream() noexcept {
    return std::ErrorStorage::is(std::IBinStreamBase::StreamErrorId::END_OF_STREAM);
}

/// Copies the rest of the source. Returns true on failure, after a report.
bool copyBytes(StreamBinFileR& source, StreamBinFileW& destination, void* buffer, unsigned int buffer_size) {
    unsigned int read_bytes = 0;
    do {
        if (source.read(buffer, buffer_size, read_bytes) != 1) {
            if (!isEndOfStream()) {
                return true;
            }
            std::ErrorStorage::ack();
            read_bytes = 0;
        }
        if (read_bytes != 0) {
            unsigned int written_bytes = 0;
            if (destination.write(buffer, read_bytes, written_bytes) != 1) {
                return true;
            }
            if (written_bytes != read_bytes) {
                std::GlobalErrorHandler::doAssert(
                    false, "written_bytes == read_bytes", SOURCE, __LINE__, "copy", nullptr);
            }
        }
    } while (read_bytes != 0);
    return false;
}

/// Closes both files; the destination only after the source was closed successfully. Returns true on failure,
/// after a report.
bool closeBoth(StreamBinFileR& source, StreamBinFileW& destination) {
    if (source.BinFileBase::close()) {
        return true;
    }
    if (!destination.isValid()) {
        return false; // LCOV_EXCL_LINE: the copy does not begin without a destination
    }
    bool const flush_failed = destination.flush(false);
    return destination.BinFileBase::close() || flush_failed;
}

} // namespace

bool detail::copyFile(
    UnicodeString const& source, UnicodeString const& destination, unsigned int buffer_size, void* buffer) {
    if (buffer_size == 0) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "zero bufsize given");
        return true;
    }
    std::unique_ptr<unsigned char[]> own_buffer;
    if (buffer == nullptr) {
        own_buffer.reset(new (std::nothrow) unsigned char[buffer_size]);
        if (own_buffer == nullptr) {
            report(SOURCE, Chain::NEW, std::CommonErrorId::OUT_OF_MEMORY);
            return true;
        }
        buffer = own_buffer.get();
    }

    StreamBinFileR source_file(0);
    static_cast<void>(source_file.open(source, BinFileBase::READ));
    // Checks the file instead of the result of `open`, which succeeds for an empty path.
    if (!source_file.isValid()) {
        return true;
    }
    StreamBinFileW destination_file(0);
    static_cast<void>(destination_file.open(
        destination, BinFileBase::WRITE | BinFileBase::CREATE | BinFileBase::EXCLUSIVE));
    if (!destination_file.isValid()) {
        return true;
    }

    if (copyBytes(source_file, destination_file, buffer, buffer_size)) {
        return true;
    }
    // A failure must not go unnoticed: the caller relies on the copy and may remove the source next.
    if (closeBoth(source_file, destination_file)) {
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "copy", "Error closing src/dst file(s)");
    }
    return false;
}

} // namespace vesk
