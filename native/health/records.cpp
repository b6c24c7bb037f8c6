// The record types, time conversion between epoch seconds and the stored
// timestamp text, and the registry test `_known`.
#include "records.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace health {

// ---------------------------------------------------------------------------
// Field conversion shared by both record types.

static int reject_delete(PyObject* value, const char* field) {
    if (value == nullptr) {
        PyErr_Format(PyExc_TypeError, "cannot delete field '%s'", field);
        return -1;
    }
    return 0;
}

static PyObject* int_field(int64_t v) { return PyLong_FromLongLong(static_cast<long long>(v)); }

// ---------------------------------------------------------------------------
// _ToolState

static PyObject* tool_state_alloc(PyTypeObject* type) {
    PyObject* self = type->tp_alloc(type, 0);
    if (self == nullptr) {
        return nullptr;
    }
    ToolStateObject* s = as_state(self);
    s->last_error = Py_NewRef(Py_None);
    return self;
}

static PyObject* tool_state_new(PyTypeObject* type, PyObject*, PyObject*) {
    return tool_state_alloc(type);
}

// `disabled_at` as given: absent for None, otherwise a double (converting
// it may run host code, so it happens before the record is locked).
struct DisabledAt {
    bool present = false;
    double value = 0.0;

    int read(PyObject* v) {
        present = v != Py_None;
        return present ? as_double(v, &value) : 0;
    }
    void store(ToolStateObject* s) const {
        s->has_disabled_at = present;
        s->disabled_at = present ? value : 0.0;
    }
};

static PyObject* double_field(double v) { return PyFloat_FromDouble(v); }

// Every field is read and written under the record's lock (sync.hpp); a value
// is converted before the lock is taken, since conversion may run host code.
#define HEALTH_FIELD(Type, cast, field, ctype, to_python, from_python)        \
    static PyObject* get_##Type##_##field(PyObject* self, void*) {            \
        ctype v;                                                              \
        {                                                                     \
            RecordLock lock(self);                                            \
            v = cast(self)->field;                                            \
        }                                                                     \
        return to_python(v);                                                  \
    }                                                                         \
    static int set_##Type##_##field(PyObject* self, PyObject* value, void*) { \
        if (reject_delete(value, #field) < 0) return -1;                      \
        ctype v;                                                              \
        if (from_python(value, &v) < 0) return -1;                            \
        RecordLock lock(self);                                                \
        cast(self)->field = v;                                                \
        return 0;                                                             \
    }
#define HEALTH_INT_FIELD(Type, cast, field) HEALTH_FIELD(Type, cast, field, int64_t, int_field, as_int64)
#define HEALTH_DOUBLE_FIELD(Type, cast, field) \
    HEALTH_FIELD(Type, cast, field, double, double_field, as_double)

HEALTH_INT_FIELD(state, as_state, call_count)
HEALTH_INT_FIELD(state, as_state, error_count)
HEALTH_INT_FIELD(state, as_state, consecutive_errors)
HEALTH_INT_FIELD(usage, as_usage, calls)
HEALTH_INT_FIELD(usage, as_usage, timed_calls)
#undef HEALTH_INT_FIELD

Ref last_error_of(PyObject* rec) noexcept {
    RecordLock lock(rec);
    return Ref::borrow(as_state(rec)->last_error);
}

void replace_last_error(PyObject* rec, Ref value) noexcept {
    {
        RecordLock lock(rec);
        PyObject* old = as_state(rec)->last_error;
        as_state(rec)->last_error = value.release();
        value.reset(old);
    }
    // The old message is dropped here, once the record is unlocked: its
    // destructor may run host code.
}

static PyObject* get_state_last_error(PyObject* self, void*) {
    return last_error_of(self).release();
}
static int set_state_last_error(PyObject* self, PyObject* value, void*) {
    if (reject_delete(value, "last_error") < 0) return -1;
    replace_last_error(self, Ref::borrow(value));
    return 0;
}
static Ref disabled_at_of(PyObject* self) {
    DisabledAt d;
    {
        RecordLock lock(self);
        d.present = as_state(self)->has_disabled_at;
        d.value = as_state(self)->disabled_at;
    }
    return d.present ? Ref(PyFloat_FromDouble(d.value)) : Ref::borrow(Py_None);
}
static PyObject* get_state_disabled_at(PyObject* self, void*) {
    return disabled_at_of(self).release();
}
static int set_state_disabled_at(PyObject* self, PyObject* value, void*) {
    if (reject_delete(value, "disabled_at") < 0) return -1;
    DisabledAt d;
    if (d.read(value) < 0) return -1;
    RecordLock lock(self);
    d.store(as_state(self));
    return 0;
}

HEALTH_DOUBLE_FIELD(state, as_state, updated_at)
HEALTH_DOUBLE_FIELD(usage, as_usage, total_ms)
#undef HEALTH_DOUBLE_FIELD
#undef HEALTH_FIELD

static const char* const tool_state_fields[] = {"call_count",  "error_count", "last_error",
                                                "disabled_at", "updated_at",  "consecutive_errors",
                                                nullptr};
static const char* const usage_fields[] = {"calls", "timed_calls", "total_ms", nullptr};

static int tool_state_init(PyObject* self, PyObject* args, PyObject* kwds) {
    PyObject* values[6] = {};
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|OOOOOO:_ToolState",
                                     const_cast<char**>(tool_state_fields), &values[0], &values[1],
                                     &values[2], &values[3], &values[4], &values[5])) {
        return -1;
    }
    // Held: converting one value runs host code (__index__, __float__).
    Ref held[6];
    for (int i = 0; i < 6; ++i) held[i] = Ref::borrow(values[i]);
    // Converted first, stored together: __init__ may run again on a record
    // another thread already reads.
    ToolStateObject* s = as_state(self);
    int64_t calls = 0, errors = 0, run = 0;
    double updated = 0.0;
    DisabledAt disabled;
    if ((values[0] && as_int64(values[0], &calls) < 0) ||
        (values[1] && as_int64(values[1], &errors) < 0) ||
        (values[3] && disabled.read(values[3]) < 0) ||
        (values[4] && as_double(values[4], &updated) < 0) ||
        (values[5] && as_int64(values[5], &run) < 0)) {
        return -1;
    }
    {
        RecordLock lock(self);
        if (values[0]) s->call_count = calls;
        if (values[1]) s->error_count = errors;
        if (values[3]) disabled.store(s);
        if (values[4]) s->updated_at = updated;
        if (values[5]) s->consecutive_errors = run;
    }
    if (values[2]) replace_last_error(self, Ref::borrow(values[2]));
    return 0;
}

