#pragma once

#include <vesk/Export.h>
#include <vesk/FileBuffer.h>
#include <vesk/StreamBinFileR.h>
#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <istream>

namespace vesk {

/// A file and a standard stream on it in one object, for reading formatted text:
///
///     vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, vesk::BinFileBase::ReadFlags> file(
///         path, vesk::BinFileBase::READ);
///     if (!file.isValid() || !(file >> number)) { ... }
///
/// The constructor opens the file; it cannot be opened again after `close`. An object must be used by one
/// thread at a time.
///
/// @tparam File    a file that is read: `StreamBinFileR` or a class derived from it
/// @tparam Stream  the standard stream, constructible from its buffer
/// @tparam Flags   the flags that the file is opened with
template <typename File, typename Stream, typename Flags>
class VESK_API FmtFileWrapper : public Stream {
public:
    /// The bytes to read at a time.
    static constexpr unsigned int BUFFER_SIZE = 0x2000;

    /// Opens the file. On failure the object is invalid, the stream is bad, and the report of
    /// `BinFileBase::open` is pending. A null or empty path gives the same state without a report.
    FmtFileWrapper(char const* path, Flags flags, FileAccess const& access = BinFileBase::DEFAULT_ACCESS)
        : Stream(nullptr), m_buffer(openFile(path, flags, access), BUFFER_SIZE, nullptr) {
        this->rdbuf(&m_buffer);
        if (!m_file.isValid()) {
            this->setstate(std::ios_base::badbit);
        }
    }

    /// Closes the file. A failure is only a warning.
    ~FmtFileWrapper() override {
        detail::CancellationOff const cancellation_off;
        detail::KeptErrorChain const kept_chain;
        if (close()) {
            std::GlobalErrorHandler::doWarning(
                "framework/include/vesk/FmtFileWrapper", __LINE__, "~FmtFileWrapper",
                "Error closing underlying file");
            std::ErrorStorage::ack();
        }
    }

    FmtFileWrapper(FmtFileWrapper const&) = delete;
    FmtFileWrapper& operator=(FmtFileWrapper const&) = delete;

    /// Returns whether the file is open.
    bool isValid() const { return m_file.isValid(); }

    /// Closes the file and discards what is buffered. Nothing can be read afterwards, although the stream
    /// state is good.
    /// @return true on failure, as `File::close`
    [[nodiscard]] bool close() {
        m_buffer.destroyBuffer();
        if (m_buffer.createBuffer()) {
            std::ErrorStorage::ack(); // Nothing is read any more.
        }
        bool const failed = m_file.close();
        this->clear(std::ios_base::goodbit);
        return failed;
    }

private:
    File* openFile(char const* path, Flags const& flags, FileAccess const& access) {
        static_cast<void>(m_file.BinFileBase::open(path, flags, access));
        return &m_file;
    }

    File m_file;
    FileBuffer m_buffer;
};

extern template class FmtFileWrapper<StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

} // namespace vesk
