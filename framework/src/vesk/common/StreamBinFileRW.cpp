#include <vesk/StreamBinFileRW.h>

#include "Report.h"

#include <vesk/common/CancellationOff.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/StreamBinFileRW";

} // namespace

StreamBinFileRW::~StreamBinFileRW() {
    if (m_fd == -1 || !isWriteBufferSound()) {
        return;
    }
    CancellationOff const cancellation_off;
    KeptErrorChain const kept_chain;
    if (flushAndClose()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~StreamBinFileRW", "Error closing BinFileW");
        std::ErrorStorage::ack();
    }
}

bool StreamBinFileRW::isValid() const {
    return m_fd != -1 && isReadBufferSound() && isWriteBufferSound();
}

/// Contains the steps that all forms of `open` share around the `open` of the base class.
template <typename Open>
bool StreamBinFileRW::openBy(Open open) {
    if (!isWriteBufferSound() || !isReadBufferSound()) {
        report(SOURCE, Chain::NEW, std::CommonErrorId::CONTRACT_BROKEN, "Attempted open on invalid object");
        m_had_error = true;
        return true;
    }
    bool const failed = open();
    if (failed && m_fd != -1) {
        return true; // The previous file is still open.
    }
    IBinOutputStream::m_pos = 0;
    IBinOutputStream::m_end = 0;
    IBinInputStream::m_pos = 0;
    IBinInputStream::m_end = 0;
    if (failed) {
        return true;
    }
    m_blocking = !m_flags.has(NON_BLOCK);
    return false;
}

bool StreamBinFileRW::open(char const* path, ReadWriteFlags const& flags, FileAccess const& access) {
    return openBy([&] { return BinFileBase::open(path, flags, access); });
}

bool StreamBinFileRW::open(UnicodeString const& path, ReadWriteFlags const& flags, FileAccess const& access) {
    return open(path.c_str(), flags, access);
}

bool StreamBinFileRW::open(BinTempFileRW& temp, bool keep_path) {
    return openBy([&] { return BinFileBase::open(temp, keep_path); });
}

bool StreamBinFileRW::openAt(
    Directory const& dir, char const* name, bool follow, ReadWriteFlags const& flags,
    FileAccess const& access) {
    return openBy([&] { return BinFileBase::openAt(dir, name, follow, flags, access); });
}

bool StreamBinFileRW::checkReadBufferConsistency() {
    m_had_error = false;
    if (m_last_op != READING && passOnWritten()) {
        return true;
    }
    m_last_op = READING;
    return false;
}

bool StreamBinFileRW::checkWriteBufferConsistency() {
    m_had_error = false;
    if (m_last_op != WRITING && IBinInputStream::m_pos != IBinInputStream::m_end) {
        unsigned int position = 0;
        if (seek(0, Current, position)) {
            m_had_error = true;
            return true;
        }
        // Required because a derived class may override `seek`.
        IBinInputStream::m_pos = 0;
        IBinInputStream::m_end = 0;
    }
    m_last_op = WRITING;
    return false;
}

bool StreamBinFileRW::seek(int offset, SeekDirection direction, unsigned int& position) {
    bool const has_written = m_last_op == WRITING && IBinOutputStream::m_pos != IBinOutputStream::m_end;
    if (has_written && checkReadBufferConsistency()) {
        return true;
    }
    // After a write the read buffer is empty, and the seek of the reader only moves the position.
    return StreamBinFileR::seek(offset, direction, position);
}

bool StreamBinFileRW::close() {
    return StreamBinFileW::close();
}

} // namespace vesk
