"""Reference leaks: every public operation, on its success path and on every failure
path, runs thousands of times and the interpreter's count of allocated blocks stays
flat. A reference that an error path forgets to drop keeps an object alive per call,
so even one leaked object per call shows as thousands of blocks."""
from __future__ import annotations

import gc
import json
import logging
import sys
import types
from typing import Any, Callable, Iterator

import pytest

from conftest import HostToolState as PyToolState, HostUsage as PyUsage
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ActionSpec, ToolRegistry, ToolSpec
from ordanis_veltrane.utils.process import ThreadCensus

# Counting blocks needs the interpreter's own allocator: with PYTHONMALLOC=malloc (as in
# the sanitizer run, where tools/reliability.sh runs this file on the normal build) it
# counts nothing.
pytestmark = pytest.mark.skipif(sys.getallocatedblocks() == 0, reason="sys.getallocatedblocks() needs pymalloc")

ROUNDS = 2000  # calls of every scenario between two counts
WARMUP = 200
TOLERANCE = ROUNDS // 10  # a leak of one block per call shows as ROUNDS blocks

ANY = object()  # the scenario may succeed or fail: behaviour the component leaves open
NOW = 1_700_000_000.25


class DbError(Exception):
    """The database's error."""


class Hostile(Exception):
    """Raised by the hostile stand-ins for registries, predicates and clocks."""


class MemDb:
    """An in-memory database with the four operations; `fail` names the ones that
    raise (a fresh error each time: re-raising one instance would grow its traceback)."""

    def __init__(self, rows: Any = (), doc: Any = None) -> None:
        self.rows = list(rows)
        self.doc = doc
        self.fail: set[str] = set()

    def _check(self, op: str) -> None:
        if op in self.fail:
            raise DbError(f"{op} failed")

    def fetchall(self, sql: str) -> Any:
        self._check("fetchall")
        return list(self.rows)

    def fetchone(self, sql: str, params: Any) -> Any:
        self._check("fetchone")
        return None if self.doc is None else (self.doc,)

    def execute(self, sql: str, params: Any) -> None:
        self._check("execute")
        self.doc = params[1]

    def executemany(self, sql: str, rows: Any) -> None:
        self._check("executemany")
        list(rows)


def repo(db: Any) -> Any:
    return types.SimpleNamespace(db=db)


class Clock:
    def __init__(self) -> None:
        self.now = NOW

    def time(self) -> float:
        return self.now


class RaisingClock:
    def time(self) -> float:
        raise Hostile("clock")


class RaisingRegistry:
    def get(self, name: Any) -> Any:
        raise Hostile("registry")


class RaisingActionSpec:
    def action(self, name: Any) -> Any:
        raise Hostile("spec")


class RaisingLimits:
    @property
    def disable_after_errors(self) -> int:
        raise Hostile("limits")

    @property
    def disable_cooldown_s(self) -> float:
        raise Hostile("limits")


class CooldownRaises:
    disable_after_errors = 1

    @property
    def disable_cooldown_s(self) -> float:
        raise Hostile("limits")


def raising(*args: Any, **kwargs: Any) -> Any:
    raise Hostile("callable")


def py_sqlite_time(epoch: Any) -> Any:
    return None if epoch is None else "2023-11-14 22:13:20"


def py_is_slow_call(tool: Any, action: Any) -> bool:
    return action == "text"


class Collector:
    def __init__(self, stats: list[dict[str, Any]]) -> None:
        self.stats = stats

    def get_all_stats(self) -> list[dict[str, Any]]:
        return self.stats


STATS = [{"name": "a", "count": 3, "avg_ms": 1.5, "p95_ms": 2.0, "min_ms": 1.0, "max_ms": 2.0, "errors": 0, "x": 1}]
HEALTH_ROWS = [
    ("a", 3, 1, "boom", "2023-11-14 22:00:00", "2023-11-14 22:13:20"),
    ("search", None, None, None, None, None),
    ("removed", 1, 0, None, None, "2023-11-14 22:13:20"),
]
USAGE_DOC = json.dumps(
    [
        {"tool": "a", "action": None, "outcome": "ok", "alias_hit": False, "calls": 2, "timed_calls": 1, "total_ms": 1.5},
        {"tool": "search", "action": "text", "outcome": "ok", "alias_hit": True, "calls": 1, "timed_calls": 0, "total_ms": 0},
        {"tool": "search", "action": "gone", "outcome": "ok", "alias_hit": True, "calls": 1, "timed_calls": 0, "total_ms": 0},
    ]
)


