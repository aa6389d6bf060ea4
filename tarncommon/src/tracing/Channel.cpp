#include <tarncommon/tracing/Channel.h>

#include "TextWriter.h"

#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace tracing {

namespace {

// For the registry only. Writing a message takes no lock, so that a child process can trace between fork and
// exec.
TARN_CONSTANT_INIT threadsafe::MutexImpl s_mutex(threadsafe::ConstantInit{TARN_LOCK_NAME(TRACE_CHANNELS)});
TARN_CONSTANT_INIT Channel* s_first TARN_GUARDED_BY(s_mutex) = nullptr;

/// Guard that holds the lock of the registry until the end of a scope. Ignores failures: only a thread that
/// already holds the lock could cause one.
class [[nodiscard]] TARN_SCOPED_LOCK RegistryLock : private tarnbase::NonCopyable {
public:
    RegistryLock() TARN_ACQUIRE(s_mutex) TARN_NOT_ANALYZED { static_cast<void>(s_mutex.lock()); }
    ~RegistryLock() TARN_RELEASE() TARN_NOT_ANALYZED { static_cast<void>(s_mutex.unlock()); }
};

/// Returns the level of the channel in `TARN_TRACE` ("name=level,name=level"), or `fallback` if the channel
/// is not listed or its level is not a valid number.
short thresholdFromEnvironment(std::string const& name, short fallback) noexcept {
    char const* entry = getenv("TARN_TRACE");
    while (entry != nullptr) {
        if (strncmp(entry, name.c_str(), name.size()) == 0 && entry[name.size()] == '=') {
            char* end = nullptr;
            char const* const level = entry + name.size() + 1;
            long const value = strtol(level, &end, 10);
            bool const good =
                end != level && (*end == '\0' || *end == ',') && static_cast<short>(value) == value;
            return good ? static_cast<short>(value) : fallback;
        }
        entry = strchr(entry, ',');
        entry += entry != nullptr ? 1 : 0;
    }
    return fallback;
}

} // namespace

Channel::Channel(std::string const& name, short level, unsigned int flags)
    : m_threshold(thresholdFromEnvironment(name, level)), m_name(name), m_flags(flags) {
    RegistryLock const lock;
    m_next = s_first;
    s_first = this;
}

Channel::~Channel() {
    RegistryLock const lock;
    for (Channel** channel = &s_first; *channel != nullptr; channel = &(*channel)->m_next) {
        if (*channel == this) {
            *channel = m_next;
            return;
        }
    }
}

bool Channel::setThreshold(std::string const& name, short level) {
    RegistryLock const lock;
    bool found = false;
    for (Channel* channel = s_first; channel != nullptr; channel = channel->m_next) {
        if (channel->m_name == name) {
            channel->m_threshold.store(level, std::memory_order_relaxed);
            found = true;
        }
    }
    return found;
}

void Channel::logCV(short level, char const* format, ...) {
    char line[1025];
    tarnbase::detail::TextWriter writer(line, sizeof line - 1);
    if ((m_flags & WITH_TIME) != 0) {
        writer.putSigned(tarnbase::TimePoint::now().getCount());
        writer.put(' ');
    }
    writer.put(m_name.c_str());
    writer.put('[');
    writer.putSigned(level);
    writer.put(']');
    if ((m_flags & WITH_THREAD) != 0) {
        writer.put(" tid ");
        writer.putSigned(syscall(SYS_gettid));
    }
    writer.put(": ");
    va_list args;
    va_start(args, format);
    char message[1024];
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    writer.put(message);
    size_t const length = writer.finish();
    line[length] = '\n';
    tarnbase::detail::writeAll(STDERR_FILENO, line, length + 1);
}

} // namespace tracing
