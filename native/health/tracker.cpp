// ToolHealthTracker: construction, and the four operations on every
// tool call. These change only memory: each takes the tracker's lock, looks one
// record up, updates a few fields and marks what the mirror must receive.
#include "tracker.hpp"

#include <cmath>
#include <cstddef>
#include <optional>
#include <structmember.h>

namespace health {

// ---------------------------------------------------------------------------
// Construction's own calls

Ref call_own(TrackerObject* self, PyObject* name, PyCFunction native) noexcept {
    ModuleState* st = self->st;
    if (Py_TYPE(self) == st->tracker_type) {
        return Ref(native(reinterpret_cast<PyObject*>(self), nullptr));
    }
    return call_method(reinterpret_cast<PyObject*>(self), name, {});
}

// ---------------------------------------------------------------------------
// Small pieces of the operations

// `now` as the object a record of a host type receives.
static int set_time_attr(PyObject* rec, PyObject* field, double now) noexcept {
    Ref value(PyFloat_FromDouble(now));
    if (!value) return -1;
    return PyObject_SetAttr(rec, field, value.get());
}

// The record of `key` in the map `self->*field`, inserting `make()` at the end
// when there is none. The map is held while a lookup runs the key's hash and
// eq, and read from the field again for the insertion, since making the
// record may run host code; the record comes back held.
template <class Make>
static Ref find_or_insert(TrackerObject* self, PyObject* TrackerObject::*field, PyObject* key,
                          Make&& make) noexcept {
    {
        Ref map = load_field(self, field);
        Ref found;
        if (dict_get_ref_locked(map.get(), key, found) != 0) return found;  // found, or an error
    }
    Ref fresh = make();
    if (!fresh) return Ref();
    Ref map = load_field(self, field);
    if (PyDict_SetItem(map.get(), key, fresh.get()) < 0) return Ref();
    return fresh;
}

// Adds `name` to `_dirty` as the field is now.
static int mark_dirty(TrackerObject* self, PyObject* name) noexcept {
    Ref dirty = load_field(self, &TrackerObject::dirty);
    return PySet_Add(dirty.get(), name);
}

// The cooldown as the `cooldown_s` property gives it: a subclass may override it.
static Ref cooldown(ModuleState* st, TrackerObject* self) noexcept {
    if (Py_TYPE(self) == st->tracker_type) {
        return Ref(PyObject_GetAttr(self->limits, st->s_disable_cooldown_s));
    }
    return Ref(PyObject_GetAttr(reinterpret_cast<PyObject*>(self), st->s_cooldown_s));
}

// `elapsed >= limit` with Python's exact comparison of a float with any number.
static int elapsed_reached(double elapsed, PyObject* limit) noexcept {
    if (PyFloat_CheckExact(limit)) return elapsed >= PyFloat_AS_DOUBLE(limit);
    if (PyLong_CheckExact(limit)) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(limit, &overflow);
        if (overflow == 0 && !(v == -1 && PyErr_Occurred()) && v <= (1LL << 53) &&
            v >= -(1LL << 53)) {
            return elapsed >= static_cast<double>(v);
        }
        PyErr_Clear();
    }
    Ref boxed(PyFloat_FromDouble(elapsed));
    if (!boxed) return -1;
    return PyObject_RichCompareBool(boxed.get(), limit, Py_GE);
}

// `run >= limit` for a 64-bit run against the configured limit.
static int run_reached(int64_t run, PyObject* limit) noexcept {
    if (PyLong_CheckExact(limit)) {
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(limit, &overflow);
        if (overflow != 0) return overflow < 0;
        if (!(v == -1 && PyErr_Occurred())) return run >= v;
        return -1;
    }
    Ref boxed(PyLong_FromLongLong(run));
    if (!boxed) return -1;
    return PyObject_RichCompareBool(boxed.get(), limit, Py_GE);
}

