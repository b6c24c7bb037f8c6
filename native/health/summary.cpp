// The health summary: every known tool worst-first, each with its usage rows.
// Built under one hold of the lock. The usage map is grouped by tool in one
// pass, so the summary costs one walk of it rather than one walk per tool; the
// answer and the order of the is_slow_call calls are those of a per-tool walk.
#include "tracker.hpp"

#include <vector>

namespace health {
namespace {

// A stable merge sort that stays in bounds whatever the comparator answers
// (a host object's comparison may be inconsistent, or fail).
template <class T, class Less>
int stable_sort(std::vector<T>& items, Less&& less) {
    const size_t n = items.size();
    if (n < 2) return 0;
    std::vector<T> buffer(n);
    for (size_t width = 1; width < n; width *= 2) {
        for (size_t lo = 0; lo < n; lo += 2 * width) {
            const size_t mid = std::min(lo + width, n);
            const size_t hi = std::min(lo + 2 * width, n);
            size_t i = lo, j = mid, k = lo;
            while (i < mid && j < hi) {
                const int before = less(items[j], items[i]);
                if (before < 0) return -1;
                buffer[k++] = std::move(before ? items[j++] : items[i++]);
            }
            while (i < mid) buffer[k++] = std::move(items[i++]);
            while (j < hi) buffer[k++] = std::move(items[j++]);
        }
        items.swap(buffer);
    }
    return 0;
}

// Three-way comparison of two sort key members the way a tuple compares them.
int compare(PyObject* a, PyObject* b, int* out) {
    if (a == b) {
        *out = 0;
        return 0;
    }
    if (PyUnicode_CheckExact(a) && PyUnicode_CheckExact(b)) {
        const int c = PyUnicode_Compare(a, b);
        if (c == -1 && PyErr_Occurred()) return -1;
        *out = c;
        return 0;
    }
    const int eq = PyObject_RichCompareBool(a, b, Py_EQ);
    if (eq < 0) return -1;
    if (eq) {
        *out = 0;
        return 0;
    }
    const int lt = PyObject_RichCompareBool(a, b, Py_LT);
    if (lt < 0) return -1;
    *out = lt ? -1 : 1;
    return 0;
}

// A count of a record: read natively from the module's own record, or the
// attribute's value for a host record. Entries of both kinds meet in one sort,
// so a native count is also boxed whenever the sort holds a host record.
struct Count {
    bool native = false;
    int64_t value = 0;
    Ref object;

