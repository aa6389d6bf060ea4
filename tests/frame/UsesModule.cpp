// A module that a program loads and unloads, with the libraries that it uses.

#include "Uses.h"

#include <vesk/Vesk.h>

#include <pthread.h>

extern "C" __attribute__((visibility("default"))) void use_the_libraries(char const* prefix);

/// Uses every class, once in a thread that ends and once in the calling one.
void use_the_libraries(char const* prefix) {
    vesk::Vesk const vesk(false, false);
    uses::setUp(prefix);
    for (size_t i = 0; i < uses::COUNT; ++i) {
        uses::USES[i].round();
        pthread_t thread{};
        auto const round = [](void* use) -> void* {
            static_cast<uses::Use const*>(use)->round();
            return nullptr;
        };
        if (pthread_create(&thread, nullptr, round, const_cast<uses::Use*>(&uses::USES[i])) == 0) {
            pthread_join(thread, nullptr);
        }
    }
    uses::removeNames();
    vesk::Vesk::cleanupAll();
}
