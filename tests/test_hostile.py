"""Hostile input: arbitrary values at every public entry point and from the database
side. Whatever comes in, the module answers or raises an ordinary Python error of the
kinds that bad arguments raise; it never crashes, never raises SystemError (a broken
C-API contract) and never changes the tracker where the operation changes nothing."""
from __future__ import annotations

import json
import math
import os
import types
from datetime import datetime
from typing import Any, Callable

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec


class Hostile(Exception):
    """Raised by the hostile objects below; it must reach the caller unchanged."""


# What bad input may raise. MemoryError is what CPython itself raises for an object
# that claims 2**62 items (BigLen below). SystemError and RuntimeError are not here:
# from a native module they mean a broken contract (an error returned without being
# set, a C++ exception that leaked), not bad input.
ALLOWED = (TypeError, ValueError, ArithmeticError, LookupError, AttributeError, MemoryError, Hostile)
INT64 = (-(2**63), 2**63 - 1)
# HOSTILE_EXAMPLES=5000 tools/asan.sh tests/test_hostile.py: a longer hunt than CI's.
EXAMPLES = int(os.environ.get("HOSTILE_EXAMPLES", "120"))
# The `env` fixture (registry and clock) is shared by the examples on purpose.
SETTINGS = settings(max_examples=EXAMPLES, deadline=None,
                    suppress_health_check=[HealthCheck.too_slow, HealthCheck.function_scoped_fixture])
