"""The ``status`` tool's answer, with a bound on its size, and the thread budget it reports.

``build_status(tracker, thread_budget)`` answers ``{"tool_health": <health summary>,
"threads": <thread census report>}``. A client that calls a tool with ever new action values
makes the summary grow by one usage row per value, and an error or an action text may be
megabytes long; the answer is therefore kept under ``max_bytes`` of JSON. Measured size: the
length of ``json.dumps(answer, indent=2, default=str)``, which escapes every non-ASCII
character and so is at least as long as the UTF-8 text the MCP SDK sends (indented by 2) and
as the compact form.

When the plain answer fits, it is returned unchanged. Otherwise:

- text values longer than ``MAX_TEXT_CHARS`` characters (tool names, last errors, actions,
  outcomes) are cut, and end with ``"... [N more characters]"``;
- every tool keeps its record, with ``call_count`` and ``error_count`` as they are, and its
  usage rows are taken by rank, most calls first, one rank of every tool after the other (the
  first row of every tool, then the second of every tool, ...) until the bound is reached; a
  tool that lost rows gets ``"usage_left_out": {"rows": N, "calls": C}``;
- if even the records without rows do not fit, the tools at the end of the list (fewest
  errors, then fewest calls) are left out;
- the answer gets a ``"truncated"`` member saying what was left out and why.

Sizes are estimated per value (exact for text, numbers, booleans and null) and the result is
serialized once to check; if the check fails (a value of an unusual type), the rows and then
the tools are dropped, each step checked once, so a call serializes at most four times.
"""
from __future__ import annotations

import json
import math
from operator import itemgetter
from typing import Any, Callable

from ordanis_veltrane.tool_handlers import health

__all__ = [
    "DEFAULT_MAX_BYTES",
    "MAX_TEXT_CHARS",
    "RUNTIME_THREADS",
    "answer_size",
    "bound_answer",
    "bound_performance_stats",
    "build_status",
    "thread_budget",
]

DEFAULT_MAX_BYTES = 256 * 1024
MAX_TEXT_CHARS = 1024

_RECORD_TEXTS = ("tool_name", "last_error", "disabled_at", "updated_at")
_ROW_TEXTS = ("action", "outcome")
_calls_of = itemgetter("calls")


def answer_size(answer: Any) -> int:
    """The size the bound applies to: the characters (all ASCII, so bytes) of
    ``json.dumps(answer, indent=2, default=str)``.

    Counted as the compact text with the same separators, which the C encoder writes (the
    indenting one is pure Python, several times slower), plus the line breaks and indents."""
    return len(json.dumps(answer, separators=(",", ": "), default=str)) + _indents(answer, 0)


def _indents(value: Any, depth: int) -> int:
    """What indent=2 adds to a value at `depth`: before each member and the closing bracket of a
    non-empty container, a line break and two spaces a level."""
    if isinstance(value, dict):
        members: Any = value.values()
    elif isinstance(value, (list, tuple)):
        members = value
    else:
        return 0
    if not value:
        return 0
    inner = depth + 1
    return len(value) * (1 + 2 * inner) + 1 + 2 * depth + sum(_indents(m, inner) for m in members)


def build_status(tracker: health.ToolHealthTracker, thread_budget: int, *, max_bytes: int = DEFAULT_MAX_BYTES) -> dict[str, Any]:
    """The ``status`` answer of `tracker`, at most `max_bytes` of JSON (see the module's text).

    Blocking (the thread census reads the OS): run it on a worker thread. The summary is one
    hold of the tracker's lock; everything else runs after it is released."""
    summary = tracker.get_health_summary()
    threads = health.thread_census_report(thread_budget, health.thread_census())
    return bound_answer(summary, threads, max_bytes)


# ---------------------------------------------------------------- size estimates


def _value_len(value: Any, cap: int) -> int:
    """The length of `value` in the measured JSON; a text longer than `cap` gives a lower bound above `cap`."""
    kind = type(value)
    if kind is str:
        if len(value) > cap:
            return len(value) + 2
        if value.isascii() and value.isprintable() and '"' not in value and "\\" not in value:
            return len(value) + 2
        return len(json.dumps(value))
    if value is None or value is True:
        return 4
    if value is False:
        return 5
    if kind is int:
        return len(int.__repr__(value))
    if kind is float:
        if math.isfinite(value):
            return len(float.__repr__(value))
        return 3 if math.isnan(value) else (8 if value > 0 else 9)
    return len(json.dumps(value, default=str))