    int box() {
        if (!native || object) return 0;
        object.reset(PyLong_FromLongLong(value));
        return object ? 0 : -1;
    }
};

int compare_counts(const Count& a, const Count& b, int* out) {
    if (a.native && b.native) {
        *out = a.value < b.value ? -1 : (a.value > b.value ? 1 : 0);
        return 0;
    }
    return compare(a.object.get(), b.object.get(), out);
}

struct ToolEntry {
    Ref name;
    Ref record;  // from _state, or a default one for a tool known only by its usage
    std::vector<Item> usage;
    Count errors, calls;
};

struct UsageRow {
    Ref row;
    Count calls;
    Ref action;
    Ref action_text;  // str() of the action: "None" for a null action
    Ref outcome;
    Ref alias_hit;
};

Ref average_ms(ModuleState* st, PyObject* usage, UsageRow& row) {
    if (is_native_usage(st, usage)) {
        const UsageObject* u = as_usage(usage);
        int64_t timed;
        double total;
        {
            RecordLock lock(usage);
            row.calls.value = u->calls;
            timed = u->timed_calls;
            total = u->total_ms;
        }
        row.calls.native = true;
        if (timed == 0) return Ref::borrow(Py_None);
        const double mean = total / static_cast<double>(timed);
        return Ref(PyFloat_FromDouble(round_half_even(mean, 2)));
    }
    Ref timed(PyObject_GetAttr(usage, st->s_timed_calls));
    if (!timed) return Ref();
    const int any = PyObject_IsTrue(timed.get());
    if (any < 0) return Ref();
    if (!any) return Ref::borrow(Py_None);
    Ref total(PyObject_GetAttr(usage, st->s_total_ms));
    if (!total) return Ref();
    Ref mean(PyNumber_TrueDivide(total.get(), timed.get()));
    if (!mean) return Ref();
    Ref two(PyLong_FromLong(2));
    if (!two) return Ref();
    return call(st->round_fn, {mean.get(), two.get()});
}

int set_item(PyObject* dict, PyObject* key, const Ref& value) {
    return value ? PyDict_SetItem(dict, key, value.get()) : -1;
}

// Boxes the native counts of `items` when any of them is a host record's.
template <class T>
int box_if_mixed(std::vector<T>& items, Count T::*count) {
    bool any_host = false;
    for (const T& item : items) any_host |= !(item.*count).native;
    if (!any_host) return 0;
    for (T& item : items) {
        if ((item.*count).box() < 0) return -1;
    }
    return 0;
}

// The usage rows of one tool from its entries, in usage-map order, then sorted.
PyObject* build_rows(ModuleState* st, PyObject* module, PyObject* tool_name,
                     const std::vector<Item>& entries) {
    std::vector<UsageRow> rows;
    rows.reserve(entries.size());
    for (const Item& entry : entries) {
        UsageRow r;
        Ref action = sequence_item(entry.key.get(), 1);
        if (!action) return nullptr;
        r.outcome = sequence_item(entry.key.get(), 2);
        if (!r.outcome) return nullptr;
        r.alias_hit = sequence_item(entry.key.get(), 3);
        if (!r.alias_hit) return nullptr;
        Ref row(PyDict_Copy(st->usage_row_template));
        if (!row) return nullptr;
        Ref avg = average_ms(st, entry.value.get(), r);
        if (!avg) return nullptr;
        Ref calls = r.calls.native ? Ref(PyLong_FromLongLong(r.calls.value))
                                   : usage_field(st, entry.value.get(), st->s_calls);
        if (!calls) return nullptr;
        if (!r.calls.native) r.calls.object = Ref::borrow(calls.get());
        Ref is_slow_call = module_attr(module, st->s_is_slow_call);
        if (!is_slow_call) return nullptr;
        Ref slow = call(is_slow_call.get(), {tool_name, action.get()});
        if (!slow) return nullptr;
        if (PyDict_SetItem(row.get(), st->s_action, action.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_outcome, r.outcome.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_alias_hit, r.alias_hit.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_calls, calls.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_avg_ms, avg.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_slow, slow.get()) < 0) {
            return nullptr;
        }
        r.action = std::move(action);
        r.row = std::move(row);
        rows.push_back(std::move(r));
    }
    // An action takes part in the order as its text, whatever object it is (an enum member,
    // a number read from the document, bytes): each row's text is taken once, in order,
    // after every row is built, as a sort key is. Text and a null action need no call.
    for (UsageRow& r : rows) {
        PyObject* action = r.action.get();
        r.action_text = PyUnicode_CheckExact(action) ? Ref::borrow(action)
                        : action == Py_None         ? Ref::borrow(st->none_str)
                                                    : Ref(PyObject_Str(action));
        if (!r.action_text) return nullptr;
    }
    if (box_if_mixed(rows, &UsageRow::calls) < 0) return nullptr;
    // Most calls first, then action text, outcome, and alias_hit False before True.
    const int sorted = stable_sort(rows, [](const UsageRow& a, const UsageRow& b) -> int {
        int c;
        if (compare_counts(b.calls, a.calls, &c) < 0) return -1;
        if (c == 0 && compare(a.action_text.get(), b.action_text.get(), &c) < 0) return -1;
        if (c == 0 && compare(a.outcome.get(), b.outcome.get(), &c) < 0) return -1;
        if (c == 0 && compare(a.alias_hit.get(), b.alias_hit.get(), &c) < 0) return -1;
        return c < 0 ? 1 : 0;
    });
    if (sorted < 0) return nullptr;
    Ref list(PyList_New(static_cast<Py_ssize_t>(rows.size())));
    if (!list) return nullptr;
    for (size_t i = 0; i < rows.size(); ++i) {
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), rows[i].row.release());
    }
    return list.release();
}

// The entries of the usage map whose tool equals `tool_name`, from a snapshot.
int entries_of(TrackerObject* self, PyObject* tool_name, std::vector<Item>& out) {
    std::vector<Item> entries;
    if (snapshot_items(load_field(self, &TrackerObject::usage).get(), entries) < 0) return -1;
    for (Item& entry : entries) {
        Ref tool = sequence_item(entry.key.get(), 0);
        if (!tool) return -1;
        const int same = PyObject_RichCompareBool(tool.get(), tool_name, Py_EQ);
        if (same < 0) return -1;
        if (same) out.push_back(std::move(entry));
    }
    return 0;
}

// A count field of a tool's record, natively or through the host record.
int read_count(ModuleState* st, PyObject* rec, PyObject* field, int64_t ToolStateObject::*native,
               Count& out) {
    if (is_native_state(st, rec)) {
        RecordLock lock(rec);
        out.native = true;
        out.value = as_state(rec)->*native;
        return 0;
    }
    out.object = state_field(st, rec, field);
    return out.object ? 0 : -1;
}

