// Makes the library's copies of the functions that its headers mark with VESK_API_INLINE. Code that is
// compiled against the headers gets them inline; the copies serve programs that were linked against the
// functions.
#define VESK_MAKE_INLINE_COPIES

#include <common/SharedBuf.h>

#include <vesk/AtomicCounter.h>
#include <vesk/Directory.h>
#include <vesk/Environment.h>
#include <vesk/FileInfo.h>
#include <vesk/Group.h>
#include <vesk/IPSocket.h>
#include <vesk/MsgQueueBase.h>
#include <vesk/Mutex.h>
#include <vesk/ProcessTNG.h>
#include <vesk/ProcessTimeStopWatch.h>
#include <vesk/RealtimeStopWatch.h>
#include <vesk/RefCounted.h>
#include <vesk/SecureRandom.h>
#include <vesk/SemaphoreBase.h>
#include <vesk/SharedObj.h>
#include <vesk/SignalQueueImpl.h>
#include <vesk/SystemError.h>
#include <vesk/TCPSocket.h>
#include <vesk/TextUtils.h>
#include <vesk/Thread.h>
#include <vesk/ThreadTimeStopWatch.h>
#include <vesk/Time.h>
#include <vesk/Timer.h>
#include <vesk/UDPSocket.h>
#include <vesk/UnicodeString.h>
#include <vesk/User.h>
#include <vesk/UserFS.h>

using vesk::SignalQueueImpl;

// Exports two functions under their former mangled names, from when their arguments were not const. Programs
// that were linked against those names need them. Overloads in the class would make a call with a null
// pointer ambiguous. The ABI passes the object of a member function as the first argument.
extern "C" {

VESK_API ssize_t selfPipeWrite(SignalQueueImpl::SelfPipe* pipe, void* buffer, unsigned int length) __asm__(
    "_ZN4vesk15SignalQueueImpl8SelfPipe5writeEPvj");
VESK_API bool selfPipeIsSet(SignalQueueImpl::SelfPipe const* pipe, fd_set* set) __asm__(
    "_ZNK4vesk15SignalQueueImpl8SelfPipe6is_setEP6fd_set");

ssize_t selfPipeWrite(SignalQueueImpl::SelfPipe* pipe, void* buffer, unsigned int length) {
    return pipe->write(buffer, length);
}

bool selfPipeIsSet(SignalQueueImpl::SelfPipe const* pipe, fd_set* set) {
    return pipe->is_set(set);
}
}
