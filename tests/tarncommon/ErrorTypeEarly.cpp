#include "ErrorTypeEarly.h"

#include <vesk/Mutex.h>
#include <vesk/SysError.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>
#include <tarncommon/error/ErrorStorage.h>

namespace early {

namespace {

Outcome report() {
    Outcome seen{};
    std::ErrorOutput("early", 1, true)(std::CommonErrorId::UNSUPPORTED_VALUE, "early");
    seen.was_common = std::ErrorStorage::isA(std::CommonError);
    std::ErrorOutput("early", 2, true)(vesk::SysErrorId::UNCLASSIFIED, "early");
    seen.was_system = std::ErrorStorage::isA(vesk::SysError);
    std::ErrorOutput("early", 3, false)(vesk::Mutex::ErrorId::UNLOCK_FAILED, "early");
    seen.was_mutex_of_system =
        std::ErrorStorage::isA(vesk::Mutex::Error) && std::ErrorStorage::isA(vesk::SysError);
    seen.id = std::ErrorStorage::id();
    std::ErrorStorage::ack();
    return seen;
}

} // namespace

// The priority moves it before every initializer of this program without one.
__attribute__((init_priority(101))) Outcome const outcome = report();

} // namespace early
