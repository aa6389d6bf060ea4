#include "Tour.h"

#include <common/Shared.h>
#include <vesk/RefCounted.h>

#include <thread>
#include <vector>

namespace tour {

namespace {

/// An object that is expensive to build and exists only while it has users.
class Engine {
public:
    Engine() { tell("  the engine is built (number %d)", ++s_built); }
    ~Engine() { tell("  the engine is destroyed"); }

    static int s_built;
};

int Engine::s_built = 0;

using EnginePtr = std::SharedBase::Ptr<Engine>;

std::Shared<Engine> s_engine;

/// A reference-counted handle. All copies share one object.
class Handle final : public vesk::RefCounted {
public:
    explicit Handle(int& freed) : m_freed(&freed) {}
    Handle(Handle const&) = default;
    Handle& operator=(Handle const&) = default;
    ~Handle() override { decrement(); }

private:
    int destroy() override {
        ++*m_freed;
        return 0;
    }

    int* m_freed;
};

} // namespace

void ownership() {
    section("Ownership: a global object that its first user builds, and reference-counted handles");
    tell("the program has a std::Shared<Engine>; %d engines so far", Engine::s_built);
    {
        EnginePtr const first(s_engine);
        std::thread user([] { EnginePtr const second(s_engine); });
        user.join();
        tell("a second user has released it");
    }
    { EnginePtr const later(s_engine); }
    failed(Engine::s_built != 2, "the engine was built twice");

    constexpr int HANDLES = 2000;
    int freed = 0;
    {
        std::vector<Handle> handles;
        for (int i = 0; i < HANDLES; ++i) {
            handles.emplace_back(freed);
        }
        std::vector<Handle> const copies = handles;
        handles.clear();
        tell("%d handles copied, the originals destroyed: %d objects freed", HANDLES, freed);
        failed(freed != 0, "the copies keep the shared objects");
    }
    tell("the copies destroyed as well: %d objects freed", freed);
    failed(freed != HANDLES, "each object is freed once");
}

} // namespace tour
