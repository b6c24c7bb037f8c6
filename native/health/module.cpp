// Module init: binds the host facilities, the constants, the records and the
// operations, in the order the host relies on, and keeps the module state.
#include "tracker.hpp"

#include <cstring>

namespace health {
namespace {

const char kModuleDoc[] =
    "Tool health for the daemon's tools.\n\n"
    "Tracks each tool's calls and errors, disables a tool after a run of errors and\n"
    "re-enables it after a cooldown, counts every call by usage key with its handler\n"
    "time, and mirrors that state in the repository's SQLite database\n"
    "(ToolHealthTracker). Also answers the performance stats of the tools\n"
    "(handle_get_tool_performance_stats) and the process's thread census\n"
    "(thread_census_report).";

const char kColumns[] = "tool_name, call_count, error_count, last_error, disabled_at, updated_at";

PyMethodDef sqlite_time_def = {
    "_sqlite_time", fn_sqlite_time, METH_O,
    "_sqlite_time(epoch, /)\n--\n\n"
    "The stored UTC timestamp text of epoch seconds, or None for None."};
PyMethodDef epoch_def = {
    "_epoch", fn_epoch, METH_O,
    "_epoch(text, /)\n--\n\n"
    "Epoch seconds of a stored timestamp text; None when absent, empty or unreadable."};
PyMethodDef known_def = {
    "_known", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(fn_known)),
    METH_FASTCALL | METH_KEYWORDS,
    "_known(tool, action)\n--\n\n"
    "Whether the registry TOOLS still has the tool and, unless action is None, that action."};
PyMethodDef stats_def = {
    "handle_get_tool_performance_stats", fn_handle_get_tool_performance_stats, METH_NOARGS,
    "handle_get_tool_performance_stats()\n--\n\n"
    "The get_tool_performance_stats answer: {\"tools\": [...]} with name, count,\n"
    "avg_ms, p95_ms, min_ms, max_ms and errors of every tool the timing collector knows."};
PyMethodDef census_def = {
    "thread_census_report",
    reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(fn_thread_census_report)),
    METH_FASTCALL | METH_KEYWORDS,
    "thread_census_report(budget, census=None)\n--\n\n"
    "The process's threads against the budget its pools allow, with a warning when\n"
    "they exceed it. Takes a census with thread_census() (blocking) when none is given."};

int add(PyObject* module, const char* name, PyObject* value) {
    // Steals `value`, also on failure.
    Ref owned(value);
    if (!owned) return -1;
    return PyModule_AddObjectRef(module, name, owned.get());
}

// `from <module_name> import <names...>`, each bound on the module.
int import_names(PyObject* module, const char* module_name, std::initializer_list<const char*> names) {
    Ref source(PyImport_ImportModule(module_name));
    if (!source) return -1;
    for (const char* name : names) {
        Ref value(PyObject_GetAttrString(source.get(), name));
        if (!value) {
            if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return -1;
            PyErr_Clear();
            PyErr_Format(PyExc_ImportError, "cannot import name '%s' from '%s'", name,
                         module_name);
            return -1;
        }
        if (PyModule_AddObjectRef(module, name, value.get()) < 0) return -1;
    }
    return 0;
}

int add_function(PyObject* module, PyMethodDef* def, PyObject** keep) {
    Ref name(PyModule_GetNameObject(module));
    if (!name) return -1;
    Ref fn(PyCFunction_NewEx(def, module, name.get()));
    if (!fn) return -1;
    if (keep != nullptr) *keep = Ref::borrow(fn.get()).release();
    return PyModule_AddObjectRef(module, def->ml_name, fn.get());
}

int add_type(PyObject* module, PyType_Spec* spec, PyTypeObject** keep) {
    PyObject* type = PyType_FromModuleAndSpec(module, spec, nullptr);
    if (type == nullptr) return -1;
    *keep = reinterpret_cast<PyTypeObject*>(type);  // the state owns this reference
    const char* dot = std::strrchr(spec->name, '.');
    return PyModule_AddObjectRef(module, dot ? dot + 1 : spec->name, type);
}