class World:
    """The trackers and databases the scenarios work on, and the module attributes
    they replace for one call (always restored)."""

    def __init__(self) -> None:
        self.registry = ToolRegistry()
        for name, actions in {"a": (), "b": (), "search": ("text", "symbol")}.items():
            self.registry.register(ToolSpec(name, [ActionSpec(x) for x in actions]))
        self.db = MemDb(HEALTH_ROWS, USAGE_DOC)
        self.clock = Clock()
        self.tracker: Any = None  # the trackers and records are made once the fixture has patched the module
        self.limited: Any = None
        self.rec: Any = None
        self.use: Any = None

    def fresh(self) -> Any:
        return health.ToolHealthTracker(repo(MemDb()))

    def patched(self, name: str, value: Any, fn: Callable[[], Any]) -> Any:
        saved = getattr(health, name)
        setattr(health, name, value)
        try:
            return fn()
        finally:
            setattr(health, name, saved)

    def dirty(self) -> Any:
        """The shared tracker with a changed health record and usage count."""
        self.tracker.record_success("a")
        self.tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.25)
        return self.tracker

    def failing(self, op: str, fn: Callable[[], Any]) -> Any:
        self.db.fail.add(op)
        try:
            return fn()
        finally:
            self.db.fail.discard(op)


Scenario = tuple[str, Callable[[World], Any], Any]  # name, call, outcome: None, an exception type or ANY


def _module_scenarios() -> list[Scenario]:
    return [
        ("sqlite_time", lambda w: health._sqlite_time(NOW), None),
        ("sqlite_time None", lambda w: health._sqlite_time(None), None),
        ("sqlite_time nan", lambda w: health._sqlite_time(float("nan")), Exception),
        ("sqlite_time inf", lambda w: health._sqlite_time(float("inf")), Exception),
        ("sqlite_time year 10000", lambda w: health._sqlite_time(253402300800.0), Exception),
        ("sqlite_time text", lambda w: health._sqlite_time("x"), Exception),
        ("sqlite_time no args", lambda w: health._sqlite_time(), TypeError),
        ("epoch", lambda w: health._epoch("2024-03-05 14:07:09"), None),
        ("epoch unreadable", lambda w: health._epoch("2024-02-30 00:00:00"), None),
        ("epoch empty", lambda w: health._epoch(""), None),
        ("epoch None", lambda w: health._epoch(None), None),
        ("epoch number", lambda w: health._epoch(5), Exception),
        ("epoch blob", lambda w: health._epoch(b"2024-03-05 14:07:09"), Exception),
        ("epoch two args", lambda w: health._epoch("a", "b"), TypeError),
        ("known", lambda w: health._known("search", "text"), None),
        ("known no action", lambda w: health._known("a", None), None),
        ("known unknown action", lambda w: health._known("search", "nope"), None),
        ("known unknown tool", lambda w: health._known("nope", None), None),
        ("known raising registry", lambda w: w.patched("TOOLS", RaisingRegistry(), lambda: health._known("a", None)), Hostile),
        ("known raising spec",
         lambda w: w.patched("TOOLS", {"a": RaisingActionSpec()}, lambda: health._known("a", "x")), Hostile),
        ("known unhashable", lambda w: health._known([], None), TypeError),
        ("known one arg", lambda w: health._known("a"), TypeError),
    ]