def _item_const(make: Callable[[list[dict[str, Any]]], Any], item: dict[str, Any]) -> int:
    """What one more `item` in its list adds to the answer beyond its values' own lengths."""
    one, two = answer_size(make([item])), answer_size(make([item, item]))
    return two - one - sum(_value_len(v, 1 << 30) for v in item.values())


_TEMPLATE_ROW: dict[str, Any] = {"action": "a", "outcome": "ok", "alias_hit": False, "calls": 1, "avg_ms": 1.5,
                                 "slow": False}
_TEMPLATE_RECORD: dict[str, Any] = {"tool_name": "t", "call_count": 1, "error_count": 0, "last_error": None,
                                    "disabled": False, "disabled_at": None, "updated_at": "1970-01-01 00:00:00",
                                    "usage": []}
_ROW_CONST = _item_const(lambda rows: {"tool_health": [{**_TEMPLATE_RECORD, "usage": rows}], "threads": {}},
                         _TEMPLATE_ROW)
_RECORD_CONST = _item_const(lambda records: {"tool_health": records, "threads": {}}, _TEMPLATE_RECORD) + 2
# What the first row adds beyond the others: the brackets of a non-empty list, over "[]", less a comma.
_LIST_SLACK = (answer_size({"tool_health": [{**_TEMPLATE_RECORD, "usage": [_TEMPLATE_ROW]}], "threads": {}})
               - answer_size({"tool_health": [_TEMPLATE_RECORD], "threads": {}})
               - _ROW_CONST - sum(_value_len(v, 1 << 30) for v in _TEMPLATE_ROW.values()))
_LEFT_OUT_NOTE = 96  # ',\n      "usage_left_out": {"rows": N, "calls": C}' with room for long numbers
_MIN_ROW = _ROW_CONST + 2 + 2 + 4 + 1 + 3 + 4  # "", "", true, 0, 1.0, true


def _row_len(row: dict[str, Any], cap: int) -> int:
    return _ROW_CONST + sum(_value_len(v, cap) for v in row.values())


def _record_len(record: dict[str, Any], cap: int) -> int:
    """The record without its usage rows."""
    return _RECORD_CONST + sum(_value_len(v, cap) for k, v in record.items() if k != "usage")


# ---------------------------------------------------------------- the bound


def _cut(value: Any) -> tuple[Any, bool]:
    if type(value) is str and len(value) > MAX_TEXT_CHARS:
        return f"{value[:MAX_TEXT_CHARS]}... [{len(value) - MAX_TEXT_CHARS} more characters]", True
    return value, False


def _cut_texts(mapping: dict[str, Any], keys: tuple[str, ...]) -> tuple[dict[str, Any], int]:
    out, cuts = dict(mapping), 0
    for key in keys:
        if key in out:
            out[key], was_cut = _cut(out[key])
            cuts += was_cut
    return out, cuts


def _may_fit(summary: list[dict[str, Any]], threads: dict[str, Any], max_bytes: int) -> bool:
    """Whether the plain answer may fit, by its estimate, which errs on the large side by a few bytes
    a tool: anything up to 5% and 1 KiB above the bound is worth serializing to find out. The rows'
    estimate is skipped when their number alone rules it out, so that a huge summary costs nothing."""
    limit = max_bytes + max_bytes // 20 + 1024
    if sum(len(record["usage"]) for record in summary) * _MIN_ROW > limit:
        return False
    size = answer_size({"tool_health": [], "threads": threads})
    for record in summary:
        size += _record_len(record, limit) + (_LIST_SLACK if record["usage"] else 0)
        for row in record["usage"]:
            size += _row_len(row, limit)
            if size > limit:
                return False
    return size <= limit


