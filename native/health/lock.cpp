// The tracker's lock: binding its methods, calling them, and refusing a
// thread that would take it again through host code.
#include "lock.hpp"

namespace health {

void BoundCall::bind(PyObject* bound) noexcept {
    method = bound;
    function = nullptr;
    self = nullptr;
    flags = 0;
    if (bound != nullptr && PyCFunction_Check(bound)) {
        const int f = PyCFunction_GET_FLAGS(bound);
        const int kinds = METH_VARARGS | METH_KEYWORDS | METH_NOARGS | METH_FASTCALL;
        if ((f & ~kinds & ~METH_COEXIST) == 0 && PyCFunction_GET_SELF(bound) != nullptr) {
            function = PyCFunction_GET_FUNCTION(bound);
            self = PyCFunction_GET_SELF(bound);
            flags = f & kinds;
        }
    }
}

PyObject* BoundCall::operator()(PyObject* empty_tuple) const noexcept {
    using WithKeywords = PyObject* (*)(PyObject*, PyObject*, PyObject*);
    using Fast = PyObject* (*)(PyObject*, PyObject* const*, Py_ssize_t);
    using FastWithKeywords = PyObject* (*)(PyObject*, PyObject* const*, Py_ssize_t, PyObject*);
    auto as = [](PyCFunction f) { return reinterpret_cast<void (*)(void)>(f); };
    PyObject* result;
    switch (function != nullptr ? flags : -1) {
        case METH_NOARGS: result = function(self, nullptr); break;
        case METH_VARARGS: result = function(self, empty_tuple); break;
        case METH_VARARGS | METH_KEYWORDS:
            result = reinterpret_cast<WithKeywords>(as(function))(self, empty_tuple, nullptr);
            break;
        case METH_FASTCALL: result = reinterpret_cast<Fast>(as(function))(self, nullptr, 0); break;
        case METH_FASTCALL | METH_KEYWORDS:
            result = reinterpret_cast<FastWithKeywords>(as(function))(self, nullptr, 0, nullptr);
            break;
        default: return PyObject_Vectorcall(method, nullptr, 0, nullptr);
    }
    if (result == nullptr && !PyErr_Occurred()) {
        PyErr_SetString(PyExc_SystemError, "a lock method failed without an exception");
    }
    return result;
}

void install_lock(LockFields& fields, PyObject* lock, Ref& acquire, Ref& release, Ref old[3]) noexcept {
    old[0].reset(fields.object);
    old[1].reset(fields.acquire.method);
    old[2].reset(fields.release.method);
    fields.object = Py_NewRef(lock);
    fields.acquire.bind(acquire.release());
    fields.release.bind(release.release());
}

void clear_lock(LockFields& fields) noexcept {
    Py_CLEAR(fields.object);
    Py_CLEAR(fields.acquire.method);
    Py_CLEAR(fields.release.method);
    fields.acquire.bind(nullptr);
    fields.release.bind(nullptr);
}

int lock_methods(ModuleState* st, PyObject* lock, Ref& acquire, Ref& release) noexcept {
    acquire.reset(PyObject_GetAttr(lock, st->s_acquire));
    if (acquire) release.reset(PyObject_GetAttr(lock, st->s_release));
    if (!acquire || !release) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return -1;
        PyErr_Clear();
    }
    if (!acquire || !release || !PyCallable_Check(acquire.get()) ||
        !PyCallable_Check(release.get())) {
        PyErr_Format(PyExc_TypeError,
                     "_lock must have callable acquire() and release(), not %.100s",
                     Py_TYPE(lock)->tp_name);
        return -1;
    }
    return 0;
}

HEALTH_TLS_MODEL thread_local ThreadHolds thread_holds;

int not_ready() noexcept {
    PyErr_SetString(PyExc_RuntimeError, "ToolHealthTracker.__init__() has not run");
    return -1;
}

int refuse_held(const PyObject* tracker, const PyObject* lock) noexcept {
    if (thread_holds.holds(tracker, lock)) {
        PyErr_SetString(PyExc_RuntimeError,
                        "ToolHealthTracker re-entered from code that runs under its lock "
                        "(the lock is not re-entrant)");
        return -1;
    }
    if (thread_holds.full()) {
        PyErr_SetString(PyExc_RuntimeError,
                        "ToolHealthTracker operations nested too deeply through host code");
        return -1;
    }
    return 0;
}

int LockHold::refuse_current() noexcept {
    const PyObject* lock;
    {
        ObjectLock fields(owner_);
        lock = fields_->object;  // compared only: a lock this thread holds is kept alive
    }
    return refuse_held(owner_, lock);
}

void LockHold::release_after_error() noexcept {
    if (PyErr_Occurred()) {
        // Keep the operation's own error; a failing release cannot replace it.
        PendingError keep;
        if (release() < 0) PyErr_Clear();
    } else if (release() < 0) {
        PyErr_WriteUnraisable(owner_);
    }
}

}  // namespace health
