"""The tracker's call path: limits, disabling, re-enabling, usage counts, late binding, locking, bad arguments and
failing settings or clock (hostile values: test_hostile; threads: test_stress)."""

import json
import threading
import types
from typing import Any

import pytest

from conftest import (FIELDS, MEMBERS, NOW as T0, SELECT_HEALTH, WRITE_USAGE, FakeClock, HostToolState, HostUsage,
                      make_registry, throw, tracker_over)
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

KEY, BIG = ("a", None, "ok", False), ("big", None, "ok", False)


def fields(tracker: Any, name: str) -> tuple[Any, ...] | None:
    record = tracker._state.get(name)
    return None if record is None else tuple(getattr(record, f) for f in FIELDS)


def usage(tracker: Any) -> dict[tuple, tuple]:
    return {key: (u.calls, u.timed_calls, u.total_ms) for key, u in tracker._usage.items()}


@pytest.fixture
def tracker(make_tracker, clock, registry) -> Any:  # disables a tool at its first error
    return make_tracker(ToolsConfig(disable_after_errors=1, disable_cooldown_s=60.0))


def assert_unlocked_and_working(tracker: Any, name: str = "after") -> None:
    assert not tracker._lock.locked()
    before = fields(tracker, name)
    tracker.record_success(name)
    assert fields(tracker, name)[0] == (0 if before is None else before[0]) + 1 and name in tracker._dirty


def answer(value: Any) -> Any:  # an exception is raised, anything else returned
    return throw(value) if isinstance(value, BaseException) else value


class Limits:  # settings that are exceptions are raised on reading; false in a boolean test
    def __init__(self, after: Any = 3, cooldown: Any = 60.0) -> None:
        self.after, self.cooldown = after, cooldown

    __bool__ = lambda self: False  # noqa: E731
    disable_after_errors = property(lambda self: answer(self.after))
    disable_cooldown_s = property(lambda self: answer(self.cooldown))


# limit, steps before (a number advances the clock), the event, its answer, the record after (None: none),
# the marks after (cleared before the event), and the clock reads of the event.
ERR, OK, ASK, T5 = ("err", "a", "x"), ("ok", "a"), ("ask", "a"), T0 + 5
TRANSITIONS = {
    "unknown-ask": (3, [], ASK, (False, None), None, set(), 0),
    "unknown-success": (3, [], OK, None, (1, 0, None, None, T0, 0), {"a"}, 1),
    "unknown-error-below-limit": (3, [], ERR, None, (1, 1, "x", None, T0, 1), {"a"}, 1),
    "unknown-error-limit-1": (1, [], ERR, None, (1, 1, "x", T0, T0, 1), {"a"}, 1),
    "unknown-error-limit-0": (0, [], ERR, None, (1, 1, "x", T0, T0, 1), {"a"}, 1),
    "unknown-error-limit-negative": (-1, [], ("err", "a", ""), None, (1, 1, "", T0, T0, 1), {"a"}, 1),
    "unknown-error-limit-huge": (10**30, [], ERR, None, (1, 1, "x", None, T0, 1), {"a"}, 1),
    "enabled-ask": (3, [OK, 5], ASK, (False, None), (1, 0, None, None, T0, 0), set(), 0),
    "enabled-success": (3, [ERR, 5], OK, None, (2, 1, "x", None, T5, 0), {"a"}, 1),
    "enabled-error-below-limit": (3, [ERR, 5], ERR, None, (2, 2, "x", None, T5, 2), {"a"}, 1),
    "enabled-error-at-limit": (3, [ERR, ERR, 5], ERR, None, (3, 3, "x", T5, T5, 3), {"a"}, 1),
    "disabled-ask-before-cooldown": (1, [ERR, 59.5], ASK, (True, "x"), (1, 1, "x", T0, T0, 1), set(), 1),
    "disabled-ask-clock-went-back": (1, [ERR, -1000], ASK, (True, "x"), (1, 1, "x", T0, T0, 1), set(), 1),
    "disabled-ask-at-cooldown": (1, [ERR, 60], ASK, (False, None), (1, 1, "x", None, T0 + 60, 0), {"a"}, 1),
    "disabled-ask-lowered-cooldown": (1, [ERR, 5, ("cool", 5)], ASK, (False, None), (1, 1, "x", None, T5, 0), {"a"}, 1),
    "disabled-success": (1, [ERR, 5], OK, None, (2, 1, "x", None, T5, 0), {"a"}, 1),
    "disabled-error-moves-disabled-at": (1, [ERR, 5], ("err", "a", "y"), None, (2, 2, "y", T5, T5, 2), {"a"}, 1),
    "disabled-error-below-raised-limit": (1, [ERR, 5, ("limit", 10)], ERR, None, (2, 2, "x", T0, T5, 2), {"a"}, 1),
    "re-enabled-error-new-run": (2, [ERR, ERR, 60, ASK, 1], ERR, None, (3, 3, "x", None, T0 + 61, 1), {"a"}, 1),
    "error-error-success-error-error": (3, [ERR, ERR, OK, ERR, 1], ERR, None, (5, 4, "x", None, T0 + 1, 2), {"a"}, 1),
    "other-tools-are-independent": (1, [("err", "b", "x"), ("ok", "c")], ASK, (False, None), None, set(), 0),
    "disabled-ask-empty-message": (1, [("err", "a", "")], ASK, (True, ""), (1, 1, "", T0, T0, 1), set(), 1),
    # messages are cut to 500 code points; an absent one is stored as the empty text
    **{f"message-{i}": (1, [], ("err", "a", message), None, (1, 1, stored, T0, T0, 1), {"a"}, 1)
       for i, (message, stored) in enumerate([
           ("x" * 600, "x" * 500), ("x" * 500, "x" * 500), ("\U0001F600" * 600, "\U0001F600" * 500), (None, ""),
           ("é" * 300 + "\U0001F600" * 300, "é" * 300 + "\U0001F600" * 200), ("\ud83d" * 501, "\ud83d" * 500),
           ("a\x00b", "a\x00b")])},
}


