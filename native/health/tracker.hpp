// ToolHealthTracker: the object, its lock, and the operations other files add to it.
#pragma once

#include "records.hpp"

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

// The fields a host may assign (`_state`, `_usage`, `_dirty`, `_lock`) are
// checked on assignment, so an operation always finds an exact dict, an exact
// set and a lock with callable acquire and release. They may change whenever
// host code runs, on this thread or another: they are read and replaced under
// the tracker's own lock (sync.hpp), an operation holds what it read
// (load_field) and reads a field again where a step names it (see ref.hpp).
// `_repo` and `_limits` never change once `ready` is set.
struct TrackerObject {
    PyObject_HEAD
    PyObject* module;   // the module whose attributes every operation reads
    ModuleState* st;    // its state, which lives as long as the module
    PyObject* repo;     // _repo
    PyObject* limits;   // _limits
    PyObject* lock;     // _lock
    BoundCall acquire;  // _lock.acquire and _lock.release
    BoundCall release;
    PyObject* state;    // _state: tool name -> _ToolState
    PyObject* dirty;    // _dirty: set of tool names
    PyObject* usage;    // _usage: (tool, action, outcome, alias_hit) -> _Usage
    PyObject* weakrefs;
    Flag usage_dirty;   // _usage_dirty
    Flag ready;         // __init__ has set the fields
};

inline TrackerObject* as_tracker(PyObject* self) noexcept {
    return reinterpret_cast<TrackerObject*>(self);
}

// One of the replaceable fields as it is now, held.
inline Ref load_field(TrackerObject* self, PyObject* TrackerObject::*field) noexcept {
    ObjectLock lock(self);
    return Ref::borrow(self->*field);
}

// The trackers, and the lock objects, that this thread holds through an
// operation, innermost last. Kept per thread rather than per tracker: another
// thread may take a lock that host code assigned to `_lock` meanwhile. The
// lock objects count too, since two trackers may share one lock.
struct ThreadHolds {
    static constexpr int kMax = 16;
    struct Hold {
        const TrackerObject* tracker;
        const PyObject* lock;
    };
    Hold held[kMax];
    int count;

    bool holds(const TrackerObject* t, const PyObject* lock) const noexcept {
        for (int i = 0; i < count; ++i) {
            if (held[i].tracker == t || held[i].lock == lock) return true;
        }
        return false;
    }
    bool full() const noexcept { return count == kMax; }
    void push(const TrackerObject* t, const PyObject* lock) noexcept { held[count++] = Hold{t, lock}; }
    void pop(const TrackerObject* t) noexcept {
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
// model reads it at a fixed offset rather than through __tls_get_addr.
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

// Raises RuntimeError for a tracker whose __init__ has not run.
int check_ready(TrackerObject* self) noexcept;

// Raises RuntimeError when the calling thread is inside an operation of this
// tracker that holds its lock (a callback re-entering it): the lock is not
// re-entrant, and no statement may run while it is held.
int refuse_under_own_lock(TrackerObject* self) noexcept;

// Holds the tracker's lock; the destructor releases it on an error path while
// keeping the pending exception. It releases the lock it acquired, even when
// host code assigned another one to `_lock` meanwhile.
class LockHold {
public:
    explicit LockHold(TrackerObject* tracker) noexcept : t_(tracker) {}
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;
    ~LockHold();

    HEALTH_ALWAYS_INLINE int acquire() noexcept {
        if (thread_holds.count > 0 && refuse_under_own_lock(t_) < 0) return -1;
        // The lock and its acquire and release, read together and kept alive
        // through the hold: a host acquire, or another thread, may assign a
        // new `_lock`. The lock object keeps builtin methods bound to it (the
        // real lock: one reference for all), anything else is kept itself.
        BoundCall acquire;
        Ref keep_acquire;
        {
            ObjectLock fields(t_);
            acquire = t_->acquire;
            release_ = t_->release;
            keep_ = Ref::borrow(t_->lock);
            if (acquire.function == nullptr || release_.function == nullptr ||
                acquire.self != keep_.get() || release_.self != keep_.get()) {
                keep_acquire = Ref::borrow(acquire.method);
                keep_method_ = Ref::borrow(release_.method);
            }
        }
        // The thread counts as holding the lock from before its acquire until
        // after its release: a host lock's methods may call back too.
        thread_holds.push(t_, keep_.get());
        PyObject* r = acquire(t_->st->empty_tuple);
        if (r == nullptr) {
            thread_holds.pop(t_);
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
        PyObject* r = release_(t_->st->empty_tuple);
        thread_holds.pop(t_);
        keep_.reset();
        keep_method_.reset();
        if (r == nullptr) return -1;
        Py_DECREF(r);
        return 0;
    }

private:
    TrackerObject* t_;
    BoundCall release_{};  // the acquired lock's release
    Ref keep_;             // the acquired lock object
    Ref keep_method_;      // its release method, unless the lock object keeps it
    bool held_ = false;
};

// Runs body() under the lock of a ready tracker; body returns a new reference
// or null with an error.
template <class F>
PyObject* with_lock(TrackerObject* self, F&& body) noexcept {
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

// Calls self.<name>() natively for the module's own type, through the
// instance for a subclass, so an override is honoured.
Ref call_own(TrackerObject* self, PyObject* name, PyCFunction native) noexcept;

// Operations defined in history.cpp and summary.cpp.
PyObject* tracker_load(PyObject* self, PyObject* unused);
PyObject* tracker_load_usage(PyObject* self, PyObject* unused);
PyObject* tracker_flush(PyObject* self, PyObject* unused);
PyObject* tracker_flush_health(PyObject* self, PyObject* unused);
PyObject* tracker_flush_usage(PyObject* self, PyObject* unused);
PyObject* tracker_has_unsaved_changes(PyObject* self, void* unused);
PyObject* tracker_get_health_summary(PyObject* self, PyObject* unused);
PyObject* tracker_usage_rows(PyObject* self, PyObject* const* args, Py_ssize_t nargs,
                             PyObject* kwnames);

}  // namespace health
