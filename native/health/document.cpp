// The usage document: its native layout, and a fast reader for documents in
// that layout. Anything the fast paths do not recognise goes to json itself.
#include "document.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace health {
namespace {

// The most characters a value can take in the document, or -1 for a value
// whose layout is left to json.dumps itself.
Py_ssize_t value_bound(PyObject* v) {
    if (PyUnicode_CheckExact(v)) {
        // "\ud83d\ude00" for one astral character: 12 per code point at most.
        const Py_ssize_t len = PyUnicode_GET_LENGTH(v);
        return len > (PY_SSIZE_T_MAX - 2) / 12 ? -1 : 2 + 12 * len;
    }
    if (v == Py_None || v == Py_True || v == Py_False) return 5;
    if (PyLong_CheckExact(v)) {
        int overflow = 0;
        const long long n = PyLong_AsLongLongAndOverflow(v, &overflow);
        if (overflow != 0 || (n == -1 && PyErr_Occurred())) {
            PyErr_Clear();
            return -1;
        }
        return 20;
    }
    if (PyFloat_CheckExact(v)) return 32;
    return -1;
}

char* write_string(char* out, PyObject* text) {
    static const char hex[] = "0123456789abcdef";
    const int kind = PyUnicode_KIND(text);
    const void* data = PyUnicode_DATA(text);
    const Py_ssize_t len = PyUnicode_GET_LENGTH(text);
    *out++ = '"';
    Py_ssize_t i = 0;
    if (kind == PyUnicode_1BYTE_KIND) {
        // Copy the run of characters that need no escape in one go.
        const unsigned char* bytes = static_cast<const unsigned char*>(data);
        while (i < len && bytes[i] >= ' ' && bytes[i] <= '~' && bytes[i] != '\\' && bytes[i] != '"') ++i;
        std::memcpy(out, bytes, static_cast<size_t>(i));
        out += i;
    }
    auto unit = [&](Py_UCS4 u) {
        const char esc[] = {'\\', 'u', hex[(u >> 12) & 0xf], hex[(u >> 8) & 0xf],
                            hex[(u >> 4) & 0xf], hex[u & 0xf]};
        std::memcpy(out, esc, sizeof esc);
        out += sizeof esc;
    };
    for (; i < len; ++i) {
        const Py_UCS4 c = PyUnicode_READ(kind, data, i);
        if (c >= ' ' && c <= '~' && c != '\\' && c != '"') {
            *out++ = static_cast<char>(c);
            continue;
        }
        char escape = 0;
        switch (c) {
            case '\\': escape = '\\'; break;
            case '"': escape = '"'; break;
            case '\b': escape = 'b'; break;
            case '\f': escape = 'f'; break;
            case '\n': escape = 'n'; break;
            case '\r': escape = 'r'; break;
            case '\t': escape = 't'; break;
            default: break;
        }
        if (escape != 0) {
            *out++ = '\\';
            *out++ = escape;
        } else if (c >= 0x10000) {
            const Py_UCS4 v = c - 0x10000;
            unit(0xd800 | ((v >> 10) & 0x3ff));
            unit(0xdc00 | (v & 0x3ff));
        } else {
            unit(c);
        }
    }
    *out++ = '"';
    return out;
}

char* write_int(char* out, int64_t v) { return std::to_chars(out, out + 20, v).ptr; }

char* write_double(char* out, double v) {
    auto put = [&](const char* s, size_t n) {
        std::memcpy(out, s, n);
        return out + n;
    };
    if (std::isnan(v)) return put("NaN", 3);
    if (std::isinf(v)) return v > 0 ? put("Infinity", 8) : put("-Infinity", 9);
    return write_float_repr(out, v);
}

// A total_ms already rounded to 3 decimals. Below 1e12 the double nearest to
// k/1000 has k/1000 itself as its shortest repr (the spacing of doubles there
// is far below 0.001), so it is written from the integer k; anything else,
// and any value that is not the nearest double to its k/1000, as float repr.
char* write_total(char* out, double v) {
    if (std::fabs(v) < 1e12) {
        const double scaled = std::nearbyint(v * 1000.0);
        if (scaled / 1000.0 == v) {
            if (std::signbit(v)) *out++ = '-';
            const int64_t k = static_cast<int64_t>(std::fabs(scaled));
            out = std::to_chars(out, out + 20, k / 1000).ptr;
            const int fraction = static_cast<int>(k % 1000);
            const char digits[] = {'.', static_cast<char>('0' + fraction / 100),
                                   static_cast<char>('0' + fraction / 10 % 10),
                                   static_cast<char>('0' + fraction % 10)};
            std::memcpy(out, digits, 4);
            // Trailing zeros dropped, one decimal kept: "1.5", "2.0", "0.125".
            const int kept = fraction % 100 == 0 ? 2 : fraction % 10 == 0 ? 3 : 4;
            return out + kept;
        }
    }
    return write_double(out, v);
}

// A value whose bound was taken with value_bound().
char* write_value(char* out, PyObject* v) {
    if (PyUnicode_CheckExact(v)) return write_string(out, v);
    if (v == Py_None) return static_cast<char*>(std::memcpy(out, "null", 4)) + 4;
    if (v == Py_True) return static_cast<char*>(std::memcpy(out, "true", 4)) + 4;
    if (v == Py_False) return static_cast<char*>(std::memcpy(out, "false", 5)) + 5;
    if (PyLong_CheckExact(v)) return write_int(out, PyLong_AsLongLong(v));
    return write_double(out, PyFloat_AS_DOUBLE(v));
}

// The flushing thread keeps its layout buffer: a megabyte document laid out
// into fresh memory at every flush would mostly cost page faults.
class LayoutBuffer {
public:
    // Room for `more` characters after the first `used`, keeping those.
    char* reserve(size_t used, size_t more) {
        if (more > kMax - used) throw std::bad_alloc();
        if (used + more > capacity_) {
            size_t capacity = capacity_ == 0 ? size_t{1} << 16 : capacity_;
            while (capacity < used + more) capacity *= 2;
            std::unique_ptr<char[]> grown(new char[capacity]);
            if (used > 0) std::memcpy(grown.get(), data_.get(), used);
            data_ = std::move(grown);
            capacity_ = capacity;
        }
        return data_.get() + used;
    }
    char* data() { return data_.get(); }
    // A buffer grown for an unusually large document is not kept.
    void trim() {
        if (capacity_ > (size_t{64} << 20)) {
            data_.reset();
            capacity_ = 0;
        }
    }

private:
    static constexpr size_t kMax = PY_SSIZE_T_MAX / 2;
    std::unique_ptr<char[]> data_;
    size_t capacity_ = 0;
};

constexpr size_t kRowText = 80;  // member names, quotes, braces and separators of a row

// The usage document laid out natively: identical to
// json.dumps(rows, separators=(",", ":")). Null when a value needs json.dumps.
// One pass: each row is measured and written while its strings are in cache,
// and the strings of the rows ahead are fetched meanwhile.
Ref layout_native(const std::vector<DocumentRow>& rows) {
    thread_local LayoutBuffer buffer;
    struct Trim {
        ~Trim() { buffer.trim(); }
    } trim;
    size_t used = 0;
    char* out = buffer.reserve(0, 2);
    *out++ = '[';
    used = 1;
    const size_t n = rows.size();
    for (size_t i = 0; i < n; ++i) {
        if (i + 8 < n) __builtin_prefetch(rows[i + 8].key.get());
        if (i + 4 < n) {
            for (Py_ssize_t m = 0; m < 3; ++m) __builtin_prefetch(rows[i + 4].member(m));
        }
        const DocumentRow& r = rows[i];
        PyObject* const values[] = {r.member(0),        r.member(1),       r.member(2),
                                    r.member(3),        r.calls_obj.get(), r.timed_obj.get(),
                                    r.total_obj.get()};
        size_t bound = kRowText + (r.native ? 20 + 20 + 32 : 0);
        for (PyObject* v : values) {
            if (v == nullptr) continue;  // a native count
            const Py_ssize_t b = value_bound(v);
            if (b < 0) return Ref();
            bound += static_cast<size_t>(b);
        }
        out = buffer.reserve(used, bound + 1);
        char* const row_start = out;
        auto put = [&](const char* text, size_t len) {
            std::memcpy(out, text, len);
            out += len;
        };
        if (i > 0) *out++ = ',';
        put("{\"tool\":", 8);
        out = write_value(out, r.member(0));
        put(",\"action\":", 10);
        out = write_value(out, r.member(1));
        put(",\"outcome\":", 11);
        out = write_value(out, r.member(2));
        put(",\"alias_hit\":", 13);
        out = write_value(out, r.member(3));
        put(",\"calls\":", 9);
        out = r.native ? write_int(out, r.calls) : write_value(out, r.calls_obj.get());
        put(",\"timed_calls\":", 15);
        out = r.native ? write_int(out, r.timed_calls) : write_value(out, r.timed_obj.get());
        put(",\"total_ms\":", 12);
        out = r.native ? write_total(out, r.total_ms) : write_value(out, r.total_obj.get());
        *out++ = '}';
        used += static_cast<size_t>(out - row_start);
    }
    out = buffer.reserve(used, 1);
    *out = ']';
    ++used;
    Ref text(PyUnicode_New(static_cast<Py_ssize_t>(used), 127));
    if (text) std::memcpy(PyUnicode_DATA(text.get()), buffer.data(), used);
    return text;
}

// The rows as the list of dicts that json.dumps receives.
Ref rows_as_objects(ModuleState* st, const std::vector<DocumentRow>& rows) {
    Ref list(PyList_New(0));
    if (!list) return Ref();
    for (const DocumentRow& r : rows) {
        Ref calls = r.native ? Ref(PyLong_FromLongLong(r.calls)) : Ref::borrow(r.calls_obj.get());
        Ref timed =
            r.native ? Ref(PyLong_FromLongLong(r.timed_calls)) : Ref::borrow(r.timed_obj.get());
        Ref total = r.native ? Ref(PyFloat_FromDouble(r.total_ms)) : Ref::borrow(r.total_obj.get());
        Ref row(PyDict_New());
        if (!calls || !timed || !total || !row) return Ref();
        if (PyDict_SetItem(row.get(), st->s_tool, r.member(0)) < 0 ||
            PyDict_SetItem(row.get(), st->s_action, r.member(1)) < 0 ||
            PyDict_SetItem(row.get(), st->s_outcome, r.member(2)) < 0 ||
            PyDict_SetItem(row.get(), st->s_alias_hit, r.member(3)) < 0 ||
            PyDict_SetItem(row.get(), st->s_calls, calls.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_timed_calls, timed.get()) < 0 ||
            PyDict_SetItem(row.get(), st->s_total_ms, total.get()) < 0 ||
            PyList_Append(list.get(), row.get()) < 0) {
            return Ref();
        }
    }
    return list;
}

}  // namespace

