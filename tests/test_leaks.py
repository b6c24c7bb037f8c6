"""Reference leaks: every operation and failure path, run thousands of times, leaves the allocated blocks flat."""

import copy
import dataclasses
import gc
import json
import logging
import pickle
import sys
import types
from typing import Any, Callable

import pytest

from conftest import (DbError, FakeClock, HostLock, HostToolState, HostUsage, MemDb, make_registry, patched,
                      tracker_over)
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.utils.process import ThreadCensus

# With PYTHONMALLOC=malloc (the sanitizer run) the interpreter counts no blocks.
pytestmark = pytest.mark.skipif(sys.getallocatedblocks() == 0, reason="sys.getallocatedblocks() needs pymalloc")
ROUNDS, WARMUP, TOLERANCE = 2000, 200, 200
ANY = object()  # the scenario may succeed or fail: behaviour left open
Hostile = type("Hostile", (Exception,), {})


def raising(*args: Any, **kwargs: Any) -> Any:  # a lambda around throw() leaks blocks on 3.13t
    raise Hostile("callable")


ROWS = [("a", 3, 1, "boom", "2023-11-14 22:00:00", "2023-11-14 22:13:20"), ("search", None, None, None, None, None),
        ("removed", 1, 0, None, None, "2023-11-14 22:13:20")]
DOC = json.dumps([{"tool": t, "action": a, "outcome": "ok", "alias_hit": False, "calls": 2, "timed_calls": 1,
                   "total_ms": 1.5} for t, a in (("a", None), ("search", "text"), ("search", "gone"))])
COMPACT = json.dumps(json.loads(DOC), separators=(",", ":"))
LAST_ROW_FLOAT = '"calls":2.5,'.join(COMPACT.rsplit('"calls":2,', 1))  # read natively up to its last row


class Clearing(tuple):  # a usage key whose item access empties the maps of its tracker `t`
    def __getitem__(self, i: Any) -> Any:
        self.t._usage.clear()  # type: ignore[attr-defined]
        self.t._state.clear()  # type: ignore[attr-defined]
        return tuple.__getitem__(self, i)


def dirty(tracker: Any) -> Any:  # the tracker, with a changed health record and usage count
    tracker.record_success("a")
    return tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.25) or tracker


def T(*args: Any, limits: Any = None, **kwargs: Any) -> Any:  # a tracker over a fresh MemDb
    return tracker_over(MemDb(*args, **kwargs), limits)


def host_records(fn: Callable[[Any], Any]) -> Any:
    return patched(lambda: fn(T()), _ToolState=HostToolState, _Usage=HostUsage)


