#include <tarncommon/error/ErrorType.h>

namespace std {

ErrorID const* ErrorType::getRow(int id) const noexcept {
    // The conversion turns a negative id into a number beyond any table.
    return static_cast<unsigned int>(id) < m_count ? &m_rows[id] : nullptr;
}

bool ErrorType::isA(ErrorType const& other) const noexcept {
    for (ErrorType const* type = this; type != nullptr; type = type->m_parent) {
        if (type == &other) {
            return true;
        }
    }
    return false;
}

} // namespace std
