// The tracker's lock: its methods bound once, which thread holds which lock,
// and the hold every locking operation takes. The lock is not re-entrant, so
// a thread that would take it again from host code it runs under it is
// refused with RuntimeError instead of deadlocking.
//
// Nothing here depends on the tracker's layout: a tracker has a `ready` flag
// and a LockFields member named `lock`, read under its own critical section.
#pragma once

#include "health.hpp"

namespace health {

// A method of the lock, bound once and called without arguments. A builtin
// method (the real threading.Lock) is called through its C function directly:
// the same call, without the generic calling machinery on every tool call.
struct BoundCall {
    PyObject* method;      // the bound method object (owned by the tracker)
    PyCFunction function;  // its C function, when it is a builtin one
    PyObject* self;        // the object it is bound to (borrowed from `method`)
    int flags;

    void bind(PyObject* bound) noexcept;
    PyObject* operator()(PyObject* empty_tuple) const noexcept;
};

// `_lock` and its bound acquire() and release(), replaced together.
struct LockFields {
    PyObject* object;
    BoundCall acquire;
    BoundCall release;
};

// The bound acquire() and release() of `lock`: TypeError unless both are callable.
int lock_methods(ModuleState* st, PyObject* lock, Ref& acquire, Ref& release) noexcept;
// Puts `lock` and its methods into `fields`; the replaced ones go to `old`, to be
// dropped by the caller once its fields are consistent (dropping may run host
// code). The caller holds the tracker's field lock.
void install_lock(LockFields& fields, PyObject* lock, Ref& acquire, Ref& release, Ref old[3]) noexcept;
// Drops the lock and its methods (the tracker's tp_clear).
void clear_lock(LockFields& fields) noexcept;

// The trackers, and the lock objects, that this thread holds through an
// operation, innermost last. Kept per thread rather than per tracker: another
// thread may take a lock that host code assigned to `_lock` meanwhile. The
// lock objects count too, since two trackers may share one lock.
struct ThreadHolds {
    static constexpr int kMax = 16;
    struct Hold {
        const PyObject* tracker;
        const PyObject* lock;
    };
    Hold held[kMax];
    int count;

    bool holds(const PyObject* t, const PyObject* lock) const noexcept {
        for (int i = 0; i < count; ++i) {
            if (held[i].tracker == t || held[i].lock == lock) return true;
        }
        return false;
    }
    bool full() const noexcept { return count == kMax; }
    void push(const PyObject* t, const PyObject* lock) noexcept { held[count++] = Hold{t, lock}; }
    void pop(const PyObject* t) noexcept {
        for (int i = count - 1; i >= 0; --i) {  // the innermost, unless released out of order
            if (held[i].tracker == t) {
                for (int j = i; j + 1 < count; ++j) held[j] = held[j + 1];
                --count;
                return;
            }
        }
    }
};

// Trivially constructible, so no per-access initialisation; the initial-exec
// model reads it at a fixed offset rather than through __tls_get_addr. Each
// thread has its own, whatever interpreter it runs.
#if defined(__GNUC__) && defined(__linux__)
#define HEALTH_TLS_MODEL __attribute__((tls_model("initial-exec")))
#else
#define HEALTH_TLS_MODEL
#endif
#if defined(__GNUC__)
#define HEALTH_ALWAYS_INLINE __attribute__((always_inline)) inline
#else
#define HEALTH_ALWAYS_INLINE inline
#endif
extern HEALTH_TLS_MODEL thread_local ThreadHolds thread_holds;

// Raises RuntimeError: the tracker's __init__ has not run.
int not_ready() noexcept;
template <class Tracker>
HEALTH_ALWAYS_INLINE int check_ready(Tracker* t) noexcept {
    return t->ready.get_acquire() ? 0 : not_ready();
}

// Raises RuntimeError when the calling thread holds `tracker`, or `lock`,
// through an operation (a callback re-entering it), or is nested too deeply.
int refuse_held(const PyObject* tracker, const PyObject* lock) noexcept;
// The same for a tracker and its current lock: its lock is not re-entrant, and
// no statement may run while it is held.
template <class Tracker>
int refuse_under_own_lock(Tracker* t) noexcept {
    const PyObject* lock;
    {
        ObjectLock fields(t);
        lock = t->lock.object;  // compared only: a lock this thread holds is kept alive
    }
    return refuse_held(reinterpret_cast<PyObject*>(t), lock);
}

// Holds a tracker's lock; the destructor releases it on an error path while
// keeping the pending exception. It releases the lock it acquired, even when
// host code assigned another one to `_lock` meanwhile.
class LockHold {
public:
    template <class Tracker>
    explicit LockHold(Tracker* t) noexcept
        : owner_(reinterpret_cast<PyObject*>(t)), fields_(&t->lock), empty_tuple_(t->st->empty_tuple) {}
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;
    ~LockHold() {
        if (held_) release_after_error();
    }

    HEALTH_ALWAYS_INLINE int acquire() noexcept {
        if (thread_holds.count > 0 && refuse_current() < 0) return -1;
        // The lock and its acquire and release, read together and kept alive
        // through the hold: a host acquire, or another thread, may assign a
        // new `_lock`. The lock object keeps builtin methods bound to it (the
        // real lock: one reference for all), anything else is kept itself.
        BoundCall acquire;
        Ref keep_acquire;
        {
            ObjectLock fields(owner_);
            acquire = fields_->acquire;
            release_ = fields_->release;
            keep_ = Ref::borrow(fields_->object);
            if (acquire.function == nullptr || release_.function == nullptr ||
                acquire.self != keep_.get() || release_.self != keep_.get()) {
                keep_acquire = Ref::borrow(acquire.method);
                keep_method_ = Ref::borrow(release_.method);
            }
        }
        // The thread counts as holding the lock from before its acquire until
        // after its release: a host lock's methods may call back too.
        thread_holds.push(owner_, keep_.get());
        PyObject* r = acquire(empty_tuple_);
        if (r == nullptr) {
            thread_holds.pop(owner_);
            return -1;
        }
        Py_DECREF(r);
        held_ = true;
        return 0;
    }

    // Releases the lock; -1 when the release itself failed.
    int release() noexcept {
        if (!held_) return 0;
        held_ = false;
        PyObject* r = release_(empty_tuple_);
        thread_holds.pop(owner_);
        keep_.reset();
        keep_method_.reset();
        if (r == nullptr) return -1;
        Py_DECREF(r);
        return 0;
    }

private:
    int refuse_current() noexcept;
    void release_after_error() noexcept;

    PyObject* owner_;          // the tracker
    const LockFields* fields_;  // its lock fields, read under its field lock
    PyObject* empty_tuple_;
    BoundCall release_{};  // the acquired lock's release
    Ref keep_;             // the acquired lock object
    Ref keep_method_;      // its release method, unless the lock object keeps it
    bool held_ = false;
};

// Runs body() under the lock of a ready tracker; body returns a new reference
// or null with an error.
template <class Tracker, class F>
PyObject* with_lock(Tracker* self, F&& body) noexcept {
    LockHold hold(self);
    if (hold.acquire() < 0) return nullptr;
    PyObject* result = guarded<PyObject*>(nullptr, body);
    if (result == nullptr) return nullptr;  // the destructor releases
    if (hold.release() < 0) {
        Py_DECREF(result);
        return nullptr;
    }
    return result;
}

}  // namespace health
