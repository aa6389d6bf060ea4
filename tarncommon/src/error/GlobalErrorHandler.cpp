#include <tarncommon/error/GlobalErrorHandler.h>

#include "CancellationOff.h"
#include "TextWriter.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

namespace std {

namespace {

using tarnbase::detail::CancellationOff;
using tarnbase::detail::TextWriter;

constexpr long OUT_OF_MEMORY_WAIT_NS = 100L * 1000 * 1000;

TARN_CONSTANT_INIT atomic<GlobalErrorHandler::Hook const*> s_hook{nullptr};

char const* describe(GlobalErrorHandler::Kind kind) noexcept {
    switch (kind) {
    case GlobalErrorHandler::Kind::ASSERT:
        return "assertion failed: ";
    case GlobalErrorHandler::Kind::ABORT:
        return "fatal: ";
    case GlobalErrorHandler::Kind::WARNING:
        return "warning: ";
    case GlobalErrorHandler::Kind::OUT_OF_MEMORY:
        return "out of memory: ";
    }
    return ""; // LCOV_EXCL_LINE: there is no other kind
}

void print(GlobalErrorHandler::Event const& event) noexcept {
    char line[1024];
    TextWriter writer(line, sizeof line - 1); // Reserves one byte for the newline after a cut text.
    writer.putPlace(event.file, event.line, event.function);
    writer.put(describe(event.kind));
    if (event.expression != nullptr) {
        writer.put(event.expression);
        writer.put(event.message[0] != '\0' ? ": " : "");
    }
    writer.put(event.message);
    size_t const length = writer.finish();
    line[length] = '\n';
    tarnbase::detail::writeAll(STDERR_FILENO, line, length + 1);
}

/// Returns whether `%s`, `%d` and `%%` are the only conversions of a format.
bool isSimple(char const* format) noexcept {
    for (; *format != '\0'; ++format) {
        if (*format == '%' && *++format != 's' && *format != 'd' && *format != '%') {
            return false;
        }
    }
    return true;
}

/// The formatted message of an event; empty without a format. It is formatted before the hook is called,
/// because the hook may throw.
class Message {
public:
    Message(char const* format, va_list args) noexcept {
        if (format == nullptr) {
            return;
        }
        if (isSimple(format)) {
            // Async-signal-safe, unlike the formatting of libc: a child process reports failures between fork
            // and exec.
            TextWriter writer(m_text, sizeof m_text);
            writer.putFormatted(format, args);
            writer.finish();
        } else {
            vsnprintf(m_text, sizeof m_text, format, args);
        }
    }
    char const* get() const noexcept { return m_text; }

private:
    char m_text[512] = "";
};

/// Passes the event to the hook, then prints it. Returns true if the hook suppresses the default action.
bool handle(GlobalErrorHandler::Event const& event) {
    // Destructors and `noexcept` functions call this, and a hook may reach any cancellation point.
    CancellationOff const cancellation_off;
    GlobalErrorHandler::Hook const* const hook = s_hook.load(memory_order_acquire);
    if (hook != nullptr && hook->call(event, hook->context)) {
        return true;
    }
    print(event);
    return false;
}

} // namespace

GlobalErrorHandler::Hook const* GlobalErrorHandler::setHook(Hook const* hook) noexcept {
    return s_hook.exchange(hook, memory_order_acq_rel);
}

void GlobalErrorHandler::doAssert(
    bool condition, char const* expression, char const* file, int line, char const* function,
    char const* format, ...) {
    if (condition) {
        return;
    }
    va_list args;
    va_start(args, format);
    Message const message(format, args);
    va_end(args);
    handle({Kind::ASSERT, expression, file, line, function, message.get()});
}

void GlobalErrorHandler::doAbort(char const* file, int line, char const* function, char const* format, ...) {
    va_list args;
    va_start(args, format);
    Message const message(format, args);
    va_end(args);
    bool const kept = handle({Kind::ABORT, nullptr, file, line, function, message.get()});
    if (!kept) {
        std::abort();
    }
}

void GlobalErrorHandler::doWarning(
    char const* file, int line, char const* function, char const* format, ...) {
    va_list args;
    va_start(args, format);
    Message const message(format, args);
    va_end(args);
    handle({Kind::WARNING, nullptr, file, line, function, message.get()});
}

void GlobalErrorHandler::doOutOfMem(
    char const* file, int line, char const* function, char const* format, ...) {
    va_list args;
    va_start(args, format);
    Message const message(format, args);
    va_end(args);
    bool const kept = handle({Kind::OUT_OF_MEMORY, nullptr, file, line, function, message.get()});
    if (!kept) {
        // The allocation loops of `noexcept` functions wait here.
        CancellationOff const cancellation_off;
        // A signal may shorten the wait: the caller repeats its allocation in either case.
        timespec const wait{0, OUT_OF_MEMORY_WAIT_NS};
        nanosleep(&wait, nullptr);
    }
}

} // namespace std