def bound_answer(summary: list[dict[str, Any]], threads: dict[str, Any], max_bytes: int = DEFAULT_MAX_BYTES) -> dict[str, Any]:
    """``{"tool_health": summary, "threads": threads}``, cut down to `max_bytes` as the module's text says.

    `summary` and `threads` are not changed. When even an answer without tools exceeds
    `max_bytes`, that answer (the thread report and the ``truncated`` member) is returned."""
    plain = {"tool_health": summary, "threads": threads}
    if _may_fit(summary, threads, max_bytes) and answer_size(plain) <= max_bytes:
        return plain

    records: list[dict[str, Any]] = []
    record_cuts: list[int] = []  # texts cut per record, and below with its rows
    for record in summary:
        copy, n = _cut_texts(record, _RECORD_TEXTS)
        copy["usage"] = []
        records.append(copy)
        record_cuts.append(n)
    cuts = list(record_cuts)
    note = _truncation_note(max_bytes, usage=True)
    # The fixed part: the thread report, the note (with room for its numbers to grow), and a
    # place for every tool's usage_left_out.
    budget = max_bytes - answer_size({"tool_health": [], "threads": threads, "truncated": note}) - 16 * len(note)
    kept = 0
    for record in records:
        size = _record_len(record, max_bytes) + _LEFT_OUT_NOTE
        if size > budget:
            break
        budget -= size
        kept += 1

    # Rows by rank across the kept tools, until the budget is spent; 2% kept in reserve for
    # what the estimate may miss.
    budget -= budget // 50
    ranked = [(i, records[i], summary[i]["usage"]) for i in range(kept)]
    rank, full = 0, False
    while ranked and not full:
        still = []
        for i, record, rows in ranked:
            if rank >= len(rows):
                continue
            row, n = _cut_texts(rows[rank], _ROW_TEXTS)
            size = _row_len(row, max_bytes) + (_LIST_SLACK if rank == 0 else 0)
            if size > budget:
                full = True
                break
            budget -= size
            cuts[i] += n
            record["usage"].append(row)
            still.append((i, record, rows))
        ranked, rank = still, rank + 1

    answer = _noted(records, kept, summary, threads, note, cuts)
    if answer_size(answer) <= max_bytes:
        return answer
    # The estimate fell short (a value JSON writes longer than expected): no rows, then no tools.
    for record in records:
        record["usage"] = []
    answer = _noted(records, kept, summary, threads, note, record_cuts)
    if answer_size(answer) <= max_bytes:
        return answer
    return _noted(records, 0, summary, threads, note, record_cuts)


def _noted(records: list[dict[str, Any]], kept: int, summary: list[dict[str, Any]], threads: dict[str, Any],
           note: dict[str, Any], cuts: list[int]) -> dict[str, Any]:
    """The answer of the first `kept` records, with each record's usage_left_out and the truncated note;
    `cuts` are the texts cut in each record and the rows it shows."""
    note = dict(note)
    shown = []
    for record, source in zip(records[:kept], summary):
        record = {k: v for k, v in record.items() if k != "usage_left_out"}
        missing = source["usage"][len(record["usage"]):]
        if missing:
            record["usage_left_out"] = {"rows": len(missing), "calls": sum(map(_calls_of, missing))}
            note["usage_rows_left_out"] += len(missing)
            note["tools_with_usage_left_out"] += 1
        shown.append(record)
    for source in summary[kept:]:
        note["tools_left_out"] += 1
        note["calls_of_tools_left_out"] += source["call_count"]
        note["errors_of_tools_left_out"] += source["error_count"]
        note["usage_rows_left_out"] += len(source["usage"])
    note["texts_cut"] = sum(cuts[:kept])
    return {"tool_health": shown, "threads": threads, "truncated": note}


# ---------------------------------------------------------------- get_tool_performance_stats


def _number(value: Any) -> float:
    return value if type(value) in (int, float) and value == value else 0


def _truncation_note(max_bytes: int, *, usage: bool) -> dict[str, Any]:
    """The ``truncated`` member of a bounded answer, its counts at zero; `usage` adds the usage rows'."""
    note: dict[str, Any] = {
        "reason": f"the full answer would exceed {max_bytes} bytes of JSON",
        "max_bytes": max_bytes,
        "tools_left_out": 0,
        "calls_of_tools_left_out": 0,
        "errors_of_tools_left_out": 0,
    }
    if usage:
        note.update(usage_rows_left_out=0, tools_with_usage_left_out=0)
    note.update(texts_cut=0, text_limit_chars=MAX_TEXT_CHARS)
    return note