def _record_scenarios() -> list[Scenario]:
    def set_field(rec: Any, name: str, value: Any) -> None:
        setattr(rec, name, value)

    state = health._ToolState
    usage = health._Usage
    return [
        ("state default", lambda w: state(), None),
        ("state by name", lambda w: state(call_count=1, error_count=2, last_error="x", disabled_at=1.0, updated_at=2.0), None),
        ("state by position", lambda w: state(1, 2, "x", None, 2.0, 3), None),
        ("state overflow", lambda w: state(call_count=2**64), OverflowError),
        ("state negative overflow", lambda w: state(error_count=-(2**63) - 1), OverflowError),
        ("state bad int", lambda w: state(call_count="x"), TypeError),
        ("state bad float", lambda w: state(disabled_at="x"), (TypeError, ValueError)),
        ("state unknown field", lambda w: state(bogus=1), TypeError),
        ("state too many", lambda w: state(1, 2, 3, 4, 5, 6, 7), TypeError),
        ("state twice", lambda w: state(1, call_count=1), TypeError),
        ("state setters", lambda w: [set_field(w.rec, n, v) for n, v in
                                     (("call_count", 5), ("last_error", object()), ("disabled_at", None),
                                      ("disabled_at", 1.5), ("updated_at", 2.5), ("consecutive_errors", 1))], None),
        ("state set overflow", lambda w: set_field(w.rec, "call_count", 2**70), OverflowError),
        ("state set text", lambda w: set_field(w.rec, "error_count", "x"), TypeError),
        ("state set updated None", lambda w: set_field(w.rec, "updated_at", None), TypeError),
        ("state delete", lambda w: delattr(state(), "call_count"), ANY),
        ("state repr eq", lambda w: (repr(w.rec), w.rec == state(), w.rec != 5), None),
        ("state hash", lambda w: hash(w.rec), TypeError),
        ("usage default", lambda w: usage(), None),
        ("usage by position", lambda w: usage(1, 2, 3.5), None),
        ("usage overflow", lambda w: usage(2**63), OverflowError),
        ("usage bad float", lambda w: usage(1, 1, "x"), (TypeError, ValueError)),
        ("usage unknown field", lambda w: usage(bogus=1), TypeError),
        ("usage setters", lambda w: [set_field(w.use, n, v) for n, v in (("calls", 1), ("timed_calls", 2), ("total_ms", 0.5))], None),
        ("usage set overflow", lambda w: set_field(w.use, "timed_calls", -(2**64)), OverflowError),
        ("usage set None", lambda w: set_field(w.use, "total_ms", None), TypeError),
        ("usage repr eq hash", lambda w: (repr(w.use), w.use == usage(), w.use == w.rec), None),
        ("usage hash", lambda w: hash(w.use), TypeError),
    ]


def _load_scenarios() -> list[Scenario]:
    def build(db: MemDb, limits: Any = None) -> Any:
        return health.ToolHealthTracker(repo(db), limits)

    def with_doc(doc: Any) -> Callable[[World], Any]:
        return lambda w: build(MemDb(HEALTH_ROWS, doc))

    def failing(op: str) -> Callable[[World], Any]:
        return lambda w: w.failing(op, lambda: health.ToolHealthTracker(repo(w.db)))

    return [
        ("load", lambda w: build(MemDb(HEALTH_ROWS, USAGE_DOC), ToolsConfig()), None),
        ("load empty", lambda w: build(MemDb()), None),
        ("load by name", lambda w: health.ToolHealthTracker(repository=repo(MemDb()), limits=None), None),
        ("load fetchall fails", failing("fetchall"), None),
        ("load delete fails", failing("executemany"), None),
        ("load fetchone fails", failing("fetchone"), None),
        ("load doc not json", with_doc("[{"), None),
        ("load doc not a list", with_doc('{"tool": "a"}'), None),
        ("load doc row not an object", with_doc("[1]"), None),
        ("load doc missing member", with_doc('[{"tool": "a"}]'), None),
        ("load doc bad count", with_doc(USAGE_DOC.replace('"calls": 2', '"calls": "many"')), None),
        ("load doc unhashable action", with_doc(USAGE_DOC.replace('"action": null', '"action": [1]')), None),
        ("load doc value NULL", with_doc(None), None),
        ("load doc value a number", with_doc(5), None),
        ("load repository without db", lambda w: health.ToolHealthTracker(object()), None),
        ("load raising registry", lambda w: w.patched("TOOLS", RaisingRegistry(), lambda: build(MemDb(HEALTH_ROWS, USAGE_DOC))),
         Hostile),
        ("load raising registry, no doc", lambda w: w.patched("TOOLS", RaisingRegistry(), lambda: build(MemDb(HEALTH_ROWS))),
         None),
        ("load bad row values", lambda w: build(MemDb([("a", "x", 0, None, None, None)])), ANY),
        ("load short row", lambda w: build(MemDb([("a", 1)])), ANY),
        ("load raising _ToolState", lambda w: w.patched("_ToolState", raising, lambda: build(MemDb(HEALTH_ROWS))), ANY),
        ("load raising _Usage", lambda w: w.patched("_Usage", raising, lambda: build(MemDb((), USAGE_DOC))), None),
        ("load raising json", lambda w: w.patched("json", types.SimpleNamespace(loads=raising, dumps=raising),
                                                  lambda: build(MemDb((), USAGE_DOC))), None),
        ("load host json", lambda w: w.patched("json", types.SimpleNamespace(loads=json.loads, dumps=json.dumps),
                                               lambda: build(MemDb((), USAGE_DOC))), None),
        ("load host records",
         lambda w: w.patched("_ToolState", PyToolState, lambda: w.patched("_Usage", PyUsage, lambda: build(w.db))), None),
        ("load raising default limits", lambda w: w.patched("ToolsConfig", raising, lambda: build(MemDb())), Hostile),
        ("load no args", lambda w: health.ToolHealthTracker(), TypeError),
        ("load too many args", lambda w: health.ToolHealthTracker(repo(MemDb()), None, 1), TypeError),
    ]