// The message kept for an error: its first 500 characters, or "" when empty or absent.
static Ref error_message(ModuleState* st, PyObject* error) noexcept {
    constexpr Py_ssize_t kMaxMessage = 500;
    if (PyUnicode_CheckExact(error)) {
        if (PyUnicode_GET_LENGTH(error) == 0) return Ref::borrow(st->empty_str);
        if (PyUnicode_GET_LENGTH(error) <= kMaxMessage) return Ref::borrow(error);
        return Ref(PyUnicode_Substring(error, 0, kMaxMessage));
    }
    if (error == Py_None) return Ref::borrow(st->empty_str);
    const int truth = PyObject_IsTrue(error);
    if (truth < 0) return Ref();
    if (truth == 0) return Ref::borrow(st->empty_str);
    Ref stop(PyLong_FromSsize_t(kMaxMessage));
    if (!stop) return Ref();
    Ref slice(PySlice_New(nullptr, stop.get(), nullptr));
    if (!slice) return Ref();
    return Ref(PyObject_GetItem(error, slice.get()));
}

// total_ms += duration for a native record: Python's float addition.
static int add_duration(double* total, PyObject* duration) noexcept {
    if (PyFloat_CheckExact(duration)) {
        *total += PyFloat_AS_DOUBLE(duration);
        return 0;
    }
    if (PyLong_CheckExact(duration)) {
        const double d = PyLong_AsDouble(duration);
        if (d == -1.0 && PyErr_Occurred()) return -1;
        *total += d;
        return 0;
    }
    Ref current(PyFloat_FromDouble(*total));
    if (!current) return -1;
    Ref sum(PyNumber_Add(current.get(), duration));
    if (!sum) return -1;
    return as_double(sum.get(), total);
}

// ---------------------------------------------------------------------------
// The operations on the call path

static PyObject* is_disabled_locked(ModuleState* st, TrackerObject* self, PyObject* name) {
    Ref rec;
    {
        Ref state = load_field(self, &TrackerObject::state);
        const int found = dict_get_ref_locked(state.get(), name, rec);
        if (found <= 0) return found < 0 ? nullptr : Py_NewRef(st->not_disabled);
    }
    const bool native = is_native_state(st, rec.get());
    // A native record stays locked through the operation (see records.hpp).
    std::optional<RecordLock> locked;
    double disabled_at = 0.0;
    Ref disabled_obj;
    if (native) {
        locked.emplace(rec.get());
        if (!as_state(rec.get())->has_disabled_at) return Py_NewRef(st->not_disabled);
        disabled_at = as_state(rec.get())->disabled_at;
    } else {
        disabled_obj.reset(PyObject_GetAttr(rec.get(), st->s_disabled_at));
        if (!disabled_obj) return nullptr;
        if (disabled_obj.get() == Py_None) return Py_NewRef(st->not_disabled);
    }
    double now;
    if (wall_clock(st, self->module, &now) < 0) return nullptr;
    Ref limit = cooldown(st, self);
    if (!limit) return nullptr;
    int expired;
    if (native) {
        expired = elapsed_reached(now - disabled_at, limit.get());
    } else {
        Ref now_obj(PyFloat_FromDouble(now));
        if (!now_obj) return nullptr;
        Ref elapsed(PyNumber_Subtract(now_obj.get(), disabled_obj.get()));
        if (!elapsed) return nullptr;
        expired = PyObject_RichCompareBool(elapsed.get(), limit.get(), Py_GE);
    }
    if (expired < 0) return nullptr;
    if (expired == 0) {
        Ref last = native ? Ref::borrow(as_state(rec.get())->last_error)
                          : state_field(st, rec.get(), st->s_last_error);
        if (!last) return nullptr;
        return PyTuple_Pack(2, Py_True, last.get());
    }
    if (native) {
        ToolStateObject* s = as_state(rec.get());
        s->consecutive_errors = 0;
        s->has_disabled_at = false;
        s->updated_at = now;
    } else {
        Ref zero(PyLong_FromLong(0));
        if (!zero || PyObject_SetAttr(rec.get(), st->s_consecutive_errors, zero.get()) < 0 ||
            PyObject_SetAttr(rec.get(), st->s_disabled_at, Py_None) < 0 ||
            set_time_attr(rec.get(), st->s_updated_at, now) < 0) {
            return nullptr;
        }
    }
    if (mark_dirty(self, name) < 0) return nullptr;
    return Py_NewRef(st->not_disabled);
}

