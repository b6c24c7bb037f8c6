// Helpers shared by the module: attribute lookup, the clock, value conversion,
// float rounding and formatting as Python does them, calls, argument parsing.
#include "health.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <system_error>

namespace health {

Ref module_attr(PyObject* module, PyObject* name) noexcept {
    PyObject* dict = PyModule_GetDict(module);  // borrowed, never fails for a module
    Ref value;
    if (dict_get_ref(dict, name, value) != 0) return value;
    // The module's __name__ may have been deleted or replaced: named only as it is.
    Ref module_name;
    Ref key(PyUnicode_FromString("__name__"));
    if (!key || dict_get_ref(dict, key.get(), module_name) < 0) return Ref();
    if (module_name && PyUnicode_CheckExact(module_name.get())) {
        PyErr_Format(PyExc_AttributeError, "module '%U' has no attribute '%U'", module_name.get(),
                     name);
    } else {
        PyErr_Format(PyExc_AttributeError, "module has no attribute '%U'", name);
    }
    return Ref();
}

int snapshot_items(PyObject* map, std::vector<Item>& out) {
    if (!PyDict_Check(map)) {
        PyErr_Format(PyExc_TypeError, "expected a dict, not %.100s", Py_TYPE(map)->tp_name);
        return -1;
    }
    out.clear();
    for (;;) {
        // Room is made outside the section (growing may throw); the walk inside
        // only takes references, and starts over if the map grew meanwhile.
        out.reserve(static_cast<size_t>(PyDict_GET_SIZE(map)));
        bool fits = false;
        {
            ObjectLock lock(map);
            if (static_cast<size_t>(PyDict_GET_SIZE(map)) <= out.capacity()) {
                fits = true;
                Py_ssize_t pos = 0;
                PyObject *key, *value;
                while (PyDict_Next(map, &pos, &key, &value)) {
                    out.push_back(Item{Ref::borrow(key), Ref::borrow(value)});
                }
            }
        }
        if (fits) return 0;
    }
}

namespace {

// time.time() of the host runtime: CLOCK_REALTIME in nanoseconds, turned into
// seconds the way the runtime does, so both give the same double.
double realtime_seconds() noexcept {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    const int64_t ns = static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
    if (ns % 1000000000LL == 0) {
        return static_cast<double>(ns / 1000000000LL);
    }
    return static_cast<double>(ns) / 1e9;
}

}  // namespace

int wall_clock(ModuleState* st, PyObject* module, double* now) noexcept {
    Ref time_mod = module_attr(module, st->s_time);
    if (!time_mod) {
        return -1;
    }
    if (PyModule_CheckExact(time_mod.get())) {
        Ref fn;
        if (dict_get_ref(PyModule_GetDict(time_mod.get()), st->s_time, fn) < 0) return -1;
        if (fn.get() == st->time_time) {  // the real clock, read natively
            *now = realtime_seconds();
            return 0;
        }
    }
    Ref fn(PyObject_GetAttr(time_mod.get(), st->s_time));
    if (!fn) {
        return -1;
    }
    Ref value(PyObject_CallNoArgs(fn.get()));
    if (!value) {
        return -1;
    }
    return as_double(value.get(), now);
}

int as_double(PyObject* value, double* out) noexcept {
    if (PyFloat_CheckExact(value)) {
        *out = PyFloat_AS_DOUBLE(value);
        return 0;
    }
    const double d = PyFloat_AsDouble(value);
    if (d == -1.0 && PyErr_Occurred()) {
        return -1;
    }
    *out = d;
    return 0;
}

static int long_to_int64(PyObject* value, int64_t* out) noexcept {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow != 0) {
        PyErr_SetString(PyExc_OverflowError, "count does not fit a 64-bit signed integer");
        return -1;
    }
    if (v == -1 && PyErr_Occurred()) {
        return -1;
    }
    *out = static_cast<int64_t>(v);
    return 0;
}

int as_int64(PyObject* value, int64_t* out) noexcept {
    if (PyLong_CheckExact(value)) {
        return long_to_int64(value, out);
    }
    Ref index(PyNumber_Index(value));
    if (!index) {
        return -1;
    }
    return long_to_int64(index.get(), out);
}

int int_of(PyObject* value, int64_t* out) noexcept {
    if (PyLong_CheckExact(value)) {
        return long_to_int64(value, out);
    }
    Ref number(PyNumber_Long(value));
    if (!number) {
        return -1;
    }
    return long_to_int64(number.get(), out);
}

int count_overflow() noexcept {
    PyErr_SetString(PyExc_OverflowError, "count does not fit a 64-bit signed integer");
    return -1;
}

