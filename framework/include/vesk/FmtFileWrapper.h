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
///     vesk::FmtFileWrapper<vesk::StreamBinFileR, std::istream, vesk::BinFileBase::ReadFlags> file(path, vesk::BinFileBase::READ);
///     if (!file.isValid() || !(file >> number)) { ... }
///
/// Opened by its constructor, read, closed, destroyed: it is not opened a second time. An object belongs to one thread at
/// a time.
///
/// @tparam File    a file that is read, `StreamBinFileR` or one that derives from it
/// @tparam Stream  the standard stream, constructible from its buffer
/// @tparam Flags   what the file is opened with
template <typename File, typename Stream, typename Flags>
class VESK_API FmtFileWrapper : public Stream {
public:
    /// How much is read at once, in bytes.
    static constexpr unsigned int BUFFER_SIZE = 0x2000;

    /// Opens the file. If that fails, the object is invalid, the stream is bad, and the report is pending: see
    /// `BinFileBase::open`.
    FmtFileWrapper(char const* path, Flags flags, FileAccess const& access = BinFileBase::DEFAULT_ACCESS)
        : Stream(nullptr), m_buffer(openFile(path, flags, access), BUFFER_SIZE, nullptr) {
        this->rdbuf(&m_buffer);
        if (!m_file.isValid()) {
            this->setstate(std::ios_base::badbit);
        }
    }

    /// Closes the file. A failure shows as a warning only.
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

    /// Whether the file is open.
    bool isValid() const { return m_file.isValid(); }

    /// Closes the file and drops what is buffered. Nothing can be read afterwards, although the stream is good.
    /// @return true on failure, as `File::close`
    bool close() {
        m_buffer.destroyBuffer();
        m_buffer.createBuffer();
        bool const failed = m_file.close();
        this->clear(std::ios_base::goodbit);
        return failed;
    }

private:
    File* openFile(char const* path, Flags const& flags, FileAccess const& access) {
        m_file.BinFileBase::open(path, flags, access);
        return &m_file;
    }

    File m_file;
    FileBuffer m_buffer;
};

extern template class FmtFileWrapper<StreamBinFileR, std::istream, BinFileBase::ReadFlags>;

} // namespace vesk