static PyObject* record_success_locked(ModuleState* st, TrackerObject* self, PyObject* name) {
    Ref rec = find_or_insert(self, &TrackerObject::state, name,
                             [&] { return new_tool_state(st, self->module); });
    if (!rec) return nullptr;
    double now;
    if (is_native_state(st, rec.get())) {
        RecordLock locked(rec.get());
        ToolStateObject* s = as_state(rec.get());
        if (increment(&s->call_count) < 0) return nullptr;
        s->consecutive_errors = 0;
        s->has_disabled_at = false;
        if (wall_clock(st, self->module, &now) < 0) return nullptr;
        s->updated_at = now;
        s->events = static_cast<uint8_t>((s->events | kSucceeded) & ~kDisabledHere);
    } else {
        Ref zero(PyLong_FromLong(0));
        if (!zero || increment_attr(rec.get(), st->s_call_count) < 0 ||
            PyObject_SetAttr(rec.get(), st->s_consecutive_errors, zero.get()) < 0 ||
            PyObject_SetAttr(rec.get(), st->s_disabled_at, Py_None) < 0 ||
            wall_clock(st, self->module, &now) < 0 ||
            set_time_attr(rec.get(), st->s_updated_at, now) < 0) {
            return nullptr;
        }
    }
    if (mark_dirty(self, name) < 0) return nullptr;
    Py_RETURN_NONE;
}

static PyObject* record_error_locked(ModuleState* st, TrackerObject* self, PyObject* name,
                                     PyObject* error) {
    Ref rec = find_or_insert(self, &TrackerObject::state, name,
                             [&] { return new_tool_state(st, self->module); });
    if (!rec) return nullptr;
    PyObject* limits = self->limits;  // never replaced once the tracker is ready (see __init__)
    double now;
    if (is_native_state(st, rec.get())) {
        RecordLock locked(rec.get());
        ToolStateObject* s = as_state(rec.get());
        if (increment(&s->call_count) < 0 || increment(&s->error_count) < 0 ||
            increment(&s->consecutive_errors) < 0) {
            return nullptr;
        }
        Ref message = error_message(st, error);
        if (!message) return nullptr;
        Py_SETREF(s->last_error, message.release());
        if (wall_clock(st, self->module, &now) < 0) return nullptr;
        s->updated_at = now;
        Ref limit(PyObject_GetAttr(limits, st->s_disable_after_errors));
        if (!limit) return nullptr;
        const int reached = run_reached(s->consecutive_errors, limit.get());
        if (reached < 0) return nullptr;
        if (reached) {
            s->disabled_at = now;
            s->has_disabled_at = true;
            s->events = static_cast<uint8_t>((s->events | kDisabledHere) & ~kSucceeded);
        }
    } else {
        PyObject* r = rec.get();
        if (increment_attr(r, st->s_call_count) < 0 || increment_attr(r, st->s_error_count) < 0 ||
            increment_attr(r, st->s_consecutive_errors) < 0) {
            return nullptr;
        }
        Ref message = error_message(st, error);
        if (!message || PyObject_SetAttr(r, st->s_last_error, message.get()) < 0) return nullptr;
        if (wall_clock(st, self->module, &now) < 0) return nullptr;
        Ref now_obj(PyFloat_FromDouble(now));
        if (!now_obj || PyObject_SetAttr(r, st->s_updated_at, now_obj.get()) < 0) return nullptr;
        Ref limit(PyObject_GetAttr(limits, st->s_disable_after_errors));
        if (!limit) return nullptr;
        Ref run(PyObject_GetAttr(r, st->s_consecutive_errors));
        if (!run) return nullptr;
        const int reached = PyObject_RichCompareBool(run.get(), limit.get(), Py_GE);
        if (reached < 0) return nullptr;
        if (reached && PyObject_SetAttr(r, st->s_disabled_at, now_obj.get()) < 0) return nullptr;
    }
    if (mark_dirty(self, name) < 0) return nullptr;
    Py_RETURN_NONE;
}

