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

/// Common base of all `Shared`: the count of references, and the lock that guards construction and
/// destruction.
class SharedBase : private tarnbase::NonCopyable {
public:
    /// The part of a reference that does not depend on the object's type. Not used directly; see `Ptr`.
    class PtrBase;

    /// A counted reference to the object of a `Shared`. Copyable and assignable, two words in size.
    template <typename T>
    class Ptr;

protected:
    constexpr SharedBase() noexcept
        : refcount(0), m_lock(threadsafe::ConstantInit{TARN_LOCK_NAME(SHARED_OBJECT)}) {}
    virtual ~SharedBase() {} // NOLINT(modernize-use-equals-default): it must leave the lock alone.

    /// @{
    /// Construct the object, called for the first reference, and destroy it, called for the last. The
    /// holder's lock is held during both.
    virtual void build() = 0;
    virtual void destroy() = 0;
    /// @}

    /// Waits, on behalf of `destroy`, until no thread of the object runs a callback. Releases the lock and
    /// keeps the object meanwhile, so that these callbacks may take references.
    /// @return true if a callback has kept a reference, so that the object must stay
    template <typename T>
    bool isTakenInCallback(T& object) TARN_REQUIRES(m_lock);

    /// The number of holders.
    std::atomic<unsigned int> refcount;

private:
    static constexpr char const* SOURCE = "framework/include/common/Shared";

    // Never destroyed: another thread may take a reference while the process ends. The mutex owns no
    // resources, so nothing leaks.
    union {
        threadsafe::MutexImpl m_lock;
    };
};

template <typename T>
bool SharedBase::isTakenInCallback(T& object) TARN_NOT_ANALYZED {
    while (object.isCallingBack()) {
        refcount.store(1);
        if (m_lock.unlock()) {
            // LCOV_EXCL_LINE: the lock was valid when this thread acquired it
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "~PtrBase", "error unlocking");
        }
        object.waitForCallback();
        if (m_lock.lock()) {
            // LCOV_EXCL_LINE: the lock was valid when this thread acquired it
            GlobalErrorHandler::doAbort(SOURCE, __LINE__, "~PtrBase", "error locking");
        }
        if (refcount.fetch_sub(1) != 1) {
            return true;
        }
    }
    return false;
}

/// The part of a reference that does not depend on the type of the object.
class SharedBase::PtrBase {
public:
    /// Returns the holder, null for an empty reference.
    SharedBase* getHolder() const noexcept { return m_shared; }

protected:
    /// Becomes a holder of the object, unless it is null.
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

    /// Becomes a further holder of the same object.
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

    /// Exchanges the objects of two holders.
    void swapHolders(PtrBase& other) noexcept {
        SharedBase* const shared = m_shared;
        m_shared = other.m_shared;
        other.m_shared = shared;
    }

private:
    /// Guard that reverts the count if the object's constructor throws, so that the next reference tries
    /// again.
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
    /// Creates an empty reference.
    Ptr() noexcept : PtrBase(nullptr), m_object(nullptr) {}

    /// Takes a reference to `holder`, and constructs its object if it is the first reference. Blocks as long
    /// as the object's constructor runs, here and in other threads that take a reference meanwhile.
    /// @param holder  null makes an empty reference that still points to `object`
    /// @param object  the target of the reference, normally the holder's object
    Ptr(SharedBase* holder, T* object) : PtrBase(holder), m_object(object) {}

    /// Takes a reference to a holder and its own object.
    template <typename U>
    explicit Ptr(Shared<U>& holder) : PtrBase(&holder), m_object(holder.getObject()) {}

    /// Becomes a further holder of the same object.
    Ptr(Ptr const& other) = default;

    /// Takes the new reference before it releases the old one, so that an object that both share is kept.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the copy comes first.
    Ptr& operator=(Ptr const& other) {
        Ptr copy(other);
        this->swapHolders(copy);
        T* const object = m_object;
        m_object = copy.m_object;
        copy.m_object = object;
        return *this;
    }

    /// Releases the reference. Destroys the object if it was the last reference, with cancellation of the
    /// thread disabled.
    ~Ptr() = default;

    /// Returns the object, null for an empty reference.
    T* get() const noexcept { return m_object; }
    /// Gives access to the object. Must not be used on an empty reference.
    T* operator->() const noexcept { return m_object; }
    /// Returns the object. Must not be used on an empty reference.
    T& operator*() const noexcept { return *m_object; }
    /// Returns whether there is an object.
    explicit operator bool() const noexcept { return m_object != nullptr; }

private:
    T* m_object;
};

/// Holder of an object that exists exactly as long as it is in use. The first reference constructs the
/// object, the last one destroys it, and a later one constructs a new object. Intended for global objects of
/// a library that own expensive resources, such as a thread.
///
///     std::Shared<Engine> engine;                                   // Global; no Engine exists yet.
///     std::SharedBase::Ptr<Engine> const reference(engine);         // Now one does.
///     reference->poke();
///
/// The holder contains the storage: the object itself is never on the heap. Any thread may create and destroy
/// references. Each of these takes the holder's lock, and waits while another thread constructs or destroys
/// the object. References must not be created or destroyed in the constructor or destructor of the same
/// object. If a lock fails, `GlobalErrorHandler::doAbort` is called with "error locking" or
/// "error unlocking".
///
/// If the destructor of the object joins a thread, it would deadlock with a callback on that thread that
/// takes a reference. A class avoids this with two operations: `isCallingBack()` returns whether a thread of
/// the object, other than the calling one, runs a callback, and `waitForCallback()` waits for the end of the
/// callback. The release of the last reference then waits for the callback without the holder's lock, and
/// keeps the object if the callback has taken a reference.
///
/// A global holder is constant-initialized, so that every initializer may use it. A holder that is destroyed
/// while references exist does not destroy the object. The end of the process does not destroy the holders of
/// this library: threads may take references as long as they run.
template <typename T>
class Shared : public SharedBase {
public:
    constexpr Shared() noexcept : m_storage{} {}

    /// Returns the address of the object. Without a reference only the address may be used, not the object.
    T* getObject() noexcept { return reinterpret_cast<T*>(m_storage); }

protected:
    void build() override { new (m_storage) T(); }
    // Not analyzed: the base class holds its lock.
    /// Returns the object to its pool.
    void destroy() override TARN_NOT_ANALYZED {
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
