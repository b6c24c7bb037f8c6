// Owned references and small helpers shared by every file of the module.
//
// The rule every native path follows: any call that can run Python code may
// change, replace or free what a borrowed pointer points at. Such calls are a
// key's __hash__/__eq__, the sequence or number protocol of a type that is not
// an exact builtin, attribute access on a host object, a late-bound module
// attribute, the logger, json, the clock, the methods of a host lock, the db,
// the constructor of a replaced record type, and the allocation of any object
// the cyclic collector tracks (a collection runs finalizers). So:
//  - whatever a later step still needs is held in a Ref before such a call: a
//    map or set taken from the tracker's fields, a value found in a map, a
//    module attribute. A tracker field is read again where the step uses it.
//  - a map is walked through snapshot_items(): its entries taken as Refs in
//    one go with nothing in between, then processed. PyDict_Next never spans
//    such a call.
// A host that mutates the state during an operation therefore gets an answer
// computed from what the operation held, or an exception; never a crash.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <new>
#include <utility>

namespace health {

// A strong reference that is released when it goes out of scope.
class Ref {
public:
    Ref() noexcept = default;
    // Takes ownership of a new reference (may be null after a failed call).
    explicit Ref(PyObject* owned) noexcept : p_(owned) {}
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : p_(other.p_) { other.p_ = nullptr; }
    Ref& operator=(Ref&& other) noexcept {
        if (this != &other) {
            PyObject* old = p_;
            p_ = other.p_;
            other.p_ = nullptr;
            Py_XDECREF(old);
        }
        return *this;
    }
    ~Ref() { Py_XDECREF(p_); }

    // A new strong reference to a borrowed object.
    static Ref borrow(PyObject* borrowed) noexcept {
        Py_XINCREF(borrowed);
        return Ref(borrowed);
    }

    PyObject* get() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    // Hands the reference to the caller.
    PyObject* release() noexcept {
        PyObject* p = p_;
        p_ = nullptr;
        return p;
    }
    void reset(PyObject* owned = nullptr) noexcept {
        PyObject* old = p_;
        p_ = owned;
        Py_XDECREF(old);
    }

private:
    PyObject* p_ = nullptr;
};

// The exception being raised, taken out of the thread state while cleanup code
// that may call into Python runs, and put back afterwards unless handed on.
class PendingError {
public:
    PendingError() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
        exc_ = PyErr_GetRaisedException();
#else
        PyObject *type = nullptr, *tb = nullptr;
        PyErr_Fetch(&type, &exc_, &tb);
        PyErr_NormalizeException(&type, &exc_, &tb);
        if (tb != nullptr && exc_ != nullptr) PyException_SetTraceback(exc_, tb);
        Py_XDECREF(type);
        Py_XDECREF(tb);
#endif
    }
    PendingError(const PendingError&) = delete;
    PendingError& operator=(const PendingError&) = delete;
    ~PendingError() { restore(); }

    // The exception object itself (borrowed).
    PyObject* value() const noexcept { return exc_; }
    // Raises it again now.
    void restore() noexcept {
        if (exc_ == nullptr) return;
#if PY_VERSION_HEX >= 0x030C0000
        PyErr_SetRaisedException(exc_);
#else
        PyErr_Restore(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exc_))), exc_,
                      PyException_GetTraceback(exc_));
#endif
        exc_ = nullptr;
    }
    // Forgets it: it has been handled.
    void discard() noexcept { Py_CLEAR(exc_); }

private:
    PyObject* exc_ = nullptr;
};

// Turns a C++ exception that reached an entry point into the matching Python error.
inline void set_error_from_cpp() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "unexpected native error");
    }
}

// Runs body(); a C++ exception becomes a Python error and the result `failed`.
template <class R, class F>
R guarded(R failed, F&& body) noexcept {
    try {
        return body();
    } catch (...) {
        set_error_from_cpp();
        return failed;
    }
}

}  // namespace health
