// A module that a program loads and unloads, with the libraries that it uses.

#include "LifeCycleSubjects.h"
#include "Uses.h"

#include <vesk/Vesk.h>

#include <cstring>
#include <pthread.h>
#include <thread>

extern "C" __attribute__((visibility("default"))) void use_the_libraries(char const* prefix);
extern "C" __attribute__((visibility("default"))) void live_and_end(bool with_children);

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

/// Brings an object of each class of the matrix into each of its states, and destroys it.
void live_and_end(bool with_children) {
    vesk::Vesk const vesk(false, false);
    for (life::Class const& row : life::getClasses()) {
        if (!with_children && strcmp(row.name, "ProcessTNG") == 0) {
            continue;
        }
        std::unique_ptr<life::Subject> const subject = row.make();
        subject->use();
        if (row.callbacks == life::Callbacks::OF_WAITER) {
            subject->in_callback = [] {};
            subject->trigger();
        }
        if (row.waits) {
            subject->prepareWait();
            std::thread waiter([&] { subject->wait(); });
            subject->wake();
            waiter.join();
        }
    }
    vesk::Vesk::cleanupAll();
}