double round_half_even(double x, int ndigits) noexcept {
    if (!std::isfinite(x)) {
        return x;
    }
    if (ndigits <= 3 && std::fabs(x) < 1e12) {
        // The integer nearest to the exact x * 10^ndigits: the product rounded
        // to a double, corrected by its exact rounding error (fma), which
        // decides only when the rounded product lies exactly halfway.
        static const double scales[] = {1.0, 10.0, 100.0, 1000.0};
        const double scale = scales[ndigits < 0 ? 0 : ndigits];
        const double product = x * scale;
        const double error = std::fma(x, scale, -product);
        double n = std::nearbyint(product);
        const double frac = product - n;  // exact: |frac| <= 0.5 at a scale below 2^52
        if (frac == 0.5 && error > 0) {
            n += 1.0;  // the exact value lies above the half the product landed on
        } else if (frac == -0.5 && error < 0) {
            n -= 1.0;  // ... or below it
        }
        return n / scale;
    }
    // Fixed notation with `ndigits` decimals is correctly rounded on the exact
    // binary value, ties to even: the decimal rounding Python's round() does.
    char buf[400];
    auto res = std::to_chars(buf, buf + sizeof buf, x, std::chars_format::fixed, ndigits);
    if (res.ec != std::errc()) {
        return x;
    }
    double rounded = x;
    std::from_chars(buf, res.ptr, rounded);
    return rounded;
}

char* write_float_repr(char* out, double x) {
    // The shortest digits that read back as x, laid out as float.__repr__ does:
    // exponent form below 1e-4 and from 1e16, otherwise fixed with at least one decimal.
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, x, std::chars_format::scientific);
    const char* p = buf;
    const char* end = res.ptr;
    if (*p == '-') {
        *out++ = '-';
        ++p;
    }
    char digits[32];
    int ndigits = 0;
    while (p < end && *p != 'e') {
        if (*p != '.') digits[ndigits++] = *p;
        ++p;
    }
    int exponent = 0;
    if (p < end) std::from_chars(p[1] == '+' ? p + 2 : p + 1, end, exponent);
    const int decpt = exponent + 1;
    auto put = [&](const char* s, int n) {
        std::memcpy(out, s, static_cast<size_t>(n));
        out += n;
    };
    if (decpt <= -4 || decpt > 16) {
        *out++ = digits[0];
        if (ndigits > 1) {
            *out++ = '.';
            put(digits + 1, ndigits - 1);
        }
        *out++ = 'e';
        *out++ = exponent < 0 ? '-' : '+';
        const int magnitude = exponent < 0 ? -exponent : exponent;
        if (magnitude < 10) *out++ = '0';
        out = std::to_chars(out, out + 4, magnitude).ptr;
    } else if (decpt <= 0) {
        put("0.", 2);
        std::memset(out, '0', static_cast<size_t>(-decpt));
        out += -decpt;
        put(digits, ndigits);
    } else if (decpt >= ndigits) {
        put(digits, ndigits);
        std::memset(out, '0', static_cast<size_t>(decpt - ndigits));
        out += decpt - ndigits;
        put(".0", 2);
    } else {
        put(digits, decpt);
        *out++ = '.';
        put(digits + decpt, ndigits - decpt);
    }
    return out;
}

Ref call(PyObject* callable, std::initializer_list<PyObject*> args) noexcept {
    return Ref(PyObject_Vectorcall(callable, const_cast<PyObject**>(args.begin()), args.size(),
                                   nullptr));
}

Ref call_method(PyObject* obj, PyObject* name, std::initializer_list<PyObject*> args) noexcept {
    PyObject* stack[8];
    stack[0] = obj;
    size_t n = 1;
    for (PyObject* a : args) {
        stack[n++] = a;
    }
    return Ref(PyObject_VectorcallMethod(name, stack, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

int parse_args(const char* fname, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
               PyObject* const* names, int count, int positional, int required,
               PyObject** out) noexcept {
    if (nargs > positional) {
        PyErr_Format(PyExc_TypeError, "%s() takes at most %d positional argument%s (%zd given)",
                     fname, positional, positional == 1 ? "" : "s", nargs);
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        out[i] = i < nargs ? args[i] : nullptr;
    }
    if (kwnames != nullptr) {
        const Py_ssize_t nkw = PyTuple_GET_SIZE(kwnames);
        for (Py_ssize_t k = 0; k < nkw; ++k) {
            PyObject* key = PyTuple_GET_ITEM(kwnames, k);
            int found = -1;
            for (int i = 0; i < count && found < 0; ++i) {
                if (key == names[i]) {
                    found = i;
                }
            }
            for (int i = 0; i < count && found < 0; ++i) {
                const int eq = PyUnicode_Compare(key, names[i]);
                if (eq == -1 && PyErr_Occurred()) {
                    return -1;
                }
                if (eq == 0) {
                    found = i;
                }
            }
            if (found < 0) {
                PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'",
                             fname, key);
                return -1;
            }
            if (out[found] != nullptr) {
                PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument '%U'",
                             fname, names[found]);
                return -1;
            }
            out[found] = args[nargs + k];
        }
    }
    for (int i = 0; i < required; ++i) {
        if (out[i] == nullptr) {
            PyErr_Format(PyExc_TypeError, "%s() missing required %sargument: '%U'", fname,
                         i >= positional ? "keyword-only " : "", names[i]);
            return -1;
        }
    }
    return 0;
}

}  // namespace health
