#include <tarncommon/error/ErrorObject.h>

#include <cstring>

namespace std {

ErrorObject::ErrorObject(ErrorObject const& other) noexcept {
    *this = other;
}

ErrorObject& ErrorObject::operator=(ErrorObject const& other) noexcept {
    if (this != &other) {
        file = other.file;
        line = other.line;
        next = nullptr;
        m_type = other.m_type;
        m_id = other.m_id;
        m_length = other.m_length;
        memcpy(m_text, other.m_text, m_length + 1);
    }
    return *this;
}

} // namespace std
