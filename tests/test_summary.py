"""The health summary: order of tools and usage rows, the shape of every map, mean
times, the slow-call predicate, and an oracle over random trackers."""
from __future__ import annotations

import types
from datetime import datetime, timezone
from typing import Any

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.tool_handlers import health

RECORD_KEYS = ["tool_name", "call_count", "error_count", "last_error", "disabled", "disabled_at",
               "updated_at", "usage"]
ROW_KEYS = ["action", "outcome", "alias_hit", "calls", "avg_ms", "slow"]


class EmptyDb:
    def fetchall(self, sql: str) -> list[Any]:
        return []

    def fetchone(self, sql: str, params: Any) -> None:
        return None


def tracker_with(states: dict[str, tuple[Any, ...]] = {}, usage: Any = (), limits: Any = None) -> Any:
    """A tracker whose maps hold the given records: states name -> _ToolState fields,
    usage a sequence of (key, (calls, timed_calls, total_ms))."""
    tracker = health.ToolHealthTracker(types.SimpleNamespace(db=EmptyDb()), limits)
    for name, fields in states.items():
        tracker._state[name] = health._ToolState(*fields)
    for key, counts in usage:
        tracker._usage[key] = health._Usage(*counts)
    return tracker


def stamp(epoch: float | None) -> str | None:
    if epoch is None:
        return None
    return datetime.fromtimestamp(epoch, timezone.utc).strftime("%Y-%m-%d %H:%M:%S")


def oracle(tracker: Any, is_slow: Any) -> list[dict[str, Any]]:
    """The summary, written out plainly over the tracker's maps."""
    names = list(dict.fromkeys([*tracker._state, *(k[0] for k in tracker._usage)]))
    pairs = [(n, tracker._state.get(n)) for n in names]
    pairs.sort(key=lambda p: (-(p[1].error_count if p[1] else 0), -(p[1].call_count if p[1] else 0)))
    out = []
    for name, s in pairs:
        rows = []
        for (tool, action, outcome, alias), u in tracker._usage.items():
            if tool != name:
                continue
            avg = None if u.timed_calls == 0 else round(u.total_ms / u.timed_calls, 2)
            rows.append({"action": action, "outcome": outcome, "alias_hit": alias, "calls": u.calls,
                         "avg_ms": avg, "slow": is_slow(name, action)})
        rows.sort(key=lambda r: (-r["calls"], "None" if r["action"] is None else r["action"],
                                 r["outcome"], r["alias_hit"]))
        out.append({
            "tool_name": name,
            "call_count": s.call_count if s else 0,
            "error_count": s.error_count if s else 0,
            "last_error": s.last_error if s else None,
            "disabled": bool(s and s.disabled_at is not None),
            "disabled_at": stamp(s.disabled_at) if s else None,
            "updated_at": stamp(s.updated_at if s else 0.0),
            "usage": rows,
        })
    return out


def shape(summary: list[dict[str, Any]]) -> list[Any]:
    """Key order and value types: what == on dicts does not see."""
    return [(list(r), [type(v).__name__ for v in r.values()],
             [(list(u), [type(v).__name__ for v in u.values()]) for u in r["usage"]]) for r in summary]


def test_empty_tracker() -> None:
    assert tracker_with().get_health_summary() == []


