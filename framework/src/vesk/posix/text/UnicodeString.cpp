#include <vesk/UnicodeString.h>

#include "TextConversion.h"

#include <common/error/ErrorHelper.h>

#include <tarncommon/Export.h>
#include <tarncommon/error/GlobalErrorHandler.h>

#include <new>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/UnicodeString";

constexpr uint32_t FAILED_SIZE = 0xFFFFFFFF;

} // namespace

TARN_CONSTANT_INIT uint32_t const UnicodeString::s_encoding = 1;

UnicodeString::UnicodeString(std::wstring const& text) : m_data(nullptr), m_size(0), m_storage(OWNED) {
    size_t const plain = measureUtf8(text);
    bool const is_plain = plain != CONVERSION_FAILED;
    size_t const measured = is_plain ? plain : wide_to_utf8(nullptr, text.c_str(), CONVERSION_FAILED);
    // Also true for a text that is too long for a 32-bit size, which is possible on 64-bit systems only.
    if (measured >= FAILED_SIZE) {
        m_size = FAILED_SIZE;
        return;
    }
    m_size = static_cast<uint32_t>(measured + 1);
    // Filled with NULs, so that the text is terminated even if the second pass stops early.
    m_data = std::allocateOrWait(
        [this] { return new (std::nothrow) char[m_size](); }, SOURCE, "UnicodeString",
        "cannot allocate data for wcs conversion");
    if (is_plain) {
        encodeUtf8(text, m_data);
    } else if (wide_to_utf8(m_data, text.c_str(), m_size) != measured) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "UnicodeString", "got different result in second call to wide_to_utf8");
        m_data[measured] = '\0';
    }
}

UnicodeString::operator std::wstring() const {
    std::wstring result;
    if (m_data == nullptr || decodeUtf8(m_data, result)) {
        return result;
    }
    size_t const measured = utf8_to_wide(nullptr, m_data, CONVERSION_FAILED);
    if (measured == 0 || measured == CONVERSION_FAILED) {
        return result;
    }
    result.resize(measured);
    if (utf8_to_wide(result.data(), m_data, measured + 1) != result.length()) {
        std::GlobalErrorHandler::doWarning(
            SOURCE, __LINE__, "operator std::__cxx11::wstring",
            "second call to utf8_to_wide returned different result");
    }
    return result;
}

void UnicodeString::checkStorage() {
    char* const copy = std::allocateOrWait(
        [this] { return new (std::nothrow) char[m_size]; }, SOURCE, "checkStorage", "cannot make UC copy");
    m_data = static_cast<char*>(memcpy(copy, m_data, m_size));
}

int UnicodeString::destroy() {
    if (m_data != nullptr && m_storage != BORROWED) {
        delete[] m_data;
    }
    m_data = nullptr;
    m_storage = BORROWED;
    return 0;
}

} // namespace vesk
