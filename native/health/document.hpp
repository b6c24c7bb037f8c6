// The usage document: one JSON array holding a row per usage key.
#pragma once

#include "tracker.hpp"

#include <vector>

namespace health {

// One row of the usage document, copied under the lock.
struct DocumentRow {
    Ref key;  // (tool, action, outcome, alias_hit) as an exact 4-tuple
    PyObject* member(Py_ssize_t i) const noexcept { return PyTuple_GET_ITEM(key.get(), i); }
    bool native = false;
    int64_t calls = 0, timed_calls = 0;
    double total_ms = 0.0;
    Ref calls_obj, timed_obj, total_obj;  // for a record of a host type
};

// The document text: laid out natively while the module's json is still the
// real one (the same text json.dumps(rows, separators=(",", ":")) gives),
// otherwise by whatever json.dumps the module holds now.
Ref layout_document(ModuleState* st, PyObject* module, const std::vector<DocumentRow>& rows);

// Reads a document in the layout the writer produces straight into `loaded`
// (usage key -> _Usage) while the module's json is the real one. 1 when read,
// 0 when the text needs the general reader (nothing added), -1 on an error.
int read_document_fast(ModuleState* st, PyObject* module, PyObject* text, PyObject* loaded);

}  // namespace health
