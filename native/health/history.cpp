// The SQLite mirror: loading the saved history at construction, flushing what
// changed, and the usage document. No statement ever runs under the lock: what
// is written is copied under it, and loading takes it only to change memory.
#include "document.hpp"

#include <vector>

namespace health {

// ---------------------------------------------------------------------------
// The statements that list the health columns

namespace {

const char kUpsertTail[] =
    ")\n"
    "                    VALUES (?, ?, ?, ?, ?, ?)\n"
    "                    ON CONFLICT(tool_name) DO UPDATE SET\n"
    "                        call_count = excluded.call_count,\n"
    "                        error_count = excluded.error_count,\n"
    "                        last_error = excluded.last_error,\n"
    "                        disabled_at = excluded.disabled_at,\n"
    "                        updated_at = excluded.updated_at";

// Both statements from the module's `_TOOL_HEALTH_COLUMNS` as it is now. The
// text is composed again only when the attribute is another object than the
// one the cached statements were made of; a value that is not an exact str
// (its formatting is host code and may change) is formatted at every use.
int health_statements(ModuleState* st, PyObject* module, Ref* select, Ref* upsert) noexcept {
    Ref columns = module_attr(module, st->s__TOOL_HEALTH_COLUMNS);
    if (!columns) return -1;
    {
        // The cache is the module's: threads that flush or load meet here.
        ObjectLock cache(module);
        if (columns.get() == st->health_columns) {
            if (select) *select = Ref::borrow(st->sql_select_health);
            if (upsert) *upsert = Ref::borrow(st->sql_upsert_health);
            return 0;
        }
    }
    const bool cacheable = PyUnicode_CheckExact(columns.get());
    Ref text = cacheable ? Ref::borrow(columns.get())
                         : Ref(PyObject_Format(columns.get(), st->empty_str));
    if (!text) return -1;
    Ref select_text(PyUnicode_FromFormat("SELECT %U FROM tool_health", text.get()));
    if (!select_text) return -1;
    Ref upsert_text(PyUnicode_FromFormat("INSERT INTO tool_health (%U%s", text.get(), kUpsertTail));
    if (!upsert_text) return -1;
    if (cacheable) {
        Ref old[3];
        ObjectLock cache(module);
        old[0].reset(st->health_columns);
        old[1].reset(st->sql_select_health);
        old[2].reset(st->sql_upsert_health);
        st->health_columns = Py_NewRef(columns.get());
        st->sql_select_health = Py_NewRef(select_text.get());
        st->sql_upsert_health = Py_NewRef(upsert_text.get());
    }
    if (select) *select = std::move(select_text);
    if (upsert) *upsert = std::move(upsert_text);
    return 0;
}

}  // namespace

Ref select_health_statement(ModuleState* st, PyObject* module) noexcept {
    Ref select;
    return health_statements(st, module, &select, nullptr) < 0 ? Ref() : std::move(select);
}

Ref upsert_health_statement(ModuleState* st, PyObject* module) noexcept {
    Ref upsert;
    return health_statements(st, module, nullptr, &upsert) < 0 ? Ref() : std::move(upsert);
}

namespace {

PyObject* db_of(ModuleState* st, TrackerObject* self, Ref& holder) {
    holder.reset(PyObject_GetAttr(self->repo, st->s_db));
    return holder.get();
}

// When the pending error is an ordinary one (not an interrupt or an exit
// request), logs `message` with it on the module's logger and clears it:
// 1 when it was handled, 0 when it must propagate, -1 when logging failed.
int warn_if_ordinary(ModuleState* st, PyObject* module, PyObject* message) {
    if (!PyErr_ExceptionMatches(PyExc_Exception)) return 0;
    PendingError error;
    Ref logger = module_attr(module, st->s_logger);
    if (!logger) {
        error.discard();
        return -1;
    }
    Ref done = call_method(logger.get(), st->s_warning, {message, error.value()});
    error.discard();
    return done ? 1 : -1;
}

// ---------------------------------------------------------------------------
// Loading

// The guarded part of _load: read every row, delete the rows of removed tools.
int read_health_rows(ModuleState* st, TrackerObject* self, Ref& rows) {
    Ref db_holder;
    PyObject* db = db_of(st, self, db_holder);
    if (db == nullptr) return -1;
    Ref select = select_health_statement(st, self->module);
    if (!select) return -1;
    rows = call_method(db, st->s_fetchall, {select.get()});
    if (!rows) return -1;
    Ref tools = module_attr(self->module, st->s_TOOLS);
    if (!tools) return -1;
    Ref removed(PyList_New(0));
    if (!removed) return -1;
    Ref iter(PyObject_GetIter(rows.get()));
    if (!iter) return -1;
    while (Ref row{PyIter_Next(iter.get())}) {
        Ref name = sequence_item(row.get(), 0);
        if (!name) return -1;
        Ref spec = call_method(tools.get(), st->s_get, {name.get()});
        if (!spec) return -1;
        if (spec.get() == Py_None) {
            Ref param(PyTuple_Pack(1, name.get()));
            if (!param || PyList_Append(removed.get(), param.get()) < 0) return -1;
        }
    }
    if (PyErr_Occurred()) return -1;
    if (PyList_GET_SIZE(removed.get()) > 0) {
        Ref done = call_method(db, st->s_executemany, {st->sql_delete_health, removed.get()});
        if (!done) return -1;
    }
    return 0;
}

// A count column: 0 for NULL, otherwise int() of the value.
int count_column(PyObject* value, int64_t* out) {
    if (value == Py_None) {
        *out = 0;
        return 0;
    }
    return int_of(value, out);
}

int seed_health(ModuleState* st, TrackerObject* self, PyObject* rows) {
    PyObject* module = self->module;
    Ref iter(PyObject_GetIter(rows));
    if (!iter) return -1;
    while (Ref row{PyIter_Next(iter.get())}) {
        Ref name = sequence_item(row.get(), 0);
        if (!name) return -1;
        Ref tools = module_attr(module, st->s_TOOLS);
        if (!tools) return -1;
        Ref spec = call_method(tools.get(), st->s_get, {name.get()});
        if (!spec) return -1;
        if (spec.get() == Py_None) continue;
        Ref columns[5];  // call_count, error_count, last_error, disabled_at, updated_at
        if (sequence_items(row.get(), 1, columns, 5) < 0) return -1;
        Ref &calls = columns[0], &errors = columns[1], &last_error = columns[2],
            &disabled = columns[3], &updated = columns[4];
        int64_t call_count, error_count;
        if (count_column(calls.get(), &call_count) < 0 ||
            count_column(errors.get(), &error_count) < 0) {
            return -1;
        }
        Ref disabled_at = late_epoch(st, module, disabled.get());
        if (!disabled_at) return -1;
        Ref updated_at = late_epoch(st, module, updated.get());
        if (!updated_at) return -1;
        if (updated_at.get() == Py_None) {
            updated_at.reset(PyFloat_FromDouble(0.0));
            if (!updated_at) return -1;
        }
        Ref record = seeded_tool_state(st, module, call_count, error_count, last_error.get(),
                                       disabled_at.get(), updated_at.get());
        if (!record) return -1;
        Ref state = load_field(self, &TrackerObject::state);  // as it is now: the steps above ran host code
        if (PyDict_SetItem(state.get(), name.get(), record.get()) < 0) return -1;
    }
    return PyErr_Occurred() ? -1 : 0;
}

PyObject* load(TrackerObject* self) {
    ModuleState* st = self->st;
    if (refuse_under_own_lock(self) < 0) return nullptr;
    Ref rows;
    if (read_health_rows(st, self, rows) < 0) {
        const int handled = warn_if_ordinary(st, self->module, st->msg_health_unreadable);
        if (handled == 1) Py_RETURN_NONE;
        return nullptr;
    }
    return with_lock(self, [&]() -> PyObject* {
        if (seed_health(st, self, rows.get()) < 0) return nullptr;
        Py_RETURN_NONE;
    });
}

// A member of a document row, by name.
Ref member(PyObject* item, PyObject* name) { return Ref(PyObject_GetItem(item, name)); }

// The guarded part of _load_usage: the document's rows as usage key -> _Usage.
int read_usage_document(ModuleState* st, TrackerObject* self, Ref& loaded) {
    PyObject* module = self->module;
    Ref db_holder;
    PyObject* db = db_of(st, self, db_holder);
    if (db == nullptr) return -1;
    Ref key = module_attr(module, st->s_TOOL_USAGE_KEY);
    if (!key) return -1;
    Ref params(PyTuple_Pack(1, key.get()));
    if (!params) return -1;
    Ref row = call_method(db, st->s_fetchone, {st->sql_select_usage, params.get()});
    if (!row) return -1;
    loaded.reset(PyDict_New());
    if (!loaded) return -1;
    if (row.get() == Py_None) return 0;
    Ref text = sequence_item(row.get(), 0);
    if (!text) return -1;
    if (!PyUnicode_Check(text.get())) return 0;
    const int fast = read_document_fast(st, module, text.get(), loaded.get());
    if (fast != 0) return fast < 0 ? -1 : 0;
    Ref json = module_attr(module, st->s_json);
    if (!json) return -1;
    Ref document = call_method(json.get(), st->s_loads, {text.get()});
    if (!document) return -1;
    if (PyDict_Check(document.get()) || PyUnicode_Check(document.get())) {
        PyErr_Format(PyExc_TypeError, "the usage document is not an array but %.100s",
                     Py_TYPE(document.get())->tp_name);
        return -1;
    }
    Ref iter(PyObject_GetIter(document.get()));
    if (!iter) return -1;
    while (Ref item{PyIter_Next(iter.get())}) {
        Ref tool = member(item.get(), st->s_tool);
        if (!tool) return -1;
        tool.reset(PyObject_Str(tool.get()));
        if (!tool) return -1;
        Ref action = member(item.get(), st->s_action);
        Ref outcome = action ? member(item.get(), st->s_outcome) : Ref();
        if (!action || !outcome) return -1;
        outcome.reset(PyObject_Str(outcome.get()));
        Ref alias = outcome ? member(item.get(), st->s_alias_hit) : Ref();
        if (!alias) return -1;
        const int alias_hit = PyObject_IsTrue(alias.get());
        if (alias_hit < 0) return -1;
        Ref calls = member(item.get(), st->s_calls);
        if (calls) calls.reset(PyNumber_Long(calls.get()));
        Ref timed = calls ? member(item.get(), st->s_timed_calls) : Ref();
        if (timed) timed.reset(PyNumber_Long(timed.get()));
        Ref total = timed ? member(item.get(), st->s_total_ms) : Ref();
        if (total) total.reset(PyNumber_Float(total.get()));
        if (!total) return -1;
        Ref usage_key(PyTuple_Pack(4, tool.get(), action.get(), outcome.get(),
                                   alias_hit ? Py_True : Py_False));
        if (!usage_key) return -1;
        Ref usage = seeded_usage(st, module, calls.get(), timed.get(), total.get());
        if (!usage || PyDict_SetItem(loaded.get(), usage_key.get(), usage.get()) < 0) return -1;
    }
    return PyErr_Occurred() ? -1 : 0;
}

PyObject* load_usage(TrackerObject* self) {
    ModuleState* st = self->st;
    if (refuse_under_own_lock(self) < 0) return nullptr;
    Ref loaded;
    if (read_usage_document(st, self, loaded) < 0) {
        const int handled = warn_if_ordinary(st, self->module, st->msg_usage_unreadable);
        if (handled == 1) Py_RETURN_NONE;
        return nullptr;
    }
    // Drop the counts of tools and actions the registry no longer has. `_known`
    // is host code: the entries it judges are a snapshot of what was read.
    std::vector<Item> entries;
    if (snapshot_items(loaded.get(), entries) < 0) return nullptr;
    std::vector<Item> kept;
    kept.reserve(entries.size());
    for (Item& entry : entries) {
        Ref tool_action[2];
        if (sequence_items(entry.key.get(), 0, tool_action, 2) < 0) return nullptr;
        const int answer = late_known(st, self->module, tool_action[0].get(), tool_action[1].get());
        if (answer < 0) return nullptr;
        if (answer) kept.push_back(std::move(entry));
    }
    const bool dropped = kept.size() < entries.size();
    return with_lock(self, [&]() -> PyObject* {
        Ref usage = load_field(self, &TrackerObject::usage);
        if (!dropped) {
            // Every entry kept: a dict update adds them in order, and into the
            // empty map of a new tracker it copies the table in one go.
            if (PyDict_Update(usage.get(), loaded.get()) < 0) return nullptr;
        } else {
            for (const Item& entry : kept) {
                usage = load_field(self, &TrackerObject::usage);  // an insertion may run host code
                if (PyDict_SetItem(usage.get(), entry.key.get(), entry.value.get()) < 0) {
                    return nullptr;
                }
            }
        }
        self->usage_dirty.set(dropped);
        Py_RETURN_NONE;
    });
}

// ---------------------------------------------------------------------------
// Flushing

// Puts marks back after a failed write, keeping the write's error as it is.
template <class Restore>
void restore_marks(TrackerObject* self, Restore&& restore) {
    if (!PyErr_ExceptionMatches(PyExc_Exception)) return;  // interrupts pass through
    PendingError error;
    LockHold hold(self);
    if (hold.acquire() < 0) {
        PyErr_Clear();
        return;
    }
    if (guarded<int>(-1, restore) < 0) PyErr_Clear();
    if (hold.release() < 0) PyErr_Clear();
}

// Adds every name of `names` (a list only this flush holds) to the tracker's
// _dirty as it is now. A name whose hash or eq fails is passed over: the
// others keep their marks. -1 when any failed.
int add_all(TrackerObject* self, PyObject* names) {
    int status = 0;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names); ++i) {
        Ref name = Ref::borrow(PyList_GET_ITEM(names, i));
        Ref dirty = load_field(self, &TrackerObject::dirty);  // adding runs the name's hash and eq
        if (PySet_Add(dirty.get(), name.get()) < 0) {
            PyErr_Clear();
            status = -1;
        }
    }
    return status;
}

