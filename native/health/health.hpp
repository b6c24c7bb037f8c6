// Module state and the helpers that every part of the module shares.
#pragma once

#include "sync.hpp"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace health {

// Interned names: attribute names, answer keys and record fields.
#define HEALTH_NAMES(X)                                                          \
    X(json) X(logging) X(threading) X(time) X(dataclass) X(datetime)            \
    X(timezone) X(TYPE_CHECKING) X(Any) X(ToolsConfig) X(TOOLS) X(is_slow_call)  \
    X(ThreadCensus) X(thread_census) X(get_timing_collector) X(logger)           \
    X(_SQLITE_TIMESTAMP) X(_TOOL_HEALTH_COLUMNS) X(TOOL_USAGE_KEY) X(_UsageKey)  \
    X(_sqlite_time) X(_epoch) X(_ToolState) X(_Usage) X(_known)                  \
    X(ToolHealthTracker) X(handle_get_tool_performance_stats)                    \
    X(thread_census_report) X(Lock) X(acquire) X(release) X(get) X(action)       \
    X(dumps) X(loads) X(separators) X(warning) X(getLogger)                      \
    X(disable_after_errors) X(disable_cooldown_s) X(cooldown_s)                  \
    X(call_count) X(error_count) X(last_error) X(disabled_at) X(updated_at)      \
    X(consecutive_errors) X(calls) X(timed_calls) X(total_ms)                    \
    X(tool_name) X(disabled) X(usage) X(outcome) X(alias_hit) X(avg_ms) X(slow)  \
    X(tool) X(name) X(count) X(p95_ms) X(min_ms) X(max_ms) X(errors) X(tools)    \
    X(get_all_stats) X(os_threads) X(python_total) X(python_threads) X(os)       \
    X(python) X(python_by_name) X(budget) X(db) X(fetchall) X(fetchone)          \
    X(execute) X(executemany) X(_load) X(_load_usage) X(_flush_health)           \
    X(_flush_usage) X(_usage_rows) X(repository) X(limits) X(epoch) X(text)      \
    X(census) X(duration_ms) X(error)

struct ModuleState {
    PyTypeObject* tool_state_type;
    PyTypeObject* usage_type;
    PyTypeObject* tracker_type;
    // The module's own functions and the host facilities seen at load: an
    // attribute still identical to one of these takes the native fast path.
    PyObject* sqlite_time_fn;
    PyObject* epoch_fn;
    PyObject* known_fn;
    PyObject* time_time;
    PyObject* json_module;
    PyObject* json_dumps;
    PyObject* json_loads;
    PyObject* round_fn;
    PyObject* not_disabled;  // the answer (False, None)
    PyObject* empty_str;
    PyObject* empty_tuple;
    PyObject* none_str;      // "None": where a null action sorts
    PyObject* compact_separators;
    // Answer maps with their keys in order: copying one is cheaper than growing a new dict.
    PyObject* summary_template;
    PyObject* usage_row_template;
    // The two statements that list the health columns, composed from the
    // `_TOOL_HEALTH_COLUMNS` text they were made of (held, so its identity
    // stays meaningful): a rebound attribute composes them anew.
    PyObject* health_columns;
    PyObject* sql_select_health;
    PyObject* sql_upsert_health;
    PyObject* sql_delete_health;
    PyObject* sql_select_usage;
    PyObject* sql_write_usage;
    PyObject* msg_health_unreadable;
    PyObject* msg_usage_unreadable;
#define HEALTH_DECLARE_NAME(n) PyObject* s_##n;
    HEALTH_NAMES(HEALTH_DECLARE_NAME)
#undef HEALTH_DECLARE_NAME
};

inline ModuleState* state_of(PyObject* module) noexcept {
    return static_cast<ModuleState*>(PyModule_GetState(module));
}

// The module attribute `name`, as it is now (a new reference), or null with
// AttributeError set.
Ref module_attr(PyObject* module, PyObject* name) noexcept;

