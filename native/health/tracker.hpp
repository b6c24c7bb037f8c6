// ToolHealthTracker: the object, and the operations other files add to it.
#pragma once

#include "lock.hpp"
#include "records.hpp"

namespace health {

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
    LockFields lock;    // _lock, with its acquire and release
    PyObject* state;    // _state: tool name -> _ToolState
    PyObject* dirty;    // _dirty: set of tool names
    PyObject* usage;    // _usage: (tool, action, outcome, alias_hit) -> _Usage
    PyObject* weakrefs;
    PyObject* changed;  // usage keys counted since the last _take_changes; null until its first call
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
PyObject* tracker_take_changes(PyObject* self, PyObject* const* args, Py_ssize_t nargs);
PyObject* tracker_apply_changes(PyObject* self, PyObject* const* args, Py_ssize_t nargs);
PyObject* tracker_usage_rows(PyObject* self, PyObject* const* args, Py_ssize_t nargs,
                             PyObject* kwnames);

}  // namespace health