# Each scenario: an expression over h (the module), w (the world fixture), tr (its tracker), T (a tracker over a
# fresh MemDb), P (patched) and the names below; and its outcome: None, an error type, or ANY.
GROUPS: dict[str, dict[str, Any]] = {
    "module": {
        "h._sqlite_time(1.7e9), [h._epoch(t) for t in ('2024-03-05 14:07:09', '2024-02-30 00:00:00', '', None)]": None,
        "h._sqlite_time(float('nan'))": Exception, "h._sqlite_time(253402300800.0)": Exception,
        "h._sqlite_time('x')": Exception, "h._epoch(b'x')": Exception,
        "[h._known(*a) for a in (('search', 'text'), ('a', None), ('search', 'x'), ('x', None))]": None,
        "P(lambda: h._known('a', None), TOOLS=NS(get=raising))": Hostile, "h._known([], None)": TypeError,
        "P(lambda: h._known('a', 'x'), TOOLS={'a': NS(action=raising)})": Hostile,
    },
    "records": {
        "S(), S(call_count=1, last_error='x', disabled_at=1.0), S(1, 2, 'x', None, 2.0, 3), U(), U(1, 2, 3.5)": None,
        "S(error_count=-(2**63) - 1)": OverflowError, "S(call_count='x')": TypeError, "S(bogus=1)": TypeError,
        "S(disabled_at='x')": (TypeError, ValueError), "S(1, call_count=1)": TypeError, "U(2**63)": OverflowError,
        "[setattr(w.rec, n, v) for n, v in (('call_count', 5), ('last_error', object()), ('disabled_at', None),"
        " ('disabled_at', 1.5), ('updated_at', 2.5))]": None,
        "setattr(w.use, 'calls', 1), setattr(w.use, 'total_ms', 0.5)": None,
        "setattr(w.use, 'total_ms', None)": TypeError,
        "setattr(w.rec, 'call_count', 2**70)": OverflowError, "setattr(w.rec, 'updated_at', None)": TypeError,
        "delattr(S(), 'call_count')": ANY, "repr(w.rec), w.rec == S(), w.rec != 5, w.use == w.rec, repr(w.use)": None,
        "hash(w.rec)": TypeError, "U(1, 1, 'x')": (TypeError, ValueError),
        "pickle.loads(pickle.dumps(w.rec)), copy.deepcopy(w.use), dataclasses.replace(w.rec, call_count=2)": None,
    },
    "load": {
        "T(ROWS, (DOC,), limits=ToolsConfig())": None, "h.ToolHealthTracker(object())": None,
        **{f"T(ROWS, (DOC,), fail={{{op!r}}})": None for op in ("fetchall", "executemany", "fetchone")},
        **{f"T(ROWS, {doc!r})": None for doc in (
            ("[{",), ('{"tool": "a"}',), ("[1]",), ('[{"tool": "a"}]',), (DOC.replace('"calls": 2', '"calls": "x"'),),
            (DOC.replace('"action": null', '"action": [1]'),), (None,), (5,), (COMPACT,), (LAST_ROW_FLOAT,),
            (LAST_ROW_FLOAT.replace('"tool":"search"', '"tool":[]'),))},
        "P(lambda: T(ROWS, (DOC,)), TOOLS=NS(get=raising))": Hostile, "P(lambda: T(), ToolsConfig=raising)": Hostile,
        "T([('a', 'x', 0, None, None, None)])": ANY, "T([('a', 1)])": ANY,
        "P(lambda: T(ROWS), _ToolState=raising)": ANY,
        "P(lambda: T((), (DOC,)), _Usage=raising)": None, "P(lambda: T((), (DOC,)), json=NS(loads=raising))": None,
        "P(lambda: T((), (DOC,)), json=NS(loads=json.loads, dumps=json.dumps))": None,
        "P(lambda: T(ROWS, (DOC,)), _ToolState=HostToolState, _Usage=HostUsage)": None,
    },
    "tracker": {
        "[tr.record_error('b', 'boom') for _ in range(3)], tr.is_disabled('b'), h.time.advance(100),"
        " tr.is_disabled('b'), tr.is_disabled('nope'), tr.record_success('a'), tr.limits, tr.cooldown_s": None,
        "tr.is_disabled([])": TypeError, "tr.record_success({})": TypeError, "tr.record_error('a', 5)": ANY,
        "[tr.record_error('a', m) for m in ('boom', 'é' * 600, '', None)], tr.has_unsaved_changes": None,
        "tr.record_call('search', 'text', 'ok', alias_hit=True, duration_ms=2.5),"
        " tr.record_call(tool_name='a', action=None, outcome='e', alias_hit=False, duration_ms=None)": None,
        "tr.record_call('a', None, 'ok', False, 1.0)": TypeError,
        "tr.record_call('a', None, 'ok', alias_hit=False)": TypeError,
        "tr.record_call('a', None, 'ok', alias_hit=False, duration_ms='x')": ANY,
        "tr.record_call('a', [], 'ok', alias_hit=False, duration_ms=1.0)": TypeError,
        "P(lambda: tr.record_error('a', 'x'), time=NS(time=raising))": Hostile,
        "T(limits=NS()).record_error('a', 'x')": AttributeError, "w.limited.is_disabled('a')": AttributeError,
        "host_records(lambda t: (t.record_success('n'), t.record_error('n', 'x'),"
        " t.record_call('n', None, 'ok', alias_hit=False, duration_ms=1.0)))": None,
        "P(lambda: T().record_success('n'), _ToolState=raising)": Hostile,
        "P(lambda: T().record_call('n', None, 'ok', alias_hit=False, duration_ms=1.0), _Usage=raising)": Hostile,
    },
    "flush": {
        "dirty(tr).flush(), tr.flush(), dirty(tr)._flush_health(), tr._flush_usage()": None,
        "dirty(w.broken['executemany']).flush()": DbError, "dirty(w.broken['execute']).flush()": DbError,
        "P(lambda: dirty(tr).flush(), _sqlite_time=raising)": Hostile,
        "P(lambda: dirty(tr).flush(), _sqlite_time=lambda e: e and 'T')": None,
        "P(lambda: dirty(tr).flush(), json=NS(dumps=raising))": ANY,
        "P(lambda: dirty(tr).flush(), json=NS(loads=json.loads, dumps=json.dumps))": None,
        "host_records(lambda t: (t.record_success('n'),"
        " t.record_call('n', None, 'ok', alias_hit=True, duration_ms=1.0), t.flush()))": None,
        "(t := T(), t.record_success('a'), t.record_success(1), t.flush())": TypeError,
        "(t := T(), t.record_call('a', b'x', 'ok', alias_hit=False, duration_ms=None), t.flush())": TypeError,
    },
    "summary": {
        "dirty(tr).record_call('b', None, 'ok', alias_hit=False, duration_ms=None), tr.get_health_summary(),"
        " tr._usage_rows('a'), P(tr.get_health_summary, is_slow_call=lambda t, a: True)": None,
        "P(tr.get_health_summary, is_slow_call=raising)": Hostile,
        "P(tr.get_health_summary, _sqlite_time=raising)": Hostile,
        "host_records(lambda t: (t.record_error('n', 'x'),"
        " t.record_call('m', None, 'ok', alias_hit=True, duration_ms=1.0), t.get_health_summary()))": None,
    },
    "host code": {
        "(t := T(), setattr(t, '_state', {}), setattr(t, '_usage', {}), setattr(t, '_dirty', set()),"
        " setattr(t, '_lock', t._lock), dirty(t).flush())": None,
        "setattr(T(), '_state', [])": TypeError, "setattr(T(), '_lock', object())": TypeError,
        "delattr(T(), '_dirty')": TypeError,
        "(t := T(), setattr(t, '_lock', HostLock()), dirty(t).get_health_summary(), t.flush())": None,
        "P(lambda: dirty(tr).get_health_summary(), is_slow_call=lambda n, a: tr.record_success('x'))": RuntimeError,
        "(t := dirty(T()), P(lambda: t.record_success('h'), _ToolState=HostToolState), t.get_health_summary(),"
        " t.flush())": None,
        "(t := dirty(T()), k := Clearing(('a', 'x', 'ok', False)), setattr(k, 't', t), t._usage.__setitem__(k, U()),"
        " t.get_health_summary(), t._usage_rows('a'), t.flush())": ANY,
    },
    "reports": {
        "STATS(collector([{'name': 'a', 'count': 3, 'avg_ms': 1.5, 'p95_ms': 2.0, 'min_ms': 1.0, 'max_ms': 2.0,"
        " 'errors': 0, 'x': 1}])), h.thread_census_report(40, CENSUS)": None,
        "STATS(collector([{'name': 'a'}]))": KeyError, "STATS(raising)": Hostile,
        "h.thread_census_report('x', CENSUS)": TypeError, "h.thread_census_report(1, object())": AttributeError,
        "P(lambda: h.thread_census_report(10), thread_census=lambda: CENSUS)": None,
        "P(lambda: h.thread_census_report(10), thread_census=raising)": Hostile,
    },
}
NAMES = {**globals(), "h": health, "S": health._ToolState, "U": health._Usage, "NS": types.SimpleNamespace,
         "P": patched, "CENSUS": ThreadCensus(45, 20, {"main": 1, "pool": 19}),
         "collector": lambda stats: lambda: types.SimpleNamespace(get_all_stats=lambda: stats),
         "STATS": lambda get: patched(health.handle_get_tool_performance_stats, get_timing_collector=get)}


