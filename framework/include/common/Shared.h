#pragma once

#include <vesk/common/AbortingLock.h>
#include <vesk/common/CancellationOff.h>

#include <tarncommon/error/GlobalErrorHandler.h>
#include <tarncommon/tarnbase/NonCopyable.h>
#include <tarncommon/threadsafe/MutexImpl.h>

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

namespace std {

template <typename T>
class Shared;

/// What all `Shared` have in common: the count of references and the lock that guards building and destroying.
class SharedBase : private tarnbase::NonCopyable {
public:
    /// The part of a reference that does not depend on the object's type. Not used directly; see `Ptr`.
    class PtrBase;

    /// A counted reference to the object of a `Shared`; see there. Copyable and assignable, two words in size.
    template <typename T>
    class Ptr;

protected:
    constexpr SharedBase() noexcept : refcount(0), m_lock(threadsafe::CONSTANT_INIT) {}
    virtual ~SharedBase() {} // NOLINT(modernize-use-equals-default): it must leave the lock alone.

    /// Builds the object, called for the first reference; and destroys it, called for the last. The holder's lock is
    /// held during both.
    virtual void build() = 0;
    virtual void destroy() = 0;

    /// For `destroy`: waits until no thread of the object runs a callback, with the lock released and the object kept,
    /// so that these callbacks may take references.
    /// @return true if they have left one, so that the object is to stay
    template <typename T>
    bool isTakenInCallback(T& object);

    std::atomic<unsigned int> refcount;

private:
    static constexpr char const* SOURCE = "framework/include/common/Shared";

    // Never destroyed, which no call is needed for: another thread may make a reference while the process ends.
    union {
        threadsafe::MutexImpl m_lock;
    };
};

template <typename T>
bool SharedBase::isTakenInCallback(T& object) {
    while (object.isCallingBack()) {
        refcount.store(1);
        if (m_lock.unlock()) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "~PtrBase", "error unlocking");
        }
        object.waitForCallback();
        if (m_lock.lock()) {
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "~PtrBase", "error locking");
        }
        if (refcount.fetch_sub(1) != 1) {
            return true;
        }
    }
    return false;
}

class SharedBase::PtrBase {
public:
    /// The holder, null in an empty reference.
    SharedBase* getHolder() const noexcept { return m_shared; }

protected:
    explicit PtrBase(SharedBase* shared) : m_shared(shared) {
        if (shared == nullptr) {
            return;
        }
        vesk::AbortingLock<threadsafe::MutexImpl> const lock(shared->m_lock, SOURCE, "PtrBase");
        if (shared->refcount.fetch_add(1) == 0) {
            FirstReference first(*shared);
            shared->build();
            first.keep();
        }
        if (shared->refcount.load() == 0) {
            GlobalErrorHandler::doAssert(false, "shared->refcount!=0", SOURCE, __LINE__, "PtrBase", nullptr);
        }
    }

    PtrBase(PtrBase const& other) : PtrBase(other.m_shared) {}
    PtrBase& operator=(PtrBase const&) = delete;

    ~PtrBase() {
        SharedBase* const shared = m_shared;
        if (shared == nullptr) {
            return;
        }
        vesk::AbortingLock<threadsafe::MutexImpl> const lock(shared->m_lock, SOURCE, "~PtrBase");
        if (shared->refcount.load() == 0) {
            GlobalErrorHandler::doAssert(false, "shared->refcount!=0", SOURCE, __LINE__, "~PtrBase", nullptr);
        }
        if (shared->refcount.fetch_sub(1) == 1) {
            vesk::detail::CancellationOff const cancellation_off;
            shared->destroy();
        }
    }