int init_state(ModuleState* st) {
#define HEALTH_INTERN(n) \
    if ((st->s_##n = PyUnicode_InternFromString(#n)) == nullptr) return -1;
    HEALTH_NAMES(HEALTH_INTERN)
#undef HEALTH_INTERN
    if (!(st->sql_delete_health =
              PyUnicode_FromString("DELETE FROM tool_health WHERE tool_name = ?")) ||
        !(st->sql_select_usage =
              PyUnicode_FromString("SELECT value FROM schema_info WHERE key = ?")) ||
        !(st->sql_write_usage = PyUnicode_FromString(
              "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)")) ||
        !(st->msg_health_unreadable =
              PyUnicode_FromString("Could not read the tool health history: %s")) ||
        !(st->msg_usage_unreadable =
              PyUnicode_FromString("Could not read the tool usage counts: %s")) ||
        !(st->empty_str = PyUnicode_FromString("")) ||
        !(st->empty_tuple = PyTuple_New(0)) ||
        !(st->none_str = PyUnicode_FromString("None")) ||
        !(st->compact_separators = Py_BuildValue("(ss)", ",", ":")) ||
        !(st->not_disabled = PyTuple_Pack(2, Py_False, Py_None))) {
        return -1;
    }
    st->summary_template = PyDict_New();
    st->usage_row_template = PyDict_New();
    if (!st->summary_template || !st->usage_row_template) return -1;
    for (PyObject* key : {st->s_tool_name, st->s_call_count, st->s_error_count, st->s_last_error,
                          st->s_disabled, st->s_disabled_at, st->s_updated_at, st->s_usage}) {
        if (PyDict_SetItem(st->summary_template, key, Py_None) < 0) return -1;
    }
    for (PyObject* key : {st->s_action, st->s_outcome, st->s_alias_hit, st->s_calls, st->s_avg_ms,
                          st->s_slow}) {
        if (PyDict_SetItem(st->usage_row_template, key, Py_None) < 0) return -1;
    }
    Ref builtins(PyImport_ImportModule("builtins"));
    if (!builtins) return -1;
    st->round_fn = PyObject_GetAttrString(builtins.get(), "round");
    return st->round_fn != nullptr ? 0 : -1;
}

int exec_impl(PyObject* module) {
    ModuleState* st = state_of(module);
    if (init_state(st) < 0) return -1;

    // The host runtime's facilities, in this order.
    for (const char* name : {"json", "logging", "threading", "time"}) {
        if (add(module, name, PyImport_ImportModule(name)) < 0) return -1;
    }
    if (import_names(module, "dataclasses", {"dataclass"}) < 0 ||
        import_names(module, "datetime", {"datetime", "timezone"}) < 0 ||
        import_names(module, "typing", {"TYPE_CHECKING", "Any"}) < 0) {
        return -1;
    }
    st->json_module = PyObject_GetAttr(module, st->s_json);
    if (st->json_module == nullptr) return -1;
    st->json_dumps = PyObject_GetAttr(st->json_module, st->s_dumps);
    if (st->json_dumps == nullptr) return -1;
    st->json_loads = PyObject_GetAttr(st->json_module, st->s_loads);
    if (st->json_loads == nullptr) return -1;
    Ref time_mod(PyObject_GetAttr(module, st->s_time));
    if (!time_mod) return -1;
    st->time_time = PyObject_GetAttr(time_mod.get(), st->s_time);
    if (st->time_time == nullptr) return -1;

    // The host daemon's names.
    if (import_names(module, "ordanis_veltrane.config", {"ToolsConfig"}) < 0 ||
        import_names(module, "ordanis_veltrane.tool_registry", {"TOOLS"}) < 0 ||
        import_names(module, "ordanis_veltrane.tool_schemas", {"is_slow_call"}) < 0 ||
        import_names(module, "ordanis_veltrane.utils.process", {"ThreadCensus", "thread_census"}) < 0 ||
        import_names(module, "ordanis_veltrane.utils.timing", {"get_timing_collector"}) < 0) {
        return -1;
    }

    Ref logging(PyObject_GetAttr(module, st->s_logging));
    Ref qualname(PyModule_GetNameObject(module));
    if (!logging || !qualname) return -1;
    if (add(module, "logger", call_method(logging.get(), st->s_getLogger, {qualname.get()}).release()) < 0) {
        return -1;
    }

    if (add(module, "_SQLITE_TIMESTAMP", PyUnicode_FromString("%Y-%m-%d %H:%M:%S")) < 0 ||
        add(module, "_TOOL_HEALTH_COLUMNS", PyUnicode_FromString(kColumns)) < 0 ||
        add(module, "TOOL_USAGE_KEY", PyUnicode_FromString("tool_usage")) < 0) {
        return -1;
    }
    // _UsageKey = tuple[str, str | None, str, bool]
    Ref optional_str(PyNumber_Or(reinterpret_cast<PyObject*>(&PyUnicode_Type), Py_None));
    if (!optional_str) return -1;
    Ref members(PyTuple_Pack(4, reinterpret_cast<PyObject*>(&PyUnicode_Type), optional_str.get(),
                             reinterpret_cast<PyObject*>(&PyUnicode_Type),
                             reinterpret_cast<PyObject*>(&PyBool_Type)));
    if (!members) return -1;
    if (add(module, "_UsageKey",
            Py_GenericAlias(reinterpret_cast<PyObject*>(&PyTuple_Type), members.get())) < 0) {
        return -1;
    }

    if (add_function(module, &sqlite_time_def, &st->sqlite_time_fn) < 0 ||
        add_function(module, &epoch_def, &st->epoch_fn) < 0 ||
        add_type(module, &tool_state_spec, &st->tool_state_type) < 0 ||
        add_type(module, &usage_spec, &st->usage_type) < 0 ||
        describe_records_as_dataclasses(st) < 0 ||
        add_function(module, &known_def, &st->known_fn) < 0 ||
        add_type(module, &tracker_spec, &st->tracker_type) < 0 ||
        add_function(module, &stats_def, nullptr) < 0 ||
        add_function(module, &census_def, nullptr) < 0) {
        return -1;
    }
    return 0;
}

int module_exec(PyObject* module) {
    return guarded<int>(-1, [&] { return exec_impl(module); });
}

int module_traverse(PyObject* module, visitproc visit, void* arg) {
    ModuleState* st = state_of(module);
    if (st == nullptr) return 0;
    Py_VISIT(st->tool_state_type);
    Py_VISIT(st->usage_type);
    Py_VISIT(st->tracker_type);
    Py_VISIT(st->sqlite_time_fn);
    Py_VISIT(st->epoch_fn);
    Py_VISIT(st->known_fn);
    Py_VISIT(st->time_time);
    Py_VISIT(st->json_module);
    Py_VISIT(st->json_dumps);
    Py_VISIT(st->json_loads);
    Py_VISIT(st->round_fn);
    return 0;
}

int module_clear(PyObject* module) {
    ModuleState* st = state_of(module);
    if (st == nullptr) return 0;
    Py_CLEAR(st->tool_state_type);
    Py_CLEAR(st->usage_type);
    Py_CLEAR(st->tracker_type);
    Py_CLEAR(st->sqlite_time_fn);
    Py_CLEAR(st->epoch_fn);
    Py_CLEAR(st->known_fn);
    Py_CLEAR(st->time_time);
    Py_CLEAR(st->json_module);
    Py_CLEAR(st->json_dumps);
    Py_CLEAR(st->json_loads);
    Py_CLEAR(st->round_fn);
    Py_CLEAR(st->not_disabled);
    Py_CLEAR(st->empty_str);
    Py_CLEAR(st->empty_tuple);
    Py_CLEAR(st->none_str);
    Py_CLEAR(st->compact_separators);
    Py_CLEAR(st->summary_template);
    Py_CLEAR(st->usage_row_template);
    Py_CLEAR(st->health_columns);
    Py_CLEAR(st->sql_select_health);
    Py_CLEAR(st->sql_delete_health);
    Py_CLEAR(st->sql_upsert_health);
    Py_CLEAR(st->sql_select_usage);
    Py_CLEAR(st->sql_write_usage);
    Py_CLEAR(st->msg_health_unreadable);
    Py_CLEAR(st->msg_usage_unreadable);
#define HEALTH_CLEAR_NAME(n) Py_CLEAR(st->s_##n);
    HEALTH_NAMES(HEALTH_CLEAR_NAME)
#undef HEALTH_CLEAR_NAME
    return 0;
}

void module_free(void* module) { module_clear(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(module_exec)},
#if PY_VERSION_HEX >= 0x030C0000
    // Every Python object the module keeps is in its module state or in its heap types, and
    // its only static data is plain C that holds no reference (method tables, type specs,
    // per-thread scratch): each interpreter gets a module of its own and may run under a GIL
    // of its own.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
#if PY_VERSION_HEX >= 0x030D0000
    // Safe without the GIL: every lookup holds what it finds, every walk of a map runs under
    // the map's critical section, and the fields of the records and the tracker are read and
    // written under their object's own (sync.hpp).
    {Py_mod_gil, Py_MOD_GIL_NOT_USED},
#endif
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "health",
    kModuleDoc,
    sizeof(ModuleState),
    nullptr,
    module_slots,
    module_traverse,
    module_clear,
    module_free,
};

}  // namespace
}  // namespace health

PyMODINIT_FUNC PyInit_health(void) { return PyModuleDef_Init(&health::module_def); }