static PyObject* record_call_locked(ModuleState* st, TrackerObject* self, PyObject* key,
                                    PyObject* duration) {
    Ref rec = find_or_insert(self, &TrackerObject::usage, key,
                             [&] { return new_usage(st, self->module); });
    if (!rec) return nullptr;
    if (is_native_usage(st, rec.get())) {
        RecordLock locked(rec.get());
        UsageObject* u = as_usage(rec.get());
        if (increment(&u->calls) < 0) return nullptr;
        if (duration != Py_None) {
            if (increment(&u->timed_calls) < 0 || add_duration(&u->total_ms, duration) < 0) {
                return nullptr;
            }
        }
    } else {
        PyObject* r = rec.get();
        if (increment_attr(r, st->s_calls) < 0) return nullptr;
        if (duration != Py_None) {
            if (increment_attr(r, st->s_timed_calls) < 0) return nullptr;
            Ref total(PyObject_GetAttr(r, st->s_total_ms));
            if (!total) return nullptr;
            Ref sum(PyNumber_InPlaceAdd(total.get(), duration));
            if (!sum || PyObject_SetAttr(r, st->s_total_ms, sum.get()) < 0) return nullptr;
        }
    }
    self->usage_dirty.set(true);
    // A shared tracker marks the key itself too (changes.cpp).
    Ref changed = load_field(self, &TrackerObject::changed);
    if (changed && PySet_Add(changed.get(), key) < 0) return nullptr;
    Py_RETURN_NONE;
}

// ---------------------------------------------------------------------------
// Entry points

static PyObject* one_name_arg(ModuleState* st, const char* fname, PyObject* const* args,
                              Py_ssize_t nargs, PyObject* kwnames) {
    if (nargs == 1 && kwnames == nullptr) return args[0];
    PyObject* names[] = {st->s_tool_name};
    PyObject* value = nullptr;
    if (parse_args(fname, args, nargs, kwnames, names, 1, 1, 1, &value) < 0) return nullptr;
    return value;
}

static PyObject* tracker_is_disabled(PyObject* op, PyObject* const* args, Py_ssize_t nargs,
                                     PyObject* kwnames) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    ModuleState* st = self->st;
    PyObject* name = one_name_arg(st, "is_disabled", args, nargs, kwnames);
    if (name == nullptr) return nullptr;
    return with_lock(self, [&] { return is_disabled_locked(st, self, name); });
}

static PyObject* tracker_record_success(PyObject* op, PyObject* const* args, Py_ssize_t nargs,
                                        PyObject* kwnames) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    ModuleState* st = self->st;
    PyObject* name = one_name_arg(st, "record_success", args, nargs, kwnames);
    if (name == nullptr) return nullptr;
    return with_lock(self, [&] { return record_success_locked(st, self, name); });
}

static PyObject* tracker_record_error(PyObject* op, PyObject* const* args, Py_ssize_t nargs,
                                      PyObject* kwnames) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    ModuleState* st = self->st;
    PyObject* values[2];
    if (nargs == 2 && kwnames == nullptr) {
        values[0] = args[0];
        values[1] = args[1];
    } else {
        PyObject* names[] = {st->s_tool_name, st->s_error};
        if (parse_args("record_error", args, nargs, kwnames, names, 2, 2, 2, values) < 0) {
            return nullptr;
        }
    }
    return with_lock(self, [&] { return record_error_locked(st, self, values[0], values[1]); });
}

