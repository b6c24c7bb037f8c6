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
// host code runs: an operation holds what it uses and reads a field again
// where a step names it (see ref.hpp).
struct TrackerObject {
    PyObject_HEAD
    PyObject* module;   // the module whose attributes every operation reads
    PyObject* repo;     // _repo
    PyObject* limits;   // _limits
    PyObject* lock;     // _lock
    BoundCall acquire;  // _lock.acquire and _lock.release
    BoundCall release;
    PyObject* state;    // _state: tool name -> _ToolState
    PyObject* dirty;    // _dirty: set of tool names
    PyObject* usage;    // _usage: (tool, action, outcome, alias_hit) -> _Usage
    PyObject* weakrefs;
    unsigned long lock_owner;  // the thread inside an operation under the lock, or 0
    bool usage_dirty;   // _usage_dirty
    bool ready;         // __init__ has set the fields
};

inline TrackerObject* as_tracker(PyObject* self) noexcept {
    return reinterpret_cast<TrackerObject*>(self);
}

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
    int acquire() noexcept;
    // Releases the lock; -1 when the release itself failed.
    int release() noexcept;

private:
    TrackerObject* t_;
    BoundCall release_{};  // the acquired lock's release, its method held by release_ref_
    Ref release_ref_;
    unsigned long thread_ = 0;
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
