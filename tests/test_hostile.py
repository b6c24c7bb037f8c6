"""Hostile input at every entry point: an ordinary error or an answer, never a crash, no change where none is due."""

import json
import math
import os
import types
from datetime import datetime
from typing import Any, Callable
from unittest import mock

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from conftest import NOW, FakeClock, MemDb, make_registry, tracker_over
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health


Hostile = type("Hostile", (Exception,), {})  # raised by the hostile objects below; it must reach the caller unchanged


# SystemError and RuntimeError are not here: from a native module they mean a broken contract. MemoryError is
# what CPython raises for an object that claims 2**62 items (BigLen).
ALLOWED = (TypeError, ValueError, ArithmeticError, LookupError, AttributeError, MemoryError, Hostile)
INT64 = (-(2**63), 2**63 - 1)
EXAMPLES = int(os.environ.get("HOSTILE_EXAMPLES", "120"))  # HOSTILE_EXAMPLES=5000 tools/asan.sh tests/test_hostile.py
SETTINGS = settings(max_examples=EXAMPLES, deadline=None,
                    suppress_health_check=[HealthCheck.too_slow, HealthCheck.function_scoped_fixture])
FEW = settings(SETTINGS, max_examples=max(EXAMPLES // 2, 1))


def _raise(*_: Any) -> Any:
    raise Hostile("hostile")


RaisingEq = type("RaisingEq", (), {"__hash__": lambda self: hash("a"), "__eq__": _raise})  # lookups of "a" compare it
HOSTILE = [type("RaisingHash", (), {"__hash__": _raise, "__eq__": lambda self, other: self is other})(), RaisingEq(),
           type("RaisingConversions", (), {"__repr__": lambda self: "RaisingConversions()", **dict.fromkeys(
               ["__index__", "__int__", "__float__", "__bool__", "__str__", "__len__", "__iter__", "__getitem__"],
               _raise)})(),
           type("S", (str,), {"__hash__": _raise})("a"), type("I", (int,), {})(5), type("F", (float,), {})(1.5),
           type("BigLen", (), {"__len__": lambda self: 2**62, "__getitem__": lambda self, i: "aaaaaa"[i]})(), object()]
EDGE_INTS = [0, -1, 2**31, *INT64, INT64[1] + 1, INT64[0] - 1, 2**64, 10**30]
chars = st.one_of(st.characters(), st.characters(categories=["Cs"]))  # lone surrogates too
names = st.one_of(st.sampled_from(["a", "b", "search", ""]), st.text(chars, max_size=8))
scalars = st.one_of(st.none(), st.booleans(), st.integers(), st.sampled_from(EDGE_INTS), st.floats(), names,
                    st.binary(max_size=4), st.integers(0, len(HOSTILE) - 1).map(HOSTILE.__getitem__))
values = st.recursive(scalars, lambda inner: st.one_of(st.lists(inner, max_size=3), st.tuples(inner, inner),
                                                       st.dictionaries(names, inner, max_size=3)), max_leaves=6)
short = st.text(chars, max_size=6)
json_values = st.recursive(  # what a JSON document may hold
    st.one_of(st.none(), st.booleans(), st.integers(), st.sampled_from(EDGE_INTS), st.floats(), short),
    lambda inner: st.one_of(st.lists(inner, max_size=3), st.dictionaries(short, inner, max_size=3)), max_leaves=10)


def call(fn: Callable[..., Any], *args: Any, **kwargs: Any) -> tuple[Any, BaseException | None]:  # or raises
    try:
        return fn(*args, **kwargs), None
    except ALLOWED as error:
        return None, error


@pytest.fixture
def env(monkeypatch: pytest.MonkeyPatch) -> FakeClock:
    monkeypatch.setattr(health, "TOOLS", make_registry({"a": (), "b": (), "search": ("text", "symbol"), "\udfff": ()}))
    monkeypatch.setattr(health, "time", FakeClock())
    return health.time


def snapshot(tracker: Any) -> tuple[Any, ...]:
    """The tracker's state by identity and value, comparable whatever the keys are."""
    state = tuple((id(k), id(r), r.call_count, r.error_count, id(r.last_error), repr(r.disabled_at), repr(r.updated_at),
                   r.consecutive_errors) for k, r in tracker._state.items())
    usage = tuple((id(k), id(u), u.calls, u.timed_calls, repr(u.total_ms)) for k, u in tracker._usage.items())
    return state, frozenset(map(id, tracker._dirty)), usage, tracker._usage_dirty


timestamps = st.from_regex(r"\A\s?\d{1,5}-\d{1,3}-\d{1,3}\s{1,3}\d{1,3}:\d{1,3}:\d{1,3}(\.\d+)?\s?\Z")
instants = st.one_of(st.floats(-62135596801.0, 253402300801.0), st.floats(253402300798.0, 253402300801.0))


@SETTINGS
@given(value=st.one_of(values, timestamps, instants), other=values)
def test_module_functions(env: Any, value: Any, other: Any) -> None:
    text, error = call(health._sqlite_time, value)
    assert error is not None or (text is None) == (value is None)
    assert error is not None or not (isinstance(value, float) and not math.isfinite(value))
    if error is None and text is not None:
        assert 1 <= datetime.strptime(text, "%Y-%m-%d %H:%M:%S").year <= 9999 and len(text) == 19
    epoch, error = call(health._epoch, value)
    assert error is None or not isinstance(value, str)  # any text reads as a time or as absent
    assert error is not None or epoch is None or type(epoch) is float
    assert error is not None or epoch is None or health._epoch(health._sqlite_time(epoch)) == epoch  # round trip
    known, error = call(health._known, value, other)
    assert error is not None or known is True or known is False


@SETTINGS
@given(budget=values, os_threads=values, total=values, by_name=values, stats=values)
def test_status_reports(monkeypatch, budget: Any, os_threads: Any, total: Any, by_name: Any, stats: Any) -> None:
    census = types.SimpleNamespace(os_threads=os_threads, python_total=total, python_threads=by_name)
    report, error = call(health.thread_census_report, budget, census)
    counted = total if os_threads is None else os_threads
    assert error is not None or list(report)[-1] == "budget" or list(report)[-2:] == ["budget", "warning"]
    if error is None and type(counted) is int and type(budget) is int and counted > budget:
        assert f"holds {counted} threads, more than the {budget} its pools" in report["warning"]
    monkeypatch.setattr(health, "get_timing_collector", lambda: types.SimpleNamespace(get_all_stats=lambda: stats))
    answer, error = call(health.handle_get_tool_performance_stats)
    assert error is not None or list(answer) == ["tools"]


op = st.one_of(
    st.tuples(st.just("is_disabled"), values), st.tuples(st.just("record_success"), values),
    st.tuples(st.just("record_error"), values, values), st.tuples(st.just("record_call"), *[values] * 5),
    st.tuples(st.just("bad_arity"), st.sampled_from([("is_disabled", 0), ("is_disabled", 2), ("record_success", 2),
                                                     ("record_error", 1), ("record_call", 2), ("record_call", 4)]),
              st.lists(values, min_size=4, max_size=4),
              st.sampled_from([{}, {"x": 1}, {"alias_hit": 1, "duration_ms": 1}])),
    st.tuples(st.just("summary"), st.one_of(values, st.just(_raise))),
    st.tuples(st.just("clock"), st.one_of(st.floats(), st.sampled_from([NOW + 100, 1e300, "x", None]))),
    st.tuples(st.just("flush")),
)
FAMILIAR = ["a", "b", "search", "\ud800", RaisingEq(), 5]  # keys the tracker will hold and come back to
familiar = st.integers(0, len(FAMILIAR) - 1).map(FAMILIAR.__getitem__)
limit_values = st.one_of(st.integers(-2, 4), st.sampled_from([INT64[1], 10**30, float("nan"), "x", None]))


@FEW
@given(program=st.lists(st.one_of(op, st.tuples(st.just("record_error"), familiar, values),
                                  st.tuples(st.just("is_disabled"), familiar)), max_size=12),
       after=limit_values, cooldown=st.one_of(limit_values, st.floats()))
def test_tracker_operations(env: FakeClock, program: list[tuple[Any, ...]], after: Any, cooldown: Any) -> None:
    env.now = NOW
    tracker = tracker_over(MemDb(), ToolsConfig(disable_after_errors=after, disable_cooldown_s=cooldown))
    for kind, *args in program:
        before = snapshot(tracker)
        if kind == "is_disabled":
            result, error = call(tracker.is_disabled, *args)
            assert error is not None or (type(result) is tuple and len(result) == 2 and type(result[0]) is bool
                                         and (result[0] or result[1] is None))
            held, lookup_error = call(tracker._state.get, args[0])  # an unknown tool: nothing changes
            assert snapshot(tracker)[2:] == before[2:]
            assert held is not None or lookup_error is not None or snapshot(tracker) == before
        elif kind in ("record_success", "record_error"):
            call(getattr(tracker, kind), *args)
        elif kind == "record_call":
            call(tracker.record_call, *args[:3], alias_hit=args[3], duration_ms=args[4])
            assert snapshot(tracker)[:2] == before[:2]  # health untouched
        elif kind == "bad_arity":  # a wrong number of arguments: refused, nothing changes
            (method, count), positional, kwargs = args
            assert isinstance(call(getattr(tracker, method), *positional[:count], **kwargs)[1], TypeError)
            assert snapshot(tracker) == before
        elif kind == "summary":
            with mock.patch.object(health, "is_slow_call", args[0] if callable(args[0]) else lambda t, a: args[0]):
                summary, error = call(tracker.get_health_summary)
            assert snapshot(tracker) == before and (error is not None or isinstance(summary, list))
        elif kind == "clock":
            env.now = args[0]
        else:
            call(tracker.flush)
        assert isinstance(tracker.has_unsaved_changes, bool) and not tracker._lock.locked()
    call(tracker.get_health_summary)


column = st.one_of(values, st.sampled_from(["a", "search", "2024-03-05 14:07:09", "", 0, None]))
member = {"tool": st.sampled_from(["a", "b", "search", "gone"]), "outcome": st.sampled_from(["ok", "error"]),
          "action": st.sampled_from([None, "text", "symbol", "gone", ""]), "alias_hit": st.booleans(),
          "calls": st.integers(0, 10**6), "timed_calls": st.integers(0, 10**6), "total_ms": st.floats(0, 1e9)}
documents = st.one_of(json_values, st.lists(st.fixed_dictionaries(
    {}, optional={k: st.one_of(v, json_values) for k, v in member.items()}), max_size=4))


@FEW
@given(rows=st.one_of(values, st.lists(st.one_of(st.tuples(*[column] * 6), st.lists(column, max_size=8), values),
                                       max_size=4)),
       document=documents, shape=st.sampled_from(["row", "deep", "list", "bare", "hostile"]))
def test_hostile_history(env: Any, rows: Any, document: Any, shape: str) -> None:
    """Health rows may fail construction with an allowed error; every usage document loads or reads as unreadable."""
    tracker, error = call(tracker_over, MemDb(rows=rows))
    for r in tracker._state.values() if error is None else ():
        assert (type(r.call_count), type(r.error_count), type(r.updated_at)) == (int, int, float)
        assert r.consecutive_errors == 0
        assert r.disabled_at is None or type(r.disabled_at) is float
    text = json.dumps(document)
    text = "[" * 100_000 + text + "]" * 100_000 if shape == "deep" else text
    one = {"row": (text,), "deep": (text,), "list": [text, 1], "bare": text, "hostile": HOSTILE[2]}[shape]
    tracker = tracker_over(MemDb(one=one))
    for key, usage in tracker._usage.items():
        assert [type(x) for x in (key[0], key[2], key[3], usage.calls, usage.total_ms)] == [str, str, bool, int, float]
    call(tracker.flush)