def bound_performance_stats(answer: dict[str, Any], max_bytes: int = DEFAULT_MAX_BYTES) -> dict[str, Any]:
    """The ``get_tool_performance_stats`` answer, at most `max_bytes` of JSON measured as ``status`` is.

    An answer that fits is returned unchanged. Otherwise text values (names) longer than
    ``MAX_TEXT_CHARS`` are cut, the tools with the most calls are kept (in the answer's order) until
    the bound is reached, and a ``truncated`` member says how many tools were left out with their calls
    and errors. `answer` is not changed."""
    if answer_size(answer) <= max_bytes:
        return answer
    tools = answer.get("tools")
    tools = tools if isinstance(tools, list) else []
    cut_tools = [_cut_texts(r, ("name",))[0] if isinstance(r, dict) else r for r in tools]
    note = _truncation_note(max_bytes, usage=False)
    others = {k: v for k, v in answer.items() if k != "tools"}
    budget = max_bytes - answer_size({**others, "tools": [], "truncated": note}) - 16 * len(note)
    # Each record's size in the indented answer: its compact text plus its line breaks and indents.
    sizes = [len(json.dumps(r, separators=(",", ": "), default=str)) + _indents(r, 2) + 6 for r in cut_tools]
    by_calls = sorted(range(len(cut_tools)),
                      key=lambda i: -_number(cut_tools[i].get("count")) if isinstance(cut_tools[i], dict) else 0.0)
    chosen: set[int] = set()
    for i in by_calls:
        if sizes[i] <= budget:
            budget -= sizes[i]
            chosen.add(i)
    while True:
        kept = [r for i, r in enumerate(cut_tools) if i in chosen]
        left = [r for i, r in enumerate(cut_tools) if i not in chosen]
        done = dict(note)
        done["tools_left_out"] = len(left)
        done["calls_of_tools_left_out"] = sum(_number(r.get("count")) for r in left if isinstance(r, dict))
        done["errors_of_tools_left_out"] = sum(_number(r.get("errors")) for r in left if isinstance(r, dict))
        done["texts_cut"] = sum(1 for i, r in enumerate(tools) if i in chosen and isinstance(r, dict)
                                and type(r.get("name")) is str and len(r["name"]) > MAX_TEXT_CHARS)
        bounded = {**others, "tools": kept, "truncated": done}
        if answer_size(bounded) <= max_bytes or not chosen:
            return bounded
        # The estimate fell short (a value of an unusual type): the fewest-called half of the kept go too.
        ranked = [i for i in by_calls if i in chosen]
        chosen = set(ranked[:len(ranked) // 2])


# ---------------------------------------------------------------- the thread budget

# Threads the runtime and its libraries start besides the pools counted below (the SDK's
# stdio transport, asyncio's helpers, a logging or telemetry thread); with anyio's default
# of 40 workers the budget of a server without metrics is 48, as it has always been.
RUNTIME_THREADS = 6


def _anyio_workers() -> int:
    try:
        import anyio
        import anyio.to_thread
    except ImportError as missing:  # pragma: no cover - exercised where anyio is missing
        raise ImportError(
            "thread_budget reads anyio's worker pool: install the 'mcp' extra, or pass workers="
        ) from missing

    async def read() -> int:
        return int(anyio.to_thread.current_default_thread_limiter().total_tokens)

    try:  # inside a running event loop: the limiter this loop really uses
        return int(anyio.to_thread.current_default_thread_limiter().total_tokens)
    except Exception:  # no event loop in this thread: the default a new loop starts with
        return anyio.run(read)


def thread_budget(*, metrics: bool, max_connections: int, extra: int = 0, workers: int | None = None) -> int:
    """The most threads the process's pools allow, for the ``status`` census and the metrics.

    The main thread; anyio's worker pool (`workers`; by default the size of anyio's default
    thread limiter, read from anyio); one flush worker (the guard flushes through a limiter
    of its own, which draws a thread beyond the default limiter's); ``RUNTIME_THREADS``; with
    `metrics`, the metrics server's accepting thread and one thread per connection it allows
    (`max_connections`, as given to ``serve_metrics``); and `extra` threads the host starts
    itself (a telemetry exporter, a second flush thread)."""
    if workers is None:
        workers = _anyio_workers()
    budget = 1 + workers + 1 + RUNTIME_THREADS + extra
    if metrics:
        budget += 1 + max_connections
    return budget
