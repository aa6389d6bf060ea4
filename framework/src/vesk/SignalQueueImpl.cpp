#include <vesk/SignalQueueImpl.h>

#include "vesk/posix/detail/SystemErrorText.h"

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/abort.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vesk {

using namespace detail;

namespace {

constexpr char const* SOURCE = "framework/src/vesk/SignalQueueImpl-posix";

} // namespace

SignalQueueImpl::~SignalQueueImpl() = default;

SignalQueueImpl::SelfPipe::SelfPipe() {
    int ends[2] = {-1, -1};
    int const result = pipe(ends);
    read_end = UniqueFd(ends[0]);
    write_end = UniqueFd(ends[1]);
    if (result != 0 || !read_end.isOpen()) {
        std::GlobalErrorHandler::doAssert(
            false, "result==0", SOURCE, __LINE__, "SelfPipe", "couldn't create self-pipe");
        return;
    }
    errno = 0;
    int const flags = fcntl(write_end.get(), F_GETFL);
    fcntl(write_end.get(), F_SETFL, (flags < 0 ? 0 : flags) | O_NONBLOCK);
    if (errno != 0) {
        std::GlobalErrorHandler::doAssert(
            false, "errno==0", SOURCE, __LINE__, "SelfPipe", "couldn't configure self-pipe as non-blocking");
    }
}

SignalQueueImpl::SelfPipe::~SelfPipe() {
    read_end.close();
    write_end.close();
}

ssize_t SignalQueueImpl::SelfPipe::read(void* buffer, unsigned int length) {
    return ::read(read_end.get(), buffer, length);
}

ssize_t SignalQueueImpl::SelfPipe::write(void const* buffer, unsigned int length) {
    // Not the function of the C library, which is a cancellation point: signal handlers get here.
    return syscall(SYS_write, write_end.get(), buffer, static_cast<size_t>(length));
}

void SignalQueueImpl::SelfPipe::set(fd_set* set, int& highest) const {
    if (!read_end.isOpen()) {
        return;
    }
    int const fd = read_end.get();
    if (fd >= FD_SETSIZE) {
        std::GlobalErrorHandler::doAssert(false, "read_end<FD_SETSIZE", SOURCE, __LINE__, "set", nullptr);
        return;
    }
    FD_SET(fd, set);
    if (fd >= highest) {
        highest = fd + 1;
    }
}

bool SignalQueueImpl::SelfPipe::is_set(fd_set const* set) const {
    return read_end.isOpen() && read_end.get() < FD_SETSIZE && FD_ISSET(read_end.get(), set);
}

SignalQueueImpl::NotifierImpl::NotifierImpl() = default;

SignalQueueImpl::NotifierImpl::~NotifierImpl() = default;

void SignalQueueImpl::NotifierImpl::wait() {
    pollfd row = {self_pipe.getReadEnd(), POLLIN, 0};
    if (row.fd < 0) {
        poll(&row, 1, -1); // Without a pipe only a signal ends the wait: read would fail at once.
        return;
    }
#if defined(__SANITIZE_THREAD__)
    // The thread sanitizer runs the handlers of a thread that polls, but not of one that reads.
    if (poll(&row, 1, -1) < 0 && poll(&row, 1, 0) <= 0) {
        return;
    }
#endif
    // The read end is blocking, so no poll is needed before.
    char wake_up = 0;
    if (self_pipe.read(&wake_up, 1) >= 0 || poll(&row, 1, 0) <= 0) {
        return;
    }
    // The handler that interrupted the first call has written a byte.
    [[maybe_unused]] ssize_t const count = self_pipe.read(&wake_up, 1);
}

void SignalQueueImpl::NotifierImpl::signal() {
    char const wake_up = 0;
    if (self_pipe.write(&wake_up, 1) == 1) {
        return;
    }
    int const error = errno;
    if (error == EAGAIN) {
        return;
    }
    // strerror is not used here: it may take a lock.
    char const* const text = getErrorDescription(error);
    tarnbase::abort(
        SOURCE, __LINE__, "signal", "write to self-pipe failed with errno=%d (%s)", error,
        text != nullptr ? text : "Unknown error");
}

} // namespace vesk
