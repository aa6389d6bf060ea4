#pragma once

#include <vesk/loop/Export.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>

namespace vesk::loop {

namespace detail {
class Start;
} // namespace detail

/// Where a stream of a program comes from or leads to.
class Stream {
public:
    /// The stream of the caller.
    static Stream inherit() { return {Kind::INHERIT, {}, 0}; }
    /// No data: reading finds the end, and what is written is dropped.
    static Stream null() { return {Kind::FILE, "/dev/null", 0}; }
    /// A file. It is read from its begin, or created (mode 0666 without the mask) and emptied.
    static Stream file(std::string path) { return {Kind::FILE, std::move(path), 0}; }
    /// The end of a file.
    static Stream append(std::string path) { return {Kind::APPEND, std::move(path), 0}; }
    /// A pipe. `Child` has the other end.
    static Stream pipe() { return {Kind::PIPE, {}, 0}; }
    /// A copy of a descriptor of the caller, which must be open at the start.
    static Stream fd(int number) { return {Kind::FD, {}, static_cast<size_t>(number)}; }
    /// Where standard output leads, for standard error.
    static Stream sameAsOut() { return {Kind::SAME, {}, 0}; }
    /// A text as the input, written while the program runs. For `Command::output` and `Loop::start`.
    static Stream text(std::string text) { return {Kind::TEXT, std::move(text), 0}; }
    /// Collected in `Output`. What exceeds the limit (bytes) is read and dropped, so that the program goes on.
    /// For `Command::output` and `Loop::start`.
    static Stream capture(size_t limit = 1 << 20) { return {Kind::CAPTURE, {}, limit}; }

    /// @{
    /// A file, as `file` opens it.
    Stream(std::filesystem::path const& path) : Stream(file(path.string())) {}
    Stream(std::string path) : Stream(file(std::move(path))) {}
    Stream(char const* path) : Stream(file(path)) {}
    /// @}

private:
    friend class detail::Start;
    bool hasOtherEnd() const noexcept { return m_kind == Kind::PIPE || m_kind == Kind::CAPTURE; }
    enum class Kind : unsigned char { INHERIT, FILE, APPEND, PIPE, FD, SAME, TEXT, CAPTURE };
    Stream(Kind kind, std::string text, size_t number)
        : m_kind(kind), m_text(std::move(text)), m_number(number) {}

    Kind m_kind;
    std::string m_text;
    size_t m_number;
};

} // namespace vesk::loop