FEW = settings(SETTINGS, max_examples=max(EXAMPLES // 2, 1))


def _raise(*_: Any) -> Any:
    raise Hostile("hostile")


class RaisingHash:
    __hash__ = _raise

    def __eq__(self, other: object) -> bool:
        return self is other


class RaisingEq:
    """Hashes like "a" (a key the trackers hold), so a lookup must compare it."""

    def __hash__(self) -> int:
        return hash("a")

    __eq__ = _raise


class RaisingConversions:
    __index__ = __int__ = __float__ = __bool__ = __str__ = __len__ = __iter__ = __getitem__ = _raise

    def __repr__(self) -> str:  # the test report needs one
        return "RaisingConversions()"


class StrWithRaisingHash(str):
    __hash__ = _raise


class IntSub(int):
    pass


class FloatSub(float):
    pass


class BigLen:
    """A "row" whose length is out of any range."""

    def __len__(self) -> int:
        return 2**62

    def __getitem__(self, index: int) -> Any:
        if isinstance(index, int) and index < 6:
            return "a"
        raise IndexError(index)


HOSTILE_OBJECTS = [RaisingHash(), RaisingEq(), RaisingConversions(), StrWithRaisingHash("a"), IntSub(5),
                   FloatSub(1.5), BigLen(), object()]
EDGE_INTS = [0, -1, 2**31, *INT64, INT64[1] + 1, INT64[0] - 1, 2**64, 10**30, -(10**30)]

chars = st.one_of(st.characters(), st.characters(categories=["Cs"]))  # lone surrogates too
names = st.one_of(st.sampled_from(["a", "b", "search", ""]), st.text(chars, max_size=8))
scalars = st.one_of(
    st.none(),
    st.booleans(),
    st.integers(),
    st.sampled_from(EDGE_INTS),
    st.floats(allow_nan=True, allow_infinity=True),
    names,
    st.binary(max_size=4),
    # (by index: sampled_from hashes its elements)
    st.integers(0, len(HOSTILE_OBJECTS) - 1).map(HOSTILE_OBJECTS.__getitem__),
)
values = st.recursive(
    scalars, lambda inner: st.one_of(st.lists(inner, max_size=3), st.tuples(inner, inner),
                                     st.dictionaries(names, inner, max_size=3)), max_leaves=6)
json_values = st.recursive(
    st.one_of(st.none(), st.booleans(), st.integers(), st.sampled_from(EDGE_INTS),
              st.floats(allow_nan=True, allow_infinity=True), st.text(chars, max_size=6)),
    lambda inner: st.one_of(st.lists(inner, max_size=3), st.dictionaries(st.text(chars, max_size=6), inner, max_size=3)),
    max_leaves=10,
)


def call(fn: Callable[..., Any], *args: Any, **kwargs: Any) -> tuple[Any, BaseException | None]:
    """Calls fn; an allowed error is returned, anything else fails the test."""
    try:
        return fn(*args, **kwargs), None
    except ALLOWED as error:
        return None, error


class MemDb:
    def __init__(self, rows: Any = (), one: Any = None) -> None:
        self.rows, self.one = rows, one
        self.written: list[tuple[Any, ...]] = []

    def fetchall(self, sql: str) -> Any:
        return self.rows

    def fetchone(self, sql: str, params: Any) -> Any:
        return self.one

    def execute(self, sql: str, params: Any) -> None:
        self.written.append(tuple(params))
        self.one = (params[1],)

    def executemany(self, sql: str, rows: Any) -> None:
        list(rows)


class Clock:
    def __init__(self) -> None:
        self.now: Any = 1_700_000_000.0

    def time(self) -> Any:
        return self.now


@pytest.fixture
def env(monkeypatch: pytest.MonkeyPatch) -> types.SimpleNamespace:
    registry = ToolRegistry()
    for name, actions in {"a": (), "b": (), "search": ("text", "symbol"), "ü😀": (), "\udfff": ()}.items():
        registry.register(ToolSpec(name, [ActionSpec(x) for x in actions]))
    clock = Clock()
    monkeypatch.setattr(health, "TOOLS", registry)
    monkeypatch.setattr(health, "time", clock)
    return types.SimpleNamespace(registry=registry, clock=clock)


def tracker_over(db: Any, limits: Any = None) -> Any:
    return health.ToolHealthTracker(types.SimpleNamespace(db=db), limits)


def snapshot(tracker: Any) -> tuple[Any, ...]:
    """The tracker's state by identity and value, comparable whatever the keys are."""
    state = tuple(
        (id(k), id(r), r.call_count, r.error_count, id(r.last_error), repr(r.disabled_at), repr(r.updated_at),
         r.consecutive_errors)
        for k, r in tracker._state.items()
    )
    usage = tuple((id(k), id(u), u.calls, u.timed_calls, repr(u.total_ms)) for k, u in tracker._usage.items())
    return state, frozenset(map(id, tracker._dirty)), usage, tracker._usage_dirty


# --- module functions and records -------------------------------------------------


# Text shaped like a stored time, with Unicode digits, fractions, stray blanks and
# fields out of range; and instants around the ends of the years 1 to 9999.
timestamps = st.from_regex(r"\A\s?\d{1,5}-\d{1,3}-\d{1,3}\s{1,3}\d{1,3}:\d{1,3}:\d{1,3}(\.\d+)?\s?\Z")
instants = st.one_of(st.floats(-62135596800.5, 253402300800.5), st.floats(-62135596801.0, -62135596799.0),
                     st.floats(253402300798.0, 253402300801.0))


@SETTINGS
@given(stamp=timestamps, instant=instants)
def test_time_conversions(stamp: str, instant: float) -> None:
    epoch, error = call(health._epoch, stamp)
    assert error is None, f"_epoch({stamp!r}) raised {error!r}"
    if epoch is not None:  # a readable time survives the round trip
        assert health._epoch(health._sqlite_time(epoch)) == epoch
    text, error = call(health._sqlite_time, instant)
    if error is None:
        parsed = datetime.strptime(text, "%Y-%m-%d %H:%M:%S")
        assert len(text) == 19 and 1 <= parsed.year <= 9999


@SETTINGS
@given(value=values, other=values)
def test_module_functions(env: Any, value: Any, other: Any) -> None:
    text, error = call(health._sqlite_time, value)
    assert error is not None or (text is None) == (value is None)
    if error is None and text is not None:
        assert isinstance(text, str) and len(text) == 19
    if isinstance(value, float) and not math.isfinite(value):
        assert error is not None, f"_sqlite_time({value!r}) gave {text!r}"

    epoch, error = call(health._epoch, value)
    if isinstance(value, str):  # any text reads as a time or as absent, never fails
        assert error is None, f"_epoch({value!r}) raised {error!r}"
    assert error is not None or epoch is None or (type(epoch) is float and epoch == int(epoch))

    known, error = call(health._known, value, other)
    assert error is not None or known is True or known is False


@SETTINGS
@given(budget=values, os_threads=values, total=values, by_name=values, stats=values)
def test_status_reports(env: Any, monkeypatch: pytest.MonkeyPatch, budget: Any, os_threads: Any, total: Any,
                        by_name: Any, stats: Any) -> None:
    census = types.SimpleNamespace(os_threads=os_threads, python_total=total, python_threads=by_name)
    report, error = call(health.thread_census_report, budget, census)
    if error is None:
        counted = total if os_threads is None else os_threads
        keys = list(report)
        assert keys[-1] == "budget" or keys[-2:] == ["budget", "warning"]
        if type(counted) is int and type(budget) is int and counted > budget:
            assert f"holds {counted} threads, more than the {budget} its pools" in report["warning"]
    monkeypatch.setattr(health, "get_timing_collector", lambda: types.SimpleNamespace(get_all_stats=lambda: stats))
    answer, error = call(health.handle_get_tool_performance_stats)
    assert error is not None or list(answer) == ["tools"]


FIELDS = {
    "_ToolState": ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors"),
    "_Usage": ("calls", "timed_calls", "total_ms"),
}
INT_FIELDS = {"call_count", "error_count", "consecutive_errors", "calls", "timed_calls"}


def _check_field(record: Any, field: str, given_value: Any) -> None:
    got = getattr(record, field)
    if field in INT_FIELDS:
        assert type(got) is int and INT64[0] <= got <= INT64[1]
        if type(given_value) is int:
            assert got == given_value
    elif field == "last_error":
        assert got is given_value
    elif field == "disabled_at" and given_value is None:
        assert got is None
    else:
        assert type(got) is float
        if type(given_value) is float:
            assert got == given_value or (math.isnan(got) and math.isnan(given_value))
        elif type(given_value) is int:
            assert got == float(given_value)


@SETTINGS
@given(kind=st.sampled_from(sorted(FIELDS)), args=st.lists(values, max_size=7),
       kwargs=st.dictionaries(st.sampled_from([*FIELDS["_ToolState"], *FIELDS["_Usage"], "bogus"]), values, max_size=3),
       field=st.integers(0, 5), value=values)
def test_records(kind: str, args: list[Any], kwargs: dict[str, Any], field: int, value: Any) -> None:
    make = getattr(health, kind)
    fields = FIELDS[kind]
    record, error = call(make, *args, **kwargs)
    if error is None:
        given_values = {**dict(zip(fields, args)), **kwargs}
        for name, v in given_values.items():
            _check_field(record, name, v)
        repr(record)
        assert record == record
        call(lambda: record == value)
        with pytest.raises(TypeError):
            hash(record)
    record = make()
    name = fields[field % len(fields)]
    before = getattr(record, name)
    _, error = call(setattr, record, name, value)
    if error is None:
        _check_field(record, name, value)
    else:
        assert repr(getattr(record, name)) == repr(before), "a refused value changed the field"
    call(delattr, record, name)


# --- tracker operations ---------------------------------------------------------

op = st.one_of(
    st.tuples(st.just("is_disabled"), values),
    st.tuples(st.just("record_success"), values),
    st.tuples(st.just("record_error"), values, values),
    st.tuples(st.just("record_call"), values, values, values, values, values),
    st.tuples(st.just("bad_arity"), st.sampled_from(["is_disabled", "record_success", "record_error", "record_call"]),
              st.lists(values, max_size=6), st.sampled_from([{}, {"alias_hit": True}, {"duration_ms": 1.0}, {"x": 1}])),
    st.tuples(st.just("summary"), st.one_of(values, st.just(_raise))),
    st.tuples(st.just("clock"), st.one_of(st.floats(), st.sampled_from([1_700_000_100.0, 1e300, "x", None]))),
    st.tuples(st.just("flush")),
)
# Keys the tracker will hold and that the program comes back to.
FAMILIAR = ["a", "b", "search", "\ud800", RaisingEq(), 5]
familiar = st.integers(0, len(FAMILIAR) - 1).map(FAMILIAR.__getitem__)
limit_values = st.one_of(st.integers(-2, 4), st.sampled_from([INT64[1], 10**30, float("nan"), "x", None]))


def _bad_arity(tracker: Any, method: str, args: list[Any], kwargs: dict[str, Any]) -> bool:
    """Calls with a wrong number or kind of arguments; True when it must be refused."""
    arity = {"is_disabled": 1, "record_success": 1, "record_error": 2, "record_call": 3}[method]
    refused = len(args) != arity or bool(kwargs) if method != "record_call" else (
        len(args) != 3 or set(kwargs) != {"alias_hit", "duration_ms"})
    if not refused:
        return False
    _, error = call(getattr(tracker, method), *args, **kwargs)
    assert isinstance(error, TypeError), f"{method}(*{args!r}, **{kwargs!r}) gave {error!r}"
    return True


@FEW
@given(program=st.lists(st.one_of(op, st.tuples(st.just("record_error"), familiar, values),
                                  st.tuples(st.just("is_disabled"), familiar)), max_size=12),
       after=limit_values, cooldown=st.one_of(limit_values, st.floats()))
def test_tracker_operations(env: Any, program: list[tuple[Any, ...]], after: Any, cooldown: Any) -> None:
    env.clock.now = 1_700_000_000.0
    tracker = tracker_over(MemDb(), ToolsConfig(disable_after_errors=after, disable_cooldown_s=cooldown))
    for step in program:
        kind, args = step[0], step[1:]
        before = snapshot(tracker)
        if kind == "is_disabled":
            result, error = call(tracker.is_disabled, *args)
            if error is None:
                assert type(result) is tuple and len(result) == 2 and type(result[0]) is bool
                assert result[0] or result[1] is None
            held, lookup_error = call(tracker._state.get, args[0])
            if held is None and lookup_error is None:  # an unknown tool: nothing changes
                assert snapshot(tracker) == before
            assert snapshot(tracker)[2:] == before[2:]  # the usage counts never
        elif kind == "record_success":
            call(tracker.record_success, *args)
        elif kind == "record_error":
            call(tracker.record_error, *args)
        elif kind == "record_call":
            call(tracker.record_call, *args[:3], alias_hit=args[3], duration_ms=args[4])
            assert snapshot(tracker)[:2] == before[:2]  # health untouched
        elif kind == "bad_arity":
            if _bad_arity(tracker, *args):
                assert snapshot(tracker) == before
        elif kind == "summary":
            predicate = args[0] if callable(args[0]) else (lambda tool, action, answer=args[0]: answer)
            saved = health.is_slow_call
            health.is_slow_call = predicate
            try:
                summary, error = call(tracker.get_health_summary)
            finally:
                health.is_slow_call = saved
            assert snapshot(tracker) == before
            assert error is not None or isinstance(summary, list)
        elif kind == "clock":
            env.clock.now = args[0]
        else:
            call(tracker.flush)
        assert isinstance(tracker.has_unsaved_changes, bool)
    call(tracker.get_health_summary)


# --- the database side ----------------------------------------------------------

column = st.one_of(values, st.sampled_from(["a", "search", "2024-03-05 14:07:09", "", 0, None]))
health_rows = st.one_of(
    values,
    st.lists(st.one_of(st.tuples(*[column] * 6), st.lists(column, max_size=8), values), max_size=4),
)


@FEW
@given(rows=health_rows)
def test_hostile_health_rows(env: Any, rows: Any) -> None:
    tracker, error = call(tracker_over, MemDb(rows=rows))
    if error is None:
        assert not tracker._dirty
        for record in tracker._state.values():
            assert type(record.call_count) is int and type(record.error_count) is int
            assert record.consecutive_errors == 0 and type(record.updated_at) is float
            assert record.disabled_at is None or type(record.disabled_at) is float


member = {
    "tool": st.one_of(st.sampled_from(["a", "b", "search", "gone"]), json_values),
    "action": st.one_of(st.sampled_from([None, "text", "symbol", "gone", ""]), json_values),
    "outcome": st.one_of(st.sampled_from(["ok", "error"]), json_values),
    "alias_hit": st.one_of(st.booleans(), json_values),
    "calls": st.one_of(st.integers(0, 10**6), json_values),
    "timed_calls": st.one_of(st.integers(0, 10**6), json_values),
    "total_ms": st.one_of(st.floats(0, 1e9), json_values),
}
doc_rows = st.fixed_dictionaries({}, optional=member)  # any subset of the members, each of any shape
documents = st.one_of(json_values, st.lists(doc_rows, max_size=4))


@FEW
@given(document=documents, shape=st.sampled_from(["row", "deep", "list", "bare", "hostile"]))
def test_hostile_usage_documents(env: Any, document: Any, shape: str) -> None:
    """Every document loads or reads as unreadable: construction never fails, since the
    registry here answers every lookup."""
    text = json.dumps(document)
    if shape == "deep":
        text = "[" * 100_000 + text + "]" * 100_000
    one = {"row": (text,), "deep": (text,), "list": [text, 1], "bare": text, "hostile": RaisingConversions()}[shape]
    tracker = tracker_over(MemDb(one=one))
    for key, usage in tracker._usage.items():
        assert type(key) is tuple and len(key) == 4 and type(key[0]) is str and type(key[2]) is str
        assert type(key[3]) is bool and type(usage.calls) is int and type(usage.total_ms) is float
    call(tracker.flush)


typed_row = st.fixed_dictionaries({
    "tool": st.sampled_from(["a", "search", "gone", "ü😀", "\udfff", "\ud800x"]),
    "action": st.sampled_from([None, "text", "symbol", "gone", ""]),
    "outcome": st.text(chars, max_size=3),
    "alias_hit": st.booleans(),
    "calls": st.integers(*INT64),
    "timed_calls": st.integers(-5, 10**12),
    "total_ms": st.one_of(st.floats(-1e15, 1e15), st.integers(-10**6, 10**6)),
})


@FEW
@given(rows=st.lists(typed_row, max_size=6))
def test_well_typed_documents_round_trip(env: Any, rows: list[dict[str, Any]]) -> None:
    """A document of well-typed rows (huge, negative and non-ASCII values included)
    loads as the reader rules say, and what a flush writes loads back the same."""
    text = json.dumps(rows)
    rows = json.loads(text)  # as the reader sees them: an escaped surrogate pair reads as one character
    loaded: dict[tuple[Any, ...], tuple[int, int, float]] = {}
    for r in rows:
        loaded[(r["tool"], r["action"], r["outcome"], r["alias_hit"])] = (r["calls"], r["timed_calls"], float(r["total_ms"]))
    kept = [(k, v) for k, v in loaded.items()
            if k[1] is None and k[0] in ("a", "search", "ü😀", "\udfff") or k[0] == "search" and k[1] in ("text", "symbol")]
    db = MemDb(one=(text,))
    tracker = tracker_over(db)
    assert [(k, (u.calls, u.timed_calls, u.total_ms)) for k, u in tracker._usage.items()] == kept
    assert tracker._usage_dirty == (len(kept) < len(loaded))
    tracker.record_call("a", None, "outcome", alias_hit=False, duration_ms=0.5)  # a key no row has
    tracker.flush()
    assert db.written and db.written[-1][1].isascii()
    again = tracker_over(db)
    assert [(k, u.calls, u.timed_calls, u.total_ms) for k, u in again._usage.items()] == [
        (k, u.calls, u.timed_calls, round(u.total_ms, 3)) for k, u in tracker._usage.items()
    ]
