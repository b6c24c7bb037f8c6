// The change-set of a tracker whose state is shared through a store: what
// changed since the last exchange, as increments, handed over and cleared
// under one hold of the tracker's lock; and the store's merged totals, taken
// in under another. A plain tracker never calls either and sees no difference
// but the few bookkeeping fields its records carry.
//
// Each native record remembers what the store last acknowledged for it
// (synced_*). Taking a change-set sends current - synced and sets synced to
// current; taking in a merged total M moves the record by M - synced and sets
// synced to M, so calls counted here meanwhile are kept. The work under the
// lock is proportional to the records changed (the tool names in `_dirty`,
// the usage keys in `changed`), never to the size of the maps, and no copy of
// the maps is kept anywhere. A merged row of a tool or usage key this process
// has not seen is inserted when the registry knows it (looked up under the
// lock, as loading the history does).
//
// The disabled register travels only for what happened here: a disable by a
// run of errors, or a success while the store holds the tool disabled. An
// enable because the cooldown ran out stays local: every process computes the
// cooldown itself from the shared disabled_at, so a clock that runs ahead
// cannot end it for the others. A time from the future is taken in as `now`.
#include "tracker.hpp"

#include <algorithm>

namespace health {

namespace {

// A new set, or the list of a set's members (host code may change the set
// from another thread only under the tracker's lock, which the caller holds).
Ref members(PyObject* set) noexcept { return Ref(PySequence_List(set)); }

Ref bool_obj(bool v) noexcept { return Ref::borrow(v ? Py_True : Py_False); }

// (name, calls, errors, error_written, last_error, disabled_op, disabled_at, updated_at)
// for one native record, or a null Ref without error when it has nothing to send.
Ref take_tool(PyObject* name, PyObject* rec, bool* failed) noexcept {
    RecordLock locked(rec);
    ToolStateObject* s = as_state(rec);
    const int64_t calls = s->call_count - s->synced_calls;
    const int64_t errors = s->error_count - s->synced_errors;
    int disabled_op = 0;  // 1: disabled here, 2: enabled by a success here
    if ((s->events & kDisabledHere) && s->has_disabled_at) {
        disabled_op = 1;
        s->synced_has_disabled = true;
        s->synced_disabled_at = s->disabled_at;
    } else if ((s->events & kSucceeded) && !s->has_disabled_at && s->synced_has_disabled) {
        disabled_op = 2;
        s->synced_has_disabled = false;
    }
    s->events = 0;
    s->synced_calls = s->call_count;
    s->synced_errors = s->error_count;
    if (calls == 0 && errors == 0 && disabled_op == 0) return Ref();
    Ref disabled_at = disabled_op == 1 ? Ref(PyFloat_FromDouble(s->disabled_at)) : Ref::borrow(Py_None);
    Ref c(PyLong_FromLongLong(calls)), e(PyLong_FromLongLong(errors)), op(PyLong_FromLong(disabled_op));
    Ref updated(PyFloat_FromDouble(s->updated_at));
    if (!disabled_at || !c || !e || !op || !updated) {
        *failed = true;
        return Ref();
    }
    Ref out(PyTuple_Pack(8, name, c.get(), e.get(), bool_obj(errors > 0).get(),
                         errors > 0 ? s->last_error : Py_None, op.get(), disabled_at.get(),
                         updated.get()));
    if (!out) *failed = true;
    return out;
}

Ref take_usage(PyObject* key, PyObject* rec, bool* failed) noexcept {
    RecordLock locked(rec);
    UsageObject* u = as_usage(rec);
    const int64_t calls = u->calls - u->synced_calls;
    const int64_t timed = u->timed_calls - u->synced_timed;
    const double total = u->total_ms - u->synced_total;
    u->synced_calls = u->calls;
    u->synced_timed = u->timed_calls;
    u->synced_total = u->total_ms;
    if (calls == 0 && timed == 0 && total == 0.0) return Ref();
    Ref c(PyLong_FromLongLong(calls)), t(PyLong_FromLongLong(timed)), ms(PyFloat_FromDouble(total));
    if (!c || !t || !ms) {
        *failed = true;
        return Ref();
    }
    Ref out(PyTuple_Pack(4, key, c.get(), t.get(), ms.get()));
    if (!out) *failed = true;
    return out;
}

// Up to `limit` members popped from a set (every member when limit is 0), as a list.
Ref pop_members(PyObject* set, Py_ssize_t limit) noexcept {
    if (limit <= 0 || PySet_GET_SIZE(set) <= limit) {
        Ref list = members(set);
        if (!list || PySet_Clear(set) < 0) return Ref();
        return list;
    }
    Ref list(PyList_New(0));
    if (!list) return Ref();
    for (Py_ssize_t i = 0; i < limit && PySet_GET_SIZE(set) > 0; ++i) {
        Ref key(PySet_Pop(set));
        if (!key || PyList_Append(list.get(), key.get()) < 0) return Ref();
    }
    return list;
}

// For each of `keys` (or every key of `map` when keys is null) with a native
// record, take(key, record) appended to `out` when it gives something.
template <class Take>
int take_from(TrackerObject* self, PyObject* TrackerObject::*field, PyObject* keys, PyObject* out,
              bool (*native)(ModuleState*, PyObject*), Take&& take) noexcept {
    Ref map = load_field(self, field);
    Ref list = keys != nullptr ? Ref::borrow(keys) : Ref(PyDict_Keys(map.get()));
    if (!list) return -1;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list.get()); ++i) {
        PyObject* key = PyList_GET_ITEM(list.get(), i);
        Ref rec;
        const int found = dict_get_ref_locked(map.get(), key, rec);
        if (found < 0) return -1;
        if (found == 0 || !native(self->st, rec.get())) continue;  // a host's record stays local
        bool failed = false;
        Ref row = take(key, rec.get(), &failed);
        if (failed) return -1;
        if (row && PyList_Append(out, row.get()) < 0) return -1;
    }
    return 0;
}