// The health row of one tool, copied from its record: a native record's
// fields in one read under its lock.
Ref health_row(ModuleState* st, PyObject* module, PyObject* name, PyObject* rec) {
    if (is_native_state(st, rec)) {
        const ToolStateObject* s = as_state(rec);
        int64_t calls, errors;
        bool has_disabled;
        double disabled_at, updated_at;
        Ref last;
        {
            RecordLock lock(rec);
            calls = s->call_count;
            errors = s->error_count;
            last = Ref::borrow(s->last_error);
            has_disabled = s->has_disabled_at;
            disabled_at = s->disabled_at;
            updated_at = s->updated_at;
        }
        Ref disabled_text = has_disabled ? late_sqlite_time(st, module, disabled_at)
                                         : late_sqlite_time(st, module, Py_None);
        if (!disabled_text) return Ref();
        Ref updated_text = late_sqlite_time(st, module, updated_at);
        if (!updated_text) return Ref();
        Ref calls_obj(PyLong_FromLongLong(calls));
        if (!calls_obj) return Ref();
        Ref errors_obj(PyLong_FromLongLong(errors));
        if (!errors_obj) return Ref();
        return Ref(PyTuple_Pack(6, name, calls_obj.get(), errors_obj.get(), last.get(),
                                disabled_text.get(), updated_text.get()));
    }
    Ref disabled = state_field(st, rec, st->s_disabled_at);
    if (!disabled) return Ref();
    Ref disabled_text = late_sqlite_time(st, module, disabled.get());
    if (!disabled_text) return Ref();
    Ref updated_text = updated_at_text(st, module, rec);
    if (!updated_text) return Ref();
    Ref calls = state_field(st, rec, st->s_call_count);
    if (!calls) return Ref();
    Ref errors = state_field(st, rec, st->s_error_count);
    if (!errors) return Ref();
    Ref last = state_field(st, rec, st->s_last_error);
    if (!last) return Ref();
    return Ref(PyTuple_Pack(6, name, calls.get(), errors.get(), last.get(), disabled_text.get(),
                            updated_text.get()));
}