PyObject* summary_locked(ModuleState* st, TrackerObject* self) {
    PyObject* module = self->module;
    // Both maps as they are at this instant: what follows runs host code
    // (hash and eq of names, key items, record getters, is_slow_call, ...).
    std::vector<Item> health, usage;
    if (snapshot_items(load_field(self, &TrackerObject::state).get(), health) < 0 ||
        snapshot_items(load_field(self, &TrackerObject::usage).get(), usage) < 0) {
        return nullptr;
    }
    std::vector<ToolEntry> tools;
    tools.reserve(health.size());
    Ref index(PyDict_New());  // tool name -> its place in `tools`
    if (!index) return nullptr;
    for (Item& item : health) {
        Ref place(PyLong_FromSize_t(tools.size()));
        if (!place || PyDict_SetItem(index.get(), item.key.get(), place.get()) < 0) return nullptr;
        ToolEntry t;
        t.name = std::move(item.key);
        t.record = std::move(item.value);
        tools.push_back(std::move(t));
    }
    for (Item& item : usage) {
        Ref tool = sequence_item(item.key.get(), 0);
        if (!tool) return nullptr;
        PyObject* place = PyDict_GetItemWithError(index.get(), tool.get());
        size_t at;
        if (place != nullptr) {
            at = PyLong_AsSize_t(place);  // an exact int this walk stored: no host code
            if (at >= tools.size()) {
                if (!PyErr_Occurred()) PyErr_SetString(PyExc_RuntimeError, "summary index changed");
                return nullptr;
            }
        } else {
            if (PyErr_Occurred()) return nullptr;
            at = tools.size();
            Ref fresh(PyLong_FromSize_t(at));
            if (!fresh || PyDict_SetItem(index.get(), tool.get(), fresh.get()) < 0) {
                return nullptr;
            }
            ToolEntry t;
            t.name = std::move(tool);
            tools.push_back(std::move(t));
        }
        tools[at].usage.push_back(std::move(item));
    }
    for (ToolEntry& t : tools) {
        if (!t.record) {
            t.record = new_tool_state(st, module);
            if (!t.record) return nullptr;
        }
        if (read_count(st, t.record.get(), st->s_error_count, &ToolStateObject::error_count,
                       t.errors) < 0 ||
            read_count(st, t.record.get(), st->s_call_count, &ToolStateObject::call_count,
                       t.calls) < 0) {
            return nullptr;
        }
    }
    if (box_if_mixed(tools, &ToolEntry::errors) < 0 || box_if_mixed(tools, &ToolEntry::calls) < 0) {
        return nullptr;
    }
    // Most errors first, then most calls; equal tools keep their first-seen order.
    const int sorted = stable_sort(tools, [](const ToolEntry& a, const ToolEntry& b) -> int {
        int c;
        if (compare_counts(a.errors, b.errors, &c) < 0) return -1;
        if (c == 0 && compare_counts(a.calls, b.calls, &c) < 0) return -1;
        return c > 0 ? 1 : 0;
    });
    if (sorted < 0) return nullptr;

    const bool own_rows = Py_TYPE(self) == st->tracker_type;
    Ref result(PyList_New(0));
    if (!result) return nullptr;
    for (ToolEntry& t : tools) {
        PyObject* rec = t.record.get();
        Ref record(PyDict_Copy(st->summary_template));
        if (!record) return nullptr;
        Ref disabled_at = state_field(st, rec, st->s_disabled_at);
        if (!disabled_at) return nullptr;
        if (PyDict_SetItem(record.get(), st->s_tool_name, t.name.get()) < 0 ||
            set_item(record.get(), st->s_call_count, state_field(st, rec, st->s_call_count)) < 0 ||
            set_item(record.get(), st->s_error_count, state_field(st, rec, st->s_error_count)) < 0 ||
            set_item(record.get(), st->s_last_error, state_field(st, rec, st->s_last_error)) < 0 ||
            PyDict_SetItem(record.get(), st->s_disabled,
                           disabled_at.get() != Py_None ? Py_True : Py_False) < 0 ||
            set_item(record.get(), st->s_disabled_at,
                     late_sqlite_time(st, module, disabled_at.get())) < 0) {
            return nullptr;
        }
        if (set_item(record.get(), st->s_updated_at, updated_at_text(st, module, rec)) < 0) return nullptr;
        Ref rows(own_rows ? build_rows(st, module, t.name.get(), t.usage)
                          : call_method(reinterpret_cast<PyObject*>(self), st->s__usage_rows,
                                        {t.name.get()})
                                .release());
        if (set_item(record.get(), st->s_usage, rows) < 0) return nullptr;
        if (PyList_Append(result.get(), record.get()) < 0) return nullptr;
    }
    return result.release();
}

}  // namespace

PyObject* tracker_get_health_summary(PyObject* op, PyObject*) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    ModuleState* st = self->st;
    return with_lock(self, [&] { return summary_locked(st, self); });
}

PyObject* tracker_usage_rows(PyObject* op, PyObject* const* args, Py_ssize_t nargs,
                             PyObject* kwnames) {
    TrackerObject* self = as_tracker(op);
    if (check_ready(self) < 0) return nullptr;
    ModuleState* st = self->st;
    PyObject* names[] = {st->s_tool_name};
    PyObject* tool_name;
    if (parse_args("_usage_rows", args, nargs, kwnames, names, 1, 1, 1, &tool_name) < 0) {
        return nullptr;
    }
    return guarded<PyObject*>(nullptr, [&]() -> PyObject* {
        std::vector<Item> entries;
        if (entries_of(self, tool_name, entries) < 0) return nullptr;
        return build_rows(st, self->module, tool_name, entries);
    });
}

}  // namespace health
