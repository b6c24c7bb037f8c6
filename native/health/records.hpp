// The two record types, and access to a record that may be the module's own
// native record or an object of a type the host put in its place.
#pragma once

#include "health.hpp"

namespace health {

// A native record's fields are read and written only under its lock: host
// code may read or set them from any thread, without the tracker's lock. An
// operation holds it across its whole update of one record (the host code it
// calls meanwhile suspends it, see sync.hpp); the getters and setters hold it
// for one field.
using RecordLock = ObjectLock;
using RecordLock2 = ObjectLock2;

struct ToolStateObject {
    PyObject_HEAD
    int64_t call_count;
    int64_t error_count;
    int64_t consecutive_errors;
    PyObject* last_error;  // any object; None when no error was recorded
    double disabled_at;
    double updated_at;
    bool has_disabled_at;
    // Bookkeeping of a shared tracker's sync (changes.cpp), invisible to the
    // record's fields: what the store last acknowledged, and what happened
    // here since the last change-set was taken.
    bool synced_has_disabled;
    uint8_t events;  // kDisabledHere | kSucceeded
    int64_t synced_calls;
    int64_t synced_errors;
    double synced_disabled_at;
};

// ToolStateObject::events: an error here disabled the tool; a call succeeded here.
constexpr uint8_t kDisabledHere = 1;
constexpr uint8_t kSucceeded = 2;

struct UsageObject {
    PyObject_HEAD
    int64_t calls;
    int64_t timed_calls;
    double total_ms;
    // What the shared store last acknowledged (changes.cpp).
    int64_t synced_calls;
    int64_t synced_timed;
    double synced_total;
};

inline bool is_native_state(ModuleState* st, PyObject* rec) noexcept {
    return Py_TYPE(rec) == st->tool_state_type;
}
inline bool is_native_usage(ModuleState* st, PyObject* rec) noexcept {
    return Py_TYPE(rec) == st->usage_type;
}
inline ToolStateObject* as_state(PyObject* rec) noexcept {
    return reinterpret_cast<ToolStateObject*>(rec);
}
inline UsageObject* as_usage(PyObject* rec) noexcept { return reinterpret_cast<UsageObject*>(rec); }

// A native record's last_error (held), and its replacement by `value`; the
// old message is dropped once the record is unlocked.
Ref last_error_of(PyObject* rec) noexcept;
void replace_last_error(PyObject* rec, Ref value) noexcept;

// Puts the dataclass description of the two record types on them (module exec).
int describe_records_as_dataclasses(ModuleState* st);

// A default record made through the module's current `_ToolState` / `_Usage`.
Ref new_tool_state(ModuleState* st, PyObject* module) noexcept;
Ref new_usage(ModuleState* st, PyObject* module) noexcept;

// A seeded record: `_ToolState(call_count=, error_count=, last_error=,
// disabled_at=, updated_at=)` and `_Usage(calls, timed_calls, total_ms)`.
Ref seeded_tool_state(ModuleState* st, PyObject* module, int64_t call_count, int64_t error_count,
                      PyObject* last_error, PyObject* disabled_at, PyObject* updated_at) noexcept;
Ref seeded_usage(ModuleState* st, PyObject* module, PyObject* calls, PyObject* timed_calls,
                 PyObject* total_ms) noexcept;

// A field of either kind of record as a Python object (new reference).
Ref state_field(ModuleState* st, PyObject* rec, PyObject* field) noexcept;
Ref usage_field(ModuleState* st, PyObject* rec, PyObject* field) noexcept;

// `_sqlite_time(rec.updated_at)` through the module's current `_sqlite_time`,
// the native record's time read without boxing it.
Ref updated_at_text(ModuleState* st, PyObject* module, PyObject* rec) noexcept;

// rec.field += 1 on a record of a host type.
int increment_attr(PyObject* rec, PyObject* field) noexcept;
// Checked 64-bit increment: OverflowError instead of wrapping.
int count_overflow() noexcept;
inline int increment(int64_t* value) noexcept {
    if (*value == INT64_MAX) return count_overflow();
    ++*value;
    return 0;
}

}  // namespace health