PyObject* flush_health(TrackerObject* self) {
    ModuleState* st = self->st;
    if (refuse_under_own_lock(self) < 0) return nullptr;
    Ref names, rows;
    PyObject* copied = with_lock(self, [&]() -> PyObject* {
        // Taken and cleared before anything runs host code: a mark that a
        // callback adds while the names sort or the rows are copied stays.
        Ref dirty = load_field(self, &TrackerObject::dirty);
        names.reset(PySequence_List(dirty.get()));
        if (!names || PySet_Clear(dirty.get()) < 0) return nullptr;
        if (PyList_Sort(names.get()) < 0) return nullptr;
        rows.reset(PyList_New(0));
        if (!rows) return nullptr;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names.get()); ++i) {
            Ref name = Ref::borrow(PyList_GET_ITEM(names.get(), i));
            Ref state = load_field(self, &TrackerObject::state);
            Ref rec;
            const int found = dict_get_ref_locked(state.get(), name.get(), rec);
            if (found < 0) return nullptr;
            if (found == 0) continue;
            Ref row = health_row(st, self->module, name.get(), rec.get());
            if (!row || PyList_Append(rows.get(), row.get()) < 0) return nullptr;
        }
        Py_RETURN_NONE;
    });
    if (copied == nullptr) {
        // A record that cannot be copied must not lose its mark.
        if (names) restore_marks(self, [&] { return add_all(self, names.get()); });
        return nullptr;
    }
    Py_DECREF(copied);
    const Py_ssize_t count = PyList_GET_SIZE(rows.get());
    if (count == 0) return PyLong_FromLong(0);
    Ref upsert = upsert_health_statement(st, self->module);
    Ref db_holder;
    PyObject* db = upsert ? db_of(st, self, db_holder) : nullptr;
    Ref done = db ? call_method(db, st->s_executemany, {upsert.get(), rows.get()}) : Ref();
    if (!done) {
        restore_marks(self, [&] { return add_all(self, names.get()); });
        return nullptr;
    }
    return PyLong_FromSsize_t(count);
}