static int usage_init(PyObject* self, PyObject* args, PyObject* kwds) {
    PyObject* values[3] = {};
    if (!PyArg_ParseTupleAndKeywords(args, kwds, "|OOO:_Usage", const_cast<char**>(usage_fields),
                                     &values[0], &values[1], &values[2])) {
        return -1;
    }
    Ref held[3];
    for (int i = 0; i < 3; ++i) held[i] = Ref::borrow(values[i]);
    int64_t calls = 0, timed = 0;
    double total = 0.0;
    if ((values[0] && as_int64(values[0], &calls) < 0) ||
        (values[1] && as_int64(values[1], &timed) < 0) ||
        (values[2] && as_double(values[2], &total) < 0)) {
        return -1;
    }
    UsageObject* u = as_usage(self);
    RecordLock lock(self);
    if (values[0]) u->calls = calls;
    if (values[1]) u->timed_calls = timed;
    if (values[2]) u->total_ms = total;
    return 0;
}

static int tool_state_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(as_state(self)->last_error);
    return 0;
}

static int tool_state_clear(PyObject* self) {
    Py_CLEAR(as_state(self)->last_error);
    return 0;
}

static void tool_state_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    // A chain of records through last_error is freed iteratively, not by
    // one nested call per record.
    Py_TRASHCAN_BEGIN(self, tool_state_dealloc)
    tool_state_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

static void usage_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    type->tp_free(self);
    Py_DECREF(type);
}

static PyObject* repr_fields(PyObject* self, const char* const* names) {
    // A record reachable from its own last_error shows as "..." there, as a dataclass does.
    const int busy = Py_ReprEnter(self);
    if (busy != 0) return busy > 0 ? PyUnicode_FromString("...") : nullptr;
    struct Leave {
        PyObject* obj;
        ~Leave() { Py_ReprLeave(obj); }
    } leave{self};
    Ref qualname(PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(self)), "__qualname__"));
    if (!qualname) return nullptr;
    Ref parts(PyList_New(0));
    if (!parts) return nullptr;
    for (const char* const* n = names; *n; ++n) {
        Ref value(PyObject_GetAttrString(self, *n));
        if (!value) return nullptr;
        Ref part(PyUnicode_FromFormat("%s=%R", *n, value.get()));
        if (!part || PyList_Append(parts.get(), part.get()) < 0) return nullptr;
    }
    Ref sep(PyUnicode_FromString(", "));
    if (!sep) return nullptr;
    Ref body(PyUnicode_Join(sep.get(), parts.get()));
    if (!body) return nullptr;
    // The type's __qualname__ as str() gives it: a metaclass may answer anything.
    return PyUnicode_FromFormat("%S(%U)", qualname.get(), body.get());
}

