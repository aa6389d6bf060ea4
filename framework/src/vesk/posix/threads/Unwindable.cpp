#include <vesk/common/Unwindable.h>

#include <pthread.h>

namespace vesk {

// Compiled without exceptions on ARM: with them the handler is the destructor of an object, which needs the tables.
void callUnwindable(void (*function)(void*), void* argument) {
    pthread_cleanup_push([](void*) {}, nullptr);
    function(argument);
    pthread_cleanup_pop(0);
}

} // namespace vesk
