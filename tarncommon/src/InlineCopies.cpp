// Creates the library's copies of the functions and constants that its headers mark with TARN_API_INLINE.
// Compiled callers use the inline definitions; the copies are for programs that were linked against the
// functions.
#define TARN_MAKE_INLINE_COPIES

#include <tarncommon/error/ErrorObject.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorType.h>
#include <tarncommon/filebuf_base.h>
#include <tarncommon/stream/IBinInputStream.h>
#include <tarncommon/stream/IBinOutputStream.h>
#include <tarncommon/tarnbase/Duration.h>
#include <tarncommon/tarnbase/TimePoint.h>
#include <tarncommon/threadsafe/MutexImpl.h>
#include <tarncommon/threadsafe/TlsImpl.h>
#include <tarncommon/unicode/String.h>