static PyObject* tool_state_repr(PyObject* self) {
    return guarded<PyObject*>(nullptr, [&] { return repr_fields(self, tool_state_fields); });
}
static PyObject* usage_repr(PyObject* self) {
    return guarded<PyObject*>(nullptr, [&] { return repr_fields(self, usage_fields); });
}

static PyObject* tool_state_richcompare(PyObject* self, PyObject* other, int op) {
    if ((op != Py_EQ && op != Py_NE) || Py_TYPE(other) != Py_TYPE(self)) {
        Py_RETURN_NOTIMPLEMENTED;
    }
    ToolStateObject* a = as_state(self);
    ToolStateObject* b = as_state(other);
    bool equal;
    // Held: comparing the messages runs host code, which may assign another last_error.
    Ref mine, theirs;
    {
        RecordLock2 lock(self, other);
        equal = a->call_count == b->call_count && a->error_count == b->error_count &&
                a->has_disabled_at == b->has_disabled_at &&
                (!a->has_disabled_at || a->disabled_at == b->disabled_at) &&
                a->updated_at == b->updated_at && a->consecutive_errors == b->consecutive_errors;
        mine = Ref::borrow(a->last_error);
        theirs = Ref::borrow(b->last_error);
    }
    if (equal) {
        const int same = PyObject_RichCompareBool(mine.get(), theirs.get(), Py_EQ);
        if (same < 0) return nullptr;
        equal = same == 1;
    }
    return PyBool_FromLong((op == Py_EQ) == equal);
}

static PyObject* usage_richcompare(PyObject* self, PyObject* other, int op) {
    if ((op != Py_EQ && op != Py_NE) || Py_TYPE(other) != Py_TYPE(self)) {
        Py_RETURN_NOTIMPLEMENTED;
    }
    UsageObject* a = as_usage(self);
    UsageObject* b = as_usage(other);
    bool equal;
    {
        RecordLock2 lock(self, other);
        equal = a->calls == b->calls && a->timed_calls == b->timed_calls && a->total_ms == b->total_ms;
    }
    return PyBool_FromLong((op == Py_EQ) == equal);
}

// (type(self), its fields in declaration order): what copy, deepcopy and pickle
// rebuild a record from, as they would a dataclass with the same fields.
static PyObject* tool_state_reduce(PyObject* self, PyObject*) {
    const ToolStateObject* s = as_state(self);
    long long calls, errors, run;
    DisabledAt disabled;
    double updated;
    Ref last;
    {
        RecordLock lock(self);
        calls = s->call_count;
        errors = s->error_count;
        run = s->consecutive_errors;
        disabled.present = s->has_disabled_at;
        disabled.value = s->disabled_at;
        updated = s->updated_at;
        last = Ref::borrow(s->last_error);
    }
    Ref disabled_obj = disabled.present ? Ref(PyFloat_FromDouble(disabled.value)) : Ref::borrow(Py_None);
    if (!disabled_obj) return nullptr;
    return Py_BuildValue("(O(LLOOdL))", Py_TYPE(self), calls, errors, last.get(), disabled_obj.get(),
                         updated, run);
}

static PyObject* usage_reduce(PyObject* self, PyObject*) {
    const UsageObject* u = as_usage(self);
    long long calls, timed;
    double total;
    {
        RecordLock lock(self);
        calls = u->calls;
        timed = u->timed_calls;
        total = u->total_ms;
    }
    return Py_BuildValue("(O(LLd))", Py_TYPE(self), calls, timed, total);
}

static PyMethodDef tool_state_methods[] = {
    {"__reduce__", tool_state_reduce, METH_NOARGS,
     "__reduce__($self, /)\n--\n\nThe record's type and its fields, for copy and pickle."},
    {nullptr, nullptr, 0, nullptr},
};

static PyMethodDef usage_methods[] = {
    {"__reduce__", usage_reduce, METH_NOARGS,
     "__reduce__($self, /)\n--\n\nThe record's type and its fields, for copy and pickle."},
    {nullptr, nullptr, 0, nullptr},
};