Ref layout_document(ModuleState* st, PyObject* module, const std::vector<DocumentRow>& rows) {
    Ref json = module_attr(module, st->s_json);
    if (!json) return Ref();
    Ref dumps(PyObject_GetAttr(json.get(), st->s_dumps));
    if (!dumps) return Ref();
    if (json.get() == st->json_module && dumps.get() == st->json_dumps) {
        Ref text = layout_native(rows);
        if (text || PyErr_Occurred()) return text;
    }
    Ref objects = rows_as_objects(st, rows);
    if (!objects) return Ref();
    Ref kwnames(PyTuple_Pack(1, st->s_separators));
    if (!kwnames) return Ref();
    PyObject* args[] = {objects.get(), st->compact_separators};
    return Ref(PyObject_Vectorcall(dumps.get(), args, 1, kwnames.get()));
}


namespace {

// A cursor over the document's ASCII text.
struct Scanner {
    const char* p;
    const char* end;

    void skip_ws() {
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) ++p;
    }
    bool eat(char c) {
        skip_ws();
        if (p < end && *p == c) {
            ++p;
            return true;
        }
        return false;
    }
    bool literal(const char* word, size_t n) {
        if (static_cast<size_t>(end - p) >= n && std::memcmp(p, word, n) == 0) {
            p += n;
            return true;
        }
        return false;
    }
    // A string without escapes or control characters.
    bool string(std::string_view* out) {
        skip_ws();
        if (p >= end || *p != '"') return false;
        const char* start = ++p;
        while (p < end && *p != '"') {
            if (*p == '\\' || static_cast<unsigned char>(*p) < 0x20) return false;
            ++p;
        }
        if (p >= end) return false;
        *out = std::string_view(start, static_cast<size_t>(p - start));
        ++p;
        return true;
    }
    // A JSON number's text; `integral` when it has no fraction or exponent.
    bool number(std::string_view* out, bool* integral) {
        skip_ws();
        const char* start = p;
        if (p < end && *p == '-') ++p;
        if (p >= end || *p < '0' || *p > '9') return false;
        if (*p == '0') {
            ++p;
        } else {
            while (p < end && *p >= '0' && *p <= '9') ++p;
        }
        *integral = true;
        if (p < end && *p == '.') {
            *integral = false;
            ++p;
            if (p >= end || *p < '0' || *p > '9') return false;
            while (p < end && *p >= '0' && *p <= '9') ++p;
        }
        if (p < end && (*p == 'e' || *p == 'E')) {
            *integral = false;
            ++p;
            if (p < end && (*p == '+' || *p == '-')) ++p;
            if (p >= end || *p < '0' || *p > '9') return false;
            while (p < end && *p >= '0' && *p <= '9') ++p;
        }
        *out = std::string_view(start, static_cast<size_t>(p - start));
        return true;
    }
};