static PyObject* tracker_record_call(PyObject* op, PyObject* const* args, Py_ssize_t nargs,
                                     PyObject* kwnames) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    ModuleState* st = self->st;
    PyObject* values[5];
    // The usual call: three by position, then alias_hit= and duration_ms=.
    if (nargs == 3 && kwnames != nullptr && PyTuple_GET_SIZE(kwnames) == 2 &&
        PyTuple_GET_ITEM(kwnames, 0) == st->s_alias_hit &&
        PyTuple_GET_ITEM(kwnames, 1) == st->s_duration_ms) {
        for (int i = 0; i < 5; ++i) values[i] = args[i];
    } else {
        PyObject* names[] = {st->s_tool_name, st->s_action, st->s_outcome, st->s_alias_hit,
                             st->s_duration_ms};
        if (parse_args("record_call", args, nargs, kwnames, names, 5, 3, 5, values) < 0) {
            return nullptr;
        }
    }
    PyObject* key = PyTuple_New(4);
    if (key == nullptr) return nullptr;
    for (int i = 0; i < 4; ++i) PyTuple_SET_ITEM(key, i, Py_NewRef(values[i]));
    Ref key_ref(key);
    return with_lock(self, [&] { return record_call_locked(st, self, key, values[4]); });
}

// ---------------------------------------------------------------------------
// Construction and the type

static PyObject* tracker_new(PyTypeObject* type, PyObject*, PyObject*) {
    // Find the module through the first type in the MRO that this module defined.
    PyObject* mro = type->tp_mro;
    PyObject* module = nullptr;
    for (Py_ssize_t i = 0; mro != nullptr && i < PyTuple_GET_SIZE(mro) && !module; ++i) {
        PyTypeObject* base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro, i));
        if (base->tp_flags & Py_TPFLAGS_HEAPTYPE) {
            PyObject* m = PyType_GetModule(base);
            if (m != nullptr && PyModule_GetState(m) != nullptr &&
                state_of(m)->tracker_type == base) {
                module = m;
            }
            PyErr_Clear();
        }
    }
    if (module == nullptr) {
        PyErr_SetString(PyExc_TypeError, "cannot find the module of ToolHealthTracker");
        return nullptr;
    }
    PyObject* self = type->tp_alloc(type, 0);
    if (self == nullptr) return nullptr;
    as_tracker(self)->module = Py_NewRef(module);
    as_tracker(self)->st = state_of(module);
    return self;
}

static int tracker_init_impl(TrackerObject* self, PyObject* args, PyObject* kwds) {
    ModuleState* st = self->st;
    static const char* kwlist[] = {"repository", "limits", nullptr};
    PyObject* repository = nullptr;
    PyObject* limits = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "O|O:ToolHealthTracker",
                                     const_cast<char**>(kwlist), &repository, &limits)) {
        return -1;
    }
    auto refuse_ready = [&] {
        if (!self->ready.get_acquire()) return 0;
        PyErr_SetString(PyExc_RuntimeError, "ToolHealthTracker is already initialized");
        return -1;
    };
    if (refuse_ready() < 0) return -1;
    Ref repository_ref = Ref::borrow(repository), limits_ref = Ref::borrow(limits);
    if (limits == Py_None) {
        Ref config_cls = module_attr(self->module, st->s_ToolsConfig);
        if (!config_cls) return -1;
        limits_ref.reset(PyObject_CallNoArgs(config_cls.get()));
        if (!limits_ref) return -1;
    }
    Ref threading = module_attr(self->module, st->s_threading);
    if (!threading) return -1;
    Ref lock = call_method(threading.get(), st->s_Lock, {});
    if (!lock) return -1;
    Ref acquire, release;
    if (lock_methods(st, lock.get(), acquire, release) < 0) return -1;
    Ref state(PyDict_New());
    if (!state) return -1;
    Ref dirty(PySet_New(nullptr));
    if (!dirty) return -1;
    Ref usage(PyDict_New());
    if (!usage) return -1;
    // Everything above may have run host code, another __init__ of this
    // tracker included, on this thread or another: a ready tracker's fields
    // are never replaced. The check and the installation are one step under
    // the field lock, where nothing runs host code; what the fields held
    // before is dropped only afterwards.
    Ref old[8];
    {
        ObjectLock fields(self);
        if (refuse_ready() < 0) return -1;
        install_lock(self->lock, lock.get(), acquire, release, old);
        old[3].reset(self->repo);
        self->repo = repository_ref.release();
        old[4].reset(self->limits);
        self->limits = limits_ref.release();
        old[5].reset(self->state);
        self->state = state.release();
        old[6].reset(self->dirty);
        self->dirty = dirty.release();
        old[7].reset(self->usage);
        self->usage = usage.release();
        self->usage_dirty.set(false);
        self->ready.set_release(true);
    }
    for (Ref& field : old) field.reset();
    if (!call_own(self, st->s__load, tracker_load)) return -1;
    if (!call_own(self, st->s__load_usage, tracker_load_usage)) return -1;
    return 0;
}