@pytest.fixture
def world(monkeypatch: pytest.MonkeyPatch) -> Any:
    """The trackers and records the scenarios work on."""
    monkeypatch.setattr(health, "TOOLS", make_registry({"a": (), "b": (), "search": ("text", "symbol")}))
    monkeypatch.setattr(health, "time", FakeClock())
    monkeypatch.setattr(logging.getLogger(health.__name__), "disabled", True)  # no log capture keeps the warnings
    limited = T(limits=types.SimpleNamespace(disable_after_errors=1))
    limited.record_error("a", "x")  # disabled at once; is_disabled then reads the missing cooldown
    limits = ToolsConfig(disable_after_errors=3, disable_cooldown_s=60)
    return types.SimpleNamespace(tracker=T(ROWS, (DOC,), keep=False, limits=limits), limited=limited,
                                rec=health._ToolState(), use=health._Usage(),
                                broken={op: T(keep=False, fail={op}) for op in ("execute", "executemany")})


def run(code: Any, env: dict[str, Any]) -> BaseException | None:
    try:
        eval(code, env)
    except Exception as error:  # noqa: BLE001 - the outcome is checked by the caller
        return error
    return None


def growth(scenarios: list[Any], env: dict[str, Any]) -> int:
    """Runs each scenario WARMUP times, then measures three times: a leak grows in each, a bounded cache fills in
    one (on 3.13 the caches of a group's scenarios together can take two)."""
    growths = []
    for rounds in (WARMUP, ROUNDS, ROUNDS, ROUNDS):
        gc.collect()
        before = sys.getallocatedblocks()
        for code in scenarios:
            for _ in range(rounds):
                run(code, env)
        gc.collect()
        growths.append(sys.getallocatedblocks() - before)
    return min(growths[1:])


@pytest.mark.parametrize("group", list(GROUPS))
def test_no_reference_leaks(world: Any, group: str) -> None:
    scenarios = {text: compile(text, text, "eval") for text in GROUPS[group]}
    # One globals dict for every round: on a free-threaded build a lambda made under a fresh
    # globals dict costs the interpreter a block of its own, which would read as a leak.
    env = {**NAMES, "w": world, "tr": world.tracker}
    for text, expected in GROUPS[group].items():  # each scenario takes the path it is meant to take
        error = run(scenarios[text], env)
        assert expected is ANY or (error is None if expected is None else isinstance(error, expected)), (text, error)
    total = growth(list(scenarios.values()), env)
    if total > TOLERANCE:  # name the culprits: measure each scenario alone
        leaking = {text: g for text, code in scenarios.items() if (g := growth([code], env)) > TOLERANCE}
        pytest.fail(f"{group}: {total} blocks more after {ROUNDS} rounds; by scenario: {leaking}")