    void swapHolders(PtrBase& other) noexcept {
        SharedBase* const shared = m_shared;
        m_shared = other.m_shared;
        other.m_shared = shared;
    }

private:
    /// Takes the count back if the object's constructor throws, so that the next reference tries again.
    class FirstReference {
    public:
        explicit FirstReference(SharedBase& shared) noexcept : m_shared(&shared) {}
        ~FirstReference() {
            if (m_shared != nullptr) {
                m_shared->refcount.fetch_sub(1);
            }
        }
        void keep() noexcept { m_shared = nullptr; }

    private:
        SharedBase* m_shared;
    };

    SharedBase* m_shared;
};

template <typename T>
class SharedBase::Ptr : public SharedBase::PtrBase {
public:
    /// An empty reference.
    Ptr() noexcept : PtrBase(nullptr), m_object(nullptr) {}

    /// Takes a reference on `holder`, and builds its object if it is the first. May therefore take as long as the
    /// object's constructor, here and in other threads that want a reference meanwhile.
    /// @param holder  null makes an empty reference that still points to `object`
    /// @param object  what the reference points to, as a rule the holder's object
    Ptr(SharedBase* holder, T* object) : PtrBase(holder), m_object(object) {}

    /// The same for a holder and its own object.
    template <typename U>
    explicit Ptr(Shared<U>& holder) : PtrBase(&holder), m_object(holder.getObject()) {}

    Ptr(Ptr const& other) = default;

    /// Takes the new reference first, then lets go of the old one: an object that both have in common stays.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the copy comes first.
    Ptr& operator=(Ptr const& other) {
        Ptr copy(other);
        this->swapHolders(copy);
        T* const object = m_object;
        m_object = copy.m_object;
        copy.m_object = object;
        return *this;
    }

    /// Lets go of the reference, and destroys the object if it was the last, with the cancellation of the thread disabled.
    ~Ptr() = default;

    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

private:
    T* m_object;
};

/// The holder of an object that lives exactly as long as someone uses it: the first reference builds it, the last one to
/// go destroys it, and a later one builds a fresh one. Meant for the global objects of a library that own something
/// dear, as a thread.
///
///     std::Shared<Engine> engine;                                   // Global; no Engine exists yet.
///     std::SharedBase::Ptr<Engine> const reference(engine);         // Now one does.
///     reference->poke();
///
/// The storage lies inside the holder: the object never touches the heap. References may be made and ended by any thread;
/// each takes the holder's lock, and waits while another thread builds or destroys the object. A reference must not be
/// made or ended from within the constructor or destructor of the same object. A lock that fails goes to
/// `GlobalErrorHandler::doAbort` with "error locking" or "error unlocking".
///
/// An object whose destructor joins a thread deadlocks with a callback on that thread which wants a reference. A class can
/// avoid that with two operations: `isCallingBack()` tells whether a thread of the object, other than the calling one,
/// runs a callback, and `waitForCallback()` waits for its end. The end of the last reference then waits for the callback
/// without the holder's lock, and leaves the object as it is if the callback has taken a reference.
///
/// A global holder exists before any initialiser runs, so every initialiser may use it. A holder that is destroyed while
/// references exist leaves the object as it is. The holders of this library are not destroyed by the end of the process:
/// threads may make references as long as they run.
template <typename T>
class Shared : public SharedBase {
public:
    constexpr Shared() noexcept : m_storage{} {}

    /// Where the object is while references exist. Only its address may be used without a reference.
    T* getObject() noexcept { return reinterpret_cast<T*>(m_storage); }

protected:
    void build() override { new (m_storage) T(); }
    void destroy() override {
        T& object = *launder(getObject());
        if constexpr (CallsBack<T>::value) {
            if (isTakenInCallback(object)) {
                return;
            }
        }
        object.~T();
    }

private:
    template <typename U, typename = void>
    struct CallsBack : false_type {};
    template <typename U>
    struct CallsBack<
        U, void_t<decltype(declval<U&>().isCallingBack()), decltype(declval<U&>().waitForCallback())>>
        : true_type {};

    alignas(T) unsigned char m_storage[sizeof(T)];
};

} // namespace std