static int tracker_init(PyObject* self, PyObject* args, PyObject* kwds) {
    return guarded<int>(-1, [&] { return tracker_init_impl(as_tracker(self), args, kwds); });
}

static int tracker_traverse(PyObject* op, visitproc visit, void* arg) {
    TrackerObject* self = as_tracker(op);
    Py_VISIT(Py_TYPE(op));
    Py_VISIT(self->module);
    Py_VISIT(self->repo);
    Py_VISIT(self->limits);
    Py_VISIT(self->lock.object);
    Py_VISIT(self->lock.acquire.method);
    Py_VISIT(self->lock.release.method);
    Py_VISIT(self->state);
    Py_VISIT(self->dirty);
    Py_VISIT(self->usage);
    Py_VISIT(self->changed);
    return 0;
}

static int tracker_clear(PyObject* op) {
    TrackerObject* self = as_tracker(op);
    self->ready.set(false);
    Py_CLEAR(self->repo);
    Py_CLEAR(self->limits);
    clear_lock(self->lock);
    Py_CLEAR(self->state);
    Py_CLEAR(self->dirty);
    Py_CLEAR(self->usage);
    Py_CLEAR(self->changed);
    Py_CLEAR(self->module);
    return 0;
}

static void tracker_dealloc(PyObject* op) {
    PyTypeObject* type = Py_TYPE(op);
    PyObject_GC_UnTrack(op);
    Py_TRASHCAN_BEGIN(op, tracker_dealloc)  // a chain of trackers through their fields
    if (as_tracker(op)->weakrefs != nullptr) PyObject_ClearWeakRefs(op);
    tracker_clear(op);
    type->tp_free(op);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

// ---------------------------------------------------------------------------
// Attributes

static PyObject* field_or_none(TrackerObject* self, PyObject* TrackerObject::*field) {
    Ref value = load_field(self, field);
    return value ? value.release() : Py_NewRef(Py_None);
}

#define HEALTH_FIELD_GETTER(field)                                \
    static PyObject* get_##field(PyObject* self, void*) {         \
        return field_or_none(as_tracker(self), &TrackerObject::field); \
    }
HEALTH_FIELD_GETTER(repo)
HEALTH_FIELD_GETTER(state)
HEALTH_FIELD_GETTER(dirty)
HEALTH_FIELD_GETTER(usage)
#undef HEALTH_FIELD_GETTER

static int refuse_delete(PyObject* value, const char* field) {
    if (value != nullptr) return 0;
    PyErr_Format(PyExc_TypeError, "cannot delete %s", field);
    return -1;
}

// The maps and the set take only their exact builtin type: every operation
// reads them through the dict and set functions, which a subclass's
// overrides would not see.
static int set_container(PyObject* op, PyObject* value, PyTypeObject* type, const char* field,
                         PyObject* TrackerObject::*member) {
    if (refuse_delete(value, field) < 0) return -1;
    if (Py_TYPE(value) != type) {
        PyErr_Format(PyExc_TypeError, "%s must be a %s, not %.100s", field, type->tp_name,
                     Py_TYPE(value)->tp_name);
        return -1;
    }
    Ref old;
    {
        ObjectLock fields(op);
        old.reset(as_tracker(op)->*member);
        as_tracker(op)->*member = Py_NewRef(value);
    }
    return 0;
}