def test_tool_order_and_default_records() -> None:
    key = ("u1", None, "ok", False)
    tracker = tracker_with(
        {"t1": (10, 3), "t2": (40, 3), "t3": (1, 4), "t4": (0, 0), "t5": (10, 3, "boom", 5.0, 7.0)},
        [(key, (1, 0, 0.0)), (("t5", "x", "ok", True), (2, 1, 3.0)), (("u2", "a", "e", False), (1, 1, 1.0)),
         (("u1", None, "ok", True), (1, 1, 1.0)), (("t4", None, "ok", False), (1, 1, 1.0))],
    )
    state_before = dict(tracker._state)
    summary = tracker.get_health_summary()
    assert [r["tool_name"] for r in summary] == ["t3", "t2", "t1", "t5", "t4", "u1", "u2"]
    assert all(list(r) == RECORD_KEYS for r in summary)
    assert all(list(u) == ROW_KEYS for r in summary for u in r["usage"])
    assert summary[3] == {"tool_name": "t5", "call_count": 10, "error_count": 3, "last_error": "boom",
                          "disabled": True, "disabled_at": "1970-01-01 00:00:05",
                          "updated_at": "1970-01-01 00:00:07",
                          "usage": [{"action": "x", "outcome": "ok", "alias_hit": True, "calls": 2,
                                     "avg_ms": 3.0, "slow": False}]}
    assert summary[5] == {"tool_name": "u1", "call_count": 0, "error_count": 0, "last_error": None,
                          "disabled": False, "disabled_at": None, "updated_at": "1970-01-01 00:00:00",
                          "usage": [
                              {"action": None, "outcome": "ok", "alias_hit": False, "calls": 1,
                               "avg_ms": None, "slow": False},
                              {"action": None, "outcome": "ok", "alias_hit": True, "calls": 1,
                               "avg_ms": 1.0, "slow": False}]}
    assert summary[0]["usage"] == [] and summary[0]["disabled_at"] is None
    assert dict(tracker._state) == state_before and "u1" not in tracker._state
    assert tracker._dirty == set() and tracker._usage_dirty is False
    # Fresh copies: changing the answer does not reach the tracker.
    summary[3]["usage"].clear()
    assert tracker.get_health_summary()[3]["usage"]


def test_usage_row_order() -> None:
    keys = [
        ("t", "apple", "ok", False), ("t", None, "ok", True), ("t", "Zulu", "ok", False),
        ("t", "None", "ok", False), ("t", None, "ok", False), ("t", "Mango", "ok", False),
        ("t", "Alpha", "ok", False), ("t", "Nonf", "ok", False), ("t", "N", "ok", False),
        ("t", "Alpha", "b", True), ("t", "Alpha", "b", False), ("t", "", "ok", False),
        ("t", "é", "ok", False), ("t", "z", "ok", False), ("t", "low", "ok", False),
    ]
    calls = {("t", "low", "ok", False): 9, ("t", "z", "ok", False): 9}
    tracker = tracker_with({}, [(k, (calls.get(k, 1), 0, 0.0)) for k in keys])
    (record,) = tracker.get_health_summary()
    got = [(r["action"], r["outcome"], r["alias_hit"], r["calls"]) for r in record["usage"]]
    assert got == [
        ("low", "ok", False, 9), ("z", "ok", False, 9),
        ("", "ok", False, 1), ("Alpha", "b", False, 1), ("Alpha", "b", True, 1), ("Alpha", "ok", False, 1),
        ("Mango", "ok", False, 1), ("N", "ok", False, 1),
        # A null action sorts as "None": equal to the action "None", which keeps map order.
        ("None", "ok", False, 1), (None, "ok", False, 1), (None, "ok", True, 1),
        ("Nonf", "ok", False, 1), ("Zulu", "ok", False, 1), ("apple", "ok", False, 1), ("é", "ok", False, 1),
    ]


def test_tools_sharing_a_prefix_stay_apart() -> None:
    tracker = tracker_with({"search": (1, 0)}, [
        (("searc", None, "ok", False), (1, 0, 0.0)), (("search", "text", "ok", False), (2, 0, 0.0)),
        (("search_x", "text", "ok", False), (3, 0, 0.0)), (("Search", "text", "ok", False), (4, 0, 0.0))])
    summary = {r["tool_name"]: [u["calls"] for u in r["usage"]] for r in tracker.get_health_summary()}
    assert summary == {"search": [2], "searc": [1], "search_x": [3], "Search": [4]}


@pytest.mark.parametrize("total, timed, avg", [
    (0.125, 1, 0.12), (0.375, 1, 0.38), (2.675, 1, 2.67), (10.0, 3, 3.33), (10.0, 4, 2.5),
    (6.0, 2, 3.0), (0.0, 2, 0.0), (5.0, 0, None), (1e300, 1, 1e300), (-0.125, 1, -0.12),
])
def test_avg_ms(total, timed, avg) -> None:
    tracker = tracker_with({}, [(("t", None, "ok", False), (5, timed, total))])
    got = tracker.get_health_summary()[0]["usage"][0]["avg_ms"]
    assert got == avg and type(got) is type(avg)


