// The two status reports: the tools' performance stats from the daemon's timing
// collector, and the thread census against the pools' budget.
#include "health.hpp"

namespace health {

static PyObject* performance_stats(PyObject* module) {
    ModuleState* st = state_of(module);
    Ref get_collector = module_attr(module, st->s_get_timing_collector);
    if (!get_collector) return nullptr;
    Ref collector(PyObject_CallNoArgs(get_collector.get()));
    if (!collector) return nullptr;
    Ref stats = call_method(collector.get(), st->s_get_all_stats, {});
    if (!stats) return nullptr;
    Ref iter(PyObject_GetIter(stats.get()));
    if (!iter) return nullptr;
    Ref tools(PyList_New(0));
    if (!tools) return nullptr;
    PyObject* const keys[] = {st->s_name,   st->s_count,  st->s_avg_ms, st->s_p95_ms,
                              st->s_min_ms, st->s_max_ms, st->s_errors};
    while (Ref entry{PyIter_Next(iter.get())}) {
        Ref record(PyDict_New());
        if (!record) return nullptr;
        for (PyObject* key : keys) {
            Ref value(PyObject_GetItem(entry.get(), key));
            if (!value || PyDict_SetItem(record.get(), key, value.get()) < 0) return nullptr;
        }
        if (PyList_Append(tools.get(), record.get()) < 0) return nullptr;
    }
    if (PyErr_Occurred()) return nullptr;
    Ref answer(PyDict_New());
    if (!answer || PyDict_SetItem(answer.get(), st->s_tools, tools.get()) < 0) return nullptr;
    return answer.release();
}

PyObject* fn_handle_get_tool_performance_stats(PyObject* module, PyObject*) {
    return guarded<PyObject*>(nullptr, [&] { return performance_stats(module); });
}

static PyObject* census_report(PyObject* module, PyObject* budget, PyObject* census_arg) {
    ModuleState* st = state_of(module);
    Ref census = Ref::borrow(census_arg);
    if (census_arg == nullptr || census_arg == Py_None) {
        Ref take = module_attr(module, st->s_thread_census);
        if (!take) return nullptr;
        census.reset(PyObject_CallNoArgs(take.get()));
        if (!census) return nullptr;
    }
    Ref os_threads(PyObject_GetAttr(census.get(), st->s_os_threads));
    if (!os_threads) return nullptr;
    Ref report(PyDict_New());
    if (!report) return nullptr;
    const bool has_os = os_threads.get() != Py_None;
    if (has_os && PyDict_SetItem(report.get(), st->s_os, os_threads.get()) < 0) return nullptr;
    Ref python_total(PyObject_GetAttr(census.get(), st->s_python_total));
    if (!python_total || PyDict_SetItem(report.get(), st->s_python, python_total.get()) < 0) {
        return nullptr;
    }
    Ref python_threads(PyObject_GetAttr(census.get(), st->s_python_threads));
    if (!python_threads) return nullptr;
    Ref by_name(PyDict_CheckExact(python_threads.get())
                    ? PyDict_Copy(python_threads.get())
                    : PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type),
                                          python_threads.get()));
    if (!by_name || PyDict_SetItem(report.get(), st->s_python_by_name, by_name.get()) < 0 ||
        PyDict_SetItem(report.get(), st->s_budget, budget) < 0) {
        return nullptr;
    }
    PyObject* counted = has_os ? os_threads.get() : python_total.get();
    const int over = PyObject_RichCompareBool(counted, budget, Py_GT);
    if (over < 0) return nullptr;
    if (over) {
        Ref warning(PyUnicode_FromFormat(
            "The process holds %S threads, more than the %S its pools allow: threads are piling "
            "up. A thread that ran the local embedding model keeps a team of torch threads, as "
            "many as VELTRANE_EMBED_THREADS allows (0 leaves torch's own size).",
            counted, budget));
        if (!warning || PyDict_SetItem(report.get(), st->s_warning, warning.get()) < 0) {
            return nullptr;
        }
    }
    return report.release();
}

PyObject* fn_thread_census_report(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                                  PyObject* kwnames) {
    return guarded<PyObject*>(nullptr, [&]() -> PyObject* {
        ModuleState* st = state_of(module);
        PyObject* names[] = {st->s_budget, st->s_census};
        PyObject* values[2];
        if (parse_args("thread_census_report", args, nargs, kwnames, names, 2, 2, 1, values) < 0) {
            return nullptr;
        }
        return census_report(module, values[0], values[1]);
    });
}

}  // namespace health