def apply(tracker: Any, clock: FakeClock, step: Any) -> Any:
    actions = {"ask": tracker.is_disabled, "ok": tracker.record_success, "err": tracker.record_error,
               "limit": lambda n: setattr(tracker.limits, "disable_after_errors", n),
               "cool": lambda s: setattr(tracker.limits, "disable_cooldown_s", s)}
    return actions[step[0]](*step[1:]) if isinstance(step, tuple) else clock.advance(step)


@pytest.mark.parametrize("case", list(TRANSITIONS))
def test_transitions(make_tracker, clock, registry, recording, case: str) -> None:
    limit, setup, event, answer, after, dirty, reads = TRANSITIONS[case]
    tracker = make_tracker(ToolsConfig(disable_after_errors=limit, disable_cooldown_s=60.0))
    recording.calls.clear()
    for step in setup:
        apply(tracker, clock, step)
    others = {name: fields(tracker, name) for name in tracker._state if name != "a"}
    tracker._dirty.clear()
    reads_before = clock.reads
    got = apply(tracker, clock, event)
    assert got == answer and (answer is None or type(got) is tuple)
    assert fields(tracker, "a") == after and tracker._dirty == dirty and clock.reads - reads_before == reads
    assert {name: fields(tracker, name) for name in tracker._state if name != "a"} == others
    assert after is None or type(tracker._state["a"].updated_at) is float
    assert recording.calls == [] and not tracker._lock.locked()  # the call path never reaches the database