def _tracker_scenarios() -> list[Scenario]:
    def cycle_disabled(w: World) -> Any:
        t = w.tracker
        for _ in range(3):
            t.record_error("b", "boom")
        t.is_disabled("b")  # disabled, cooldown not over
        w.clock.now += 100
        return t.is_disabled("b")  # enabled again

    return [
        ("is_disabled unknown", lambda w: w.tracker.is_disabled("nope"), None),
        ("is_disabled cycle", cycle_disabled, None),
        ("is_disabled unhashable", lambda w: w.tracker.is_disabled([]), TypeError),
        ("is_disabled no args", lambda w: w.tracker.is_disabled(), TypeError),
        ("record_success", lambda w: w.tracker.record_success("a"), None),
        ("record_success unhashable", lambda w: w.tracker.record_success({}), TypeError),
        ("record_success by keyword", lambda w: w.tracker.record_success(tool=1), TypeError),
        ("record_error", lambda w: w.tracker.record_error("a", "boom"), None),
        ("record_error long", lambda w: w.tracker.record_error("a", "é" * 600), None),
        ("record_error empty", lambda w: w.tracker.record_error("a", ""), None),
        ("record_error None", lambda w: w.tracker.record_error("a", None), None),
        ("record_error not text", lambda w: w.tracker.record_error("a", 5), ANY),
        ("record_error one arg", lambda w: w.tracker.record_error("a"), TypeError),
        ("record_call", lambda w: w.tracker.record_call("search", "text", "ok", alias_hit=True, duration_ms=2.5), None),
        ("record_call untimed", lambda w: w.tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None), None),
        ("record_call by name",
         lambda w: w.tracker.record_call(tool_name="a", action=None, outcome="e", alias_hit=False, duration_ms=0.0), None),
        ("record_call positional flags", lambda w: w.tracker.record_call("a", None, "ok", False, 1.0), TypeError),
        ("record_call missing duration", lambda w: w.tracker.record_call("a", None, "ok", alias_hit=False), TypeError),
        ("record_call unknown keyword",
         lambda w: w.tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0, x=1), TypeError),
        ("record_call bad duration", lambda w: w.tracker.record_call("a", None, "ok", alias_hit=False, duration_ms="x"), ANY),
        ("record_call unhashable", lambda w: w.tracker.record_call("a", [], "ok", alias_hit=False, duration_ms=1.0), TypeError),
        ("raising clock", lambda w: w.patched("time", RaisingClock(), lambda: w.tracker.record_success("a")), Hostile),
        ("raising clock error", lambda w: w.patched("time", RaisingClock(), lambda: w.tracker.record_error("a", "x")), Hostile),
        ("raising limits", lambda w: health.ToolHealthTracker(repo(MemDb()), RaisingLimits()).record_error("a", "x"), Hostile),
        ("raising cooldown", lambda w: w.limited.is_disabled("a"), Hostile),
        ("properties", lambda w: (w.tracker.limits, w.tracker.cooldown_s, w.tracker.has_unsaved_changes), None),
        ("host records", lambda w: w.patched("_ToolState", PyToolState, lambda: w.patched("_Usage", PyUsage, lambda: (
            w.fresh().record_success("n"), w.fresh().record_error("n", "x"),
            w.fresh().record_call("n", None, "ok", alias_hit=False, duration_ms=1.0)))), None),
        ("raising _ToolState", lambda w: w.patched("_ToolState", raising, lambda: w.fresh().record_success("new")), Hostile),
        ("raising _Usage",
         lambda w: w.patched("_Usage", raising, lambda: w.fresh().record_call("n", None, "ok", alias_hit=False, duration_ms=1.0)),
         Hostile),
    ]