// One entry of a map, held.
struct Item {
    Ref key;
    Ref value;
};
// Every entry of the dict `map` in its order, held, taken under the map's
// critical section with no Python code in between: one consistent view that
// later steps may walk while host code, or another thread, changes the map.
int snapshot_items(PyObject* map, std::vector<Item>& out);

// The statements that name the health columns, from the module's current
// `_TOOL_HEALTH_COLUMNS` (new references).
Ref select_health_statement(ModuleState* st, PyObject* module) noexcept;
Ref upsert_health_statement(ModuleState* st, PyObject* module) noexcept;

// The wall clock as the module's `time.time` reads it.
int wall_clock(ModuleState* st, PyObject* module, double* now) noexcept;

// Value conversions with fast paths for exact builtin types.
int as_double(PyObject* value, double* out) noexcept;
int as_int64(PyObject* value, int64_t* out) noexcept;
// `int(value)` as a 64-bit count; OverflowError beyond it.
int int_of(PyObject* value, int64_t* out) noexcept;

// Python's round(x, ndigits) for a float, 0 <= ndigits <= 17.
double round_half_even(double x, int ndigits) noexcept;

// Python's own repr of a finite float, as json.dumps writes it (at most 24
// characters); returns the end of what was written.
char* write_float_repr(char* out, double x);

// seq[i]: straight from an exact tuple, through the sequence protocol otherwise.
inline Ref sequence_item(PyObject* seq, Py_ssize_t i) noexcept {
    if (PyTuple_CheckExact(seq) && i < PyTuple_GET_SIZE(seq)) {
        return Ref::borrow(PyTuple_GET_ITEM(seq, i));
    }
    return Ref(PySequence_GetItem(seq, i));
}

// seq[first], seq[first + 1], ... into out[0..n): stops at the first failure,
// since each item may run host code and none may run with an error pending.
inline int sequence_items(PyObject* seq, Py_ssize_t first, Ref* out, int n) noexcept {
    for (int i = 0; i < n; ++i) {
        out[i] = sequence_item(seq, first + i);
        if (!out[i]) return -1;
    }
    return 0;
}

// Calls `callable` with positional arguments.
Ref call(PyObject* callable, std::initializer_list<PyObject*> args) noexcept;
// Calls obj.name(*args).
Ref call_method(PyObject* obj, PyObject* name, std::initializer_list<PyObject*> args) noexcept;

// Arguments of a METH_FASTCALL | METH_KEYWORDS function: `names` are the
// parameters in order; the first `positional` may come by position, the rest
// only by name; the first `required` must be given. `out` receives borrowed
// references, null for an absent optional one.
int parse_args(const char* fname, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
               PyObject* const* names, int count, int positional, int required,
               PyObject** out) noexcept;

// Time conversion between epoch seconds and the stored timestamp text.
Ref sqlite_time_of(double epoch) noexcept;
Ref sqlite_time_obj(PyObject* epoch) noexcept;
// 1 and *out set when the text reads as a timestamp, 0 when it is absent or
// unreadable, -1 with an error for a value that is not text.
int epoch_of(PyObject* text, double* out) noexcept;

// `_sqlite_time(value)` and `_epoch(value)` through the module's current attributes.
Ref late_sqlite_time(ModuleState* st, PyObject* module, PyObject* value) noexcept;
Ref late_sqlite_time(ModuleState* st, PyObject* module, double value) noexcept;
Ref late_epoch(ModuleState* st, PyObject* module, PyObject* value) noexcept;

// Module-level functions.
PyObject* fn_sqlite_time(PyObject* module, PyObject* epoch);
PyObject* fn_epoch(PyObject* module, PyObject* text);
PyObject* fn_known(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* fn_handle_get_tool_performance_stats(PyObject* module, PyObject* unused);
PyObject* fn_thread_census_report(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                                  PyObject* kwnames);
// `_known(tool, action)` through the module's current `_known`: 1, 0 or -1.
int late_known(ModuleState* st, PyObject* module, PyObject* tool, PyObject* action) noexcept;

// Type specs, created at module exec.
extern PyType_Spec tool_state_spec;
extern PyType_Spec usage_spec;
extern PyType_Spec tracker_spec;

}  // namespace health