static PyGetSetDef tool_state_getset[] = {
    {"call_count", get_state_call_count, set_state_call_count, "Calls reported as a success or an error.", nullptr},
    {"error_count", get_state_error_count, set_state_error_count, "Errors reported.", nullptr},
    {"last_error", get_state_last_error, set_state_last_error, "Message of the latest error, or None.", nullptr},
    {"disabled_at", get_state_disabled_at, set_state_disabled_at, "Epoch seconds when the tool was disabled, or None.", nullptr},
    {"updated_at", get_state_updated_at, set_state_updated_at, "Epoch seconds of the last change (0.0 when never changed).", nullptr},
    {"consecutive_errors", get_state_consecutive_errors, set_state_consecutive_errors, "Errors since the last success (memory only).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

static PyGetSetDef usage_getset[] = {
    {"calls", get_usage_calls, set_usage_calls, "Calls counted under the usage key.", nullptr},
    {"timed_calls", get_usage_timed_calls, set_usage_timed_calls, "Calls that reported a handler time.", nullptr},
    {"total_ms", get_usage_total_ms, set_usage_total_ms, "Sum of the handler times, milliseconds.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

static PyType_Slot tool_state_slots[] = {
    {Py_tp_doc, const_cast<char*>(
        "_ToolState(call_count=0, error_count=0, last_error=None, disabled_at=None, updated_at=0.0, consecutive_errors=0)\n"
        "--\n\n"
        "What is known about one tool's health.")},
    {Py_tp_new, reinterpret_cast<void*>(tool_state_new)},
    {Py_tp_init, reinterpret_cast<void*>(tool_state_init)},
    {Py_tp_dealloc, reinterpret_cast<void*>(tool_state_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(tool_state_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(tool_state_clear)},
    {Py_tp_repr, reinterpret_cast<void*>(tool_state_repr)},
    {Py_tp_richcompare, reinterpret_cast<void*>(tool_state_richcompare)},
    {Py_tp_hash, reinterpret_cast<void*>(PyObject_HashNotImplemented)},
    {Py_tp_getset, tool_state_getset},
    {Py_tp_methods, tool_state_methods},
    {0, nullptr},
};

static PyType_Slot usage_slots[] = {
    {Py_tp_doc, const_cast<char*>(
        "_Usage(calls=0, timed_calls=0, total_ms=0.0)\n"
        "--\n\n"
        "The counts of one usage key and the time its handlers took.")},
    {Py_tp_init, reinterpret_cast<void*>(usage_init)},
    {Py_tp_dealloc, reinterpret_cast<void*>(usage_dealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(usage_repr)},
    {Py_tp_richcompare, reinterpret_cast<void*>(usage_richcompare)},
    {Py_tp_hash, reinterpret_cast<void*>(PyObject_HashNotImplemented)},
    {Py_tp_getset, usage_getset},
    {Py_tp_methods, usage_methods},
    {0, nullptr},
};

PyType_Spec tool_state_spec = {
    "ordanis_veltrane.tool_handlers.health._ToolState",
    sizeof(ToolStateObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    tool_state_slots,
};

PyType_Spec usage_spec = {
    "ordanis_veltrane.tool_handlers.health._Usage",
    sizeof(UsageObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE,
    usage_slots,
};

// ---------------------------------------------------------------------------
// The records as dataclasses: the dataclasses module's own description of a
// class with the same fields (real Field objects, the parameters, the match
// arguments) is put on each native type, so that is_dataclass, fields,
// asdict, replace and pattern matching treat a record as they treat the
// dataclass it stands for.

namespace {

struct FieldSpec {
    const char* name;
    PyObject* type;     // borrowed: a builtin type or a union made by the caller
    PyObject* default_;
};

int describe_as_dataclass(PyObject* dataclasses, PyTypeObject* type, const char* name,
                          std::initializer_list<FieldSpec> specs) {
    Ref fields(PyList_New(0));
    if (!fields) return -1;
    for (const FieldSpec& f : specs) {
        Ref item(Py_BuildValue("(sOO)", f.name, f.type, f.default_));
        if (!item || PyList_Append(fields.get(), item.get()) < 0) return -1;
    }
    Ref make(PyObject_GetAttrString(dataclasses, "make_dataclass"));
    if (!make) return -1;
    Ref class_name(PyUnicode_FromString(name));
    if (!class_name) return -1;
    Ref twin = call(make.get(), {class_name.get(), fields.get()});
    if (!twin) return -1;
    for (const char* attr : {"__dataclass_fields__", "__dataclass_params__", "__match_args__"}) {
        Ref value(PyObject_GetAttrString(twin.get(), attr));
        if (!value || PyObject_SetAttrString(reinterpret_cast<PyObject*>(type), attr, value.get()) < 0) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

int describe_records_as_dataclasses(ModuleState* st) {
    Ref dataclasses(PyImport_ImportModule("dataclasses"));
    if (!dataclasses) return -1;
    PyObject* int_type = reinterpret_cast<PyObject*>(&PyLong_Type);
    PyObject* float_type = reinterpret_cast<PyObject*>(&PyFloat_Type);
    Ref optional_str(PyNumber_Or(reinterpret_cast<PyObject*>(&PyUnicode_Type), Py_None));
    Ref optional_float(PyNumber_Or(float_type, Py_None));
    Ref zero(PyLong_FromLong(0)), zero_float(PyFloat_FromDouble(0.0));
    if (!optional_str || !optional_float || !zero || !zero_float) return -1;
    if (describe_as_dataclass(dataclasses.get(), st->tool_state_type, "_ToolState",
                              {{"call_count", int_type, zero.get()},
                               {"error_count", int_type, zero.get()},
                               {"last_error", optional_str.get(), Py_None},
                               {"disabled_at", optional_float.get(), Py_None},
                               {"updated_at", float_type, zero_float.get()},
                               {"consecutive_errors", int_type, zero.get()}}) < 0) {
        return -1;
    }
    return describe_as_dataclass(dataclasses.get(), st->usage_type, "_Usage",
                                 {{"calls", int_type, zero.get()},
                                  {"timed_calls", int_type, zero.get()},
                                  {"total_ms", float_type, zero_float.get()}});
}

// ---------------------------------------------------------------------------
// Records as the tracker makes them: natively while the module's attribute is
// still its own type, otherwise through whatever the host put there.

Ref new_tool_state(ModuleState* st, PyObject* module) noexcept {
    Ref cls = module_attr(module, st->s__ToolState);
    if (!cls) return Ref();
    if (cls.get() == reinterpret_cast<PyObject*>(st->tool_state_type)) {
        return Ref(tool_state_alloc(st->tool_state_type));
    }
    return Ref(PyObject_CallNoArgs(cls.get()));
}

Ref new_usage(ModuleState* st, PyObject* module) noexcept {
    Ref cls = module_attr(module, st->s__Usage);
    if (!cls) return Ref();
    if (cls.get() == reinterpret_cast<PyObject*>(st->usage_type)) {
        return Ref(st->usage_type->tp_alloc(st->usage_type, 0));
    }
    return Ref(PyObject_CallNoArgs(cls.get()));
}

Ref seeded_tool_state(ModuleState* st, PyObject* module, int64_t call_count, int64_t error_count,
                      PyObject* last_error, PyObject* disabled_at, PyObject* updated_at) noexcept {
    Ref cls = module_attr(module, st->s__ToolState);
    if (!cls) return Ref();
    if (cls.get() == reinterpret_cast<PyObject*>(st->tool_state_type)) {
        Ref rec(tool_state_alloc(st->tool_state_type));
        if (!rec) return Ref();
        // Not yet seen by any other thread: no lock needed.
        ToolStateObject* s = as_state(rec.get());
        DisabledAt disabled;
        if (disabled.read(disabled_at) < 0 || as_double(updated_at, &s->updated_at) < 0) {
            return Ref();
        }
        s->call_count = call_count;
        s->error_count = error_count;
        disabled.store(s);
        Py_SETREF(s->last_error, Py_NewRef(last_error));
        return rec;
    }
    Ref calls(PyLong_FromLongLong(call_count));
    if (!calls) return Ref();
    Ref errors(PyLong_FromLongLong(error_count));
    if (!errors) return Ref();
    Ref kwnames(PyTuple_Pack(5, st->s_call_count, st->s_error_count, st->s_last_error,
                             st->s_disabled_at, st->s_updated_at));
    if (!kwnames) return Ref();
    PyObject* args[] = {calls.get(), errors.get(), last_error, disabled_at, updated_at};
    return Ref(PyObject_Vectorcall(cls.get(), args, 0, kwnames.get()));
}

Ref seeded_usage(ModuleState* st, PyObject* module, PyObject* calls, PyObject* timed_calls,
                 PyObject* total_ms) noexcept {
    Ref cls = module_attr(module, st->s__Usage);
    if (!cls) return Ref();
    if (cls.get() == reinterpret_cast<PyObject*>(st->usage_type)) {
        Ref rec(st->usage_type->tp_alloc(st->usage_type, 0));
        if (!rec) return Ref();
        UsageObject* u = as_usage(rec.get());
        if (as_int64(calls, &u->calls) < 0 || as_int64(timed_calls, &u->timed_calls) < 0 ||
            as_double(total_ms, &u->total_ms) < 0) {
            return Ref();
        }
        return rec;
    }
    return call(cls.get(), {calls, timed_calls, total_ms});
}

Ref state_field(ModuleState* st, PyObject* rec, PyObject* field) noexcept {
    if (is_native_state(st, rec)) {
        if (field == st->s_call_count) return Ref(get_state_call_count(rec, nullptr));
        if (field == st->s_error_count) return Ref(get_state_error_count(rec, nullptr));
        if (field == st->s_last_error) return last_error_of(rec);
        if (field == st->s_disabled_at) return disabled_at_of(rec);
        if (field == st->s_updated_at) return Ref(get_state_updated_at(rec, nullptr));
        if (field == st->s_consecutive_errors) return Ref(get_state_consecutive_errors(rec, nullptr));
    }
    return Ref(PyObject_GetAttr(rec, field));
}

Ref usage_field(ModuleState* st, PyObject* rec, PyObject* field) noexcept {
    if (is_native_usage(st, rec)) {
        if (field == st->s_calls) return Ref(get_usage_calls(rec, nullptr));
        if (field == st->s_timed_calls) return Ref(get_usage_timed_calls(rec, nullptr));
        if (field == st->s_total_ms) return Ref(get_usage_total_ms(rec, nullptr));
    }
    return Ref(PyObject_GetAttr(rec, field));
}

Ref updated_at_text(ModuleState* st, PyObject* module, PyObject* rec) noexcept {
    if (is_native_state(st, rec)) {
        double updated;
        {
            RecordLock lock(rec);
            updated = as_state(rec)->updated_at;
        }
        return late_sqlite_time(st, module, updated);
    }
    Ref updated = state_field(st, rec, st->s_updated_at);
    return updated ? late_sqlite_time(st, module, updated.get()) : Ref();
}

int increment_attr(PyObject* rec, PyObject* field) noexcept {
    Ref value(PyObject_GetAttr(rec, field));
    if (!value) return -1;
    Ref one(PyLong_FromLong(1));
    if (!one) return -1;
    Ref sum(PyNumber_InPlaceAdd(value.get(), one.get()));
    if (!sum) return -1;
    return PyObject_SetAttr(rec, field, sum.get());
}

// ---------------------------------------------------------------------------
// Time conversion.

namespace {

constexpr int64_t kMinSeconds = -62135596800LL;   // 0001-01-01 00:00:00 UTC
constexpr int64_t kMaxSeconds = 253402300799LL;   // 9999-12-31 23:59:59 UTC

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
int64_t days_from_civil(int64_t y, unsigned m, unsigned d) noexcept {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civil_from_days(int64_t z, int64_t* y, unsigned* m, unsigned* d) noexcept {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *d = doy - (153 * mp + 2) / 5 + 1;
    *m = mp < 10 ? mp + 3 : mp - 9;
    *y = static_cast<int64_t>(yoe) + era * 400 + (*m <= 2);
}

bool is_leap(int64_t y) noexcept { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned days_in_month(int64_t y, unsigned m) noexcept {
    static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && is_leap(y) ? 29 : days[m - 1];
}

Ref format_seconds(int64_t secs) noexcept {
    if (secs < kMinSeconds || secs > kMaxSeconds) {
        PyErr_Format(PyExc_ValueError, "timestamp %lld is outside the years 1 to 9999",
                     static_cast<long long>(secs));
        return Ref();
    }
    int64_t days = secs / 86400;
    int64_t rem = secs % 86400;
    if (rem < 0) {
        rem += 86400;
        days -= 1;
    }
    int64_t y;
    unsigned m, d;
    civil_from_days(days, &y, &m, &d);
    // "YYYY-MM-DD HH:MM:SS", written straight into a new ASCII str.
    Ref text(PyUnicode_New(19, 127));
    if (!text) return Ref();
    char* out = reinterpret_cast<char*>(PyUnicode_1BYTE_DATA(text.get()));
    auto two = [](char* at, unsigned v) {
        at[0] = static_cast<char>('0' + v / 10);
        at[1] = static_cast<char>('0' + v % 10);
    };
    const unsigned year = static_cast<unsigned>(y);
    two(out, year / 100);
    two(out + 2, year % 100);
    out[4] = '-';
    two(out + 5, m);
    out[7] = '-';
    two(out + 8, d);
    out[10] = ' ';
    two(out + 11, static_cast<unsigned>(rem / 3600));
    out[13] = ':';
    two(out + 14, static_cast<unsigned>(rem / 60 % 60));
    out[16] = ':';
    two(out + 17, static_cast<unsigned>(rem % 60));
    return text;
}

double round_half_even_int(double x) noexcept {
    double rounded = std::round(x);
    if (std::fabs(x - rounded) == 0.5) {
        rounded = 2.0 * std::round(x / 2.0);
    }
    return rounded;
}

}  // namespace

Ref sqlite_time_of(double epoch) noexcept {
    if (std::isnan(epoch)) {
        PyErr_SetString(PyExc_ValueError, "Invalid value NaN (not a number)");
        return Ref();
    }
    if (std::isinf(epoch)) {
        PyErr_SetString(PyExc_OverflowError, "cannot convert float infinity to integer");
        return Ref();
    }
    // To the nearest microsecond (ties to even), then the whole second toward the past.
    double whole;
    double micros = std::modf(epoch, &whole) * 1e6;
    micros = round_half_even_int(micros);
    if (micros >= 1e6) {
        whole += 1.0;
    } else if (micros < 0) {
        whole -= 1.0;
    }
    if (whole < static_cast<double>(kMinSeconds) || whole > static_cast<double>(kMaxSeconds)) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "timestamp %.17g is outside the years 1 to 9999", epoch);
        PyErr_SetString(PyExc_ValueError, buf);
        return Ref();
    }
    return format_seconds(static_cast<int64_t>(whole));
}

static Ref sqlite_time_of_int(PyObject* integer) noexcept {
    int overflow = 0;
    const long long secs = PyLong_AsLongLongAndOverflow(integer, &overflow);
    if (overflow != 0) {
        PyErr_SetString(PyExc_OverflowError, "timestamp out of range for platform time_t");
        return Ref();
    }
    if (secs == -1 && PyErr_Occurred()) return Ref();
    return format_seconds(secs);
}

Ref sqlite_time_obj(PyObject* epoch) noexcept {
    if (epoch == Py_None) return Ref::borrow(Py_None);
    if (PyFloat_CheckExact(epoch)) return sqlite_time_of(PyFloat_AS_DOUBLE(epoch));
    if (PyLong_Check(epoch)) return sqlite_time_of_int(epoch);
    if (!PyFloat_Check(epoch) && PyIndex_Check(epoch)) {
        Ref index(PyNumber_Index(epoch));
        if (!index) return Ref();
        return sqlite_time_of_int(index.get());
    }
    double d;
    if (as_double(epoch, &d) < 0) return Ref();
    return sqlite_time_of(d);
}

namespace {

// Reads 1 or 2 (or exactly `exact`) decimal digits at `*pos`.
bool read_number(int kind, const void* data, Py_ssize_t len, Py_ssize_t* pos, int min_digits,
                 int max_digits, int64_t* out) noexcept {
    int64_t value = 0;
    int n = 0;
    while (n < max_digits && *pos < len) {
        const int digit = Py_UNICODE_TODECIMAL(PyUnicode_READ(kind, data, *pos));
        if (digit < 0) break;
        value = value * 10 + digit;
        ++n;
        ++*pos;
    }
    *out = value;
    return n >= min_digits;
}

bool read_char(int kind, const void* data, Py_ssize_t len, Py_ssize_t* pos, Py_UCS4 c) noexcept {
    if (*pos < len && PyUnicode_READ(kind, data, *pos) == c) {
        ++*pos;
        return true;
    }
    return false;
}

// Epoch seconds of "Y-M-D h:m:s" (see _SQLITE_TIMESTAMP), or false.
bool parse_timestamp(PyObject* text, double* out) noexcept {
    const int kind = PyUnicode_KIND(text);
    const void* data = PyUnicode_DATA(text);
    const Py_ssize_t len = PyUnicode_GET_LENGTH(text);
    Py_ssize_t pos = 0;
    int64_t year, month, day, hour, minute, second;
    if (!read_number(kind, data, len, &pos, 4, 4, &year) || !read_char(kind, data, len, &pos, '-') ||
        !read_number(kind, data, len, &pos, 1, 2, &month) || !read_char(kind, data, len, &pos, '-') ||
        !read_number(kind, data, len, &pos, 1, 2, &day)) {
        return false;
    }
    const Py_ssize_t blanks = pos;
    while (pos < len && Py_UNICODE_ISSPACE(PyUnicode_READ(kind, data, pos))) ++pos;
    if (pos == blanks) return false;
    if (!read_number(kind, data, len, &pos, 1, 2, &hour) || !read_char(kind, data, len, &pos, ':') ||
        !read_number(kind, data, len, &pos, 1, 2, &minute) || !read_char(kind, data, len, &pos, ':') ||
        !read_number(kind, data, len, &pos, 1, 2, &second) || pos != len) {
        return false;
    }
    if (year < 1 || month < 1 || month > 12 || day < 1 ||
        day > days_in_month(year, static_cast<unsigned>(month)) || hour > 23 || minute > 59 ||
        second > 59) {
        return false;
    }
    const int64_t days =
        days_from_civil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    *out = static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second);
    return true;
}

}  // namespace

int epoch_of(PyObject* text, double* out) noexcept {
    if (text == Py_None) return 0;
    if (PyUnicode_Check(text)) {
        if (PyUnicode_READY(text) < 0) return -1;
        return parse_timestamp(text, out) ? 1 : 0;
    }
    // Absent and empty values read as absent: a number zero, an empty blob.
    const int truth = PyObject_IsTrue(text);
    if (truth < 0) return -1;
    if (truth == 0) return 0;
    PyErr_Format(PyExc_TypeError, "a stored timestamp must be text, not %.200s",
                 Py_TYPE(text)->tp_name);
    return -1;
}

PyObject* fn_sqlite_time(PyObject*, PyObject* epoch) {
    return guarded<PyObject*>(nullptr, [&] { return sqlite_time_obj(epoch).release(); });
}

static PyObject* epoch_result(PyObject* text) {
    double value = 0.0;
    const int found = epoch_of(text, &value);
    if (found < 0) return nullptr;
    if (found == 0) Py_RETURN_NONE;
    return PyFloat_FromDouble(value);
}

PyObject* fn_epoch(PyObject*, PyObject* text) {
    return guarded<PyObject*>(nullptr, [&] { return epoch_result(text); });
}

Ref late_sqlite_time(ModuleState* st, PyObject* module, PyObject* value) noexcept {
    Ref fn = module_attr(module, st->s__sqlite_time);
    if (!fn) return Ref();
    if (fn.get() == st->sqlite_time_fn) return sqlite_time_obj(value);
    return call(fn.get(), {value});
}

Ref late_sqlite_time(ModuleState* st, PyObject* module, double value) noexcept {
    Ref fn = module_attr(module, st->s__sqlite_time);
    if (!fn) return Ref();
    if (fn.get() == st->sqlite_time_fn) return sqlite_time_of(value);
    Ref boxed(PyFloat_FromDouble(value));
    if (!boxed) return Ref();
    return call(fn.get(), {boxed.get()});
}

Ref late_epoch(ModuleState* st, PyObject* module, PyObject* value) noexcept {
    Ref fn = module_attr(module, st->s__epoch);
    if (!fn) return Ref();
    if (fn.get() == st->epoch_fn) return Ref(epoch_result(value));
    return call(fn.get(), {value});
}

// ---------------------------------------------------------------------------
// _known

static int known(ModuleState* st, PyObject* module, PyObject* tool, PyObject* action) noexcept {
    Ref tools = module_attr(module, st->s_TOOLS);
    if (!tools) return -1;
    Ref spec = call_method(tools.get(), st->s_get, {tool});
    if (!spec) return -1;
    if (spec.get() == Py_None) return 0;
    if (action == Py_None) return 1;
    Ref found = call_method(spec.get(), st->s_action, {action});
    if (!found) return -1;
    return found.get() != Py_None ? 1 : 0;
}

PyObject* fn_known(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return guarded<PyObject*>(nullptr, [&]() -> PyObject* {
        ModuleState* st = state_of(module);
        PyObject* names[] = {st->s_tool, st->s_action};
        PyObject* values[2];
        if (parse_args("_known", args, nargs, kwnames, names, 2, 2, 2, values) < 0) return nullptr;
        const int r = known(st, module, values[0], values[1]);
        if (r < 0) return nullptr;
        return PyBool_FromLong(r);
    });
}

int late_known(ModuleState* st, PyObject* module, PyObject* tool, PyObject* action) noexcept {
    Ref fn = module_attr(module, st->s__known);
    if (!fn) return -1;
    if (fn.get() == st->known_fn) return known(st, module, tool, action);
    Ref answer = call(fn.get(), {tool, action});
    if (!answer) return -1;
    return PyObject_IsTrue(answer.get());
}

}  // namespace health