def _flush_scenarios() -> list[Scenario]:
    host_json = types.SimpleNamespace(loads=json.loads, dumps=json.dumps)
    return [
        ("flush", lambda w: w.dirty().flush(), None),
        ("flush nothing", lambda w: (w.tracker.flush(), w.tracker.flush()), None),
        ("flush health fails", lambda w: w.failing("executemany", lambda: w.dirty().flush()), DbError),
        ("flush usage fails", lambda w: w.failing("execute", lambda: w.dirty().flush()), DbError),
        ("flush parts", lambda w: (w.dirty()._flush_health(), w.tracker._flush_usage()), None),
        ("flush raising sqlite_time", lambda w: w.patched("_sqlite_time", raising, lambda: w.dirty().flush()), Hostile),
        ("flush host sqlite_time", lambda w: w.patched("_sqlite_time", py_sqlite_time, lambda: w.dirty().flush()), None),
        ("flush raising json", lambda w: w.patched("json", types.SimpleNamespace(dumps=raising, loads=raising),
                                                   lambda: w.dirty().flush()), ANY),
        ("flush host json", lambda w: w.patched("json", host_json, lambda: w.dirty().flush()), None),
        ("flush host records", lambda w: w.patched("_ToolState", PyToolState, lambda: w.patched("_Usage", PyUsage, lambda: (
            t := w.fresh(), t.record_success("n"), t.record_call("n", None, "ok", alias_hit=True, duration_ms=1.0), t.flush()))),
         None),
        ("flush unsortable names", lambda w: (t := w.fresh(), t.record_success("a"), t.record_success(1), t.flush()), TypeError),
        ("flush too many args", lambda w: w.tracker.flush(1), TypeError),
    ]


def _summary_scenarios() -> list[Scenario]:
    def summary(w: World) -> Any:
        w.dirty().record_call("b", None, "ok", alias_hit=False, duration_ms=None)
        return w.tracker.get_health_summary()

    return [
        ("summary", summary, None),
        ("summary empty", lambda w: w.fresh().get_health_summary(), None),
        ("summary usage rows", lambda w: w.tracker._usage_rows("a"), None),
        ("summary raising is_slow_call", lambda w: w.patched("is_slow_call", raising, lambda: summary(w)), Hostile),
        ("summary host is_slow_call", lambda w: w.patched("is_slow_call", py_is_slow_call, lambda: summary(w)), None),
        ("summary raising sqlite_time", lambda w: w.patched("_sqlite_time", raising, lambda: summary(w)), Hostile),
        ("summary host records", lambda w: w.patched("_ToolState", PyToolState, lambda: w.patched("_Usage", PyUsage, lambda: (
            t := w.fresh(), t.record_error("n", "x"), t.record_call("m", None, "ok", alias_hit=True, duration_ms=1.0),
            t.get_health_summary()))), None),
        ("summary args", lambda w: w.tracker.get_health_summary(1), TypeError),
    ]