int copy_document_row(ModuleState* st, PyObject* key, PyObject* usage, DocumentRow& r) {
    if (PyTuple_CheckExact(key) && PyTuple_GET_SIZE(key) == 4) {
        r.key = Ref::borrow(key);  // immutable: holding it copies the four values
    } else {
        Ref members[4];
        if (sequence_items(key, 0, members, 4) < 0) return -1;
        r.key.reset(PyTuple_Pack(4, members[0].get(), members[1].get(), members[2].get(),
                                 members[3].get()));
        if (!r.key) return -1;
    }
    if (is_native_usage(st, usage)) {
        const UsageObject* u = as_usage(usage);
        r.native = true;
        double total;
        {
            RecordLock lock(usage);
            r.calls = u->calls;
            r.timed_calls = u->timed_calls;
            total = u->total_ms;
        }
        r.total_ms = round_half_even(total, 3);
        return 0;
    }
    r.calls_obj = usage_field(st, usage, st->s_calls);
    if (!r.calls_obj) return -1;
    r.timed_obj = usage_field(st, usage, st->s_timed_calls);
    if (!r.timed_obj) return -1;
    Ref total = usage_field(st, usage, st->s_total_ms);
    if (!total) return -1;
    Ref three(PyLong_FromLong(3));
    if (!three) return -1;
    r.total_obj = call(st->round_fn, {total.get(), three.get()});
    return r.total_obj ? 0 : -1;
}