def test_record_call_counts(tracker, recording) -> None:
    statements = len(recording.calls)
    tracker.record_success("h")
    tracker._dirty.clear()
    for expected, ms in (((1, 0, 0.0), None), ((2, 1, 0.0), 0.0)):  # absent: counted, not timed
        tracker._usage_dirty = False
        tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=ms)
        assert usage(tracker) == {KEY: expected} and tracker._usage_dirty is True
    tracker.record_call(tool_name="a", action=None, outcome="ok", alias_hit=False, duration_ms=2.5)
    tracker.record_call("a", None, "ok", duration_ms=3, alias_hit=False)
    tracker.record_call("a", None, "ok", alias_hit=True, duration_ms=None)  # distinct keys: alias_hit,
    tracker.record_call("a", "", "ok", alias_hit=False, duration_ms=1.25)  # and "" against None
    for ms in (0.1, 0.2):
        tracker.record_call("search", "text", "error", alias_hit=False, duration_ms=ms)
    assert list(usage(tracker).items()) == [
        (KEY, (4, 3, 5.5)), (("a", None, "ok", True), (1, 0, 0.0)), (("a", "", "ok", False), (1, 1, 1.25)),
        (("search", "text", "error", False), (2, 2, 0.1 + 0.2))]
    assert all(type(k) is tuple and type(u.total_ms) is float for k, u in tracker._usage.items())
    assert list(tracker._state) == ["h"] and fields(tracker, "h")[0] == 1 and tracker._dirty == set()
    assert len(recording.calls) == statements


def test_late_binding(repo, recording, monkeypatch) -> None:
    """Clock, records, registry, column list and helpers are looked up on the module at each use."""
    monkeypatch.setattr(health, "TOOLS", make_registry({"search": ("symbol",)}))
    repo.db.executemany("INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)", [("search", 1, 0, None, "x", "y")])
    rows = [dict(zip(MEMBERS, ("search", action, "ok", False, 1, 1, 1.0))) for action in ("text", "symbol")]
    repo.db.execute(WRITE_USAGE, ("tool_usage", json.dumps(rows)))
    columns = "tool_name,call_count ,error_count,last_error,disabled_at,updated_at"
    for name, value in {"_ToolState": HostToolState, "_Usage": HostUsage, "time": FakeClock(2e9),
                        "_epoch": lambda text: {"x": 5.0, "y": 6.0}.get(text), "_known": lambda t, a: a == "text",
                        "_sqlite_time": lambda e: None if e is None else f"T{e:.0f}",
                        "_TOOL_HEALTH_COLUMNS": columns}.items():
        monkeypatch.setattr(health, name, value)
    tracker = tracker_over(recording, ToolsConfig(disable_after_errors=1, disable_cooldown_s=60.0))
    assert recording.calls[0] == ("fetchall", (f"SELECT {columns} FROM tool_health",))
    assert tracker._state == {"search": HostToolState(1, 0, None, 5.0, 6.0)}
    assert tracker._usage == {("search", "text", "ok", False): HostUsage(1, 1, 1.0)} and tracker._usage_dirty
    tracker.record_error("search", "e")
    tracker.record_error("new", "e")
    tracker.record_call("search", "text", "ok", alias_hit=False, duration_ms=2.0)
    assert tracker._state == {"search": HostToolState(2, 1, "e", 2e9, 2e9, 1),
                              "new": HostToolState(1, 1, "e", 2e9, 2e9, 1)}
    assert tracker._usage == {("search", "text", "ok", False): HostUsage(2, 2, 3.0)} and tracker.flush() == 3
    assert recording.calls[-2][1][0].startswith(f"INSERT INTO tool_health ({columns})\n")
    at = "T2000000000"
    assert repo.db.fetchall(SELECT_HEALTH) == [("search", 2, 1, "e", at, at), ("new", 1, 1, "e", at, at)]
    assert [(r["disabled_at"], r["usage"][0]["avg_ms"]) for r in tracker.get_health_summary()[:1]] == [(at, 1.5)]
    health.time.advance(60)
    assert tracker.is_disabled("new") == (False, None)
    assert tracker._state["new"] == HostToolState(1, 1, "e", None, 2e9 + 60)


CALLS = {"success": lambda t: t.record_success("a"), "error": lambda t: t.record_error("a", "x"),
         "is_disabled": lambda t: t.is_disabled("a"), "has_unsaved_changes": lambda t: t.has_unsaved_changes,
         "record_call": lambda t: t.record_call("a", None, "ok", alias_hit=False, duration_ms=None),
         "summary": lambda t: t.get_health_summary(), "properties": lambda t: (t.limits, t.cooldown_s)}