def test_is_slow_call_order_and_answers(monkeypatch) -> None:
    seen: list[tuple[str, Any]] = []

    def is_slow(tool: str, action: Any) -> bool:
        seen.append((tool, action))
        return action == "slow"

    monkeypatch.setattr(health, "is_slow_call", is_slow)
    usage = [(("b", "slow", "ok", False), (1, 0, 0.0)), (("a", "fast", "ok", False), (1, 0, 0.0)),
             (("b", None, "ok", False), (5, 0, 0.0)), (("a", "slow", "ok", True), (3, 0, 0.0)),
             (("b", "x", "ok", False), (2, 0, 0.0))]
    tracker = tracker_with({"a": (1, 0), "b": (5, 5)}, usage)
    summary = tracker.get_health_summary()
    assert seen == [("b", "slow"), ("b", None), ("b", "x"), ("a", "fast"), ("a", "slow")]
    assert [(u["action"], u["slow"]) for r in summary for u in r["usage"]] == [
        (None, False), ("x", False), ("slow", True), ("slow", True), ("fast", False)]


def test_failing_is_slow_call_leaves_tracker_as_it_was(monkeypatch, clock) -> None:
    error = RuntimeError("registry gone")

    def is_slow(tool: str, action: Any) -> bool:
        raise error

    tracker = tracker_with({"a": (2, 1, "e", None, 3.0)}, [(("a", None, "ok", False), (1, 1, 2.0))])
    tracker._dirty.add("a")
    before = (repr(tracker._state), list(tracker._usage), repr(list(tracker._usage.values())))
    monkeypatch.setattr(health, "is_slow_call", is_slow)
    with pytest.raises(RuntimeError) as info:
        tracker.get_health_summary()
    assert info.value is error
    assert not tracker._lock.locked()
    assert (repr(tracker._state), list(tracker._usage), repr(list(tracker._usage.values()))) == before
    assert tracker._dirty == {"a"} and tracker._usage_dirty is False
    tracker.record_success("a")  # the lock is free again
    assert tracker._state["a"].call_count == 3


def test_disabled_past_cooldown_still_shows_disabled(clock) -> None:
    tracker = tracker_with(limits=ToolsConfig(disable_after_errors=1, disable_cooldown_s=10))
    tracker.record_error("a", "boom")
    tracker._dirty.clear()
    clock.advance(100)
    (record,) = tracker.get_health_summary()
    assert record["disabled"] is True and record["disabled_at"] == "2023-11-14 22:13:20"
    assert tracker._dirty == set() and tracker._state["a"].disabled_at is not None
    assert tracker.is_disabled("a") == (False, None)
    (record,) = tracker.get_health_summary()
    assert record["disabled"] is False and record["disabled_at"] is None
    assert record["updated_at"] == "2023-11-14 22:15:00"


names = st.sampled_from(["a", "b", "c", "ab", "é", "B"])
states = st.dictionaries(names, st.tuples(
    st.integers(0, 3), st.integers(0, 3), st.sampled_from([None, "", "boom"]),
    st.sampled_from([None, 0.0, 1.5, 1_700_000_000.25, -1.5]),
    st.sampled_from([0.0, 59.9, 1_700_000_000.75]), st.integers(0, 2)), max_size=5)
usages = st.lists(st.tuples(
    st.tuples(names, st.sampled_from([None, "None", "", "A", "a", "N", "Z", "x"]),
              st.sampled_from(["ok", "error", "Ok"]), st.booleans()),
    st.tuples(st.integers(0, 3), st.integers(0, 3), st.floats(0, 1e4, allow_nan=False))), max_size=14)


@settings(max_examples=120, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(states, usages)
def test_summary_matches_oracle(monkeypatch, state_fields, usage) -> None:
    def is_slow(tool: str, action: Any) -> bool:
        return (len(tool) + len(str(action))) % 2 == 0

    monkeypatch.setattr(health, "is_slow_call", is_slow)
    tracker = tracker_with(state_fields, usage)
    got = tracker.get_health_summary()
    want = oracle(tracker, is_slow)
    assert got == want
    assert shape(got) == shape(want)
