#pragma once

#include <vesk/Export.h>
#include <vesk/WidePath.h>

#include <cstdint>
#include <utility>

namespace vesk {

/// A new file with a unique name, which a file object can take ownership of. If none does, the destructor
/// removes the file.
///
///     std::string const prefix = std::string(vesk::FileSys::getTempPath()) + "/lumo-";
///     vesk::BinTempFileRW temp(prefix.c_str());
///     vesk::StreamBinFileRW file;
///     if (!temp.isValid() || file.open(temp, true)) { ... }
///     ...
///     vesk::FileSys::removeFile(file.getTempPath().c_str()); // The new owner must remove it.
///
/// Only the owner may read and write the file (0600). Its descriptor is not close-on-exec.
///
/// The name is unique among all processes. An object must be used by one thread at a time.
class VESK_API BinTempFileRW {
public:
    /// Creates the file (`mkstemp`, started again when a signal interrupts it). `isValid` returns whether it
    /// succeeded.
    ///
    /// Reports `SysErrorId::FILE_EXISTS` with `FileAccessErrorId::ALREADY_EXISTS` on top if no free name was
    /// found, and `SysErrorId::SPOILED_INTEGRITY` with `FileAccessErrorId::UNCLASSIFIED` on top if the system
    /// refuses the template; otherwise what `handleOpenError` reports.
    /// @param prefix  the start of the path, including the directory; six characters are appended. A prefix
    ///                that the locale cannot express fails as a bad address does (`EFAULT`)
    explicit BinTempFileRW(WidePath const& prefix);

    /// Closes and removes the file unless its ownership was taken. A failure is only a warning.
    ~BinTempFileRW();

    BinTempFileRW(BinTempFileRW const&) = delete;
    BinTempFileRW& operator=(BinTempFileRW const&) = delete;

    /// Returns whether the object owns the file: it was created, and its ownership was not taken.
    bool isValid() const noexcept { return m_fd != -1; }

    /// Returns the descriptor, -1 if the object does not own the file. The object keeps the ownership.
    int getDescriptor() const noexcept { return m_fd; }

    /// Returns the descriptor and passes its ownership to the caller, which must close it and remove the
    /// file.
    [[nodiscard]] int takeDescriptor() noexcept { return std::exchange(m_fd, -1); }

    /// Returns the path of the file, also after its ownership was taken. It is valid if the prefix was valid.
    WidePath const& getPath() const noexcept { return m_path; }

private:
    int32_t m_fd = -1;
    WidePath m_path;
};

} // namespace vesk
