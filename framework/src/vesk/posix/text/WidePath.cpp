#include <vesk/WidePath.h>

#include "MallocedText.h"
#include "TextConversion.h"

#include <vesk/FileSys.h>

#include <tarncommon/error/ErrorStorage.h>
#include <tarncommon/error/GlobalErrorHandler.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/WidePath";

/// The size of a borrowed text where the size is never read.
constexpr unsigned int NO_SIZE = 0;

unsigned int sizeOf(char const* text, unsigned int length) noexcept {
    if (text == nullptr) {
        return NO_SIZE;
    }
    return length != 0 ? length + 1 : static_cast<unsigned int>(strlen(text) + 1);
}

} // namespace

WidePath::WidePath(UnicodeString const& text) : m_valid(false) {
    char const* const narrow = text.c_str();
    if (narrow == nullptr) {
        return;
    }
    if (decodeUtf8(narrow, *this)) {
        m_valid = !empty();
        return;
    }
    size_t const measured = utf8_to_wide(nullptr, narrow, CONVERSION_FAILED);
    if (measured == 0 || measured == CONVERSION_FAILED) {
        return;
    }
    resize(measured);
    if (utf8_to_wide(data(), narrow, measured + 1) != length()) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "WidePath", "second call to mbstowcs returned different result!");
        clear();
        return;
    }
    m_valid = true;
}

WidePath::WidePath(char const* text, unsigned int length)
    : WidePath(UnicodeString(text, sizeOf(text, length))) {}

WidePath WidePath::getAbsolute() const {
    if (!empty() && front() == L'/') {
        return *this;
    }
    std::string directory;
    if (FileSys::currentWD(directory)) {
        std::ErrorStorage::ack();
        return WidePath(std::wstring(), true);
    }
    WidePath result{UnicodeString(directory)};
    result += L'/';
    result += *this;
    return result;
}

WidePath WidePath::getCanonicalized() const {
    MallocedText const resolved(realpath(UnicodeString(*this).c_str(), nullptr));
    if (resolved == nullptr) {
        return WidePath(std::wstring(), true);
    }
    return UnicodeString(resolved.get(), NO_SIZE);
}

WidePath::operator std::string() const {
    return UnicodeString(*this).c_str();
}

} // namespace vesk