PyObject* take_changes_locked(TrackerObject* self, Py_ssize_t limit) {
    const bool first = !load_field(self, &TrackerObject::changed);
    if (first) {
        Ref fresh(PySet_New(nullptr));
        if (!fresh) return nullptr;
        ObjectLock fields(self);
        Py_XSETREF(self->changed, fresh.release());
    }
    Ref tools(PyList_New(0)), usage(PyList_New(0));
    if (!tools || !usage) return nullptr;
    Ref dirty = load_field(self, &TrackerObject::dirty);
    Ref changed = load_field(self, &TrackerObject::changed);
    // The marks are taken off before the records are read: a record marked again meanwhile (host
    // code run by a lookup) is taken by the next call.
    Ref dirty_keys = first ? Ref::borrow(Py_None) : pop_members(dirty.get(), limit);
    Ref changed_keys = first ? Ref::borrow(Py_None) : pop_members(changed.get(), limit);
    if (!dirty_keys || !changed_keys) return nullptr;
    if (first && (PySet_Clear(dirty.get()) < 0 || PySet_Clear(changed.get()) < 0)) return nullptr;
    if (take_from(self, &TrackerObject::state, first ? nullptr : dirty_keys.get(), tools.get(),
                  is_native_state, take_tool) < 0 ||
        take_from(self, &TrackerObject::usage, first ? nullptr : changed_keys.get(), usage.get(),
                  is_native_usage, take_usage) < 0) {
        return nullptr;
    }
    const Py_ssize_t left = PySet_GET_SIZE(dirty.get()) + PySet_GET_SIZE(changed.get());
    if (left == 0) self->usage_dirty.set(false);
    if (limit <= 0) return PyTuple_Pack(2, tools.get(), usage.get());
    Ref remaining(PyLong_FromSsize_t(left));
    if (!remaining) return nullptr;
    return PyTuple_Pack(3, tools.get(), usage.get(), remaining.get());
}

// Whether a tool (and action) missing here is one to insert: the registry knows it. Looked up
// only for a row of a key this process has not seen, which a running fleet rarely sends.
int insertable(TrackerObject* self, PyObject* tool, PyObject* action) noexcept {
    return late_known(self->st, self->module, tool, action);
}

