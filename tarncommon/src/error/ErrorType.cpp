#include <tarncommon/error/ErrorType.h>

namespace std {

ErrorID const* ErrorType::getRow(int id) const noexcept {
    // A negative id turns into one beyond any table.
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
