// What keeps the module's data safe when threads run at once: without the GIL
// (a free-threaded CPython), another thread may read, change or free any
// object at any moment. Every such access goes through one of these helpers;
// on a build with the GIL they compile to the plain operation.
//
//  - ObjectLock: an object's own critical section, the per-object lock that
//    CPython's containers use. It guards the fields of the module's records,
//    the tracker's replaceable fields and the module's statement cache. While
//    the holder's C code runs, the lock is held; Python code called inside
//    may block, which suspends the section until that code returns. So a
//    section guards every field access in it, but is atomic as a whole only
//    when nothing inside calls into Python: the map snapshots, the tracker's
//    field loads and the swaps in the setters are written that way (a value
//    they replace is dropped after the section ends).
//  - dict_get_ref: a lookup that hands back a strong reference, so another
//    thread cannot free the value between the lookup and its use.
//  - Flag: a boolean that any thread may read or set; relaxed atomics.
#pragma once

#include "ref.hpp"

namespace health {

class ObjectLock {
public:
    explicit ObjectLock(PyObject* op) noexcept {
#ifdef Py_GIL_DISABLED
        PyCriticalSection_Begin(&section_, op);
#else
        (void)op;
#endif
    }
    template <class T>
    explicit ObjectLock(T* op) noexcept : ObjectLock(reinterpret_cast<PyObject*>(op)) {}
    ObjectLock(const ObjectLock&) = delete;
    ObjectLock& operator=(const ObjectLock&) = delete;
    ~ObjectLock() {
#ifdef Py_GIL_DISABLED
        PyCriticalSection_End(&section_);
#endif
    }

private:
#ifdef Py_GIL_DISABLED
    PyCriticalSection section_;
#endif
};

// Two objects' critical sections at once, taken in an order that cannot deadlock.
class ObjectLock2 {
public:
    ObjectLock2(PyObject* a, PyObject* b) noexcept {
#ifdef Py_GIL_DISABLED
        PyCriticalSection2_Begin(&section_, a, b);
#else
        (void)a;
        (void)b;
#endif
    }
    ObjectLock2(const ObjectLock2&) = delete;
    ObjectLock2& operator=(const ObjectLock2&) = delete;
    ~ObjectLock2() {
#ifdef Py_GIL_DISABLED
        PyCriticalSection2_End(&section_);
#endif
    }

private:
#ifdef Py_GIL_DISABLED
    PyCriticalSection2 section_;
#endif
};

// dict[key] as a strong reference in `out`: 1 when found, 0 when missing,
// -1 with an error.
inline int dict_get_ref(PyObject* dict, PyObject* key, Ref& out) noexcept {
#if PY_VERSION_HEX >= 0x030D0000
    PyObject* value = nullptr;
    const int found = PyDict_GetItemRef(dict, key, &value);
    out.reset(value);
    return found;
#else
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr) {
        out.reset();
        return PyErr_Occurred() ? -1 : 0;
    }
    out = Ref::borrow(value);
    return 1;
#endif
}

// dict[key] as dict_get_ref gives it, with the dict's critical section held, so
// that no resize, clear or removal runs during the lookup. CPython 3.13 looks
// a key up without a lock, and a lookup that read the old table of a dict
// being resized can take a reference through it to a value that another
// thread has since removed and freed. The tracker's maps, which host code may
// change from any thread, are read this way.
inline int dict_get_ref_locked(PyObject* dict, PyObject* key, Ref& out) noexcept {
    ObjectLock lock(dict);
    return dict_get_ref(dict, key, out);
}

// A boolean field that any thread may read or set. An acquire load sees
// everything a thread wrote before its release store (the tracker's fields
// before `ready`); the other uses are relaxed.
struct Flag {
    bool value;

    bool get() const noexcept { return __atomic_load_n(&value, __ATOMIC_RELAXED); }
    void set(bool v) noexcept { __atomic_store_n(&value, v, __ATOMIC_RELAXED); }
    bool get_acquire() const noexcept { return __atomic_load_n(&value, __ATOMIC_ACQUIRE); }
    void set_release(bool v) noexcept { __atomic_store_n(&value, v, __ATOMIC_RELEASE); }
};

}  // namespace health