static int set_state(PyObject* op, PyObject* value, void*) {
    return set_container(op, value, &PyDict_Type, "_state", &TrackerObject::state);
}
static int set_usage(PyObject* op, PyObject* value, void*) {
    return set_container(op, value, &PyDict_Type, "_usage", &TrackerObject::usage);
}
static int set_dirty(PyObject* op, PyObject* value, void*) {
    return set_container(op, value, &PySet_Type, "_dirty", &TrackerObject::dirty);
}
static PyObject* get_lock(PyObject* op, void*) {
    TrackerObject* self = as_tracker(op);
    ObjectLock fields(self);
    return Py_NewRef(self->lock.object != nullptr ? self->lock.object : Py_None);
}

static int set_lock_attr(PyObject* op, PyObject* value, void*) {
    if (refuse_delete(value, "_lock") < 0) return -1;
    TrackerObject* self = as_tracker(op);
    Ref lock = Ref::borrow(value), acquire, release;
    if (lock_methods(self->st, lock.get(), acquire, release) < 0) return -1;
    // An operation that holds the old lock keeps its own references to it.
    Ref old[3];
    {
        ObjectLock fields(self);
        install_lock(self->lock, lock.get(), acquire, release, old);
    }
    return 0;
}

static PyObject* get_limits(PyObject* op, void*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return Py_NewRef(self->limits);
}

static PyObject* get_cooldown_s(PyObject* op, void*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return PyObject_GetAttr(self->limits, self->st->s_disable_cooldown_s);
}

static PyObject* get_usage_dirty(PyObject* self, void*) {
    return PyBool_FromLong(as_tracker(self)->usage_dirty.get());
}

static int set_usage_dirty(PyObject* self, PyObject* value, void*) {
    if (value == nullptr) {
        PyErr_SetString(PyExc_TypeError, "cannot delete _usage_dirty");
        return -1;
    }
    const int truth = PyObject_IsTrue(value);
    if (truth < 0) return -1;
    as_tracker(self)->usage_dirty.set(truth == 1);
    return 0;
}

