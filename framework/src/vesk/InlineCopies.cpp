// Makes the library's copies of what its headers mark with VESK_API_INLINE. Callers that compile get it inline; the copies
// are for programs that were linked against the functions.
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