bool parse_count(std::string_view text, bool integral, int64_t* out) {
    if (!integral || text.size() > 18) return false;
    auto res = std::from_chars(text.data(), text.data() + text.size(), *out);
    return res.ec == std::errc() && res.ptr == text.data() + text.size();
}

bool parse_total(std::string_view text, double* out) {
    auto res = std::from_chars(text.data(), text.data() + text.size(), *out);
    return res.ec == std::errc() && res.ptr == text.data() + text.size();
}

// One str object per distinct text of the document: a tool name appears in
// many rows, and an open-addressing table keyed by the bytes finds it again
// without building a str to look it up.
class Strings {
public:
    Strings() : slots_(64) {}
    Strings(const Strings&) = delete;
    Strings& operator=(const Strings&) = delete;
    ~Strings() {
        for (Slot& slot : slots_) Py_XDECREF(slot.object);
    }
    PyObject* get(std::string_view text) {
        const uint64_t hash = hash_of(text);
        size_t i = static_cast<size_t>(hash) & (slots_.size() - 1);
        for (;; i = (i + 1) & (slots_.size() - 1)) {
            Slot& slot = slots_[i];
            if (slot.object == nullptr) break;
            if (slot.hash == hash && slot.text == text) return slot.object;
        }
        PyObject* object =
            PyUnicode_DecodeASCII(text.data(), static_cast<Py_ssize_t>(text.size()), nullptr);
        if (object == nullptr) return nullptr;
        slots_[i] = Slot{text, hash, object};
        if (++used_ * 2 > slots_.size()) grow();
        return object;
    }

private:
    struct Slot {
        std::string_view text;
        uint64_t hash = 0;
        PyObject* object = nullptr;
    };
    static uint64_t hash_of(std::string_view text) {
        uint64_t h = 0xcbf29ce484222325u;  // FNV-1a
        for (const char c : text) h = (h ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
        return h ^ (h >> 29);
    }
    void grow() {
        std::vector<Slot> old(slots_.size() * 2);
        old.swap(slots_);
        for (const Slot& slot : old) {
            if (slot.object == nullptr) continue;
            size_t i = static_cast<size_t>(slot.hash) & (slots_.size() - 1);
            while (slots_[i].object != nullptr) i = (i + 1) & (slots_.size() - 1);
            slots_[i] = slot;
        }
    }
    std::vector<Slot> slots_;
    size_t used_ = 0;
};

enum Member { kTool, kAction, kOutcome, kAliasHit, kCalls, kTimedCalls, kTotalMs, kMembers };

int member_of(std::string_view name) {
    // Told apart by length and first letter, then confirmed.
    int m;
    switch (name.size()) {
        case 4: m = kTool; break;
        case 5: m = kCalls; break;
        case 6: m = kAction; break;
        case 7: m = kOutcome; break;
        case 8: m = kTotalMs; break;
        case 9: m = kAliasHit; break;
        case 11: m = kTimedCalls; break;
        default: return -1;
    }
    static const std::string_view names[kMembers] = {"tool",      "action",      "outcome", "alias_hit",
                                                     "calls",     "timed_calls", "total_ms"};
    return names[m] == name ? m : -1;
}

struct ParsedRow {
    std::string_view tool, outcome;
    std::string_view action;
    bool has_action = false;
    bool alias_hit = false;
    int64_t calls = 0, timed_calls = 0;
    double total_ms = 0.0;
};

// A row exactly as the writer lays it out: the member names in table order,
// no white space. Most documents are read by this alone.
bool parse_row_exact(Scanner& s, ParsedRow* row) {
    std::string_view number;
    bool integral = false;
    if (!s.literal("{\"tool\":", 8) || !s.string(&row->tool) || !s.literal(",\"action\":", 10)) {
        return false;
    }
    if (s.literal("null", 4)) {
        row->has_action = false;
    } else if (s.string(&row->action)) {
        row->has_action = true;
    } else {
        return false;
    }
    if (!s.literal(",\"outcome\":", 11) || !s.string(&row->outcome) ||
        !s.literal(",\"alias_hit\":", 13)) {
        return false;
    }
    if (s.literal("true", 4)) {
        row->alias_hit = true;
    } else if (s.literal("false", 5)) {
        row->alias_hit = false;
    } else {
        return false;
    }
    return s.literal(",\"calls\":", 9) && s.number(&number, &integral) &&
           parse_count(number, integral, &row->calls) && s.literal(",\"timed_calls\":", 15) &&
           s.number(&number, &integral) && parse_count(number, integral, &row->timed_calls) &&
           s.literal(",\"total_ms\":", 12) && s.number(&number, &integral) &&
           parse_total(number, &row->total_ms) && s.literal("}", 1);
}

// 1 and *row when the object is a row in the writer's form, 0 otherwise.
int parse_row(Scanner& s, ParsedRow* row) {
    if (!s.eat('{')) return 0;
    bool seen[kMembers] = {};
    for (int i = 0; i < kMembers; ++i) {
        if (i > 0 && !s.eat(',')) return 0;
        std::string_view name;
        if (!s.string(&name) || !s.eat(':')) return 0;
        const int m = member_of(name);
        if (m < 0 || seen[m]) return 0;
        seen[m] = true;
        s.skip_ws();
        std::string_view number;
        bool integral = false;
        switch (m) {
            case kTool:
                if (!s.string(&row->tool)) return 0;
                break;
            case kOutcome:
                if (!s.string(&row->outcome)) return 0;
                break;
            case kAction:
                if (s.literal("null", 4)) {
                    row->has_action = false;
                } else if (s.string(&row->action)) {
                    row->has_action = true;
                } else {
                    return 0;
                }
                break;
            case kAliasHit:
                if (s.literal("true", 4)) {
                    row->alias_hit = true;
                } else if (s.literal("false", 5)) {
                    row->alias_hit = false;
                } else {
                    return 0;
                }
                break;
            case kCalls:
                if (!s.number(&number, &integral) || !parse_count(number, integral, &row->calls)) return 0;
                break;
            case kTimedCalls:
                if (!s.number(&number, &integral) || !parse_count(number, integral, &row->timed_calls)) {
                    return 0;
                }
                break;
            case kTotalMs:
                if (!s.number(&number, &integral) || !parse_total(number, &row->total_ms)) return 0;
                break;
        }
    }
    return s.eat('}') ? 1 : 0;
}

int add_row(ModuleState* st, Strings& strings, const ParsedRow& row, PyObject* loaded) {
    PyObject* tool = strings.get(row.tool);
    PyObject* outcome = tool ? strings.get(row.outcome) : nullptr;
    PyObject* action = row.has_action && outcome ? strings.get(row.action) : Py_None;
    if (tool == nullptr || outcome == nullptr || action == nullptr) return -1;
    Ref key(PyTuple_New(4));
    if (!key) return -1;
    PyTuple_SET_ITEM(key.get(), 0, Py_NewRef(tool));
    PyTuple_SET_ITEM(key.get(), 1, Py_NewRef(action));
    PyTuple_SET_ITEM(key.get(), 2, Py_NewRef(outcome));
    PyTuple_SET_ITEM(key.get(), 3, Py_NewRef(row.alias_hit ? Py_True : Py_False));
    // Text, None and a bool cannot take part in a cycle: keep the key out of
    // the collector's way, as the collector itself would on its first pass.
    PyObject_GC_UnTrack(key.get());
    Ref usage(st->usage_type->tp_alloc(st->usage_type, 0));
    if (!usage) return -1;
    UsageObject* u = as_usage(usage.get());
    u->calls = row.calls;
    u->timed_calls = row.timed_calls;
    u->total_ms = row.total_ms;
    return PyDict_SetItem(loaded, key.get(), usage.get());
}

}  // namespace