// One merged health row, as the store reads it: (name, calls, errors, last_error, disabled_at,
// updated_at).
int apply_tool(TrackerObject* self, PyObject* row, double now) noexcept {
    ModuleState* st = self->st;
    if (!PyTuple_Check(row) || PyTuple_GET_SIZE(row) < 6) {
        PyErr_SetString(PyExc_TypeError, "a merged health row is a tuple of 6");
        return -1;
    }
    PyObject* name = PyTuple_GET_ITEM(row, 0);
    PyObject* last_error = PyTuple_GET_ITEM(row, 3);
    PyObject* disabled_obj = PyTuple_GET_ITEM(row, 4);
    int64_t calls, errors;
    double disabled_at = 0.0, updated_at;
    const bool has_disabled = disabled_obj != Py_None;
    if (as_int64(PyTuple_GET_ITEM(row, 1), &calls) < 0 || as_int64(PyTuple_GET_ITEM(row, 2), &errors) < 0 ||
        (has_disabled && as_double(disabled_obj, &disabled_at) < 0) ||
        as_double(PyTuple_GET_ITEM(row, 5), &updated_at) < 0) {
        return -1;
    }
    Ref state = load_field(self, &TrackerObject::state);
    Ref rec;
    const int found = dict_get_ref_locked(state.get(), name, rec);
    if (found < 0) return -1;
    if (found == 0) {
        const int insert = insertable(self, name, Py_None);
        if (insert <= 0) return insert;
        Ref dis = has_disabled ? Ref(PyFloat_FromDouble(std::min(disabled_at, now))) : Ref::borrow(Py_None);
        Ref upd(PyFloat_FromDouble(std::min(updated_at, now)));
        if (!dis || !upd) return -1;
        rec = seeded_tool_state(st, self->module, calls, errors, last_error, dis.get(), upd.get());
        if (!rec) return -1;
        if (is_native_state(st, rec.get())) {
            ToolStateObject* s = as_state(rec.get());  // not yet seen by another thread
            s->synced_calls = calls;
            s->synced_errors = errors;
            s->synced_has_disabled = has_disabled;
            s->synced_disabled_at = disabled_at;
        }
        state = load_field(self, &TrackerObject::state);  // the lookups above may have run host code
        return PyDict_SetItem(state.get(), name, rec.get());
    }
    if (!is_native_state(st, rec.get())) return 0;
    Ref old_message;
    {
        RecordLock locked(rec.get());
        ToolStateObject* s = as_state(rec.get());
        const bool errors_here = s->error_count != s->synced_errors;
        s->call_count += calls - s->synced_calls;
        s->error_count += errors - s->synced_errors;
        s->synced_calls = calls;
        s->synced_errors = errors;
        if (!errors_here && s->last_error != last_error) {  // no error here since the last change-set
            old_message.reset(s->last_error);
            s->last_error = Py_NewRef(last_error);
        }
        const bool news = has_disabled != s->synced_has_disabled ||
                          (has_disabled && disabled_at != s->synced_disabled_at);
        // A disable here, or a success here over a shared disable, is sent with the next
        // change-set and wins over what the store said before it.
        const bool pending = (s->events & kDisabledHere) ||
                             ((s->events & kSucceeded) && !s->has_disabled_at);
        if (news && !pending) {
            if (s->has_disabled_at && !has_disabled) s->consecutive_errors = 0;  // enabled elsewhere
            s->has_disabled_at = has_disabled;
            s->disabled_at = has_disabled ? std::min(disabled_at, now) : 0.0;
        }
        s->synced_has_disabled = has_disabled;
        s->synced_disabled_at = disabled_at;
        s->updated_at = std::max(s->updated_at, std::min(updated_at, now));
    }
    return 0;  // the replaced message is dropped here, outside the record's lock
}