@pytest.mark.parametrize("call", list(CALLS))
def test_contended_lock(tracker, call: str) -> None:
    tracker.record_error("a", "x")
    snapshot, done = (fields(tracker, "a"), usage(tracker)), threading.Event()
    worker = threading.Thread(target=lambda: (CALLS[call](tracker), done.set()), daemon=True)
    with tracker._lock:
        worker.start()
        assert done.wait(0.2) is (call == "properties")
        assert (fields(tracker, "a"), usage(tracker)) == snapshot
    assert done.wait(10) and not tracker._lock.locked()


@pytest.mark.parametrize(("call", "error"), [
    *[(c, TypeError) for c in (lambda t: t.record_success(["a"]), lambda t: t.is_disabled(["a"]),
                               *[lambda t, a=a, k=k: t.record_call(*a, **k) for a, k in [
                                   (("a", None, "ok", True, 1.0), {}), (("a", None, "ok", True), {"duration_ms": 1}),
                                   (("a", None, "ok"), {"alias_hit": False}),
                                   (("a", None, "ok"), {"alias_hit": False, "duration_ms": None, "x": 1}),
                                   (("a", None, "ok"), {"alias_hit": False, "duration_ms": None, "tool_name": "a"})]])],
    *[(c, OverflowError) for c in (lambda t: t.record_success("big"), lambda t: t.record_error("big", "x"),
                                   lambda t: t.record_call("big", None, "ok", alias_hit=False, duration_ms=1.0))],
])
def test_bad_arguments_and_64_bit_counts(tracker, call, error: type) -> None:
    """Unhashable names and wrong arguments are refused without a change, counts raise instead of wrapping,
    and the lock is released."""
    tracker._state["big"] = health._ToolState(call_count=2**63 - 1)
    tracker._usage[BIG] = health._Usage(2**63 - 1, 0, 0.0)
    tracker._usage_dirty = False
    pytest.raises(error, call, tracker)
    assert (list(tracker._state), list(tracker._usage)) == (["big"], [BIG]) and tracker._dirty <= {"big"}
    assert tracker._state["big"].call_count == tracker._usage[BIG].calls == 2**63 - 1 and not tracker._usage_dirty
    assert_unlocked_and_working(tracker)


@pytest.mark.parametrize(("fault", "value", "event", "error", "record"), [
    ("after", RuntimeError("limits gone"), ERR, RuntimeError, (2, 2, "x", T0, T5, 2)),  # earlier steps stay done
    ("after", "3", ERR, TypeError, (2, 2, "x", T0, T5, 2)),
    ("cooldown", RuntimeError("cooldown gone"), ASK, RuntimeError, (1, 1, "x", T0, T0, 1)),
    *[("clock", value, event, error, None) for event in (OK, ERR, ASK) for value, error in [
        ("noon", TypeError), (OSError("no clock"), OSError), (KeyboardInterrupt(), KeyboardInterrupt)]],
])
def test_failing_limits_and_clock(make_tracker, clock, registry, monkeypatch, fault, value, event, error: type,
                                  record: tuple) -> None:
    """A setting or clock that raises or answers garbage: its error reaches the caller, the lock is free."""
    limits = Limits(after=1)
    tracker = make_tracker(limits)
    tracker.record_error("a", "x")
    tracker._dirty.clear()
    clock.advance(5)
    if fault == "clock":
        monkeypatch.setattr(health, "time", types.SimpleNamespace(time=lambda: answer(value)))
    setattr(limits, fault, value)
    pytest.raises(error, lambda: apply(tracker, clock, event))
    assert fields(tracker, "a") == (record or fields(tracker, "a")) and tracker._dirty == set()
    limits.after, limits.cooldown, health.time = 1, 60.0, clock
    assert tracker.is_disabled("unknown") == (False, None)  # no record: the cooldown is not read
    assert_unlocked_and_working(tracker)
