#include "Report.h"

#include <vesk/SysError.h>
#include <vesk/SystemError.h>

#include <tarncommon/error/CommonError.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

namespace vesk::loop {

namespace {

constexpr char const* SOURCE = "loop/src/vesk/loop/Error";

/// The rows of `SysError` for the numbers that have one. All others are unclassified.
struct Meaning {
    int error;
    SysErrorId::Id id;
};
constexpr Meaning MEANINGS[] = {
    {EMFILE, SysErrorId::RESOURCES_EXHAUSTED}, {ENFILE, SysErrorId::RESOURCES_EXHAUSTED},
    {EAGAIN, SysErrorId::RESOURCES_EXHAUSTED}, {ENOMEM, SysErrorId::OUT_OF_MEMORY},
    {ENOENT, SysErrorId::INVALID_PATH},        {ENAMETOOLONG, SysErrorId::INVALID_PATH},
    {ENOTDIR, SysErrorId::INVALID_PATH},       {ELOOP, SysErrorId::INVALID_PATH},
    {EINTR, SysErrorId::INTERRUPTED},          {ENOSYS, SysErrorId::NOT_IMPLEMENTED},
    {EPERM, SysErrorId::PERMISSION_DENIED},    {EACCES, SysErrorId::PERMISSION_DENIED},
    {EINVAL, SysErrorId::INVALID_PARAMETER},   {EBADF, SysErrorId::INVALID_PARAMETER},
    {EFAULT, SysErrorId::INVALID_ADDRESS},     {EIO, SysErrorId::INPUT_OUTPUT},
    {EEXIST, SysErrorId::FILE_EXISTS},         {EBUSY, SysErrorId::IN_USE},
    {EADDRINUSE, SysErrorId::IN_USE},          {ENOSPC, SysErrorId::NO_SPACE},
    {ENODEV, SysErrorId::NO_DEVICE},           {ENXIO, SysErrorId::NO_DEVICE},
};

/// Returns the number in the text of a report about a system call: "... (errno = 2)". Returns 0 without one.
int findErrno(std::ErrorObject const& report) noexcept {
    constexpr char MARK[] = "(errno = ";
    char const* const found = strstr(report.getText(), MARK);
    return found == nullptr ? 0 : static_cast<int>(strtol(found + sizeof MARK - 1, nullptr, 10));
}

/// Returns the number that comes nearest to a report without one.
int toErrno(std::ErrorObject const& report) noexcept {
    if (report.getType() == &std::CommonError) {
        return report.getID() == std::CommonErrorId::OUT_OF_MEMORY ? ENOMEM : EINVAL;
    }
    if (report.getType() == &SysError) {
        for (Meaning const& meaning : MEANINGS) {
            if (meaning.id == report.getID()) {
                return meaning.error;
            }
        }
    }
    if (report.getType() == &LoopError) {
        return report.getID() == LoopErrorId::FD_WATCHED ? EEXIST : EBUSY;
    }
    return EIO;
}

} // namespace

void detail::reportErrno(char const* file, int line, int error) noexcept {
    SysErrorId::Id id = SysErrorId::UNCLASSIFIED;
    for (Meaning const& meaning : MEANINGS) {
        id = meaning.error == error ? meaning.id : id;
    }
    std::ErrorOutput(file, line, true)(id, SystemError(error).getString());
}

Error Error::take(int number) {
    Error error;
    error.m_number = number;
    unsigned int count = 0;
    std::ErrorObject const* head = std::ErrorStorage::get();
    if (head == nullptr) {
        std::ErrorOutput(SOURCE, __LINE__, true)(std::CommonErrorId::CONTRACT_BROKEN, "no report is pending");
        head = std::ErrorStorage::get();
    }
    for (std::ErrorObject const* report = head; report != nullptr; report = report->next) {
        ++count;
    }
    error.copy(head, count);
    std::ErrorStorage::ack();
    return error;
}

Error::Error(Error const& other) : m_number(other.m_number) {
    copy(&other.head(), other.m_count);
}

Error::Error(Error&& other) noexcept : m_number(other.m_number), m_more(std::move(other.m_more)) {
    // The other one keeps its first reports: a moved error can still be read.
    for (unsigned int i = 0; i < std::min(other.m_count, INLINE_REPORTS); ++i) {
        new (m_first + i * sizeof(std::ErrorObject)) std::ErrorObject(other.get(i));
    }
    m_count = other.m_count;
    other.m_count = std::min(other.m_count, INLINE_REPORTS);
    link();
    other.link();
}

Error& Error::operator=(Error other) noexcept {
    this->~Error();
    new (this) Error(std::move(other));
    return *this;
}

Error::~Error() = default;

std::ErrorObject const& Error::get(unsigned int index) const noexcept {
    return index < INLINE_REPORTS
        ? *std::launder(reinterpret_cast<std::ErrorObject const*>(m_first + index * sizeof(std::ErrorObject)))
        : m_more[index - INLINE_REPORTS];
}

/// Copies a chain. Without memory for more than the reports of this object, the levels next to the root are left out.
void Error::copy(std::ErrorObject const* report, unsigned int count) {
    if (count > INLINE_REPORTS) {
        m_more.reset(new (std::nothrow) std::ErrorObject[count - INLINE_REPORTS]);
    }
    for (; report != nullptr && m_count < count; report = report->next) {
        if (m_count < INLINE_REPORTS) {
            new (m_first + m_count * sizeof(std::ErrorObject)) std::ErrorObject(*report);
        } else if (m_more != nullptr) {
            m_more[m_count - INLINE_REPORTS] = *report;
        } else {
            new (m_first + (INLINE_REPORTS - 1) * sizeof(std::ErrorObject)) std::ErrorObject(*report);
            continue;
        }
        ++m_count;
    }
    link();
}

void Error::link() noexcept {
    for (unsigned int i = 0; i < m_count; ++i) {
        const_cast<std::ErrorObject&>(get(i)).next = i + 1 < m_count ? &get(i + 1) : nullptr;
    }
}

std::error_code Error::code() const noexcept {
    if (m_number != 0) {
        return {m_number, std::system_category()};
    }
    for (unsigned int i = m_count; i > 0; --i) {
        if (int const number = findErrno(get(i - 1))) {
            return {number, std::system_category()};
        }
    }
    return {m_count == 0 ? EIO : toErrno(root()), std::system_category()};
}

std::string Error::text() const {
    std::string text;
    for (unsigned int i = 0; i < m_count; ++i) {
        std::ErrorObject const& report = get(i);
        text += (i == 0 ? "" : "\n  caused by ") + std::string(report.file) + ":" +
            std::to_string(report.line) + ": " + report.getText();
    }
    return text;
}

std::ostream& operator<<(std::ostream& stream, Error const& error) {
    return stream << error.text();
}

} // namespace vesk::loop
