#pragma once

#include "support/Calls.h"
#include "support/CleanEnd.h"
#include "support/FailOnce.h"
#include "support/Testing.h"
#include "support/calls/NamedCalls.h"

#include <vesk/MsgQueueClient.h>
#include <vesk/MsgQueueServer.h>
#include <vesk/SemaphoreClient.h>
#include <vesk/SemaphoreCreator.h>
#include <vesk/SharedMemoryClient.h>
#include <vesk/SharedMemoryServer.h>

/// What the tests of message queues, semaphores and shared memory have in common. Must be included in exactly
/// one file of a test program: it replaces the system calls below them.

namespace support {

namespace CommonErrorId = std::CommonErrorId;

/// Returns the report of a misuse.
template <typename Id>
ExpectedReport reportOf(Id id, char const* text) {
    return {id, rowText(id, text)};
}

/// One of the three kinds of named objects: its replaced calls, and access to its objects by their names
/// alone.
struct IpcKind {
    Injected& open;
    Injected& close;
    Injected& unlink;
    OpenCall& last_open;
    int (*remove)(char const* name);
    std::string (*getState)(char const* name); ///< Shows size and content; "(none)" if the name is free.
    void (*change)(char const* name);          ///< Changes the content.
};

inline IpcKind const QUEUE{
    inject_mq_open,
    inject_mq_close,
    inject_mq_unlink,
    s_queue_open,
    mq_unlink,
    [](char const* name) -> std::string {
        mqd_t const queue = mq_open(name, O_RDONLY);
        mq_attr attributes{};
        if (queue == -1 || mq_getattr(queue, &attributes) != 0 || mq_close(queue) != 0) {
            return "(none)";
        }
        return std::to_string(attributes.mq_curmsgs) + " of " + std::to_string(attributes.mq_maxmsg);
    },
    [](char const* name) {
        mqd_t const queue = mq_open(name, O_WRONLY);
        EXPECT_EQ(0, mq_send(queue, "old", 3, 0));
        EXPECT_EQ(0, mq_close(queue));
    }};
inline IpcKind const SEMAPHORE{
    inject_sem_open,
    inject_sem_close,
    inject_sem_unlink,
    s_semaphore_open,
    sem_unlink,
    [](char const* name) -> std::string {
        sem_t* const semaphore = sem_open(name, 0);
        int value = -1;
        if (semaphore == SEM_FAILED || sem_getvalue(semaphore, &value) != 0 || sem_close(semaphore) != 0) {
            return "(none)";
        }
        return std::to_string(value);
    },
    [](char const* name) {
        sem_t* const semaphore = sem_open(name, 0);
        EXPECT_EQ(0, sem_post(semaphore));
        EXPECT_EQ(0, sem_close(semaphore));
    }};
inline IpcKind const MEMORY{
    inject_shm_open,
    inject_close,
    inject_shm_unlink,
    s_shm_open,
    shm_unlink,
    [](char const* name) -> std::string {
        int const fd = shm_open(name, O_RDONLY, 0);
        struct stat data {};
        char content[4] = "";
        if (fd == -1 || fstat(fd, &data) != 0 || pread(fd, content, 3, 0) < 0 || close(fd) != 0) {
            return "(none)";
        }
        return std::to_string(data.st_size) + " bytes: " + content;
    },
    [](char const* name) {
        int const fd = shm_open(name, O_RDWR, 0);
        EXPECT_EQ(3, pwrite(fd, "old", 3, 0));
        EXPECT_EQ(0, close(fd));
    }};

/// A name that no other test uses. The process that made it removes it from the system at its end.
class IpcName : tarnbase::NonCopyable {
public:
    /// @param length  the length of the name, which is padded; 0 for a short one
    explicit IpcName(IpcKind const& kind, size_t length = 0)
        : m_kind(kind), m_system_name("/vesk-test-" + std::to_string(getpid())) {
        static int count = 0;
        m_system_name += "-" + std::to_string(++count) + "n"; // No name is part of another one.
        m_system_name.resize(length == 0 ? m_system_name.size() : length + 1, 'n');
        kind.remove(m_system_name.c_str());
    }
    ~IpcName() {
        if (m_owner == getpid()) {
            m_kind.remove(m_system_name.c_str());
        }
    }

    /// The name for servers and clients.
    operator char const*() const { return m_system_name.c_str() + 1; }
    std::string const& getSystemName() const { return m_system_name; }

    std::string getState() const { return m_kind.getState(m_system_name.c_str()); }
    bool exists() const { return getState() != "(none)"; }

private:
    IpcKind const& m_kind;
    std::string m_system_name;
    pid_t m_owner = getpid();
};

} // namespace support

/// Must be used in `SetUp` of tests that need message queues.
#define VESK_SKIP_WITHOUT_QUEUES()                                                                           \
    if (mq_unlink("/vesk-test-of-support") == -1 && errno == ENOSYS) {                                       \
        GTEST_SKIP() << "the system, or what emulates it, has no message queues";                            \
    }
