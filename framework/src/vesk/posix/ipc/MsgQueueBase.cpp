#include <vesk/MsgQueueBase.h>

#include "vesk/posix/detail/ErrnoTable.h"
#include "vesk/posix/detail/SystemErrorText.h"
#include "vesk/posix/detail/WallDeadline.h"

#include <vesk/FmtFileWrapper.h>
#include <vesk/SysError.h>
#include <vesk/common/KeptErrorChain.h>

#include <tarncommon/error/GlobalErrorHandler.h>

#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/posix/MsgQueueBase";

constexpr ErrnoRow TRANSFER_ERRORS[] = {
    {{EMSGSIZE}, SysErrorId::INVALID_PARAMETER},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow CLOCK_ERRORS[] = {
    {OTHERS, SysErrorId::UNCLASSIFIED},
};

constexpr ErrnoRow TIMED_READ_ERRORS[] = {
    {{ETIMEDOUT}, NONE, NONE, Outcome::BUSY},
    {{EMSGSIZE}, SysErrorId::INVALID_PARAMETER},
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

constexpr ErrnoRow TIMED_WRITE_ERRORS[] = {
    {{ETIMEDOUT}, NONE, NONE, Outcome::BUSY},
    {{EMSGSIZE}, SysErrorId::INVALID_PARAMETER},
    // `BUSY` on purpose, unlike in `readMsgTimeout`: the caller distinguishes this failure from a timeout
    // by the report alone.
    {OTHERS, SysErrorId::SPOILED_INTEGRITY, NONE, Outcome::BUSY},
};

constexpr ErrnoRow ATTRIBUTE_ERRORS[] = {
    {OTHERS, SysErrorId::SPOILED_INTEGRITY},
};

mq_attr getAttributes(mqd_t queue) {
    mq_attr attributes{};
    if (mq_getattr(queue, &attributes) != 0) {
        classify(SOURCE, ATTRIBUTE_ERRORS, errno);
        return {};
    }
    return attributes;
}

unsigned int readLimit(char const* path) {
    FmtFileWrapper<StreamBinFileR, std::istream, BinFileBase::ReadFlags> file(
        path, BinFileBase::READ,
        FileAccess::owner_read | FileAccess::owner_write | FileAccess::group_read | FileAccess::group_write);
    if (!file.isValid()) {
        std::ErrorStorage::ack();
        return 0;
    }
    unsigned int limit = 0;
    file >> limit;
    if (file.close()) {
        std::ErrorStorage::ack();
    }
    return limit;
}

} // namespace

MsgQueueBase::~MsgQueueBase() {
    KeptErrorChain const kept_chain;
    if (MsgQueueBase::close()) {
        std::GlobalErrorHandler::doWarning(SOURCE, __LINE__, "~MsgQueueBase", "error closing message queue");
        std::ErrorStorage::ack();
    }
}

bool MsgQueueBase::close() {
    if (!isValid()) {
        return false;
    }
    if (retryOnEintr([this] { return mq_close(queue); }) == 0) {
        queue = CLOSED;
        return false;
    }
    int const error = errno;
    if (error == EBADF) {
        queue = CLOSED;
    }
    report(SOURCE, Chain::UNKNOWN, SysErrorId::SPOILED_INTEGRITY, SystemErrorText(error).get());
    return true;
}

bool MsgQueueBase::readMsg(Message* message) {
    ssize_t const received =
        retryOnEintr([&] { return mq_receive(queue, message->buffer, message->size, &message->priority); });
    if (received == -1) {
        classify(SOURCE, TRANSFER_ERRORS, errno);
        return true;
    }
    message->size = static_cast<unsigned int>(received);
    return false;
}

bool MsgQueueBase::writeMsg(Message const* message) {
    if (retryOnEintr([&] { return mq_send(queue, message->buffer, message->size, message->priority); }) !=
        0) {
        classify(SOURCE, TRANSFER_ERRORS, errno);
        return true;
    }
    return false;
}

signed char MsgQueueBase::readMsgTimeout(Message* message, long long const& timeout) {
    WallDeadline const deadline(timeout);
    if (!deadline.isValid()) {
        return toResult(classify(SOURCE, CLOCK_ERRORS, errno));
    }
    ssize_t const received = retryOnEintr([&] {
        return mq_timedreceive(queue, message->buffer, message->size, &message->priority, deadline.get());
    });
    if (received == -1) {
        return toResult(classify(SOURCE, TIMED_READ_ERRORS, errno));
    }
    message->size = static_cast<unsigned int>(received);
    return 0;
}

signed char MsgQueueBase::writeMsgTimeout(Message const* message, long long const& timeout) {
    WallDeadline const deadline(timeout);
    if (!deadline.isValid()) {
        return toResult(classify(SOURCE, CLOCK_ERRORS, errno));
    }
    int const result = retryOnEintr([&] {
        return mq_timedsend(queue, message->buffer, message->size, message->priority, deadline.get());
    });
    if (result != 0) {
        return toResult(classify(SOURCE, TIMED_WRITE_ERRORS, errno));
    }
    return 0;
}

int MsgQueueBase::getMaxPrio() noexcept {
    return static_cast<int>(sysconf(_SC_MQ_PRIO_MAX));
}

unsigned int MsgQueueBase::maxMsgSize() const {
    return static_cast<unsigned int>(getAttributes(queue).mq_msgsize);
}

unsigned int MsgQueueBase::maxMsgCount() const {
    return static_cast<unsigned int>(getAttributes(queue).mq_maxmsg);
}

unsigned int MsgQueueBase::availMsgs() const {
    return static_cast<unsigned int>(getAttributes(queue).mq_curmsgs);
}

unsigned int MsgQueueBase::systemMaxMsgSize() {
    return readLimit("/proc/sys/fs/mqueue/msgsize_max");
}

unsigned int MsgQueueBase::systemMaxMsgCount() {
    return readLimit("/proc/sys/fs/mqueue/msg_max");
}

} // namespace vesk