static PyGetSetDef tracker_getset[] = {
    {"limits", get_limits, nullptr, "The ToolsConfig the tracker reads its limits from.", nullptr},
    {"cooldown_s", get_cooldown_s, nullptr,
     "Seconds a disabled tool stays disabled: limits.disable_cooldown_s, unchanged.", nullptr},
    {"has_unsaved_changes", tracker_has_unsaved_changes, nullptr,
     "Whether flush() has anything to write. Touches no database.", nullptr},
    {"_repo", get_repo, nullptr, "The repository whose db mirrors the state.", nullptr},
    {"_limits", get_limits, nullptr, "The ToolsConfig (same as limits).", nullptr},
    {"_lock", get_lock, set_lock_attr,
     "The lock guarding the state (a threading.Lock; any object with acquire() and release()).",
     nullptr},
    {"_state", get_state, set_state, "Tool name -> _ToolState (a dict).", nullptr},
    {"_dirty", get_dirty, set_dirty,
     "Names of tools whose health row the next flush writes (a set).", nullptr},
    {"_usage", get_usage, set_usage, "(tool, action, outcome, alias_hit) -> _Usage (a dict).",
     nullptr},
    {"_usage_dirty", get_usage_dirty, set_usage_dirty,
     "Whether the next flush writes the usage document.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

static PyMethodDef tracker_methods[] = {
    {"is_disabled", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_is_disabled)),
     METH_FASTCALL | METH_KEYWORDS,
     "is_disabled($self, tool_name)\n--\n\n"
     "Return (disabled, last_error). A tool whose cooldown has run out is enabled\n"
     "again now; a disabled one answers (True, its last error message)."},
    {"record_success", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_record_success)),
     METH_FASTCALL | METH_KEYWORDS,
     "record_success($self, tool_name)\n--\n\n"
     "Count a successful call: ends the run of errors and enables the tool."},
    {"record_error", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_record_error)),
     METH_FASTCALL | METH_KEYWORDS,
     "record_error($self, tool_name, error)\n--\n\n"
     "Count a failed call with its message (first 500 characters kept); disables\n"
     "the tool when its run of errors reaches limits.disable_after_errors."},
    {"record_call", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_record_call)),
     METH_FASTCALL | METH_KEYWORDS,
     "record_call($self, tool_name, action, outcome, *, alias_hit, duration_ms)\n--\n\n"
     "Count one call under its usage key (tool_name, action, outcome, alias_hit),\n"
     "with the handler's time in milliseconds when duration_ms is not None."},
    {"flush", tracker_flush, METH_NOARGS,
     "flush($self, /)\n--\n\n"
     "Write the changed health rows and, when any count changed, the usage\n"
     "document. Blocks on the database; returns the number of rows written."},
    {"_flush_health", tracker_flush_health, METH_NOARGS,
     "_flush_health($self, /)\n--\n\nWrite the changed health rows; return how many."},
    {"_flush_usage", tracker_flush_usage, METH_NOARGS,
     "_flush_usage($self, /)\n--\n\n"
     "Write the usage document when counts changed; return its number of rows."},
    {"_load", tracker_load, METH_NOARGS,
     "_load($self, /)\n--\n\nSeed the health records from the tool_health table."},
    {"_load_usage", tracker_load_usage, METH_NOARGS,
     "_load_usage($self, /)\n--\n\nSeed the usage counts from the usage document."},
    {"get_health_summary", tracker_get_health_summary, METH_NOARGS,
     "get_health_summary($self, /)\n--\n\n"
     "Every known tool's health, most errors first, each with its usage rows."},
    {"_take_changes", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_take_changes)),
     METH_FASTCALL,
     "_take_changes($self, limit=0, /)\n--\n\n"
     "What changed since the last call, as increments, with the marks cleared:\n"
     "(tools, usage). The first call turns per-key change marks on. With a limit,\n"
     "at most that many marked tools and usage keys each, and a third item: how\n"
     "many marks are left for the next call."},
    {"_apply_changes", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_apply_changes)),
     METH_FASTCALL,
     "_apply_changes($self, tools, usage, now, /)\n--\n\n"
     "Moves each record to a shared store's merged totals: rows (name, calls, errors,\n"
     "last_error, disabled_at, updated_at) and (tool, action, outcome, alias_hit,\n"
     "calls, timed_calls, total_ms); inserts those the registry knows."},
    {"_usage_rows", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(tracker_usage_rows)),
     METH_FASTCALL | METH_KEYWORDS,
     "_usage_rows($self, tool_name)\n--\n\n"
     "The usage rows of one tool, most calls first. The caller holds _lock."},
    {nullptr, nullptr, 0, nullptr},
};

static PyMemberDef tracker_members[] = {
    {"__weaklistoffset__", T_PYSSIZET, offsetof(TrackerObject, weakrefs), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

static PyType_Slot tracker_slots[] = {
    {Py_tp_doc, const_cast<char*>(
        "ToolHealthTracker(repository, limits=None)\n--\n\n"
        "Tracks each tool's calls and errors, disables a tool after a run of\n"
        "errors and re-enables it after a cooldown, and counts every call by usage\n"
        "key. State lives in memory; flush() mirrors it in repository.db.\n"
        "Construction reads the saved history and blocks on the database.")},
    {Py_tp_new, reinterpret_cast<void*>(tracker_new)},
    {Py_tp_init, reinterpret_cast<void*>(tracker_init)},
    {Py_tp_dealloc, reinterpret_cast<void*>(tracker_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(tracker_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(tracker_clear)},
    {Py_tp_methods, tracker_methods},
    {Py_tp_getset, tracker_getset},
    {Py_tp_members, tracker_members},
    {0, nullptr},
};

PyType_Spec tracker_spec = {
    "ordanis_veltrane.tool_handlers.health.ToolHealthTracker",
    sizeof(TrackerObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    tracker_slots,
};

}  // namespace health