// One merged usage row, as the store reads it: (tool, action, outcome, alias_hit, calls,
// timed_calls, total_ms).
int apply_usage(TrackerObject* self, PyObject* row) noexcept {
    ModuleState* st = self->st;
    if (!PyTuple_Check(row) || PyTuple_GET_SIZE(row) < 7) {
        PyErr_SetString(PyExc_TypeError, "a merged usage row is a tuple of 7");
        return -1;
    }
    int64_t calls, timed;
    double total;
    if (as_int64(PyTuple_GET_ITEM(row, 4), &calls) < 0 || as_int64(PyTuple_GET_ITEM(row, 5), &timed) < 0 ||
        as_double(PyTuple_GET_ITEM(row, 6), &total) < 0) {
        return -1;
    }
    const int alias = PyObject_IsTrue(PyTuple_GET_ITEM(row, 3));
    if (alias < 0) return -1;
    Ref key(PyTuple_Pack(4, PyTuple_GET_ITEM(row, 0), PyTuple_GET_ITEM(row, 1), PyTuple_GET_ITEM(row, 2),
                         alias ? Py_True : Py_False));
    if (!key) return -1;
    Ref usage = load_field(self, &TrackerObject::usage);
    Ref rec;
    const int found = dict_get_ref_locked(usage.get(), key.get(), rec);
    if (found < 0) return -1;
    if (found == 0) {
        const int insert = insertable(self, PyTuple_GET_ITEM(row, 0), PyTuple_GET_ITEM(row, 1));
        if (insert <= 0) return insert;
        rec = seeded_usage(st, self->module, PyTuple_GET_ITEM(row, 4), PyTuple_GET_ITEM(row, 5),
                           PyTuple_GET_ITEM(row, 6));
        if (!rec) return -1;
        if (is_native_usage(st, rec.get())) {
            UsageObject* u = as_usage(rec.get());
            u->synced_calls = calls;
            u->synced_timed = timed;
            u->synced_total = total;
        }
        usage = load_field(self, &TrackerObject::usage);
        return PyDict_SetItem(usage.get(), key.get(), rec.get());
    }
    if (!is_native_usage(st, rec.get())) return 0;
    RecordLock locked(rec.get());
    UsageObject* u = as_usage(rec.get());
    u->calls += calls - u->synced_calls;
    u->timed_calls += timed - u->synced_timed;
    u->total_ms += total - u->synced_total;
    u->synced_calls = calls;
    u->synced_timed = timed;
    u->synced_total = total;
    return 0;
}

}  // namespace

PyObject* tracker_take_changes(PyObject* op, PyObject* const* args, Py_ssize_t nargs) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    Py_ssize_t limit = 0;
    if (nargs > 1) {
        PyErr_SetString(PyExc_TypeError, "_take_changes(limit: int = 0)");
        return nullptr;
    }
    if (nargs == 1) {
        limit = PyLong_AsSsize_t(args[0]);
        if (limit == -1 && PyErr_Occurred()) return nullptr;
        if (limit < 0) {
            PyErr_SetString(PyExc_ValueError, "_take_changes: the limit is 0 (every change) or more");
            return nullptr;
        }
    }
    return with_lock(self, [&] { return take_changes_locked(self, limit); });
}

PyObject* tracker_apply_changes(PyObject* op, PyObject* const* args, Py_ssize_t nargs) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    if (nargs != 3 || !PyList_Check(args[0]) || !PyList_Check(args[1])) {
        PyErr_SetString(PyExc_TypeError, "_apply_changes(tools: list, usage: list, now: float)");
        return nullptr;
    }
    double now;
    if (as_double(args[2], &now) < 0) return nullptr;
    // Held lists: host code run by a lookup cannot free them under the loop.
    Ref tools = Ref::borrow(args[0]), usage = Ref::borrow(args[1]);
    return with_lock(self, [&]() -> PyObject* {
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(tools.get()); ++i) {
            Ref row = Ref::borrow(PyList_GET_ITEM(tools.get(), i));
            if (apply_tool(self, row.get(), now) < 0) return nullptr;
        }
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(usage.get()); ++i) {
            Ref row = Ref::borrow(PyList_GET_ITEM(usage.get(), i));
            if (apply_usage(self, row.get()) < 0) return nullptr;
        }
        Py_RETURN_NONE;
    });
}

}  // namespace health