PyObject* flush_usage(TrackerObject* self) {
    ModuleState* st = self->st;
    if (refuse_under_own_lock(self) < 0) return nullptr;
    std::vector<DocumentRow> rows;
    bool wanted = false;
    PyObject* copied = with_lock(self, [&]() -> PyObject* {
        if (!self->usage_dirty.get()) Py_RETURN_NONE;
        self->usage_dirty.set(false);
        wanted = true;
        // The rows come from a snapshot: reading a host record or key runs host code.
        std::vector<Item> entries;
        if (snapshot_items(load_field(self, &TrackerObject::usage).get(), entries) < 0) {
            return nullptr;
        }
        rows.resize(entries.size());
        for (size_t i = 0; i < entries.size(); ++i) {
            if (copy_document_row(st, entries[i].key.get(), entries[i].value.get(), rows[i]) < 0) {
                return nullptr;
            }
        }
        Py_RETURN_NONE;
    });
    auto set_mark = [&] {
        self->usage_dirty.set(true);
        return 0;
    };
    if (copied == nullptr) {
        if (wanted) restore_marks(self, set_mark);
        return nullptr;
    }
    Py_DECREF(copied);
    if (!wanted) return PyLong_FromLong(0);
    Ref text = layout_document(st, self->module, rows);
    Ref done;
    if (text) {
        Ref key = module_attr(self->module, st->s_TOOL_USAGE_KEY);
        Ref params = key ? Ref(PyTuple_Pack(2, key.get(), text.get())) : Ref();
        Ref db_holder;
        PyObject* db = params ? db_of(st, self, db_holder) : nullptr;
        if (db) done = call_method(db, st->s_execute, {st->sql_write_usage, params.get()});
    }
    if (!done) {
        restore_marks(self, set_mark);
        return nullptr;
    }
    return PyLong_FromSize_t(rows.size());
}

}  // namespace

