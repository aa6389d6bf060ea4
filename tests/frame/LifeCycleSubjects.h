#pragma once

#include <functional>
#include <memory>
#include <vector>

/// Objects of all classes that have threads, locks or waiters, and how each is brought into its states.
namespace life {

/// The thread in which an object calls back.
enum class Callbacks { NONE, OF_LIBRARY, OF_WAITER };

class Subject {
public:
    virtual ~Subject() = default;

    /// Destroys the object.
    virtual void destroy() = 0;
    /// Uses the object once. Returns whether that has failed.
    virtual bool use() = 0;

    /// Makes the next `wait` block until `wake`.
    virtual void prepareWait() {}
    virtual void wait() {}
    virtual void wake() {}
    /// Makes the object call back, in `wait` if its callbacks are `OF_WAITER`.
    virtual void trigger() {}

    std::function<void()> in_callback;
};

struct Class {
    char const* name;
    std::unique_ptr<Subject> (*make)();
    bool waits;
    Callbacks callbacks;
    /// What happens at an event while the object is idle, used by another thread, inside its callback, waiting:
    /// o  the event has no effect on the object, or destroys it, at once
    /// w  the event takes effect only when the state has ended
    /// a  the process aborts, with a message
    /// f  the child of the fork may make and use a new object; the object of the parent continues to work
    /// e  the child may only execute a program or exit; the object of the parent continues to work
    /// r  as `e`; the collector of children may reap the child, with a warning
    /// d  no trace is left once the object is destroyed: driven by the test `Unload`
    /// x  callers must not do that
    /// -  the class has no such state
    char const* destroyed;
    char const* terminated; ///< The thread in this state is terminated.
    char const* exits;      ///< The process calls `exit`.
    char const* forks;
    char const* unloaded;
};

std::vector<Class> const& getClasses();

} // namespace life
