#pragma once

#include <vesk/common/CancellationOff.h>
#include <vesk/loop/Export.h>

#include <unistd.h>
#include <utility>

namespace vesk::loop {

/// Owns a descriptor, which the destructor closes. Without a descriptor its number is -1.
///
///     Fd const file(open(path, O_RDONLY | O_CLOEXEC));
///     if (!file) { ... }
class [[nodiscard]] Fd {
public:
    /// Takes the ownership of a descriptor.
    explicit Fd(int number = -1) noexcept : m_number(number) {}
    /// Takes the descriptor of another owner.
    Fd(Fd&& other) noexcept : m_number(other.release()) {}
    /// Closes its descriptor, and takes that of another owner.
    Fd& operator=(Fd&& other) noexcept {
        Fd taken(std::move(other));
        std::swap(m_number, taken.m_number);
        return *this;
    }
    ~Fd() { close(); }

    /// Returns whether there is a descriptor.
    explicit operator bool() const noexcept { return m_number >= 0; }
    /// Returns the number, -1 without a descriptor. The object keeps the ownership.
    int get() const noexcept { return m_number; }
    /// Returns the number. The caller closes it.
    int release() noexcept { return std::exchange(m_number, -1); }
    /// Closes the descriptor at once (`close`).
    void close() noexcept {
        if (m_number >= 0) {
            vesk::detail::CancellationOff const cancellation_off;
            ::close(release());
        }
    }

private:
    int m_number;
};

} // namespace vesk::loop