PyObject* tracker_load(PyObject* op, PyObject*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return guarded<PyObject*>(nullptr, [&] { return load(self); });
}

PyObject* tracker_load_usage(PyObject* op, PyObject*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return guarded<PyObject*>(nullptr, [&] { return load_usage(self); });
}

PyObject* tracker_flush_health(PyObject* op, PyObject*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return guarded<PyObject*>(nullptr, [&] { return flush_health(self); });
}

PyObject* tracker_flush_usage(PyObject* op, PyObject*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return guarded<PyObject*>(nullptr, [&] { return flush_usage(self); });
}

PyObject* tracker_flush(PyObject* op, PyObject*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0 || refuse_under_own_lock(self) < 0) return nullptr;
    ModuleState* st = self->st;
    Ref health_rows = call_own(self, st->s__flush_health, tracker_flush_health);
    if (!health_rows) return nullptr;
    Ref usage_rows = call_own(self, st->s__flush_usage, tracker_flush_usage);
    if (!usage_rows) return nullptr;
    return PyNumber_Add(health_rows.get(), usage_rows.get());
}

PyObject* tracker_has_unsaved_changes(PyObject* op, void*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    return with_lock(self, [&]() -> PyObject* {
        // Read once the lock is held: taking a host lock runs host code.
        Ref dirty = load_field(self, &TrackerObject::dirty);
        return PyBool_FromLong(PySet_GET_SIZE(dirty.get()) > 0 || self->usage_dirty.get());
    });
}

}  // namespace health