def _report_scenarios() -> list[Scenario]:
    def collector(stats: Any) -> Callable[[], Any]:
        return lambda: Collector(stats)

    census = ThreadCensus(45, 20, {"main": 1, "pool": 19})
    return [
        ("stats", lambda w: w.patched("get_timing_collector", collector(STATS), health.handle_get_tool_performance_stats), None),
        ("stats missing key", lambda w: w.patched("get_timing_collector", collector([{"name": "a", "count": 1}]),
                                                  health.handle_get_tool_performance_stats), KeyError),
        ("stats not a sequence", lambda w: w.patched("get_timing_collector", collector(5),
                                                     health.handle_get_tool_performance_stats), TypeError),
        ("stats raising collector", lambda w: w.patched("get_timing_collector", raising,
                                                        health.handle_get_tool_performance_stats), Hostile),
        ("stats args", lambda w: health.handle_get_tool_performance_stats(1), TypeError),
        ("census warning", lambda w: health.thread_census_report(40, census), None),
        ("census quiet", lambda w: health.thread_census_report(budget=50, census=ThreadCensus(None, 3, {})), None),
        ("census taken", lambda w: w.patched("thread_census", lambda: census, lambda: health.thread_census_report(10)), None),
        ("census raising", lambda w: w.patched("thread_census", raising, lambda: health.thread_census_report(10)), Hostile),
        ("census bad budget", lambda w: health.thread_census_report("x", census), TypeError),
        ("census missing field", lambda w: health.thread_census_report(1, object()), AttributeError),
        ("census bad threads", lambda w: health.thread_census_report(1, ThreadCensus(1, 1, 5)), Exception),
        ("census no args", lambda w: health.thread_census_report(), TypeError),
    ]


GROUPS: dict[str, Callable[[], list[Scenario]]] = {
    "module": _module_scenarios,
    "records": _record_scenarios,
    "load": _load_scenarios,
    "tracker": _tracker_scenarios,
    "flush": _flush_scenarios,
    "summary": _summary_scenarios,
    "reports": _report_scenarios,
}


@pytest.fixture
def world(monkeypatch: pytest.MonkeyPatch) -> Iterator[World]:
    w = World()
    monkeypatch.setattr(health, "TOOLS", w.registry)
    monkeypatch.setattr(health, "time", w.clock)
    # The warnings of failed loads go to a logger of our own that formats and drops
    # them: the test runner's log capture would keep every record and grow. It is made
    # outside the logging registry, so the runner cannot attach its handler to it.
    log = logging.Logger(health.__name__)
    log.propagate = False

    class Drop(logging.Handler):
        def emit(self, record: logging.LogRecord) -> None:
            self.format(record)

    log.addHandler(Drop())
    monkeypatch.setattr(health, "logger", log)
    w.tracker = health.ToolHealthTracker(repo(w.db), ToolsConfig(disable_after_errors=3, disable_cooldown_s=60))
    w.limited = health.ToolHealthTracker(repo(MemDb()), CooldownRaises())
    w.limited.record_error("a", "x")  # disabled at once; is_disabled then reads the cooldown
    w.rec = health._ToolState()
    w.use = health._Usage()
    yield w


def _run(scenario: Scenario, w: World) -> BaseException | None:
    try:
        scenario[1](w)
    except Exception as error:  # noqa: BLE001 - the outcome is checked by the caller
        return error
    return None


def _check_outcome(scenario: Scenario, error: BaseException | None) -> None:
    name, _, expected = scenario
    if expected is ANY:
        return
    if expected is None:
        assert error is None, f"{name}: unexpected {error!r}"
    else:
        assert isinstance(error, expected), f"{name}: expected {expected!r}, got {error!r}"


def _growth(scenarios: list[Scenario], w: World, rounds: int) -> int:
    """The smaller growth of two measurements: a leak grows in both, while the
    interpreter's bounded caches (free lists, the float formatter's) fill in one."""
    for scenario in scenarios:
        for _ in range(WARMUP):
            _run(scenario, w)
    growths = []
    for _ in range(2):
        gc.collect()
        before = sys.getallocatedblocks()
        for scenario in scenarios:
            for _ in range(rounds):
                _run(scenario, w)
        gc.collect()
        growths.append(sys.getallocatedblocks() - before)
    return min(growths)


@pytest.mark.parametrize("group", list(GROUPS))
def test_no_reference_leaks(world: World, group: str) -> None:
    scenarios = GROUPS[group]()
    for scenario in scenarios:  # each scenario takes the path it is meant to take
        _check_outcome(scenario, _run(scenario, world))
    growth = _growth(scenarios, world, ROUNDS)
    print(f"\n{group}: {growth:+d} blocks after {ROUNDS} calls of each of {len(scenarios)} scenarios")
    if growth > TOLERANCE:
        # Name the culprits: measure each scenario alone.
        leaking = {s[0]: g for s in scenarios if (g := _growth([s], world, ROUNDS)) > TOLERANCE}
        pytest.fail(f"{group}: {growth} blocks more after {ROUNDS} rounds; by scenario: {leaking}")