int read_document_fast(ModuleState* st, PyObject* module, PyObject* text, PyObject* loaded) {
    if (!PyUnicode_IS_ASCII(text)) return 0;
    Ref json = module_attr(module, st->s_json);
    if (!json) return -1;
    if (json.get() != st->json_module) return 0;
    Ref loads(PyObject_GetAttr(st->json_module, st->s_loads));
    if (!loads) return -1;
    if (loads.get() != st->json_loads) return 0;
    Ref usage_cls = module_attr(module, st->s__Usage);
    if (!usage_cls) return -1;
    if (usage_cls.get() != reinterpret_cast<PyObject*>(st->usage_type)) return 0;

    // Rows go into `loaded` as they are read; a document that turns out to
    // need the general reader leaves it empty again.
    const char* data = reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(text));
    Scanner s{data, data + PyUnicode_GET_LENGTH(text)};
    auto general_reader = [&]() {
        PyDict_Clear(loaded);
        return 0;
    };
    Strings strings;
    if (!s.eat('[')) return 0;
    if (!s.eat(']')) {
        do {
            ParsedRow row;
            const char* const row_start = s.p;
            if (!parse_row_exact(s, &row)) {
                s.p = row_start;
                row = ParsedRow();
                if (parse_row(s, &row) != 1) return general_reader();
            }
            if (add_row(st, strings, row, loaded) < 0) return -1;
        } while (s.eat(','));
        if (!s.eat(']')) return general_reader();
    }
    s.skip_ws();
    return s.p == s.end ? 1 : general_reader();
}

}  // namespace health
