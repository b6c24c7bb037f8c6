"""The health summary against an oracle: order, map shapes, defaults, mean times, slow calls, actions of any kind
(enum members, numbers and bytes sort as their text; numbers read back from the document: test_history; a raising
is_slow_call: test_hostile)."""

import enum
from datetime import datetime, timezone
from typing import Any

from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

from conftest import MemDb, tracker_over
from ordanis_veltrane.tool_handlers import health


def stamp(epoch: float | None) -> str | None:
    return None if epoch is None else datetime.fromtimestamp(epoch, timezone.utc).strftime("%Y-%m-%d %H:%M:%S")


def oracle(tracker: Any, is_slow: Any) -> list[dict[str, Any]]:
    """The summary, written out plainly over the tracker's maps."""
    names = list(dict.fromkeys([*tracker._state, *(k[0] for k in tracker._usage)]))
    pairs = sorted(((n, tracker._state.get(n)) for n in names),
                   key=lambda p: (-(p[1].error_count if p[1] else 0), -(p[1].call_count if p[1] else 0)))
    out = []
    for name, s in pairs:
        rows = [{"action": action, "outcome": outcome, "alias_hit": alias, "calls": u.calls,
                 "avg_ms": None if u.timed_calls == 0 else round(u.total_ms / u.timed_calls, 2),
                 "slow": is_slow(name, action)}
                for (tool, action, outcome, alias), u in tracker._usage.items() if tool == name]
        rows.sort(key=lambda r: (-r["calls"], str(r["action"]), r["outcome"], r["alias_hit"]))
        out.append({"tool_name": name, "call_count": s.call_count if s else 0, "error_count": s.error_count if s else 0,
                    "last_error": s.last_error if s else None, "disabled": bool(s and s.disabled_at is not None),
                    "disabled_at": stamp(s.disabled_at) if s else None, "updated_at": stamp(s.updated_at if s else 0.0),
                    "usage": rows})
    return out


def shape(summary: list[dict[str, Any]]) -> list[Any]:  # key order and value types: what == on dicts does not see
    return [(list(r), [type(v) for v in r.values()], [(list(u), [type(v) for v in u.values()]) for u in r["usage"]])
            for r in summary]


class Kind(enum.Enum):  # an action that is no text: it sorts as its text
    TEXT = "text"
    SYM = "sym"


names = st.sampled_from(["a", "b", "c", "ab", "é", "B"])
states = st.dictionaries(names, st.tuples(
    st.integers(0, 3), st.integers(0, 3), st.sampled_from([None, "", "boom"]),
    st.sampled_from([None, 0.0, 1.5, 1_700_000_000.25, -1.5]), st.sampled_from([0.0, 59.9, 1_700_000_000.75]),
    st.integers(0, 2)), max_size=5)
usages = st.lists(st.tuples(
    st.tuples(names, st.sampled_from([None, "None", "", "A", "a", "N", "Z", "x", Kind.TEXT, Kind.SYM, 7, b"x"]),
              st.sampled_from(["ok", "error", "Ok"]), st.booleans()),
    st.tuples(st.integers(0, 3), st.integers(0, 3), st.floats(0, 1e4, allow_nan=False))), max_size=14)
ROW_ORDER = [(("t", a, o, h), (9 if a in ("low", "z") else 1, 0, 0.0)) for a, o, h in [
    ("apple", "ok", False), ("Zulu", "ok", False), ("None", "ok", False), (None, "ok", False), ("Mango", "ok", False),
    ("Alpha", "ok", False), ("Nonf", "ok", False), ("", "ok", False), ("z", "ok", False), ("low", "ok", False),
    (None, "ok", True), ("Alpha", "b", True), ("Alpha", "b", False)]]  # a null action sorts as "None"


@settings(max_examples=120, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(states, usages)
@example({}, ROW_ORDER)
@example({}, [(("t", str(i), "ok", False), (5, timed, total)) for i, (total, timed) in enumerate(
    [(0.125, 1), (0.375, 1), (2.675, 1), (10.0, 3), (10.0, 4), (0.0, 2), (5.0, 0), (1e300, 1)])])  # rounding
@example({"t1": (10, 3), "t2": (40, 3), "t3": (1, 4), "t4": (0, 0), "t5": (10, 3, "boom", 5.0, 7.0)},
         [(("u1", None, "ok", False), (1, 0, 0.0)), (("t5", "x", "ok", True), (2, 1, 3.0)),
          (("t", "x", "ok", True), (7, 1, 3.0)), (("u2", "a", "e", False), (1, 1, 1.0)),
          (("u1", None, "ok", True), (1, 1, 1.0)), (("t5x", "x", "ok", True), (9, 1, 3.0))])  # shared prefixes
def test_summary_matches_oracle(monkeypatch, state_fields, usage) -> None:
    seen: list[tuple[str, Any]] = []
    is_slow = lambda tool, action: (len(tool) + len(str(action))) % 2 == 0  # noqa: E731
    monkeypatch.setattr(health, "is_slow_call", lambda t, a: seen.append((t, a)) or is_slow(t, a))
    tracker = tracker_over(MemDb())
    tracker._state.update({name: health._ToolState(*fields) for name, fields in state_fields.items()})
    tracker._usage.update({key: health._Usage(*counts) for key, counts in usage})
    got = tracker.get_health_summary()
    assert got == oracle(tracker, is_slow) and shape(got) == shape(oracle(tracker, is_slow))
    # asked once per row: the tools in the summary's order, each tool's keys in the map's order
    assert seen == [(r["tool_name"], k[1]) for r in got for k in tracker._usage if k[0] == r["tool_name"]]
    for record in got:  # fresh copies, and nothing marked
        record["usage"].clear()
    assert tracker.get_health_summary() == oracle(tracker, is_slow) and not tracker.has_unsaved_changes
    assert all(name in state_fields for name in tracker._state)
